// How the tool finds out with two threads that a cache is intact.
#include <sys/syscall.h>

#include <cerrno>
#include <filesystem>
#include <new>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "qvutil/store/basic_part.h"
#include "qvutil/store/intact.h"
#include "qvutil/store/piece_reader.h"
#include "support/no_memory.h"
#include "support/scanned_cache.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/tool_caches.h"

using quorvane::tool::CacheFiles;
using quorvane::tool::Kind;

namespace test {
namespace {

constexpr std::size_t kEntries = 40'000;

// Out of so many places, one is damaged. ThreadSanitizer makes a scan ten times as long.
#ifdef __SANITIZE_THREAD__
constexpr std::size_t kOneOf = 10;
#else
constexpr std::size_t kOneOf = 1;
#endif

std::optional<std::uint64_t> entries_if_intact(const CacheFiles& files) {
  std::ostringstream out;
  quorvane::tool::Console console(out, out, {});
  quorvane::tool::Progress progress(console, "", 0);
  quorvane::tool::OpenedCache cache(files, {});
  return quorvane::tool::entries_if_intact(console, cache, progress);
}

// What a caller hears who wants to hear of places only.
std::string places_of(const CacheFiles& files, std::uint64_t& entries) {
  ScannedCache cache;
  std::ostringstream out;
  quorvane::tool::Console console(out, out, {});
  quorvane::tool::Progress progress(console, "", 0);
  entries = quorvane::tool::scan_places(console, files, cache, progress).entries;
  return cache.places_text();
}

Content many(std::size_t count, std::size_t value_size) {
  Content content;
  for (std::size_t i = 0; i < count; ++i) {
    content["key" + std::to_string(i)] = {std::string(value_size, static_cast<char>('a' + i % 26))};
  }
  return content;
}

class Intact : public testing::TestWithParam<Kind> {
 protected:
  Intact() { EXPECT_TRUE(store_all(files_, many(kEntries, 100))); }

  std::string main_file() const { return files_.main_file(); }

  // Expects the same of both ways to scan.
  void expect_agreement(const std::string& what) const {
    const ScannedCache found = scanned(files_.root, files_.kind);
    const auto entries = entries_if_intact(files_);
    if (entries) {
      EXPECT_EQ(found.places_text(), "") << what;
      EXPECT_EQ(*entries, found.entries.size()) << what;
    } else {
      EXPECT_NE(found.places_text(), "") << what;
    }
    std::uint64_t counted = 0;
    EXPECT_EQ(places_of(files_, counted), found.places_text()) << what;
    EXPECT_EQ(counted, found.entries.size()) << what;
  }

