#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "support/lazy_files.h"
#include "support/lazy_root.h"
#include "support/scenario.h"
#include "support/store_bytes.h"

using quorvane::cache::Cache;
using quorvane::cache::CleanupController;
using quorvane::cache::EntryMap;
using quorvane::cache::KeySet;
using quorvane::cache::LazyLookupStore;
using quorvane::cache::make_file_store;
using quorvane::cache::StoreKind;
using quorvane::util::BufferReader;
using quorvane::util::BufferWriter;
using quorvane::util::RoBuffer;
using quorvane::util::RwBuffer;
using test::add_to;
using test::buffer;
using test::buffers;
using test::Entry;
using test::entry_map;
using test::expectation;
using test::expectation_at;
using test::lazy_files;
using test::lazy_lines;
using test::LazyFiles;
using test::LazyRoot;
using test::le64;
using test::Ran;
using Messages = std::vector<std::string>;

namespace {

// What the scenarios work on: the store "maps" of the root that is set.
struct Maps {
  explicit Maps(std::uint64_t threshold = 0) : controller(threshold) {}

  static std::string root() { return getenv("QV_CACHE_STORE_ROOT"); }
  bool load() {
    EntryMap out;
    const bool ok = store.try_nonlock_load(out);
    // The atoms of a failed load are views of nothing.
    std::printf("load %d\n%s", ok,
                ok ? test::listing(out).c_str() : test::listing(test::keys_of(out)).c_str());
    return ok;
  }
  void scan() {
    KeySet keys;
    const bool ok = store.try_nonlock_load_new_keys(keys);
    std::printf("scan %d\n%s", ok, test::listing(keys).c_str());
  }
  void append(const EntryMap& entries, const std::vector<std::string>& foreign = {}) {
    std::printf("append %d\n", store.try_nonlock_append(entries, test::key_set(foreign)));
  }
  // What another process would do meanwhile.
  static void others_append(const std::vector<Entry>& entries) {
    test::write_lazy_files(root(), add_to(test::read_lazy_files(root()), entries));
  }

  CleanupController controller;
  LazyLookupStore store{"maps", std::make_shared<test::CountingLock>(), &controller};
};

void log_every_check() {
  test::module_of("util/src/cache")->fault_log_level = 3;
  test::module_of("util/src/mmapped_file")->fault_log_level = 3;
}

const std::vector<Entry> kEntries{{"b", {"2", "3"}}, {"aa", {"1"}}};
const std::string kLoaded = "load 1\nb=2,3\naa=1\n";
const std::string kOtherHeader =
    expectation("std::memcmp(hdr, &valid_hdr_, sizeof(valid_hdr_)) == 0");

}  // namespace

// --- the pieces of the files ---

TEST(LazyStoreEntry, Takes28BytesAndTheKeyAnd8PerAtomInTheKeyFile) {
  EXPECT_EQ(
      LazyLookupStore::get_key_file_entry_representation_size(buffer("abc"), buffers({"ab", "c"})),
      28u + 3 + 16);
  EXPECT_EQ(LazyLookupStore::get_key_file_entry_representation_size(buffer("k"), {}), 29u);
}

TEST(LazyStoreEntry, Takes4BytesAndItsAtomsInTheValueFile) {
  EXPECT_EQ(LazyLookupStore::get_val_file_entry_representation_size(buffers({"ab", "c"})), 7u);
  EXPECT_EQ(LazyLookupStore::get_val_file_entry_representation_size({}), 4u);
}

TEST(LazyStoreEntry, FilesAreNamedAfterTheCache) {
  EXPECT_EQ(LazyLookupStore::get_key_fname("maps"), "key_maps");
  EXPECT_EQ(LazyLookupStore::get_val_fname("maps"), "val_maps");
}

TEST(LazyStoreEntry, IsWrittenAsMagicNumberKeyAndPositions) {
  RwBuffer bytes(47);
  BufferWriter writer = bytes.writer();
  ASSERT_TRUE(
      LazyLookupStore::write_key_file_entry(writer, buffer("abc"), 0x1234, buffers({"ab", "c"})));
  EXPECT_EQ(test::bytes_of(bytes), test::key_file_entry({"abc", {"ab", "c"}}, 0x1234));
}

