// The levels that QV_LOG_LEVELS gives to modules.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/module.h>

#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "log_test/fixture.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using test::Ran;
using test::run_scenario;
using testing::ElementsAre;
using testing::IsEmpty;
using ModuleRecord = quorvane::module::Module;

// Registered before main.
const quorvane::Module g_early("test/early");

ModuleRecord* create(const std::vector<const char*>& routes) {
  auto* const module = static_cast<ModuleRecord*>(qv_module_create());
  for (const char* route : routes) {
    qv_module_route(route, module);
  }
  return module;
}

// Prints the level of the module of each path, as a digit.
SCENARIO(tells_levels) {
  for (const std::string& path : arguments) {
    std::cout << quorvane::Module(path.c_str())->level;
  }
  return 0;
}

// The levels of modules at these paths. The general level is DEBUG, 5.
std::string levels(const std::string& setting, const test::Arguments& paths) {
  const Ran ran = run_scenario("tells_levels", {{"QV_LOG_LEVELS", setting}}, paths);
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), IsEmpty());
  return ran.out;
}

// --------------------------------------------------------------- what is covered

TEST(ModuleLevels, UnsetOrEmptyLeaveTheGeneralLevel) {
  EXPECT_EQ(run_scenario("tells_levels", {}, {"disk", "disk/reader"}).out, "55");
  for (const char* setting : {"", " ", ",", " , ,\t"}) {
    EXPECT_EQ(levels(setting, {"disk", "disk/reader"}), "55");
  }
}

TEST(ModuleLevels, CoverAPathAndAllBelowIt) {
  EXPECT_EQ(levels("disk=WARN", {"disk", "disk/", "disk/reader", "disk/reader/fast"}), "2222");
  EXPECT_EQ(levels("disk/reader=WARN", {"disk", "disk/reader", "disk/reader/fast"}), "522");
}

TEST(ModuleLevels, CoverWholeComponentsOnly) {
  EXPECT_EQ(levels("disk=WARN", {"disks", "dis", "", "my/disk", "diskette/x", "Disk"}), "555555");
}

TEST(ModuleLevels, WithASlashAtTheEndCoverOnlyWhatIsBelow) {
  EXPECT_EQ(levels("disk/=WARN", {"disk", "disk/", "disk/reader", "disks"}), "5225");
}

TEST(ModuleLevels, OfTheLongestPathCount) {
  const test::Arguments paths{"a", "a/b", "a/b/c", "a/bc"};
  EXPECT_EQ(levels("a=ERROR,a/b=WARN,a/b/c=INFO", paths), "1231");
  EXPECT_EQ(levels("a/b/c=INFO,a/b=WARN,a=ERROR", paths), "1231");
}

TEST(ModuleLevels, OfAPathThatIsThereTwiceAreTheLast) {
  EXPECT_EQ(levels("a=ERROR,a=INFO,b=OFF", {"a"}), "3");
  EXPECT_EQ(levels("a=INFO,b=OFF,a=ERROR", {"a"}), "1");
}

TEST(ModuleLevels, AreThoseOfTheGeneralSetting) {
  for (std::size_t i = 0; i < log_test::kNames.size(); ++i) {
    EXPECT_EQ(levels("a=" + log_test::kNames[i], {"a", "b"}), std::to_string(i) + "5");
  }
}

TEST(ModuleLevels, MayHaveBlanksAroundThem) {
  EXPECT_EQ(levels(" a = WARN ,\tb\t=\tERROR, c=INFO,", {"a", "b", "c"}), "213");
}

TEST(ModuleLevels, MayBeOfAPathWithAnEqualsSignOrABlank) {
  EXPECT_EQ(levels("a=b=WARN,c d=ERROR", {"a=b", "a", "c d"}), "251");
}

// ------------------------------------------------------------- malformed settings

TEST(ModuleLevels, ThatAreMalformedAreNamedInOneRecordAndTheOthersHold) {
  const std::string bad = "b,c:WARN,d=warn,e=,=INFO,/f=INFO,g//h=INFO,i=5,j=WARNING,k=WARN INFO";
  const Ran ran =
      run_scenario("tells_levels", {{"QV_LOG_LEVELS", "a=WARN, " + bad + " ,, ,z=INFO"}},
                   {"a", "b", "c", "d", "e", "f", "g", "i", "j", "k", "z"});
  EXPECT_EQ(ran.out, "25555555553");
  EXPECT_THAT(ran.messages(),
              ElementsAre("WARN Unexpected parts of environment variable \"QV_LOG_LEVELS\": \"" +
                          bad + "\""));
}

SCENARIO(goes_on_in_a_child) {
  return test::wait_for(test::in_child([] { return quorvane::Module("a/b")->level; }));
}

TEST(ModuleLevels, ThatAreMalformedAreNotNamedAgainInAChild) {
  const Ran ran = run_scenario("goes_on_in_a_child", {{"QV_LOG_LEVELS", "a=WARN,b"}});
  EXPECT_TRUE(ran.exited_with(QV_LOG_LEVEL_WARN));
  EXPECT_EQ(ran.records.size(), 1U);
}

