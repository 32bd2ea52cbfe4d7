// Indexed stores from all that a program may ask for: where they are, what they are called,
// whether they must exist.
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/indexed_cache.h"
#include "support/scenario.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

namespace {

using quorvane::cache::Cache;
using quorvane::cache::CleanupController;
using quorvane::cache::IndexedStore;
using quorvane::cache::make_file_store;
using quorvane::cache::make_store;
using quorvane::cache::StoreFLock;
using quorvane::cache::StoreKind;
using quorvane::cache::StoreOptions;
using test::add;
using test::get;
using test::indexed_options;
using test::names_in;
using test::open_cache;
using test::Ran;
using test::run_scenario;
using test::StoreRoot;
using test::TempDir;
using testing::ElementsAre;
using testing::IsEmpty;
using Messages = std::vector<std::string>;

constexpr const char* kUnsetRoot = "ERROR Caching enabled, but QV_CACHE_STORE_ROOT not set.";

// Adds an entry to a cache with these options, and prints whether the cache is valid and what
// another one finds.
void store_and_find(const StoreOptions& options) {
  bool is_valid = false;
  {
    const auto cache = open_cache(options);
    is_valid = cache->is_valid();
    add(*cache, "key", "value");
  }
  std::printf("%d %s", is_valid, get(*open_cache(options), "key").value_or("null").c_str());
}

// --- stores that must exist ---

SCENARIO(open_what_must_exist) {
  StoreOptions options = indexed_options(arguments.at(0));
  options.name = arguments.at(1);
  options.must_exist = true;
  const auto cache = open_cache(options);
  std::printf("%d %zu", cache->is_valid(), cache->size());
  return 0;
}

TEST(IndexedStoreThatMustExist, IsReportedAndNotCreatedWhenItsNameIsMisspelt) {
  const TempDir root;
  add(*open_cache(root.path()), "key", "value");
  const std::vector<std::string> before = names_in(root.path());
  const Ran ran = run_scenario("open_what_must_exist", {}, {root.path(), "mpas"});
  EXPECT_EQ(ran.out, "0 0");
  EXPECT_EQ(ran.messages(),
            Messages{"ERROR Cache store " + root.file("dat_mpas") + " doesn't exist"});
  EXPECT_EQ(names_in(root.path()), before);
}

TEST(IndexedStoreThatMustExist, IsOpenedWhenItDoesAlsoWithoutItsIndex) {
  const TempDir root;
  add(*open_cache(root.path()), "key", "value");
  EXPECT_EQ(run_scenario("open_what_must_exist", {}, {root.path(), "maps"}).out, "1 1");
  std::filesystem::remove(root.file("idx_maps"));
  EXPECT_EQ(run_scenario("open_what_must_exist", {}, {root.path(), "maps"}).out, "1 1");
}

// --- its lock ---

bool has_open(const std::string& path) {
  std::error_code error;
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return std::any_of(begin(descriptors), end(descriptors), [&](const auto& descriptor) {
    return std::filesystem::equivalent(descriptor, path, error);
  });
}

TEST(IndexedStoreLock, IsOpenedByTheFirstThatStores) {
  const TempDir root;
  add(*open_cache(root.path()), "key", "value");
  const auto cache = open_cache(root.path());
  EXPECT_EQ(get(*cache, "key"), "value");
  EXPECT_EQ(get(*cache, "none"), std::nullopt);
  EXPECT_FALSE(has_open(root.file("lock_maps")));
  add(*cache, "other", "value");
  EXPECT_TRUE(cache->flush());
  EXPECT_TRUE(has_open(root.file("lock_maps")));
}

TEST(IndexedStoreLock, IsOpenedToMakeAnIndex) {
  const TempDir root;
  add(*open_cache(root.path()), "key", "value");
  std::filesystem::remove(root.file("idx_maps"));
  const auto cache = open_cache(root.path());
  EXPECT_EQ(get(*cache, "key"), "value");
  EXPECT_TRUE(has_open(root.file("lock_maps")));
}

TEST(IndexedStoreLock, IsCreatedWhenItIsMissing) {
  const TempDir root;
  add(*open_cache(root.path()), "key", "value");
  std::filesystem::remove(root.file("lock_maps"));
  EXPECT_EQ(get(*open_cache(root.path()), "key"), "value");
  EXPECT_THAT(names_in(root.path()), ElementsAre("dat_maps", "idx_maps", "lock_maps"));
}

// Prints whether a flush stores while a directory is in the place of the lock file, and after
// that.
SCENARIO(flush_without_a_lock) {
  const std::string lock = arguments.at(0) + "/lock_maps";
  const auto cache = open_cache(arguments.at(0));
  std::filesystem::remove(lock);
  std::filesystem::create_directory(lock);
  add(*cache, "other", "value");
  std::printf("%d ", cache->flush());
  std::filesystem::remove(lock);
  std::printf("%d", cache->flush());
  return 0;
}

TEST(IndexedStoreLock, ThatCannotBeOpenedMakesAFlushFail) {
  const TempDir root;
  add(*open_cache(root.path()), "key", "value");
  const Ran ran = run_scenario("flush_without_a_lock", {}, {root.path()});
  EXPECT_EQ(ran.out, "0 1");
  EXPECT_THAT(ran.messages(), testing::Contains("WARN Cache store " + root.file("lock_maps") +
                                                " lock couldn't be obtained: Is a directory."));
  EXPECT_EQ(get(*open_cache(root.path()), "other"), "value");
}

TEST(IndexedStoreLock, ThatCannotBeOpenedGivesNoCacheWhenTheFilesDoNotFit) {
  const TempDir root;
  add(*open_cache(root.path()), "key", "value");
  std::filesystem::remove(root.file("lock_maps"));
  std::filesystem::create_directory(root.file("lock_maps"));
  std::filesystem::remove(root.file("idx_maps"));
  EXPECT_FALSE(open_cache(root.path())->is_valid());
  std::filesystem::remove(root.file("dat_maps"));
  EXPECT_FALSE(open_cache(root.path())->is_valid());
}

// --- roots ---

// Changes the directory between the making of the store and its use.
SCENARIO(change_the_directory) {
  if (chdir(arguments.at(0).c_str()) != 0) {
    return 1;
  }
  const StoreOptions options = indexed_options(arguments.at(1));
  auto store = make_store(options);
  if (chdir("/") != 0) {
    return 1;
  }
  Cache cache("maps", std::move(store), false);
  const bool good = add(cache, "key", "value") && cache.flush() && !get(cache, "none");
  std::printf("%d", good);
  return 0;
}

TEST(IndexedStoreRoot, IsMadeAbsoluteWhenTheStoreIsMade) {
  const TempDir dir;
  const TempDir from_environment;
  for (const TempDir* tested : {&dir, &from_environment}) {
    std::filesystem::create_directory(tested->file("root"));
    const bool is_option = tested == &dir;
    const Ran ran = run_scenario("change_the_directory", {{"QV_CACHE_STORE_ROOT", "root"}},
                                 {tested->path(), is_option ? "./root" : ""});
    EXPECT_EQ(ran.out, "1") << ran.err;
    EXPECT_THAT(names_in(tested->file("root")), ElementsAre("dat_maps", "idx_maps", "lock_maps"));
    EXPECT_EQ(get(*open_cache(tested->file("root")), "key"), "value");
  }
}

SCENARIO(use_a_root) {
  store_and_find(indexed_options(arguments.at(0)));
  return 0;
}

Ran use_root(const std::string& root) {
  return run_scenario(
      "use_a_root", {{"QV_LOG_LEVEL", "WARN"}, {"QV_CACHE_STORE_CLEANUP_THRESHOLD", "0"}}, {root});
}

TEST(IndexedStoreRoot, ThatCannotBeUsedGivesNoStore) {
  const TempDir dir;
  test::write_file(dir.file("file"), "not a directory");
  for (const auto& [root, reason] : std::vector<std::pair<std::string, std::string>>{
           {"missing", "No such file or directory"}, {"file", "Not a directory"}}) {
    const Ran ran = use_root(dir.file(root));
    EXPECT_EQ(ran.out, "0 null");
    const std::string record = "WARN Cache store " + dir.file(root) +
                               "/lock_maps lock couldn't be obtained: " + reason + ".";
    EXPECT_EQ(ran.messages(), (Messages{record, "INFO Statistics capture disabled.", record}));
  }
  EXPECT_THAT(names_in(dir.path()), ElementsAre("file"));
}

TEST(IndexedStoreRoot, ThatIsUnsetGivesNoStore) {
  const Ran ran = use_root("");
  EXPECT_EQ(ran.out, "0 null");
  EXPECT_THAT(ran.messages(), testing::Contains(kUnsetRoot));
  EXPECT_FALSE(test::exists("/dat_maps"));
}

SCENARIO(use_without_a_root) {
  Cache cache("maps", make_store(indexed_options(arguments.at(0))), true);
  const bool added = add(cache, "key", "value");
  std::printf("%d %d %s %d", cache.is_valid(), added, get(cache, "key").value_or("null").c_str(),
              cache.flush());
  return 0;
}

TEST(IndexedStoreRoot, ThatCannotBeUsedLeavesAVolatileCacheIfThatIsAllowed) {
  const TempDir dir;
  EXPECT_EQ(run_scenario("use_without_a_root", {}, {dir.file("missing")}).out, "1 1 value 0");
}

// --- names ---

SCENARIO(use_a_name) {
  StoreOptions options = indexed_options(arguments.at(0));
  options.name = arguments.at(1);
  store_and_find(options);
  return 0;
}

TEST(IndexedStoreName, MayHaveAnyCharacterOfAFileName) {
  for (const std::string name :
       {"", " ", "two words", "%s%n", "\"quoted\"", "back\\slash", "..", "-rf", "\xc3\xa4\xff",
        "line\nbreak", "a-long-name-that-is-still-a-file-name-with-its-prefix"}) {
    const TempDir root;
    const Ran ran = run_scenario("use_a_name", {{"QV_LOG_LEVEL", "WARN"}}, {root.path(), name});
    EXPECT_EQ(ran.out, "1 value") << name;
    EXPECT_THAT(names_in(root.path()), testing::IsSupersetOf({"dat_" + name, "idx_" + name}));
    EXPECT_THAT(names_in(root.path()), testing::SizeIs(3)) << name;
  }
}

TEST(IndexedStoreName, ThatIsNoFileNameGivesNoStore) {
  for (const std::string& name : {std::string("a/b"), std::string(300, 'x')}) {
    const TempDir root;
    EXPECT_EQ(run_scenario("use_a_name", {}, {root.path(), name}).out, "0 null") << name;
    EXPECT_THAT(names_in(root.path()), IsEmpty());
  }
}

TEST(IndexedStoreName, SetsCachesApart) {
  const TempDir root;
  StoreOptions other = indexed_options(root.path());
  other.name = "other";
  add(*open_cache(root.path()), "key", "of maps");
  add(*open_cache(other), "key", "of other");
  EXPECT_EQ(get(*open_cache(root.path()), "key"), "of maps");
  EXPECT_EQ(get(*open_cache(other), "key"), "of other");
}

TEST(IndexedStoreName, MayBeThatOfAStoreOfAnotherKind) {
  const TempDir root;
  for (const StoreKind kind : {StoreKind::basic, StoreKind::lazy_lookup, StoreKind::indexed}) {
    StoreOptions options = indexed_options(root.path());
    options.kind = kind;
    EXPECT_TRUE(add(*open_cache(options), "key", std::to_string(static_cast<int>(kind))));
  }
  EXPECT_THAT(names_in(root.path()),
              ElementsAre("dat_maps", "idx_maps", "key_maps", "lock_maps", "maps", "val_maps"));
  EXPECT_EQ(get(*open_cache(root.path()), "key"), "2");
}

// --- other ways to make one ---

SCENARIO(make_a_file_store) {
  for (const char* what : {"adds", "finds"}) {
    Cache cache("maps", make_file_store(StoreKind::indexed, "maps"), false);
    std::printf("%s %d %s ", what, cache.is_valid(), get(cache, "key").value_or("null").c_str());
    add(cache, "key", "value");
  }
  return 0;
}

TEST(IndexedStore, IsMadeInTheRootOfTheEnvironment) {
  const StoreRoot root;
  EXPECT_EQ(root.run("make_a_file_store").out, "adds 1 null finds 1 value ");
  EXPECT_THAT(names_in(root.path()), ElementsAre("dat_maps", "idx_maps", "lock_maps"));
}

SCENARIO(make_one_by_hand) {
  CleanupController controller(0);
  const auto lock = std::make_shared<StoreFLock>("maps");
  auto owned = std::make_unique<IndexedStore>("maps", lock, &controller);
  IndexedStore& store = *owned;
  store.set_flush_after(1);
  Cache cache("maps", std::move(owned), false);
  add(cache, "key", "value");
  std::printf("%s %d %s %llu %d", store.type().c_str(), cache.is_valid(),
              get(*open_cache(test::root_path()), "key").value_or("null").c_str(),
              static_cast<unsigned long long>(store.entries()),
              store.get_usage() == std::filesystem::file_size(test::root_file("dat_maps")) +
                                       std::filesystem::file_size(test::root_file("idx_maps")));
  return 0;
}

TEST(IndexedStore, MayBeConstructedByHand) {
  EXPECT_EQ(StoreRoot().run("make_one_by_hand").out, "IndexedStore 1 value 1 1");
}

SCENARIO(make_one_without_a_lock) {
  Cache null("maps", std::make_unique<IndexedStore>("maps", nullptr, &test::no_limit()), false);
  Cache invalid("maps",
                std::make_unique<IndexedStore>("maps", std::make_shared<test::CountingLock>(false),
                                               &test::no_limit()),
                false);
  std::printf("%d %d", null.is_valid(), invalid.is_valid());
  return 0;
}

TEST(IndexedStore, IsNotValidWithoutAUsableLock) {
  const StoreRoot root;
  EXPECT_EQ(root.run("make_one_without_a_lock").out, "0 0");
  EXPECT_THAT(names_in(root.path()), IsEmpty());
}

}  // namespace