TEST(LazyStoreEntry, OfTheValueFileIsAMagicNumberAndTheAtomsOneAfterTheOther) {
  RwBuffer bytes(7);
  BufferWriter writer = bytes.writer();
  ASSERT_TRUE(LazyLookupStore::write_val_file_entry(writer, buffers({"ab", "", "c"})));
  EXPECT_EQ(test::bytes_of(bytes),
            "\xa5\xc3\xa5\xc3"
            "abc");
}

TEST(LazyStoreEntry, PositionsAreReadAsTheyWereWritten) {
  const RoBuffer bytes = buffer(le64(99) + le64(2) + le64(5) + le64(7) + "rest");
  BufferReader reader = bytes.reader();
  std::size_t offset = 0;
  std::vector<std::size_t> sizes{1, 2, 3};
  ASSERT_TRUE(LazyLookupStore::read_val_atom_positions(reader, offset, sizes));
  EXPECT_EQ(offset, 99u);
  EXPECT_EQ(sizes, (std::vector<std::size_t>{5, 7}));
  EXPECT_EQ(reader.remaining(), 4u);
  BufferReader skipper = bytes.reader();
  ASSERT_TRUE(LazyLookupStore::skip_val_atom_positions(skipper));
  EXPECT_EQ(skipper.remaining(), 4u);
}

TEST(LazyStoreEntry, AtomsAreViewsAndNotCopies) {
  RoBuffer values = buffer(test::header_bytes(2) + "nonsabccc");
  std::vector<RoBuffer> val = buffers({"before"});
  ASSERT_TRUE(LazyLookupStore::shallow_read_val(values, 8, {2, 3}, val));
  ASSERT_EQ(val.size(), 3u);
  EXPECT_EQ(val[1].get_buffer(), values.get_buffer() + 12);
  EXPECT_EQ(val[1].get_size(), 2u);
  EXPECT_EQ(val[2].get_buffer(), values.get_buffer() + 14);
  EXPECT_EQ(test::bytes_of(val[2]), "ccc");
}

// Writes the two entries of "abc" into so little room that the piece named by
// the text fails.
SCENARIO(pieces_without_room) {
  const auto value = buffers({"ab", "c"});
  for (const std::size_t size : {3u, 14u, 22u, 30u, 38u}) {
    RwBuffer bytes(size);
    BufferWriter writer = bytes.writer();
    std::printf("%d", LazyLookupStore::write_key_file_entry(writer, buffer("abc"), 8, value));
  }
  for (const std::size_t size : {3u, 6u}) {
    RwBuffer bytes(size);
    BufferWriter writer = bytes.writer();
    std::printf("%d", LazyLookupStore::write_val_file_entry(writer, value));
  }
  return 0;
}

TEST(LazyStoreEntry, StopsAtTheFirstPieceThatDoesNotFit) {
  const Ran ran = test::run_scenario("pieces_without_room");
  EXPECT_EQ(ran.out, "0000000");
  EXPECT_EQ(lazy_lines(ran),
            (Messages{expectation("fwriter.put(QV_CACHE_STORE_MAGIC_NUMBER)"),
                      expectation("fwriter.put_raw(key.get_buffer(), key.get_size())"),
                      expectation_at("fwriter.put(val_offset)", 973),
                      expectation_at("fwriter.put(val.size())", 977),
                      expectation_at("fwriter.put(val_atom.get_size())", 983),
                      expectation("fwriter.put(QV_CACHE_STORE_MAGIC_NUMBER)"),
                      expectation_at("fwriter.put_raw(val_atom.get_buffer(), val_atom.get_size())",
                                     996)}));
}

SCENARIO(damaged_positions) {
  for (const std::string& bytes :
       {le64(9).substr(1), le64(9) + "1234567", le64(9) + le64(0), le64(9) + le64(1),
        le64(9) + le64(2) + le64(1) + "1234567", le64(9) + le64(2) + le64(1) + le64(0)}) {
    const RoBuffer positions = buffer(bytes);
    BufferReader reader = positions.reader();
    BufferReader skipper = positions.reader();
    std::size_t offset = 0;
    std::vector<std::size_t> sizes;
    const bool read = LazyLookupStore::read_val_atom_positions(reader, offset, sizes);
    std::printf("%d%d ", read, LazyLookupStore::skip_val_atom_positions(skipper));
  }
  return 0;
}

