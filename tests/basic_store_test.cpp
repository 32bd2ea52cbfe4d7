#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "support/no_memory.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

using quorvane::cache::BasicStore;
using quorvane::cache::Cache;
using quorvane::cache::CleanupController;
using quorvane::cache::EntryMap;
using quorvane::cache::KeySet;
using quorvane::cache::make_file_store;
using quorvane::cache::StoreKind;
using quorvane::util::RwBuffer;
using test::basic_file;
using test::buffer;
using test::buffers;
using test::Entry;
using test::entry_bytes;
using test::entry_map;
using test::expectation;
using test::Ran;
using test::TempDir;
using test::without_lines;
using Messages = std::vector<std::string>;

namespace {

// No memory for so many bytes, sanitizers' included, which would end the process.
constexpr std::size_t kNoMemoryFrom = std::size_t{1} << 40;

// What the scenarios work on: the store "maps" of the root that is set.
struct Maps {
  explicit Maps(std::uint64_t threshold = 0) : controller(threshold) {}

  std::string file() const { return std::string(getenv("QV_CACHE_STORE_ROOT")) + "/maps"; }
  void load() {
    EntryMap out;
    const bool ok = store.try_nonlock_load(out);
    std::printf("load %d\n%s", ok, test::listing(out).c_str());
  }
  void scan() {
    KeySet keys;
    const bool ok = store.try_nonlock_load_new_keys(keys);
    std::printf("scan %d\n%s", ok, test::listing(keys).c_str());
  }
  void append(const std::vector<Entry>& entries, const std::vector<std::string>& foreign = {}) {
    std::printf("append %d\n",
                store.try_nonlock_append(entry_map(entries), test::key_set(foreign)));
  }
  // What another process would do meanwhile.
  void others_append(const std::vector<Entry>& entries) const {
    std::string bytes = test::read_file(file());
    for (const Entry& entry : entries) {
      bytes += entry_bytes(entry);
    }
    test::write_file(file(), bytes);
  }

  CleanupController controller;
  BasicStore store{"maps", std::make_shared<test::CountingLock>(), &controller};
};

void log_every_check() {
  test::module_of("util/src/cache")->fault_log_level = 3;
  test::module_of("util/src/mmapped_file")->fault_log_level = 3;
}

// A root directory with, perhaps, the file "maps".
class Root {
 public:
  Root() = default;
  explicit Root(const std::string& bytes) { test::write_file(maps(), bytes); }

  std::string maps() const { return dir_.file("maps"); }
  std::string bytes() const { return test::read_file(maps()); }
  Ran run(const std::string& scenario, const test::Arguments& arguments = {},
          const std::string& level = "DEBUG") const {
    return test::run_scenario(
        scenario, {{"QV_CACHE_STORE_ROOT", dir_.path()}, {"QV_LOG_LEVEL", level}}, arguments);
  }

  std::string opened() const { return "DEBUG Opened and mmapped " + maps() + " file"; }
  std::string loaded() const { return "DEBUG Cachemap " + maps() + " file loaded"; }
  std::string scanned() const { return "DEBUG Cachemap " + maps() + " diff loaded"; }
  std::string stored() const { return "DEBUG Cache file " + maps() + " stored"; }
  std::string corrupted() const { return "ERROR Cachemap " + maps() + " file corrupted"; }
  std::string collision() const {
    return "WARN Collision inside cachemap " + maps() + " file ocurred";
  }

 private:
  TempDir dir_;
};

const std::vector<Entry> kEntries{{"b", {"2", "3"}}, {"aa", {"1"}}};

}  // namespace

// --- entries ---

TEST(BasicStoreEntry, TakesFourAndEightAndEightBytesAndItsPiecesWithTheirSizes) {
  EXPECT_EQ(BasicStore::get_entry_representation_size(buffer("abc"), buffers({"ab", "c"})), 42u);
  EXPECT_EQ(BasicStore::get_entry_representation_size(buffer("k"), {}), 21u);
}

TEST(BasicStoreEntry, IsWrittenAsMagicNumberKeyAndValue) {
  RwBuffer bytes(42);
  quorvane::util::BufferWriter writer = bytes.writer();
  ASSERT_TRUE(BasicStore::write_entry(writer, buffer("abc"), buffers({"ab", "c"})));
  EXPECT_EQ(test::bytes_of(bytes), entry_bytes({"abc", {"ab", "c"}}));
}

