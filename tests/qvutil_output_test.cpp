// How commands print: texts, tables, JSON, colours and progress.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "qvutil/output/console.h"
#include "qvutil/output/json.h"
#include "qvutil/output/outcome.h"
#include "qvutil/output/progress.h"
#include "qvutil/output/table.h"
#include "qvutil/output/text.h"

namespace {

using namespace quorvane::tool;
using testing::ElementsAre;
using testing::HasSubstr;

std::string every_byte() {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

TEST(Text, IsUtf8OnlyIfItIsWellFormed) {
  for (const char* text :
       {"", "k", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_TRUE(is_utf8(text)) << hex(text);
  }
  for (const char* text :
       {"\x80", "\xc3", "\xc0\x80", "\xe0\x80\x80", "\xed\xa0\x80", "\xf0\x80\x80\x80",
        "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff", "a\xe2\x82"}) {
    EXPECT_FALSE(is_utf8(text)) << hex(text);
  }
}

TEST(Text, ShowsNothingThatChangesATerminal) {
  EXPECT_EQ(shown("plain, \xc3\xa9"), "plain, \xc3\xa9");
  EXPECT_EQ(shown("a\nb\tc\\"), "a\\nb\\tc\\\\");
  EXPECT_EQ(shown("\033[31m\x7f"), "\\x1b[31m\\x7f");
  EXPECT_EQ(shown("\xc2\x9b"), "\\xc2\\x9b");  // a control character of one code point
  EXPECT_EQ(shown("\xff\xc3"), "\\xff\\xc3");
  EXPECT_EQ(shown(std::string(1, '\0')), "\\x00");
  for (const char c : shown(every_byte())) {
    EXPECT_GE(static_cast<unsigned char>(c), 0x20);
  }
}

TEST(Text, ShowsNothingThatChangesTheDirectionOfText) {
  EXPECT_EQ(shown("txt.\xe2\x80\xae"
                  "exe"),
            "txt.\\xe2\\x80\\xaeexe");
  for (const char* control : {"\xd8\x9c", "\xe2\x80\x8e", "\xe2\x80\x8f", "\xe2\x80\xaa",
                              "\xe2\x80\xab", "\xe2\x80\xac", "\xe2\x80\xad", "\xe2\x80\xae",
                              "\xe2\x81\xa6", "\xe2\x81\xa7", "\xe2\x81\xa8", "\xe2\x81\xa9"}) {
    EXPECT_EQ(shown(control).substr(0, 2), "\\x") << hex(control);
  }
  for (const char* other : {"\xd8\x9b", "\xd8\xa7", "\xe2\x80\x8d", "\xe2\x80\x90", "\xe2\x80\xa9",
                            "\xe2\x80\xaf", "\xe2\x81\xa5", "\xe2\x81\xaa"}) {
    EXPECT_EQ(shown(other), other);
  }
}

TEST(Text, TurnsHexadecimalDigitsIntoBytesAndBack) {
  EXPECT_EQ(hex(std::string("\0\xff\x1a", 3)), "00ff1a");
  EXPECT_EQ(bytes_of_hex(hex(every_byte())), every_byte());
  EXPECT_EQ(bytes_of_hex("fF"), "\xff");
  EXPECT_EQ(bytes_of_hex(""), "");
  for (const char* digits : {"f", "0g", "0x00", " 0", "f\n"}) {
    EXPECT_THROW(bytes_of_hex(digits), Failure) << digits;
  }
}

TEST(Text, GroupsLongNumbers) {
  EXPECT_EQ(grouped(0), "0");
  EXPECT_EQ(grouped(999), "999");
  EXPECT_EQ(grouped(1000), "1 000");
  EXPECT_EQ(grouped(1234567), "1 234 567");
}

TEST(Text, HasSizesInPowersOf1000) {
  EXPECT_EQ(size_text(0), "0 B");
  EXPECT_EQ(size_text(999), "999 B");
  EXPECT_EQ(size_text(1000), "1.0 kB");
  EXPECT_EQ(size_text(1500), "1.5 kB");
  EXPECT_EQ(size_text(12'345'678), "12 MB");
  EXPECT_EQ(size_text(999'999), "1.0 MB");
  EXPECT_EQ(size_text(UINT64_MAX), "18 EB");
}

TEST(Text, HasDurationsInTheLargestUnit) {
  EXPECT_EQ(duration_text(0), "0 s");
  EXPECT_EQ(duration_text(1e-9), "1.0 ns");
  EXPECT_EQ(duration_text(400e-9), "400 ns");
  EXPECT_EQ(duration_text(1e-6), "1.0 us");
  EXPECT_EQ(duration_text(0.00095), "950 us");
  EXPECT_EQ(duration_text(1.25), "1.2 s");
  EXPECT_EQ(duration_text(300), "5.0 min");
  EXPECT_EQ(duration_text(7200), "2.0 h");
  EXPECT_EQ(duration_text(86400 * 12), "12 d");
}

TEST(Text, HasTimesInUtc) {
  EXPECT_EQ(time_text(0), "1970-01-01T00:00:00Z");
  EXPECT_EQ(time_text(1709294400), "2024-03-01T12:00:00Z");
  EXPECT_EQ(time_text(-1), "1969-12-31T23:59:59Z");
}

// A console on strings.
struct Printed {
  explicit Printed(Console::Style style = {}) : console(out, err, style) {}
  std::ostringstream out;
  std::ostringstream err;
  Console console;
};

TEST(Table, HasColumnsAsWideAsTheirLongestCell) {
  Printed printed;
  Table table({{"NAME"}, {"BYTES", Table::Align::right}, {"STATE"}});
  EXPECT_TRUE(table.empty());
  table.row({"caf\xc3\xa9", "7", "whole"});
  table.row({"longer", "1234567", ""});
  table.print(printed.console);
  EXPECT_EQ(printed.out.str(),
            "NAME      BYTES  STATE\n"
            "caf\xc3\xa9          7  whole\n"
            "longer  1234567\n");
}

TEST(Table, PaintsCellsWithoutShiftingColumns) {
  Console::Style style;
  style.colour = true;
  Printed printed(style);
  Table table({{"A"}, {"B"}});
  table.row({{"x", Colour::red}, "y"});
  table.print(printed.console);
  EXPECT_EQ(printed.out.str(),
            "\033[1mA\033[0m  \033[1mB\033[0m\n"
            "\033[31mx\033[0m  y\n");
}

TEST(Console, PaintsOnlyWithColours) {
  EXPECT_EQ(Printed().console.paint(Colour::red, "text"), "text");
}

TEST(Json, KeepsAllBytes) {
  EXPECT_EQ(json_of_bytes("caf\xc3\xa9").dump(), "\"caf\xc3\xa9\"");
  EXPECT_EQ(json_of_bytes("\xff").dump(), R"({"hex":"ff"})");
  for (const std::string& bytes : {every_byte(), std::string("text"), std::string()}) {
    EXPECT_EQ(bytes_of_json(Json::parse(json_of_bytes(bytes).dump())), bytes);
  }
  for (const char* other :
       {"1", "null", "[]", "{}", R"({"hex":1})", R"({"hex":"0"})", R"({"hex":"00","more":1})"}) {
    EXPECT_THROW(bytes_of_json(Json::parse(other)), Failure) << other;
  }
}

TEST(Json, StandsInOneLine) {
  Printed printed;
  print_json(printed.console, Json{{"b", "two\nlines"}, {"a", 1}});
  EXPECT_EQ(printed.out.str(), "{\"b\":\"two\\nlines\",\"a\":1}\n");
}

TEST(Progress, SaysHowMuchIsDoneTheRateAndTheTimeLeft) {
  EXPECT_EQ(Progress::line("verifying demo", 25'000'000, 100'000'000, 5),
            "verifying demo: 25 % of 100 MB, 5.0 MB/s, 15 s left");
  EXPECT_EQ(Progress::line("reading", 3'000'000, 0, 2), "reading: 3.0 MB, 1.5 MB/s");
  EXPECT_EQ(Progress::line("verifying", 200, 100, 1), "verifying: 100 % of 100 B, 200 B/s");
  EXPECT_EQ(Progress::line("verifying", 0, 100, 1), "verifying: 0 % of 100 B, 0 B/s");
}

TEST(Progress, BeginsAnewWhenWorkIsDoneOnceMore) {
  Console::Style terminal;
  terminal.progress = true;
  Printed printed(terminal);
  Progress progress(printed.console, "verifying", 1 << 20);
  progress.at(1 << 20);
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  progress.at(0);
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
  progress.at(1 << 18);
  EXPECT_THAT(printed.err.str(), HasSubstr("verifying: 25 % of 1.0 MB, "));
}

TEST(Status, GivesWayToWhatIsPrintedOnItsTerminal) {
  Console::Style terminal;
  terminal.columns = 80;
  Printed printed(terminal);
  printed.console.show_status("half done");
  EXPECT_EQ(printed.err.str(), "\r\033[Khalf done");
  printed.console.out() << "found\n";
  EXPECT_EQ(printed.err.str(), "\r\033[Khalf done\r\033[K");
  printed.console.out() << "found more\n";
  printed.console.show_status("done");
  printed.console.err() << "a message\n";
  EXPECT_EQ(printed.err.str(), "\r\033[Khalf done\r\033[K\r\033[Kdone\r\033[Ka message\n");
}

TEST(Status, StaysWhenOutputGoesElsewhere) {
  Printed printed(Console::Style{});
  printed.console.show_status("half done");
  printed.console.out() << "found\n";
  EXPECT_EQ(printed.err.str(), "\r\033[Khalf done");
  printed.console.clear_status();
  printed.console.clear_status();
  EXPECT_EQ(printed.err.str(), "\r\033[Khalf done\r\033[K");
}

TEST(Progress, IsSilentAtFirstAndWithoutATerminal) {
  Console::Style terminal;
  terminal.progress = true;
  for (const Console::Style style : {Console::Style{}, terminal}) {
    Printed printed(style);
    {
      Progress progress(printed.console, "verifying", 1 << 20);
      progress.at(1 << 20);
    }
    EXPECT_EQ(printed.err.str(), "");
  }
}

}  // namespace
