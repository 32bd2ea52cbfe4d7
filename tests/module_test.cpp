#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/module.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <iostream>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/no_memory.h"
#include "support/processes.h"
#include "support/scenario.h"

namespace {

using quorvane::logging::LoggingModuleData;
using quorvane::module::Lookup;
using test::Ran;
using test::run_scenario;
using testing::ElementsAre;
using testing::IsEmpty;
using ModuleRecord = quorvane::module::Module;

ModuleRecord* create() { return static_cast<ModuleRecord*>(qv_module_create()); }

SCENARIO(finds_the_librarys_modules) {
  for (const char* path : {"util/src/cache", "util/src/hasher", "util/src/mmapped_file",
                           "util/src/fatbin_parser", "util/buffer_pool", "quorvane/mpsc"}) {
    std::cout << (qv_module_find(path) == nullptr ? path : "");
  }
  return 0;
}

TEST(QvModuleFind, FindsTheModuleOfEachComponentFromTheStart) {
  EXPECT_EQ(run_scenario("finds_the_librarys_modules").out, "");
}

// ------------------------------------------------------------------ the record

TEST(ModuleRecordLayout, HasItsFieldsInOrder) {
  EXPECT_TRUE(std::is_standard_layout_v<ModuleRecord>);
  EXPECT_EQ(offsetof(ModuleRecord, level), 0U);
  EXPECT_EQ(offsetof(ModuleRecord, fault_abort_level), 4U);
  EXPECT_EQ(offsetof(ModuleRecord, fault_log_level), 8U);
  EXPECT_EQ(offsetof(ModuleRecord, reserved), 16U);
  EXPECT_EQ(offsetof(ModuleRecord, outlet), 24U);
  EXPECT_EQ(offsetof(ModuleRecord, routes), 32U);
  EXPECT_EQ(sizeof(ModuleRecord), 40U);
}

SCENARIO(tells_a_new_module) {
  const ModuleRecord* module = create();
  const bool right = module->fault_abort_level == 0 && module->fault_log_level == 2 &&
                     module->reserved == 0 &&
                     module->outlet == &quorvane::logging::g_singleton_outlet &&
                     module->routes != nullptr && module->routes->empty();
  std::cout << module->level;
  qv_module_commit(const_cast<ModuleRecord*>(module));
  return right ? 0 : 1;
}

TEST(QvModuleCreate, GivesAModuleWithTheDefaultThresholdsAndNoRoutes) {
  EXPECT_TRUE(run_scenario("tells_a_new_module").exited_with(0));
}

TEST(QvModuleCreate, TakesTheOutletsLevel) {
  EXPECT_EQ(run_scenario("tells_a_new_module", {{"QV_LOG_LEVEL", "TRACE"}}).out, "4");
  EXPECT_EQ(run_scenario("tells_a_new_module", {{"QV_LOG_LEVEL", std::nullopt}}).out, "3");
  EXPECT_EQ(run_scenario("tells_a_new_module", {{"QV_LOG_FILE", std::nullopt}}).out, "0");
}

// ---------------------------------------------------------------------- routes

struct Path {
  std::string text;
  bool accepted;
};

void PrintTo(const Path& path, std::ostream* out) { *out << '"' << path.text << '"'; }

SCENARIO(routes_and_commits) {
  const std::string& path = arguments.at(0);
  ModuleRecord* module = create();
  qv_module_route("test/always", module);
  qv_module_route(path.c_str(), module);
  const std::size_t routes = module->routes->size();
  const bool unchanged = routes == 1 || module->routes->back() == path;
  qv_module_commit(module);
  std::cout << (routes == 2 ? "added" : "ignored") << " "
            << (qv_module_find(path.c_str()) == module ? "found" : "absent");
  return unchanged && qv_module_find("test/always") == module ? 0 : 1;
}

class Route : public testing::TestWithParam<Path> {};

TEST_P(Route, IsAddedUnlessItIsMalformed) {
  const Path& path = GetParam();
  const Ran ran = run_scenario("routes_and_commits", {}, {path.text});
  EXPECT_TRUE(ran.exited_with(0));
  if (path.accepted) {
    EXPECT_EQ(ran.out, "added found");
    EXPECT_THAT(ran.messages(), IsEmpty());
  } else {
    EXPECT_EQ(ran.out, "ignored absent");
    EXPECT_THAT(ran.messages(),
                ElementsAre("WARN Format error parsing module path \"" + path.text + "\""));
  }
}

INSTANTIATE_TEST_SUITE_P(WellFormed, Route,
                         testing::Values(Path{"a", true}, Path{"a/b", true}, Path{"a/b/c", true},
                                         Path{"a/", true}, Path{"a/b/", true}, Path{"", true},
                                         Path{" ", true}, Path{"a b/c.d", true}, Path{"A", true},
                                         Path{"\xc3\xa9/x", true},
                                         Path{std::string(5000, 'x'), true}));

INSTANTIATE_TEST_SUITE_P(Malformed, Route,
                         testing::Values(Path{"/", false}, Path{"/a", false}, Path{"//", false},
                                         Path{"a//b", false}, Path{"a//", false},
                                         Path{"a/b//c", false}, Path{"/a/b", false}));

SCENARIO(routes_badly_with_a_quiet_internal_module) {
  ModuleRecord::get_internal()->level = QV_LOG_LEVEL_ERROR;
  ModuleRecord* module = create();
  qv_module_route("/a", module);
  const bool ignored = module->routes->empty();
  qv_module_commit(module);
  return ignored ? 0 : 1;
}

TEST(RouteWarning, IsLeftOutWhenTheInternalModuleStandsBelowWarn) {
  const Ran ran = run_scenario("routes_badly_with_a_quiet_internal_module");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), IsEmpty());
}

