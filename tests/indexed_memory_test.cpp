// Caches on indexed stores without memory. Each allocation of an operation fails in turn, alone
// or with all later ones.
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/hostile.h"
#include "support/indexed_cache.h"
#include "support/no_memory.h"
#include "support/scenario.h"
#include "support/store_root.h"

namespace {

using quorvane::cache::Cache;
using quorvane::util::RoBuffer;
using test::add;
using test::Afterwards;
using test::buffer;
using test::buffers;
using test::FailingAllocation;
using test::get;
using test::open_cache;
using test::Ran;
using test::root_path;
using test::StoreRoot;
using Messages = std::vector<std::string>;

constexpr std::size_t kOld = 5;

std::string old_key(std::size_t number) { return test::numbered("old", number); }

// Long enough for allocations of their own.
const std::string kValue(300, 'v');
const std::string kNewKey = "new";

// The store before each attempt.
void reset_files() {
  for (const char* file : {"dat_maps", "idx_maps", "new_maps"}) {
    std::remove(test::root_file(file).c_str());
  }
  const auto cache = open_cache(root_path());
  for (std::size_t i = 0; i < kOld; ++i) {
    add(*cache, old_key(i), kValue);
  }
}

// Prints what went wrong, and after how many allocations. The tests expect no output.
void check(bool holds, const char* what, std::size_t successes) {
  if (!holds) {
    std::printf("%s after %zu allocations\n", what, successes);
  }
}

// What another cache finds: all that was stored, and the new entry or not.
bool others_find(bool has_new) {
  const auto cache = open_cache(root_path());
  bool good = cache->size() == kOld + (has_new ? 1 : 0);
  for (std::size_t i = 0; i < kOld; ++i) {
    good = good && get(*cache, old_key(i)) == kValue;
  }
  return good && get(*cache, kNewKey).has_value() == has_new;
}

struct Shortage {
  void begin() { failing_.emplace(successes, afterwards); }
  // Whether an allocation has failed.
  bool end() {
    const bool failed = FailingAllocation::end();
    failing_.reset();
    return failed;
  }

  std::size_t successes;
  Afterwards afterwards;
  std::optional<FailingAllocation> failing_{};
};

// Repeats `attempt` until it has all the memory that it asks for. It begins and ends the
// shortage itself, and returns what end() has returned.
int repeat(const test::Arguments& arguments, const std::function<bool(Shortage&)>& attempt) {
  alarm(test::kHangSeconds);
  const auto afterwards = arguments.at(0) == "fail" ? Afterwards::fail : Afterwards::succeed;
  reset_files();
  open_cache(root_path())->get_value(buffer("makes the statistics"));
  std::size_t successes = 0;
  for (bool failed = true; failed; ++successes) {
    reset_files();
    Shortage shortage{successes, afterwards};
    failed = attempt(shortage);
  }
  check(successes > 1, "over", successes);
  return 0;
}

class IndexedCacheWithoutMemory : public testing::TestWithParam<std::string> {
 protected:
  Messages expect_none_wrong(const std::string& scenario) const {
    const Ran ran = StoreRoot().run_unlimited(scenario, {GetParam()});
    EXPECT_TRUE(ran.exited_with(0)) << ran.status;
    EXPECT_EQ(ran.out, "");
    Messages messages = ran.messages();
    EXPECT_EQ(messages.front(), "INFO Statistics capture disabled.");
    messages.erase(messages.begin());
    return messages;
  }
};

INSTANTIATE_TEST_SUITE_P(, IndexedCacheWithoutMemory, testing::Values("succeed", "fail"),
                         [](const auto& tested) { return "Others_" + tested.param; });

}  // namespace

// --- opening ---

SCENARIO(open_without_memory) {
  const auto options = test::indexed_options(root_path());
  return repeat(arguments, [&](Shortage& shortage) {
    shortage.begin();
    auto store = quorvane::cache::make_store(options);
    Cache cache("maps", std::move(store), false);
    const bool failed = shortage.end();
    check(failed || cache.is_valid(), "invalid", shortage.successes);
    check(get(cache, old_key(0)).has_value() == cache.is_valid(), "half", shortage.successes);
    check(others_find(false), "harmed", shortage.successes);
    return failed;
  });
}

TEST_P(IndexedCacheWithoutMemory, IsValidOrNotAndHarmsNothing) {
  expect_none_wrong("open_without_memory");
}

// --- look-ups ---

