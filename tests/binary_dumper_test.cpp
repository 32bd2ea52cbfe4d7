#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/binary_dumper.h>
#include <quorvane/module.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <latch>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/descriptors.h"
#include "support/hostile.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using quorvane::util::BinaryDumper;
using test::exists;
using test::open_descriptors;
using test::Ran;
using test::read_file;
using test::run_scenario;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char* kModule = "util/src/fatbin_parser";

std::map<std::string, std::string> files_in(const std::string& directory) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    files[entry.path().filename()] = read_file(entry.path());
  }
  return files;
}

void dump(BinaryDumper& dumper, const std::string& bytes) {
  dumper.dump(bytes.data(), bytes.size());
}

// --------------------------------------------------------------- names and numbers

// Dumps twice with a dumper made from the four arguments, where "null" is a null pointer.
SCENARIO(dumps_twice) {
  const auto argument = [&](std::size_t i) {
    return arguments.at(i) == "null" ? nullptr : arguments.at(i).c_str();
  };
  BinaryDumper dumper(argument(0), argument(1), argument(2), argument(3), QV_LOG_LEVEL_INFO);
  dump(dumper, "first");
  dump(dumper, std::string("se\0cond\xff", 8));
  return 0;
}

class Dumper : public testing::Test {
 protected:
  // "INFO Dumping NAME #NUMBER of size SIZE to DIRECTORY/FILE"
  std::string record(const std::string& what, const std::string& file) const {
    return "INFO Dumping " + what + " to " + dir_.path() + "/" + file;
  }

  test::TempDir dir_;
};

TEST_F(Dumper, NumbersItsFilesAndLogsEachBeforeItIsWritten) {
  const Ran ran = run_scenario("dumps_twice", {}, {"a thing", "it-", ".raw", dir_.path()});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), ElementsAre(record("a thing #0000 of size 5", "it-0000.raw"),
                                          record("a thing #0001 of size 8", "it-0001.raw")));
  EXPECT_THAT(files_in(dir_.path()),
              ElementsAre(testing::Pair("it-0000.raw", "first"),
                          testing::Pair("it-0001.raw", std::string("se\0cond\xff", 8))));
  EXPECT_EQ(ran.err, "");
}

TEST_F(Dumper, TakesDefaultsForNullsAndTheDirectoryFromTheEnvironment) {
  const Ran ran =
      run_scenario("dumps_twice", {{"TMPDIR", dir_.path()}}, {"null", "null", "null", "null"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), ElementsAre(record("(Unset) #0000 of size 5", "dump_0000.bin"),
                                          record("(Unset) #0001 of size 8", "dump_0001.bin")));
  EXPECT_THAT(files_in(dir_.path()), SizeIs(2));
}

TEST_F(Dumper, PrefersItsDirectoryToTheEnvironments) {
  const Ran ran = run_scenario("dumps_twice", {{"TMPDIR", dir_.file("missing")}},
                               {"null", "null", "null", dir_.path()});
  EXPECT_THAT(files_in(dir_.path()), SizeIs(2));
}

TEST_F(Dumper, KeepsEmptyStrings) {
  const Ran ran = run_scenario("dumps_twice", {}, {"", "", "", dir_.path()});
  EXPECT_THAT(ran.messages(),
              ElementsAre(record(" #0000 of size 5", "0000"), record(" #0001 of size 8", "0001")));
  EXPECT_THAT(files_in(dir_.path()), SizeIs(2));
}

// The dump would go to / or /tmp, so opening its file is refused.
SCENARIO(dumps_to_the_directory_of_the_environment) {
  test::refuse(SYS_openat, EACCES, test::When{2, O_WRONLY | O_CREAT | O_TRUNC});
  BinaryDumper dumper;
  dump(dumper, "first");
  return 0;
}

