#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/uuid.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <boost/uuid/entropy_error.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <latch>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/processes.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/threads.h"

namespace {

using boost::uuids::uuid;
using quorvane::get_my_uuid;
using quorvane::uuid_clear;
using quorvane::uuid_generate;
using quorvane::uuid_parse;
using quorvane::uuid_unparse;
using test::Ran;
using test::run_scenario;
using test::run_threads;
using testing::IsEmpty;

const uuid SAMPLE = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef,
                     0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32, 0x10};
const std::string SAMPLE_TEXT = "01234567-89ab-cdef-fedc-ba9876543210";
const std::string NIL_TEXT = "00000000-0000-0000-0000-000000000000";

// --------------------------------------------------------------------- generate

TEST(UuidGenerate, GivesRandomUuidsOfVersionFourInTheStandardLayout) {
  std::set<uuid> all;
  for (int i = 0; i < 1000; ++i) {
    const uuid made = uuid_generate();
    EXPECT_EQ(made.version(), uuid::version_random_number_based);
    EXPECT_EQ(made.variant(), uuid::variant_rfc_4122);
    const std::string text = uuid_unparse(made);
    EXPECT_EQ(text[14], '4');
    EXPECT_NE(std::string("89ab").find(text[19]), std::string::npos) << text;
    all.insert(made);
  }
  EXPECT_EQ(all.size(), 1000U);
}

// The other 122 bits must each take both values.
TEST(UuidGenerate, FixesNoOtherBit) {
  std::array<std::uint8_t, 16> ever_set{};
  std::array<std::uint8_t, 16> ever_clear{};
  for (int i = 0; i < 200; ++i) {
    const uuid made = uuid_generate();
    for (std::size_t byte = 0; byte < 16; ++byte) {
      ever_set.at(byte) |= made.data[byte];
      ever_clear.at(byte) |= static_cast<std::uint8_t>(~made.data[byte]);
    }
  }
  for (std::size_t byte = 0; byte < 16; ++byte) {
    const int fixed = byte == 6 ? 0xf0 : byte == 8 ? 0xc0 : 0;
    EXPECT_EQ(ever_set.at(byte) & ever_clear.at(byte), 0xff & ~fixed) << "byte " << byte;
  }
}

TEST(UuidGenerate, GivesDifferentUuidsToAllThreads) {
  std::array<std::vector<uuid>, 8> made;
  run_threads(8, [&](int i) {
    for (int round = 0; round < 200; ++round) {
      made.at(static_cast<std::size_t>(i)).push_back(uuid_generate());
    }
  });
  std::set<uuid> all;
  for (const auto& some : made) {
    all.insert(some.begin(), some.end());
  }
  EXPECT_EQ(all.size(), 1600U);
}

int run_in_child(pid_t (*make_child)(), const std::function<int()>& work) {
  const pid_t child = make_child();
  if (child == 0) {
    _exit(work());
  }
  return test::wait_for(child);
}

// What `work` returns in a child, passed on through a pipe.
uuid from_child(pid_t (*make_child)(), const std::function<uuid()>& work) {
  int ends[2];
  uuid made{};
  if (pipe(ends) == 0) {
    run_in_child(make_child, [&] {
      const uuid mine = work();
      return write(ends[1], &mine, sizeof(mine)) == sizeof(mine) ? 0 : 1;
    });
    close(ends[1]);
    if (read(ends[0], &made, sizeof(made)) != sizeof(made)) {
      uuid_clear(made);
    }
    close(ends[0]);
  }
  return made;
}

pid_t raw_clone() {
  return static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
}

TEST(UuidGenerate, GivesSiblingsDifferentUuids) {
  const uuid mine = uuid_generate();
  const uuid first = from_child(&fork, &uuid_generate);
  const uuid second = from_child(&fork, &uuid_generate);
  const std::set<uuid> all{mine, first, second, uuid_generate(), uuid{}};
  EXPECT_EQ(all.size(), 5U);
}

// ------------------------------------------------------------------------ parse

class WellFormed : public testing::TestWithParam<std::string> {};

TEST_P(WellFormed, TextIsRead) { EXPECT_EQ(uuid_parse(GetParam().c_str()), SAMPLE); }

INSTANTIATE_TEST_SUITE_P(Forms, WellFormed,
                         testing::Values("01234567-89ab-cdef-fedc-ba9876543210",
                                         "01234567-89AB-CDEF-FEDC-BA9876543210",
                                         "0123456789abcdeffedcba9876543210",
                                         "0123456789ABCDEFFEDCBA9876543210",
                                         "{01234567-89aB-CdEf-FeDc-bA9876543210}",
                                         "{0123456789abcdeffedcba9876543210}"));

