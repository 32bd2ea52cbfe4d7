#include <gtest/gtest.h>
#include <quorvane/small_utils.h>
#include <sys/types.h>

#include <cstdint>
#include <latch>
#include <limits>
#include <ostream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/processes.h"
#include "support/scenario.h"

namespace {

// The offset of the needle, or -1.
std::ptrdiff_t find(const std::string& haystack, const std::string& needle) {
  const void* const found =
      qv_find_sequence(haystack.data(), haystack.size(), needle.data(), needle.size());
  return found == nullptr ? -1 : static_cast<const char*>(found) - haystack.data();
}

// ------------------------------------------------------------ qv_find_sequence

struct Search {
  std::string haystack;
  std::string needle;
  std::ptrdiff_t offset;
};

void PrintTo(const Search& row, std::ostream* out) {
  *out << "\"" << row.needle << "\" in \"" << row.haystack << "\"";
}

class FindSequence : public testing::TestWithParam<Search> {};

TEST_P(FindSequence, GivesTheFirstPlaceOrNull) {
  EXPECT_EQ(find(GetParam().haystack, GetParam().needle), GetParam().offset);
}

INSTANTIATE_TEST_SUITE_P(
    Searches, FindSequence,
    testing::Values(Search{"abcabc", "abc", 0}, Search{"xabcabc", "abc", 1},
                    Search{"aaab", "aab", 1}, Search{"abc", "c", 2}, Search{"abc", "abc", 0},
                    Search{"abc", "abd", -1}, Search{"ab", "abc", -1}, Search{"", "a", -1},
                    Search{"abc", "", 0}, Search{"", "", 0},
                    // Bytes, not text.
                    Search{std::string("a\0b\0c", 5), std::string("\0c", 2), 3},
                    Search{"\xff\xfe\xff", "\xfe\xff", 1}));

TEST(FindSequence, ReadsNoByteBeyondTheHaystack) {
  const std::string text = "abcabd";
  EXPECT_EQ(qv_find_sequence(text.data(), 5, "abd", 3), nullptr);
  EXPECT_EQ(qv_find_sequence(text.data(), 6, "abd", 3), text.data() + 3);
}

TEST(FindSequence, TakesNullWhereTheLengthIsZero) {
  EXPECT_EQ(qv_find_sequence(nullptr, 0, nullptr, 0), nullptr);
  EXPECT_EQ(qv_find_sequence(nullptr, 0, "a", 1), nullptr);
  const char text[] = "a";
  EXPECT_EQ(qv_find_sequence(text, 1, nullptr, 0), text);
}

// A needle that is longer than the haystack isn't read.
TEST(FindSequence, GivesNullForANeedleThatIsLonger) {
  EXPECT_EQ(qv_find_sequence("a", 1, "a", std::numeric_limits<std::size_t>::max()), nullptr);
}

// ------------------------------------------------------------------ the counter

// Callers link against these types, which the mangled names contain.
static_assert(std::is_same_v<decltype(&qv_async_inc), void (*)(void*)>);
static_assert(std::is_same_v<decltype(&qv_async_get), std::uint64_t (*)(void*)>);

SCENARIO(counts_from_zero) {
  int any = 0;
  const bool starts_at_zero = qv_async_get(nullptr) == 0 && qv_async_get(&any) == 0;
  qv_async_inc(nullptr);
  qv_async_inc(&any);
  return starts_at_zero && qv_async_get(nullptr) == 2 && qv_async_get(&any) == 2 && any == 0 ? 0
                                                                                             : 1;
}

TEST(AsyncCounter, StartsAtZeroAndIsOneForEveryArgument) {
  EXPECT_TRUE(test::run_scenario("counts_from_zero").exited_with(0));
}

TEST(AsyncCounter, LosesNoIncrementOfEightThreads) {
  constexpr std::uint64_t kRounds = 1000000;
  const std::uint64_t before = qv_async_get(nullptr);
  std::latch start(8);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      for (std::uint64_t round = 0; round < kRounds; ++round) {
        qv_async_inc(nullptr);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(qv_async_get(nullptr) - before, 8 * kRounds);
}

SCENARIO(counts_in_a_child) {
  qv_async_inc(nullptr);
  const pid_t child = test::in_child([] {
    qv_async_inc(nullptr);
    return qv_async_get(nullptr) == 2 ? 0 : 1;
  });
  return test::wait_for(child) == 0 && qv_async_get(nullptr) == 1 ? 0 : 1;
}

TEST(AsyncCounter, GoesOnInAChildWithoutTouchingItsParents) {
  EXPECT_TRUE(test::run_scenario("counts_in_a_child").exited_with(0));
}

}  // namespace