SCENARIO(entry_without_room) {
  for (const std::size_t size : {3u, 12u, 30u}) {
    RwBuffer bytes(size);
    quorvane::util::BufferWriter writer = bytes.writer();
    std::printf("%d", BasicStore::write_entry(writer, buffer("abc"), buffers({"ab", "c"})));
  }
  return 0;
}

TEST(BasicStoreEntry, StopsAtTheFirstPieceThatDoesNotFit) {
  const Ran ran = test::run_scenario("entry_without_room");
  EXPECT_EQ(ran.out, "000");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{expectation("fwriter.put(QV_CACHE_STORE_MAGIC_NUMBER)"),
                      expectation("fwriter.put_raw(key.get_buffer(), key.get_size())"),
                      expectation("fwriter.put(val_atom.get_size())")}));
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

TEST(BasicStoreLoad, AMissingFileIsAnEmptyCacheInSilence) {
  const Root root;
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 1\nBasicStore");
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_FALSE(test::exists(root.maps()));
}

TEST(BasicStoreLoad, AMissingFileIsACheckOfSeverity3) {
  EXPECT_EQ(without_lines(Root().run("load", {"loud"}).messages()),
            Messages{expectation("file_exists(fpath_)")});
}

TEST(BasicStoreLoad, ReadsEveryEntryInWhateverOrderTheyLie) {
  const Root root(basic_file({{"ccc", {"4", "55"}}, {"b", {"2"}}, {"aa", {"1"}}, {"a", {"0"}}}));
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 1\na=0\nb=2\naa=1\nccc=4,55\nBasicStore");
  EXPECT_EQ(ran.messages(), (Messages{root.opened(), root.loaded()}));
}

TEST(BasicStoreLoad, AFileOfTheHeaderAloneIsAnEmptyCache) {
  const Root root(basic_file({}));
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 1\nBasicStore");
  EXPECT_EQ(ran.messages(), (Messages{root.opened(), root.loaded()}));
}

TEST(BasicStoreLoad, AnEmptyFileCannotBeMappedAndFails) {
  const Root root("");
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
  const Root root(basic_file({}).substr(0, 7));
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 0\nBasicStore");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{root.opened(), expectation("hdr"), root.corrupted()}));
}

TEST(BasicStoreLoad, AHeaderOfAnotherVersionFails) {
  const Root root(test::header_bytes(2) + entry_bytes(kEntries[0]));
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 0\nBasicStore");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{root.opened(),
                      expectation("std::memcmp(hdr, &valid_hdr_, sizeof(valid_hdr_)) == 0"),
                      root.corrupted()}));
}

TEST(BasicStoreLoad, TheEntriesBeforeADamageStayInTheMap) {
  const Root root(basic_file(kEntries) + "damage");
  const Ran ran = root.run("load");
  EXPECT_EQ(ran.out, "load 0\nb=2,3\naa=1\nBasicStore");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{root.opened(), expectation("magic_number == QV_CACHE_STORE_MAGIC_NUMBER"),
                      root.corrupted()}));
}

TEST(BasicStoreLoad, TheFirstOfTwoEntriesWithOneKeyStaysAndTheOtherIsReported) {
  const Root root(
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
  EXPECT_EQ(Root(basic_file(entries)).run("load", {}, "OFF").out, expected + "BasicStore");
}

TEST(BasicStoreLoad, AnUnreadableFileFailsAsNotOpened) {
  const Root root;
  ASSERT_EQ(mkdir(root.maps().c_str(), 0755), 0);  // exists, but can't be mapped
  const Ran ran = root.run("load", {}, "WARN");
  EXPECT_EQ(ran.out, "load 0\nBasicStore");
  EXPECT_EQ(without_lines(ran.messages()), Messages{expectation("file.is_open()")});
}

TEST(BasicStoreLoad, APipeInTheFilesPlaceFailsAndIsNotWaitedFor) {
  const Root root;
  ASSERT_EQ(mkfifo(root.maps().c_str(), 0600), 0);
  const Ran ran = root.run("load", {}, "WARN");
  EXPECT_EQ(ran.out, "load 0\nBasicStore");
  EXPECT_EQ(without_lines(ran.messages()), Messages{expectation("file.is_open()")});
}

// Up to 4096 bytes the pieces of an entry share one allocation.
TEST(BasicStoreLoad, ReadsSmallAndLargeEntriesAlike) {
  const std::string key(10, 'k');
  for (const std::size_t total : {4095u, 4096u, 4097u, 10000u}) {
    const Entry entry{key, {"1", std::string(total - key.size() - 3, 'x'), "22"}};
    const Root root(basic_file({entry, {"other", {"3"}}}));
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
      const Root root(basic_file({{key, {filling, std::string(last, 'y')}}}));
      EXPECT_EQ(root.run("load").out,
                "load 1\n" + key + "=" + filling + "," + std::string(last, 'y') + "\nBasicStore")
          << total << " " << last;
    }
  }
}

