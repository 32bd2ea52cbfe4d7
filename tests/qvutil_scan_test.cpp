// How the tool reads the files of caches, whole and damaged.
#include <quorvane/file_store.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <set>

#include "qvutil/store/indexed_scan.h"
#include "qvutil/store/repeated_keys.h"
#include "support/hostile.h"
#include "support/indexed_cache.h"
#include "support/lazy_files.h"
#include "support/scanned_cache.h"
#include "support/temp_dir.h"

using quorvane::cache::EntryMap;
using quorvane::cache::Store;
using quorvane::cache::StoreKind;
using quorvane::cache::StoreOptions;
using quorvane::tool::Kind;

namespace test {
namespace {

using Files = std::vector<std::pair<std::string, std::string>>;  // names and bytes

StoreKind store_kind(Kind kind) {
  return kind == Kind::basic         ? StoreKind::basic
         : kind == Kind::lazy_lookup ? StoreKind::lazy_lookup
                                     : StoreKind::indexed;
}

StoreOptions options_for(const std::string& root, Kind kind) {
  static auto& no_limit = *new quorvane::cache::CleanupController(0);
  StoreOptions options;
  options.kind = store_kind(kind);
  options.root = root;
  options.name = "maps";
  options.controller = &no_limit;
  return options;
}

void store(const std::string& root, Kind kind, const std::vector<Entry>& entries) {
  const auto made = quorvane::cache::make_store(options_for(root, kind));
  EntryMap loaded;
  ASSERT_TRUE(made->try_load(loaded));
  ASSERT_TRUE(made->try_store_diff(entry_map(entries)));
}

Files files_in(const std::string& root) {
  Files files;
  for (const std::string& name : names_in(root)) {
    if (name != "lock_maps") {
      files.emplace_back(name, read_file(root + "/" + name));
    }
  }
  return files;
}

// In place: the file stays the same, and file systems that flush a truncated file don't.
void overwrite(const std::string& path, const std::string& bytes) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file << bytes;
  file.close();
  ASSERT_TRUE(file) << path;
  std::filesystem::resize_file(path, bytes.size());
}

void write_files(const std::string& root, const Files& files) {
  for (const auto& [name, bytes] : files) {
    const std::string path = root + "/" + name;
    exists(path) ? overwrite(path, bytes) : write_file(path, bytes);
  }
}

// The library says at length what is damaged.
void log_nothing() {
  for (const char* path : {"util/src/cache", "util/src/mmapped_file"}) {
    module_of(path)->level = QV_LOG_LEVEL_OFF;
  }
}

enum class Verdict { whole, in_between, refused };

// What the library makes of the files. May repair what it repairs silently.
Verdict verdict_of_library(const std::string& root, Kind kind) {
  const auto made = quorvane::cache::make_store(options_for(root, kind));
  EntryMap all;
  if (!made->try_load(all)) {
    return Verdict::refused;
  }
  auto* const indexed = dynamic_cast<quorvane::cache::LookupStore*>(made.get());
  if (indexed == nullptr) {
    return Verdict::whole;
  }
  if (!indexed->try_read_all(all) || indexed->entries() != all.size()) {
    return Verdict::in_between;
  }
  const bool finds_all = std::all_of(all.begin(), all.end(), [&](const auto& entry) {
    std::vector<quorvane::util::RoBuffer> value;
    return indexed->find(entry.first, value);
  });
  return finds_all ? Verdict::whole : Verdict::in_between;
}

class Scan : public testing::TestWithParam<Kind> {
 protected:
  Scan() { log_nothing(); }

  void make(const std::vector<Entry>& entries) {
    store(root(), GetParam(), entries);
    whole_ = files_in(root());
  }

  const std::string& root() const { return dir_.path(); }
  ScannedCache scan_files() const { return scanned(root(), GetParam()); }