TEST_F(Dumper, TakesAnEmptyDirectoryFromTheEnvironmentAsItIs) {
  const Ran ran = run_scenario("dumps_to_the_directory_of_the_environment", {{"TMPDIR", ""}});
  EXPECT_THAT(ran.messages(), ElementsAre("INFO Dumping (Unset) #0000 of size 5 to /dump_0000.bin",
                                          "INFO Dump failed!  Can't open file."));
}

TEST_F(Dumper, DumpsBelowTmpWithoutADirectoryInTheEnvironment) {
  const Ran ran =
      run_scenario("dumps_to_the_directory_of_the_environment", {{"TMPDIR", std::nullopt}});
  EXPECT_THAT(ran.messages(),
              ElementsAre("INFO Dumping (Unset) #0000 of size 5 to /tmp//dump_0000.bin",
                          "INFO Dump failed!  Can't open file."));
}

// The prefix is unique, so that other runs of this test don't touch these files.
TEST_F(Dumper, WritesBelowTmpWithADoubledSlash) {
  const std::string prefix = "qv_test_" + std::to_string(getpid()) + "_";
  const Ran ran =
      run_scenario("dumps_twice", {{"TMPDIR", std::nullopt}}, {"null", prefix, "null", "null"});
  const std::string first = "/tmp//" + prefix + "0000.bin";
  const std::string second = "/tmp//" + prefix + "0001.bin";
  EXPECT_THAT(ran.messages(), ElementsAre("INFO Dumping (Unset) #0000 of size 5 to " + first,
                                          "INFO Dumping (Unset) #0001 of size 8 to " + second));
  EXPECT_EQ(read_file(first), "first");
  EXPECT_EQ(read_file(second), std::string("se\0cond\xff", 8));
  unlink(first.c_str());
  unlink(second.c_str());
}

SCENARIO(forgets_its_arguments) {
  std::optional<BinaryDumper> dumper;
  {
    std::string name = "name";
    std::string prefix = "p";
    std::string suffix = "s";
    std::string directory = arguments.at(0);
    dumper.emplace(name.c_str(), prefix.c_str(), suffix.c_str(), directory.c_str(),
                   QV_LOG_LEVEL_INFO);
    for (std::string* text : {&name, &prefix, &suffix, &directory}) {
      text->assign(text->size(), 'x');
    }
  }
  setenv("TMPDIR", "/nowhere", 1);
  dump(*dumper, "first");
  return 0;
}

TEST_F(Dumper, KeepsCopiesOfItsArguments) {
  EXPECT_THAT(run_scenario("forgets_its_arguments", {}, {dir_.path()}).messages(),
              ElementsAre(record("name #0000 of size 5", "p0000s")));
}

TEST_F(Dumper, OverwritesWhatHasTheName) {
  test::write_file(dir_.file("0000"), "something longer");
  run_scenario("dumps_twice", {}, {"", "", "", dir_.path()});
  EXPECT_EQ(read_file(dir_.file("0000")), "first");
}

// Only the last two are logged.
SCENARIO(dumps_ten_thousand_and_one) {
  auto* const module = static_cast<quorvane::module::Module*>(qv_module_find(kModule));
  BinaryDumper dumper("n", "d", ".bin", arguments.at(0).c_str(), QV_LOG_LEVEL_INFO);
  for (int i = 0; i <= 10000; ++i) {
    module->level = i < 9999 ? QV_LOG_LEVEL_OFF : QV_LOG_LEVEL_INFO;
    dump(dumper, std::to_string(i));
  }
  return 0;
}

// The path buffer has room for four digits.
TEST_F(Dumper, CutsTheNameOfTheTenThousandAndFirstDump) {
  const Ran ran = run_scenario("dumps_ten_thousand_and_one", {}, {dir_.path()});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), ElementsAre(record("n #9999 of size 4", "d9999.bin"),
                                          record("n #10000 of size 5", "d10000.bi")));
  const auto files = files_in(dir_.path());
  EXPECT_EQ(files.size(), 10001U);
  EXPECT_EQ(files.at("d0000.bin"), "0");
  EXPECT_EQ(files.at("d9999.bin"), "9999");
  EXPECT_EQ(files.at("d10000.bi"), "10000");
}

