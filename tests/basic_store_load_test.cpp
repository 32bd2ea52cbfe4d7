// What a basic store reads from a file, whole or damaged.
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <sys/stat.h>

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
using quorvane::cache::EntryMap;
using test::basic_file;
using test::BasicRoot;
using test::Entry;
using test::entry_bytes;
using test::entry_map;
using test::expectation;
using test::kEntries;
using test::Ran;
using test::without_lines;
using Maps = test::Maps<BasicStore>;
using Messages = std::vector<std::string>;

SCENARIO(load) { return test::load_maps<BasicStore>(arguments); }

TEST(BasicStoreLoad, AMissingFileIsAnEmptyCacheInSilence) {
  const BasicRoot root;
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 1\nBasicStore");
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_FALSE(test::exists(root.maps()));
}

TEST(BasicStoreLoad, AMissingFileIsACheckOfSeverity3) {
  EXPECT_EQ(without_lines(BasicRoot().run("load", {"loud"}).messages()),
            Messages{expectation("file_exists(fpath_)")});
}

TEST(BasicStoreLoad, ReadsEveryEntryInWhateverOrderTheyLie) {
  const BasicRoot root(
      basic_file({{"ccc", {"4", "55"}}, {"b", {"2"}}, {"aa", {"1"}}, {"a", {"0"}}}));
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 1\na=0\nb=2\naa=1\nccc=4,55\nBasicStore");
  EXPECT_EQ(ran.messages(), (Messages{root.opened(), root.loaded()}));
}

TEST(BasicStoreLoad, AFileOfTheHeaderAloneIsAnEmptyCache) {
  const BasicRoot root(basic_file({}));
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 1\nBasicStore");
  EXPECT_EQ(ran.messages(), (Messages{root.opened(), root.loaded()}));
}

TEST(BasicStoreLoad, AnEmptyFileCannotBeMappedAndFails) {
  const BasicRoot root("");
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 0\nBasicStore");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{"DEBUG mmap(" + root.maps() + ") failed with error: Invalid argument",
                      expectation("file.is_open()")}));
  EXPECT_EQ(without_lines(root.run("load", {"loud"}).messages()),
            (Messages{expectation("data_ != MAP_FAILED", "util/src/mmapped_file"),
                      "DEBUG mmap(" + root.maps() + ") failed with error: Invalid argument",
                      expectation("file.is_open()")}));
}

TEST(BasicStoreLoad, AHeaderOfSevenBytesFails) {
  const BasicRoot root(basic_file({}).substr(0, 7));
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 0\nBasicStore");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{root.opened(), expectation("hdr"), root.corrupted()}));
}

TEST(BasicStoreLoad, AHeaderOfAnotherVersionFails) {
  const BasicRoot root(test::header_bytes(2) + entry_bytes(kEntries[0]));
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 0\nBasicStore");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{root.opened(), test::kOtherHeader, root.corrupted()}));
}

TEST(BasicStoreLoad, TheEntriesBeforeADamageStayInTheMap) {
  const BasicRoot root(basic_file(kEntries) + "damage");
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 0\nb=2,3\naa=1\nBasicStore");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{root.opened(), expectation("magic_number == QV_CACHE_STORE_MAGIC_NUMBER"),
                      root.corrupted()}));
}

TEST(BasicStoreLoad, TheFirstOfTwoEntriesWithOneKeyStaysAndTheOtherIsReported) {
  const BasicRoot root(
      basic_file({{"k", {"first"}}, {"other", {"1"}}, {"k", {"second"}}, {"z", {"2"}}}));
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 1\nk=first\nz=2\nother=1\nBasicStore");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{root.opened(), expectation("emplace_ret.second"), root.collision(),
                      root.loaded()}));
}

TEST(BasicStoreLoad, TheFirstOfManyEntriesWithOneKeyStays) {
  std::vector<Entry> entries;
  std::string expected = "load 1\n";
  for (char key = 'a'; key <= 'z'; ++key) {
    expected += std::string(1, key) + "=0\n";
  }
  for (int round = 0; round < 10; ++round) {
    for (char key = 'z'; key >= 'a'; --key) {
      entries.push_back({std::string(1, key), {std::to_string(round)}});
    }
  }
  EXPECT_EQ(BasicRoot(basic_file(entries)).run("load", {}, "OFF").out, expected + "BasicStore");
}

TEST(BasicStoreLoad, AnUnreadableFileFailsAsNotOpened) {
  const BasicRoot root;
  ASSERT_EQ(mkdir(root.maps().c_str(), 0755), 0);  // exists, but can't be mapped
  const Ran ran = root.run("load", {}, "WARN");
  EXPECT_EQ(ran.out, "load 0\nBasicStore");
  EXPECT_EQ(without_lines(ran.messages()), Messages{expectation("file.is_open()")});
}

