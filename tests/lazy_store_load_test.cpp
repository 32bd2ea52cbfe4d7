// What a lazy store reads from its two files, whole or damaged.
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <sys/stat.h>

#include <cstdint>
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
using test::Entry;
using test::entry_map;
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
using test::root_file;
using test::root_path;
using Maps = test::Maps<LazyLookupStore>;
using Messages = std::vector<std::string>;

SCENARIO(load) { return test::load_maps<LazyLookupStore>(arguments); }

TEST(LazyStoreLoad, AMissingPairFailsInSilence) {
  const LazyRoot root;
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 0\nLazyLookupStore");
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_TRUE(root.has_neither());
  EXPECT_EQ(root.run("load", {"loud"}).messages(),
            Messages{expectation_at("file_exists(key_fpath_)", 1158)});
}

TEST(LazyStoreLoad, ReadsEveryEntryInWhateverOrderTheyLie) {
  const LazyRoot root(
      lazy_files({{"ccc", {"4", "55"}}, {"b", {"2"}}, {"aa", {"1"}}, {"a", {"0"}}}));
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 1\na=0\nb=2\naa=1\nccc=4,55\nLazyLookupStore");
  EXPECT_EQ(ran.messages(), (Messages{root.opened_key(), root.opened_val(), root.loaded()}));
}

TEST(LazyStoreLoad, ValuesMayLieInAnyOrderOverlapAndBeShared) {
  LazyFiles files = lazy_files({});
  files.val += "0123456789";
  files.key += test::key_file_entry({"b", {"56", "789"}}, 8 + 1) +
               test::key_file_entry({"a", {"4567"}}, 8) + test::key_file_entry({"c", {"4567"}}, 8);
  EXPECT_EQ(LazyRoot(files).run("load").out, "load 1\na=4567\nb=56,789\nc=4567\nLazyLookupStore");
}

TEST(LazyStoreLoad, FilesOfTheirHeadersAloneAreAnEmptyCache) {
  const LazyRoot root(lazy_files({}));
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 1\nLazyLookupStore");
  EXPECT_EQ(ran.messages(), (Messages{root.opened_key(), root.opened_val(), root.loaded()}));
}

TEST(LazyStoreLoad, OneFileWithoutTheOtherFails) {
  for (const bool is_key : {true, false}) {
    const LazyRoot root(lazy_files(kEntries));
    std::remove((is_key ? root.val() : root.key()).c_str());
    const Ran ran = root.run("load");
    EXPECT_EQ(ran.out, "load 0\nLazyLookupStore");
    EXPECT_EQ(ran.messages(), Messages{expectation_at("key_file_exists == val_file_exists", 1036)});
  }
}

TEST(LazyStoreLoad, AnEmptyKeyFileCannotBeMappedAndFails) {
  const LazyRoot root({"", lazy_files({}).val});
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 0\nLazyLookupStore");
  EXPECT_EQ(ran.messages(),
            (Messages{"DEBUG mmap(" + root.key() + ") failed with error: Invalid argument",
                      expectation_at("key_file.is_open()", 1163)}));
}

TEST(LazyStoreLoad, AnEmptyValueFileCannotBeMappedAndFails) {
  const LazyRoot root({lazy_files({}).key, ""});
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 0\nLazyLookupStore");
  EXPECT_EQ(ran.messages(),
            (Messages{root.opened_key(),
                      "DEBUG mmap(" + root.val() + ") failed with error: Invalid argument",
                      expectation_at("val_file_.is_open()", 1169)}));
}

// Only damaged entries are reported as corruption; a header of another version isn't.
TEST(LazyStoreLoad, AHeaderOfAnotherVersionInEitherFileFails) {
  for (const bool is_key : {true, false}) {
    LazyFiles files = lazy_files(kEntries);
    (is_key ? files.key : files.val).replace(0, 8, test::header_bytes(1));
    const LazyRoot root(files);
    const Ran ran = root.run("load");
    EXPECT_EQ(ran.out, "load 0\nLazyLookupStore");
    EXPECT_EQ(lazy_lines(ran), (Messages{root.opened_key(), root.opened_val(), kOtherHeader}));
  }
}

TEST(LazyStoreLoad, AHeaderOfSevenBytesInEitherFileFails) {
  for (const bool is_key : {true, false}) {
    LazyFiles files = lazy_files({});
    (is_key ? files.key : files.val).resize(7);
    const LazyRoot root(files);
    const Ran ran = root.run("load");
    EXPECT_EQ(ran.out, "load 0\nLazyLookupStore");
    EXPECT_EQ(lazy_lines(ran),
              (Messages{root.opened_key(), root.opened_val(), expectation("hdr")}));
  }
}