// Without a suffix the cut drops the last digit, so the dump overwrites an earlier one.
SCENARIO(dumps_beyond_ten_thousand_without_a_suffix) {
  BinaryDumper dumper("n", "d", "", arguments.at(0).c_str(), QV_LOG_LEVEL_INFO);
  for (int i = 0; i <= 10001; ++i) {
    dump(dumper, std::to_string(i));
  }
  return 0;
}

TEST_F(Dumper, OverwritesAnEarlierDumpWhereTheCutTakesADigit) {
  run_scenario("dumps_beyond_ten_thousand_without_a_suffix", {{"QV_LOG_LEVEL", "OFF"}},
               {dir_.path()});
  EXPECT_EQ(read_file(dir_.file("d1000")), "10001");
  EXPECT_EQ(files_in(dir_.path()).size(), 10000U);
}

// --------------------------------------------------------------------- no data, no file

SCENARIO(dumps_nothing) {
  BinaryDumper dumper("thing", "", "", arguments.at(0).c_str(), QV_LOG_LEVEL_WARN);
  dumper.dump(nullptr, 5);
  dumper.dump(nullptr, 0);
  dumper.dump("", 0);
  return 0;
}

TEST_F(Dumper, ReportsNullDataWithoutTakingANumberAndWritesAnEmptyDump) {
  const Ran ran = run_scenario("dumps_nothing", {}, {dir_.path()});
  EXPECT_THAT(ran.messages(),
              ElementsAre("WARN Can't dump a thing - no data ptr!",
                          "WARN Can't dump a thing - no data ptr!",
                          "WARN Dumping thing #0000 of size 0 to " + dir_.file("0000")));
  EXPECT_THAT(files_in(dir_.path()), ElementsAre(testing::Pair("0000", "")));
}

SCENARIO(dumps_while_the_directory_is_missing) {
  BinaryDumper dumper("thing", "", "", arguments.at(0).c_str(), QV_LOG_LEVEL_ERROR);
  dump(dumper, "lost");
  std::filesystem::create_directory(arguments.at(0));
  dump(dumper, "kept");
  return 0;
}

TEST_F(Dumper, ReportsAFileThatCannotBeOpenedAndTakesItsNumber) {
  const std::string missing = dir_.file("missing");
  const Ran ran = run_scenario("dumps_while_the_directory_is_missing", {}, {missing});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(),
              ElementsAre("ERROR Dumping thing #0000 of size 4 to " + missing + "/0000",
                          "ERROR Dump failed!  Can't open file.",
                          "ERROR Dumping thing #0001 of size 4 to " + missing + "/0001"));
  EXPECT_THAT(files_in(missing), ElementsAre(testing::Pair("0001", "kept")));
  EXPECT_EQ(ran.err, ran.log);
}

#ifndef QV_SANITIZED
// A sanitizer ends a process whose allocation fails.

// The first argument says which of the four strings is too long to copy.
SCENARIO(dumps_without_memory) {
  const std::size_t place = std::stoul(arguments.at(0));
  const std::string text(64 * 1024 * 1024, 'x');
  std::array<const char*, 4> strings{"thing", "", "", "."};
  strings.at(place) = text.c_str();
  const test::GrowthLimit limit(1024 * 1024);
  BinaryDumper dumper(strings[0], strings[1], strings[2], strings[3], QV_LOG_LEVEL_INFO);
  dump(dumper, "lost");
  return 0;
}

TEST_F(Dumper, WithoutMemoryForItsArgumentsOpensNoFile) {
  for (const char* place : {"0", "1", "2", "3"}) {
    const Ran ran = run_scenario("dumps_without_memory", {}, {place});
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_THAT(ran.messages(), ElementsAre("INFO Dump failed!  Can't open file."));
  }
}
#endif

// -------------------------------------------------------------------------- a full disk

constexpr std::size_t kRoom = 65536;

