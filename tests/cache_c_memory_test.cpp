// The cache as C functions, without memory. Each allocation of an operation fails in turn, alone
// or with all later ones.
#include <gtest/gtest.h>
#include <quorvane/cache_c.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/c_cache.h"
#include "support/no_memory.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

using test::Afterwards;
using test::CCache;
using test::FailingAllocation;
using test::find;
using test::open_cache;
using test::Ran;
using test::TempDir;

namespace {

// Too long for a string to hold without an allocation.
const std::string kKey = "a key that takes memory of its own";
const std::string kAtom = "an atom that takes memory of its own";

// What a scenario does, parsed from its arguments.
struct Case {
  explicit Case(const test::Arguments& arguments)
      : kind(arguments.at(0)),
        root(arguments.at(1)),
        afterwards(arguments.at(2) == "fail" ? Afterwards::fail : Afterwards::succeed) {}

  CCache open() const { return open_cache(kind, root); }

  // Calls `operation` with ever more allocations that succeed, until none fails. It gets
  // their number and returns whether it worked.
  template <typename Operation>
  int try_all(const Operation& operation) const {
    std::size_t successes = 0;
    while (!operation(successes)) {
      ++successes;
    }
    if (successes == 0) {
      std::printf("nothing was allocated");
    }
    return 0;
  }

  const std::string kind;
  const std::string root;
  const Afterwards afterwards;
};

// Prints what went wrong, and after how many allocations. The tests expect no output.
void check(bool holds, const char* what, std::size_t successes) {
  if (!holds) {
    std::printf("%s after %zu allocations\n", what, successes);
  }
}

int add(const CCache& cache, const std::string& key) {
  const void* const atoms[] = {kAtom.data(), kAtom.data()};
  const std::size_t sizes[] = {kAtom.size(), 1};
  return qv_cache_add(cache.get(), key.data(), key.size(), atoms, sizes, 2);
}

// Parameters: the kind, and what the allocations after the failed one do.
class CCacheWithoutMemory : public testing::TestWithParam<std::vector<std::string>> {
 protected:
  void expect_none_wrong(const std::string& scenario) const {
    const TempDir root;
    const Ran ran =
        test::run_scenario(scenario, {{"QV_CACHE_STORE_SIZE", "0"}, {"QV_LOG_LEVEL", "OFF"}},
                           {GetParam().at(0), root.path(), GetParam().at(1)});
    EXPECT_TRUE(ran.exited_with(0)) << ran.status;
    EXPECT_EQ(ran.out, "");
  }
};

INSTANTIATE_TEST_SUITE_P(, CCacheWithoutMemory,
                         testing::ValuesIn(std::vector<std::vector<std::string>>{
                             {"basic", "succeed"},
                             {"basic", "fail"},
                             {"lazy_lookup", "succeed"},
                             {"lazy_lookup", "fail"},
                             {"indexed", "succeed"},
                             {"indexed", "fail"}}),
                         [](const testing::TestParamInfo<std::vector<std::string>>& tested) {
                           return tested.param[0] + "_others_" + tested.param[1];
                         });

}  // namespace

SCENARIO(open_without_memory) {
  const Case tested(arguments);
  add(tested.open(), kKey);
  return tested.try_all([&](std::size_t successes) {
    FailingAllocation failing(successes, tested.afterwards);
    errno = EBADF;
    const CCache cache(
        qv_cache_open(tested.kind.c_str(), tested.root.c_str(), "maps", QV_CACHE_MUST_EXIST));
    const int error = errno;
    const bool failed = FailingAllocation::end();
    check(cache != nullptr || error == ENOMEM, "another error", successes);
    check(failed || cache != nullptr, "null", successes);
    check(cache == nullptr || find(cache, kKey) != nullptr, "half", successes);
    return !failed;
  });
}

TEST_P(CCacheWithoutMemory, IsNotOpenedOrIsWhole) { expect_none_wrong("open_without_memory"); }

SCENARIO(add_without_memory) {
  const Case tested(arguments);
  const CCache cache = tested.open();
  add(cache, kKey);
  const std::string other_key = kKey + "2";
  return tested.try_all([&](std::size_t successes) {
    FailingAllocation failing(successes, tested.afterwards);
    errno = EBADF;
    const int added = add(cache, other_key);
    const int error = errno;
    const bool failed = FailingAllocation::end();
    check(added == (failed ? -1 : 1), "another result", successes);
    check(!failed || error == ENOMEM, "another error", successes);
    check(qv_cache_size(cache.get()) == (failed ? 1 : 2), "miscounted", successes);
    return !failed;
  });
}

TEST_P(CCacheWithoutMemory, TakesAnEntryOrSaysThatThereIsNoMemory) {
  expect_none_wrong("add_without_memory");
}

