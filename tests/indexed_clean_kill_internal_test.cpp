// Processes that add to an indexed store of bounded size, clean it, and are killed at any
// moment. QV_TEST_KILLS says how many are killed; 40 by default.
#include <fcntl.h>
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
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "src/cache/indexed/engine.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"

namespace {

using quorvane::cache::EntryMap;
using quorvane::cache::StoreFLock;
using quorvane::cache::indexed::Engine;
using quorvane::util::RoBuffer;
using test::buffer;
using test::buffers;

constexpr std::size_t kWriters = 3;
constexpr std::size_t kReaders = 3;
constexpr std::uint64_t kLimit = 200'000;  // a clean every few appends
constexpr unsigned kHangSeconds = 100;

// An append that was acknowledged: the numbers of a writer's entries, and the identity that
// the data file had before it. Each clean changes the identity.
struct Batch {
  int from;
  int to;
  std::uint64_t identity;
};

// What one writer shares with the parent. The parent reads it when the writer is dead.
struct Written {
  std::atomic<int> begun;    // numbers from here on don't exist
  std::atomic<int> batches;  // acknowledged
  std::array<Batch, 1'000'000> all;
};

struct Shared {
  std::array<Written, kWriters> writers;
  std::atomic<long> wrong;
  std::atomic<long> unreadable;
  std::atomic<long> failed;     // appends
  std::atomic<long> too_large;  // the store, after an append
  std::atomic<long> cleaned;
};

// Untouched pages cost nothing.
Shared& make_shared_memory() {
  void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return *static_cast<Shared*>(memory);
}

std::unique_ptr<Engine> open_store(Shared& shared) {
  auto store =
      std::make_unique<Engine>(test::root_path(), "maps", std::make_shared<StoreFLock>("maps"));
  shared.unreadable += store->open() ? 0 : 1;
  return store;
}

// Of the data file. The index has it first: a clean that is cut short has renamed its index,
// and then its entries count. 0 when there is no file.
std::uint64_t present_identity() {
  std::uint64_t identity = 0;
  for (const char* name : {"dat_maps", "idx_maps"}) {
    const int file = open(test::root_file(name).c_str(), O_RDONLY | O_CLOEXEC);
    std::uint64_t read = 0;
    if (pread(file, &read, sizeof(read), 8) == sizeof(read)) {
      identity = read;
    }
    close(file);
  }
  return identity;
}

// Keys of one length, so that the order in the file is that of the numbers.
std::string key_of(std::size_t writer, int number) {
  return "w" + std::to_string(writer) + "-" + std::to_string(10'000'000 + number);
}

std::string value_of(std::size_t writer, int number) {
  return std::string(static_cast<std::size_t>(number % 700 + 1), 'v') + key_of(writer, number);
}

// Whether the entry is there. A wrong value counts as there.
bool is_there(Engine& store, Shared& shared, std::size_t writer, int number) {
  std::vector<RoBuffer> value;
  if (!store.find(buffer(key_of(writer, number)), value)) {
    return false;
  }
  const std::string text(reinterpret_cast<const char*>(value[0].get_buffer()), value[0].get_size());
  shared.wrong += text == value_of(writer, number) ? 0 : 1;
  return true;
}

// Looks nothing up, so that each clean keeps the newest entries and no others.
[[noreturn]] void write_until_killed(Shared& shared, std::size_t writer) {
  const auto store = open_store(shared);
  Written& written = shared.writers[writer];
  std::mt19937 random(static_cast<unsigned>(getpid()));
  for (;;) {
    const int from = written.begun;
    const int to = from + static_cast<int>(random() % 60) + 1;
    const std::uint64_t identity = present_identity();
    EntryMap diff;
    for (int number = from; number < to; ++number) {
      diff.emplace(buffer(key_of(writer, number)), buffers({value_of(writer, number)}));
    }
    written.begun = to;
    const std::uint64_t dropped = store->dropped();
    if (store->store(diff, kLimit)) {
      written.all[static_cast<std::size_t>(written.batches.load())] = {from, to, identity};
      ++written.batches;
    } else {
      ++shared.failed;
    }
    shared.too_large += store->usage() <= kLimit ? 0 : 1;
    shared.cleaned += store->dropped() != dropped ? 1 : 0;
  }
}

[[noreturn]] void read_until_killed(Shared& shared) {
  const auto store = open_store(shared);
  std::mt19937 random(static_cast<unsigned>(getpid()));
  for (;;) {
    const std::size_t writer = random() % kWriters;
    const int begun = shared.writers[writer].begun;
    const int back = static_cast<int>(random() % 400);
    is_there(*store, shared, writer, std::max(begun + 5 - back, 0));
  }
}

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

// Acknowledged entries that are missing, although no clean may have dropped them: since a
// clean keeps the newest, an entry must be there
// - if its append began after the last clean, or
// - if an older entry of the same writer is there.
long count_lost(Shared& shared) {
  const auto store = open_store(shared);
  const std::uint64_t identity = present_identity();
  long lost = 0;
  for (std::size_t writer = 0; writer < kWriters; ++writer) {
    const Written& written = shared.writers[writer];
    bool has_older = false;
    for (int i = 0; i < written.batches; ++i) {
      const Batch& batch = written.all[static_cast<std::size_t>(i)];
      for (int number = batch.from; number < batch.to; ++number) {
        if (is_there(*store, shared, writer, number)) {
          has_older = true;
        } else {
          lost += has_older || batch.identity == identity ? 1 : 0;
        }
      }
    }
  }
  return lost;
}

void kill_some(Shared& shared, int kills) {
  std::mt19937 random(7);
  std::array<pid_t, kWriters> writers{};
  std::array<pid_t, kReaders> readers{};
  for (std::size_t writer = 0; writer < kWriters; ++writer) {
    writers[writer] = start_writer(shared, writer);
  }
  for (pid_t& reader : readers) {
    reader = start_reader(shared);
  }
  for (int killed = 0; killed < kills; ++killed) {
    usleep(static_cast<unsigned>(random() % 6000));  // only makes the moments vary
    const std::size_t chosen = random() % (kWriters + 1);
    if (chosen == kWriters) {
      pid_t& reader = readers[random() % kReaders];
      end(reader);
      reader = start_reader(shared);
    } else {
      end(writers[chosen]);
      writers[chosen] = start_writer(shared, chosen);
    }
  }
  std::for_each(writers.begin(), writers.end(), end);
  std::for_each(readers.begin(), readers.end(), end);
}

}  // namespace