// Says of each entry whether its pieces lie one after the other.
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
  const Root root(basic_file({{"k", {"1", std::string(4094, 'x')}},
                              {"kk", {"1", std::string(4094, 'x')}},
                              {"kkk", {"1", "2"}}}));
  EXPECT_EQ(root.run("pieces_in_one_allocation").out, "101");
}

TEST(BasicStoreLoad, AnEmptyKeyInAWholeFileFails) {
  const Root root(basic_file({kEntries[0], {"", {"v"}}, kEntries[1]}));
  const Messages messages{root.opened(), expectation("key_size > 0"), root.corrupted()};
  const Ran load = root.run("load");
  EXPECT_EQ(load.out, "load 0\nb=2,3\nBasicStore");
  EXPECT_EQ(without_lines(load.messages()), messages);
  const Ran scan = root.run("scan");
  EXPECT_EQ(scan.out, "scan 0\nb\n");
  EXPECT_EQ(without_lines(scan.messages()), messages);
}

SCENARIO(load_into_a_filled_map) {
  Maps maps;
  EntryMap out = entry_map({{"aa", {"mine"}}, {"c", {"mine"}}});
  const bool ok = maps.store.try_nonlock_load(out);
  std::printf("load %d\n%s", ok, test::listing(out).c_str());
  return 0;
}

TEST(BasicStoreLoad, AddsToWhatTheMapHoldsAndReportsWhatItHoldsAlready) {
  const Root root(basic_file(kEntries));
  const Ran ran = root.run("load_into_a_filled_map", {}, "WARN");
  EXPECT_EQ(ran.out, "load 1\nb=2,3\nc=mine\naa=mine\n");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{expectation("emplace_ret.second"), root.collision()}));
}

TEST(BasicStoreLoad, OfADamagedFileIsSilentAtOff) {
  const Root root(basic_file(kEntries) + "damage");
  const Ran ran = root.run("load", {"loud"}, "OFF");
  EXPECT_EQ(ran.out, "load 0\nb=2,3\naa=1\nBasicStore");
  EXPECT_EQ(ran.log, "");
}

// --- the state between operations ---

SCENARIO(vanished_file) {
  Maps maps;
  maps.load();
  std::remove(maps.file().c_str());
  std::printf("consistent %d\n", maps.store.check_consistent_state());
  maps.load();
  maps.scan();
  maps.append({{"k", {"v"}}});
  return 0;
}

TEST(BasicStoreState, AFileThatVanishedAfterItsLoadFailsEverything) {
  const Root root(basic_file(kEntries));
  const Ran ran = root.run("vanished_file");
  EXPECT_EQ(ran.out, "load 1\nb=2,3\naa=1\nconsistent 0\nload 0\nscan 0\nappend 0\n");
  const std::string gone = expectation("file_last_size_ == 0 || file_exists(fpath_)");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{root.opened(), root.loaded(), gone, gone, gone, gone}));
  EXPECT_FALSE(test::exists(root.maps()));
}

SCENARIO(vanished_after_failed_load) {
  Maps maps;
  maps.load();
  std::remove(maps.file().c_str());
  std::printf("consistent %d\n", maps.store.check_consistent_state());
  maps.append(kEntries);
  return 0;
}

TEST(BasicStoreState, AFailedLoadLeavesTheLastSizeAsItWas) {
  const Root root(basic_file(kEntries) + "damage");
  const Ran ran = root.run("vanished_after_failed_load");
  EXPECT_EQ(ran.out, "load 0\nb=2,3\naa=1\nconsistent 1\nappend 1\n");
  EXPECT_EQ(root.bytes(), basic_file(kEntries));
}