SCENARIO(routes_badly_at_level_off) {
  ModuleRecord* module = create();
  qv_module_route("/a", module);
  qv_module_commit(module);
  return 0;
}

TEST(RouteWarning, DoesNotDependOnTheOutletsLevel) {
  const Ran ran = run_scenario("routes_badly_at_level_off", {{"QV_LOG_LEVEL", "OFF"}});
  EXPECT_THAT(ran.messages(), ElementsAre("WARN Format error parsing module path \"/a\""));
}

TEST(RouteList, KeepsDuplicatesUntilTheyAreCommitted) {
  LoggingModuleData outlet{-1, -1, QV_LOG_LEVEL_WARN};
  Lookup lookup(&outlet);
  const auto module = lookup.create_module();
  lookup.add_route(*module, "x");
  lookup.add_route(*module, "x");
  EXPECT_THAT(*module->routes, ElementsAre("x", "x"));
  delete module->routes;
}

// ---------------------------------------------------------------------- commit

SCENARIO(finds_by_each_route) {
  ModuleRecord* module = create();
  qv_module_route("x", module);
  qv_module_route("y", module);
  const bool before = qv_module_find("x") == nullptr && qv_module_find("y") == nullptr;
  qv_module_commit(module);
  const bool exactly = qv_module_find("x/") == nullptr && qv_module_find("X") == nullptr &&
                       qv_module_find("") == nullptr && qv_module_find("z") == nullptr;
  return before && exactly && qv_module_find("x") == module && qv_module_find("y") == module ? 0
                                                                                             : 1;
}

TEST(QvModuleFind, FindsACommittedModuleUnderExactlyItsRoutes) {
  EXPECT_TRUE(run_scenario("finds_by_each_route").exited_with(0));
}

SCENARIO(commits_without_routes) {
  qv_module_commit(create());
  return 0;
}

TEST(QvModuleCommit, DestroysAModuleWithoutRoutesSilently) {
  const Ran ran = run_scenario("commits_without_routes");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), IsEmpty());
}

SCENARIO(commits_the_same_route_from_two_modules) {
  ModuleRecord* first = create();
  qv_module_route("test/twice", first);
  qv_module_commit(first);
  ModuleRecord* second = create();
  second->level = static_cast<qv_log_level_t>(std::stoi(arguments.at(0)));
  qv_module_route("test/other", second);
  qv_module_route("test/twice", second);
  qv_module_commit(second);
  return 0;
}

TEST(QvModuleCommit, ACollisionIsLoggedAtAnyLevelAndAborts) {
  for (const char* level : {"0", "5"}) {
    const Ran ran = run_scenario("commits_the_same_route_from_two_modules", {}, {level});
    EXPECT_TRUE(ran.aborted());
    EXPECT_THAT(ran.messages(),
                ElementsAre("ERROR Module creation collision detected: test/twice"));
    EXPECT_EQ(ran.err, ran.log);
  }
}

SCENARIO(commits_a_route_twice_into_a_registry_with_an_outlet_of_its_own) {
  LoggingModuleData first{STDOUT_FILENO, -1, QV_LOG_LEVEL_OFF};
  Lookup lookup(&first);
  for (int i = 0; i < 2; ++i) {
    auto module = lookup.create_module();
    lookup.add_route(*module, "test/twice");
    lookup.commit(std::move(module));
  }
  return 0;
}