TEST(LazyStoreEntry, DamagedPositionsFailAtTheFirstDamage) {
  const Ran ran = test::run_scenario("damaged_positions");
  // Who passes over the sizes does not see that one is 0.
  EXPECT_EQ(ran.out, "00 00 00 00 00 01 ");
  const std::string too_many =
      expectation_at("key_freader.buffer(num_val_atoms * sizeof(std::size_t))", 963);
  const std::string no_size = expectation_at("key_freader.get(&val_atom_size)", 911);
  EXPECT_EQ(
      ran.messages(),
      (Messages{expectation_at("key_freader.get(&val_offset)", 897),
                expectation_at("key_freader.buffer(sizeof(std::size_t))", 950),
                expectation_at("key_freader.get(&num_val_atoms)", 902),
                expectation_at("key_freader.get(&num_val_atoms)", 955),
                expectation_at("num_val_atoms > 0", 904), expectation_at("num_val_atoms > 0", 957),
                no_size, too_many, no_size, too_many, expectation_at("val_atom_size > 0", 913)}));
}

// --- load ---

SCENARIO(load) {
  if (!arguments.empty()) {
    log_every_check();
  }
  Maps maps;
  maps.load();
  std::printf("%s", maps.store.type().c_str());
  return 0;
}

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

// A header that is not the store's is no damage among the entries: the record of
// that is left to them.
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

// Keys share allocations of up to 2048 bytes.
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
  ASSERT_EQ(mkfifo(valueless.val().c_str(), 0600), 0);  // and nobody to wait for
  test::write_file(valueless.key(), lazy_files({}).key);
  EXPECT_EQ(valueless.run("load", {}, "WARN").messages(),
            Messages{expectation_at("val_file_.is_open()", 1169)});
}

SCENARIO(load_into_a_filled_map) {
  Maps maps;
  EntryMap out = entry_map({{arguments.at(0), {"mine"}}});
  const bool ok = maps.store.try_nonlock_load(out);
  std::printf("load %d\n%s", ok,
              ok ? test::listing(out).c_str() : test::listing(test::keys_of(out)).c_str());
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

// The atoms of the first load would be views of nothing.
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
    test::write_lazy_files(Maps::root(), files);
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
  std::remove((Maps::root() + "/key_maps").c_str());
  std::remove((Maps::root() + "/val_maps").c_str());
  std::printf("%s", test::listing(out).c_str());
  return 0;
}

TEST(LazyStoreLoad, TheAtomsOutliveTheFiles) {
  EXPECT_EQ(LazyRoot(lazy_files(kEntries)).run("atoms_after_changes").out, "b=2,3\naa=1\n");
}

// --- the state between operations ---

SCENARIO(vanished_files) {
  Maps maps;
  maps.load();
  std::remove((Maps::root() + "/key_maps").c_str());
  std::remove((Maps::root() + "/val_maps").c_str());
  std::printf("consistent %d\n", maps.store.check_consistent_state());
  maps.load();
  maps.scan();
  return 0;
}

TEST(LazyStoreState, FilesThatVanishedAfterTheirLoadFailEverything) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("vanished_files");
  EXPECT_EQ(ran.out, kLoaded + "consistent 0\nload 0\nscan 0\n");
  const std::string gone = expectation_at("key_file_last_size_ == 0 || key_file_exists", 1041);
  EXPECT_EQ(ran.messages(),
            (Messages{root.opened_key(), root.opened_val(), root.loaded(), gone, gone, gone}));
}

// --- the scan for new keys ---

SCENARIO(scan_twice) {
  Maps maps;
  maps.load();
  maps.scan();
  Maps::others_append({{"foreign", {"1", "2"}}, {"x", {"3"}}});
  maps.scan();
  maps.scan();
  return 0;
}

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
  maps.append(entry_map({{"own", {"1"}}}));
  maps.scan();
  return 0;
}

TEST(LazyStoreScan, ReadsTheStoresOwnEntriesBackAsNew) {
  EXPECT_EQ(LazyRoot(lazy_files(kEntries)).run("scan_after_append").out,
            kLoaded + "append 1\nscan 1\nown\n");
}

