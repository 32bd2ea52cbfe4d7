// Every state of an indexed store's files that a kill can leave, and every state that a kill
// in the recovery can leave.
#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "indexed_crash_test/kill_states.h"
#include "support/scenario.h"

using indexed_crash_test::delete_index;
using indexed_crash_test::entries;
using indexed_crash_test::KillStates;
using indexed_crash_test::operator+;
using indexed_crash_test::page_of;
using indexed_crash_test::Tally;
using quorvane::cache::EntryMap;
using test::DirState;

namespace {

constexpr std::size_t kSmall = 20;
constexpr std::size_t kLarge = 700;        // twenty of them fill several pages
constexpr std::size_t kHuge = 512 * 1024;  // two of them are written at once, what follows alone
constexpr std::size_t kOfPages = 40 * 1024;

// Entries of this size fill a store up to this limit, so that the next append cleans it. At
// least so many stay.
constexpr std::size_t kOfClean = 1000;
constexpr std::uint64_t kLimit = 40'000;
constexpr std::size_t kKept = 4;

// As many as the first index takes, but for a few.
constexpr int kAlmostFull = 676;

bool has_tail(const DirState& state) {
  return state.bytes("dat_maps").size() > page_of(state.bytes("idx_maps")).covered;
}

bool lacks_slots(const DirState& state) {
  const auto page = page_of(state.bytes("idx_maps"));
  return page.indexed < page.covered;
}

bool is_moving(const DirState& state) { return page_of(state.bytes("idx_maps")).moving != 0; }

// The state in the middle of those that an append of `added` goes through and that `fits`
// selects.
template <typename Fits>
DirState killed_append(KillStates& states, const EntryMap& added, const Fits& fits) {
  std::vector<DirState> reached = states.states_of_append(added);
  std::erase_if(reached, [&fits](const DirState& state) { return !fits(state); });
  return reached.at(reached.size() / 2);
}

}  // namespace

SCENARIO(create) { return KillStates({}).check_opening(); }

SCENARIO(first_append) { return KillStates({}).check_append(entries("new", 3, kSmall)); }

// Arguments: how many entries, and the size of each.
SCENARIO(append) {
  return KillStates(entries("old", 5, kSmall))
      .check_append(entries("new", std::stoi(arguments.at(0)), std::stoul(arguments.at(1))));
}

SCENARIO(append_in_two_writes) {
  return KillStates(entries("old", 5, kSmall))
      .check_append(entries("new", 2, kHuge) + entries("newest", 1, kOfPages));
}

SCENARIO(grow) {
  return KillStates(entries("old", kAlmostFull, kSmall)).check_append(entries("new", 12, kSmall));
}

SCENARIO(rebuild) {
  KillStates states(entries("old", 40, kSmall));
  delete_index();
  states.begin_now();
  return states.check_append(entries("new", 2, kSmall));
}

SCENARIO(rebuild_with_torn_tail) {
  KillStates states(entries("old", 40, kSmall));
  const EntryMap added = entries("new", 8, kLarge);
  DirState state = killed_append(states, added, has_tail);
  state.names.erase("idx_maps");
  states.begin_in(state);
  return states.check_append(added);
}

// The value has whole entries in it, some of them where entries begin in a file.
SCENARIO(append_entries_in_a_value) {
  KillStates states(entries("old", 5, kSmall));
  const std::string copied = test::read_file(test::root_file("dat_maps")).substr(64);
  std::string value;
  for (int shift = 0; shift < 16; ++shift) {
    value += copied + ".";
  }
  value.resize(3 * value.size(), '.');
  return states.check_append({{test::buffer("new"), test::buffers({value})}});
}

// Arguments: where the append was killed.
SCENARIO(append_again) {
  const std::string& where = arguments.at(0);
  KillStates states(entries("old", where == "moving" ? kAlmostFull : 5, kSmall));
  const EntryMap added = entries("new", 10, where == "moving" ? kSmall : kLarge);
  states.begin_in(killed_append(states, added,
                                where == "tail"        ? has_tail
                                : where == "unindexed" ? lacks_slots
                                                       : is_moving));
  return states.check_append(added);
}

