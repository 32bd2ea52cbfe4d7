// The lock of a PID set, and sets that several processes share.
#include <quorvane/pidset.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <thread>

#include "pidset_test/fixture.h"
#include "support/lock_probe.h"
#include "support/processes.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace {

using pidset_test::capacity;
using pidset_test::Ids;
using pidset_test::open_set;
using pidset_test::page_bytes;
using pidset_test::PidSet;
using pidset_test::Set;
using test::Signpost;

// --- the lock ---

TEST_F(PidSet, IsLockedAndUnlockedByItsCallers) {
  const Set set = open_set(path_);
  EXPECT_EQ(qv_pidset_lock_contains(set.get()), 0);
  EXPECT_TRUE(test::is_locked(path_));
  EXPECT_FALSE(qv_pidset_contains(set.get(), 1));
  EXPECT_EQ(qv_pidset_ge_index(set.get(), 1), -1);
  EXPECT_TRUE(test::is_locked(path_));
  EXPECT_EQ(qv_pidset_unlock_contains(set.get()), 0);
  EXPECT_FALSE(test::is_locked(path_));
}

TEST_F(PidSet, GivesItsCallersLockUpWithEachChange) {
  const Set set = open_set(path_);
  for (const std::function<int(qv_pidset_t*)>& change :
       {std::function<int(qv_pidset_t*)>([](qv_pidset_t* h) { return qv_pidset_add(h, 1) * 0; }),
        std::function<int(qv_pidset_t*)>([](qv_pidset_t* h) { return qv_pidset_remove(h, 1); })}) {
    EXPECT_EQ(qv_pidset_lock_contains(set.get()), 0);
    EXPECT_EQ(change(set.get()), 0);
    EXPECT_FALSE(test::is_locked(path_));
  }
}

TEST_F(PidSet, SharesItsLockWithAClone) {
  const Set set = open_set(path_);
  const Set clone(qv_pidset_clone(set.get()));
  ASSERT_TRUE(clone);
  EXPECT_EQ(qv_pidset_lock_contains(set.get()), 0);
  EXPECT_EQ(qv_pidset_lock_contains(clone.get()), 0);  // doesn't wait
  EXPECT_EQ(qv_pidset_unlock_contains(clone.get()), 0);
  EXPECT_FALSE(test::is_locked(path_));
  EXPECT_EQ(qv_pidset_lock_contains(set.get()), 0);
  const Set another(qv_pidset_clone(set.get()));
  EXPECT_FALSE(test::is_locked(path_));  // opening a handle ends with an unlock
}

TEST_F(PidSet, LivesOnInAClone) {
  Set set = set_of({3});
  const Set clone(qv_pidset_clone(set.get()));
  set.reset();
  EXPECT_EQ(qv_pidset_add(clone.get(), 4), 0);
  EXPECT_EQ(bytes(), page_bytes({3, 4}));
}

struct Waiter {
  const char* name;
  int (*function)(qv_pidset_t* set, const std::string& path);
};

void PrintTo(const Waiter& row, std::ostream* out) { *out << row.name; }

class PidSetWaiter : public testing::TestWithParam<Waiter> {};

