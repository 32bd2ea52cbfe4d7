// Statistics that are off or fail to start, and the namespaces in which metrics appear.
#include <gtest/gtest.h>
#include <quorvane/log.h>
#include <quorvane/module.h>
#include <quorvane/stats.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "stats_test/fixture.h"
#include "support/no_memory.h"
#include "support/scenario.h"

using namespace stats_test;

// -- Off, or failing to start

SCENARIO(use_nothing) { return 0; }

TEST_F(Stats, NothingHappensBeforeTheFirstUse) {
  const Ran ran = run("use_nothing", {{"QV_STATS_REPORT_PERIOD", "abc"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Lines{});
  EXPECT_FALSE(test::exists(file()));
}

SCENARIO(create_every_kind) { return create_every_kind(); }

TEST_F(Stats, EveryHandleIsInvalidWhenNoReportFileIsNamed) {
  const Ran ran = run_scenario("create_every_kind", {{"QV_STATS_REPORT_PERIOD", "abc"}});
  EXPECT_TRUE(ran.exited_with(4));
  EXPECT_EQ(ran.messages(), Lines{kOff});
}

TEST_F(Stats, EveryHandleIsInvalidWhenTheRecorderCantBeLoaded) {
  test::write_file(dir_.file("libcircmetrics.so"), "no library");
  const Ran ran = run("create_every_kind", {{"LD_LIBRARY_PATH", dir_.path()}});
  EXPECT_TRUE(ran.exited_with(4));
  EXPECT_EQ(ran.messages(), Lines{"WARN Could not load libcircmetrics.so for stats."});
  EXPECT_FALSE(test::exists(file()));
}

TEST_F(Stats, AFileThatCantBeOpenedTurnsStatisticsOffWithTwoWarnings) {
  const std::string path = dir_.file("no/such/report");
  const Ran ran = run("create_every_kind", {{"QV_STATS_REPORT_FILE", path}});
  EXPECT_TRUE(ran.exited_with(4));
  EXPECT_EQ(ran.messages(), (Lines{"WARN Could not open statistics output file " + path +
                                       ": No such file or directory",
                                   "WARN Could not close report_file: Bad file descriptor"}));
}

TEST_F(Stats, AnEmptyFileNameIsAFileThatCantBeOpened) {
  const Ran ran = run("create_every_kind", {{"QV_STATS_REPORT_FILE", ""}});
  EXPECT_TRUE(ran.exited_with(4));
  EXPECT_EQ(ran.messages(),
            (Lines{"WARN Could not open statistics output file : No such file or directory",
                   "WARN Could not close report_file: Bad file descriptor"}));
}

TEST_F(Stats, ARecorderThatCantBeMadeTurnsStatisticsOffWithTwoWarnings) {
  const Ran ran = run_with("fake", "create_every_kind", {{"FAKE_REFUSES", "alloc"}});
  EXPECT_TRUE(ran.exited_with(4));
  EXPECT_EQ(ran.messages(), (Lines{"WARN Could not create statistics recorder object.",
                                   "WARN Could not close report_file: Bad file descriptor"}));
  EXPECT_EQ(ran.out, "alloc\n");
  EXPECT_TRUE(test::exists(file()));
  EXPECT_EQ(read_file(file()), "");
}

TEST_F(Stats, NoThreadIsStartedWithoutARecorder) {
  const Ran ran = run_with("fake", "create_every_kind",
                           {{"FAKE_REFUSES", "alloc"}, {"QV_STATS_REPORT_PERIOD", "1"}});
  EXPECT_TRUE(ran.exited_with(4)) << "a report thread would have made the process abort";
}

SCENARIO(silence_and_use) {
  Module::get_internal()->level = static_cast<qv_log_level_t>(std::stoi(arguments.at(0)));
  return create_every_kind();
}

TEST_F(Stats, AMissingSymbolEndsTheProcessAlsoInSilence) {
  const Ran ran = run_with("without_stats_set_hist_intscale", "silence_and_use", {}, {"1"});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(), Lines{});
}

TEST_F(Stats, MessagesFollowTheInternalModulesLevel) {
  const Environment bad_period{{"QV_STATS_REPORT_PERIOD", "x"}};
  EXPECT_EQ(run("silence_and_use", bad_period, {"1"}).messages(), Lines{});
  EXPECT_EQ(run("silence_and_use", bad_period, {"2"}).messages(),
            Lines{"WARN Could not parse stats report period environment variable "
                  "\"QV_STATS_REPORT_PERIOD=x\". Ignoring."});
  EXPECT_EQ(run("silence_and_use", {}, {"3"}).messages(), Lines{capturing(file())});
  EXPECT_EQ(run("silence_and_use", {{"QV_STATS_REPORT_FILE", std::nullopt}}, {"2"}).messages(),
            Lines{});
}

TEST_F(Stats, AFailureIsSilentBelowWarn) {
  test::write_file(dir_.file("libcircmetrics.so"), "no library");
  const std::vector<Environment> failures{
      {{"LD_LIBRARY_PATH", dir_.path()}},
      {{"QV_STATS_REPORT_FILE", dir_.file("no/such/report")}},
      {{"LD_LIBRARY_PATH", QV_FAKE_RECORDERS "/fake"}, {"FAKE_REFUSES", "alloc"}}};
  for (const Environment& failure : failures) {
    const Ran ran = run("silence_and_use", failure, {"1"});
    EXPECT_TRUE(ran.exited_with(4));
    EXPECT_EQ(ran.messages(), Lines{});
  }
}

SCENARIO(use_without_memory) {
  void* const module = module_of("a component that is no short string/m");
  if (arguments.at(0) == "later") {
    get_singleton_module();
  }
  test::no_memory_from = 0;
  const qv_stats_handle_t without = qv_stats_create_counter(module, "n");
  test::no_memory_from = test::kEnoughMemory;
  const qv_stats_handle_t with = qv_stats_create_counter(module, "n");
  return (without == QV_STATS_INVALID_HANDLE ? 1 : 0) + (with == QV_STATS_INVALID_HANDLE ? 2 : 0);
}

TEST_F(Stats, AFirstUseWithoutMemoryTurnsStatisticsOffWithOneWarning) {
  const Ran ran = run("use_without_memory", {}, {"first"});
  EXPECT_TRUE(ran.exited_with(3));
  EXPECT_EQ(ran.messages(), Lines{"WARN No memory for statistics."});
  EXPECT_FALSE(test::exists(file()));
}

TEST_F(Stats, AMetricForWhichThereIsNoMemoryGetsTheInvalidHandleUntilThereIs) {
  const Ran ran = run("use_without_memory", {}, {"later"});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_EQ(ran.messages(), Lines{capturing(file())});
}

// -- The namespaces of modules

SCENARIO(create_under_odd_paths) {
  std::vector<std::string> routes(1);
  Module module = *static_cast<Module*>(module_of("m"));
  module.routes = &routes;
  int valid = 0;
  for (const char* path : {"/a", "b//c", "d/", "", "first", "/"}) {
    routes[0] = path;
    valid += qv_stats_create_counter(&module, "x") != QV_STATS_INVALID_HANDLE ? 1 : 0;
  }
  routes = {"one", "two"};
  valid += qv_stats_create_counter(&module, "x") != QV_STATS_INVALID_HANDLE ? 10 : 0;
  return valid;
}

TEST_F(Stats, OnlyPathsWithoutEmptyComponentsGiveANamespace) {
  const Ran ran = run("create_under_odd_paths");
  EXPECT_TRUE(ran.exited_with(13));
  EXPECT_EQ(ran.messages(), Lines{capturing(file())});
  const json counter{{"x", 0}};
  EXPECT_EQ(reports(file()), (std::vector<json>{{{"b", json::object()},
                                                 {"d", {{"", counter}}},
                                                 {"", counter},
                                                 {"first", counter},
                                                 {"one", counter}}}));
}

// A module that is never registered belongs to its creator. It is static because the process
// logs to it.
SCENARIO(create_without_a_path) {
  static void* const module = qv_module_create();
  static_cast<Module*>(module)->level = static_cast<qv_log_level_t>(std::stoi(arguments.at(0)));
  char message[64];
  std::snprintf(message, sizeof message, "Module %p does not have path.", module);
  std::puts(message);
  qv_module_route("a//b", module);
  return qv_stats_create_counter(module, "x") == QV_STATS_INVALID_HANDLE ? 0 : 1;
}

TEST_F(Stats, AModuleWithoutAPathIsToldSo) {
  const Ran ran = run("create_without_a_path", {}, {"2"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), (Lines{"WARN Format error parsing module path \"a//b\"",
                                   capturing(file()), "WARN " + lines_of(ran.out).at(0)}));
  EXPECT_EQ(reports(file()), std::vector<json>{json::object()});
}

TEST_F(Stats, AModuleWithoutAPathIsToldAtItsOwnLevel) {
  const Ran ran = run("create_without_a_path", {}, {"1"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(),
            (Lines{"WARN Format error parsing module path \"a//b\"", capturing(file())}));
}

SCENARIO(create_on_the_internal_module) {
  std::printf("Module %p does not have path.\n", static_cast<void*>(Module::get_internal()));
  return qv_stats_create_counter(Module::get_internal(), "x") == QV_STATS_INVALID_HANDLE ? 0 : 1;
}

TEST_F(Stats, TheInternalModuleHasNoPath) {
  const Ran ran = run("create_on_the_internal_module");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), (Lines{capturing(file()), "WARN " + lines_of(ran.out).at(0)}));
}