TEST(LazyStoreLoad, TheEntriesBeforeADamageStayInTheMap) {
  LazyFiles files = lazy_files(kEntries);
  files.key += "damage";
  const LazyRoot root(files);
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 0\nb\naa\nLazyLookupStore");
  EXPECT_EQ(lazy_lines(ran), (Messages{root.opened_key(), root.opened_val(),
                                       expectation("magic_number == QV_CACHE_STORE_MAGIC_NUMBER"),
                                       root.corrupted()}));
}

SCENARIO(scan) { return test::scan_maps<LazyLookupStore>(arguments); }

TEST(LazyStoreLoad, AnEmptyKeyInAWholeFileFails) {
  const LazyRoot root(lazy_files({kEntries[0], {"", {"v"}}, kEntries[1]}));
  const Ran load = root.run("load");
  EXPECT_EQ(load.out, "load 0\nb\nLazyLookupStore");
  EXPECT_EQ(lazy_lines(load), (Messages{root.opened_key(), root.opened_val(),
                                        expectation("key_size > 0"), root.corrupted()}));
  const Ran scan = root.run("scan");
  EXPECT_EQ(scan.out, "scan 0\nb\n");
  EXPECT_EQ(lazy_lines(scan),
            (Messages{root.opened_key(), expectation("key_size > 0"), root.corrupted()}));
}

// Keys share allocations of up to 2048 bytes; a larger key has its own.
TEST(LazyStoreLoad, ReadsSmallAndLargeKeysAlike) {
  std::vector<Entry> entries;
  std::string expected = "load 1\n";
  for (const std::size_t size : {1u, 2046u, 2047u, 2048u, 2049u, 5000u, 1000000u, 1000001u}) {
    entries.push_back({std::string(size, 'k'), {std::to_string(size)}});
    expected += entries.back().key + "=" + std::to_string(size) + "\n";
  }
  EXPECT_EQ(LazyRoot(lazy_files(entries)).run("load").out, expected + "LazyLookupStore");
}

TEST(LazyStoreLoad, AnOffsetWithinTheHeaderFails) {
  for (const std::uint64_t offset : {0u, 7u}) {
    LazyFiles files = lazy_files(kEntries);
    files.key += test::key_file_entry({"k", {"v"}}, offset);
    const LazyRoot root(files);
    const Ran ran = root.run("load");
    EXPECT_EQ(ran.out, "load 0\nb\naa\nLazyLookupStore");
    EXPECT_EQ(ran.messages(),
              (Messages{root.opened_key(), root.opened_val(),
                        expectation_at("val_offset >= sizeof(hdr_t)", 923), root.corrupted()}));
  }
}

TEST(LazyStoreLoad, AtomsBeyondTheEndOfTheValueFileFail) {
  const std::string two("22");
  const std::uint64_t end = lazy_files(kEntries).val.size();
  for (const std::uint64_t offset : {end - 5, end - 4, end, end + 1, ~std::uint64_t{0} - 3,
                                     ~std::uint64_t{0} - 5, std::uint64_t{1} << 63}) {
    LazyFiles files = lazy_files(kEntries);
    files.key += test::key_file_entry({"k", {two}}, offset);
    const LazyRoot root(files);
    const Ran ran = root.run("load");
    EXPECT_EQ(ran.out, "load 0\nb\naa\nLazyLookupStore") << offset;
    EXPECT_EQ(
        ran.messages(),
        (Messages{root.opened_key(), root.opened_val(),
                  expectation_at("val_atom_offset + val_atom_size <= val_fbuffer.get_size()", 934),
                  root.corrupted()}))
        << offset;
  }
}

TEST(LazyStoreLoad, AnAtomUpToTheLastByteOfTheValueFileIsRead) {
  LazyFiles files = lazy_files(kEntries);
  files.key += test::key_file_entry({"k", {"22"}}, files.val.size() - 6);
  EXPECT_EQ(LazyRoot(files).run("load").out,
            "load 1\nb=2,3\nk=\xc3"
            "1\naa=1\nLazyLookupStore");
}

TEST(LazyStoreLoad, AKeyThatIsThereTwiceFails) {
  const LazyRoot root(lazy_files({{"k", {"1"}}, {"other", {"2"}}, {"k", {"3"}}, {"a", {"4"}}}));
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 0\nk\nother\nLazyLookupStore");
  EXPECT_EQ(ran.messages(), (Messages{root.opened_key(), root.opened_val(), root.collision("ERROR"),
                                      root.corrupted()}));
  EXPECT_EQ(root.run("load", {"loud"}).messages(),
            (Messages{root.opened_key(), root.opened_val(), root.collision("ERROR"),
                      expectation_at("emplace_ret.second", 1230), root.corrupted()}));
}