  void expect_agreement(const Files& files, const std::string& what) {
    write_files(root(), files);
    const ScannedCache found = scan_files();
    const Verdict verdict = verdict_of_library(root(), GetParam());
    if (verdict == Verdict::whole) {
      EXPECT_FALSE(found.is_damaged()) << what << "\n" << found.places_text();
    } else if (verdict == Verdict::refused) {
      EXPECT_TRUE(found.is_damaged()) << what << "\n" << found.places_text();
    }
    ++checked_;
  }

  TempDir dir_;
  Files whole_;
  int checked_ = 0;
};

std::string name_of_test(const testing::TestParamInfo<Kind>& info) { return name_of(info.param); }
INSTANTIATE_TEST_SUITE_P(Kinds, Scan,
                         testing::Values(Kind::basic, Kind::lazy_lookup, Kind::indexed),
                         &name_of_test);

TEST_P(Scan, FindsAllEntriesOfAWholeCacheAndNothingElse) {
  make(kHostileEntries);
  ScannedCache found = scan_files();
  EXPECT_EQ(found.places_text(), "");
  EXPECT_EQ(found.entries, kHostileEntries);
}

TEST_P(Scan, AgreesWithTheLibraryOnEveryTruncation) {
  make(kHostileEntries);
  for (std::size_t file = 0; file < whole_.size(); ++file) {
    const bool is_index = whole_[file].first == "idx_maps";
    const std::size_t step = is_index ? 509 : 1;
    for (std::size_t size = 0; size < whole_[file].second.size(); size += step) {
      Files files = whole_;
      files[file].second.resize(size);
      expect_agreement(files, files[file].first + " cut to " + std::to_string(size));
    }
  }
  EXPECT_GT(checked_, 300);
}

TEST_P(Scan, AgreesWithTheLibraryOnEveryChangedByte) {
  make(kHostileEntries);
  for (std::size_t file = 0; file < whole_.size(); ++file) {
    const std::string& bytes = whole_[file].second;
    for (std::size_t at = 0; at < bytes.size(); ++at) {
      if (bytes[at] == 0 && at >= 512 && at % 97 != 0) {
        continue;  // the free slots are all alike
      }
      for (const int mask : {1, 0x80}) {
        Files files = whole_;
        files[file].second[at] = static_cast<char>(bytes[at] ^ mask);
        expect_agreement(files, files[file].first + " changed at " + std::to_string(at));
      }
    }
  }
  EXPECT_GT(checked_, 600);
}

TEST_P(Scan, KeepsTheLastEntryBeforeZeros) {
  make({{"a", {"1"}}, {"b", {"2"}}});
  for (std::size_t zeros = 1; zeros < 70; ++zeros) {
    Files files = whole_;
    files[0].second.append(zeros, '\0');
    write_files(root(), files);
    EXPECT_EQ(scan_files().entries.size(), 2U) << zeros;
    expect_agreement(files, std::to_string(zeros) + " zeros");
  }
}

// They may be those of a value whose size is wrong.
TEST(ScanOfABasicCache, BelievesNoSizesBeforeZerosThatFollowZeros) {
  const TempDir dir;
  const std::string last = entry_bytes({"b", {std::string("2\0", 2)}});
  write_file(dir.file("maps"),
             header_bytes(1) + entry_bytes({"a", {"1"}}) + last + std::string(5, '\0'));
  EXPECT_EQ(scanned(dir.path(), Kind::basic).entries.size(), 1U);
}

TEST_P(Scan, ChangesNoByteOfAnyFile) {
  make(kHostileEntries);
  whole_.back().second += "rest";
  write_files(root(), whole_);
  scan_files();
  EXPECT_EQ(files_in(root()), whole_);
}

TEST_P(Scan, TellsOfAKeyThatOccursTwice) {
  make({{"a", {"1"}}});
  Files files = whole_;
  const std::string header_cut = files[0].second.substr(GetParam() == Kind::indexed ? 64 : 8);
  files[0].second += header_cut;
  expect_agreement(files, "repeated");
  write_files(root(), files);
  if (GetParam() == Kind::indexed) {
    unlink((root() + "/idx_maps").c_str());
  }
  const ScannedCache found = scan_files();
  EXPECT_EQ(found.entries.size(), 2u);
  EXPECT_EQ(found.is_damaged(), GetParam() == Kind::lazy_lookup);
  EXPECT_TRUE(std::any_of(found.places.begin(), found.places.end(), [](const auto& place) {
    return place.is_repeated_key;
  })) << found.places_text();
}

// Forged slots may lead to one entry with many atoms again and again.
TEST(ScanOfAnIndexedCache, ReadsAnEntryFromAnyOffsetAtItsCost) {
  const TempDir dir;
  {
    const auto cache = open_cache(dir.path());
    ASSERT_TRUE(add(*cache, "key", "value"));
  }
  const std::string data = read_file(dir.file("dat_maps"));
  quorvane::tool::Entry entry;
  std::uint64_t tries = 5;  // one, and one for the atom
  const auto reads = [&](std::uint64_t offset) {
    return quorvane::tool::IndexedScan::read_any(data, offset, entry, tries);
  };
  for (const std::uint64_t offset : {0U, 8U, 65U, 80U, 96U, 1U << 20}) {
    EXPECT_FALSE(reads(offset)) << offset;
  }
  EXPECT_EQ(tries, 5U);
  EXPECT_TRUE(reads(kFirstIndexedEntry));
  EXPECT_TRUE(reads(kFirstIndexedEntry));
  EXPECT_FALSE(reads(kFirstIndexedEntry));
  EXPECT_EQ(tries, 1U);
}

// Counts the entries, and the repeated keys whose first entry is `distance` before.
class RepetitionCounter : public quorvane::tool::Visitor {
 public:
  explicit RepetitionCounter(std::uint64_t distance) : distance_(distance) {}