  TempDir dir_;
  CacheFiles files_{GetParam(), dir_.path(), "maps"};
};

INSTANTIATE_TEST_SUITE_P(Kinds, Intact, testing::Values(Kind::basic, Kind::indexed), &kind_name);

TEST_P(Intact, CountsTheEntriesOfAnIntactCache) {
  EXPECT_EQ(entries_if_intact(files_), kEntries);
  expect_agreement("whole");
}

TEST_P(Intact, LeavesEveryDamagedCacheToTheScan) {
  const std::string bytes = read_file(main_file());
  constexpr std::size_t kPlaces = 40;
  for (std::size_t i = 0; i <= kPlaces; i += kOneOf) {
    std::string damaged = bytes;
    const std::size_t at = std::min((bytes.size() / kPlaces + 1) * i, bytes.size() - 1);
    damaged[at] = static_cast<char>(damaged[at] ^ 0x41);
    write_file(main_file(), damaged);
    expect_agreement("byte " + std::to_string(at));
  }
}

// Around the middle, where the halves meet.
TEST_P(Intact, LeavesDamageInTheMiddleToTheScan) {
  const std::string bytes = read_file(main_file());
  for (std::size_t i = 0; i < 300; i += 7 * kOneOf) {
    std::string damaged = bytes;
    damaged[bytes.size() / 2 - 50 + i] ^= 0x41;
    write_file(main_file(), damaged);
    expect_agreement("byte " + std::to_string(i) + " from the middle");
  }
}

TEST_P(Intact, LeavesACacheThatIsCutShortToTheScan) {
  const std::string bytes = read_file(main_file());
  for (const std::size_t cut : {1U, 16U, 60U, 200U, 1'000U}) {
    write_file(main_file(), bytes.substr(0, bytes.size() - cut));
    expect_agreement("without " + std::to_string(cut) + " bytes");
  }
}

// The index of an indexed cache doesn't cover the second one yet, so that it is nothing odd.
TEST_P(Intact, LeavesAKeyThatBothHalvesHaveToTheScan) {
  const ScannedCache whole = scanned(files_.root, files_.kind);
  const std::string bytes = read_file(main_file());
  for (std::size_t i = 0; i < 16; i += kOneOf) {  // each thread compares half of the keys
    write_file(main_file(),
               bytes + bytes.substr(whole.offsets[i], whole.offsets[i + 1] - whole.offsets[i]));
    if (GetParam() == Kind::basic) {
      EXPECT_EQ(entries_if_intact(files_), std::nullopt) << i;
    }
    expect_agreement("a repeated key");
  }
}

TEST_P(Intact, LeavesASmallCacheToTheScan) {
  const TempDir dir;
  const CacheFiles small{GetParam(), dir.path(), "maps"};
  ASSERT_TRUE(store_all(small, many(10, 100)));
  EXPECT_EQ(entries_if_intact(small), std::nullopt);
  std::uint64_t counted = 0;
  EXPECT_EQ(places_of(small, counted), "");
  EXPECT_EQ(counted, 10u);
}

TEST_P(Intact, IsNotMisledByValuesThatHoldACache) {
  const TempDir dir;
  const CacheFiles outer{GetParam(), dir.path(), "maps"};
  ASSERT_TRUE(store_all(outer, {{"before", {"1"}}, {"held", {read_file(main_file())}}}));
  const auto entries = entries_if_intact(outer);
  EXPECT_TRUE(!entries || entries == 2u) << *entries;
  std::uint64_t counted = 0;
  EXPECT_EQ(places_of(outer, counted), "");
  EXPECT_EQ(counted, 2u);
}

SCENARIO(scan_refused) {
  if (arguments.at(2) == "thread") {
    refuse(SYS_clone3, EAGAIN);
  } else {  // the second piece of the file
    refuse(SYS_pread64, EIO, When{3, quorvane::tool::PieceReader::kPiece + 8});
  }
  std::uint64_t counted = 0;
  const Kind kind = arguments.at(1) == "basic" ? Kind::basic : Kind::indexed;
  const CacheFiles files{kind, arguments.at(0), "maps"};
  const bool is_told = entries_if_intact(files).has_value();
  const std::string places = places_of(files, counted);
  std::printf("%d %zu %s", is_told, static_cast<std::size_t>(counted), places.c_str());
  return 0;
}

TEST_P(Intact, LeavesACacheToTheScanWhenNoThreadCanBeHad) {
  EXPECT_EQ(run_scenario("scan_refused", {}, {dir_.path(), name_of(GetParam()), "thread"}).out,
            "0 40000 ");
}

// The other thread doesn't wait for the one that fails.
TEST_P(Intact, EndsWithoutMemoryForOneThread) {
  bool has_failed = true;
  for (std::size_t successes = 0; has_failed; ++successes) {
    const FailingAllocation failing(successes);
    std::optional<std::uint64_t> entries;
    try {
      entries = entries_if_intact(files_);
    } catch (const std::bad_alloc&) {  // before the halves
    }
    has_failed = FailingAllocation::end();
    EXPECT_EQ(entries.value_or(kEntries), kEntries) << successes;
  }
}

class IntactBasic : public Intact {};

INSTANTIATE_TEST_SUITE_P(Kinds, IntactBasic, testing::Values(Kind::basic), &kind_name);

TEST_P(IntactBasic, LeavesACacheToTheScanWhenItCannotBeRead) {
  EXPECT_EQ(run_scenario("scan_refused", {}, {dir_.path(), name_of(GetParam()), "read"}).out,
            "0 40000 ");
}

// Values and entries end around the ends of the pieces that are read, and others span several.
TEST_P(IntactBasic, CountsEntriesThatArePartlyInAPiece) {
  constexpr std::size_t kPiece = quorvane::tool::PieceReader::kPiece;
  Content content;
  for (std::size_t i = 0; i < 64; ++i) {
    const std::string value(kPiece / 2 - 32 + i, 'v');
    content["key" + std::to_string(i)] = {value, std::string(i + 1, 'w')};
    content["large" + std::to_string(i)] = {std::string(i % 3 * kPiece + i + 1, 'l')};
  }
  const TempDir dir;
  const CacheFiles files{GetParam(), dir.path(), "maps"};
  ASSERT_TRUE(store_all(files, content));
  EXPECT_EQ(entries_if_intact(files), content.size());
}

TEST_P(IntactBasic, LeavesAKeyThatExceedsAPieceToTheScan) {
  Content content = many(kEntries, 100);
  content[std::string(quorvane::tool::PieceReader::kPiece - 8, 'k')] = {"just fits"};
  const TempDir dir;
  const CacheFiles files{GetParam(), dir.path(), "maps"};
  ASSERT_TRUE(store_all(files, content));
  EXPECT_EQ(entries_if_intact(files), content.size());
  content = {{std::string(quorvane::tool::PieceReader::kPiece - 7, 'k'), {"doesn't"}}};
  ASSERT_TRUE(store_all(files, content));
  EXPECT_EQ(entries_if_intact(files), std::nullopt);
  std::uint64_t counted = 0;
  EXPECT_EQ(places_of(files, counted), "");
  EXPECT_EQ(counted, kEntries + 2);
}

TEST_P(IntactBasic, LeavesMoreKeysThanTheMemoryIsForToTheScan) {
  const auto file = quorvane::tool::MappedFile::open(main_file());
  std::ostringstream out;
  quorvane::tool::Console console(out, out, {});
  quorvane::tool::Progress progress(console, "", 0);
  for (const std::size_t most : {kEntries, kEntries - 1}) {
    quorvane::tool::BasicPart part(*file, 8, file->size(), most);
    EXPECT_EQ(part.is_whole(progress), most == kEntries);
    EXPECT_EQ(part.entries(), most);
  }
}

TEST_P(IntactBasic, LeavesWhatIsEmptyToTheScan) {
  const std::string bytes = read_file(main_file());
  for (const Entry& entry : {Entry{"", {"no key"}}, Entry{"no atoms", {}}, Entry{"key", {""}}}) {
    write_file(main_file(), bytes + entry_bytes(entry));
    EXPECT_EQ(entries_if_intact(files_), std::nullopt) << entry.key;
    expect_agreement("an entry with something empty");
  }
}

// In the last entry, whose sizes no other entry's beginning tells to be wrong.
TEST_P(IntactBasic, LeavesSizesThatAreTooLargeToTheScan) {
  const ScannedCache whole = scanned(files_.root, files_.kind);
  const std::string bytes = read_file(main_file());
  const std::size_t last = whole.offsets.back();
  for (const std::size_t at : {last + 4, bytes.size() - 100 - 8}) {
    for (const std::string& size :
         {std::string("\x80\0\0\0\0\0\0\0", 8), std::string("\x80\0\0\0\0\0\0\x81", 8),
          std::string(8, '\xff')}) {
      std::string damaged = bytes;
      damaged.replace(at, size.size(), size);
      write_file(main_file(), damaged);
      EXPECT_EQ(entries_if_intact(files_), std::nullopt) << at;
      expect_agreement("a size at " + std::to_string(at));
    }
  }
}

class IntactIndex : public Intact {};

INSTANTIATE_TEST_SUITE_P(Kinds, IntactIndex, testing::Values(Kind::indexed), &kind_name);

TEST_P(IntactIndex, LeavesAMissingSlotToTheScan) {
  std::string bytes = read_file(dir_.file("idx_maps"));
  std::size_t at = bytes.size() - 8;
  while (bytes.substr(at, 8) == std::string(8, '\0')) {
    at -= 8;
  }
  bytes.replace(at, 8, 8, '\0');
  write_file(dir_.file("idx_maps"), bytes);
  EXPECT_EQ(entries_if_intact(files_), std::nullopt);
  expect_agreement("a missing slot");
}

TEST_P(IntactIndex, LeavesASlotThatLeadsNowhereToTheScan) {
  std::string bytes = read_file(dir_.file("idx_maps"));
  std::size_t at = bytes.size() - 8;
  while (bytes.substr(at, 8) != std::string(8, '\0')) {
    at -= 8;
  }
  bytes[at] = 64;
  write_file(dir_.file("idx_maps"), bytes);
  EXPECT_EQ(entries_if_intact(files_), std::nullopt);
  expect_agreement("a slot that leads nowhere");
}

TEST_P(IntactIndex, LeavesACacheWithoutAnIndexToTheScan) {
  std::filesystem::remove(dir_.file("idx_maps"));
  EXPECT_EQ(entries_if_intact(files_), std::nullopt);
  expect_agreement("no index");
}

TEST(IntactLazyCache, IsLeftToTheScan) {
  const TempDir dir;
  const CacheFiles files{Kind::lazy_lookup, dir.path(), "maps"};
  ASSERT_TRUE(store_all(files, many(kEntries, 100)));
  EXPECT_EQ(entries_if_intact(files), std::nullopt);
  std::uint64_t counted = 0;
  EXPECT_EQ(places_of(files, counted), "");
  EXPECT_EQ(counted, kEntries);
}

}  // namespace
}  // namespace test
