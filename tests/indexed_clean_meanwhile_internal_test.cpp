// What others do while a process copies for a clean of an indexed store.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "src/cache/indexed/engine.h"
#include "support/lock_probe.h"
#include "support/processes.h"
#include "support/refuse.h"
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

constexpr std::uint64_t kLimit = std::uint64_t{200} << 10;

std::unique_ptr<Engine> open_store() {
  auto store =
      std::make_unique<Engine>(test::root_path(), "maps", std::make_shared<StoreFLock>("maps"));
  EXPECT_TRUE(store->open());
  return store;
}

EntryMap entries(int from, int to) {
  EntryMap map;
  for (int i = from; i < to; ++i) {
    map.emplace(buffer("key" + std::to_string(i)), buffers({std::string(200, 'x')}));
  }
  return map;
}

int found(Engine& store, int from, int to) {
  int count = 0;
  for (int i = from; i < to; ++i) {
    std::vector<RoBuffer> value;
    count += store.find(buffer("key" + std::to_string(i)), value) ? 1 : 0;
  }
  return count;
}

Engine* g_store = nullptr;
Engine* g_other = nullptr;
void (*g_meanwhile)() = nullptr;
pid_t g_child = 0;

// Cleans a store of 1000 entries. `meanwhile` runs once, when the copying begins: the kernel
// is asked to read ahead then.
bool clean(Engine& store, void (*meanwhile)()) {
  g_store = &store;
  g_meanwhile = meanwhile;
  EXPECT_TRUE(store.store(entries(0, 1000)));
  test::refuse_after(SYS_madvise, EINVAL, test::When{2, MADV_WILLNEED}, [] {
    if (auto* const run = std::exchange(g_meanwhile, nullptr)) {
      run();
    }
  });
  return store.clean(kLimit);
}

// What runs meanwhile runs in a signal handler, in the middle of a call of this thread that holds
// nothing.
test::Environment in_a_handler() {
  return {{"TSAN_OPTIONS", test::with_option("TSAN_OPTIONS", "report_signal_unsafe=0")}};
}

TEST(IndexedCleanMeanwhile, KeepsWhatAnotherProcessAppends) {
  const test::StoreRoot root;
  const test::Ran ran = root.run("appends_meanwhile", {}, "WARN", in_a_handler());
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out, "1 20 within the half and the new ones");
}

TEST(IndexedCleanMeanwhile, ChoosesAnewWhenOthersAppendTooMuch) {
  const test::StoreRoot root;
  const test::Ran ran = root.run("appends_much_meanwhile", {}, "WARN", in_a_handler());
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out, "1 50 within the half, with one clean");
}

TEST(IndexedCleanMeanwhile, AKilledCleanerIsNotKeptAliveByItsChild) {
  const test::StoreRoot root;
  const test::Ran ran = root.run("is_killed_meanwhile", {}, "WARN", in_a_handler());
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out, "1");
  EXPECT_FALSE(test::exists(root.file("newdat_maps")));
}

TEST(IndexedCleanMeanwhile, AChildThatIsForkedCanCleanItself) {
  const test::StoreRoot root;
  const test::Ran ran = root.run("forks_meanwhile", {}, "WARN", in_a_handler());
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out, "1 0");
  EXPECT_FALSE(test::exists(root.file("newdat_maps")));
}

}  // namespace

SCENARIO(appends_meanwhile) {
  const auto store = open_store();
  const auto other = open_store();
  g_other = other.get();
  const bool is_clean = clean(*store, [] { g_other->store(entries(1000, 1020)); });
  std::printf("%d %d %s", is_clean, found(*store, 1000, 1020),
              store->usage() <= kLimit / 2 + 20 * 256 ? "within the half and the new ones" : "");
  return 0;
}

SCENARIO(appends_much_meanwhile) {
  const auto store = open_store();
  const auto other = open_store();
  g_other = other.get();
  const bool is_clean = clean(*store, [] { g_other->store(entries(1000, 1500)); });
  std::printf("%d %d %s", is_clean, found(*store, 1450, 1500),
              store->usage() <= kLimit / 2 && store->kept() == store->entries()
                  ? "within the half, with one clean"
                  : "");
  return 0;
}

SCENARIO(is_killed_meanwhile) {
  alarm(test::kHangSeconds);
  test::PidPipe pids;
  static test::PidPipe* shared = &pids;
  const pid_t cleaner = test::in_child([] {
    const auto store = open_store();
    return clean(*store, [] {
      test::fork_sleeper(*shared);
      kill(getpid(), SIGKILL);
    });
  });
  test::wait_for(cleaner);
  const pid_t sleeper = pids.receive();
  std::printf("%d", open_store()->clean(kLimit));
  kill(sleeper, SIGKILL);
  return 0;
}

SCENARIO(forks_meanwhile) {
  alarm(test::kHangSeconds);
  const auto store = open_store();
  const bool is_clean = clean(
      *store, [] { g_child = test::in_child([] { return g_store->clean(kLimit) ? 0 : 1; }); });
  std::printf("%d %d", is_clean, test::wait_for(g_child));
  return 0;
}