  void entry(const quorvane::tool::Entry&) override { ++entries; }
  void place(const quorvane::tool::Place& place) override {
    right += place.is_repeated_key && place.reason == "the key is that of the entry at offset " +
                                                          std::to_string(place.offset - distance_)
                 ? 1
                 : 0;
    ++places;
    offsets += place.offset;
  }

  std::uint64_t entries = 0;
  std::uint64_t places = 0;
  std::uint64_t right = 0;
  std::uint64_t offsets = 0;  // their sum: none is told twice in the place of another

 private:
  const std::uint64_t distance_;
};

// More than are compared at once.
TEST(ScanOfABasicCache, TellsOfEachOfManyKeysThatOccurTwice) {
  constexpr std::size_t kKeys = quorvane::tool::RepeatedKeys::kMostSuspects + 1;
  std::string entries;
  std::uint64_t offsets = 0;
  for (std::size_t i = 0; i < kKeys; ++i) {
    offsets += 8 + entries.size();
    entries += entry_bytes({std::to_string(i), {"v"}});
  }
  const TempDir dir;
  write_file(dir.file("maps"), header_bytes(1) + entries + entries);
  RepetitionCounter counter(entries.size());
  std::ostringstream out;
  quorvane::tool::Console console(out, out, {});
  quorvane::tool::Progress progress(console, "", 0);
  quorvane::tool::scan(console, {Kind::basic, dir.path(), "maps"}, counter, progress);
  EXPECT_EQ(counter.entries, 2 * kKeys);
  EXPECT_EQ(counter.places, kKeys);
  EXPECT_EQ(counter.right, kKeys);
  EXPECT_EQ(counter.offsets, offsets + kKeys * entries.size());
}

// --- random damage ---

std::string random_bytes(std::mt19937& random, std::size_t size) {
  std::string bytes;
  for (std::size_t i = 0; i < size; ++i) {
    bytes += static_cast<char>(random());
  }
  return bytes;
}

std::vector<Entry> random_entries(std::mt19937& random) {
  std::vector<Entry> entries;
  for (int i = 0; i < 12; ++i) {
    Entry entry{std::to_string(i) + random_bytes(random, random() % 20), {}};
    for (std::uint64_t atoms = random() % 3 + 1; atoms > 0; --atoms) {
      entry.atoms.push_back(random_bytes(random, random() % 90 + 1));
    }
    entries.push_back(std::move(entry));
  }
  return entries;
}

struct Range {
  std::size_t from;
  std::size_t to;
};

// Changes some bytes behind the header.
Range damage(std::mt19937& random, std::string& bytes, std::size_t header) {
  const std::size_t from = header + random() % (bytes.size() - header);
  const std::size_t most = bytes.size() - from;
  switch (random() % 4) {
    case 0:
      bytes[from] = static_cast<char>(bytes[from] ^ (1 << random() % 8));
      return {from, from + 1};
    case 1: {
      const std::size_t size = std::min<std::size_t>(random() % 100 + 1, most);
      bytes.replace(from, size, std::string(size, '\0'));
      return {from, from + size};
    }
    case 2: {
      const std::size_t size = std::min<std::size_t>(random() % 100 + 1, most);
      bytes.replace(from, size, random_bytes(random, size));
      return {from, from + size};
    }
    default:
      bytes.resize(from);
      return {from, from + most};
  }
}

// What was stored and has no damaged byte in the main file must be found, with its value.
TEST_P(Scan, FindsEveryEntryThatDamageHasNotTouched) {
  std::mt19937 random(7);
  std::size_t lost = 0;
  for (int round = 0; round < 500; ++round) {
    const TempDir dir;
    store(dir.path(), GetParam(), random_entries(random));
    const ScannedCache before = scanned(dir.path(), GetParam());
    Files files = files_in(dir.path());
    const Range range = damage(random, files[0].second, GetParam() == Kind::indexed ? 64 : 8);
    write_files(dir.path(), files);
    const ScannedCache found = scanned(dir.path(), GetParam());
    ASSERT_TRUE(found.entries.size() <= before.entries.size()) << round;
    for (std::size_t i = 0; i < before.entries.size(); ++i) {
      const bool is_last = i + 1 == before.entries.size();
      const std::uint64_t end = is_last ? range.to + 1 : before.offsets[i + 1];
      const bool is_touched = before.offsets[i] < range.to && range.from < end;
      const bool is_found =
          std::count(found.entries.begin(), found.entries.end(), before.entries[i]) == 1;
      EXPECT_TRUE(is_found || is_touched)
          << "round " << round << ", entry " << i << " at " << before.offsets[i] << ", changed "
          << range.from << " to " << range.to << "\n"
          << found.places_text();
      lost += is_found ? 0 : 1;
    }
  }
  EXPECT_GT(lost, 100u);
}

TEST_P(Scan, EndsOnAnyBytes) {
  std::mt19937 random(11);
  make(kHostileEntries);
  for (int round = 0; round < 300; ++round) {
    Files files = whole_;
    for (auto& [name, bytes] : files) {
      for (std::uint64_t changes = random() % 8; changes > 0; --changes) {
        bytes[random() % std::min<std::size_t>(bytes.size(), 600)] = static_cast<char>(random());
      }
    }
    write_files(root(), files);
    scan_files();
  }
}

TEST_P(Scan, EndsOnTheSeedsOfTheFuzzers) {
  make(kHostileEntries);
  int seeds = 0;
  for (const char* kind : {"basic_store", "lazy_lookup_store", "indexed_store"}) {
    const std::string directory = QV_SOURCE_DIR "/fuzz/seeds/" + std::string(kind);
    for (const std::string& name : names_in(directory)) {
      const std::string seed = read_file(directory + "/" + name);
      // The first bytes of some are settings of their fuzzer.
      for (std::size_t skipped = 0; skipped < 4 && skipped < seed.size(); ++skipped) {
        Files files = whole_;
        for (auto& [file, bytes] : files) {
          bytes = seed.substr(skipped);
          write_files(root(), files);
          scan_files();
        }
      }
      ++seeds;
    }
  }
  EXPECT_GT(seeds, 40);
}

// --- one kind ---

TEST(ScanOfABasicCache, DoesntTakeTheFileOfAStoreInAValueForEntries) {
  const TempDir dir;
  const std::string held = basic_file({{"held", {"1"}}, {"held too", {"2"}}}) + "end";
  std::string bytes = basic_file({{"a", {held}}, {"b", {"2"}}});
  bytes[12] = '\xff';  // the size of the first key
  bytes[13] = '\xff';
  write_file(dir.file("maps"), bytes);
  const ScannedCache found = scanned(dir.path(), Kind::basic);
  EXPECT_EQ(found.entries, (std::vector<Entry>{{"b", {"2"}}}));
  EXPECT_EQ(found.places.size(), 1u);
  EXPECT_TRUE(found.is_damaged());
}

TEST(ScanOfABasicCache, LosesOnlyTheEntryWhoseMagicNumberIsDamaged) {
  const TempDir dir;
  std::string bytes = basic_file({{"a", {"1"}}, {"b", {"2"}}, {"c", {"3"}}});
  bytes[8 + 30] = 'x';
  write_file(dir.file("maps"), bytes);
  const ScannedCache found = scanned(dir.path(), Kind::basic);
  EXPECT_EQ(found.entries, (std::vector<Entry>{{"a", {"1"}}, {"c", {"3"}}}));
  EXPECT_EQ(found.places_text(), "damage maps 38+30 no entry begins here\n");
}

TEST(ScanOfALazyCache, TellsWhereValuesDontBeginAndWhatNoKeyLeadsTo) {
  const TempDir dir;
  LazyFiles files = lazy_files({{"a", {"1"}}, {"b", {"2"}}});
  files.val[8] = 'x';
  files.val += "rest";
  write_lazy_files(dir.path(), files);
  const ScannedCache found = scanned(dir.path(), Kind::lazy_lookup);
  EXPECT_EQ(found.entries.size(), 2u);
  EXPECT_EQ(found.places_text(),
            "odd val_maps 8+5 no value begins here, but the entry at offset 8 of the key file "
            "leads here\n"
            "odd val_maps 18+4 no key leads here\n");
}

TEST(ScanOfAnIndexedCache, TellsOfEntriesThatLookUpsMiss) {
  const TempDir dir;
  store(dir.path(), Kind::indexed, kHostileEntries);
  std::string index = read_file(dir.file("idx_maps"));
  std::fill(index.begin() + 4096, index.end(), '\0');
  write_file(dir.file("idx_maps"), index);
  const ScannedCache found = scanned(dir.path(), Kind::indexed);
  EXPECT_EQ(found.entries.size(), kHostileEntries.size());
  EXPECT_EQ(found.places_text(),
            "damage idx_maps 4096+8192 no slot leads to 4 entries, the first at offset 64 of "
            "dat_maps\n"
            "odd idx_maps 80+8 the number of entries is wrong\n");
}

TEST(ScanOfAnIndexedCache, FindsTheTornEndOfAnAppendOddOnlyIfItWasNotAcknowledged) {
  const TempDir dir;
  store(dir.path(), Kind::indexed, kHostileEntries);
  const std::string data = read_file(dir.file("dat_maps"));
  write_file(dir.file("dat_maps"), data + data.substr(64, 20));
  EXPECT_EQ(scanned(dir.path(), Kind::indexed).places_text(),
            "odd dat_maps " + std::to_string(data.size()) +
                "+20 an append was cut short here; the next one overwrites it\n");
  std::string changed = data;
  changed[data.size() - 17] = static_cast<char>(changed[data.size() - 17] ^ 1);
  write_file(dir.file("dat_maps"), changed);
  EXPECT_TRUE(scanned(dir.path(), Kind::indexed).is_damaged());
}

}  // namespace
}  // namespace test