class Malformed : public testing::TestWithParam<std::string> {};

TEST_P(Malformed, TextGivesTheNilUuid) {
  EXPECT_NO_THROW(EXPECT_EQ(uuid_parse(GetParam().c_str()), uuid{}));
}

INSTANTIATE_TEST_SUITE_P(
    Forms, Malformed,
    testing::Values(
        "", "{", "}", "{}", "-", "0", "nonsense",
        // One digit or character too few or too many.
        "01234567-89ab-cdef-fedc-ba987654321", "0123456789abcdeffedcba987654321",
        "01234567-89ab-cdef-fedc-ba98765432100", "0123456789abcdeffedcba98765432100",
        "01234567-89ab-cdef-fedc-ba9876543210 ", " 01234567-89ab-cdef-fedc-ba9876543210",
        "01234567-89ab-cdef-fedc-ba9876543210\n",
        // Braces that don't pair.
        "{01234567-89ab-cdef-fedc-ba9876543210", "01234567-89ab-cdef-fedc-ba9876543210}",
        "{01234567-89ab-cdef-fedc-ba9876543210)", "{{01234567-89ab-cdef-fedc-ba9876543210}}",
        "{01234567-89ab-cdef-fedc-ba9876543210}}",
        // Hyphens that are missing, doubled or elsewhere.
        "0123456789ab-cdef-fedc-ba9876543210", "01234567-89abcdef-fedc-ba9876543210",
        "01234567-89ab-cdeffedc-ba9876543210", "01234567-89ab-cdef-fedcba9876543210",
        "01234567--89ab-cdef-fedc-ba9876543210", "0123-456789ab-cdef-fedc-ba9876543210",
        "-0123456789abcdeffedcba9876543210", "0123456789abcdeffedcba9876543210-",
        "01234567_89ab_cdef_fedc_ba9876543210"));

TEST(UuidParse, GivesTheNilUuidForThirtyFiveDigits) {
  EXPECT_EQ(uuid_parse(std::string(35, '1').c_str()), uuid{});
}

TEST(UuidParse, GivesTheNilUuidForNull) { EXPECT_EQ(uuid_parse(nullptr), uuid{}); }

TEST(UuidParse, ReadsTheNilUuidTooWhichLooksTheSame) {
  EXPECT_EQ(uuid_parse(NIL_TEXT.c_str()), uuid{});
}

// Puts every byte, NUL included, in every place.
TEST(UuidParse, TakesNoCharacterButADigitForADigit) {
  const std::string digits = "0123456789abcdefABCDEF";
  for (std::size_t place = 0; place < SAMPLE_TEXT.size(); ++place) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string text = SAMPLE_TEXT;
      text[place] = static_cast<char>(byte);
      const bool is_hyphen = SAMPLE_TEXT[place] == '-';
      const bool fits = is_hyphen ? byte == '-' : digits.find(text[place]) != std::string::npos;
      const uuid read = uuid_parse(text.c_str());
      if (fits) {
        EXPECT_EQ(uuid_parse(uuid_unparse(read).c_str()), read) << text;
        EXPECT_NE(read, uuid{}) << text;
      } else {
        EXPECT_EQ(read, uuid{}) << "byte " << byte << " at " << place;
      }
    }
  }
}

TEST(UuidParse, GivesTheNilUuidForEveryTextThatIsCut) {
  for (const std::string& whole : {SAMPLE_TEXT, "{" + SAMPLE_TEXT + "}"}) {
    for (std::size_t size = 0; size < whole.size(); ++size) {
      EXPECT_EQ(uuid_parse(whole.substr(0, size).c_str()), uuid{}) << size;
    }
    EXPECT_EQ(uuid_parse(whole.c_str()), SAMPLE);
  }
}

// ------------------------------------------------------------- unparse and clear

TEST(UuidUnparse, WritesLowerCaseInGroups) {
  EXPECT_EQ(uuid_unparse(SAMPLE), SAMPLE_TEXT);
  EXPECT_EQ(uuid_unparse(uuid_parse("{01234567-89AB-CDEF-FEDC-BA9876543210}")), SAMPLE_TEXT);
}

TEST(UuidUnparse, WritesWhatParseReads) {
  for (int i = 0; i < 100; ++i) {
    const uuid made = uuid_generate();
    EXPECT_EQ(uuid_parse(uuid_unparse(made).c_str()), made);
  }
}