SCENARIO(clean) {
  return KillStates(entries("old", 24, kOfClean), kLimit * 3 / 4, kKept / 2).check_clean();
}

// Arguments: how many entries another process stores during the clean.
SCENARIO(append_and_clean) {
  KillStates states(entries("old", 24, kOfClean), kLimit, kKept);
  states.store_meanwhile(entries("meanwhile", std::stoi(arguments.at(0)), kLarge));
  return states.check_append(entries("new", 3, kOfClean));
}

namespace {

// Each test also expects the states that its operation can't but go through, and enough of them
// in the recoveries.
class IndexedKillAnywhere : public testing::Test {
 protected:
  void run(const std::string& scenario, const test::Arguments& arguments = {}) {
    const test::Ran ran = test::run_scenario(
        scenario, {{"QV_CACHE_STORE_ROOT", root_.path()}, {"QV_LOG_LEVEL", "WARN"}}, arguments);
    EXPECT_TRUE(ran.exited_with(0)) << ran.err;
    EXPECT_EQ(ran.messages(), std::vector<std::string>{});
    std::istringstream out(ran.out);
    read(out, operation_);
    read(out, recovery_);
    std::string rest;
    std::getline(out >> std::ws, rest);
    EXPECT_EQ(rest, "0 problems") << ran.err;
    std::cout << ran.out << ran.err;
  }

  static void read(std::istream& in, Tally& tally) {
    in >> tally.states >> tally.without_header >> tally.without_index >> tally.tails >>
        tally.unindexed >> tally.moving >> tally.replaced >> tally.begun >> tally.copied >>
        tally.half_renamed;
  }

  // How many of so many recoveries are run.
  static int of_recoveries(int count) {
    return count / static_cast<int>(indexed_crash_test::kStride);
  }