TEST(LazyStoreLoad, WhatIsNoFileFailsAsNotOpened) {
  const LazyRoot keyless;
  ASSERT_EQ(mkdir(keyless.key().c_str(), 0755), 0);
  test::write_file(keyless.val(), lazy_files({}).val);
  EXPECT_EQ(keyless.run("load", {}, "WARN").messages(),
            Messages{expectation_at("key_file.is_open()", 1163)});
  const LazyRoot valueless;
  ASSERT_EQ(mkfifo(valueless.val().c_str(), 0600), 0);  // without a writer
  test::write_file(valueless.key(), lazy_files({}).key);
  EXPECT_EQ(valueless.run("load", {}, "WARN").messages(),
            Messages{expectation_at("val_file_.is_open()", 1169)});
}

SCENARIO(load_into_a_filled_map) {
  EntryMap out = entry_map({{arguments.at(0), {"mine"}}});
  Maps().load_into(out);
  return 0;
}

TEST(LazyStoreLoad, AddsToWhatTheMapHolds) {
  const LazyRoot root(lazy_files({{"b", {"2", "3"}}, {"aa", {"1"}}, {"a", {"0"}}}));
  const Ran ran = root.run("load_into_a_filled_map", {"c"});
  EXPECT_EQ(ran.out, "load 1\na=0\nb=2,3\nc=mine\naa=1\n");
  EXPECT_EQ(ran.messages(), (Messages{root.opened_key(), root.opened_val(), root.loaded()}));
}

TEST(LazyStoreLoad, AKeyThatTheMapHoldsAlreadyFails) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("load_into_a_filled_map", {"aa"}, "WARN");
  EXPECT_EQ(ran.out, "load 0\nb\naa\n");
  EXPECT_EQ(ran.messages(), (Messages{root.collision("ERROR"), root.corrupted()}));
}

TEST(LazyStoreLoad, OfDamageOrCollisionsIsSilentAtOff) {
  LazyFiles damaged = lazy_files(kEntries);
  damaged.key += "damage";
  for (const LazyFiles& files :
       {damaged, lazy_files({{"b", {"1"}}, {"aa", {"1"}}, {"b", {"2"}}})}) {
    const LazyRoot root(files);
    const Ran ran = root.run("load", {"loud"}, "OFF");
    EXPECT_EQ(ran.out, "load 0\nb\naa\nLazyLookupStore");
    EXPECT_EQ(ran.log, "");
  }
}

// A second load would leave the atoms of the first one dangling.
SCENARIO(load_twice) {
  Maps maps;
  maps.load();
  std::fflush(stdout);
  maps.load();
  return 0;
}

TEST(LazyStoreLoad, ASecondLoadAborts) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("load_twice");
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.out, kLoaded);
  EXPECT_EQ(ran.messages(),
            (Messages{root.opened_key(), root.opened_val(), root.loaded(), root.opened_key(),
                      test::assertion("!val_file_.is_open()", "util/src/cache:1166")}));
}

SCENARIO(load_again_after_failures) {
  const LazyFiles whole = lazy_files(kEntries);
  Maps maps;
  for (const LazyFiles& files :
       {LazyFiles{whole.key + "damage", whole.val}, LazyFiles{whole.key, whole.val.substr(0, 7)},
        LazyFiles{whole.key + whole.key.substr(8), whole.val}, whole}) {
    test::write_lazy_files(root_path(), files);
    maps.load();
  }
  return 0;
}

TEST(LazyStoreLoad, AFailureUnmapsTheValuesSoThatALoadMayBeTriedAgain) {
  const Ran ran = LazyRoot().run("load_again_after_failures");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "load 0\nb\naa\nload 0\nload 0\nb\naa\n" + kLoaded);
}

SCENARIO(atoms_after_changes) {
  Maps maps;
  EntryMap out;
  maps.store.try_nonlock_load(out);
  Maps::others_append({{"new", {"value"}}});
  std::remove(root_file("key_maps").c_str());
  std::remove(root_file("val_maps").c_str());
  std::printf("%s", test::listing(out).c_str());
  return 0;
}

TEST(LazyStoreLoad, TheAtomsOutliveTheFiles) {
  EXPECT_EQ(LazyRoot(lazy_files(kEntries)).run("atoms_after_changes").out, "b=2,3\naa=1\n");
}
