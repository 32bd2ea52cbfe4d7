#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/fault.h>
#include <quorvane/module.h>

#include <algorithm>
#include <climits>
#include <csignal>
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

constexpr int kDefaultAbortLevel = 0;
constexpr int kDefaultLogLevel = 2;

// A module with the given level and thresholds.
struct Setting {
  int level = QV_LOG_LEVEL_DEBUG;
  int abort_level = kDefaultAbortLevel;
  int log_level = kDefaultLogLevel;
};

// What a failed check of one severity does.
struct Outcome {
  Setting setting;
  std::string severity;
  bool logs;
  bool aborts;
};

void PrintTo(const Outcome& row, std::ostream* out) {
  *out << "severity " << row.severity << " at level " << row.setting.level << ", aborts at "
       << row.setting.abort_level << ", logs at " << row.setting.log_level;
}

quorvane::module::Module* module_of(const test::Arguments& arguments) {
  static const quorvane::Module module("test/fault");
  module->level = static_cast<qv_log_level_t>(std::stoi(arguments.at(0)));
  module->fault_abort_level = std::stoi(arguments.at(1));
  module->fault_log_level = std::stoi(arguments.at(2));
  return module.get();
}

Ran run_check(const std::string& scenario, const Outcome& row) {
  return run_scenario(scenario, {},
                      {std::to_string(row.setting.level), std::to_string(row.setting.abort_level),
                       std::to_string(row.setting.log_level), row.severity});
}

void expect_outcome(const Ran& ran, const Outcome& row, const std::string& message) {
  if (row.aborts) {
    EXPECT_TRUE(ran.aborted());
  } else {
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_EQ(ran.out, "goes on");
  }
  if (row.logs) {
    EXPECT_THAT(ran.messages(), ElementsAre("ERROR " + message));
    EXPECT_EQ(ran.err, ran.log);
  } else {
    EXPECT_THAT(ran.messages(), IsEmpty());
    EXPECT_EQ(ran.err, "");
  }
}

// ------------------------------------------------------------ qv_fault_expect

SCENARIO(expects_by_call) {
  auto* module = module_of(arguments);
  const auto severity = static_cast<unsigned>(std::stoul(arguments.at(3)));
  if (qv_fault_expect(module, severity, false, "%s has %d", "it", 3)) {
    return 1;
  }
  std::cout << "goes on";
  return 0;
}

class FailedCall : public testing::TestWithParam<Outcome> {};

TEST_P(FailedCall, LogsAndAbortsAsTheThresholdsSay) {
  expect_outcome(run_check("expects_by_call", GetParam()), GetParam(), "it has 3");
}

INSTANTIATE_TEST_SUITE_P(DefaultThresholds, FailedCall,
                         testing::Values(Outcome{{}, "0", true, true},
                                         Outcome{{}, "1", true, false},
                                         Outcome{{}, "2", true, false},
                                         Outcome{{}, "3", false, false},
                                         Outcome{{}, "4294967295", false, false}));

INSTANTIATE_TEST_SUITE_P(ModuleAtOff, FailedCall,
                         testing::Values(Outcome{{QV_LOG_LEVEL_OFF}, "0", false, true},
                                         Outcome{{QV_LOG_LEVEL_OFF}, "1", false, false}));

// Only OFF silences a call. A module at ERROR logs, and so does one below OFF.
INSTANTIATE_TEST_SUITE_P(OtherLevels, FailedCall,
                         testing::Values(Outcome{{QV_LOG_LEVEL_ERROR}, "2", true, false},
                                         Outcome{{-1}, "2", true, false}));

INSTANTIATE_TEST_SUITE_P(OwnThresholds, FailedCall,
                         testing::Values(Outcome{{5, 2, 2}, "2", true, true},
                                         Outcome{{5, 3, 2}, "3", false, true},
                                         Outcome{{5, 0, 0}, "1", false, false},
                                         Outcome{{5, 0, 7}, "7", true, false}));

