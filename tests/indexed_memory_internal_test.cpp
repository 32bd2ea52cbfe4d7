// Indexed stores without memory. Each allocation of an operation fails in turn, alone or with
// all later ones.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "support/hostile.h"
#include "support/indexed_store.h"
#include "support/no_memory.h"
#include "support/scenario.h"
#include "support/store_root.h"

using quorvane::cache::EntryMap;
using quorvane::cache::indexed::Engine;
using quorvane::util::RoBuffer;
using test::Afterwards;
using test::Entry;
using test::FailingAllocation;
using test::Ran;
using test::StoreRoot;

namespace {

const std::vector<Entry> kOld = test::numbered_entries(0, 40);
const std::vector<Entry> kNew = test::numbered_entries(400, 420);
const std::vector<Entry> kMany = test::numbered_entries(400, 1100);  // outgrow the first index

// Written with several calls. The last one needs more memory than those before.
const std::vector<Entry> kLarge = [] {
  std::vector<Entry> entries;
  for (char letter = 'a'; letter < 'z'; ++letter) {
    entries.push_back({std::string(1, letter), {std::string(100000, letter)}});
  }
  entries.push_back({"last", {std::string(5000000, '!')}});
  return entries;
}();

// A store with its lock, which tells whether it was released.
struct Store {
  std::shared_ptr<test::CountingLock> lock = std::make_shared<test::CountingLock>();
  Engine engine{test::root_path(), "maps", lock};
};

std::unique_ptr<Store> open_store() {
  auto store = std::make_unique<Store>();
  store->engine.open();
  return store;
}

std::unique_ptr<Store> closed_store() { return std::make_unique<Store>(); }

bool has(Engine& store, const std::vector<Entry>& entries) {
  return test::count_found(store, entries) == static_cast<int>(entries.size());
}

struct Operation {
  std::function<std::unique_ptr<Store>()> prepare;
  std::function<bool(Engine&)> run;
  std::vector<Entry> added;
  bool may_throw;
  bool reports;  // a failure
};

// The key and what is stored are made before memory runs out.
std::map<std::string, Operation> operations() {
  const auto open = [](Engine& store) { return store.open(); };
  const auto add = [](const std::vector<Entry>& entries) {
    return [map = test::entry_map(entries)](Engine& store) { return store.store(map); };
  };
  const auto find = [key = test::buffer("key7")](Engine& store) {
    std::vector<RoBuffer> value;
    return store.find(key, value) && value.size() == 2;
  };
  return {{"open", {closed_store, open, {}, false, true}},
          {"rebuild",
           {[] {
              unlink(test::index_path().c_str());
              return closed_store();
            },
            open,
            {},
            false,
            true}},
          {"append", {open_store, add(kNew), kNew, false, true}},
          {"growth", {open_store, add(kMany), kMany, false, true}},
          {"large append", {open_store, add(kLarge), kLarge, false, true}},
          {"find", {open_store, find, {}, true, false}},
          {"find in new files",
           {[] {
              auto store = open_store();
              open_store()->engine.store(test::entry_map(kMany));
              return store;
            },
            [key = test::buffer("key777")](Engine& store) {
              std::vector<RoBuffer> value;
              return store.find(key, value);
            },
            {},
            true,
            false}},
          {"read all",
           {open_store,
            [](Engine& store) {
              EntryMap all;
              return store.read_all(all) && all.size() == kOld.size();
            },
            {},
            true,
            false}},
          {"prefetch",
           {open_store,
            [key = test::buffer("key7")](Engine& store) {
              store.prefetch(&key, 1);
              return store.entries() == kOld.size();
            },
            {},
            false,
            false}}};
}

void start_again(bool with_old) {
  for (const auto& file : std::filesystem::directory_iterator(test::root_path())) {
    std::filesystem::remove(file);
  }
  if (with_old) {
    open_store()->engine.store(test::entry_map(kOld));
  }
}

enum class Outcome { done, failed, thrown };

Outcome outcome_of(const Operation& operation, Engine& store) try {
  return operation.run(store) ? Outcome::done : Outcome::failed;
} catch (const std::bad_alloc&) {
  return Outcome::thrown;
}

// Prints what went wrong, and after how many allocations. The tests expect no output.
void check(bool holds, const char* what, std::size_t successes) {
  if (!holds) {
    std::printf("%s after %zu allocations\n", what, successes);
  }
}

// The same object, and then a new one.
void check_that_all_works(const Operation& operation, Outcome outcome, Store& store, bool had_old,
                          std::size_t successes) {
  check(store.lock->locked == store.lock->unlocked, "locked", successes);
  Store next;
  check(next.engine.open() && (!had_old || has(next.engine, kOld)), "harmed", successes);
  const int found = test::count_found(next.engine, operation.added);
  check(found == (outcome == Outcome::done ? static_cast<int>(operation.added.size()) : 0), "half",
        successes);
  const std::vector<Entry> more = test::numbered_entries(2000, 2010);
  check(store.engine.open() && store.engine.store(test::entry_map(more)) &&
            has(store.engine, more) && has(next.engine, more),
        "broken", successes);
  check(test::count_found(next.engine, operation.added) == found, "half later", successes);
}

}  // namespace

