// What a text writer adds is what vsnprintf prints, cut at the same place.
#include "src/text_writer.h"

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

namespace {

using quorvane::TextWriter;

// The text of a writer with so much room; nothing if it refuses the format.
__attribute__((format(printf, 2, 3))) std::optional<std::string> written(std::size_t room,
                                                                         const char* format, ...) {
  std::string buffer(room, '?');
  TextWriter writer(buffer.data(), room);
  va_list args;
  va_start(args, format);
  const bool is_added = writer.add_format(format, args);
  va_end(args);
  EXPECT_EQ(writer.size() + writer.room(), room);
  buffer.resize(writer.size());
  return is_added ? std::optional(buffer) : std::nullopt;
}

__attribute__((format(printf, 1, 2))) std::string printed(const char* format, ...) {
  std::array<char, 1000> buffer;
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer.data(), buffer.size(), format, args);
  va_end(args);
  return buffer.data();
}

#define EXPECT_WRITTEN_AS_PRINTED(...) EXPECT_EQ(written(1000, __VA_ARGS__), printed(__VA_ARGS__))

TEST(TextWriter, WritesTextAsVsnprintfDoes) {
  EXPECT_WRITTEN_AS_PRINTED("%s", "");
  EXPECT_WRITTEN_AS_PRINTED("nothing but text");
  EXPECT_WRITTEN_AS_PRINTED("%s", "text");
  EXPECT_WRITTEN_AS_PRINTED("<%s%s>", "one", "two");
  EXPECT_WRITTEN_AS_PRINTED("100%% of %s%%", "it");
}

TEST(TextWriter, WritesNumbersAsVsnprintfDoes) {
  EXPECT_WRITTEN_AS_PRINTED("%d %d %d %d", 0, -1, INT_MAX, INT_MIN);
  EXPECT_WRITTEN_AS_PRINTED("%u %u", 0U, UINT_MAX);
  EXPECT_WRITTEN_AS_PRINTED("%ld %ld", LONG_MIN, LONG_MAX);
  EXPECT_WRITTEN_AS_PRINTED("%lu %lu", 0UL, ULONG_MAX);
  EXPECT_WRITTEN_AS_PRINTED("%lld %llu", LLONG_MIN, ULLONG_MAX);
  EXPECT_WRITTEN_AS_PRINTED("%zu %zd", std::numeric_limits<std::size_t>::max(), ssize_t{-5});
}

// More of them than the registers hold that pass a function's arguments.
TEST(TextWriter, TakesEachArgumentOnce) {
  EXPECT_WRITTEN_AS_PRINTED("%d %s %lu %d %s %lu %d %s %lu %d", 1, "2", 3UL, 4, "5", 6UL, 7, "8",
                            9UL, 10);
}

TEST(TextWriter, WritesANullStringAsVsnprintfDoes) {
  const char* volatile none = nullptr;
  EXPECT_EQ(written(1000, "<%s>", none), "<(null)>");
}

TEST(TextWriter, CutsTheTextWhereItsRoomEnds) {
  const std::string all = printed("a number: %d, %% and some %s", -12345, "text");
  for (std::size_t room = 0; room <= all.size() + 1; ++room) {
    EXPECT_EQ(written(room, "a number: %d, %% and some %s", -12345, "text"), all.substr(0, room));
  }
}

TEST(TextWriter, LooksAtNoMoreOfAStringThanFits) {
  const std::array<char, 4> unterminated{'t', 'e', 'x', 't'};
  EXPECT_EQ(written(5, "<%s", unterminated.data()), "<text");
}

TEST(TextWriter, RefusesOtherConversions) {
  EXPECT_EQ(written(1000, "%x", 1U), std::nullopt);
  EXPECT_EQ(written(1000, "%5d", 1), std::nullopt);
  EXPECT_EQ(written(1000, "%-5s", "text"), std::nullopt);
  EXPECT_EQ(written(1000, "%.2s", "text"), std::nullopt);
  EXPECT_EQ(written(1000, "%*d", 5, 1), std::nullopt);
  EXPECT_EQ(written(1000, "%c", 'c'), std::nullopt);
  EXPECT_EQ(written(1000, "%g", 1.5), std::nullopt);
  EXPECT_EQ(written(1000, "%p", static_cast<void*>(nullptr)), std::nullopt);
  EXPECT_EQ(written(1000, "%hd", short{1}), std::nullopt);
  EXPECT_EQ(written(1000, "%jd", std::intmax_t{1}), std::nullopt);
  EXPECT_EQ(written(1000, "%ls", L"text"), std::nullopt);
}

// The compiler would object to these.
TEST(TextWriter, RefusesWhatIsNotInTheStandard) {
  for (const char* const format :
       {"%", "text %", "%l", "%ll", "%lll", "%z", "%l%", "%zz", "text %m"}) {
    EXPECT_EQ(written(1000, format, 0), std::nullopt) << format;
  }
}

TEST(TextWriter, PutsZerosInFrontOfDigits) {
  std::array<char, 40> buffer;
  TextWriter writer(buffer.data(), buffer.size());
  writer.add_digits(7, 2);
  writer.add_digits(123456, 6);
  writer.add_digits(123456, 3);
  writer.add_digits(0, 1);
  writer.add_digits(std::numeric_limits<std::uint64_t>::max(), 20);
  EXPECT_EQ(std::string_view(buffer.data(), writer.size()), "07123456456018446744073709551615");
}

}  // namespace
