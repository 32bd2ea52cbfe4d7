// What a lazy store appends to its two files, and what a failed append leaves.
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/lazy_files.h"
#include "support/lazy_root.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_maps.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::EntryMap;
using quorvane::cache::LazyLookupStore;
using quorvane::util::RoBuffer;
using test::add_to;
using test::buffer;
using test::buffers;
using test::Entry;
using test::entry_map;
using test::expectation;
using test::expectation_at;
using test::kEntries;
using test::lazy_files;
using test::lazy_lines;
using test::LazyFiles;
using test::LazyRoot;
using test::Ran;
using Maps = test::Maps<LazyLookupStore>;
using Messages = std::vector<std::string>;

namespace {

// What the scenario "append" stores, in the order of the files.
const std::vector<Entry> kAppended{{"b", {"2"}}, {"aa", {"1"}}, {"ccc", {"4", "55"}}};

}  // namespace

SCENARIO(append) {
  Maps().append({{"ccc", {"4", "55"}}, {"b", {"2"}}, {"aa", {"1"}}}, arguments);
  return 0;
}

TEST(LazyStoreAppend, MakesBothFilesWithTheirHeadersAndTheEntriesInKeyOrder) {
  const LazyRoot root;
  const Ran ran = root.run("append");
  EXPECT_EQ(ran.out, "append 1\n");
  EXPECT_EQ(root.files(), lazy_files(kAppended));
  EXPECT_EQ(ran.messages(), Messages{root.stored()});
}

TEST(LazyStoreAppend, LeavesWhatTheFilesHold) {
  const LazyRoot root(lazy_files(kEntries));
  EXPECT_EQ(root.run("append").out, "append 1\n");
  EXPECT_EQ(root.files(), add_to(lazy_files(kEntries), kAppended));
}

TEST(LazyStoreAppend, PointsBehindValuesThatNoKeyPointsAt) {
  LazyFiles files = lazy_files(kEntries);
  files.val += "left by a process that was killed";
  const LazyRoot root(files);
  EXPECT_EQ(root.run("append").out, "append 1\n");
  EXPECT_EQ(root.files(), add_to(files, kAppended));
}

TEST(LazyStoreAppend, GivesEmptyFilesTheirHeaders) {
  const LazyRoot root({"", ""});
  EXPECT_EQ(root.run("append").out, "append 1\n");
  EXPECT_EQ(root.files(), lazy_files(kAppended));
}

TEST(LazyStoreAppend, MakesTheHalfOfAPairThatIsMissing) {
  LazyFiles files = lazy_files({});
  files.val += "left behind";
  const LazyRoot keyless(files);
  std::remove(keyless.key().c_str());
  EXPECT_EQ(keyless.run("append").out, "append 1\n");
  EXPECT_EQ(keyless.files(), add_to(files, kAppended));
  const LazyRoot valueless(lazy_files({}));
  std::remove(valueless.val().c_str());
  EXPECT_EQ(valueless.run("append").out, "append 1\n");
  EXPECT_EQ(valueless.files(), lazy_files(kAppended));
}

TEST(LazyStoreAppend, SkipsTheKeysThatOthersStored) {
  const LazyRoot root;
  EXPECT_EQ(root.run("append", {"aa", "unknown"}).out, "append 1\n");
  EXPECT_EQ(root.files(), lazy_files({{"b", {"2"}}, {"ccc", {"4", "55"}}}));
}

TEST(LazyStoreAppend, OfNothingButSkippedKeysReportsTheFilesStoredAllTheSame) {
  const LazyRoot root;
  const Ran ran = root.run("append", {"aa", "b", "ccc"});
  EXPECT_EQ(ran.out, "append 1\n");
  EXPECT_EQ(root.files(), lazy_files({}));
  EXPECT_EQ(ran.messages(), Messages{root.stored()});
}

SCENARIO(append_large) {
  Maps().append({{"large", {std::string(3000000, 'x'), "y"}}, {std::string(100000, 'k'), {"z"}}});
  return 0;
}

TEST(LazyStoreAppend, WritesLargeEntriesWhole) {
  const LazyRoot root;
  EXPECT_EQ(root.run("append_large").out, "append 1\n");
  EXPECT_EQ(root.files(), lazy_files({{"large", {std::string(3000000, 'x'), "y"}},
                                      {std::string(100000, 'k'), {"z"}}}));
}

SCENARIO(append_unreadable) {
  EntryMap diff;
  diff.emplace(buffer("k"), buffers(arguments));
  Maps maps;
  maps.append_map(diff);
  maps.load();
  return 0;
}