TEST_P(PidSetWaiter, WaitsWhileAnotherHandleHasTheLock) {
  const test::TempDir dir;
  const std::string path = dir.file("pids");
  test::write_file(path, page_bytes({3}));
  const Set set = open_set(path);
  Signpost opened;
  Signpost go;
  Signpost done;
  const pid_t child = test::in_child([&] {
    const Set own = open_set(path);
    opened.pass();
    go.await();
    const int result = GetParam().function(own.get(), path);
    done.pass();
    return result;
  });
  opened.await();
  EXPECT_EQ(qv_pidset_lock_contains(set.get()), 0);
  go.pass();
  EXPECT_TRUE(test::waits_for_lock(child, done));
  EXPECT_EQ(test::read_file(path), page_bytes({3}));
  EXPECT_EQ(qv_pidset_unlock_contains(set.get()), 0);
  EXPECT_EQ(test::wait_for(child), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Each, PidSetWaiter,
    testing::Values(
        Waiter{"add", [](qv_pidset_t* set, const std::string&) { return qv_pidset_add(set, 4); }},
        Waiter{"remove",
               [](qv_pidset_t* set, const std::string&) { return qv_pidset_remove(set, 3); }},
        Waiter{"lock",
               [](qv_pidset_t* set, const std::string&) { return qv_pidset_lock_contains(set); }},
        Waiter{"open",
               [](qv_pidset_t*, const std::string& path) { return open_set(path) ? 0 : 1; }}));

// --- processes ---

// Adds 500 ids, and removes every other one soon after it is added.
int add_and_remove(const std::string& path, std::int32_t first) {
  const Set set = open_set(path);
  for (std::int32_t i = 0; i < 500; ++i) {
    const std::int32_t id = first + 2 * i;
    if (qv_pidset_add(set.get(), id) != 0 || qv_pidset_add(set.get(), id) != 1) {
      return 1;
    }
    if (i % 2 == 1 && qv_pidset_remove(set.get(), id - 2) != 0) {
      return 2;
    }
  }
  return 0;
}

int remove_all(const std::string& path, std::int32_t first) {
  const Set set = open_set(path);
  for (std::int32_t i = 0; i < 500; ++i) {
    if (qv_pidset_remove(set.get(), first + 2 * i) != 0) {
      return 1;
    }
  }
  return 0;
}

// Runs two processes at the same time, one on even ids and one on odd ids.
void run_two(const std::function<int(std::int32_t first)>& function) {
  Signpost go;
  const auto start = [&](std::int32_t first) {
    return test::in_child([&] {
      go.await();
      return function(first);
    });
  };
  const pid_t even = start(0);
  const pid_t odd = start(1);
  go.pass();
  EXPECT_EQ(test::wait_for(even), 0);
  EXPECT_EQ(test::wait_for(odd), 0);
}

TEST_F(PidSet, LosesNoChangeOfTwoProcesses) {
  run_two([this](std::int32_t first) { return add_and_remove(path_, first); });
  Ids left;
  for (std::int32_t id = 2; id < 1000; id += 4) {
    left.push_back(id);
    left.push_back(id + 1);
  }
  EXPECT_EQ(bytes().substr(0, 8 + 4 * left.size()),
            page_bytes(left).substr(0, 8 + 4 * left.size()));
  run_two([this](std::int32_t first) { return remove_all(path_, first); });
  EXPECT_EQ(bytes().substr(0, 8), test::le64(0));
}

TEST_F(PidSet, IsSharedWithAChild) {
  const Set set = open_set(path_);
  const pid_t child = test::in_child([&] {
    const bool added = qv_pidset_add(set.get(), getpid()) == 0;
    qv_pidset_close(set.get());
    return added ? 0 : 1;
  });
  EXPECT_EQ(test::wait_for(child), 0);
  EXPECT_TRUE(qv_pidset_contains(set.get(), child));
  EXPECT_EQ(qv_pidset_remove(set.get(), child), 0);
}

// The lock belongs to the open file description, which a child inherits.
TEST_F(PidSet, SharesItsLockWithAChildsInheritedHandle) {
  const Set set = open_set(path_);
  EXPECT_EQ(qv_pidset_lock_contains(set.get()), 0);
  const pid_t child = test::in_child([&] {
    return qv_pidset_lock_contains(set.get()) == 0 && qv_pidset_unlock_contains(set.get()) == 0 ? 0
                                                                                                : 1;
  });
  EXPECT_EQ(test::wait_for(child), 0);
  EXPECT_FALSE(test::is_locked(path_));
}

// A thread on the same handle plays the other process: to ThreadSanitizer, two mappings of the
// page would be different memory. An id that is added at the end overwrites no counted id, so
// the reader needs no lock.
TEST_F(PidSet, CountsNoIdBeforeItIsThere) {
  const Set set = open_set(path_);
  const auto last = static_cast<std::int32_t>(capacity());
  std::thread writer([&] {
    for (std::int32_t id = 1; id <= last; ++id) {
      qv_pidset_add(set.get(), id);
    }
  });
  std::int64_t next = 0;
  for (std::int32_t id = 1; id <= last; ++id) {
    while ((next = qv_pidset_ge_index(set.get(), id)) < 0) {
      std::this_thread::yield();
    }
    EXPECT_EQ(next, id - 1);
  }
  writer.join();
}

}  // namespace
