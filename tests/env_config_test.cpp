#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/env_config.h>
#include <quorvane/module.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "support/scenario.h"

namespace {

using test::Ran;
using test::run_scenario;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kName = "QV_TEST_VALUE";

// Reads the variable with the reader that the first argument names and the default that the
// second one gives, and prints the result.
SCENARIO(reads) {
  const std::string& reader = arguments.at(0);
  const std::string& fallback = arguments.at(1);
  if (reader == "bool") {
    std::cout << (qv_env_config_get_bool(kName, fallback == "true") ? "true" : "false");
  } else if (reader == "int") {
    std::cout << qv_env_config_get_int(kName, std::stoi(fallback));
  } else {
    std::cout << qv_env_config_get_uint64(kName, std::stoull(fallback));
  }
  return 0;
}

Ran read(const std::string& reader, const std::string& fallback,
         const std::optional<std::string>& value) {
  const Ran ran = run_scenario("reads", {{kName, value}}, {reader, fallback});
  EXPECT_TRUE(ran.exited_with(0));
  return ran;
}

struct Reading {
  std::string reader;
  std::string value;
  std::string fallback;
  std::string result{};  // of a well-formed value
};

void PrintTo(const Reading& row, std::ostream* out) {
  *out << row.reader << " of \"" << row.value << "\"";
}

class WellFormed : public testing::TestWithParam<Reading> {};

TEST_P(WellFormed, ValueIsReadAndNothingIsLogged) {
  const Reading& row = GetParam();
  const Ran ran = read(row.reader, row.fallback, row.value);
  EXPECT_EQ(ran.out, row.result);
  EXPECT_THAT(ran.messages(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Boolean, WellFormed,
                         testing::Values(Reading{"bool", "1", "false", "true"},
                                         Reading{"bool", "true", "false", "true"},
                                         Reading{"bool", "TRUE", "false", "true"},
                                         Reading{"bool", "tRuE", "false", "true"},
                                         Reading{"bool", "0", "true", "false"},
                                         Reading{"bool", "false", "true", "false"},
                                         Reading{"bool", "FALSE", "true", "false"},
                                         Reading{"bool", "False", "true", "false"}));

INSTANTIATE_TEST_SUITE_P(
    Integer, WellFormed,
    testing::Values(Reading{"int", "42", "7", "42"}, Reading{"int", "  42", "7", "42"},
                    Reading{"int", "+42", "7", "42"}, Reading{"int", "-42", "7", "-42"},
                    Reading{"int", "\t\n42", "7", "42"}, Reading{"int", "010", "7", "10"},
                    Reading{"int", "2147483647", "7", "2147483647"},
                    // A value that fits a long is truncated to 32 bits.
                    Reading{"int", "2147483648", "7", "-2147483648"},
                    Reading{"int", "4294967295", "7", "-1"}, Reading{"int", "4294967297", "7", "1"},
                    Reading{"int", "9223372036854775807", "7", "-1"},
                    Reading{"int", "-9223372036854775808", "7", "0"}));

INSTANTIATE_TEST_SUITE_P(
    Unsigned, WellFormed,
    testing::Values(Reading{"uint64", "42", "7", "42"}, Reading{"uint64", "  42", "7", "42"},
                    Reading{"uint64", "+42", "7", "42"},
                    Reading{"uint64", "4294967297", "7", "4294967297"},
                    Reading{"uint64", "18446744073709551615", "7", "18446744073709551615"},
                    Reading{"uint64", "-1", "7", "18446744073709551615"},
                    Reading{"uint64", "-2", "7", "18446744073709551614"}));

class Malformed : public testing::TestWithParam<Reading> {};

TEST_P(Malformed, ValueGivesTheDefaultAndOneWarning) {
  const Reading& row = GetParam();
  const Ran ran = read(row.reader, row.fallback, row.value);
  EXPECT_EQ(ran.out, row.fallback);
  const std::string type = row.reader == "bool" ? "boolean" : "integer";
  EXPECT_THAT(ran.messages(),
              ElementsAre("WARN Unexpected value for " + type +
                          " environment variable \"QV_TEST_VALUE\": \"" + row.value + "\""));
  EXPECT_EQ(ran.err, "");
}

INSTANTIATE_TEST_SUITE_P(
    Boolean, Malformed,
    testing::Values(Reading{"bool", "01", "true"}, Reading{"bool", "01", "false"},
                    Reading{"bool", "10", "true"}, Reading{"bool", "yes", "false"},
                    Reading{"bool", "on", "false"}, Reading{"bool", "2", "false"},
                    Reading{"bool", " 1", "false"}, Reading{"bool", "1 ", "false"},
                    Reading{"bool", "true ", "false"}, Reading{"bool", "true1", "false"},
                    Reading{"bool", "tru", "false"}, Reading{"bool", "false0", "true"},
                    Reading{"bool", "fals", "true"}, Reading{"bool", " false", "true"}));

INSTANTIATE_TEST_SUITE_P(Integer, Malformed,
                         testing::Values(Reading{"int", "12abc", "7"}, Reading{"int", "abc", "-7"},
                                         Reading{"int", " ", "7"}, Reading{"int", "42 ", "7"},
                                         Reading{"int", "0x10", "7"}, Reading{"int", "-", "7"},
                                         Reading{"int", "4.2", "7"},
                                         Reading{"int", "9223372036854775808", "7"},
                                         Reading{"int", "100000000000000000000", "7"},
                                         Reading{"int", "-100000000000000000000", "7"}));

INSTANTIATE_TEST_SUITE_P(Unsigned, Malformed,
                         testing::Values(Reading{"uint64", "12abc", "7"},
                                         Reading{"uint64", "abc", "18446744073709551615"},
                                         Reading{"uint64", " ", "7"}, Reading{"uint64", "42 ", "7"},
                                         Reading{"uint64", "18446744073709551616", "7"},
                                         Reading{"uint64", "100000000000000000000", "7"}));

class Absent : public testing::TestWithParam<std::optional<std::string>> {};

TEST_P(Absent, ValueGivesTheDefaultAndLogsNothing) {
  for (const auto& [reader, fallback] :
       std::vector<std::pair<std::string, std::string>>{{"bool", "true"},
                                                        {"bool", "false"},
                                                        {"int", "-2147483648"},
                                                        {"uint64", "18446744073709551615"}}) {
    const Ran ran = read(reader, fallback, GetParam());
    EXPECT_EQ(ran.out, fallback);
    EXPECT_THAT(ran.messages(), IsEmpty());
  }
}

INSTANTIATE_TEST_SUITE_P(UnsetOrEmpty, Absent,
                         testing::Values(std::optional<std::string>(),
                                         std::optional<std::string>("")));

SCENARIO(reads_numbers_with_a_stale_range_error) {
  errno = ERANGE;
  const int number = qv_env_config_get_int(kName, 7);
  errno = ERANGE;
  const std::uint64_t big = qv_env_config_get_uint64(kName, 8);
  std::cout << number << " " << big << " ";
  errno = EINVAL;
  std::cout << qv_env_config_get_int(kName, 7);
  return 0;
}

TEST(EnvConfig, AStaleRangeErrorOnEntryRefusesAGoodNumber) {
  const Ran ran = run_scenario("reads_numbers_with_a_stale_range_error", {{kName, "42"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "7 8 42");
  const std::string warning =
      "WARN Unexpected value for integer environment variable \"QV_TEST_VALUE\": \"42\"";
  EXPECT_THAT(ran.messages(), ElementsAre(warning, warning));
}

SCENARIO(reads_a_bool_with_a_stale_range_error) {
  errno = ERANGE;
  return qv_env_config_get_bool(kName, false) ? 0 : 1;
}

TEST(EnvConfig, AStaleRangeErrorDoesNotConcernABoolean) {
  const Ran ran = run_scenario("reads_a_bool_with_a_stale_range_error", {{kName, "true"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), IsEmpty());
}

// An out-of-range number leaves ERANGE in errno, and the warning doesn't clear it.
SCENARIO(reads_an_out_of_range_number_and_then_a_good_one) {
  errno = 0;
  const int first = qv_env_config_get_int(kName, 7);
  setenv(kName, "42", 1);
  const int second = qv_env_config_get_int(kName, 8);
  return first == 7 && second == 8 ? 0 : 1;
}

TEST(EnvConfig, AnOutOfRangeNumberMakesTheNextReadFailToo) {
  const Ran ran = run_scenario("reads_an_out_of_range_number_and_then_a_good_one",
                               {{kName, "100000000000000000000"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(
      ran.messages(),
      ElementsAre("WARN Unexpected value for integer environment variable \"QV_TEST_VALUE\": "
                  "\"100000000000000000000\"",
                  "WARN Unexpected value for integer environment variable \"QV_TEST_VALUE\": "
                  "\"42\""));
}

SCENARIO(reads_bad_values_at_the_level) {
  quorvane::module::Module::get_internal()->level =
      static_cast<qv_log_level_t>(std::stoi(arguments.at(0)));
  errno = 0;
  const bool kept = qv_env_config_get_bool(kName, true) && qv_env_config_get_int(kName, -3) == -3 &&
                    qv_env_config_get_uint64(kName, 5) == 5;
  return kept ? 0 : 1;
}

TEST(EnvConfig, BadValuesAreSilentWhenTheInternalModuleStandsBelowWarn) {
  for (const char* level : {"0", "1"}) {
    const Ran ran = run_scenario("reads_bad_values_at_the_level", {{kName, "maybe"}}, {level});
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_THAT(ran.messages(), IsEmpty());
  }
}

TEST(EnvConfig, BadValuesAreReportedWhenTheInternalModuleStandsAtWarn) {
  const Ran ran = run_scenario("reads_bad_values_at_the_level", {{kName, "maybe"}}, {"2"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.records.size(), 3U);
}

TEST(EnvConfig, TheWarningDoesNotDependOnTheOutletsLevel) {
  const Ran ran = run_scenario("reads", {{kName, "maybe"}, {"QV_LOG_LEVEL", "OFF"}}, {"int", "7"});
  EXPECT_EQ(ran.records.size(), 1U);
}

SCENARIO(reads_a_variable_that_changes) {
  setenv(kName, "1", 1);
  const int first = qv_env_config_get_int(kName, 0);
  setenv(kName, "2", 1);
  const int second = qv_env_config_get_int(kName, 0);
  unsetenv(kName);
  const int third = qv_env_config_get_int(kName, 3);
  return first == 1 && second == 2 && third == 3 && getenv(kName) == nullptr ? 0 : 1;
}

TEST(EnvConfig, EveryCallReadsTheEnvironmentAfresh) {
  EXPECT_TRUE(run_scenario("reads_a_variable_that_changes").exited_with(0));
}

// Runs before main, either before or after the library's own static initialisers.
const int g_read_before_main = qv_env_config_get_int("QV_TEST_AT_LOAD", 9);

SCENARIO(tells_what_it_read_before_main) {
  std::cout << g_read_before_main;
  return 0;
}

TEST(EnvConfig, StaticInitialisersMayRead) {
  EXPECT_EQ(run_scenario("tells_what_it_read_before_main", {{"QV_TEST_AT_LOAD", "42"}}).out, "42");
  const Ran bad = run_scenario("tells_what_it_read_before_main", {{"QV_TEST_AT_LOAD", "bad"}});
  EXPECT_EQ(bad.out, "9");
  EXPECT_EQ(bad.records.size(), 1U);
}

SCENARIO(reads_from_many_threads) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < 50; ++round) {
        errno = 0;
        qv_env_config_get_int(kName, round);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return 0;
}

TEST(EnvConfig, ThreadsReadAtTheSameTimeAndEachBadReadIsOneRecord) {
  const Ran ran = run_scenario("reads_from_many_threads", {{kName, "bad"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.records.size(), 200U);
}

}  // namespace