TEST(BasicStoreLoad, APipeInTheFilesPlaceFailsAndIsNotWaitedFor) {
  const BasicRoot root;
  ASSERT_EQ(mkfifo(root.maps().c_str(), 0600), 0);
  const Ran ran = root.run("load", {}, "WARN");
  EXPECT_EQ(ran.out, "load 0\nBasicStore");
  EXPECT_EQ(without_lines(ran.messages()), Messages{expectation("file.is_open()")});
}

// The pieces of an entry share one allocation if the entry has up to 4096 bytes.
TEST(BasicStoreLoad, ReadsSmallAndLargeEntriesAlike) {
  const std::string key(10, 'k');
  for (const std::size_t total : {4095u, 4096u, 4097u, 10000u}) {
    const Entry entry{key, {"1", std::string(total - key.size() - 3, 'x'), "22"}};
    const BasicRoot root(basic_file({entry, {"other", {"3"}}}));
    EXPECT_EQ(root.run("load").out,
              "load 1\nother=3\n" + key + "=1," + entry.atoms[1] + ",22\nBasicStore")
        << total;
  }
}

TEST(BasicStoreLoad, ReadsAnAtomBehindPiecesThatFillOneAllocation) {
  const std::string key(10, 'k');
  for (const std::size_t total : {4095u, 4096u, 4097u}) {
    const std::string filling(total - key.size(), 'x');
    for (const std::size_t last : {1u, 1000000u}) {
      const BasicRoot root(basic_file({{key, {filling, std::string(last, 'y')}}}));
      EXPECT_EQ(root.run("load").out,
                "load 1\n" + key + "=" + filling + "," + std::string(last, 'y') + "\nBasicStore")
          << total << " " << last;
    }
  }
}

// Prints for each entry whether its pieces are contiguous.
SCENARIO(pieces_in_one_allocation) {
  Maps maps;
  EntryMap out;
  maps.store.try_nonlock_load(out);
  for (const auto& [key, value] : out) {
    const unsigned char* end = key.get_buffer() + key.get_size();
    bool together = true;
    for (const auto& atom : value) {
      together = together && atom.get_buffer() == end;
      end = atom.get_buffer() + atom.get_size();
    }
    std::printf("%d", together);
  }
  return 0;
}

TEST(BasicStoreLoad, APieceOfALargeEntryKeepsNoOtherInMemory) {
  const BasicRoot root(basic_file({{"k", {"1", std::string(4094, 'x')}},
                                   {"kk", {"1", std::string(4094, 'x')}},
                                   {"kkk", {"1", "2"}}}));
  EXPECT_EQ(root.run("pieces_in_one_allocation").out, "101");
}

SCENARIO(scan) { return test::scan_maps<BasicStore>(arguments); }

TEST(BasicStoreLoad, AnEmptyKeyInAWholeFileFails) {
  const BasicRoot root(basic_file({kEntries[0], {"", {"v"}}, kEntries[1]}));
  const Messages messages{root.opened(), expectation("key_size > 0"), root.corrupted()};
  const Ran load = root.run("load");
  EXPECT_EQ(load.out, "load 0\nb=2,3\nBasicStore");
  EXPECT_EQ(without_lines(load.messages()), messages);
  const Ran scan = root.run("scan");
  EXPECT_EQ(scan.out, "scan 0\nb\n");
  EXPECT_EQ(without_lines(scan.messages()), messages);
}

SCENARIO(load_into_a_filled_map) {
  EntryMap out = entry_map({{"aa", {"mine"}}, {"c", {"mine"}}});
  Maps().load_into(out);
  return 0;
}

TEST(BasicStoreLoad, AddsToWhatTheMapHoldsAndReportsWhatItHoldsAlready) {
  const BasicRoot root(basic_file(kEntries));
  const Ran ran = root.run("load_into_a_filled_map", {}, "WARN");
  EXPECT_EQ(ran.out, "load 1\nb=2,3\nc=mine\naa=mine\n");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{expectation("emplace_ret.second"), root.collision()}));
}

TEST(BasicStoreLoad, OfADamagedFileIsSilentAtOff) {
  const BasicRoot root(basic_file(kEntries) + "damage");
  const Ran ran = root.run("load", {"loud"}, "OFF");
  EXPECT_EQ(ran.out, "load 0\nb=2,3\naa=1\nBasicStore");
  EXPECT_EQ(ran.log, "");
}
