// Processes that use one indexed store and are killed at any moment.
// QV_TEST_KILLS says how many are killed; 40 by default.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "src/cache/indexed/engine.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace {

using quorvane::cache::EntryMap;
using quorvane::cache::StoreFLock;
using quorvane::cache::indexed::Engine;
using quorvane::util::RoBuffer;
using test::buffer;
using test::buffers;

constexpr std::size_t kWriters = 4;
constexpr std::size_t kReaders = 2;
constexpr unsigned kHangSeconds = 100;

// What the processes tell each other, in memory that they share.
struct Shared {
  // Entries of each writer that are acknowledged: those below have been stored.
  std::array<std::atomic<int>, kWriters> acknowledged;
  // Entries that some writer has begun to store: those from here on don't exist.
  std::array<std::atomic<int>, kWriters> begun;
  std::atomic<long> wrong;
  std::atomic<long> lost;
  std::atomic<long> unreadable;
};

Shared& make_shared_page() {
  void* page =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return *new (page) Shared{};
}

std::string root() { return getenv("QV_CACHE_STORE_ROOT"); }

std::unique_ptr<Engine> open_store(Shared& shared) {
  auto store = std::make_unique<Engine>(root(), "maps", std::make_shared<StoreFLock>("maps"));
  if (!store->open()) {
    ++shared.unreadable;
  }
  return store;
}

std::string key_of(std::size_t writer, int number) {
  return "w" + std::to_string(writer) + "-" + std::to_string(number);
}

std::string value_of(std::size_t writer, int number) {
  return std::string(static_cast<std::size_t>(number % 700 + 1), 'v') + key_of(writer, number);
}

// Looks an entry up. `must_exist`: it was acknowledged before.
void look_up(Engine& store, Shared& shared, std::size_t writer, int number, bool must_exist) {
  std::vector<RoBuffer> value;
  const bool found = store.find(buffer(key_of(writer, number)), value);
  if (!found) {
    shared.lost += must_exist ? 1 : 0;
    return;
  }
  const std::string text(reinterpret_cast<const char*>(value[0].get_buffer()), value[0].get_size());
  shared.wrong += text == value_of(writer, number) ? 0 : 1;
}

[[noreturn]] void write_until_killed(Shared& shared, std::size_t writer) {
  const auto store = open_store(shared);
  std::mt19937 random(static_cast<unsigned>(getpid()));
  for (;;) {
    const int from = shared.begun[writer];
    const int to = from + static_cast<int>(random() % 60) + 1;
    EntryMap diff;
    for (int number = from; number < to; ++number) {
      diff.emplace(buffer(key_of(writer, number)), buffers({value_of(writer, number)}));
    }
    shared.begun[writer] = to;
    if (store->store(diff)) {
      shared.acknowledged[writer] = to;
    }
  }
}

[[noreturn]] void read_until_killed(Shared& shared) {
  const auto store = open_store(shared);
  std::mt19937 random(static_cast<unsigned>(getpid()));
  for (;;) {
    const std::size_t writer = random() % kWriters;
    const int acknowledged = shared.acknowledged[writer];
    const int number = static_cast<int>(random() % (static_cast<unsigned>(acknowledged) + 5));
    // A writer that was killed between its append and the acknowledgement starts again behind
    // that append, so a number below the acknowledged ones may be missing only if its append
    // was cut short. Those are known to the parent alone.
    look_up(*store, shared, writer, number, false);
  }
}

struct Children {
  std::array<pid_t, kWriters> writers;
  std::array<pid_t, kReaders> readers;
};

pid_t start_writer(Shared& shared, std::size_t writer) {
  return test::in_child([&]() -> int { write_until_killed(shared, writer); });
}

pid_t start_reader(Shared& shared) {
  return test::in_child([&]() -> int { read_until_killed(shared); });
}

void end(pid_t child) {
  kill(child, SIGKILL);
  test::wait_for(child);
}