TEST(QvModuleCommit, ACollisionIsLoggedThroughTheModuleThatComesSecond) {
  const Ran ran = run_scenario("commits_a_route_twice_into_a_registry_with_an_outlet_of_its_own");
  EXPECT_TRUE(ran.aborted());
  EXPECT_THAT(test::level_and_message(test::parse_records(ran.out)),
              ElementsAre("ERROR Module creation collision detected: test/twice"));
  EXPECT_THAT(ran.messages(), IsEmpty());
}

SCENARIO(commits_the_same_route_from_two_threads) {
  const auto commit = [] {
    ModuleRecord* module = create();
    qv_module_route("test/race", module);
    qv_module_commit(module);
  };
  std::thread other(commit);
  commit();
  other.join();
  return 0;
}

TEST(QvModuleCommit, TwoThreadsWithOneRouteCollide) {
  const Ran ran = run_scenario("commits_the_same_route_from_two_threads");
  EXPECT_TRUE(ran.aborted());
  EXPECT_THAT(ran.messages(), ElementsAre("ERROR Module creation collision detected: test/race"));
}

SCENARIO(commits_a_module_with_one_route_twice) {
  ModuleRecord* module = create();
  qv_module_route("test/self", module);
  qv_module_route("test/self", module);
  qv_module_commit(module);
  return 0;
}

TEST(QvModuleCommit, OneRouteTwiceCollidesWithItself) {
  const Ran ran = run_scenario("commits_a_module_with_one_route_twice");
  EXPECT_TRUE(ran.aborted());
  EXPECT_THAT(ran.messages(), ElementsAre("ERROR Module creation collision detected: test/self"));
}

SCENARIO(commits_the_empty_path_twice) {
  const quorvane::Module handle("");
  const bool found = qv_module_find("") == handle.get();
  std::cout << (found ? "found" : "absent") << std::flush;
  ModuleRecord* module = create();
  qv_module_route("", module);
  qv_module_commit(module);
  return 0;
}

TEST(QvModuleCommit, TheEmptyPathIsARouteLikeAnyOther) {
  const Ran ran = run_scenario("commits_the_empty_path_twice");
  EXPECT_EQ(ran.out, "found");
  EXPECT_TRUE(ran.aborted());
  EXPECT_THAT(ran.messages(), ElementsAre("ERROR Module creation collision detected: "));
}

SCENARIO(passes_no_path) {
  ModuleRecord* module = create();
  qv_module_route(nullptr, module);
  const bool ignored = module->routes->empty();
  qv_module_commit(module);
  return ignored && qv_module_find(nullptr) == nullptr ? 0 : 1;
}

TEST(QvModuleRoute, ANullPathIsNoRoute) {
  const Ran ran = run_scenario("passes_no_path");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), IsEmpty());
}

// ------------------------------------------------------------- without memory

// In each round, smaller allocations fail than in the previous one.
SCENARIO(commits_without_memory) {
  int refused = 0;
  int wrong = 0;
  for (std::size_t from = 512; from > 0; --from) {
    const std::string first = "the first route of number " + std::to_string(from);
    const std::string second = "the second route of number " + std::to_string(from);
    ModuleRecord* const module = create();
    qv_module_route(first.c_str(), module);
    qv_module_route(second.c_str(), module);
    test::no_memory_from = from;
    qv_module_commit(module);
    void* const found = qv_module_find(first.c_str());
    wrong += found != (qv_module_find(second.c_str())) ? 1 : 0;
    test::no_memory_from = test::kEnoughMemory;
    if (found == nullptr) {
      ++refused;
      qv_module_commit(module);
    }
    wrong += qv_module_find(first.c_str()) == module ? 0 : 1;
    wrong += qv_module_find(second.c_str()) == module ? 0 : 1;
  }
  std::cout << refused;
  return wrong;
}

TEST(QvModuleCommit, WithoutMemoryLeavesTheModuleToItsMaker) {
  const Ran ran = run_scenario("commits_without_memory");
  EXPECT_TRUE(ran.exited_with(0));
  const int refused = std::stoi(ran.out);
  EXPECT_GT(refused, 16);
  EXPECT_LT(refused, 512);
  EXPECT_EQ(ran.messages(), std::vector<std::string>(static_cast<std::size_t>(refused),
                                                     "WARN No memory to register a module"));
}

SCENARIO(makes_and_routes_without_memory) {
  ModuleRecord* const module = create();
  test::no_memory_from = 0;
  void* const none = qv_module_create();
  qv_module_route("a path that is no short string", module);
  qv_module_route("//a path that is no short string", module);
  qv_module_route("a path", nullptr);
  qv_module_commit(nullptr);
  const quorvane::Module handle("a path that is no short string");
  test::no_memory_from = test::kEnoughMemory;
  const bool right =
      none == nullptr && module->routes->empty() && handle.get() == ModuleRecord::get_internal();
  qv_module_commit(module);
  return right ? 0 : 1;
}

