// Caches without memory. Each allocation of an operation fails in turn, alone or with all later
// ones.
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "support/hostile.h"
#include "support/lazy_files.h"
#include "support/no_memory.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::Cache;
using quorvane::cache::make_file_store;
using quorvane::cache::Store;
using quorvane::cache::StoreKind;
using quorvane::util::RoBuffer;
using test::Afterwards;
using test::buffer;
using test::buffers;
using test::Entry;
using test::FailingAllocation;
using test::no_limit;
using test::Ran;
using test::StoreRoot;
using test::TempDir;
using Messages = std::vector<std::string>;

namespace {

// Too long for a string to hold without an allocation.
const std::string kName = "maps-with-a-name-that-takes-memory-of-its-own";

const std::vector<Entry> kOld{
    {"b", {"2", "3"}}, {"aa", {"1"}}, {"large", {std::string(5000, 'o')}}};
const std::vector<Entry> kNew{
    {"n", {"4"}}, {"nn", {"5", "66"}}, {"large-too", {std::string(20000, 'n')}}};

std::string listing_of(std::vector<Entry> entries) {
  return test::listing(test::entry_map(entries));
}

std::string all_entries() {
  std::vector<Entry> all = kOld;
  all.insert(all.end(), kNew.begin(), kNew.end());
  return listing_of(all);
}

Afterwards afterwards_of(const std::string& name) {
  return name == "fail" ? Afterwards::fail : Afterwards::succeed;
}

// What a scenario does, parsed from its arguments.
struct Case {
  explicit Case(const test::Arguments& arguments)
      : kind(arguments.at(0) == "lazy" ? StoreKind::lazy_lookup : StoreKind::basic),
        afterwards(afterwards_of(arguments.at(1))),
        has_files(arguments.at(2) == "files") {}

  static std::string file(const std::string& prefix) { return test::root_file(prefix + kName); }

  // Resets the root to what it holds before an operation.
  void reset_files() const {
    for (const char* prefix : {"", "key_", "val_"}) {
      std::remove(file(prefix).c_str());
    }
    if (has_files && kind == StoreKind::basic) {
      test::write_file(file(""), test::basic_file(kOld));
    } else if (has_files) {
      const test::LazyFiles files = test::lazy_files(kOld);
      test::write_file(file("key_"), files.key);
      test::write_file(file("val_"), files.val);
    }
  }

  std::unique_ptr<Store> make_store() const { return make_file_store(kind, kName, &no_limit()); }

  // What the next cache finds, or "invalid".
  std::string stored() const {
    const Cache cache(kName, make_store(), false);
    return cache.is_valid() ? test::listing(cache) : "invalid";
  }

  std::string expected() const { return has_files ? listing_of(kOld) : ""; }

  const StoreKind kind;
  const Afterwards afterwards;
  const bool has_files;
};

// Prints what went wrong, and after how many allocations. The tests expect no output.
void check(bool holds, const char* what, std::size_t successes) {
  if (!holds) {
    std::printf("%s after %zu allocations\n", what, successes);
  }
}

const std::string kNoStore = "WARN Couldn't make a store for " + kName + " cache: std::bad_alloc";
const std::string kCreationFailed = "ERROR Couldn't create " + kName + " cache";

bool reports_failure(const Messages& messages) {
  return std::any_of(messages.begin(), messages.end(), [](const std::string& message) {
    return message.rfind(kCreationFailed, 0) == 0;
  });
}

// Parameters: the kind of store, what the allocations after the failed one do, whether the store
// has files.
class CacheWithoutMemory : public testing::TestWithParam<std::vector<std::string>> {
 protected:
  void expect_none_wrong(const std::string& scenario) const {
    const Ran ran = StoreRoot().run(scenario, GetParam());
    EXPECT_TRUE(ran.exited_with(0)) << ran.status;
    EXPECT_EQ(ran.out, "");
  }
};

INSTANTIATE_TEST_SUITE_P(, CacheWithoutMemory,
                         testing::ValuesIn(std::vector<std::vector<std::string>>{
                             {"basic", "succeed", "files"},
                             {"basic", "fail", "files"},
                             {"basic", "succeed", "none"},
                             {"basic", "fail", "none"},
                             {"lazy", "succeed", "files"},
                             {"lazy", "fail", "files"},
                             {"lazy", "succeed", "none"},
                             {"lazy", "fail", "none"}}),
                         [](const testing::TestParamInfo<std::vector<std::string>>& tested) {
                           return tested.param[0] + "_others_" + tested.param[1] + "_" +
                                  tested.param[2];
                         });

}  // namespace