// Which numbers of each writer are acknowledged, as ranges.
using Ranges = std::array<std::vector<std::pair<int, int>>, kWriters>;

void check_all(Shared& shared, const Ranges& ranges) {
  const auto store = open_store(shared);
  for (std::size_t writer = 0; writer < kWriters; ++writer) {
    for (const auto& [from, to] : ranges[writer]) {
      for (int number = from; number < to; ++number) {
        look_up(*store, shared, writer, number, true);
      }
    }
  }
}

}  // namespace

// Arguments: kills, and after how many of them the index is deleted each time (0: never).
SCENARIO(kill_processes) {
  Shared& shared = make_shared_page();
  const int kills = std::stoi(arguments.at(0));
  const int deletion = std::stoi(arguments.at(1));
  std::mt19937 random(7);
  Children children{};
  std::array<int, kWriters> start{};
  Ranges ranges;
  for (std::size_t writer = 0; writer < kWriters; ++writer) {
    children.writers[writer] = start_writer(shared, writer);
  }
  for (pid_t& reader : children.readers) {
    reader = start_reader(shared);
  }
  for (int killed = 0; killed < kills; ++killed) {
    usleep(static_cast<unsigned>(random() % 6000));  // only makes the moments vary
    const std::size_t chosen = random() % (kWriters + 1);
    if (chosen == kWriters) {
      pid_t& reader = children.readers[random() % kReaders];
      end(reader);
      reader = start_reader(shared);
    } else {
      end(children.writers[chosen]);
      ranges[chosen].emplace_back(start[chosen], shared.acknowledged[chosen]);
      start[chosen] = shared.begun[chosen];
      children.writers[chosen] = start_writer(shared, chosen);
    }
    if (deletion != 0 && killed % deletion == deletion - 1) {
      unlink((root() + "/idx_maps").c_str());
    }
  }
  for (std::size_t writer = 0; writer < kWriters; ++writer) {
    end(children.writers[writer]);
    ranges[writer].emplace_back(start[writer], shared.acknowledged[writer]);
  }
  for (const pid_t reader : children.readers) {
    end(reader);
  }
  alarm(kHangSeconds);
  check_all(shared, ranges);
  unlink((root() + "/idx_maps").c_str());
  check_all(shared, ranges);
  long acknowledged = 0;
  for (const auto& of_writer : ranges) {
    for (const auto& [from, to] : of_writer) {
      acknowledged += std::max(to - from, 0);
    }
  }
  std::printf("%ld unreadable, %ld wrong, %ld lost\n", shared.unreadable.load(),
              shared.wrong.load(), shared.lost.load());
  std::fprintf(stderr, "%d kills, %ld entries acknowledged\n", kills, acknowledged);
  return acknowledged > 0 ? 0 : 1;
}

namespace {

std::string kills() {
  const char* number = getenv("QV_TEST_KILLS");
  return number == nullptr ? "40" : number;
}

class IndexedKills : public testing::Test {
 protected:
  test::Ran run(const test::Arguments& arguments) {
    return test::run_scenario("kill_processes",
                              {{"QV_CACHE_STORE_ROOT", root_.path()}, {"QV_LOG_LEVEL", "WARN"}},
                              arguments);
  }

  test::TempDir root_;
};

TEST_F(IndexedKills, LoseNoAcknowledgedEntryAndLeaveNoWrongOne) {
  const test::Ran ran = run({kills(), "0"});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out, "0 unreadable, 0 wrong, 0 lost\n") << ran.err;
  EXPECT_THAT(ran.messages(), testing::IsEmpty());
  std::cout << ran.err;
}

TEST_F(IndexedKills, DoNoHarmWhileTheIndexIsDeletedAgainAndAgain) {
  const test::Ran ran = run({kills(), "10"});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out, "0 unreadable, 0 wrong, 0 lost\n") << ran.err;
  EXPECT_THAT(ran.messages(), testing::IsEmpty());
  std::cout << ran.err;
}

}  // namespace