// The comparison is unsigned: a negative threshold is above every severity.
INSTANTIATE_TEST_SUITE_P(NegativeThresholds, FailedCall,
                         testing::Values(Outcome{{5, 0, -1}, "3", true, false},
                                         Outcome{{5, -1, 2}, "3", false, true},
                                         Outcome{{5, -1, -1}, "4294967295", true, true}));

SCENARIO(passes_every_check) {
  auto* module = module_of(arguments);
  const int severity = std::stoi(arguments.at(3));
  const bool passed = qv_fault_expect(module, static_cast<unsigned>(severity), true, "never") &&
                      QV_FAULT_EXPECT(module, severity, 1 + 1 == 2, "test");
  QV_FAULT_ASSERT(module, 1 + 1 == 2, "test");
  QV_FAULT_ASSERT_AT(module, passed, "test", 1);
  std::cout << "goes on";
  return passed ? 0 : 1;
}

class PassedCheck : public testing::TestWithParam<Setting> {};

TEST_P(PassedCheck, NeverLogsWhateverTheThresholds) {
  const Outcome row{GetParam(), "0", false, false};
  expect_outcome(run_check("passes_every_check", row), row, "");
}

INSTANTIATE_TEST_SUITE_P(Settings, PassedCheck,
                         testing::Values(Setting{}, Setting{6, INT_MAX, INT_MAX},
                                         Setting{6, -1, -1}, Setting{0, 0, 0}));

SCENARIO(returns_the_condition) {
  auto* module = module_of(arguments);
  return qv_fault_expect(module, 5, true, "never") && !qv_fault_expect(module, 5, false, "never")
             ? 0
             : 1;
}

TEST(FaultExpect, ReturnsItsCondition) {
  EXPECT_TRUE(run_check("returns_the_condition", {{}, "5", false, false}).exited_with(0));
}

SCENARIO(expects_with_a_long_message) {
  auto* module = module_of(arguments);
  const std::string text(10000, 'x');
  qv_fault_expect(module, 2, false, "%s", text.c_str());
  return 0;
}

TEST(FaultExpect, ItsRecordIsCutLikeAnyOther) {
  EXPECT_EQ(run_check("expects_with_a_long_message", {{}, "2", true, false}).log.size(), 4096U);
}

// ------------------------------------------------------- expectations in place

SCENARIO(expects_in_place) {
  auto* module = module_of(arguments);
  const int severity = std::stoi(arguments.at(3));
  const int size = 3;
  // clang-format off
  const bool passed = QV_FAULT_EXPECT_AT(module, severity, size<=2 &&  size != 7, "util/src/thing", 123);
  // clang-format on
  std::cout << "goes on";
  return passed ? 1 : 0;
}

class FailedExpectation : public testing::TestWithParam<Outcome> {};

TEST_P(FailedExpectation, LogsAndAbortsAsTheThresholdsSay) {
  expect_outcome(run_check("expects_in_place", GetParam()), GetParam(),
                 "QV_FAULT_EXPECT: expectation (size<=2 && size != 7) failed (util/src/thing:123)");
}

INSTANTIATE_TEST_SUITE_P(DefaultThresholds, FailedExpectation,
                         testing::Values(Outcome{{}, "0", true, true},
                                         Outcome{{}, "1", true, false},
                                         Outcome{{}, "2", true, false},
                                         Outcome{{}, "3", false, false}));

INSTANTIATE_TEST_SUITE_P(OwnThresholds, FailedExpectation,
                         testing::Values(Outcome{{5, 2, 2}, "2", true, true},
                                         Outcome{{5, 3, 2}, "3", false, true},
                                         Outcome{{5, 0, 0}, "1", false, false},
                                         Outcome{{5, 0, 7}, "7", true, false}));

// The comparison is signed: a negative threshold is below every severity, and a negative
// level is below OFF.
INSTANTIATE_TEST_SUITE_P(NegativeValues, FailedExpectation,
                         testing::Values(Outcome{{5, -1, 2}, "0", true, false},
                                         Outcome{{5, -1, -1}, "0", false, false},
                                         Outcome{{-1, 0, 2}, "0", false, true}));