// The append succeeds, but no process can read the files any more.
TEST(LazyStoreAppend, StoresAValueWithoutAtomsThatTheNextLoadRefuses) {
  const LazyRoot root;
  const Ran ran = root.run("append_unreadable");
  EXPECT_EQ(ran.out, "append 1\nload 0\n");
  EXPECT_EQ(root.files(), lazy_files({{"k", {}}}));
  EXPECT_EQ(ran.messages(), (Messages{root.stored(), root.opened_key(), root.opened_val(),
                                      expectation_at("num_val_atoms > 0", 904), root.corrupted()}));
}

TEST(LazyStoreAppend, StoresAnEmptyAtomThatTheNextLoadRefuses) {
  const LazyRoot root;
  const Ran ran = root.run("append_unreadable", {"a", "", "b"});
  EXPECT_EQ(ran.out, "append 1\nload 0\n");
  EXPECT_EQ(root.files(), lazy_files({{"k", {"a", "", "b"}}}));
  EXPECT_EQ(ran.messages(), (Messages{root.stored(), root.opened_key(), root.opened_val(),
                                      expectation_at("val_atom_size > 0", 913), root.corrupted()}));
}

// A value with a size but no bytes can't be written to a buffer.
SCENARIO(append_unwritable) {
  Maps maps;
  EntryMap diff = entry_map({{"a", {"1"}}, {"ccc", {"3"}}});
  diff.emplace(buffer("bb"), std::vector{RoBuffer::view(nullptr, 5)});
  maps.append_map(diff);
  return 0;
}

TEST(LazyStoreAppend, AnEntryThatCannotBeWrittenCostsBothFiles) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("append_unwritable", {}, "WARN");
  EXPECT_EQ(ran.out, "append 0\n");
  EXPECT_TRUE(root.has_neither());
  // The library logs a removal error although the removal succeeded.
  EXPECT_EQ(
      test::without_errno(ran.messages()),
      (Messages{expectation_at("fwriter.put_raw(val_atom.get_buffer(), val_atom.get_size())", 996),
                expectation_at("!fbuffer_corrupted && key_file.good() && val_file.good()", 1126),
                "WARN Error removing file " + root.key() + ": ",
                "WARN Error removing file " + root.val() + ": ", root.removed()}));
}

SCENARIO(append_unwritable_key) {
  Maps maps;
  EntryMap diff = entry_map({{"ccc", {"3"}}});
  diff.emplace(RoBuffer(), buffers({"1"}));
  maps.append_map(diff);
  return 0;
}

TEST(LazyStoreAppend, AKeyThatCannotBeWrittenCostsBothFiles) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("append_unwritable_key", {}, "ERROR");
  EXPECT_EQ(ran.out, "append 0\n");
  EXPECT_TRUE(root.has_neither());
  EXPECT_EQ(
      lazy_lines(ran),
      (Messages{expectation("fwriter.put_raw(key.get_buffer(), key.get_size())"),
                expectation_at("!fbuffer_corrupted && key_file.good() && val_file.good()", 1126)}));
}

TEST(LazyStoreAppend, FilesThatCannotBeOpenedAreReportedAndNothingIsRemoved) {
  const LazyRoot root;
  const Ran ran = test::run_scenario(
      "append", {{"QV_CACHE_STORE_ROOT", root.path() + "/none"}, {"QV_LOG_LEVEL", "WARN"}});
  EXPECT_EQ(ran.out, "append 0\n");
  EXPECT_EQ(lazy_lines(ran), (Messages{expectation("file.good()"), expectation("file.good()")}));
}

TEST(LazyStoreAppend, AFileThatCannotBeOpenedLeavesTheOtherAsItIs) {
  const LazyRoot root;
  ASSERT_EQ(mkdir(root.val().c_str(), 0755), 0);
  test::write_file(root.key(), lazy_files(kEntries).key);
  const Ran ran = root.run("append", {}, "WARN");
  EXPECT_EQ(ran.out, "append 0\n");
  EXPECT_EQ(lazy_lines(ran), Messages{expectation("file.good()")});
  EXPECT_EQ(test::read_file(root.key()), lazy_files(kEntries).key);
}

TEST(LazyStoreAppend, AFailureRemovesNothingWhereOneOfTheFilesWasThere) {
  const LazyRoot root;
  ASSERT_EQ(mkdir(root.val().c_str(), 0755), 0);
  EXPECT_EQ(root.run("append").out, "append 0\n");
  EXPECT_TRUE(test::exists(root.val()));
  EXPECT_EQ(test::read_file(root.key()), lazy_files({}).key);
}