// No file can grow beyond kRoom. The log stays far below that.
void fill_the_disk() {
  const rlimit limit{kRoom, kRoom};
  setrlimit(RLIMIT_FSIZE, &limit);
  signal(SIGXFSZ, SIG_IGN);
}

SCENARIO(dumps_to_a_full_disk) {
  fill_the_disk();
  BinaryDumper dumper("thing", "", "", arguments.at(0).c_str(), QV_LOG_LEVEL_INFO);
  dump(dumper, std::string(kRoom + 1000, 'x'));
  dump(dumper, "next");
  return 0;
}

TEST_F(Dumper, LosesWithoutARecordWhatTheDiskHasNoRoomFor) {
  const Ran ran = run_scenario("dumps_to_a_full_disk", {}, {dir_.path()});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), ElementsAre(record("thing #0000 of size 66536", "0000"),
                                          record("thing #0001 of size 4", "0001")));
  EXPECT_EQ(read_file(dir_.file("0000")), std::string(kRoom, 'x'));
  EXPECT_EQ(read_file(dir_.file("0001")), "next");
}

// The record shows the low 32 bits of the size. The dump itself isn't cut.
SCENARIO(dumps_more_than_four_gigabytes) {
  fill_the_disk();
  const std::size_t size = (std::size_t{1} << 32) + 7;
  void* const bytes =
      mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (bytes == MAP_FAILED) {
    return 1;
  }
  BinaryDumper dumper("thing", "", "", arguments.at(0).c_str(), QV_LOG_LEVEL_INFO);
  dumper.dump(bytes, size);
  return 0;
}

TEST_F(Dumper, ShowsTheLowHalfOfASize) {
  const Ran ran = run_scenario("dumps_more_than_four_gigabytes", {}, {dir_.path()});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), ElementsAre(record("thing #0000 of size 7", "0000")));
  EXPECT_EQ(read_file(dir_.file("0000")), std::string(kRoom, '\0'));
}

// -------------------------------------------------------------------------- descriptors

// One dump succeeds, one can't be opened, and one fills the disk.
SCENARIO(dumps_and_counts_descriptors) {
  fill_the_disk();
  BinaryDumper dumper("thing", "", "", arguments.at(0).c_str(), QV_LOG_LEVEL_INFO);
  BinaryDumper refused("thing", "", "", "/dev/null", QV_LOG_LEVEL_INFO);
  const int before = open_descriptors();
  dump(dumper, "kept");
  const int after_success = open_descriptors();
  dump(refused, "lost");
  dump(dumper, std::string(kRoom + 1000, 'x'));
  return after_success == before && open_descriptors() == before ? 0 : 1;
}

TEST_F(Dumper, ClosesItsFileAlsoAfterAFailure) {
  EXPECT_TRUE(run_scenario("dumps_and_counts_descriptors", {}, {dir_.path()}).exited_with(0));
  EXPECT_THAT(files_in(dir_.path()), SizeIs(2));
}

// ------------------------------------------------------------------------------- levels

// Dumps with the module at the level of the first argument, the dumper at the second.
SCENARIO(dumps_at_levels) {
  const auto level = [&](std::size_t i) {
    return static_cast<qv_log_level_t>(std::stoi(arguments.at(i)));
  };
  static_cast<quorvane::module::Module*>(qv_module_find(kModule))->level = level(0);
  BinaryDumper dumper("thing", "", "", arguments.at(2).c_str(), level(1));
  dumper.dump(nullptr, 1);
  dump(dumper, "kept");
  BinaryDumper refused("other", "", "", "/dev/null", level(1));
  dump(refused, "lost");
  return 0;
}

Ran dump_at(int module_level, int level, const std::string& directory) {
  return run_scenario("dumps_at_levels", {},
                      {std::to_string(module_level), std::to_string(level), directory});
}

