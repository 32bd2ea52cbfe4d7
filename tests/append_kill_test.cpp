// Kills appends. No kill may make a store unreadable or lose an entry that was stored before.
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/lock_probe.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"
#include "support/temp_dir.h"
#include "support/tracee.h"

using quorvane::cache::Cache;
using quorvane::cache::make_file_store;
using quorvane::cache::StoreKind;
using test::buffer;
using test::buffers;
using test::kHangSeconds;
using test::Ran;
using test::root_file;

namespace {

StoreKind kind_of(const std::string& name) {
  return name == "basic" ? StoreKind::basic : StoreKind::lazy_lookup;
}

std::unique_ptr<Cache> open_cache(const std::string& kind) {
  return std::make_unique<Cache>("maps", make_file_store(kind_of(kind), "maps"), false);
}

void unlink_store() {
  for (const char* name : {"maps", "key_maps", "val_maps"}) {
    unlink(root_file(name).c_str());
  }
}

// The entries of one append. Together they exceed a stream's buffer, so they reach the file in
// several writes.
constexpr int kEntriesOfAnAppend = 40;

std::string key_of(int append, int entry) {
  return "append" + std::to_string(append) + "." + std::to_string(entry);
}

std::string value_of(const std::string& key, std::size_t size) {
  std::string value = key;
  value.resize(size, '.');
  return value;
}

void add_entries(Cache& cache, int append, std::size_t value_size) {
  for (int entry = 0; entry < kEntriesOfAnAppend; ++entry) {
    const std::string key = key_of(append, entry);
    cache.add_value(buffer(key), buffers({value_of(key, value_size), "second"}));
  }
}

// How many entries of an append the cache has, or -1 if one has a wrong value.
int count_entries(Cache& cache, int append, std::size_t value_size) {
  int count = 0;
  for (int entry = 0; entry < kEntriesOfAnAppend; ++entry) {
    const std::string key = key_of(append, entry);
    if (const auto* value = cache.get_value(buffer(key))) {
      if (value->size() != 2 || test::bytes_of(value->front()) != value_of(key, value_size)) {
        return -1;
      }
      ++count;
    }
  }
  return count;
}

// Returns at a random moment of another process's append: up to 300 us after its note appears.
template <typename Random>
void await_append(Random& random) {
  const std::string lock = root_file("lock_maps");
  struct stat status {};
  while (stat(lock.c_str(), &status) != 0 || status.st_size == 0) {
  }
  const std::chrono::microseconds rest(std::uniform_int_distribution<int>(0, 300)(random));
  const auto end = std::chrono::steady_clock::now() + rest;
  while (std::chrono::steady_clock::now() < end) {
  }
}

// The results of one run.
struct Tally {
  int kills = 0;
  int unreadable = 0;
  int lost = 0;    // appends that returned, but lack entries
  int halved = 0;  // killed appends that left only some of their entries

  void look_at(const std::string& kind, const std::vector<int>& stored, int killed,
               std::size_t value_size) {
    const auto cache = open_cache(kind);
    unreadable += !cache->is_valid();
    for (const int append : stored) {
      lost += count_entries(*cache, append, value_size) != kEntriesOfAnAppend;
    }
    const int of_killed = count_entries(*cache, killed, value_size);
    halved += of_killed != 0 && of_killed != kEntriesOfAnAppend;
  }

  void print() const {
    std::printf("kills %d unreadable %d lost %d halved %d", kills, unreadable, lost, halved);
  }
};

// --- a kill at every system call ---

// Runs `append` in a child and kills the child at its system call stop number `stop`. Returns
// false if the child ends first.
template <typename Append>
bool is_killed_at(int stop, const Append& append) {
  test::Tracee child(append);
  for (int stops = 0; stops < stop; ++stops) {
    if (child.resume(PTRACE_SYSCALL) == 0) {
      return false;
    }
  }
  return true;
}

}  // namespace

// Arguments: kind, what the store holds before ("nothing" or "entries"), size of the values.
SCENARIO(kill_at_each_call) {
  const std::string& kind = arguments.at(0);
  const bool from_nothing = arguments.at(1) == "nothing";
  const auto value_size = static_cast<std::size_t>(std::stoul(arguments.at(2)));
  Tally tally;
  bool killed = true;
  for (int stop = 1; killed; ++stop) {
    std::vector<int> stored;
    if (from_nothing) {
      unlink_store();
    } else {
      add_entries(*open_cache(kind), 0, value_size);
      stored.push_back(0);
    }
    killed = is_killed_at(stop, [&] { add_entries(*open_cache(kind), stop, value_size); });
    tally.kills += killed;
    if (!killed) {
      stored.push_back(stop);
    }
    tally.look_at(kind, stored, stop, value_size);
  }
  tally.print();
  return 0;
}