SCENARIO(scan) {
  if (!arguments.empty()) {
    log_every_check();
  }
  Maps().scan();
  return 0;
}

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
  test::write_lazy_files(Maps::root(), lazy_files({}));
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
  const LazyFiles whole = test::read_lazy_files(Maps::root());
  test::write_lazy_files(Maps::root(), {whole.key + "damage", whole.val});
  maps.scan();
  // The reading stands where it stood: the new entry is found again.
  test::write_lazy_files(Maps::root(), whole);
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
  // A key of the loaded part is new to the scan; one twice in the new part isn't.
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

// --- append ---

const std::vector<Entry> kAppended{{"b", {"2"}}, {"aa", {"1"}}, {"ccc", {"4", "55"}}};

SCENARIO(append) {
  Maps().append(entry_map({{"ccc", {"4", "55"}}, {"b", {"2"}}, {"aa", {"1"}}}), arguments);
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
  Maps().append(
      entry_map({{"large", {std::string(3000000, 'x'), "y"}}, {std::string(100000, 'k'), {"z"}}}));
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
  maps.append(diff);
  maps.load();
  return 0;
}

// Written without a complaint, they make the files unreadable for everybody.
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

// An entry whose value is null though it has a size can't be put into a buffer.
SCENARIO(append_unwritable) {
  Maps maps;
  EntryMap diff = entry_map({{"a", {"1"}}, {"ccc", {"3"}}});
  diff.emplace(buffer("bb"), std::vector{RoBuffer::view(nullptr, 5)});
  maps.append(diff);
  return 0;
}

TEST(LazyStoreAppend, AnEntryThatCannotBeWrittenCostsBothFiles) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("append_unwritable", {}, "WARN");
  EXPECT_EQ(ran.out, "append 0\n");
  EXPECT_TRUE(root.has_neither());
  // A removal that succeeded is recorded as one that did not.
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
  maps.append(diff);
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

// --- disk usage and cleaning ---

SCENARIO(usage) {
  if (!arguments.empty()) {
    log_every_check();
  }
  Maps maps;
  std::printf("%lu %lu", maps.store.nonlock_get_disk_usage(), maps.store.get_usage());
  return 0;
}

TEST(LazyStoreUsage, IsTheSizeOfBothFiles) {
  const LazyFiles files = lazy_files(kEntries);
  const std::string size = std::to_string(files.key.size() + files.val.size());
  EXPECT_EQ(LazyRoot(files).run("usage").out, size + " " + size);
}

TEST(LazyStoreUsage, OfAMissingFileIsZeroAndACheckOfSeverity3) {
  const LazyRoot root;
  EXPECT_EQ(root.run("usage").out, "0 0");
  EXPECT_EQ(root.run("usage").messages(), Messages{});
  const std::string key = expectation_at("stat(key_fpath_.c_str(), &st) == 0", 1365);
  const std::string val = expectation_at("stat(val_fpath_.c_str(), &st) == 0", 1368);
  EXPECT_EQ(root.run("usage", {"loud"}).messages(), (Messages{key, val, key, val}));
  test::write_file(root.val(), "12345");
  EXPECT_EQ(root.run("usage").out, "5 5");
  EXPECT_EQ(root.run("usage", {"loud"}).messages(), (Messages{key, key}));
}

SCENARIO(clean) {
  Maps maps;
  EntryMap out;
  maps.store.try_nonlock_load(out);
  maps.store.nonlock_clean();
  maps.store.clean();
  std::printf("%s", test::listing(out).c_str());
  return 0;
}

TEST(LazyStoreClean, RemovesBothFilesSaysSoWhateverTheResultAndKeepsTheValuesMapped) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("clean");
  EXPECT_TRUE(root.has_neither());
  EXPECT_EQ(ran.out, "b=2,3\naa=1\n");
  const std::string cleaned =
      "DEBUG Cachemap files " + root.key() + " and " + root.val() + " cleaned";
  EXPECT_EQ(ran.messages(),
            (Messages{root.opened_key(), root.opened_val(), root.loaded(), cleaned, cleaned}));
}

// The names of the files of a directory that are deleted, in this order.
class Deletions {
 public:
  explicit Deletions(const std::string& directory) : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    inotify_add_watch(fd_, directory.c_str(), IN_DELETE);
  }
  ~Deletions() { close(fd_); }
  Deletions(const Deletions&) = delete;
  Deletions& operator=(const Deletions&) = delete;

  std::vector<std::string> names() const {
    alignas(inotify_event) char events[4096];
    const ssize_t size = read(fd_, events, sizeof(events));
    std::vector<std::string> names;
    for (const char* at = events; at < events + size;) {
      const auto* event = reinterpret_cast<const inotify_event*>(at);
      names.emplace_back(event->name);
      at += sizeof(inotify_event) + event->len;
    }
    return names;
  }

 private:
  int fd_;
};