// Arguments: the operation, whether there are files, what later allocations do.
SCENARIO(fail_allocations) {
  const Operation operation = operations().at(arguments.at(0));
  const bool with_old = arguments.at(1) == "files";
  const auto afterwards = arguments.at(2) == "fail" ? Afterwards::fail : Afterwards::succeed;
  test::LogTail log;
  bool failed = true;
  std::size_t successes = 0;
  for (; failed; ++successes) {
    start_again(with_old);
    const auto store = operation.prepare();
    log.next();
    FailingAllocation failing(successes, afterwards);
    const Outcome outcome = outcome_of(operation, store->engine);
    failed = FailingAllocation::end();
    const std::size_t records = log.next().size();
    check(failed || outcome == Outcome::done, "no success", successes);
    check(outcome != Outcome::thrown || operation.may_throw, "thrown", successes);
    check(records == (operation.reports && outcome != Outcome::done ? 1 : 0), "other records",
          successes);
    check_that_all_works(operation, outcome, *store, with_old, successes);
  }
  std::printf("%d", successes > 1);
  return 0;
}

namespace {

void expect_none_wrong(const std::string& operation, const std::string& files,
                       const std::string& out = "1") {
  for (const char* afterwards : {"succeed", "fail"}) {
    const Ran ran = StoreRoot().run("fail_allocations", {operation, files, afterwards}, "WARN");
    EXPECT_TRUE(ran.exited_with(0)) << ran.status << ran.err;
    EXPECT_EQ(ran.out, out) << afterwards;
  }
}

TEST(IndexedStoreWithoutMemory, IsCreatedOrCreatedByTheNext) { expect_none_wrong("open", "none"); }
TEST(IndexedStoreWithoutMemory, OpensOrReportsThatItCannot) { expect_none_wrong("open", "files"); }
TEST(IndexedStoreWithoutMemory, MakesItsIndexOrLeavesThatToTheNext) {
  expect_none_wrong("rebuild", "files");
}
TEST(IndexedStoreWithoutMemory, StoresAllOrNothing) { expect_none_wrong("append", "files"); }
TEST(IndexedStoreWithoutMemory, StoresAllOrNothingOfSeveralWrites) {
  expect_none_wrong("large append", "files");
}
TEST(IndexedStoreWithoutMemory, GrowsAndStoresAllOrNothing) {
  expect_none_wrong("growth", "files");
}
TEST(IndexedStoreWithoutMemory, FindsAnEntryOrThrows) { expect_none_wrong("find", "files"); }
TEST(IndexedStoreWithoutMemory, FindsAnEntryInNewFilesOrThrows) {
  expect_none_wrong("find in new files", "files");
}
TEST(IndexedStoreWithoutMemory, ReadsAllOrThrows) { expect_none_wrong("read all", "files"); }
TEST(IndexedStoreWithoutMemory, PrefetchesWithoutAnAllocation) {
  expect_none_wrong("prefetch", "files", "0");
}

}  // namespace
