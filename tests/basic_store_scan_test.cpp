// What a basic store finds when it scans its file for the keys of other processes.
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/basic_root.h"
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
using test::entry_bytes;
using test::entry_map;
using test::expectation;
using test::kEntries;
using test::Ran;
using test::root_file;
using test::without_lines;
using Maps = test::Maps<BasicStore>;
using Messages = std::vector<std::string>;

SCENARIO(scan_twice) { return test::scan_maps_twice<BasicStore>(); }

TEST(BasicStoreScan, FindsOnlyWhatOthersAppendedSinceTheLastReading) {
  const BasicRoot root(basic_file(kEntries));
  const Ran ran = root.run("scan_twice");
  EXPECT_EQ(ran.out, "load 1\nb=2,3\naa=1\nscan 1\nscan 1\nx\nforeign\nscan 1\n");
  EXPECT_EQ(ran.messages(),
            (Messages{root.opened(), root.loaded(), root.opened(), root.scanned(), root.opened(),
                      root.scanned(), root.opened(), root.scanned()}));
}

SCENARIO(scan) { return test::scan_maps<BasicStore>(arguments); }

TEST(BasicStoreScan, WithoutALoadReadsTheWholeFile) {
  const BasicRoot root(basic_file(kEntries));
  const Ran ran = root.run("scan");
  EXPECT_EQ(ran.out, "scan 1\nb\naa\n");
  EXPECT_EQ(ran.messages(), (Messages{root.opened(), root.scanned()}));
}

TEST(BasicStoreScan, FindsNothingInAMissingFileInSilence) {
  const BasicRoot root;
  EXPECT_EQ(root.run("scan").out, "scan 1\n");
  EXPECT_EQ(root.run("scan").messages(), Messages{});
  EXPECT_EQ(without_lines(root.run("scan", {"loud"}).messages()),
            Messages{expectation("file_exists(fpath_)")});
}

TEST(BasicStoreScan, FailsOnAnEmptyFile) {
  const BasicRoot root("");
  const Ran ran = root.run("scan", {}, "WARN");
  EXPECT_EQ(ran.out, "scan 0\n");
  EXPECT_EQ(without_lines(ran.messages()), Messages{expectation("file.is_open()")});
}

TEST(BasicStoreScan, WithoutALoadChecksTheHeader) {
  const BasicRoot root(test::header_bytes(2));
  const Ran ran = root.run("scan");
  EXPECT_EQ(ran.out, "scan 0\n");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{root.opened(), test::kOtherHeader, expectation("read_header(freader)"),
                      root.corrupted()}));
}

SCENARIO(shrunken_file) {
  Maps maps;
  maps.load();
  test::write_file(root_file("maps"), basic_file({}));
  maps.scan();
  EntryMap diff = entry_map({{"k", {"v"}}});
  std::printf("diff %d\n", maps.store.try_store_diff(diff));
  return 0;
}

TEST(BasicStoreScan, AFileThatBecameSmallerWasRestartedAndFails) {
  const BasicRoot root(basic_file(kEntries));
  const Ran ran = root.run("shrunken_file", {}, "WARN");
  // try_load didn't run, so the store counts no loaded entries.
  EXPECT_EQ(ran.out, "load 1\nb=2,3\naa=1\nscan 0\ndiff 1\n");
  const std::string smaller = expectation("file.size() >= file_last_size_");
  EXPECT_EQ(without_lines(ran.messages()), (Messages{smaller, smaller}));
}

SCENARIO(shrunken_file_of_a_loaded_cache) {
  Cache cache("maps", test::maps_store(StoreKind::basic), false);
  cache.add_value(buffer("k"), buffers({"v"}));
  test::write_file(root_file("maps"), basic_file({}));
  return 0;
}

TEST(BasicStoreScan, ACacheDoesNotAppendToAFileThatWasRestarted) {
  const BasicRoot root(basic_file(kEntries));
  const Ran ran = root.run("shrunken_file_of_a_loaded_cache", {}, "WARN");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{expectation("file.size() >= file_last_size_"),
                      expectation("loaded_map_last_size_ == 0 || new_keys_loaded"),
                      expectation("store_->try_store_diff(diff_map_)")}));
  EXPECT_EQ(root.bytes(), basic_file({}));
}

SCENARIO(diff_after_a_failed_load) {
  Maps maps;
  EntryMap out;
  const bool loaded = maps.store.try_load(out);
  std::printf("%d %d", loaded, maps.store.try_store_diff(entry_map({{"k", {"v"}}})));
  return 0;
}

TEST(BasicStoreScan, AFailedLoadCountsAsOneThatFoundNothing) {
  const std::string damaged = basic_file(kEntries) + "damage";
  const BasicRoot root(damaged);
  EXPECT_EQ(root.run("diff_after_a_failed_load", {}, "OFF").out, "0 1");
  EXPECT_EQ(root.bytes(), damaged + entry_bytes({"k", {"v"}}));
}

SCENARIO(scan_of_damage) {
  Maps maps;
  maps.load();
  const std::string whole = test::read_file(root_file("maps"));
  test::write_file(root_file("maps"), whole + entry_bytes({"new", {"1"}}) + "damage");
  maps.scan();
  // The failed scan left the last size as it was, so the next scan finds the new entry again.
  test::write_file(root_file("maps"), whole + entry_bytes({"new", {"1"}}));
  maps.scan();
  return 0;
}

TEST(BasicStoreScan, ADamageFailsAndLeavesTheLastSizeAsItWas) {
  const BasicRoot root(basic_file(kEntries));
  const Ran ran = root.run("scan_of_damage");
  EXPECT_EQ(ran.out, "load 1\nb=2,3\naa=1\nscan 0\nnew\nscan 1\nnew\n");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{root.opened(), root.loaded(), root.opened(),
                      expectation("magic_number == QV_CACHE_STORE_MAGIC_NUMBER"), root.corrupted(),
                      root.opened(), root.scanned()}));
}

TEST(BasicStoreScan, OfADamagedFileIsSilentAtOff) {
  const BasicRoot root(basic_file(kEntries));
  const Ran ran = root.run("scan_of_damage", {}, "OFF");
  EXPECT_EQ(ran.out, BasicRoot(basic_file(kEntries)).run("scan_of_damage").out);
  EXPECT_EQ(ran.log, "");
}

SCENARIO(scan_of_collisions) {
  Maps maps;
  maps.load();
  // A scan compares the new keys with each other only, not with the loaded ones.
  maps.others_append({{"b", {"x"}}, {"twice", {"1"}}, {"twice", {"2"}}});
  maps.scan();
  return 0;
}

TEST(BasicStoreScan, AKeyThatOccursTwiceInTheNewPartIsReported) {
  const BasicRoot root(basic_file(kEntries));
  const Ran ran = root.run("scan_of_collisions");
  EXPECT_EQ(ran.out, "load 1\nb=2,3\naa=1\nscan 1\nb\ntwice\n");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{root.opened(), root.loaded(), root.opened(),
                      expectation("emplace_ret.second"), root.collision(), root.scanned()}));
}