// --- construction ---

SCENARIO(construct_without_memory) {
  const Case tested(arguments);
  test::LogTail log;
  bool failed = true;
  std::size_t successes = 0;
  for (; failed; ++successes) {
    tested.reset_files();
    std::unique_ptr<Store> store = tested.make_store();
    log.next();
    FailingAllocation failing(successes, tested.afterwards);
    Cache cache(kName, std::move(store), true);
    failed = FailingAllocation::end();
    check(failed || cache.is_valid(), "invalid", successes);
    check(cache.is_valid() || reports_failure(log.next()), "silent", successes);
    check(test::listing(cache) == (cache.is_valid() ? tested.expected() : ""), "half", successes);
    check(cache.is_valid() || cache.get_value(buffer("b")) == nullptr, "found", successes);
    check(tested.stored() == tested.expected(), "lost", successes);
  }
  check(successes > 1, "over", successes);
  return 0;
}

TEST_P(CacheWithoutMemory, IsInvalidAndLeavesTheStoreAsItIs) {
  expect_none_wrong("construct_without_memory");
}

// --- the making of a store ---

SCENARIO(make_a_store_without_memory) {
  const Case tested(arguments);
  no_limit();
  test::LogTail log;
  bool failed = true;
  std::size_t successes = 0;
  for (; failed; ++successes) {
    tested.reset_files();
    log.next();
    FailingAllocation failing(successes, tested.afterwards);
    const std::unique_ptr<Store> store = tested.make_store();
    failed = FailingAllocation::end();
    const Messages messages = log.next();
    check(failed || (store && store->is_valid()), "none", successes);
    check(store || messages == Messages{kNoStore}, "other records", successes);
    check(tested.stored() == tested.expected(), "lost", successes);
  }
  check(successes > 1, "over", successes);
  return 0;
}

TEST_P(CacheWithoutMemory, GetsNoStoreWithOneWarningAndTheNextOneGetsIt) {
  expect_none_wrong("make_a_store_without_memory");
}

std::unique_ptr<Store> make_without_memory(const Case& tested) {
  const FailingAllocation failing(0, Afterwards::fail);
  return tested.make_store();
}

SCENARIO(no_store_for_lack_of_memory) {
  const Case tested({"basic", "fail", "none"});
  no_limit();
  const Cache invalid(kName, make_without_memory(tested), false);
  Cache fallback(kName, make_without_memory(tested), true);
  std::printf("%d %d %d", invalid.is_valid(), fallback.is_valid(),
              fallback.add_value(buffer("k"), buffers({"v"})));
  return 0;
}

TEST(CacheWithoutAStore, ForLackOfMemoryIsAsIfNoneHadBeenAskedFor) {
  const Ran ran = StoreRoot().run("no_store_for_lack_of_memory");
  EXPECT_EQ(ran.out, "0 1 1");
  EXPECT_EQ(ran.messages(),
            (Messages{kNoStore, kNoStore, "INFO Created " + kName + " cache with no store"}));
}

// --- destruction ---