TEST(LazyStoreClean, RemovesTheValuesFirst) {
  const LazyRoot root(lazy_files(kEntries));
  const Deletions deletions(root.path());
  root.run("clean");
  EXPECT_EQ(deletions.names(), (std::vector<std::string>{"val_maps", "key_maps"}));
}

SCENARIO(locked_load_with_threshold) {
  Maps maps(std::stoull(arguments.at(0)));
  EntryMap out;
  const bool loaded = maps.store.try_load(out);
  std::printf("%d %zu\n", loaded, out.size());
  return 0;
}

TEST(LazyStoreClean, FilesLargerThanTheThresholdAreRemovedBeforeTheyAreLoaded) {
  const LazyFiles files = lazy_files(kEntries);
  const std::size_t size = files.key.size() + files.val.size();
  const LazyRoot root(files);
  EXPECT_EQ(root.run("locked_load_with_threshold", {std::to_string(size)}).out, "1 2\n");
  EXPECT_EQ(root.run("locked_load_with_threshold", {std::to_string(size - 1)}).out, "0 0\n");
  EXPECT_TRUE(root.has_neither());
}

// --- made by kind, and with a cache on top ---

Cache maps_cache() {
  static CleanupController& no_limit = *new CleanupController(0);
  return {"maps", make_file_store(StoreKind::lazy_lookup, "maps", &no_limit), false};
}

SCENARIO(cache_adds) {
  Cache cache = maps_cache();
  std::printf("%d\n%s", cache.is_valid(), test::listing(cache).c_str());
  for (const std::string& key : arguments) {
    cache.add_value(buffer(key), buffers({"of " + key}));
  }
  return 0;
}

TEST(LazyStoreCache, IsValidOnAFreshRootWhichGetsTheTwoFiles) {
  const LazyRoot root;
  const Ran ran = root.run("cache_adds");
  EXPECT_EQ(ran.out, "1\n");
  EXPECT_EQ(root.files(), lazy_files({}));
  EXPECT_EQ(ran.messages(),
            (Messages{root.stored(), root.opened_key(), root.opened_val(), root.loaded(),
                      "INFO Created maps cache with LazyLookupStore store type"}));
}

TEST(LazyStoreCache, WhatOneProcessAddsTheNextOneLoads) {
  const LazyRoot root;
  EXPECT_EQ(root.run("cache_adds", {"k", "aa"}).out, "1\n");
  const Ran second = root.run("cache_adds", {"b", "k"});
  EXPECT_EQ(second.out, "1\nk=of k\naa=of aa\n");
  EXPECT_EQ(
      second.messages(),
      (Messages{root.opened_key(), root.opened_val(), root.loaded(),
                "INFO Loaded maps cache data with LazyLookupStore store type, num entries = 2",
                "INFO Created maps cache with LazyLookupStore store type", root.opened_key(),
                root.scanned(), root.stored(),
                "DEBUG Stored maps cache diff data with LazyLookupStore store type, "
                "num diff entries = 1"}));
  EXPECT_EQ(root.files(), lazy_files({{"k", {"of k"}}, {"aa", {"of aa"}}, {"b", {"of b"}}}));
}

TEST(LazyStoreCache, HalfAPairOfFilesIsLeftAloneAndFails) {
  const LazyRoot root;
  test::write_file(root.val(), lazy_files(kEntries).val);
  const Ran ran = root.run("cache_adds", {"k"}, "WARN");
  EXPECT_EQ(ran.out, "0\n");
  EXPECT_EQ(ran.messages(),
            (Messages{expectation_at("key_file_exists == val_file_exists", 1036),
                      "ERROR Couldn't create maps cache with LazyLookupStore store type"}));
  EXPECT_FALSE(test::exists(root.key()));
}