// --- the scan for new keys ---

SCENARIO(scan_twice) {
  Maps maps;
  maps.load();
  maps.scan();
  maps.others_append({{"foreign", {"1", "2"}}, {"x", {"3"}}});
  maps.scan();
  maps.scan();
  return 0;
}

TEST(BasicStoreScan, FindsOnlyWhatOthersAppendedSinceTheLastReading) {
  const Root root(basic_file(kEntries));
  const Ran ran = root.run("scan_twice");
  EXPECT_EQ(ran.out, "load 1\nb=2,3\naa=1\nscan 1\nscan 1\nx\nforeign\nscan 1\n");
  EXPECT_EQ(ran.messages(),
            (Messages{root.opened(), root.loaded(), root.opened(), root.scanned(), root.opened(),
                      root.scanned(), root.opened(), root.scanned()}));
}

SCENARIO(scan) {
  if (!arguments.empty()) {
    log_every_check();
  }
  Maps().scan();
  return 0;
}

TEST(BasicStoreScan, WithoutALoadReadsTheWholeFile) {
  const Root root(basic_file(kEntries));
  const Ran ran = root.run("scan");
  EXPECT_EQ(ran.out, "scan 1\nb\naa\n");
  EXPECT_EQ(ran.messages(), (Messages{root.opened(), root.scanned()}));
}

TEST(BasicStoreScan, FindsNothingInAMissingFileInSilence) {
  const Root root;
  EXPECT_EQ(root.run("scan").out, "scan 1\n");
  EXPECT_EQ(root.run("scan").messages(), Messages{});
  EXPECT_EQ(without_lines(root.run("scan", {"loud"}).messages()),
            Messages{expectation("file_exists(fpath_)")});
}

TEST(BasicStoreScan, FailsOnAnEmptyFile) {
  const Root root("");
  const Ran ran = root.run("scan", {}, "WARN");
  EXPECT_EQ(ran.out, "scan 0\n");
  EXPECT_EQ(without_lines(ran.messages()), Messages{expectation("file.is_open()")});
}

TEST(BasicStoreScan, WithoutALoadChecksTheHeader) {
  const Root root(test::header_bytes(2));
  const Ran ran = root.run("scan");
  EXPECT_EQ(ran.out, "scan 0\n");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{root.opened(),
                      expectation("std::memcmp(hdr, &valid_hdr_, sizeof(valid_hdr_)) == 0"),
                      expectation("read_header(freader)"), root.corrupted()}));
}

SCENARIO(shrunken_file) {
  Maps maps;
  maps.load();
  test::write_file(maps.file(), basic_file({}));
  maps.scan();
  EntryMap diff = entry_map({{"k", {"v"}}});
  std::printf("diff %d\n", maps.store.try_store_diff(diff));
  return 0;
}

TEST(BasicStoreScan, AFileThatBecameSmallerWasRestartedAndFails) {
  const Root root(basic_file(kEntries));
  const Ran ran = root.run("shrunken_file", {}, "WARN");
  // The load was not the store's locked one, so nothing is known of entries.
  EXPECT_EQ(ran.out, "load 1\nb=2,3\naa=1\nscan 0\ndiff 1\n");
  const std::string smaller = expectation("file.size() >= file_last_size_");
  EXPECT_EQ(without_lines(ran.messages()), (Messages{smaller, smaller}));
}

SCENARIO(shrunken_file_of_a_loaded_cache) {
  CleanupController controller(0);
  Cache cache("maps", make_file_store(StoreKind::basic, "maps", &controller), false);
  cache.add_value(buffer("k"), buffers({"v"}));
  test::write_file(Maps().file(), basic_file({}));
  return 0;
}

TEST(BasicStoreScan, ACacheDoesNotAppendToAFileThatWasRestarted) {
  const Root root(basic_file(kEntries));
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
  const Root root(damaged);
  EXPECT_EQ(root.run("diff_after_a_failed_load", {}, "OFF").out, "0 1");
  EXPECT_EQ(root.bytes(), damaged + entry_bytes({"k", {"v"}}));
}