SCENARIO(destroy_without_memory) {
  const Case tested(arguments);
  const std::string with_new = tested.has_files ? all_entries() : listing_of(kNew);
  bool failed = true;
  std::size_t successes = 0;
  for (; failed; ++successes) {
    tested.reset_files();
    auto cache = std::make_unique<Cache>(kName, tested.make_store(), false);
    for (const Entry& entry : kNew) {
      cache->add_value(buffer(entry.key), buffers(entry.atoms));
    }
    FailingAllocation failing(successes, tested.afterwards);
    cache.reset();
    failed = FailingAllocation::end();
    const std::string found = tested.stored();
    check(failed || found == with_new, "not stored", successes);
    check(found == tested.expected() || found == with_new, "harmed", successes);
  }
  check(successes > 1, "over", successes);
  return 0;
}

TEST_P(CacheWithoutMemory, StoresAllOrNothingOfWhatWasAdded) {
  expect_none_wrong("destroy_without_memory");
}

// --- look-ups and additions ---

SCENARIO(add_without_memory) {
  const Case tested(arguments);
  test::LogTail log;
  tested.reset_files();
  Cache cache(kName, tested.make_store(), false);
  const std::size_t before = cache.size();
  const RoBuffer key = buffer("key");
  bool failed = true;
  std::size_t successes = 0;
  for (; failed; ++successes) {
    std::vector<RoBuffer> value = buffers({"value"});
    log.next();
    FailingAllocation failing(successes, tested.afterwards);
    const bool added = cache.add_value(key, std::move(value));
    const std::size_t size = cache.size();
    failed = FailingAllocation::end();
    check(added == !failed, "neither", successes);
    check(size == before + (added ? 1 : 0), "miscounted", successes);
    check(added || log.next() ==
                       Messages{"WARN Refused to add an entry to " + kName + " cache: no memory"},
          "other records", successes);
    check(added == (cache.get_value(key) != nullptr), "half", successes);
  }
  return 0;
}

TEST_P(CacheWithoutMemory, TakesAnEntryOrRefusesItWithOneWarning) {
  expect_none_wrong("add_without_memory");
}

// The first look-up of the process makes the counters.
SCENARIO(first_look_up_without_memory) {
  Cache cache("maps", nullptr, true);
  cache.add_value(buffer("k"), buffers({"v"}));
  const RoBuffer key = buffer("k");
  const RoBuffer missing = buffer("none");
  FailingAllocation failing(std::stoul(arguments.at(0)), afterwards_of(arguments.at(1)));
  const bool found = cache.get_value(key) != nullptr && cache.get_value(missing) == nullptr;
  const bool failed = FailingAllocation::end();
  const bool goes_on = cache.get_value(key) != nullptr && cache.get_value(missing) == nullptr;
  std::printf("%d %d", found && goes_on, failed);
  return 0;
}

// Expects that each first look-up works, and returns how many of them lacked memory.
std::size_t failing_look_ups(const test::Environment& environment, const std::string& afterwards) {
  for (std::size_t successes = 0;; ++successes) {
    const Ran ran = test::run_scenario("first_look_up_without_memory", environment,
                                       {std::to_string(successes), afterwards});
    EXPECT_TRUE(ran.exited_with(0)) << successes;
    EXPECT_EQ(ran.out.substr(0, 1), "1") << successes;
    if (ran.out != "1 1") {
      return successes;
    }
  }
}

// Unlike the real recorder, this one shares the C++ runtime of the program.
TEST(CacheLookUpWithoutMemory, TheFirstFindsWhatIsThereWhetherItIsCountedOrNot) {
  for (const char* afterwards : {"succeed", "fail"}) {
    failing_look_ups({}, afterwards);
    const TempDir dir;
    const test::Environment counted{{"QV_STATS_REPORT_FILE", dir.file("report")},
                                    {"LD_LIBRARY_PATH", QV_COUNTING_RECORDER_DIR}};
    EXPECT_GT(failing_look_ups(counted, afterwards), 0u);
    EXPECT_NE(test::read_file(dir.file("report")).find("cache_hits"), std::string::npos);
  }
}
