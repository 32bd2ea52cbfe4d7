// The cache as C functions: what they do when all is well. cache_c_errors_test has the rest.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/cache_c.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "support/c_cache.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/temp_dir.h"
#include "support/threads.h"

using test::add;
using test::CCache;
using test::find;
using test::get;
using test::open_cache;
using test::Ran;
using test::TempDir;

namespace {

// The parameter is the kind.
class AnyCache : public testing::TestWithParam<std::string> {
 protected:
  CCache open(unsigned flags = 0) const { return open_cache(GetParam(), root_.path(), flags); }

  TempDir root_;
};

class StoredCache : public AnyCache {};

std::string name_of(const testing::TestParamInfo<std::string>& kind) { return kind.param; }

INSTANTIATE_TEST_SUITE_P(Kinds, AnyCache,
                         testing::Values("basic", "lazy_lookup", "indexed", "tiered", "volatile"),
                         name_of);
INSTANTIATE_TEST_SUITE_P(Kinds, StoredCache, testing::Values("basic", "lazy_lookup", "indexed"),
                         name_of);

// --- looking up and adding ---

TEST_P(AnyCache, FindsWhatWasAddedAndKeepsTheFirstValue) {
  const CCache cache = open();
  EXPECT_EQ(add(cache, "key", {"a", "bc"}), 1);
  EXPECT_EQ(add(cache, "key", {"other"}), 0);
  EXPECT_EQ(get(cache, "key"), "a,bc");
  EXPECT_EQ(qv_cache_size(cache.get()), 1u);
}

TEST_P(AnyCache, AMissIsNullWithErrno0) {
  const CCache cache = open();
  add(cache, "key", {"a"});
  errno = EBADF;
  EXPECT_EQ(find(cache, "none"), nullptr);
  EXPECT_EQ(errno, 0);
}

TEST_P(AnyCache, TakesAnyBytes) {
  const CCache cache = open();
  const std::string zeros(3, '\0');
  EXPECT_EQ(add(cache, zeros, {std::string("\xff\0\n", 3)}), 1);
  EXPECT_EQ(get(cache, zeros), std::string("\xff\0\n", 3));
  EXPECT_EQ(get(cache, std::string(2, '\0')), std::nullopt);
}

TEST_P(AnyCache, CopiesWhatIsAdded) {
  const CCache cache = open();
  std::string key = "key";
  std::string atom = "atom";
  const void* const atoms[] = {atom.data()};
  const std::size_t sizes[] = {atom.size()};
  ASSERT_EQ(qv_cache_add(cache.get(), key.data(), key.size(), atoms, sizes, 1), 1);
  key = "xxx";
  atom = "xxxx";
  EXPECT_EQ(get(cache, "key"), "atom");
}

TEST_P(AnyCache, AValueStaysWhereItIsOverFlushesAndManyAdditions) {
  const CCache cache = open();
  add(cache, "key", {"first", "second"});
  const qv_cache_value_t* const value = find(cache, "key");
  const void* const atom = qv_cache_atom(value, 1, nullptr);
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 2000; ++i) {
      add(cache, std::to_string(round * 2000 + i), {"v"});
    }
    EXPECT_EQ(qv_cache_flush(cache.get()), 0);
  }
  EXPECT_EQ(find(cache, "key"), value);
  EXPECT_EQ(qv_cache_atom(value, 1, nullptr), atom);
  EXPECT_EQ(test::text_of(value), "first,second");
  EXPECT_EQ(qv_cache_size(cache.get()), 6001u);
}