SCENARIO(scan_of_damage) {
  Maps maps;
  maps.load();
  const std::string whole = test::read_file(maps.file());
  test::write_file(maps.file(), whole + entry_bytes({"new", {"1"}}) + "damage");
  maps.scan();
  // The reading stands where it stood: the new entry is found again.
  test::write_file(maps.file(), whole + entry_bytes({"new", {"1"}}));
  maps.scan();
  return 0;
}

TEST(BasicStoreScan, ADamageFailsAndLeavesTheLastSizeAsItWas) {
  const Root root(basic_file(kEntries));
  const Ran ran = root.run("scan_of_damage");
  EXPECT_EQ(ran.out, "load 1\nb=2,3\naa=1\nscan 0\nnew\nscan 1\nnew\n");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{root.opened(), root.loaded(), root.opened(),
                      expectation("magic_number == QV_CACHE_STORE_MAGIC_NUMBER"), root.corrupted(),
                      root.opened(), root.scanned()}));
}

TEST(BasicStoreScan, OfADamagedFileIsSilentAtOff) {
  const Root root(basic_file(kEntries));
  const Ran ran = root.run("scan_of_damage", {}, "OFF");
  EXPECT_EQ(ran.out, Root(basic_file(kEntries)).run("scan_of_damage").out);
  EXPECT_EQ(ran.log, "");
}

SCENARIO(scan_of_collisions) {
  Maps maps;
  maps.load();
  // A key of the loaded part is new to the scan; one twice in the new part isn't.
  maps.others_append({{"b", {"x"}}, {"twice", {"1"}}, {"twice", {"2"}}});
  maps.scan();
  return 0;
}

TEST(BasicStoreScan, AKeyThatOccursTwiceInTheNewPartIsReported) {
  const Root root(basic_file(kEntries));
  const Ran ran = root.run("scan_of_collisions");
  EXPECT_EQ(ran.out, "load 1\nb=2,3\naa=1\nscan 1\nb\ntwice\n");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{root.opened(), root.loaded(), root.opened(),
                      expectation("emplace_ret.second"), root.collision(), root.scanned()}));
}

// --- append ---

SCENARIO(append) {
  Maps().append({{"ccc", {"4", "55"}}, {"b", {"2"}}, {"aa", {"1"}}}, arguments);
  return 0;
}

TEST(BasicStoreAppend, MakesTheFileWithItsHeaderAndTheEntriesInKeyOrder) {
  const Root root;
  const Ran ran = root.run("append");
  EXPECT_EQ(ran.out, "append 1\n");
  EXPECT_EQ(root.bytes(), basic_file({{"b", {"2"}}, {"aa", {"1"}}, {"ccc", {"4", "55"}}}));
  EXPECT_EQ(ran.messages(), Messages{root.stored()});
}

TEST(BasicStoreAppend, LeavesWhatTheFileHolds) {
  const Root root(basic_file({{"zz", {"0"}}}));
  EXPECT_EQ(root.run("append").out, "append 1\n");
  EXPECT_EQ(root.bytes(),
            basic_file({{"zz", {"0"}}, {"b", {"2"}}, {"aa", {"1"}}, {"ccc", {"4", "55"}}}));
}

TEST(BasicStoreAppend, GivesAnEmptyFileItsHeader) {
  const Root root("");
  EXPECT_EQ(root.run("append").out, "append 1\n");
  EXPECT_EQ(root.bytes(), basic_file({{"b", {"2"}}, {"aa", {"1"}}, {"ccc", {"4", "55"}}}));
}

TEST(BasicStoreAppend, SkipsTheKeysThatOthersStored) {
  const Root root;
  EXPECT_EQ(root.run("append", {"aa", "unknown"}).out, "append 1\n");
  EXPECT_EQ(root.bytes(), basic_file({{"b", {"2"}}, {"ccc", {"4", "55"}}}));
}

SCENARIO(append_nothing) {
  Maps().append({});
  return 0;
}

TEST(BasicStoreAppend, OfNothingMakesAFileOfTheHeader) {
  const Root root;
  EXPECT_EQ(root.run("append_nothing").out, "append 1\n");
  EXPECT_EQ(root.bytes(), basic_file({}));
}

SCENARIO(append_large) {
  Maps().append({{"large", {std::string(3000000, 'x'), "y"}}, {"small", {"z"}}});
  return 0;
}

