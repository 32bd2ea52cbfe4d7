// What a lazy store finds when it scans its key file for the keys of other processes.
#include <gtest/gtest.h>
#include <quorvane/file_store.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/lazy_files.h"
#include "support/lazy_root.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_maps.h"
#include "support/store_root.h"

using quorvane::cache::LazyLookupStore;
using test::expectation;
using test::expectation_at;
using test::kEntries;
using test::kLoaded;
using test::kOtherHeader;
using test::lazy_files;
using test::lazy_lines;
using test::LazyFiles;
using test::LazyRoot;
using test::Ran;
using test::root_path;
using Maps = test::Maps<LazyLookupStore>;
using Messages = std::vector<std::string>;

SCENARIO(scan_twice) { return test::scan_maps_twice<LazyLookupStore>(); }

TEST(LazyStoreScan, FindsOnlyWhatOthersAppendedSinceTheLastReading) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("scan_twice");
  EXPECT_EQ(ran.out, kLoaded + "scan 1\nscan 1\nx\nforeign\nscan 1\n");
  EXPECT_EQ(ran.messages(), (Messages{root.opened_key(), root.opened_val(), root.loaded(),
                                      root.opened_key(), root.scanned(), root.opened_key(),
                                      root.scanned(), root.opened_key(), root.scanned()}));
}

SCENARIO(scan_after_append) {
  Maps maps;
  maps.load();
  maps.append({{"own", {"1"}}});
  maps.scan();
  return 0;
}

TEST(LazyStoreScan, ReadsTheStoresOwnEntriesBackAsNew) {
  EXPECT_EQ(LazyRoot(lazy_files(kEntries)).run("scan_after_append").out,
            kLoaded + "append 1\nscan 1\nown\n");
}

SCENARIO(scan) { return test::scan_maps<LazyLookupStore>(arguments); }

TEST(LazyStoreScan, WithoutALoadReadsTheWholeKeyFileAndNoValue) {
  LazyFiles files = lazy_files(kEntries);
  files.val = "no values";
  const LazyRoot root(files);
  const Ran ran = root.run("scan");
  EXPECT_EQ(ran.out, "scan 1\nb\naa\n");
  EXPECT_EQ(ran.messages(), (Messages{root.opened_key(), root.scanned()}));
}

TEST(LazyStoreScan, FailsInSilenceWithoutFiles) {
  const LazyRoot root;
  EXPECT_EQ(root.run("scan").out, "scan 0\n");
  EXPECT_EQ(root.run("scan").messages(), Messages{});
  EXPECT_EQ(root.run("scan", {"loud"}).messages(),
            Messages{expectation_at("file_exists(key_fpath_)", 1271)});
}

TEST(LazyStoreScan, OneFileWithoutTheOtherFails) {
  for (const bool is_key : {true, false}) {
    const LazyRoot root(lazy_files(kEntries));
    std::remove((is_key ? root.val() : root.key()).c_str());
    const Ran ran = root.run("scan");
    EXPECT_EQ(ran.out, "scan 0\n");
    EXPECT_EQ(ran.messages(), Messages{expectation_at("key_file_exists == val_file_exists", 1036)});
  }
}

TEST(LazyStoreScan, FailsOnAnEmptyKeyFile) {
  const Ran ran = LazyRoot({"", "values"}).run("scan", {}, "WARN");
  EXPECT_EQ(ran.out, "scan 0\n");
  EXPECT_EQ(ran.messages(), Messages{expectation_at("key_file.is_open()", 1276)});
}

TEST(LazyStoreScan, WithoutALoadChecksTheHeader) {
  const LazyRoot root({test::header_bytes(1), test::header_bytes(2)});
  const Ran ran = root.run("scan");
  EXPECT_EQ(ran.out, "scan 0\n");
  EXPECT_EQ(lazy_lines(ran), (Messages{root.opened_key(), kOtherHeader,
                                       expectation_at("read_header(key_freader)", 1279)}));
}

SCENARIO(shrunken_file) {
  Maps maps;
  maps.load();
  test::write_lazy_files(root_path(), lazy_files({}));
  maps.scan();
  return 0;
}

TEST(LazyStoreScan, AKeyFileThatBecameSmallerWasRestartedAndFails) {
  const Ran ran = LazyRoot(lazy_files(kEntries)).run("shrunken_file", {}, "WARN");
  EXPECT_EQ(ran.out, kLoaded + "scan 0\n");
  EXPECT_EQ(ran.messages(),
            Messages{expectation_at("key_file.size() >= key_file_last_size_", 1295)});
}

SCENARIO(scan_of_damage) {
  Maps maps;
  maps.load();
  Maps::others_append({{"new", {"1"}}});
  const LazyFiles whole = test::read_lazy_files(root_path());
  test::write_lazy_files(root_path(), {whole.key + "damage", whole.val});
  maps.scan();
  // The failed scan left the last size as it was, so the next scan finds the new entry again.
  test::write_lazy_files(root_path(), whole);
  maps.scan();
  return 0;
}

TEST(LazyStoreScan, ADamageFailsAndLeavesTheLastSizeAsItWas) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("scan_of_damage", {}, "WARN");
  EXPECT_EQ(ran.out, kLoaded + "scan 0\nnew\nscan 1\nnew\n");
  EXPECT_EQ(lazy_lines(ran), (Messages{expectation("magic_number == QV_CACHE_STORE_MAGIC_NUMBER"),
                                       root.corrupted()}));
}

SCENARIO(scan_of_collisions) {
  Maps maps;
  maps.load();
  // A scan compares the new keys with each other only, not with the loaded ones.
  Maps::others_append({{"b", {"x"}}, {"twice", {"1"}}, {"twice", {"2"}}, {"last", {"3"}}});
  maps.scan();
  return 0;
}

TEST(LazyStoreScan, AKeyThatOccursTwiceInTheNewPartFails) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("scan_of_collisions", {}, "WARN");
  EXPECT_EQ(ran.out, kLoaded + "scan 0\nb\ntwice\n");
  EXPECT_EQ(ran.messages(),
            (Messages{root.collision("WARN"), expectation_at("emplace_ret.second", 1332),
                      root.corrupted()}));
}

TEST(LazyStoreScan, OfDamageOrCollisionsIsSilentAtOff) {
  for (const char* scenario : {"scan_of_damage", "scan_of_collisions"}) {
    const Ran ran = LazyRoot(lazy_files(kEntries)).run(scenario, {}, "OFF");
    EXPECT_EQ(ran.out, LazyRoot(lazy_files(kEntries)).run(scenario).out);
    EXPECT_EQ(ran.log, "");
  }
}
