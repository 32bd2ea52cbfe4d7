// Stores that are made with options.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/made_store.h"
#include "support/no_memory.h"
#include "support/processes.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

using quorvane::cache::CleanupController;
using quorvane::cache::EntryMap;
using quorvane::cache::make_file_store;
using quorvane::cache::make_store;
using quorvane::cache::StoreKind;
using quorvane::cache::StoreOptions;
using test::entry_map;
using test::FailingAllocation;
using test::kStoredListing;
using test::names_in;
using test::options_of;
using test::Ran;
using test::TempDir;
using testing::Contains;
using testing::IsEmpty;
using Messages = std::vector<std::string>;

namespace {

// No limit of a default controller, and no record of one.
test::Environment environment_of(const std::string& root) {
  return {{"QV_CACHE_STORE_ROOT", root}, {"QV_CACHE_STORE_SIZE", "0"}, {"QV_LOG_LEVEL", "WARN"}};
}

std::string lock_not_obtained(const std::string& path) {
  return "WARN Cache store " + path + " lock couldn't be obtained: No such file or directory.";
}

Messages warnings_of(const Ran& ran) {
  Messages warnings;
  for (const std::string& message : ran.messages()) {
    if (message.rfind("WARN ", 0) == 0) {
      warnings.push_back(message);
    }
  }
  return warnings;
}

// For both kinds of store.
class MakeStore : public testing::TestWithParam<std::string> {
 protected:
  Ran run(std::vector<std::string> words, const test::Environment& environment,
          const std::string& scenario = "use") const {
    words.insert(words.begin(), GetParam());
    Ran ran = test::run_scenario(scenario, environment, words);
    EXPECT_TRUE(ran.exited_with(0)) << ran.err;
    return ran;
  }
  Ran run(const std::vector<std::string>& words, const std::string& scenario = "use") const {
    return run(words, environment_of(root_.path()), scenario);
  }

  bool is_lazy() const { return GetParam() == "lazy"; }
  std::string file_name() const { return is_lazy() ? "key_maps" : "maps"; }
  Messages files_with_lock() const {
    return is_lazy() ? Messages{"key_maps", "lock_maps", "val_maps"}
                     : Messages{"lock_maps", "maps"};
  }
  std::string missing() const {
    return "ERROR Cache store " + root_.file(file_name()) + " doesn't exist";
  }

