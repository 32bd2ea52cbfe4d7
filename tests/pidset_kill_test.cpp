// Writers that are killed in the middle of a change, and how later changes mend the set.
#include <quorvane/pidset.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ostream>
#include <set>
#include <string>
#include <utility>

#include "pidset_test/fixture.h"
#include "support/lock_probe.h"
#include "support/temp_dir.h"
#include "support/tracee.h"

namespace {

using pidset_test::capacity;
using pidset_test::counted_ids;
using pidset_test::Ids;
using pidset_test::kLeast;
using pidset_test::open_set;
using pidset_test::page_bytes;
using pidset_test::page_size;
using pidset_test::PidSet;
using pidset_test::Set;

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

// A child that changes the set in a file, one instruction at a time.
class SteppedWriter {
 public:
  SteppedWriter(const std::string& path, const Change& change)
      : child_([&] {
          const Set set = open_set(path);
          raise(SIGSTOP);
          change.run(set.get());
          raise(SIGSTOP);
        }) {
    child_.resume(PTRACE_CONT);
  }

  // False when the change is complete.
  bool step() { return child_.resume(PTRACE_SINGLESTEP) == SIGTRAP; }

  void kill() { child_.kill(); }

 private:
  test::Tracee child_;
};

// To rewrite a file may wait for the disk.
void write_new_file(const std::string& path, const std::string& bytes) {
  std::remove(path.c_str());
  test::write_file(path, bytes);
}

class KilledPidSet : public PidSet, public testing::WithParamInterface<Change> {
 protected:
  // The ids after one more change to a page that a killed writer left.
  Ids ids_after(const std::string& page, const Change& more) const {
    const std::string path = dir_.file("copy");
    write_new_file(path, page);
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

// What a stopped writer leaves to others: the page, and whether the lock is taken.
using State = std::pair<std::string, bool>;

// Each run stops the writer after each instruction, and kills it in the first state that no run
// before it was killed in.
TEST_P(KilledPidSet, KeepsEveryIdWhereverItsWriterStops) {
  const Change& change = GetParam();
  const Ids others = without(change.before, change.id);
  std::set<State> states;
  int lost = 0;
  int spoilt = 0;
  for (bool is_through = false; !is_through;) {
    write_new_file(path_, page_bytes(change.before));
    const Set set = open_set(path_);
    SteppedWriter writer(path_, change);
    while (!is_through && !states.emplace(bytes_of(set), test::is_locked(path_)).second) {
      is_through = !writer.step();
    }
    writer.kill();
    EXPECT_FALSE(test::is_locked(path_));
    lost += has_all(others) ? 0 : 1;
    spoilt += can_be_changed() ? 0 : 1;
  }
  RecordProperty("states", static_cast<int>(states.size()));
  EXPECT_GE(states.size(), 4U);  // before and after the change, each with and without the lock
  EXPECT_EQ(lost, 0) << "of " << states.size() << " states";
  EXPECT_EQ(spoilt, 0) << "of " << states.size() << " states";
  EXPECT_EQ(qv_pidset_contains(open_set(path_).get(), change.id), change.is_addition);
}

// A writer that is killed between two of its stores leaves a page with a repeated id.
TEST_F(PidSet, MendsARepeatedIdWithTheNextChange) {
  Ids killed = counted_ids(capacity() - 1);
  killed.insert(killed.begin() + 700, killed[700]);
  Set set = set_of(killed);
  EXPECT_EQ(qv_pidset_remove(set.get(), kLeast), 0);
  Ids mended = counted_ids(capacity() - 1);
  mended.push_back(mended.back());
  EXPECT_EQ(bytes(), page_bytes(capacity() - 1, mended));
  set = set_of(killed);
  EXPECT_EQ(qv_pidset_add(set.get(), 5), 0);  // mending makes room for it
  EXPECT_EQ(bytes(), page_bytes(with(counted_ids(capacity() - 1), 5)));
}

TEST_F(PidSet, MendsARepeatedIdInSetsOfEverySize) {
  for (std::size_t size = 1; size < 40; ++size) {
    for (std::size_t index = 0; index < size; ++index) {
      Ids killed = counted_ids(size);
      killed.insert(killed.begin() + static_cast<std::ptrdiff_t>(index), killed[index]);
      write_new_file(path_, page_bytes(killed));
      const Set set = open_set(path_);
      ASSERT_EQ(qv_pidset_remove(set.get(), killed[index]), 0);
      ASSERT_EQ(bytes().substr(0, 8 + 4 * (size - 1)),
                page_bytes(without(killed, killed[index])).substr(0, 8 + 4 * (size - 1)));
    }
  }
}

// No kill leaves this many repeated ids.
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

}  // namespace
