// What a basic store appends to its file, and what a failed append leaves.
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <string>
#include <vector>

#include "support/basic_root.h"
#include "support/no_memory.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_maps.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::BasicStore;
using quorvane::cache::Cache;
using quorvane::cache::EntryMap;
using quorvane::cache::StoreKind;
using test::basic_file;
using test::BasicRoot;
using test::buffer;
using test::buffers;
using test::entry_map;
using test::expectation;
using test::kEntries;
using test::Ran;
using test::without_lines;
using Maps = test::Maps<BasicStore>;
using Messages = std::vector<std::string>;

namespace {

// Allocations of this size or more fail. Without that, a sanitizer would end the process.
constexpr std::size_t kNoMemoryFrom = std::size_t{1} << 40;

}  // namespace

SCENARIO(append) {
  Maps().append({{"ccc", {"4", "55"}}, {"b", {"2"}}, {"aa", {"1"}}}, arguments);
  return 0;
}

TEST(BasicStoreAppend, MakesTheFileWithItsHeaderAndTheEntriesInKeyOrder) {
  const BasicRoot root;
  const Ran ran = root.run("append");
  EXPECT_EQ(ran.out, "append 1\n");
  EXPECT_EQ(root.bytes(), basic_file({{"b", {"2"}}, {"aa", {"1"}}, {"ccc", {"4", "55"}}}));
  EXPECT_EQ(ran.messages(), Messages{root.stored()});
}

TEST(BasicStoreAppend, LeavesWhatTheFileHolds) {
  const BasicRoot root(basic_file({{"zz", {"0"}}}));
  EXPECT_EQ(root.run("append").out, "append 1\n");
  EXPECT_EQ(root.bytes(),
            basic_file({{"zz", {"0"}}, {"b", {"2"}}, {"aa", {"1"}}, {"ccc", {"4", "55"}}}));
}

TEST(BasicStoreAppend, GivesAnEmptyFileItsHeader) {
  const BasicRoot root("");
  EXPECT_EQ(root.run("append").out, "append 1\n");
  EXPECT_EQ(root.bytes(), basic_file({{"b", {"2"}}, {"aa", {"1"}}, {"ccc", {"4", "55"}}}));
}

TEST(BasicStoreAppend, SkipsTheKeysThatOthersStored) {
  const BasicRoot root;
  EXPECT_EQ(root.run("append", {"aa", "unknown"}).out, "append 1\n");
  EXPECT_EQ(root.bytes(), basic_file({{"b", {"2"}}, {"ccc", {"4", "55"}}}));
}

SCENARIO(append_nothing) {
  Maps().append({});
  return 0;
}

TEST(BasicStoreAppend, OfNothingMakesAFileOfTheHeader) {
  const BasicRoot root;
  EXPECT_EQ(root.run("append_nothing").out, "append 1\n");
  EXPECT_EQ(root.bytes(), basic_file({}));
}

SCENARIO(append_large) {
  Maps().append({{"large", {std::string(3000000, 'x'), "y"}}, {"small", {"z"}}});
  return 0;
}

TEST(BasicStoreAppend, WritesLargeEntriesWhole) {
  const BasicRoot root;
  EXPECT_EQ(root.run("append_large").out, "append 1\n");
  EXPECT_EQ(root.bytes(),
            basic_file({{"large", {std::string(3000000, 'x'), "y"}}, {"small", {"z"}}}));
}

TEST(BasicStoreAppend, AFileThatCannotBeOpenedIsReportedAndNotStored) {
  const BasicRoot root;
  const Ran ran = test::run_scenario(
      "append", {{"QV_CACHE_STORE_ROOT", root.maps()}, {"QV_LOG_LEVEL", "WARN"}});
  EXPECT_EQ(ran.out, "append 0\n");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{expectation("file.good()"), expectation("!fbuffer_corrupted && file.good()"),
                      "WARN Cache file " + root.maps() +
                          "/maps removed as it couldn't be stored correctly"}));
}

// A value with a size but no bytes can't be written to a buffer.
SCENARIO(append_unwritable) {
  Maps maps;
  EntryMap diff = entry_map({{"a", {"1"}}, {"ccc", {"3"}}});
  diff.emplace(buffer("bb"), std::vector{quorvane::util::RoBuffer::view(nullptr, 5)});
  maps.append_map(diff);
  return 0;
}

TEST(BasicStoreAppend, AnEntryThatCannotBeWrittenCostsTheWholeFile) {
  const BasicRoot root(basic_file(kEntries));
  const Ran ran = root.run("append_unwritable", {}, "WARN");
  EXPECT_EQ(ran.out, "append 0\n");
  EXPECT_FALSE(test::exists(root.maps()));
  const Messages messages = without_lines(ran.messages());
  ASSERT_EQ(messages.size(), 4u) << ran.log;
  EXPECT_EQ(messages[0],
            expectation("fwriter.put_raw(val_atom.get_buffer(), val_atom.get_size())"));
  EXPECT_EQ(messages[1], expectation("!fbuffer_corrupted && file.good()"));
  // The library logs a removal error although the removal succeeded.
  EXPECT_EQ(messages[2].rfind("WARN Error removing file " + root.maps() + ": ", 0), 0u);
  EXPECT_EQ(messages[2].back(), '\n');
  EXPECT_EQ(messages[3], root.removed());
}

// A value that claims to be larger than the memory.
SCENARIO(append_unallocatable) {
  test::no_memory_from = kNoMemoryFrom;
  Cache cache("maps", test::maps_store(StoreKind::basic), false);
  cache.add_value(buffer("a"), buffers({"1"}));
  cache.add_value(buffer("bb"), {quorvane::util::RoBuffer::view("x", kNoMemoryFrom)});
  return 0;
}

TEST(BasicStoreAppend, AnEntryForWhichThereIsNoMemoryLeavesTheFileAsItWas) {
  const Messages expected{"ERROR Storing maps cache failed: std::bad_alloc",
                          expectation("store_->try_store_diff(diff_map_)")};
  const BasicRoot root(basic_file(kEntries));
  const Ran ran = root.run("append_unallocatable", {}, "ERROR");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(root.bytes(), basic_file(kEntries));
  EXPECT_EQ(without_lines(ran.messages()), expected);
  const BasicRoot fresh;
  EXPECT_EQ(without_lines(fresh.run("append_unallocatable", {}, "ERROR").messages()), expected);
  EXPECT_FALSE(test::exists(fresh.maps()));
}