// Argument: kills.
SCENARIO(kill_cleaners) {
  Shared& shared = make_shared_memory();
  kill_some(shared, std::stoi(arguments.at(0)));
  alarm(kHangSeconds);
  const long lost_at_once = count_lost(shared);  // before anybody has taken the lock
  shared.failed += open_store(shared)->store({}, kLimit) ? 0 : 1;
  const long lost_after_recovery = count_lost(shared);
  const bool has_leftovers =
      test::exists(test::root_file("newdat_maps")) || test::exists(test::root_file("newidx_maps"));
  unlink(test::root_file("idx_maps").c_str());
  const long lost_after_rebuild = count_lost(shared);
  std::printf(
      "%ld unreadable, %ld wrong, %ld + %ld + %ld lost, %ld failed, %ld too large, %d leftovers\n",
      shared.unreadable.load(), shared.wrong.load(), lost_at_once, lost_after_recovery,
      lost_after_rebuild, shared.failed.load(), shared.too_large.load(), has_leftovers);
  long acknowledged = 0;
  for (const Written& written : shared.writers) {
    for (int i = 0; i < written.batches; ++i) {
      acknowledged += written.all[static_cast<std::size_t>(i)].to -
                      written.all[static_cast<std::size_t>(i)].from;
    }
  }
  std::fprintf(stderr, "%s kills, %ld entries acknowledged, %ld appends that cleaned\n",
               arguments.at(0).c_str(), acknowledged, shared.cleaned.load());
  return shared.cleaned > 0 ? 0 : 1;
}

namespace {

TEST(IndexedCleanKills, LoseNothingSinceTheLastCleanAndLeaveNothingBehind) {
  const test::StoreRoot root;
  const char* kills = getenv("QV_TEST_KILLS");
  const test::Ran ran = root.run("kill_cleaners", {kills == nullptr ? "40" : kills}, "WARN");
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out, "0 unreadable, 0 wrong, 0 + 0 + 0 lost, 0 failed, 0 too large, 0 leftovers\n")
      << ran.err;
  EXPECT_THAT(ran.messages(), testing::IsEmpty());
  std::cout << ran.err;
}

}  // namespace