  test::TempDir root_;
  Tally operation_;
  Tally recovery_;
};

TEST_F(IndexedKillAnywhere, InTheCreationDoesNoHarm) {
  run("create");
  EXPECT_GE(operation_.without_header, 3);
  EXPECT_GE(operation_.without_index, 5);
  EXPECT_GE(operation_.begun, 4);
  EXPECT_GE(recovery_.without_header, of_recoveries(3));
  EXPECT_GE(recovery_.begun, of_recoveries(5 * operation_.begun));
}

TEST_F(IndexedKillAnywhere, InTheFirstAppendDoesNoHarm) {
  run("first_append");
  EXPECT_GE(operation_.without_header, 3);
  EXPECT_GE(operation_.begun, 4);
  EXPECT_GE(operation_.tails, 3);
  EXPECT_EQ(operation_.unindexed, 5);  // before each slot, before the count, and after it
  EXPECT_GT(recovery_.unindexed, of_recoveries(5));
}

TEST_F(IndexedKillAnywhere, InAnAppendOfOneEntryDoesNoHarm) {
  run("append", {"1", std::to_string(kSmall)});
  EXPECT_GE(operation_.tails, 3);
  EXPECT_EQ(operation_.unindexed, 3);
  EXPECT_EQ(operation_.states, 8);  // also the first and the last
  EXPECT_GT(recovery_.tails, of_recoveries(3));
  EXPECT_GT(recovery_.unindexed, of_recoveries(3));
}

TEST_F(IndexedKillAnywhere, InAnAppendOfTwentyEntriesDoesNoHarm) {
  run("append", {"20", std::to_string(kLarge)});
  EXPECT_GE(operation_.tails, 6);  // some of them end at a page
  EXPECT_EQ(operation_.unindexed, 22);
  EXPECT_GT(recovery_.tails, of_recoveries(6 * 6));
  EXPECT_GT(recovery_.unindexed, of_recoveries(22 * 10));
}

TEST_F(IndexedKillAnywhere, InAnAppendThatNeedsTwoWritesDoesNoHarm) {
  run("append_in_two_writes");
  EXPECT_GE(operation_.tails, 2 * 10);
  EXPECT_EQ(operation_.unindexed, 5);
  EXPECT_GT(recovery_.tails, of_recoveries(2 * 10));
}

TEST_F(IndexedKillAnywhere, InAnAppendOfAValueWithEntriesInItDoesNoHarm) {
  run("append_entries_in_a_value");
  EXPECT_GE(operation_.tails, 6);
  EXPECT_GT(recovery_.tails, of_recoveries(6 * 6));
}

TEST_F(IndexedKillAnywhere, InAnAppendThatGrowsTheIndexDoesNoHarm) {
  run("grow");
  EXPECT_GE(operation_.begun, 6);
  EXPECT_EQ(operation_.moving, 1);
  EXPECT_GE(operation_.replaced, 1 + 3 + 14);
  EXPECT_EQ(operation_.unindexed, 14);
  EXPECT_GT(recovery_.begun, of_recoveries(6 * 6));
  EXPECT_GT(recovery_.moving, of_recoveries(6));
  EXPECT_GT(recovery_.unindexed, of_recoveries(14 * 10));
}

TEST_F(IndexedKillAnywhere, InARebuildDoesNoHarm) {
  run("rebuild");
  EXPECT_GE(operation_.without_index, 5);
  EXPECT_GE(operation_.begun, 4);
  EXPECT_EQ(operation_.unindexed, 4);
  EXPECT_GT(recovery_.begun, of_recoveries(4 * 4));
}

TEST_F(IndexedKillAnywhere, InARebuildFromTornDataDoesNoHarm) {
  run("rebuild_with_torn_tail");
  EXPECT_GE(operation_.begun, 4);
  EXPECT_GE(operation_.tails, 1 + 3);  // the torn one, and those of the append
  EXPECT_GT(operation_.unindexed, 2);
  EXPECT_GT(recovery_.begun, of_recoveries(4 * 4));
  EXPECT_GT(recovery_.tails, of_recoveries(4 * 4));
}

TEST_F(IndexedKillAnywhere, InAnAppendAfterATornOneDoesNoHarm) {
  run("append_again", {"tail"});
  EXPECT_GE(operation_.tails, 1 + 3);
  EXPECT_EQ(operation_.unindexed, 14);  // of the torn append, and of this one
  EXPECT_GT(recovery_.unindexed, of_recoveries(12));
}

TEST_F(IndexedKillAnywhere, InAnAppendAfterAHalfIndexedOneDoesNoHarm) {
  run("append_again", {"unindexed"});
  EXPECT_GE(operation_.unindexed, 1 + 5);  // the other half, and the count
  EXPECT_GT(recovery_.unindexed, of_recoveries(6));
}

TEST_F(IndexedKillAnywhere, InAnAppendAfterAHalfMovedIndexDoesNoHarm) {
  run("append_again", {"moving"});
  EXPECT_EQ(operation_.moving, 3);  // the killed append's, without its new index, and its own
  EXPECT_GE(operation_.begun, 2 + 6);
  EXPECT_GT(recovery_.moving, of_recoveries(2));
}

TEST_F(IndexedKillAnywhere, InACleanDoesNoHarm) {
  run("clean");
  EXPECT_GE(operation_.copied, 5 + 4 + 5);  // the header, the entries, and the index
  EXPECT_EQ(operation_.half_renamed, 1);
  EXPECT_GT(recovery_.copied, of_recoveries(14 * 10));
  EXPECT_GT(recovery_.half_renamed, of_recoveries(10));
}

TEST_F(IndexedKillAnywhere, InAnAppendThatCleansDoesNoHarm) {
  run("append_and_clean", {"0"});
  EXPECT_GE(operation_.copied, 5 + 5 + 5);  // the header, the entries, and the index
  EXPECT_GE(operation_.begun, 5);
  EXPECT_EQ(operation_.moving, 1);
  EXPECT_EQ(operation_.half_renamed, 1);
  EXPECT_GT(recovery_.copied, of_recoveries(15 * 10));
  EXPECT_GT(recovery_.half_renamed, of_recoveries(10));
}

TEST_F(IndexedKillAnywhere, InACleanBesideAnAppendDoesNoHarm) {
  run("append_and_clean", {"2"});
  EXPECT_GE(operation_.copied, 5 + 5 + 5 + 3);  // also the entries of the append
  EXPECT_EQ(operation_.half_renamed, 1);
  EXPECT_GT(recovery_.half_renamed, of_recoveries(10));
}

}  // namespace