// ---------------------------------------------------------------- which modules

SCENARIO(tells_registered_levels) {
  for (const std::string& path : arguments) {
    const auto* const module = static_cast<ModuleRecord*>(qv_module_find(path.c_str()));
    std::cout << (module == nullptr ? "-" : std::to_string(module->level));
  }
  return 0;
}

TEST(ModuleLevels, ReachTheLibrarysModulesAndStaticOnes) {
  const Ran ran =
      run_scenario("tells_registered_levels", {{"QV_LOG_LEVELS", "util=WARN,test/early=INFO"}},
                   {"util/src/cache", "util/buffer_pool", "quorvane/mpsc", "test/early"});
  EXPECT_EQ(ran.out, "2253");
}

SCENARIO(registers_modules_later) {
  setenv("QV_LOG_LEVELS", "a=ERROR", 1);
  const int in_main = quorvane::Module("a/main")->level;
  int in_thread = -1;
  std::thread([&] { in_thread = quorvane::Module("a/thread")->level; }).join();
  const int in_child =
      test::wait_for(test::in_child([] { return quorvane::Module("a/child")->level; }));
  std::cout << in_main << in_thread << in_child;
  return 0;
}

TEST(ModuleLevels, AreReadAtLoadAndReachModulesOfThreadsAndChildren) {
  EXPECT_EQ(run_scenario("registers_modules_later", {{"QV_LOG_LEVELS", "a=WARN"}}).out, "222");
}

SCENARIO(registers_a_module_with_three_routes) {
  ModuleRecord* const module = create({"a", "b/c", "d"});
  std::cout << module->level;
  qv_module_commit(module);
  std::cout << module->level;
  return 0;
}

TEST(ModuleLevels, OfTheLongestPathCountAmongAllRoutes) {
  const auto level = [](const std::string& setting) {
    return run_scenario("registers_a_module_with_three_routes", {{"QV_LOG_LEVELS", setting}}).out;
  };
  EXPECT_EQ(level("a=WARN,b/c=ERROR,d=INFO"), "51");
  EXPECT_EQ(level("d=WARN"), "52");
  EXPECT_EQ(level("a=INFO,d=WARN"), "52");
  EXPECT_EQ(level("d=WARN,a=INFO"), "53");
}

SCENARIO(logs_at_the_levels_of_its_modules) {
  const quorvane::Module loud("loud/a");
  const quorvane::Module silent("silent/a");
  QV_LOG(loud, DEBUG, "loud");
  QV_LOG(silent, ERROR, "silent");
  QV_LOG(ModuleRecord::get_internal(), INFO, "internal");
  return 0;
}

TEST(ModuleLevels, BeatTheGeneralLevel) {
  for (const char* general : {"OFF", "ALL"}) {
    const Ran ran = run_scenario(
        "logs_at_the_levels_of_its_modules",
        {{"QV_LOG_LEVEL", general}, {"QV_LOG_LEVELS", "loud=ALL,silent=OFF,internal=OFF"}});
    EXPECT_THAT(ran.messages(), ElementsAre("DEBUG loud", "INFO internal"));
  }
}

// ------------------------------------------------------------ what they leave alone

SCENARIO(sets_levels_itself) {
  ModuleRecord* const before = create({"a/before"});
  before->level = QV_LOG_LEVEL_TRACE;
  qv_module_commit(before);
  const quorvane::Module after("a/after");
  after->level = QV_LOG_LEVEL_INFO;
  std::cout << before->level << after->level << quorvane::Module("a/before")->level
            << quorvane::Module("a/after")->level;
  return 0;
}

TEST(ModuleLevels, LeaveTheLevelsThatTheProgramSets) {
  EXPECT_EQ(run_scenario("sets_levels_itself", {{"QV_LOG_LEVELS", "a=WARN"}}).out, "4343");
}

TEST(ModuleLevels, HaveNoEffectWithoutALogFile) {
  const test::TempDir dir;
  EXPECT_EQ(
      run_scenario("tells_levels", {{"QV_LOG_LEVELS", "a=WARN"}, {"QV_LOG_FILE", {}}}, {"a"}).out,
      "0");
  EXPECT_EQ(
      run_scenario("tells_levels",
                   {{"QV_LOG_LEVELS", "a=OFF"}, {"QV_LOG_FILE", dir.file("missing/log")}}, {"a"})
          .out,
      "1");
}

TEST(ModuleLevels, DoNotReachAModuleThatNobodyCanFind) {
  const Ran ran = run_scenario("tells_levels", {{"QV_LOG_LEVELS", "a=WARN"}}, {"/a"});
  EXPECT_EQ(ran.out, "5");
  EXPECT_THAT(ran.messages(), ElementsAre("WARN Format error parsing module path \"/a\""));
}

}  // namespace