// Only an indexed cache copies what it finds. It can do without some of its allocations.
SCENARIO(get_without_memory) {
  const Case tested(arguments);
  add(tested.open(), kKey);
  const CCache cache = tested.open();
  find(cache, "none");  // makes the counters
  int refused = 0;
  tested.try_all([&](std::size_t successes) {
    FailingAllocation failing(successes, tested.afterwards);
    errno = EBADF;
    const qv_cache_value_t* const value = find(cache, kKey);
    const int error = errno;
    const bool failed = FailingAllocation::end();
    refused += value == nullptr ? 1 : 0;
    check(value != nullptr || (failed && error == ENOMEM), "another error", successes);
    check(value == nullptr || test::text_of(value) == kAtom + ",a", "another value", successes);
    return !failed;
  });
  return refused > 0 ? 0 : 1;
}

TEST(IndexedCCacheWithoutMemory, FindsAnEntryOrSaysThatThereIsNoMemory) {
  for (const char* afterwards : {"succeed", "fail"}) {
    const TempDir root;
    const Ran ran = test::run_scenario("get_without_memory", {{"QV_LOG_LEVEL", "OFF"}},
                                       {"indexed", root.path(), afterwards});
    EXPECT_TRUE(ran.exited_with(0)) << ran.status;
    EXPECT_EQ(ran.out, "");
  }
}

SCENARIO(flush_without_memory) {
  const Case tested(arguments);
  return tested.try_all([&](std::size_t successes) {
    const CCache cache = tested.open();
    const std::string key = kKey + std::to_string(successes);
    add(cache, key);
    FailingAllocation failing(successes, tested.afterwards);
    errno = EBADF;
    const int flushed = qv_cache_flush(cache.get());
    const int error = errno;
    const bool failed = FailingAllocation::end();
    check(failed || flushed == 0, "not flushed", successes);
    check(flushed == 0 || error == ENOMEM || error == EIO, "another error", successes);
    check(flushed != 0 || find(tested.open(), key) != nullptr, "not stored", successes);
    check(find(cache, key) != nullptr, "lost", successes);
    return !failed;
  });
}

TEST_P(CCacheWithoutMemory, FlushesOrSaysThatItHasNot) {
  expect_none_wrong("flush_without_memory");
}

SCENARIO(close_without_memory) {
  const Case tested(arguments);
  return tested.try_all([&](std::size_t successes) {
    CCache cache = tested.open();
    const std::string key = kKey + std::to_string(successes);
    add(cache, key);
    FailingAllocation failing(successes, tested.afterwards);
    errno = EBADF;
    const int closed = qv_cache_close(cache.release());
    const int error = errno;
    const bool failed = FailingAllocation::end();
    check(failed || closed == 0, "not stored", successes);
    check(closed == 0 || error == ENOMEM || error == EIO, "another error", successes);
    check((closed == 0) == (find(tested.open(), key) != nullptr), "untrue", successes);
    return !failed;
  });
}

TEST_P(CCacheWithoutMemory, SaysAtItsCloseWhetherItHasStored) {
  expect_none_wrong("close_without_memory");
}

int count_entry(const void* /*key*/, std::size_t /*size*/, const qv_cache_value_t* /*value*/,
                void* count) {
  ++*static_cast<int*>(count);
  return 0;
}

SCENARIO(iterate_without_memory) {
  const Case tested(arguments);
  add(tested.open(), kKey);
  const CCache cache = tested.open();
  return tested.try_all([&](std::size_t successes) {
    FailingAllocation failing(successes, tested.afterwards);
    errno = EBADF;
    int visited = 0;
    const int result = qv_cache_each(cache.get(), &count_entry, &visited);
    const int error = errno;
    const bool failed = FailingAllocation::end();
    check(result == (failed ? -1 : 0), "another result", successes);
    check(!failed || error == ENOMEM, "another error", successes);
    check(visited == (failed ? 0 : 1), "half", successes);
    return !failed;
  });
}

TEST(IndexedCCacheWithoutMemory, VisitsAllEntriesOrSaysThatThereIsNoMemory) {
  for (const char* afterwards : {"succeed", "fail"}) {
    const TempDir root;
    const Ran ran = test::run_scenario("iterate_without_memory", {{"QV_LOG_LEVEL", "OFF"}},
                                       {"indexed", root.path(), afterwards});
    EXPECT_TRUE(ran.exited_with(0)) << ran.status;
    EXPECT_EQ(ran.out, "");
  }
}

// A hint may be lost, but must not fail. The vector of keys is the first allocation.
SCENARIO(prefetch_without_memory) {
  const Case tested(arguments);
  add(tested.open(), kKey);
  const CCache cache = tested.open();
  const void* const keys[] = {kKey.data()};
  const std::size_t sizes[] = {kKey.size()};
  tested.try_all([&](std::size_t successes) {
    const FailingAllocation failing(successes, tested.afterwards);
    qv_cache_prefetch(cache.get(), keys, sizes, 1);
    return !FailingAllocation::end();
  });
  qv_cache_prefetch(cache.get(), keys, sizes, 0);
  return find(cache, kKey) != nullptr ? 0 : 1;
}

TEST_P(CCacheWithoutMemory, SurvivesAPrefetch) { expect_none_wrong("prefetch_without_memory"); }
