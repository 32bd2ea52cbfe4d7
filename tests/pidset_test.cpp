#include <quorvane/pidset.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/lock_probe.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

// Refuses the library memory while the flag is up.
static bool g_no_memory = false;

#ifdef QV_SANITIZED
#define QV_REAL_CALLOC __interceptor_calloc
#else
#define QV_REAL_CALLOC __libc_calloc
#endif
extern "C" void* QV_REAL_CALLOC(std::size_t count, std::size_t size);
// A new thread allocates before ThreadSanitizer has set it up, and instrumented code
// would crash there. Only this stand-in goes unchecked: nothing of the library.
extern "C" __attribute__((no_sanitize_thread)) void* calloc(std::size_t count,
                                                            std::size_t size) noexcept {
  if (g_no_memory) {
    errno = ENOMEM;
    return nullptr;
  }
  return QV_REAL_CALLOC(count, size);
}

namespace {

using test::Arguments;
using test::Ran;
using test::Signpost;
using Ids = std::vector<std::int32_t>;

constexpr std::int32_t kLeast = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kGreatest = std::numeric_limits<std::int32_t>::max();

std::size_t page_size() { return static_cast<std::size_t>(getpagesize()); }
std::size_t capacity() { return (page_size() - 8) / 4; }

struct Closer {
  void operator()(qv_pidset_t* set) const { qv_pidset_close(set); }
};
using Set = std::unique_ptr<qv_pidset_t, Closer>;

Set open_set(const std::string& path) { return Set(qv_pidset_open(path.c_str())); }

// The page of a set that says `count` and has these ids in front, also beyond
// the count.
std::string page_bytes(std::uint64_t count, const Ids& ids) {
  std::string bytes = test::le64(count);
  for (const std::int32_t id : ids) {
    bytes += test::le32(static_cast<std::uint32_t>(id));
  }
  bytes.resize(page_size());
  return bytes;
}
std::string page_bytes(const Ids& ids) { return page_bytes(ids.size(), ids); }

int descriptors() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    count += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
  }
  return count;
}

Ids counted_ids(std::size_t count) {
  Ids ids;
  for (std::size_t i = 0; i < count; ++i) {
    ids.push_back(static_cast<std::int32_t>(i + 1) * 10);
  }
  return ids;
}

class PidSet : public testing::Test {
 protected:
  PidSet() { test::write_file(path_, ""); }

  // A set whose page holds these ids, in this order.
  Set set_of(const Ids& ids) {
    test::write_file(path_, page_bytes(ids));
    return open_set(path_);
  }
  std::string bytes() const { return test::read_file(path_); }
  Ran run(const std::string& scenario, Arguments more = {}) const {
    more.insert(more.begin(), path_);
    return test::run_scenario(scenario, {}, more);
  }

  test::TempDir dir_;
  std::string path_ = dir_.file("pids");
};

// --- opening ---

TEST_F(PidSet, MakesAnEmptyFileAnEmptySet) {
  const Set set = open_set(path_);
  ASSERT_TRUE(set);
  EXPECT_EQ(bytes(), std::string(page_size(), '\0'));
  EXPECT_EQ(*qv_pidset_count_ptr(set.get()), 0u);
  EXPECT_FALSE(test::is_locked(path_));
}

TEST_F(PidSet, TakesAFileOfOnePageAsItIs) {
  const std::string page = page_bytes(2, {-7, 8, 99, 1});
  test::write_file(path_, page);
  const Set set = open_set(path_);
  ASSERT_TRUE(set);
  EXPECT_EQ(bytes(), page);
  EXPECT_TRUE(qv_pidset_contains(set.get(), -7));
  EXPECT_TRUE(qv_pidset_contains(set.get(), 8));
  EXPECT_FALSE(qv_pidset_contains(set.get(), 99));
}

TEST_F(PidSet, RefusesAFileOfAnotherSize) {
  for (const std::size_t size :
       {std::size_t{1}, std::size_t{100}, page_size() - 1, page_size() + 1, 2 * page_size()}) {
    const std::string content(size, '\x01');
    test::write_file(path_, content);
    EXPECT_FALSE(open_set(path_)) << size;
    EXPECT_EQ(bytes(), content);
    EXPECT_FALSE(test::is_locked(path_));
  }
}