TEST(UuidClear, LeavesTheNilUuid) {
  uuid some = SAMPLE;
  uuid_clear(some);
  EXPECT_TRUE(some.is_nil());
  EXPECT_EQ(uuid_unparse(some), NIL_TEXT);
}

// --------------------------------------------------------------- the identity

TEST(Identity, StaysTheSameAndIsAUuidOfVersionFour) {
  const uuid mine = get_my_uuid();
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(get_my_uuid(), mine);
  }
  EXPECT_EQ(mine.version(), uuid::version_random_number_based);
  EXPECT_EQ(mine.variant(), uuid::variant_rfc_4122);
  EXPECT_NE(uuid_generate(), mine);
}

SCENARIO(threads_ask_first) {
  std::latch start(16);
  std::array<uuid, 16> seen{};
  run_threads(16, [&](int i) {
    start.arrive_and_wait();
    seen.at(static_cast<std::size_t>(i)) = get_my_uuid();
  });
  const uuid mine = get_my_uuid();
  for (const uuid& other : seen) {
    if (other != mine) {
      return 1;
    }
  }
  return mine.is_nil() ? 1 : 0;
}

TEST(Identity, IsOneForThreadsThatAskForItAtOnce) {
  for (int i = 0; i < 20; ++i) {
    EXPECT_TRUE(run_scenario("threads_ask_first").exited_with(0));
  }
}

// The identity of this process, or the nil UUID if a second call gives another one.
uuid steady_identity() {
  const uuid mine = get_my_uuid();
  return get_my_uuid() == mine ? mine : uuid{};
}

// Prints how many different identities a child, two grandchildren, another child and the
// parent have. The parent of the first grandchild fails if its own identity changes.
int count_identities(pid_t (*make_child)(), bool parent_asks_first) {
  std::set<uuid> all{uuid{}};
  uuid mine{};
  if (parent_asks_first) {
    mine = get_my_uuid();
  }
  all.insert(from_child(make_child, [&] {
    const uuid first = steady_identity();
    const uuid below = from_child(make_child, &steady_identity);
    return first == get_my_uuid() && first != below && below != mine ? first : uuid{};
  }));
  all.insert(from_child(make_child, [&] { return from_child(make_child, &steady_identity); }));
  all.insert(from_child(make_child, &steady_identity));
  const uuid after = steady_identity();
  all.insert(after);
  std::cout << all.size() - 1 << (parent_asks_first && after != mine ? " changed" : "");
  return 0;
}

SCENARIO(counts_identities) {
  return count_identities(arguments.at(0) == "fork" ? &fork : &raw_clone,
                          arguments.at(1) == "asked");
}

TEST(Identity, OfAChildAndOfItsChildIsItsOwnAndTheParentsStays) {
  EXPECT_EQ(run_scenario("counts_identities", {}, {"fork", "asked"}).out, "4");
}

TEST(Identity, OfChildrenIsTheirOwnWhenTheParentHadNone) {
  EXPECT_EQ(run_scenario("counts_identities", {}, {"fork", "not asked"}).out, "4");
}

TEST(Identity, OfAChildThatNoForkHandlerSawIsItsOwn) {
  EXPECT_EQ(run_scenario("counts_identities", {}, {"clone", "asked"}).out, "4");
  EXPECT_EQ(run_scenario("counts_identities", {}, {"clone", "not asked"}).out, "4");
}

// The refusal survives exec, so it applies when the library is loaded.
SCENARIO(loads_without_wiping) {
  test::refuse(SYS_madvise, EINVAL, test::When{2, MADV_WIPEONFORK});
  execl("/proc/self/exe", "uuid_test", "--scenario", "counts_identities", "fork",
        arguments.at(0).c_str(), nullptr);
  return 1;
}

TEST(Identity, OfAChildIsItsOwnWhenTheKernelCannotWipeOnFork) {
  EXPECT_EQ(run_scenario("loads_without_wiping", {}, {"asked"}).out, "4");
  EXPECT_EQ(run_scenario("loads_without_wiping", {}, {"not asked"}).out, "4");
}

SCENARIO(asks_in_a_thread_and_in_its_child) {
  uuid mine{};
  uuid of_child{};
  run_threads(1, [&](int) {
    mine = get_my_uuid();
    of_child = from_child(&fork, &steady_identity);
  });
  return mine == get_my_uuid() && !of_child.is_nil() && of_child != mine ? 0 : 1;
}