TEST(QvModuleRoute, WithoutMemoryIsAWarning) {
  const Ran ran = run_scenario("makes_and_routes_without_memory");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(),
              ElementsAre("WARN No memory for module path \"a path that is no short string\"",
                          "WARN No memory for module path \"//a path that is no short string\""));
}

// --------------------------------------------------------------------- handles

SCENARIO(declares_a_handle_twice) {
  const quorvane::Module first("a/b");
  first->level = QV_LOG_LEVEL_OFF;
  first->fault_log_level = 7;
  const quorvane::Module second("a/b");
  const quorvane::Module other("a/b/");
  const bool same = first.get() == second.get() && qv_module_find("a/b") == first.get();
  const bool kept = second->level == QV_LOG_LEVEL_OFF && second->fault_log_level == 7;
  return same && kept && other.get() != first.get() && first->routes->size() == 1 ? 0 : 1;
}

TEST(ModuleHandle, OfAPathThatIsThereIsThatModuleUnchanged) {
  const Ran ran = run_scenario("declares_a_handle_twice");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), IsEmpty());
}

SCENARIO(declares_handles_of_malformed_paths) {
  std::vector<quorvane::Module> handles;
  for (const char* path : {"/a", "/a", "b//c"}) {
    handles.emplace_back(path);
  }
  // Overwrites what a destroyed module would leave behind.
  for (int i = 0; i < 100; ++i) {
    qv_module_commit(create());
  }
  for (std::size_t i = 0; i < handles.size(); ++i) {
    QV_LOG(handles[i], INFO, "handle %zu of level %d", i, handles[i]->level);
  }
  const bool hidden = qv_module_find("/a") == nullptr && qv_module_find("b//c") == nullptr;
  return hidden && handles[0].get() != handles[1].get() ? 0 : 1;
}

TEST(ModuleHandle, OfAMalformedPathLogsThoughNobodyFindsIt) {
  const Ran ran = run_scenario("declares_handles_of_malformed_paths");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), ElementsAre("WARN Format error parsing module path \"/a\"",
                                          "WARN Format error parsing module path \"/a\"",
                                          "WARN Format error parsing module path \"b//c\"",
                                          "INFO handle 0 of level 5", "INFO handle 1 of level 5",
                                          "INFO handle 2 of level 5"));
}

SCENARIO(changes_the_level_of_one_module) {
  const quorvane::Module quiet("test/quiet");
  const quorvane::Module loud("test/loud");
  quiet->level = QV_LOG_LEVEL_WARN;
  QV_LOG(quiet, INFO, "quiet");
  QV_LOG(loud, INFO, "loud");
  const quorvane::Module later("test/later");
  return later->level == QV_LOG_LEVEL_DEBUG ? 0 : 1;
}

TEST(ModuleHandle, HasALevelOfItsOwn) {
  const Ran ran = run_scenario("changes_the_level_of_one_module");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), ElementsAre("INFO loud"));
}

// ------------------------------------------------------------- internal module

SCENARIO(tells_the_internal_module) {
  const ModuleRecord* internal = ModuleRecord::get_internal();
  const bool right = internal->routes == nullptr && internal->fault_abort_level == 0 &&
                     internal->fault_log_level == 2 && internal->reserved == 0 &&
                     internal->outlet == &quorvane::logging::g_singleton_outlet &&
                     internal == ModuleRecord::get_internal();
  std::cout << internal->level;
  return right ? 0 : 1;
}

TEST(InternalModule, StandsAtInfoWhateverTheEnvironmentSays) {
  for (const char* level : {"OFF", "DEBUG"}) {
    const Ran ran = run_scenario("tells_the_internal_module", {{"QV_LOG_LEVEL", level}});
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_EQ(ran.out, "3");
  }
  EXPECT_EQ(run_scenario("tells_the_internal_module", {{"QV_LOG_FILE", std::nullopt}}).out, "3");
}

// ------------------------------------------------------- registries of a test

class OwnRegistry : public testing::Test {
 protected:
  ModuleRecord* commit(const std::vector<std::string>& routes) {
    auto module = lookup_->create_module();
    for (const std::string& route : routes) {
      lookup_->add_route(*module, route);
    }
    ModuleRecord* raw = module.get();
    lookup_->commit(std::move(module));
    EXPECT_EQ(module, nullptr);
    return raw;
  }