TEST_F(PidSet, MakesNoFile) {
  const std::string missing = dir_.file("missing");
  EXPECT_EQ(qv_pidset_open(missing.c_str()), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(test::exists(missing));
}

TEST_F(PidSet, RefusesACountAboveItsCapacity) {
  for (const std::uint64_t count : {std::uint64_t{capacity() + 1}, std::uint64_t{1} << 32,
                                    std::uint64_t{1} << 63, ~std::uint64_t{0}}) {
    test::write_file(path_, page_bytes(count, {}));
    EXPECT_FALSE(open_set(path_)) << count;
    EXPECT_EQ(bytes(), page_bytes(count, {}));
    EXPECT_FALSE(test::is_locked(path_));
  }
  test::write_file(path_, page_bytes(capacity(), {}));
  EXPECT_TRUE(open_set(path_));
}

TEST_F(PidSet, KeepsItsIdsWithoutAHandle) {
  qv_pidset_add(open_set(path_).get(), 17);
  EXPECT_EQ(bytes(), page_bytes({17}));
  EXPECT_TRUE(qv_pidset_contains(open_set(path_).get(), 17));
}

TEST(PidSetCapacity, IsAPageLessTheCount) {
  EXPECT_EQ(qv_pidset_max_pid_count(), capacity());
  EXPECT_EQ((4096u - 8) / 4, 1022u);
}

// --- adding and removing ---

TEST_F(PidSet, KeepsIdsAscending) {
  const Set set = open_set(path_);
  EXPECT_EQ(qv_pidset_add(set.get(), 5), 0);
  EXPECT_EQ(qv_pidset_add(set.get(), 3), 0);
  EXPECT_EQ(qv_pidset_add(set.get(), 9), 0);
  EXPECT_EQ(bytes(), page_bytes({3, 5, 9}));
  EXPECT_EQ(*qv_pidset_count_ptr(set.get()), 3u);
  EXPECT_FALSE(test::is_locked(path_));
}

TEST_F(PidSet, AddsNoIdTwice) {
  const Set set = set_of({3, 5, 9});
  for (const std::int32_t id : {3, 5, 9}) {
    EXPECT_EQ(qv_pidset_add(set.get(), id), 1);
  }
  EXPECT_EQ(bytes(), page_bytes({3, 5, 9}));
  EXPECT_FALSE(test::is_locked(path_));
}

TEST_F(PidSet, OrdersNegativeIdsBeforePositiveOnes) {
  const Set set = open_set(path_);
  for (const std::int32_t id : {1, -1, kGreatest, kLeast, 0, -5}) {
    EXPECT_EQ(qv_pidset_add(set.get(), id), 0);
  }
  EXPECT_EQ(bytes(), page_bytes({kLeast, -5, -1, 0, 1, kGreatest}));
}

TEST_F(PidSet, TakesAsManyIdsAsThePageHolds) {
  const Set set = open_set(path_);
  Ids ids = counted_ids(capacity());
  for (const std::int32_t id : ids) {
    ASSERT_EQ(qv_pidset_add(set.get(), id), 0);
  }
  const std::string full = page_bytes(ids);
  for (const std::int32_t another : {kLeast, 0, 15, kGreatest}) {
    EXPECT_EQ(qv_pidset_add(set.get(), another), 2);
  }
  EXPECT_EQ(qv_pidset_add(set.get(), ids.front()), 1);
  EXPECT_EQ(qv_pidset_add(set.get(), ids.back()), 1);
  EXPECT_EQ(bytes(), full);
  EXPECT_FALSE(test::is_locked(path_));
  EXPECT_EQ(qv_pidset_remove(set.get(), ids.front()), 0);
  EXPECT_EQ(qv_pidset_add(set.get(), kGreatest), 0);
  ids.erase(ids.begin());
  ids.push_back(kGreatest);
  EXPECT_EQ(bytes(), page_bytes(ids));
}

TEST_F(PidSet, LeavesStaleIdsBehindTheRemovedOnes) {
  const Set set = set_of({3, 5, 9});
  EXPECT_EQ(qv_pidset_remove(set.get(), 5), 0);
  EXPECT_EQ(bytes(), page_bytes(2, {3, 9, 9}));
  EXPECT_EQ(qv_pidset_remove(set.get(), 9), 0);
  EXPECT_EQ(bytes(), page_bytes(1, {3, 9, 9}));
  EXPECT_EQ(qv_pidset_remove(set.get(), 3), 0);
  EXPECT_EQ(bytes(), page_bytes(0, {3, 9, 9}));
  EXPECT_FALSE(test::is_locked(path_));
}

TEST_F(PidSet, LeavesTheSetAloneWhenItRemovesAnAbsentId) {
  const Set set = set_of({3, 5, 9});
  for (const std::int32_t absent : {kLeast, 4, 10}) {
    EXPECT_EQ(qv_pidset_remove(set.get(), absent), 0);
  }
  EXPECT_EQ(bytes(), page_bytes({3, 5, 9}));
  const Set empty = set_of({});
  EXPECT_EQ(qv_pidset_remove(empty.get(), 3), 0);
  EXPECT_EQ(bytes(), page_bytes({}));
}

TEST_F(PidSet, TakesNoStaleIdForOneThatIsThere) {
  const Set set = set_of({3, 9});
  EXPECT_EQ(qv_pidset_remove(set.get(), 9), 0);
  EXPECT_EQ(qv_pidset_remove(set.get(), 9), 0);
  EXPECT_EQ(bytes(), page_bytes(1, {3, 9}));
  EXPECT_FALSE(qv_pidset_contains(set.get(), 9));
  EXPECT_EQ(qv_pidset_add(set.get(), 9), 0);
  EXPECT_EQ(bytes(), page_bytes({3, 9}));
}

TEST_F(PidSet, IsEmptyHoweverOftenItsOnlyIdIsRemoved) {
  const Set set = set_of({3});
  for (int time = 0; time < 3; ++time) {
    EXPECT_EQ(qv_pidset_remove(set.get(), 3), 0);
    EXPECT_EQ(bytes(), page_bytes(0, {3}));
  }
}

// A page as ids come and go, stale ones included.
class Model {
 public:
  int add(std::int32_t id) {
    const auto place = find(id);
    if (place != used_end() && *place == id) {
      return 1;
    }
    std::move_backward(place, used_end(), used_end() + 1);
    *place = id;
    ++count_;
    return 0;
  }
  void remove(std::int32_t id) {
    const auto place = find(id);
    if (place != used_end() && *place == id) {
      std::move(place + 1, used_end(), place);
      --count_;
    }
  }
  std::string bytes() const { return page_bytes(count_, slots_); }

 private:
  Ids::iterator used_end() { return slots_.begin() + static_cast<std::ptrdiff_t>(count_); }
  Ids::iterator find(std::int32_t id) { return std::lower_bound(slots_.begin(), used_end(), id); }

  Ids slots_ = Ids(capacity());
  std::size_t count_ = 0;
};

TEST_F(PidSet, FollowsAModelThroughManyChanges) {
  const Set set = open_set(path_);
  Model model;
  std::mt19937 random(1);
  for (int step = 0; step < 3000; ++step) {
    const auto id = static_cast<std::int32_t>(random() % 600) - 300;
    if (random() % 5 < 3) {
      ASSERT_EQ(qv_pidset_add(set.get(), id), model.add(id));
    } else {
      ASSERT_EQ(qv_pidset_remove(set.get(), id), 0);
      model.remove(id);
    }
    ASSERT_EQ(bytes() == model.bytes(), true) << "after step " << step;
  }
}

// --- looking up ---

TEST_F(PidSet, FindsTheFirstIdThatIsNotLess) {
  const Set set = set_of({3, 5, 9});
  for (const auto& [id, index] :
       std::vector<std::pair<std::int32_t, std::int64_t>>{{kLeast, 0},
                                                          {1, 0},
                                                          {3, 0},
                                                          {4, 1},
                                                          {5, 1},
                                                          {6, 2},
                                                          {9, 2},
                                                          {10, -1},
                                                          {kGreatest, -1}}) {
    EXPECT_EQ(qv_pidset_ge_index(set.get(), id), index) << id;
  }
}

TEST_F(PidSet, FindsNothingInAnEmptySet) {
  const Set set = set_of({});
  for (const std::int32_t id : {kLeast, 0, kGreatest}) {
    EXPECT_EQ(qv_pidset_ge_index(set.get(), id), -1);
    EXPECT_FALSE(qv_pidset_contains(set.get(), id));  // there are zeros in the page
  }
}

TEST_F(PidSet, FindsEachIdInSetsOfEverySize) {
  for (std::size_t size = 1; size <= capacity(); size += size < 70 ? 1 : 119) {
    const Ids ids = counted_ids(size);
    const Set set = set_of(ids);
    for (std::size_t i = 0; i < size; ++i) {
      const auto index = static_cast<std::int64_t>(i);
      ASSERT_EQ(qv_pidset_ge_index(set.get(), ids[i]), index);
      ASSERT_EQ(qv_pidset_ge_index(set.get(), ids[i] - 1), index);
      ASSERT_TRUE(qv_pidset_contains(set.get(), ids[i]));
      ASSERT_FALSE(qv_pidset_contains(set.get(), ids[i] + 1));
    }
    ASSERT_EQ(qv_pidset_ge_index(set.get(), ids.back() + 1), -1);
  }
}

// Nobody checks the order of a page that was written by other means.
TEST_F(PidSet, ScansFromTheFront) {
  Ids ids(40, 1);
  ids[3] = 9;
  ids[30] = 7;
  const Set set = set_of(ids);
  EXPECT_EQ(qv_pidset_ge_index(set.get(), 5), 3);
  EXPECT_FALSE(qv_pidset_contains(set.get(), 7));
  EXPECT_EQ(qv_pidset_ge_index(set.get(), 0), 0);
}

TEST_F(PidSet, ShowsTheSharedCountAndIds) {
  const Set set = set_of({3, 5});
  const Set other = open_set(path_);
  EXPECT_EQ(qv_pidset_add(other.get(), 4), 0);
  EXPECT_EQ(*qv_pidset_count_ptr(set.get()), 3u);
  const std::int32_t* const list = qv_pidset_pidlist(set.get());
  EXPECT_EQ(Ids(list, list + 3), (Ids{3, 4, 5}));
  EXPECT_EQ(static_cast<const void*>(list),
            static_cast<const void*>(qv_pidset_count_ptr(set.get()) + 1));
}

TEST_F(PidSet, StaysInsideThePageWhenTheCountIsSpoilt) {
  for (const std::uint64_t count : {std::uint64_t{capacity() + 1}, ~std::uint64_t{0}}) {
    const Set set = set_of(counted_ids(capacity()));
    *qv_pidset_count_ptr(set.get()) = count;
    EXPECT_EQ(qv_pidset_ge_index(set.get(), kGreatest), -1);
    EXPECT_FALSE(qv_pidset_contains(set.get(), kGreatest));
    EXPECT_EQ(qv_pidset_add(set.get(), kGreatest), 2);
    EXPECT_EQ(qv_pidset_remove(set.get(), kGreatest), 0);
    EXPECT_EQ(qv_pidset_remove(set.get(), 10), 0);
    EXPECT_EQ(*qv_pidset_count_ptr(set.get()), capacity() - 1);
  }
}

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

// A child of this process; its function's result is its exit status.
class Child {
 public:
  explicit Child(const std::function<int()>& function) : pid_(fork()) {
    if (pid_ == 0) {
      _exit(function());
    }
  }
  pid_t pid() const { return pid_; }
  int exit_status() const {
    int status = -1;
    waitpid(pid_, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_;
};

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
  const Child child([&] {
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
  EXPECT_TRUE(test::waits_for_lock(child.pid(), done));
  EXPECT_EQ(test::read_file(path), page_bytes({3}));
  EXPECT_EQ(qv_pidset_unlock_contains(set.get()), 0);
  EXPECT_EQ(child.exit_status(), 0);
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

// Adds 500 ids and removes every other one soon after.
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

// Two processes on ids that lie between each other's, begun together.
void run_two(const std::function<int(std::int32_t first)>& function) {
  Signpost go;
  const auto body = [&](std::int32_t first) {
    return [&, first] {
      go.await();
      return function(first);
    };
  };
  const Child even(body(0));
  const Child odd(body(1));
  go.pass();
  EXPECT_EQ(even.exit_status(), 0);
  EXPECT_EQ(odd.exit_status(), 0);
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
  const Child child([&] {
    const bool added = qv_pidset_add(set.get(), getpid()) == 0;
    qv_pidset_close(set.get());
    return added ? 0 : 1;
  });
  EXPECT_EQ(child.exit_status(), 0);
  EXPECT_TRUE(qv_pidset_contains(set.get(), child.pid()));
  EXPECT_EQ(qv_pidset_remove(set.get(), child.pid()), 0);
}

// The lock belongs to what the open(2) made, which a child inherits.
TEST_F(PidSet, SharesItsLockWithAChildsInheritedHandle) {
  const Set set = open_set(path_);
  EXPECT_EQ(qv_pidset_lock_contains(set.get()), 0);
  const Child child([&] {
    return qv_pidset_lock_contains(set.get()) == 0 && qv_pidset_unlock_contains(set.get()) == 0 ? 0
                                                                                                : 1;
  });
  EXPECT_EQ(child.exit_status(), 0);
  EXPECT_FALSE(test::is_locked(path_));
}

// A thread on the same handle stands for the other process: ThreadSanitizer sees
// an access through another mapping as one to other memory. Ids that are added at
// the end overwrite none that counts, so the reader needs no lock.
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

// --- killed writers ---

struct Change {
  const char* name;
  Ids before;
  bool is_addition;
  std::int32_t id;

  int run(qv_pidset_t* set) const {
    return is_addition ? qv_pidset_add(set, id) : qv_pidset_remove(set, id);
  }
};

void PrintTo(const Change& row, std::ostream* out) { *out << row.name; }

Ids with(Ids ids, std::int32_t id) {
  const auto place = std::lower_bound(ids.begin(), ids.end(), id);
  if (place == ids.end() || *place != id) {
    ids.insert(place, id);
  }
  return ids;
}

Ids without(Ids ids, std::int32_t id) {
  ids.erase(std::remove(ids.begin(), ids.end(), id), ids.end());
  return ids;
}

// A child that changes the set of a file, one instruction at a time.
class SteppedWriter {
 public:
  SteppedWriter(const std::string& path, const Change& change) : pid_(fork()) {
    if (pid_ == 0) {
      const Set set = open_set(path);
      ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      raise(SIGSTOP);
      change.run(set.get());
      raise(SIGSTOP);
    }
    await();
  }
  ~SteppedWriter() { kill(); }
  SteppedWriter(const SteppedWriter&) = delete;
  SteppedWriter& operator=(const SteppedWriter&) = delete;

  // False when the change is through.
  bool step() {
    ptrace(PTRACE_SINGLESTEP, pid_, nullptr, nullptr);
    return await() == SIGTRAP;
  }

  void kill() {
    if (!is_dead_) {
      ::kill(pid_, SIGKILL);
      await();
    }
  }

 private:
  // The signal that has stopped the child, or 0 when it is dead.
  int await() {
    int status = 0;
    waitpid(pid_, &status, 0);
    is_dead_ = !WIFSTOPPED(status);
    return is_dead_ ? 0 : WSTOPSIG(status);
  }

  pid_t pid_;
  bool is_dead_ = false;
};

class KilledPidSet : public PidSet, public testing::WithParamInterface<Change> {
 protected:
  // The ids after one more change of a page that a killed writer left.
  Ids ids_after(const std::string& page, const Change& more) const {
    const std::string path = dir_.file("copy");
    test::write_file(path, page);
    const Set set = open_set(path);
    if (!set || more.run(set.get()) == 2) {
      return {};
    }
    const std::int32_t* const list = qv_pidset_pidlist(set.get());
    return Ids(list, list + *qv_pidset_count_ptr(set.get()));
  }

  static std::string bytes_of(const Set& set) {
    return std::string(reinterpret_cast<const char*>(qv_pidset_count_ptr(set.get())), page_size());
  }

  bool has_all(const Ids& ids) const {
    const Set set = open_set(path_);
    return set && std::all_of(ids.begin(), ids.end(), [&set](std::int32_t id) {
             return qv_pidset_contains(set.get(), id);
           });
  }

  bool can_be_changed() const {
    const auto& [name, before, is_addition, id] = GetParam();
    const std::string page = bytes();
    const bool is_there = qv_pidset_contains(open_set(path_).get(), id);
    const Ids now = is_there ? with(before, id) : without(before, id);
    bool is_right = ids_after(page, {"", {}, true, id}) == with(before, id) &&
                    ids_after(page, {"", {}, false, id}) == without(before, id);
    for (const std::int32_t other : without(before, id)) {
      is_right = is_right && ids_after(page, {"", {}, false, other}) == without(now, other);
    }
    return is_right && ids_after(page, {"", {}, false, kLeast}) == now;
  }
};

#ifdef QV_SANITIZED
// What is checked at each access makes thousands of instructions of a hundred.
constexpr bool kStopsAtEachInstruction = false;
#else
constexpr bool kStopsAtEachInstruction = true;
#endif

// Where no instruction is counted, a stop is a change of the page: those between
// two of them leave the same page.
TEST_P(KilledPidSet, KeepsEveryIdWhereverItsWriterStops) {
  const Change& change = GetParam();
  const Ids others = without(change.before, change.id);
  int stops = 0;
  int lost = 0;
  int spoilt = 0;
  for (bool is_through = false; !is_through; ++stops) {
    test::write_file(path_, page_bytes(change.before));
    const Set set = open_set(path_);
    SteppedWriter writer(path_, change);
    for (int stop = 0; stop < stops && !is_through;) {
      const std::string page = bytes_of(set);
      is_through = !writer.step();
      stop += kStopsAtEachInstruction || bytes_of(set) != page ? 1 : 0;
    }
    writer.kill();
    EXPECT_FALSE(test::is_locked(path_));
    lost += has_all(others) ? 0 : 1;
    spoilt += can_be_changed() ? 0 : 1;
  }
  RecordProperty("stops", stops);
  EXPECT_EQ(lost, 0) << "of " << stops;
  EXPECT_EQ(spoilt, 0) << "of " << stops;
  EXPECT_EQ(qv_pidset_contains(open_set(path_).get(), change.id), change.is_addition);
}

// As a writer leaves it that is killed between two of its stores.
TEST_F(PidSet, MendsARepeatedIdWithTheNextChange) {
  Ids killed = counted_ids(capacity() - 1);
  killed.insert(killed.begin() + 700, killed[700]);
  Set set = set_of(killed);
  EXPECT_EQ(qv_pidset_remove(set.get(), kLeast), 0);
  Ids mended = counted_ids(capacity() - 1);
  mended.push_back(mended.back());
  EXPECT_EQ(bytes(), page_bytes(capacity() - 1, mended));
  set = set_of(killed);
  EXPECT_EQ(qv_pidset_add(set.get(), 5), 0);  // there is room for it
  EXPECT_EQ(bytes(), page_bytes(with(counted_ids(capacity() - 1), 5)));
}

TEST_F(PidSet, MendsARepeatedIdInSetsOfEverySize) {
  for (std::size_t size = 1; size < 40; ++size) {
    for (std::size_t index = 0; index < size; ++index) {
      Ids killed = counted_ids(size);
      killed.insert(killed.begin() + static_cast<std::ptrdiff_t>(index), killed[index]);
      const Set set = set_of(killed);
      ASSERT_EQ(qv_pidset_remove(set.get(), killed[index]), 0);
      ASSERT_EQ(bytes().substr(0, 8 + 4 * (size - 1)),
                page_bytes(without(killed, killed[index])).substr(0, 8 + 4 * (size - 1)));
    }
  }
}

// No kill leaves so many.
TEST_F(PidSet, MendsAllRepeatedIds) {
  const Set set = set_of({3, 3, 5, 5, 5, 7, 9, 9});
  EXPECT_EQ(qv_pidset_add(set.get(), 8), 0);
  EXPECT_EQ(bytes().substr(0, 8 + 4 * 5), page_bytes({3, 5, 7, 8, 9}).substr(0, 8 + 4 * 5));
}

TEST_F(PidSet, KeepsARepeatedIdWhileItIsOnlyLookedUp) {
  const std::string page = page_bytes({3, 5, 5, 9});
  test::write_file(path_, page);
  const Set set = open_set(path_);
  EXPECT_EQ(qv_pidset_lock_contains(set.get()), 0);
  EXPECT_TRUE(qv_pidset_contains(set.get(), 5));
  EXPECT_TRUE(qv_pidset_contains(set.get(), 9));
  EXPECT_EQ(qv_pidset_unlock_contains(set.get()), 0);
  EXPECT_EQ(bytes(), page);
}

const Ids kNine{10, 20, 30, 40, 50, 60, 70, 80, 90};

INSTANTIATE_TEST_SUITE_P(
    Each, KilledPidSet,
    testing::Values(
        Change{"first_of_all", {}, true, 5}, Change{"add_before_one", {10}, true, 5},
        Change{"add_behind_one", {10}, true, 15}, Change{"add_in_front", kNine, true, 5},
        Change{"add_second", kNine, true, 15}, Change{"add_in_the_middle", kNine, true, 45},
        Change{"add_before_the_last", kNine, true, 85}, Change{"add_at_the_end", kNine, true, 95},
        Change{"add_in_front_of_eight", {10, 20, 30, 40, 50, 60, 70, 80}, true, 5},
        Change{"remove_the_only", {10}, false, 10}, Change{"remove_the_first", kNine, false, 10},
        Change{"remove_the_second", kNine, false, 20},
        Change{"remove_the_middle", kNine, false, 50},
        Change{"remove_the_last_but_one", kNine, false, 80},
        Change{"remove_the_last", kNine, false, 90}),
    [](const auto& row) { return std::string(row.param.name); });

// --- descriptors ---

TEST_F(PidSet, HasOneDescriptorPerHandle) {
  const int before = descriptors();
  Set set = open_set(path_);
  EXPECT_EQ(descriptors(), before + 1);
  Set clone(qv_pidset_clone(set.get()));
  EXPECT_EQ(descriptors(), before + 2);
  set.reset();
  EXPECT_EQ(descriptors(), before + 1);
  clone.reset();
  EXPECT_EQ(descriptors(), before);
}

TEST_F(PidSet, TakesADescriptorOver) {
  const int before = descriptors();
  const int fd = open(path_.c_str(), O_RDWR | O_CLOEXEC);
  Set set(qv_pidset_open_fd(fd));
  EXPECT_EQ(descriptors(), before + 1);
  EXPECT_EQ(qv_pidset_add(set.get(), 1), 0);
  set.reset();
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST_F(PidSet, LeavesADescriptorBehindWhenTheFileIsNoSet) {
  test::write_file(path_, std::string(100, '\0'));
  const int before = descriptors();
  EXPECT_FALSE(open_set(path_));
  EXPECT_EQ(descriptors(), before + 1);
  const int fd = open(path_.c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_EQ(qv_pidset_open_fd(fd), nullptr);
  EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
  close(fd);
}

TEST_F(PidSet, ClosesTheDescriptorWhenTheCountIsWrong) {
  test::write_file(path_, page_bytes(capacity() + 1, {}));
  const int before = descriptors();
  EXPECT_FALSE(open_set(path_));
  const int fd = open(path_.c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_EQ(qv_pidset_open_fd(fd), nullptr);
  EXPECT_EQ(descriptors(), before);
}

TEST_F(PidSet, LeavesNoDescriptorOfACloneThatFails) {
  const Set set = open_set(path_);
  const int before = descriptors();
  test::write_file(path_, page_bytes({}) + "more");
  EXPECT_EQ(qv_pidset_clone(set.get()), nullptr);
  EXPECT_EQ(descriptors(), before);
  test::write_file(path_, page_bytes(capacity() + 1, {}));
  EXPECT_EQ(qv_pidset_clone(set.get()), nullptr);
  EXPECT_EQ(descriptors(), before);
}

// --- what the kernel refuses ---

const char* error_name() { return strerrorname_np(errno); }

// "null ENOLCK +1": what opening the file came to, and how many descriptors it
// left.
SCENARIO(refused_open) {
  const std::string& path = arguments.at(0);
  const std::string& what = arguments.at(1);
  const int before = descriptors();
  if (what == "open") {
    test::refuse(SYS_openat, EMFILE);
  } else if (what == "flock") {
    test::refuse(SYS_flock, EINTR);  // calling it again would never end
  } else if (what == "fstat") {
    test::refuse(SYS_newfstatat, EIO, test::When{3, AT_EMPTY_PATH});
    test::refuse(SYS_fstat, EIO);
  } else if (what == "ftruncate") {
    test::refuse(SYS_ftruncate, ENOSPC);
  } else if (what == "mmap") {
    test::refuse(SYS_mmap, ENOMEM, test::When{2, PROT_WRITE});
  }
  g_no_memory = what == "memory";
  errno = 0;
  const qv_pidset_t* const set = qv_pidset_open(path.c_str());
  const char* const error = error_name();
  g_no_memory = false;
  std::printf("%s %s %+d", set == nullptr ? "null" : "set", error, descriptors() - before);
  if (what != "open" && what != "flock") {
    std::printf(" %s", test::is_locked(path) ? "locked" : "unlocked");
  }
  return 0;
}

TEST_F(PidSet, OpensNothingWhenTheKernelRefusesACall) {
  EXPECT_EQ(run("refused_open", {"open"}).out, "null EMFILE +0");
  EXPECT_EQ(run("refused_open", {"flock"}).out, "null EINTR +1");
  EXPECT_EQ(run("refused_open", {"fstat"}).out, "null EIO +1 unlocked");
  EXPECT_EQ(run("refused_open", {"ftruncate"}).out, "null ENOSPC +1 unlocked");
  EXPECT_EQ(bytes(), "");
}

TEST_F(PidSet, OpensNothingWithoutMemory) {
  EXPECT_EQ(run("refused_open", {"memory"}).out, "null ENOMEM +1 unlocked");
  EXPECT_EQ(bytes(), page_bytes({}));
}

// A refused mapping is not noticed before somebody touches it.
TEST_F(PidSet, EndsTheProcessWhenTheMappingIsRefused) {
  for (const std::string& content : {std::string(), page_bytes({1})}) {
    test::write_file(path_, content);
    const Ran ran = run("refused_open", {"mmap"});
#ifdef QV_SANITIZED
    EXPECT_FALSE(ran.exited_with(0));  // the sanitizer reports the access and exits
#else
    EXPECT_TRUE(ran.killed_by(SIGSEGV));
#endif
    EXPECT_EQ(ran.out, "");
  }
  test::write_file(path_, std::string(100, '\0'));
  EXPECT_EQ(run("refused_open", {"mmap"}).out, "null ENOMEM +1 unlocked");
}

SCENARIO(refused_clone) {
  const Set set = open_set(arguments.at(0));
  const int before = descriptors();
  test::refuse(arguments.at(1) == "dup" ? SYS_dup : SYS_flock, EMFILE);
  const qv_pidset_t* const clone = qv_pidset_clone(set.get());
  const char* const error = error_name();
  std::printf("%s %s %+d", clone == nullptr ? "null" : "set", error, descriptors() - before);
  return 0;
}

TEST_F(PidSet, ClonesNothingWhenTheKernelRefusesACall) {
  EXPECT_EQ(run("refused_clone", {"dup"}).out, "null EMFILE +0");
  EXPECT_EQ(run("refused_clone", {"flock"}).out, "null EMFILE +0");
}

void print_outcome(const char* name, int result) {
  const char* const error = error_name();
  std::printf("%s %d %s\n", name, result, error);
}

SCENARIO(refused_lock) {
  const Set set = open_set(arguments.at(0));
  test::refuse(SYS_flock, EINTR);  // calling it again would never end
  print_outcome("add", qv_pidset_add(set.get(), 4));
  print_outcome("remove", qv_pidset_remove(set.get(), 3));
  print_outcome("lock", qv_pidset_lock_contains(set.get()));
  print_outcome("unlock", qv_pidset_unlock_contains(set.get()));
  return qv_pidset_contains(set.get(), 3) ? 0 : 1;
}

TEST_F(PidSet, ChangesNothingWithoutTheLock) {
  test::write_file(path_, page_bytes({3}));
  const Ran ran = run("refused_lock");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "add 999 EINTR\nremove -1 EINTR\nlock 999 EINTR\nunlock -1 EINTR\n");
  EXPECT_EQ(bytes(), page_bytes({3}));
}

SCENARIO(refused_unlock) {
  const Set set = open_set(arguments.at(0));
  test::refuse(SYS_flock, ENOLCK, test::When{1, LOCK_UN});
  const bool added = qv_pidset_add(set.get(), 4) == 0 && qv_pidset_add(set.get(), 4) == 1;
  print_outcome("remove", qv_pidset_remove(set.get(), 3));
  return added ? 0 : 1;
}

TEST_F(PidSet, TellsOfALockThatStaysOnlyWhenItRemoves) {
  test::write_file(path_, page_bytes({3}));
  const Ran ran = run("refused_unlock");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "remove -1 ENOLCK\n");
  EXPECT_EQ(bytes(), page_bytes(1, {4, 4}));
}

SCENARIO(silent_refusals) {
  const Set set = open_set(arguments.at(0));
  test::refuse(SYS_flock, EIO);
  qv_pidset_add(set.get(), 1);
  qv_pidset_clone(set.get());
  qv_pidset_open("/dev/null/nothing");
  return 0;
}

TEST_F(PidSet, LogsNothing) {
  const Ran ran = run("silent_refusals");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.log, "");
  EXPECT_EQ(ran.err, "");
}

}  // namespace
