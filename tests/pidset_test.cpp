// Opening a PID set, changing it and looking ids up.
#include <quorvane/pidset.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "pidset_test/fixture.h"
#include "support/lock_probe.h"
#include "support/temp_dir.h"

namespace {

using pidset_test::capacity;
using pidset_test::counted_ids;
using pidset_test::Ids;
using pidset_test::kGreatest;
using pidset_test::kLeast;
using pidset_test::open_set;
using pidset_test::page_bytes;
using pidset_test::page_size;
using pidset_test::PidSet;
using pidset_test::Set;

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

// The page that the changes so far should have left, stale ids included.
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
    EXPECT_FALSE(qv_pidset_contains(set.get(), id));  // the unused part of the page holds zeros
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

// The library doesn't check the order of the ids in a page that it didn't write.
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

}  // namespace