  TempDir root_;
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Kinds, MakeStore, testing::Values("basic", "lazy"),
                         [](const auto& kind) { return kind.param; });

SCENARIO(use) { return test::make_and_use_store(arguments); }

// --- the root ---

TEST_P(MakeStore, StoresInTheRootOfTheEnvironment) {
  EXPECT_EQ(run({"store"}).out, "valid 1\nstore 1\n");
  EXPECT_EQ(names_in(root_.path()), files_with_lock());
  EXPECT_EQ(run({"load"}).out, "valid 1\nload 1\nnew=9\n");
}

TEST_P(MakeStore, PrefersTheGivenRoot) {
  const TempDir other;
  const Ran ran = run({"root=" + other.path(), "store", "load"});
  EXPECT_EQ(ran.out, "valid 1\nstore 1\nload 1\nnew=9\n");
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_EQ(names_in(other.path()), files_with_lock());
  EXPECT_THAT(names_in(root_.path()), IsEmpty());
}

TEST_P(MakeStore, NeedsNoRootInTheEnvironmentWhenItIsGivenOne) {
  const Ran ran = run({"root=" + root_.path(), "store", "load"},
                      {{"QV_CACHE_STORE_SIZE", "0"}, {"QV_LOG_LEVEL", "WARN"}});
  EXPECT_EQ(ran.out, "valid 1\nstore 1\nload 1\nnew=9\n");
  EXPECT_EQ(ran.messages(), Messages{});
}

// The last argument is the directory that the store is made in.
SCENARIO(leaves_its_directory) {
  if (chdir(arguments.back().c_str()) != 0) {
    return 2;
  }
  const auto store = make_store(options_of(arguments));
  if (chdir("/") != 0) {
    return 2;
  }
  std::printf("valid %d\n", store->is_valid());
  test::use_store(*store, arguments);
  return 0;
}

TEST_P(MakeStore, KeepsAGivenRelativeRootWhenTheDirectoryChanges) {
  ASSERT_EQ(mkdir(root_.file("sub").c_str(), 0755), 0);
  const Ran ran = run({"root=sub", "store", "load", root_.path()}, "leaves_its_directory");
  EXPECT_EQ(ran.out, "valid 1\nstore 1\nload 1\nnew=9\n");
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_EQ(names_in(root_.file("sub")), files_with_lock());
}

TEST_P(MakeStore, KeepsARelativeRootOfTheEnvironmentWhenTheDirectoryChanges) {
  ASSERT_EQ(mkdir(root_.file("sub").c_str(), 0755), 0);
  const Ran ran =
      run({"store", "load", root_.path()}, environment_of("sub"), "leaves_its_directory");
  EXPECT_EQ(ran.out, "valid 1\nstore 1\nload 1\nnew=9\n");
  EXPECT_EQ(names_in(root_.file("sub")), files_with_lock());
}

SCENARIO(makes_a_file_store_and_leaves) {
  if (chdir(arguments.back().c_str()) != 0) {
    return 2;
  }
  const auto store = make_file_store(options_of(arguments).kind, "maps");
  return chdir("/") == 0 && store->try_store_diff(entry_map({{"new", {"9"}}})) ? 1 : 0;
}

TEST_P(MakeStore, IsWhatTellsItFromMakeFileStoreWhichResolvesARelativeRootAtEveryUse) {
  ASSERT_EQ(mkdir(root_.file("sub").c_str(), 0755), 0);
  run({root_.path()}, environment_of("sub"), "makes_a_file_store_and_leaves");
  EXPECT_FALSE(test::exists(root_.file("sub/maps")));
}

SCENARIO(makes_a_store_in_a_deleted_directory) {
  if (chdir(arguments.back().c_str()) != 0 || rmdir(arguments.back().c_str()) != 0) {
    return 2;
  }
  std::printf("%d", make_store(options_of(arguments))->is_valid());
  return 0;
}

TEST_P(MakeStore, IsNotValidWhenTheCurrentDirectoryOfARelativeRootIsGone) {
  ASSERT_EQ(mkdir(root_.file("gone").c_str(), 0755), 0);
  const Ran ran = run({"root=sub", root_.file("gone")}, "makes_a_store_in_a_deleted_directory");
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(ran.messages(), Messages{lock_not_obtained("sub/lock_maps")});
}

TEST_P(MakeStore, IsNotValidInARootThatDoesNotExist) {
  const Ran ran = run({"root=" + root_.file("none")});
  EXPECT_EQ(ran.out, "valid 0\n");
  EXPECT_EQ(ran.messages(), Messages{lock_not_obtained(root_.file("none/lock_maps"))});
}

SCENARIO(makes_a_file_store) {
  std::printf("valid %d\n", make_file_store(options_of(arguments).kind, "maps")->is_valid());
  return 0;
}

TEST_P(MakeStore, LogsWithoutARootWhatMakeFileStoreLogs) {
  for (const std::optional<std::string>& root : {std::optional<std::string>(), {""}}) {
    const test::Environment environment{{"QV_CACHE_STORE_ROOT", root}};
    const Ran expected = run({}, environment, "makes_a_file_store");
    EXPECT_EQ(expected.out, "valid 0\n");
    EXPECT_THAT(expected.messages(), Contains(lock_not_obtained("")));
    for (const char* option : {"none", "read-only", "must-exist"}) {
      const Ran ran = run({option}, environment);
      EXPECT_EQ(ran.out, "valid 0\n");
      EXPECT_EQ(ran.messages(), expected.messages()) << option;
    }
  }
}

// --- the bound on its size ---

TEST_P(MakeStore, IsBoundBySizeLimit) {
  test::write_stores(root_.path());
  const Ran ran = run({"limit=10", "load"});
  EXPECT_EQ(ran.out, is_lazy() ? "valid 1\nload 0\n" : "valid 1\nload 1\n");
  EXPECT_FALSE(test::exists(root_.file(file_name())));
}

TEST_P(MakeStore, KeepsWhatItsSizeLimitAllows) {
  test::write_stores(root_.path());
  test::Environment environment = environment_of(root_.path());
  environment["QV_CACHE_STORE_SIZE"] = "10";  // which would delete it
  EXPECT_EQ(run({"limit=10000", "load"}, environment).out, "valid 1\nload 1\n" + kStoredListing);
}

TEST_P(MakeStore, HasTheLimitOfTheProcessWithoutOneOfItsOwn) {
  test::write_stores(root_.path());
  test::Environment environment = environment_of(root_.path());
  environment["QV_CACHE_STORE_SIZE"] = "10";
  run({"load"}, environment);
  EXPECT_FALSE(test::exists(root_.file(file_name())));
}

// Each is within its limit, and their sum is not.
SCENARIO(loads_two_stores) {
  StoreOptions options = options_of(arguments);
  const auto first = make_store(options);
  options.root = arguments.back();
  const auto second = make_store(options);
  EntryMap out;
  std::printf("%d", first->try_load(out));
  std::printf("%d", second->try_load(out));
  return 0;
}

TEST_P(MakeStore, HasItsSizeLimitForItselfAlone) {
  const TempDir other;
  test::write_stores(root_.path());
  test::write_stores(other.path());
  const std::size_t size = 2 * test::read_file(root_.file(file_name())).size();
  EXPECT_EQ(run({"limit=" + std::to_string(size - 1), other.path()}, "loads_two_stores").out, "11");
  EXPECT_TRUE(test::exists(other.file(file_name())));
}

SCENARIO(loads_with_a_controller) {
  CleanupController controller(std::stoull(arguments.back()));
  StoreOptions options = options_of(arguments);
  options.controller = &controller;
  const auto store = make_store(options);
  test::use_store(*store, arguments);
  return 0;
}

TEST_P(MakeStore, PrefersItsControllerToASizeLimit) {
  test::write_stores(root_.path());
  EXPECT_EQ(run({"limit=10", "load", "10000"}, "loads_with_a_controller").out,
            "load 1\n" + kStoredListing);
  run({"limit=10000", "load", "10"}, "loads_with_a_controller");
  EXPECT_FALSE(test::exists(root_.file(file_name())));
}

// --- one that must exist ---

TEST_P(MakeStore, ThatMustExistAndDoesNotIsNotValidAndCreatesNothing) {
  const Ran ran = run({"must-exist"});
  EXPECT_EQ(ran.out, "valid 0\n");
  EXPECT_EQ(ran.messages(), Messages{missing()});
  EXPECT_THAT(names_in(root_.path()), IsEmpty());
}

TEST_P(MakeStore, ThatIsMissingNeitherLoadsNorStores) {
  EXPECT_EQ(run({"must-exist", "load", "store"}).out, "valid 0\nload 0\nstore 0\n");
  EXPECT_THAT(names_in(root_.path()), IsEmpty());
}

TEST_P(MakeStore, ThatIsMissingIsNotValidWhateverTheOtherOptionsAre) {
  const test::Environment no_threshold{{"QV_CACHE_STORE_ROOT", root_.path()}};
  for (const char* option : {"limit=5", "read-only"}) {
    const Ran ran = run({"must-exist", option}, no_threshold);
    EXPECT_EQ(ran.out, "valid 0\n");
    EXPECT_EQ(ran.messages(), Messages{missing()}) << option;
  }
  const Ran elsewhere = run({"must-exist", "root=" + root_.file("none")});
  EXPECT_EQ(elsewhere.messages(),
            Messages{"ERROR Cache store " + root_.file("none/" + file_name()) + " doesn't exist"});
}

TEST_P(MakeStore, ThatMustExistAndDoesIsLikeAnyOther) {
  test::write_stores(root_.path());
  const Ran ran = run({"must-exist", "load", "store"});
  EXPECT_EQ(ran.out, "valid 1\nload 1\n" + kStoredListing + "store 1\n");
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_EQ(run({"must-exist", "load"}).out, "valid 1\nload 1\n" + kStoredListing + "new=9\n");
}

TEST(MakeLazyStore, ExistsWithOneOfItsFilesAndReportsTheOtherWhenItLoads) {
  for (const char* file : {"key_maps", "val_maps"}) {
    const TempDir root;
    test::write_file(root.file(file), test::header_bytes(2));
    const Ran ran =
        test::run_scenario("use", environment_of(root.path()), {"lazy", "must-exist", "load"});
    EXPECT_EQ(ran.out, "valid 1\nload 0\n");
    EXPECT_THAT(ran.messages(),
                Contains(test::expectation_at("key_file_exists == val_file_exists", 1036)));
    EXPECT_THAT(names_in(root.path()), testing::UnorderedElementsAre(file, "lock_maps"));
  }
}

// Its first append was killed, so that its files are there, but are to be deleted.
SCENARIO(makes_a_store_whose_first_append_was_killed) {
  StoreOptions options = options_of(arguments);
  const pid_t child = test::in_child([&options] {
    test::refuse_after(SYS_openat, EIO, test::When{2, O_WRONLY | O_CREAT | O_APPEND},
                       [] { kill(getpid(), SIGKILL); });
    make_store(options)->try_store_diff({});
    return 0;
  });
  if (test::wait_for(child) != test::kKilledBy + SIGKILL) {
    return 2;
  }
  options.must_exist = true;
  std::printf("%d", make_store(options)->is_valid());
  return 0;
}

TEST_P(MakeStore, DoesNotExistWhenItsFirstAppendWasKilled) {
  const Ran ran = run({}, "makes_a_store_whose_first_append_was_killed");
  EXPECT_EQ(ran.out, "0");
  ASSERT_EQ(ran.messages().size(), 2U);
  EXPECT_THAT(ran.messages()[0], testing::StartsWith("WARN Undid an append to "));
  EXPECT_EQ(ran.messages()[1], missing());
  EXPECT_EQ(names_in(root_.path()), Messages{"lock_maps"});
}

// --- what it can't make ---

SCENARIO(makes_a_store_of_an_unknown_kind) {
  for (const bool must_exist : {false, true}) {
    StoreOptions options = options_of(arguments);
    options.kind = static_cast<StoreKind>(77);
    options.must_exist = must_exist;
    std::printf("%d", make_store(options) == nullptr);
  }
  return 0;
}

TEST(MakeStoreOfAnUnknownKind, IsNull) {
  const TempDir root;
  const Ran ran =
      test::run_scenario("makes_a_store_of_an_unknown_kind", environment_of(root.path()));
  EXPECT_EQ(ran.out, "11");
  EXPECT_EQ(ran.messages(), Messages{});
}

// Each allocation fails in turn. A relative root and a long name need memory of their own.
SCENARIO(makes_stores_without_memory) {
  StoreOptions options = options_of(arguments);
  options.name = "maps-with-a-name-that-takes-memory-of-its-own";
  options.root = "a-root-with-a-name-that-takes-memory-of-its-own";
  if (chdir(getenv("QV_CACHE_STORE_ROOT")) != 0 || mkdir(options.root.c_str(), 0755) != 0) {
    return 2;
  }
  int nulls = 0;
  bool has_failed = true;
  for (std::size_t successes = 0; has_failed; ++successes) {
    FailingAllocation failing(successes);
    auto store = make_store(options);
    has_failed = FailingAllocation::end();
    nulls += store == nullptr;
    if (store == nullptr && !has_failed) {
      std::printf("null without a failure\n");
    }
    if (store != nullptr && !store->is_valid() && !options.must_exist) {
      std::printf("not valid after %zu allocations\n", successes);
    }
  }
  std::printf("%d", nulls);
  return 0;
}

TEST_P(MakeStore, IsNullAfterOneRecordWithoutMemory) {
  for (const char* option : {"none", "limit=5000000", "must-exist", "read-only"}) {
    const TempDir root;
    const Ran ran = run({option}, environment_of(root.path()), "makes_stores_without_memory");
    const int nulls = std::atoi(ran.out.c_str());
    EXPECT_GT(nulls, 3) << option;
    EXPECT_EQ(ran.out, std::to_string(nulls)) << option;
    const Messages expected(static_cast<std::size_t>(nulls),
                            "WARN Couldn't make a store for "
                            "maps-with-a-name-that-takes-memory-of-its-own cache: std::bad_alloc");
    EXPECT_EQ(warnings_of(ran), expected) << option;
  }
}