TEST_F(Dumper, LogsAtItsLevelWhereTheModuleStandsAtItOrAbove) {
  const std::vector<std::string> names{"OFF", "ERROR", "WARN", "INFO", "TRACE", "DEBUG", "ALL"};
  for (int level = 0; level <= 6; ++level) {
    for (const int module_level : {level, 6}) {
      const Ran ran = dump_at(module_level, level, dir_.path());
      const std::string& name = names.at(static_cast<std::size_t>(level));
      EXPECT_THAT(ran.messages(),
                  ElementsAre(name + " Can't dump a thing - no data ptr!",
                              name + " Dumping thing #0000 of size 4 to " + dir_.file("0000"),
                              name + " Dumping other #0000 of size 4 to /dev/null/0000",
                              name + " Dump failed!  Can't open file."));
    }
  }
}

TEST_F(Dumper, DumpsWithoutARecordWhereTheModuleStandsBelowItsLevel) {
  for (int level = 1; level <= 6; ++level) {
    const Ran ran = dump_at(level - 1, level, dir_.path());
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_THAT(ran.messages(), IsEmpty());
    EXPECT_EQ(read_file(dir_.file("0000")), "kept");
    unlink(dir_.file("0000").c_str());
  }
}

// ------------------------------------------------------------------------------ threads

constexpr int kThreads = 8;
constexpr int kDumps = 100;

std::string block(int thread, int round) {
  return std::to_string(thread) + "/" + std::to_string(round) + std::string(5000, 'x');
}

SCENARIO(threads_dump) {
  BinaryDumper dumper("n", "", "", arguments.at(0).c_str(), QV_LOG_LEVEL_INFO);
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      start.arrive_and_wait();
      for (int round = 0; round < kDumps; ++round) {
        dump(dumper, block(thread, round));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return 0;
}

TEST_F(Dumper, GivesEachDumpOfEightThreadsANumberAndAFileOfItsOwn) {
  const Ran ran = run_scenario("threads_dump", {}, {dir_.path()});
  EXPECT_TRUE(ran.exited_with(0));
  std::vector<std::string> expected;
  for (int thread = 0; thread < kThreads; ++thread) {
    for (int round = 0; round < kDumps; ++round) {
      expected.push_back(block(thread, round));
    }
  }
  std::vector<std::string> written;
  std::vector<std::string> records;
  for (const auto& [name, bytes] : files_in(dir_.path())) {
    written.push_back(bytes);
    records.push_back(record("n #" + name + " of size " + std::to_string(bytes.size()), name));
  }
  std::sort(expected.begin(), expected.end());
  std::sort(written.begin(), written.end());
  EXPECT_TRUE(written == expected);
  std::vector<std::string> logged = ran.messages();
  std::sort(logged.begin(), logged.end());
  std::sort(records.begin(), records.end());
  EXPECT_THAT(logged, ElementsAreArray(records));
  EXPECT_TRUE(exists(dir_.file("0799")));
}

// ----------------------------------------------------------------------- early and late

constexpr const char* kAroundMainEnv = "QV_TEST_AROUND_MAIN";

// Dumps before main, and in its destructor, which runs after the exit handlers of main.
class AroundMain {
 public:
  AroundMain() { dump_if_asked("before main"); }
  ~AroundMain() { dump_if_asked("static destructor"); }

  static void dump_if_asked(const std::string& when) {
    if (const char* const directory = std::getenv(kAroundMainEnv)) {
      BinaryDumper dumper("n", when.c_str(), "", directory, QV_LOG_LEVEL_INFO);
      dump(dumper, when);
    }
  }
};

const AroundMain g_around_main;

SCENARIO(dumps_around_main) {
  std::atexit([] { AroundMain::dump_if_asked("exit handler"); });
  return 0;
}

TEST_F(Dumper, DumpsBeforeMainAndAtExit) {
  const Ran ran = run_scenario("dumps_around_main", {{kAroundMainEnv, dir_.path()}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), ElementsAre(record("n #0000 of size 11", "before main0000"),
                                          record("n #0000 of size 12", "exit handler0000"),
                                          record("n #0000 of size 17", "static destructor0000")));
  EXPECT_THAT(files_in(dir_.path()), SizeIs(3));
}

}  // namespace