SCENARIO(find_without_memory_in_an_indexed_store) {
  const RoBuffer key = buffer(old_key(1));
  const RoBuffer missing = buffer("missing");
  return repeat(arguments, [&](Shortage& shortage) {
    const auto cache = open_cache(root_path());
    shortage.begin();
    const auto* value = cache->get_value(key);
    const auto* none = cache->get_value(missing);
    const bool failed = shortage.end();
    check(none == nullptr, "found nothing", shortage.successes);
    check(failed || value != nullptr, "neither", shortage.successes);
    check(value == nullptr || cache->get_value(key) == value, "moved", shortage.successes);
    check(get(*cache, old_key(1)) == kValue, "lost", shortage.successes);
    return failed;
  });
}

TEST_P(IndexedCacheWithoutMemory, MissesWithAWarningAndFindsLater) {
  const Messages messages = expect_none_wrong("find_without_memory_in_an_indexed_store");
  EXPECT_GT(messages.size(), 2U);
  for (const std::string& message : messages) {
    EXPECT_EQ(message, "WARN A look-up in maps cache failed: std::bad_alloc");
  }
}

// --- additions ---

SCENARIO(add_without_memory_to_an_indexed_store) {
  const RoBuffer key = buffer(kNewKey);
  const RoBuffer present = buffer(old_key(2));
  return repeat(arguments, [&](Shortage& shortage) {
    const auto cache = open_cache(root_path());
    std::vector<RoBuffer> value = buffers({kValue});
    std::vector<RoBuffer> other = buffers({"other"});
    shortage.begin();
    const bool added = cache->add_value(key, std::move(value));
    const bool added_again = cache->add_value(present, std::move(other));
    const bool failed = shortage.end();
    check(!added_again, "added again", shortage.successes);
    check(added || failed, "neither", shortage.successes);
    check(added == get(*cache, kNewKey).has_value(), "half", shortage.successes);
    check(get(*cache, old_key(2)) == kValue, "replaced", shortage.successes);
    check(cache->flush() && others_find(added), "harmed", shortage.successes);
    return failed;
  });
}

TEST_P(IndexedCacheWithoutMemory, TakesAnEntryOrRefusesIt) {
  for (const std::string& message : expect_none_wrong("add_without_memory_to_an_indexed_store")) {
    EXPECT_EQ(message, "WARN Refused to add an entry to maps cache: no memory");
  }
}

// --- flushes ---

SCENARIO(flush_without_memory_to_an_indexed_store) {
  return repeat(arguments, [&](Shortage& shortage) {
    const auto cache = open_cache(root_path());
    add(*cache, kNewKey, kValue);
    shortage.begin();
    const bool flushed = cache->flush();
    const bool failed = shortage.end();
    check(flushed || failed, "not flushed", shortage.successes);
    check(others_find(flushed) || (!flushed && others_find(true)), "harmed", shortage.successes);
    check(cache->flush() && others_find(true), "not repeated", shortage.successes);
    check(test::indexed_entries(root_path()).size() == kOld + 1, "twice", shortage.successes);
    return failed;
  });
}

TEST_P(IndexedCacheWithoutMemory, FlushesOrNotAndCanRepeatIt) {
  expect_none_wrong("flush_without_memory_to_an_indexed_store");
}

SCENARIO(destroy_without_memory_on_an_indexed_store) {
  return repeat(arguments, [&](Shortage& shortage) {
    auto cache = open_cache(root_path());
    add(*cache, kNewKey, kValue);
    shortage.begin();
    cache.reset();
    const bool failed = shortage.end();
    check(failed ? others_find(true) || others_find(false) : others_find(true), "harmed",
          shortage.successes);
    return failed;
  });
}

TEST_P(IndexedCacheWithoutMemory, StoresAtItsEndOrNot) {
  expect_none_wrong("destroy_without_memory_on_an_indexed_store");
}

// --- all entries ---

SCENARIO(visit_without_memory) {
  const RoBuffer keys[] = {buffer(old_key(0)), buffer("missing")};
  return repeat(arguments, [&](Shortage& shortage) {
    const auto cache = open_cache(root_path());
    add(*cache, kNewKey, kValue);
    shortage.begin();
    std::size_t visited = 0;
    for (const auto& entry : *cache) {
      visited += entry.second.size();
    }
    const std::size_t size = cache->size();
    cache->prefetch(keys, 2);
    const bool failed = shortage.end();
    check(visited == kOld + 1 || (failed && visited == 1), "half", shortage.successes);
    check(size == kOld + 1 || (failed && size == 1), "miscounted", shortage.successes);
    visited = 0;
    for (const auto& entry : *cache) {
      visited += entry.second.size();
    }
    check(visited == kOld + 1 && cache->size() == visited, "not repeated", shortage.successes);
    return failed;
  });
}

TEST_P(IndexedCacheWithoutMemory, VisitsAndCountsAllOrOnlyWhatWasAdded) {
  expect_none_wrong("visit_without_memory");
}