TEST(Identity, OfAThreadsChildIsItsOwn) {
  EXPECT_TRUE(run_scenario("asks_in_a_thread_and_in_its_child").exited_with(0));
}

// Another thread makes the identity, perhaps during the fork.
SCENARIO(forks_beside_a_first_call) {
  for (int round = 0; round < 200; ++round) {
    const int status = run_in_child(&fork, [] {
      alarm(30);
      std::latch start(2);
      std::thread maker([&] {
        start.arrive_and_wait();
        get_my_uuid();
      });
      start.arrive_and_wait();
      const uuid of_child = from_child(&fork, [] {
        alarm(30);
        return steady_identity();
      });
      maker.join();
      return of_child.is_nil() || of_child == get_my_uuid() ? 1 : 0;
    });
    if (status != 0) {
      return 1;
    }
  }
  return 0;
}

TEST(Identity, OfAChildForkedBesideAFirstCallIsItsOwnAndHangsNobody) {
  const Ran ran = run_scenario("forks_beside_a_first_call");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.err, "");
}

SCENARIO(forks_beside_threads_that_generate) {
  std::atomic<bool> stops{false};
  std::latch start(4);
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      while (!stops) {
        uuid_generate();
      }
    });
  }
  start.arrive_and_wait();
  int failed = 0;
  for (int round = 0; round < 200; ++round) {
    const uuid of_child = from_child(&fork, [] {
      alarm(30);
      return uuid_generate() == uuid_generate() ? uuid{} : get_my_uuid();
    });
    failed += of_child.is_nil() ? 1 : 0;
  }
  stops = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  return failed == 0 ? 0 : 1;
}

TEST(UuidGenerate, HangsNoChildForkedBesideThreadsThatGenerate) {
  EXPECT_TRUE(run_scenario("forks_beside_threads_that_generate").exited_with(0));
}

// ----------------------------------------------------- when the kernel refuses

// "threw" if the generator's own exception arrives with the errno of the refusal.
template <typename Function>
std::string outcome(const Function& function) {
  try {
    function();
    return "returned ";
  } catch (const boost::uuids::entropy_error& error) {
    return error.errcode() == ENOSYS ? "threw " : "threw another number ";
  }
}

SCENARIO(generates_without_the_kernels_help) {
  test::refuse(SYS_getrandom, ENOSYS);
  std::cout << outcome(&uuid_generate) << outcome(&get_my_uuid) << outcome(&get_my_uuid);
  return uuid_parse("nonsense").is_nil() && uuid_parse(SAMPLE_TEXT.c_str()) == SAMPLE ? 0 : 1;
}

TEST(UuidGenerate, LetsTheGeneratorsExceptionThroughAndHoldsNothing) {
  const Ran ran = run_scenario("generates_without_the_kernels_help");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "threw threw threw ");
  EXPECT_THAT(ran.messages(), IsEmpty());
}

SCENARIO(keeps_its_identity_without_the_kernels_help) {
  const uuid mine = get_my_uuid();
  test::refuse(SYS_getrandom, ENOSYS);
  return get_my_uuid() == mine ? 0 : 1;
}

TEST(Identity, NeedsNoKernelOnceItIsMade) {
  EXPECT_TRUE(run_scenario("keeps_its_identity_without_the_kernels_help").exited_with(0));
}

// --------------------------------------------------------------- early and late

constexpr const char* kAroundMainEnv = "QV_TEST_AROUND_MAIN";

// Asks before main, and in its destructor, which runs after the exit handlers of main.
class AroundMain {
 public:
  AroundMain() { say("before main"); }
  ~AroundMain() { say("static destructor"); }

  static void say(const char* when) {
    if (std::getenv(kAroundMainEnv) != nullptr) {
      std::cout << when << " " << get_my_uuid() << "\n";
    }
  }
};

const std::ios_base::Init g_streams_come_first;
const AroundMain g_around_main;

SCENARIO(asks_around_main) {
  std::atexit([] { AroundMain::say("exit handler"); });
  AroundMain::say("main");
  return 0;
}

TEST(Identity, IsTheSameBeforeMainAndAtExit) {
  const Ran ran = run_scenario("asks_around_main", {{kAroundMainEnv, "1"}});
  EXPECT_TRUE(ran.exited_with(0));
  const std::string mine = ran.out.substr(12, 36);
  EXPECT_FALSE(uuid_parse(mine.c_str()).is_nil());
  EXPECT_EQ(ran.out, "before main " + mine + "\nmain " + mine + "\nexit handler " + mine +
                         "\nstatic destructor " + mine + "\n");
}

}  // namespace