INSTANTIATE_TEST_SUITE_P(ModuleAtOff, FailedExpectation,
                         testing::Values(Outcome{{QV_LOG_LEVEL_OFF}, "0", false, true},
                                         Outcome{{QV_LOG_LEVEL_OFF}, "2", false, false}));

SCENARIO(expects_at_its_own_line) {
  const quorvane::Module module("test/fault");
  const int line = __LINE__ + 1;
  const bool passed = QV_FAULT_EXPECT(module, 2, line < 0, "util/src/thing");
  std::cout << line;
  return passed ? 1 : 0;
}

TEST(FaultExpectation, NamesItsOwnLineAndTakesAModuleHandle) {
  const Ran ran = run_scenario("expects_at_its_own_line");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(),
              ElementsAre("ERROR QV_FAULT_EXPECT: expectation (line < 0) failed (util/src/thing:" +
                          ran.out + ")"));
}

SCENARIO(expects_something_with_a_percent_sign) {
  const quorvane::Module module("test/fault");
  const int size = 3;
  return QV_FAULT_EXPECT_AT(module, 2, size % 3 != 0, "test", 1) ? 1 : 0;
}

TEST(FaultExpectation, QuotesAPercentSign) {
  EXPECT_THAT(run_scenario("expects_something_with_a_percent_sign").messages(),
              ElementsAre("ERROR QV_FAULT_EXPECT: expectation (size % 3 != 0) failed (test:1)"));
}

SCENARIO(counts_how_often_the_condition_is_evaluated) {
  const quorvane::Module module("test/fault");
  int evaluations = 0;
  const bool passed = QV_FAULT_EXPECT(module, 3, ++evaluations > 1, "test");
  return !passed && evaluations == 1 ? 0 : 1;
}

TEST(FaultExpectation, EvaluatesItsConditionOnce) {
  EXPECT_TRUE(run_scenario("counts_how_often_the_condition_is_evaluated").exited_with(0));
}

// ------------------------------------------------------------------ assertions

SCENARIO(asserts_in_place) {
  auto* module = module_of(arguments);
  const int fd_ = -1;
  QV_FAULT_ASSERT_AT(module, fd_ >= 0, "util/src/thing", 77);
  std::cout << "goes on";
  return 0;
}

class FailedAssertion : public testing::TestWithParam<Setting> {};

TEST_P(FailedAssertion, LogsAndAbortsWhateverTheLevelAndTheThresholds) {
  const Outcome row{GetParam(), "0", true, true};
  expect_outcome(run_check("asserts_in_place", row), row,
                 "QV_FAULT_ASSERT: assertion (fd_ >= 0) failed (util/src/thing:77)");
}

INSTANTIATE_TEST_SUITE_P(Settings, FailedAssertion,
                         testing::Values(Setting{}, Setting{QV_LOG_LEVEL_OFF},
                                         Setting{QV_LOG_LEVEL_ERROR, -1, -1}, Setting{5, 9, 9}));

SCENARIO(asserts_at_its_own_line) {
  const quorvane::Module module("test/fault");
  const int line = __LINE__ + 2;
  std::cout << line << std::flush;
  QV_FAULT_ASSERT(module, line < 0, "util/src/thing");
  return 0;
}

TEST(FaultAssertion, NamesItsOwnLineAndTakesAModuleHandle) {
  const Ran ran = run_scenario("asserts_at_its_own_line");
  EXPECT_TRUE(ran.aborted());
  EXPECT_THAT(ran.messages(),
              ElementsAre("ERROR QV_FAULT_ASSERT: assertion (line < 0) failed (util/src/thing:" +
                          ran.out + ")"));
}

SCENARIO(asserts_something_with_a_remainder) {
  const quorvane::Module module("test/fault");
  const int size = 3;
  const int step = 3;
  QV_FAULT_ASSERT_AT(module, size % step == 1, "test", 1);
  return 0;
}

