#include "src/absent_keys.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "support/no_memory.h"

namespace {

using quorvane::remote::AbsentKeys;

// Hashes that differ in all bits, like real ones.
std::uint64_t hash(std::uint64_t number) { return (number + 1) * 0x9e3779b97f4a7c15U; }

TEST(AbsentKeys, HaveNothingAtFirst) {
  const AbsentKeys keys;
  EXPECT_FALSE(keys.has(0));
  EXPECT_FALSE(keys.has(1));
}

TEST(AbsentKeys, HaveWhatWasAddedAndNothingElse) {
  AbsentKeys keys;
  for (std::uint64_t i = 0; i < 10000; ++i) {
    keys.add(hash(2 * i));
  }
  for (std::uint64_t i = 0; i < 10000; ++i) {
    ASSERT_TRUE(keys.has(hash(2 * i))) << i;
    ASSERT_FALSE(keys.has(hash(2 * i + 1))) << i;
  }
}

TEST(AbsentKeys, TakeTheHashZero) {
  AbsentKeys keys;
  keys.add(hash(0));
  EXPECT_FALSE(keys.has(0));
  keys.add(0);
  EXPECT_TRUE(keys.has(0));
}

// All of these belong into one slot, the last of the table, and continue at its start.
TEST(AbsentKeys, FindHashesThatCollideAcrossTheEnd) {
  AbsentKeys keys;
  for (std::uint64_t i = 1; i <= 20; ++i) {
    keys.add((i << 32) | 0xffffffff);
  }
  for (std::uint64_t i = 1; i <= 20; ++i) {
    EXPECT_TRUE(keys.has((i << 32) | 0xffffffff)) << i;
  }
  EXPECT_FALSE(keys.has((std::uint64_t{21} << 32) | 0xffffffff));
}

TEST(AbsentKeys, AreForgotten) {
  AbsentKeys keys;
  keys.add(hash(1));
  keys.forget();
  EXPECT_FALSE(keys.has(hash(1)));
  keys.add(hash(2));
  EXPECT_TRUE(keys.has(hash(2)));
}

TEST(AbsentKeys, AreForgottenTogetherWhenThereAreTooMany) {
  AbsentKeys keys;
  for (std::uint64_t i = 0; i < AbsentKeys::kMost; ++i) {
    keys.add(hash(i));
  }
  keys.add(hash(0));  // is there already
  EXPECT_TRUE(keys.has(hash(0)));
  EXPECT_TRUE(keys.has(hash(AbsentKeys::kMost - 1)));
  keys.add(hash(AbsentKeys::kMost));
  EXPECT_FALSE(keys.has(hash(0)));
  EXPECT_FALSE(keys.has(hash(AbsentKeys::kMost - 1)));
  EXPECT_TRUE(keys.has(hash(AbsentKeys::kMost)));
}

TEST(AbsentKeys, StayAsTheyAreWithoutMemory) {
  AbsentKeys keys;
  std::uint64_t added = 0;
  {
    const test::FailingAllocation first_fails(0, test::Afterwards::fail);
    keys.add(hash(0));
  }
  EXPECT_FALSE(keys.has(hash(0)));
  keys.add(hash(added++));
  {
    const test::FailingAllocation none(0, test::Afterwards::fail);
    while (keys.has(hash(added - 1))) {
      keys.add(hash(added++));
    }
  }
  EXPECT_GT(added, 2u);
  for (std::uint64_t i = 0; i + 1 < added; ++i) {
    EXPECT_TRUE(keys.has(hash(i))) << i;
  }
  keys.add(hash(added - 1));
  EXPECT_TRUE(keys.has(hash(added - 1)));
}

}  // namespace