TEST(LazyStoreCache, OnAnUnusableRootGetsNoValidStore) {
  const LazyRoot root;
  const Ran ran = test::run_scenario(
      "cache_adds", {{"QV_CACHE_STORE_ROOT", root.path() + "/none"}, {"QV_LOG_LEVEL", "WARN"}});
  EXPECT_EQ(ran.out, "0\n");
  EXPECT_EQ(ran.messages(), Messages{"WARN Cache store " + root.path() +
                                     "/none/lock_maps lock couldn't be obtained: "
                                     "No such file or directory."});
}

TEST(LazyStoreCache, WithoutARootSaysSoForTheLockAndForEachFile) {
  const Ran ran =
      test::run_scenario("cache_adds", {{"QV_CACHE_STORE_ROOT", {}}, {"QV_LOG_LEVEL", "WARN"}});
  EXPECT_EQ(ran.out, "0\n");
  const std::string no_root = "ERROR Caching enabled, but QV_CACHE_STORE_ROOT not set.";
  EXPECT_EQ(
      ran.messages(),
      (Messages{no_root, "WARN Cache store  lock couldn't be obtained: No such file or directory.",
                no_root, no_root}));
}

// The load that cleans finds nothing; the next store starts anew.
SCENARIO(cache_past_the_threshold) {
  CleanupController controller(50);
  for (int i = 0; i < 2; ++i) {
    Cache cache("maps", make_file_store(StoreKind::lazy_lookup, "maps", &controller), false);
    std::printf("%d", cache.is_valid());
  }
  return 0;
}

TEST(LazyStoreCache, WhoseLoadCleansIsInvalidAndTheNextOneStartsAnew) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("cache_past_the_threshold", {}, "ERROR");
  EXPECT_EQ(ran.out, "01");
  EXPECT_EQ(root.files(), lazy_files({}));
}

SCENARIO(bare_store) {
  CleanupController controller(0);
  auto store = std::make_unique<LazyLookupStore>(
      "maps", std::make_shared<quorvane::cache::StoreFLock>("maps"), &controller);
  std::printf("%d", Cache("maps", std::move(store), true).is_valid());
  return 0;
}

TEST(LazyStoreCache, WithABareStoreFailsAsLongAsTheFilesAreMissing) {
  const LazyRoot root;
  for (int i = 0; i < 2; ++i) {
    const Ran ran = root.run("bare_store", {}, "WARN");
    EXPECT_EQ(ran.out, "0");
    EXPECT_EQ(ran.messages(),
              Messages{"ERROR Couldn't create maps cache with LazyLookupStore store type"});
    EXPECT_TRUE(root.has_neither());
  }
  root.run("cache_adds");
  EXPECT_EQ(root.run("bare_store").out, "1");
}

SCENARIO(two_caches_add_one_key) {
  Cache first = maps_cache();
  {
    Cache second = maps_cache();
    second.add_value(buffer("k"), buffers({"second"}));
  }
  first.add_value(buffer("k"), buffers({"first"}));
  first.add_value(buffer("own"), buffers({"1"}));
  return 0;
}

TEST(LazyStoreCache, AppendSkipsAKeyThatAnotherCacheStoredFirst) {
  const LazyRoot root;
  EXPECT_TRUE(root.run("two_caches_add_one_key").exited_with(0));
  EXPECT_EQ(root.files(), lazy_files({{"k", {"second"}}, {"own", {"1"}}}));
}

SCENARIO(restarted_files_of_a_loaded_cache) {
  Cache cache = maps_cache();
  cache.add_value(buffer("k"), buffers({"v"}));
  // As another process would that cleaned: the mapped bytes stay.
  std::remove((Maps::root() + "/key_maps").c_str());
  std::remove((Maps::root() + "/val_maps").c_str());
  test::write_lazy_files(Maps::root(), lazy_files({}));
  return 0;
}

TEST(LazyStoreCache, DoesNotAppendToFilesThatWereRestarted) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("restarted_files_of_a_loaded_cache", {}, "WARN");
  EXPECT_EQ(lazy_lines(ran).front(),
            expectation_at("key_file.size() >= key_file_last_size_", 1295));
  EXPECT_EQ(test::without_lines(ran.messages()),
            (Messages{expectation("key_file.size() >= key_file_last_size_"),
                      expectation("loaded_map_last_size_ == 0 || new_keys_loaded"),
                      expectation("store_->try_store_diff(diff_map_)")}));
  EXPECT_EQ(root.files(), lazy_files({}));
}