TEST(FaultAssertion, QuotesAPercentSign) {
  const Ran ran = run_scenario("asserts_something_with_a_remainder");
  EXPECT_TRUE(ran.aborted());
  EXPECT_THAT(ran.messages(),
              ElementsAre("ERROR QV_FAULT_ASSERT: assertion (size % step == 1) failed (test:1)"));
}

// ---------------------------------------------------------------- stack traces

// Doesn't write to null, which sanitizers check for.
__attribute__((noinline)) void die_by_wild_write() {
  volatile int* volatile nowhere = reinterpret_cast<volatile int*>(16);
  *nowhere = 1;
}

void die(const std::string& way) {
  if (way == "wild write") {
    die_by_wild_write();
  } else if (way == "raise") {
    raise(SIGSEGV);
  } else if (way == "thread") {
    std::thread([] { raise(SIGSEGV); }).join();
  }
}

SCENARIO(enables_stack_print_and_dies) {
  qv_enable_stack_print_on_segfault();
  die(arguments.at(0));
  return 0;
}

class StackPrint : public testing::TestWithParam<std::string> {};

TEST_P(StackPrint, NamesTheSignalAndTheFramesOnStandardErrorAndAborts) {
  const Ran ran = run_scenario("enables_stack_print_and_dies", {}, {GetParam()});
  EXPECT_TRUE(ran.aborted());
  const std::string head = "Error: signal 11:\n";
  ASSERT_EQ(ran.err.substr(0, head.size()), head);
  // One line "object(symbol+offset)[address]" each for the handler, the faulting code and
  // its callers.
  const std::string frames = ran.err.substr(head.size());
  EXPECT_THAT(frames, testing::HasSubstr("libQVUtil"));
  EXPECT_THAT(frames, testing::MatchesRegex("([^\n]+\\[0x[0-9a-f]+\\]\n)+"));
  EXPECT_GE(std::count(frames.begin(), frames.end(), '\n'), 3);
  EXPECT_LE(std::count(frames.begin(), frames.end(), '\n'), 64);
  EXPECT_THAT(ran.messages(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Ways, StackPrint, testing::Values("wild write", "raise", "thread"));

int recurse(int depth);

// Volatile, so that the compiler can't merge the frames.
int (*volatile g_recurse)(int) = &recurse;

int recurse(int depth) {
  if (depth == 0) {
    return raise(SIGSEGV);
  }
  const int below = g_recurse(depth - 1);
  return below + depth;
}

SCENARIO(dies_deep_down) {
  qv_enable_stack_print_on_segfault();
  return recurse(200);
}

TEST(StackPrintDepth, IsSixtyFourFramesAtMost) {
  const Ran ran = run_scenario("dies_deep_down");
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(std::count(ran.err.begin(), ran.err.end(), '\n'), 65);
}

SCENARIO(dies_by_another_signal) {
  qv_enable_stack_print_on_segfault();
  raise(std::stoi(arguments.at(0)));
  return 0;
}

class OtherSignal : public testing::TestWithParam<int> {};

TEST_P(OtherSignal, IsLeftAlone) {
  const Ran ran = run_scenario("dies_by_another_signal", {}, {std::to_string(GetParam())});
  EXPECT_TRUE(ran.killed_by(GetParam()));
  EXPECT_EQ(ran.err, "");
}

INSTANTIATE_TEST_SUITE_P(Signals, OtherSignal, testing::Values(SIGTERM, SIGUSR1, SIGALRM, SIGQUIT));

SCENARIO(has_no_handler_of_its_own_accord) {
  struct sigaction action {};
  sigaction(SIGSEGV, nullptr, &action);
  const auto before = action.sa_handler;
  qv_enable_stack_print_on_segfault();
  sigaction(SIGSEGV, nullptr, &action);
  std::cout << (before == action.sa_handler ? "same" : "changed");
  return 0;
}

TEST(StackPrintInstalling, HappensOnlyWhenItIsAskedFor) {
  EXPECT_EQ(run_scenario("has_no_handler_of_its_own_accord").out, "changed");
}

}  // namespace