TEST(BasicStoreAppend, WritesLargeEntriesWhole) {
  const Root root;
  EXPECT_EQ(root.run("append_large").out, "append 1\n");
  EXPECT_EQ(root.bytes(),
            basic_file({{"large", {std::string(3000000, 'x'), "y"}}, {"small", {"z"}}}));
}

TEST(BasicStoreAppend, AFileThatCannotBeOpenedIsReportedAndNotStored) {
  const Root root;
  const Ran ran = test::run_scenario(
      "append", {{"QV_CACHE_STORE_ROOT", root.maps()}, {"QV_LOG_LEVEL", "WARN"}});
  EXPECT_EQ(ran.out, "append 0\n");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{expectation("file.good()"), expectation("!fbuffer_corrupted && file.good()"),
                      "WARN Cache file " + root.maps() +
                          "/maps removed as it couldn't be stored correctly"}));
}

// An entry whose value is null though it has a size can't be put into a buffer.
SCENARIO(append_unwritable) {
  Maps maps;
  EntryMap diff = entry_map({{"a", {"1"}}, {"ccc", {"3"}}});
  diff.emplace(buffer("bb"), std::vector{quorvane::util::RoBuffer::view(nullptr, 5)});
  std::printf("append %d\n", maps.store.try_nonlock_append(diff, {}));
  return 0;
}

TEST(BasicStoreAppend, AnEntryThatCannotBeWrittenCostsTheWholeFile) {
  const Root root(basic_file(kEntries));
  const Ran ran = root.run("append_unwritable", {}, "WARN");
  EXPECT_EQ(ran.out, "append 0\n");
  EXPECT_FALSE(test::exists(root.maps()));
  const Messages messages = without_lines(ran.messages());
  ASSERT_EQ(messages.size(), 4u) << ran.log;
  EXPECT_EQ(messages[0],
            expectation("fwriter.put_raw(val_atom.get_buffer(), val_atom.get_size())"));
  EXPECT_EQ(messages[1], expectation("!fbuffer_corrupted && file.good()"));
  // The record says so when the removal succeeded.
  EXPECT_EQ(messages[2].rfind("WARN Error removing file " + root.maps() + ": ", 0), 0u);
  EXPECT_EQ(messages[2].back(), '\n');
  EXPECT_EQ(messages[3],
            "WARN Cache file " + root.maps() + " removed as it couldn't be stored correctly");
}

// An entry whose value claims more bytes than there is memory.
SCENARIO(append_unallocatable) {
  test::no_memory_from = kNoMemoryFrom;
  CleanupController controller(0);
  Cache cache("maps", make_file_store(StoreKind::basic, "maps", &controller), false);
  cache.add_value(buffer("a"), buffers({"1"}));
  cache.add_value(buffer("bb"), {quorvane::util::RoBuffer::view("x", kNoMemoryFrom)});
  return 0;
}

