#include "src/cache/size_text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

namespace {

using quorvane::cache::parse_size;
using Size = std::optional<std::uint64_t>;

constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();

TEST(SizeText, OfDigitsIsInBytes) {
  EXPECT_EQ(parse_size("0"), Size(0));
  EXPECT_EQ(parse_size("4096"), Size(4096));
  EXPECT_EQ(parse_size("007"), Size(7));
}

TEST(SizeText, WithALetterIsInPowersOf1024) {
  EXPECT_EQ(parse_size("3K"), Size(3072));
  EXPECT_EQ(parse_size("3M"), Size(3145728));
  EXPECT_EQ(parse_size("10G"), Size(10737418240));
  EXPECT_EQ(parse_size("2T"), Size(2199023255552));
  EXPECT_EQ(parse_size("0T"), Size(0));
}

TEST(SizeText, ReachesTheLargestNumber) {
  EXPECT_EQ(parse_size("18446744073709551615"), Size(kLargest));
  EXPECT_EQ(parse_size("18014398509481983K"), Size(kLargest - 1023));
  EXPECT_EQ(parse_size("16777215T"), Size(kLargest - ((std::uint64_t{1} << 40) - 1)));
}

TEST(SizeText, BeyondTheLargestNumberIsNone) {
  EXPECT_EQ(parse_size("18446744073709551616"), std::nullopt);
  EXPECT_EQ(parse_size("18014398509481984K"), std::nullopt);
  EXPECT_EQ(parse_size("16777216T"), std::nullopt);
  EXPECT_EQ(parse_size("99999999999999999999999999"), std::nullopt);
}

TEST(SizeText, OfAnyOtherFormIsNone) {
  for (const std::string_view text :
       {"",    "K",    "G10", "10k", "10g", "10P",  "10KB", "10KK", "10 G",  " 10",
        "10 ", "10\n", "-1",  "+1",  "-0",  "0x10", "1e3",  "1.5G", "10GiB", "ten"}) {
    EXPECT_EQ(parse_size(text), std::nullopt) << text;
  }
  EXPECT_EQ(parse_size(std::string_view("10\0", 3)), std::nullopt);
}

}  // namespace