TEST_P(AnyCache, AnAtomBeyondTheLastIsNullAndHasNoSize) {
  const CCache cache = open();
  add(cache, "key", {"a", "b"});
  const qv_cache_value_t* const value = find(cache, "key");
  for (const std::size_t index : {std::size_t{2}, ~std::size_t{0}}) {
    std::size_t size = 7;
    EXPECT_EQ(qv_cache_atom(value, index, &size), nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(qv_cache_atom(value, index, nullptr), nullptr);
  }
}

TEST_P(AnyCache, APrefetchChangesNothing) {
  const CCache cache = open();
  add(cache, "key", {"a"});
  ASSERT_EQ(qv_cache_flush(cache.get()), 0);
  const void* const keys[] = {"key", "none", nullptr, "empty"};
  const std::size_t sizes[] = {3, 4, 5, 0};
  qv_cache_prefetch(cache.get(), keys, sizes, 4);
  qv_cache_prefetch(cache.get(), keys, sizes, 0);
  qv_cache_prefetch(cache.get(), nullptr, sizes, 0);
  EXPECT_EQ(listing(cache), "key=a\n");
}

// --- iteration ---

TEST_P(AnyCache, VisitsEveryEntryInOrder) {
  const CCache cache = open();
  for (const char* key : {"b", "aa", "a"}) {
    add(cache, key, {"1", key});
  }
  EXPECT_EQ(listing(cache), "a=1,a\nb=1,b\naa=1,aa\n");
}

struct Visits {
  int left;
  int result;
};

int stop_at_the_last(const void* /*key*/, std::size_t /*size*/, const qv_cache_value_t* /*value*/,
                     void* closure) {
  Visits& visits = *static_cast<Visits*>(closure);
  return --visits.left == 0 ? visits.result : 0;
}

TEST_P(AnyCache, StopsTheIterationAndReturnsTheNumber) {
  const CCache cache = open();
  for (const char* key : {"a", "b", "c"}) {
    add(cache, key, {"v"});
  }
  Visits visits{2, -17};
  EXPECT_EQ(qv_cache_each(cache.get(), &stop_at_the_last, &visits), -17);
  EXPECT_EQ(visits.left, 0);
  visits = {4, 1};
  EXPECT_EQ(qv_cache_each(cache.get(), &stop_at_the_last, &visits), 0);
  EXPECT_EQ(visits.left, 1);
}

TEST_P(StoredCache, VisitsWhatIsStoredThenWhatWasAdded) {
  add(open(), "stored", {"1"});
  const CCache cache = open();
  add(cache, "new", {"2"});
  EXPECT_EQ(listing(cache), "stored=1\nnew=2\n");
}

// --- storing ---

TEST_P(StoredCache, AFlushStoresForOthers) {
  const CCache cache = open();
  add(cache, "key", {"a", "bc"});
  EXPECT_EQ(get(open(), "key"), std::nullopt);
  EXPECT_EQ(qv_cache_flush(cache.get()), 0);
  EXPECT_EQ(get(open(), "key"), "a,bc");
  EXPECT_EQ(qv_cache_flush(cache.get()), 0) << "with nothing to store";
}

TEST_P(StoredCache, TheCloseStoresWhatNoFlushHasStored) {
  CCache cache = open();
  add(cache, "flushed", {"1"});
  qv_cache_flush(cache.get());
  add(cache, "added", {"2"});
  EXPECT_EQ(qv_cache_close(cache.release()), 0);
  EXPECT_EQ(listing(open()), "added=2\nflushed=1\n");
}

TEST_P(StoredCache, OpensAnExistingStoreOnly) {
  add(open(), "key", {"1"});
  for (const unsigned flags :
       {QV_CACHE_MUST_EXIST, QV_CACHE_READ_ONLY, QV_CACHE_MUST_EXIST | QV_CACHE_READ_ONLY}) {
    EXPECT_EQ(get(open(flags), "key"), "1") << flags;
  }
}

TEST(VolatileCache, ForgetsAtItsCloseWhichIsNoFailure) {
  const TempDir root;
  CCache cache = open_cache("volatile", root.path());
  add(cache, "key", {"1"});
  EXPECT_EQ(qv_cache_flush(cache.get()), 0);
  EXPECT_EQ(qv_cache_close(cache.release()), 0);
  EXPECT_EQ(get(open_cache("volatile", root.path()), "key"), std::nullopt);
}

// Nothing leads to the root but the environment.
SCENARIO(root_of_the_environment) {
  qv_cache_t* const cache = qv_cache_open("basic", nullptr, "maps", 0);
  const void* const atoms[] = {"1"};
  const std::size_t sizes[] = {1};
  const bool works =
      qv_cache_add(cache, "key", 3, atoms, sizes, 1) == 1 && qv_cache_close(cache) == 0;
  const CCache again = open_cache("basic", "", QV_CACHE_MUST_EXIST);
  return works && get(again, "key") == "1" ? 0 : 1;
}

TEST(CacheRoot, IsThatOfTheEnvironmentIfNoneIsGiven) {
  const TempDir root;
  const Ran ran =
      test::run_scenario("root_of_the_environment", {{"QV_CACHE_STORE_ROOT", root.path()}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_TRUE(test::exists(root.file("maps")));
}

// --- threads and children ---

TEST_P(AnyCache, GivesAllThreadsOneValueOfAKey) {
  const CCache cache = open();
  constexpr int kThreads = 4;
  constexpr int kKeys = 300;
  std::atomic<int> added{0};
  std::atomic<int> wrong{0};
  std::vector<std::vector<const qv_cache_value_t*>> seen(kThreads);
  test::run_threads(kThreads, [&](int index) {
    for (int i = 0; i < kKeys; ++i) {
      const std::string key = "key " + std::to_string(i);
      added += add(cache, key, {"thread " + std::to_string(index), key});
      seen[static_cast<std::size_t>(index)].push_back(find(cache, key));
      wrong += test::atom_of(find(cache, key), 1) == key ? 0 : 1;
      wrong += i % 100 == 0 && qv_cache_flush(cache.get()) != 0 ? 1 : 0;
    }
  });
  EXPECT_EQ(added, kKeys);
  EXPECT_EQ(wrong, 0);
  EXPECT_THAT(seen, testing::Each(seen.front()));
  EXPECT_EQ(qv_cache_size(cache.get()), static_cast<std::uint64_t>(kKeys));
}

TEST_P(StoredCache, ServesAParentAndItsChildAndStoresACommonEntryOnce) {
  CCache cache = open();
  add(cache, "both", {"1"});
  const pid_t child = test::in_child([&cache] {
    const bool works = add(cache, "child", {"2"}) == 1 && get(cache, "both") == "1";
    return works && qv_cache_close(cache.release()) == 0 ? 0 : 1;
  });
  EXPECT_EQ(test::wait_for(child), 0);
  add(cache, "parent", {"3"});
  EXPECT_EQ(qv_cache_close(cache.release()), 0);
  const CCache again = open();
  EXPECT_EQ(listing(again), "both=1\nchild=2\nparent=3\n");
  EXPECT_EQ(qv_cache_size(again.get()), 3u);
}

// --- C ---

TEST_P(AnyCache, ServesAProgramInC) {
  const Ran ran =
      test::run_program(QV_BINARY_DIR "/bin/cache_c_program", {GetParam(), root_.path()});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out,
            "0 entries\n"
            "added key: first second\n"
            "already there\n"
            "visited key\n"
            "none: no error\n"
            "refused: an argument is wrong, or there is no root directory or no server\n"
            "1 entries\n");
}

}  // namespace