// Arguments: kind, kills. Each child appends in a loop and acknowledges each append by number.
SCENARIO(kill_anywhere) {
  const std::string& kind = arguments.at(0);
  constexpr std::size_t kValueSize = 4000;
  std::mt19937 random(static_cast<unsigned>(getpid()));
  Tally tally;
  std::vector<int> stored;
  int next = 0;
  while (tally.kills < std::stoi(arguments.at(1))) {
    int acknowledged[2];
    if (pipe(acknowledged) != 0) {
      return 2;
    }
    const int first = next;
    const pid_t child = fork();
    if (child == 0) {
      for (int append = first;; ++append) {
        add_entries(*open_cache(kind), append, kValueSize);
        static_cast<void>(!write(acknowledged[1], &append, sizeof(append)));
      }
    }
    close(acknowledged[1]);
    await_append(random);
    kill(child, SIGKILL);
    test::wait_for(child);
    ++tally.kills;
    for (int append; read(acknowledged[0], &append, sizeof(append)) == sizeof(append);) {
      stored.push_back(append);
      next = append + 1;
    }
    close(acknowledged[0]);
    tally.look_at(kind, stored, next, kValueSize);
    ++next;  // the killed append may have stored its entries
    if (stored.size() > 10) {
      stored.clear();
      unlink_store();
    }
  }
  tally.print();
  return 0;
}

// Arguments: kind, kills. One thread appends in a loop while another forks a child that only
// sleeps. Then the process is killed, and the child lives on. The next process that opens
// the store must not wait for the child.
SCENARIO(kill_beside_a_child) {
  const std::string& kind = arguments.at(0);
  constexpr std::size_t kValueSize = 4000;
  std::mt19937 random(static_cast<unsigned>(getpid()));
  Tally tally;
  for (int round = 0; round < std::stoi(arguments.at(1)); ++round) {
    unlink_store();
    test::PidPipe pids;
    const pid_t killed = test::in_child([&] {
      std::thread([&] {
        for (int append = 0;; ++append) {
          add_entries(*open_cache(kind), append, kValueSize);
        }
      }).detach();
      await_append(random);
      test::fork_sleeper(pids);
      return test::sleep_until_killed();
    });
    const pid_t sleeper = pids.receive();
    kill(killed, SIGKILL);
    test::wait_for(killed);
    ++tally.kills;
    alarm(kHangSeconds);
    tally.look_at(kind, {}, 0, kValueSize);
    alarm(0);
    kill(sleeper, SIGKILL);
  }
  tally.print();
  return 0;
}

namespace {

class AppendKills : public testing::TestWithParam<const char*> {
 protected:
  Ran run(const std::string& scenario, test::Arguments arguments) const {
    arguments.insert(arguments.begin(), GetParam());
    return root_.run_unlimited(scenario, arguments);
  }

  // "kills N unreadable 0 lost 0 halved 0" with an N of at least `least`.
  static void expect_no_harm(const Ran& ran, int least) {
    int kills = 0;
    char rest[64] = "";
    ASSERT_EQ(std::sscanf(ran.out.c_str(), "kills %d %63[^\n]", &kills, rest), 2) << ran.out;
    EXPECT_STREQ(rest, "unreadable 0 lost 0 halved 0") << ran.err;
    EXPECT_GE(kills, least);
  }

  // Expects no record but those of undone appends, at most one for each kill. Returns their
  // number.
  std::size_t expect_only_undone(const Ran& ran) const {
    const std::string paths = std::string(GetParam()) == "basic"
                                  ? root_.file("maps")
                                  : root_.file("key_maps") + ", " + root_.file("val_maps");
    int kills = 0;
    std::sscanf(ran.out.c_str(), "kills %d", &kills);
    auto messages = ran.messages();
    std::erase(messages, "INFO Statistics capture disabled.");
    EXPECT_LE(messages.size(), static_cast<std::size_t>(kills));
    for (const std::string& message : messages) {
      EXPECT_EQ(message, "WARN Undid an append to " + paths + " that was cut short");
    }
    EXPECT_EQ(test::read_file(root_.file("lock_maps")), "");
    return messages.size();
  }

  // Kills 40 times, or as often as QV_TEST_KILLS says.
  void expect_random_kills_harmless(const std::string& scenario) const {
    const char* const kills = getenv("QV_TEST_KILLS");
    const Ran ran = run(scenario, {kills == nullptr ? "40" : kills});
    expect_no_harm(ran, 40);
    const std::size_t undone = expect_only_undone(ran);
    std::fprintf(stderr, "%s: %s, %zu appends undone\n", GetParam(), ran.out.c_str(), undone);
  }

  const test::StoreRoot root_{};
};

TEST_P(AppendKills, AtAnyCallOfTheFirstAppendLeaveAStoreThatLoads) {
  for (const char* value_size : {"100", "4000"}) {
    const Ran ran = run("kill_at_each_call", {"nothing", value_size});
    expect_no_harm(ran, 20);
    EXPECT_GT(expect_only_undone(ran), 0u);
  }
}

TEST_P(AppendKills, AtAnyCallOfAnAppendLeaveWhatWasStored) {
  const Ran ran = run("kill_at_each_call", {"entries", "4000"});
  expect_no_harm(ran, 50);
  EXPECT_GT(expect_only_undone(ran), 0u);
}

TEST_P(AppendKills, AtAnyMomentLeaveWhatWasStored) {
  expect_random_kills_harmless("kill_anywhere");
}

TEST_P(AppendKills, LeaveNobodyWaitingForAChildThatLivesOn) {
  expect_random_kills_harmless("kill_beside_a_child");
}

INSTANTIATE_TEST_SUITE_P(Kinds, AppendKills, testing::Values("basic", "lazy"),
                         [](const auto& test) { return std::string(test.param); });

}  // namespace