TEST(BasicStoreAppend, AnEntryForWhichThereIsNoMemoryLeavesTheFileAsItWas) {
  const Messages expected{"ERROR Storing maps cache failed: std::bad_alloc",
                          expectation("store_->try_store_diff(diff_map_)")};
  const Root root(basic_file(kEntries));
  const Ran ran = root.run("append_unallocatable", {}, "ERROR");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(root.bytes(), basic_file(kEntries));
  EXPECT_EQ(without_lines(ran.messages()), expected);
  const Root fresh;
  EXPECT_EQ(without_lines(fresh.run("append_unallocatable", {}, "ERROR").messages()), expected);
  EXPECT_FALSE(test::exists(fresh.maps()));
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

TEST(BasicStoreUsage, IsTheSizeOfTheFile) {
  const Root root(basic_file(kEntries));
  const std::string size = std::to_string(basic_file(kEntries).size());
  EXPECT_EQ(root.run("usage").out, size + " " + size);
}

TEST(BasicStoreUsage, IsZeroWithoutAFileAndACheckOfSeverity3) {
  const Root root;
  EXPECT_EQ(root.run("usage").out, "0 0");
  EXPECT_EQ(root.run("usage").messages(), Messages{});
  const std::string check = expectation("stat(fpath_.c_str(), &st) == 0");
  EXPECT_EQ(without_lines(root.run("usage", {"loud"}).messages()), (Messages{check, check}));
}

SCENARIO(clean) {
  Maps maps;
  maps.store.nonlock_clean();
  maps.store.clean();
  return 0;
}

TEST(BasicStoreClean, RemovesTheFileAndSaysSoWhateverTheResult) {
  const Root root(basic_file(kEntries));
  const Ran ran = root.run("clean");
  EXPECT_FALSE(test::exists(root.maps()));
  const std::string cleaned = "DEBUG Cachemap file " + root.maps() + " cleaned";
  EXPECT_EQ(ran.messages(), (Messages{cleaned, cleaned}));
  EXPECT_EQ(root.run("clean", {}, "INFO").messages(), Messages{});
}

SCENARIO(locked_load_with_threshold) {
  Maps maps(std::stoull(arguments.at(0)));
  EntryMap out;
  const bool loaded = maps.store.try_load(out);
  std::printf("%d %zu\n", loaded, out.size());
  return 0;
}

TEST(BasicStoreClean, AFileLargerThanTheThresholdIsRemovedBeforeItIsLoaded) {
  const Root root(basic_file(kEntries));
  const std::string size = std::to_string(basic_file(kEntries).size());
  EXPECT_EQ(root.run("locked_load_with_threshold", {size}).out, "1 2\n");
  const std::string less = std::to_string(basic_file(kEntries).size() - 1);
  const Ran ran = root.run("locked_load_with_threshold", {less});
  EXPECT_EQ(ran.out, "1 0\n");
  EXPECT_FALSE(test::exists(root.maps()));
  EXPECT_EQ(ran.messages(),
            (Messages{"TRACE Cache store usage is " + size + " / " + less + " bytes.",
                      "DEBUG Cachemap file " + root.maps() + " cleaned",
                      "TRACE Cache store usage is 0 / " + less + " bytes.",
                      "INFO Cache store cleaned."}));
}

// --- with a cache on top ---

SCENARIO(cache_adds) {
  CleanupController controller(0);
  Cache cache("maps", make_file_store(StoreKind::basic, "maps", &controller), false);
  std::printf("%s", test::listing(cache).c_str());
  for (const std::string& key : arguments) {
    cache.add_value(buffer(key), buffers({"of " + key}));
  }
  return 0;
}

TEST(BasicStoreCache, WhatOneProcessAddsTheNextOneLoads) {
  const Root root;
  const Ran first = root.run("cache_adds", {"k", "aa"});
  EXPECT_EQ(first.out, "");
  EXPECT_EQ(first.messages(),
            (Messages{"INFO Created maps cache with BasicStore store type", root.stored(),
                      "DEBUG Stored maps cache diff data with BasicStore store type, "
                      "num diff entries = 2"}));
  const Ran second = root.run("cache_adds", {"b", "k"});
  EXPECT_EQ(second.out, "k=of k\naa=of aa\n");
  EXPECT_EQ(second.messages(),
            (Messages{root.opened(), root.loaded(),
                      "INFO Loaded maps cache data with BasicStore store type, num entries = 2",
                      "INFO Created maps cache with BasicStore store type", root.opened(),
                      root.scanned(), root.stored(),
                      "DEBUG Stored maps cache diff data with BasicStore store type, "
                      "num diff entries = 1"}));
  EXPECT_EQ(root.bytes(), basic_file({{"k", {"of k"}}, {"aa", {"of aa"}}, {"b", {"of b"}}}));
}

SCENARIO(two_caches_add_one_key) {
  CleanupController controller(0);
  Cache first("maps", make_file_store(StoreKind::basic, "maps", &controller), false);
  {
    Cache second("maps", make_file_store(StoreKind::basic, "maps", &controller), false);
    second.add_value(buffer("k"), buffers({"second"}));
  }
  first.add_value(buffer("k"), buffers({"first"}));
  first.add_value(buffer("own"), buffers({"1"}));
  return 0;
}

TEST(BasicStoreCache, AppendSkipsAKeyThatAnotherCacheStoredFirst) {
  const Root root;
  EXPECT_TRUE(root.run("two_caches_add_one_key").exited_with(0));
  EXPECT_EQ(root.bytes(), basic_file({{"k", {"second"}}, {"own", {"1"}}}));
}