  LoggingModuleData outlet_{-1, -1, QV_LOG_LEVEL_TRACE};
  std::unique_ptr<Lookup> lookup_ = std::make_unique<Lookup>(&outlet_);
};

TEST_F(OwnRegistry, GivesItsModulesItsOutletAndTheLevelThatStandsThere) {
  const ModuleRecord* module = commit({"a"});
  EXPECT_EQ(module->outlet, &outlet_);
  EXPECT_EQ(module->level, QV_LOG_LEVEL_TRACE);
  outlet_.level = QV_LOG_LEVEL_WARN;
  EXPECT_EQ(commit({"b"})->level, QV_LOG_LEVEL_WARN);
  EXPECT_EQ(module->level, QV_LOG_LEVEL_TRACE);
}

TEST_F(OwnRegistry, IsApartFromTheProcessesRegistry) {
  commit({"test/apart"});
  EXPECT_EQ(qv_module_find("test/apart"), nullptr);
}

TEST_F(OwnRegistry, FindsThousandsOfModules) {
  constexpr int kModules = 5000;
  std::vector<ModuleRecord*> modules;
  for (int i = 0; i < kModules; ++i) {
    modules.push_back(commit({"m/" + std::to_string(i), "n/" + std::to_string(i)}));
  }
  for (int i = 0; i < kModules; ++i) {
    const auto index = static_cast<std::size_t>(i);
    EXPECT_EQ(lookup_->find("m/" + std::to_string(i)), modules[index]);
    EXPECT_EQ(lookup_->find("n/" + std::to_string(i)), modules[index]);
  }
  EXPECT_EQ(lookup_->find("m/5000"), nullptr);
}

// In a sanitizer build, the leak checker reports what isn't freed.
TEST_F(OwnRegistry, FreesItsModulesWithItself) {
  commit({"a", "b"});
  commit({});
  lookup_.reset();
}

// A fork that still waited for the registry would hang: no thread unlocks these bytes.
SCENARIO(forks_after_a_registry_is_gone) {
  LoggingModuleData outlet{-1, -1, QV_LOG_LEVEL_OFF};
  alignas(Lookup) static std::array<unsigned char, sizeof(Lookup)> storage;
  std::destroy_at(new (storage.data()) Lookup(&outlet));
  storage.fill(1);
  alarm(30);
  return test::wait_for(test::in_child([] { return 0; })) == 0 ? 0 : 1;
}

TEST(OwnRegistryGone, IsNothingThatAForkWaitsFor) {
  EXPECT_TRUE(run_scenario("forks_after_a_registry_is_gone").exited_with(0));
}

TEST_F(OwnRegistry, ThreadsFindWhileOthersCommit) {
  constexpr int kModules = 2000;
  std::atomic<bool> done{false};
  std::atomic<long> found{0};
  std::vector<std::thread> readers;
  for (int reader = 0; reader < 3; ++reader) {
    readers.emplace_back([&] {
      // The last pass begins after all commits.
      for (bool last = false; !last;) {
        last = done;
        for (int i = 0; i < kModules; i += 50) {
          const ModuleRecord* module = lookup_->find("m/" + std::to_string(i));
          if (module != nullptr) {
            EXPECT_EQ(module->outlet, &outlet_);
            EXPECT_EQ(module->routes->front(), "m/" + std::to_string(i));
            found.fetch_add(1);
          }
        }
      }
    });
  }
  std::vector<std::thread> writers;
  for (int writer = 0; writer < 2; ++writer) {
    writers.emplace_back([&, writer] {
      for (int i = writer; i < kModules; i += 2) {
        commit({"m/" + std::to_string(i)});
      }
    });
  }
  for (std::thread& thread : writers) {
    thread.join();
  }
  done = true;
  for (std::thread& thread : readers) {
    thread.join();
  }
  for (int i = 0; i < kModules; ++i) {
    EXPECT_NE(lookup_->find("m/" + std::to_string(i)), nullptr);
  }
  EXPECT_GE(found, 3 * kModules / 50);
}

SCENARIO(declares_handles_from_threads) {
  std::vector<std::thread> threads;
  std::atomic<int> wrong{0};
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < 200; ++i) {
        const std::string path = "t" + std::to_string(thread) + "/" + std::to_string(i);
        const quorvane::Module first(path.c_str());
        const quorvane::Module second(path.c_str());
        wrong += first.get() != second.get() || qv_module_find(path.c_str()) != first.get();
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return wrong == 0 ? 0 : 1;
}

TEST(ModuleHandle, ThreadsDeclareTheirsAtTheSameTime) {
  const Ran ran = run_scenario("declares_handles_from_threads");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), IsEmpty());
}

}  // namespace
