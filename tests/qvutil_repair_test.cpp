#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "qvutil/commands/repair.h"
#include "qvutil/output/text.h"
#include "support/tool_caches.h"

namespace {

using quorvane::tool::CacheFiles;
using quorvane::tool::Failure;
using quorvane::tool::Kind;
using quorvane::tool::Outcome;
using test::Content;
using test::content_of;
using test::read_file;
using test::write_file;

Outcome repair(const CacheFiles& cache, test::HeardConsole& console, bool dry_run = false) {
  quorvane::tool::RepairOptions options;
  options.cache = cache.root + "/" + cache.name;
  options.kind = name_of(cache.kind);
  options.dry_run = dry_run;
  return quorvane::tool::repair(console.get(), options);
}

Outcome repair(const CacheFiles& cache) {
  test::HeardConsole console;
  return repair(cache, console);
}

// Where an entry is: in the main file, and for a lazy cache in the value file, too.
struct Span {
  std::uint64_t begin;
  std::uint64_t end;
};
struct Placed {
  std::string key;
  Span main;
  Span value{0, 0};
};

std::uint64_t size_of(const std::vector<std::string>& atoms) {
  std::uint64_t size = 0;
  for (const std::string& atom : atoms) {
    size += atom.size();
  }
  return size;
}

// In the order in which the library writes them. Each key must have another length.
std::vector<Placed> placed(Kind kind, const Content& content) {
  std::vector<std::pair<std::string, std::vector<std::string>>> entries(content.begin(),
                                                                        content.end());
  std::sort(entries.begin(), entries.end(), [](const auto& one, const auto& other) {
    return one.first.size() < other.first.size();
  });
  std::vector<Placed> result;
  std::uint64_t at = kind == Kind::indexed ? 64 : 8;
  std::uint64_t value_at = 8;
  for (const auto& [key, atoms] : entries) {
    const std::uint64_t value = size_of(atoms);
    std::uint64_t size = 20 + key.size() + 8 * atoms.size() + value;
    if (kind == Kind::lazy_lookup) {
      size = 28 + key.size() + 8 * atoms.size();
    } else if (kind == Kind::indexed) {
      size = (24 + key.size() + 8 * atoms.size() + value + 15) / 16 * 16;
    }
    result.push_back({key, {at, at + size}, {value_at, value_at + 4 + value}});
    at += size;
    value_at += 4 + value;
  }
  return result;
}

Content some_content(std::mt19937& random, std::size_t entries) {
  Content content;
  for (std::size_t i = 0; i < entries; ++i) {
    std::string key(i + 1, static_cast<char>('a' + i));
    std::vector<std::string> atoms(1 + random() % 3);
    for (std::string& atom : atoms) {
      atom.assign(1 + random() % 60, static_cast<char>('A' + random() % 26));
    }
    content.emplace(std::move(key), std::move(atoms));
  }
  return content;
}

// A damage to one file.
struct Damage {
  std::string path;
  std::string bytes;  // of the damaged file
  Span where;         // bytes that are not what they were
};

// The field of an entry that decides on its extent, at this offset from its start.
std::uint64_t offset_of_field(Kind kind, std::uint64_t key_size, std::mt19937& random) {
  if (kind == Kind::indexed) {
    const std::uint64_t fields[] = {0, 4, 8, 16, 20, 24};
    return fields[random() % 6];
  }
  const std::uint64_t fields[] = {0, 4, 12 + key_size};
  return fields[random() % 3];
}

Damage damage_of(const CacheFiles& cache, const std::vector<Placed>& entries,
                 std::mt19937& random) {
  const std::string path = cache.main_file();
  std::string bytes = read_file(path);
  const std::uint64_t size = bytes.size();
  const Placed& entry = entries[random() % entries.size()];
  switch (random() % 4) {
    case 0: {  // cut short
      const std::uint64_t at =
          entry.main.begin + 1 + random() % (entry.main.end - entry.main.begin - 1);
      return {path, bytes.substr(0, at), {at, size}};
    }
    case 1: {  // a field that is much too large, or another magic number or checksum
      const std::uint64_t at =
          entry.main.begin + offset_of_field(cache.kind, entry.key.size(), random);
      const std::uint64_t third = at + 2;
      bytes[third] =
          static_cast<char>(static_cast<unsigned char>(bytes[third]) ^ (1 + random() % 127));
      return {path, bytes, {third, third + 1}};
    }
    case 2: {  // a hole from the beginning of an entry
      const std::uint64_t length = 4 + random() % 200;
      const std::uint64_t end = std::min(size, entry.main.begin + length);
      std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(entry.main.begin),
                bytes.begin() + static_cast<std::ptrdiff_t>(end), '\0');
      return {path, bytes, {entry.main.begin, end}};
    }
    default:  // garbage behind the end; less could be the rest of a value whose size is damaged
      for (std::uint64_t i = 0, length = 64 + random() % 100; i < length; ++i) {
        bytes += static_cast<char>(random() % 256);
      }
      return {path, bytes, {size, bytes.size()}};
  }
}

// Of lazy caches, the value file is damaged now and then.
Damage damage_of_values(const CacheFiles& cache, const std::vector<Placed>& entries,
                        std::mt19937& random) {
  const std::string path = cache.path("val_");
  std::string bytes = read_file(path);
  if (random() % 2 == 0) {
    bytes[random() % 4] ^= 1;
    return {path, bytes, {0, 8}};
  }
  const Placed& entry = entries[random() % entries.size()];
  const std::uint64_t size = entry.value.end - entry.value.begin;
  const std::uint64_t at = entry.value.begin + random() % size;
  return {path, bytes.substr(0, at), {at, bytes.size()}};
}

bool is_touched(const Placed& entry, const Damage& damage, bool in_values) {
  const Span& span = in_values ? entry.value : entry.main;
  return span.begin < damage.where.end && damage.where.begin < span.end;
}

class QvutilRepair : public ::testing::TestWithParam<Kind> {
 protected:
  static void SetUpTestSuite() { test::sync_nothing(); }

  CacheFiles cache(const std::string& name = "demo") const {
    return {GetParam(), root_.path(), name};
  }
  CacheFiles stored(const std::string& name, const Content& content) const {
    EXPECT_TRUE(test::store_all(cache(name), content));
    return cache(name);
  }
  const test::TempDir root_;
};
INSTANTIATE_TEST_SUITE_P(Kinds, QvutilRepair, ::testing::ValuesIn(test::kAllKinds),
                         test::kind_name);

const Content kSome{{"b", {"2", "3"}}, {"aa", {"1"}}, {"ccc", {std::string(300, 'x')}}};

// The main file of a cache with these entries, with a wrong byte in the second.
std::string damaged_bytes(const CacheFiles& cache) {
  std::string bytes = read_file(cache.main_file());
  bytes[placed(cache.kind, kSome)[1].main.begin] ^= 1;
  return bytes;
}

// Every kept value is what was stored, and all entries are kept that the damage doesn't touch.
void expect_kept(const Content& stored, const std::vector<Placed>& entries, const Damage& damage,
                 bool in_values, const Content& kept) {
  for (const Placed& entry : entries) {
    const auto found = kept.find(entry.key);
    if (found != kept.end()) {
      EXPECT_EQ(found->second, stored.at(entry.key)) << entry.key;
    } else {
      EXPECT_TRUE(is_touched(entry, damage, in_values)) << "lost: " << entry.key;
    }
  }
  for (const auto& [key, atoms] : kept) {
    EXPECT_EQ(stored.count(key), 1U) << "never stored: " << key;
  }
}

TEST_P(QvutilRepair, KeepsWhatIsWholeOf500DamagedCaches) {
  std::mt19937 random(20240301);
  for (int i = 0; i < 500 && !HasFailure(); ++i) {
    SCOPED_TRACE(i);
    const test::TempDir root;
    const CacheFiles damaged{GetParam(), root.path(), "demo"};
    const Content content = some_content(random, 1 + random() % 12);
    ASSERT_TRUE(test::store_all(damaged, content));
    const std::vector<Placed> entries = placed(GetParam(), content);
    ASSERT_EQ(entries.back().main.end, read_file(damaged.main_file()).size());
    const bool in_values = GetParam() == Kind::lazy_lookup && random() % 3 == 0;
    const Damage damage = in_values ? damage_of_values(damaged, entries, random)
                                    : damage_of(damaged, entries, random);
    write_file(damage.path, damage.bytes);
    unlink(damaged.path("idx_").c_str());

    ASSERT_EQ(repair(damaged), Outcome::fine);
    const auto kept = content_of(damaged);
    ASSERT_TRUE(kept.has_value());
    expect_kept(content, entries, damage, in_values, *kept);
    test::HeardConsole again;
    EXPECT_EQ(repair(damaged, again, true), Outcome::fine) << again.out();
  }
}

TEST_P(QvutilRepair, ChangesNothingOfAWholeCache) {
  const CacheFiles whole = stored("demo", kSome);
  const std::string before = read_file(whole.main_file());
  test::HeardConsole console;
  EXPECT_EQ(repair(whole, console), Outcome::fine);
  EXPECT_EQ(console.out(), "demo is whole: 3 entries\n");
  EXPECT_EQ(read_file(whole.main_file()), before);
  EXPECT_FALSE(test::exists(whole.main_file() + ".damaged"));
}

TEST_P(QvutilRepair, KeepsTheDamagedFileUnderAnotherName) {
  const CacheFiles damaged = stored("demo", kSome);
  const std::string bytes = damaged_bytes(damaged);
  for (const char* suffix : {".damaged", ".damaged.2", ".damaged.3"}) {
    write_file(damaged.main_file(), bytes);
    EXPECT_EQ(repair(damaged), Outcome::fine);
    EXPECT_EQ(read_file(damaged.main_file() + suffix), bytes) << suffix;
  }
}

TEST_P(QvutilRepair, DryRunFindsTheDamageAndChangesNothing) {
  const CacheFiles damaged = stored("demo", kSome);
  const std::string bytes = damaged_bytes(damaged);
  write_file(damaged.main_file(), bytes);
  const std::vector<std::string> names = test::names_in(root_.path());
  test::HeardConsole console;
  EXPECT_EQ(repair(damaged, console, true), Outcome::found);
  EXPECT_NE(console.out().find("Would keep 2 entries and lose "), std::string::npos)
      << console.out();
  EXPECT_EQ(test::names_in(root_.path()), names);
  EXPECT_EQ(read_file(damaged.main_file()), bytes);
}

TEST_P(QvutilRepair, SaysInJsonWhatWasLost) {
  const CacheFiles damaged = stored("demo", kSome);
  write_file(damaged.main_file(), damaged_bytes(damaged));
  test::HeardConsole console(true);
  EXPECT_EQ(repair(damaged, console), Outcome::fine);
  const std::string out = console.out();
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2) << out;
  EXPECT_NE(out.find(R"("entries":2,"repeated":0,"places":1)"), std::string::npos) << out;
}

TEST_P(QvutilRepair, SaysHowManyEntriesTheResultHas) {
  const CacheFiles damaged = stored("demo", kSome);
  const std::string second =
      damaged_bytes(damaged).substr(placed(damaged.kind, kSome)[0].main.begin);
  const std::string twice = read_file(damaged.main_file()) + second;
  unlink(damaged.path("idx_").c_str());
  for (const bool dry_run : {true, false}) {
    write_file(damaged.main_file(), twice);
    test::HeardConsole console;
    repair(damaged, console, dry_run);
    const std::string out = console.out();
    EXPECT_NE(out.find(dry_run ? "Would keep 3 entries and lose " : "Kept 3 entries, lost "),
              std::string::npos)
        << out;
    EXPECT_NE(
        out.find(dry_run ? "; would leave out 2 repeated keys\n" : "; left out 2 repeated keys\n"),
        std::string::npos)
        << out;
  }
  EXPECT_EQ(content_of(damaged), kSome);
}

TEST_P(QvutilRepair, KeepsTheModeOfTheFile) {
  const CacheFiles damaged = stored("demo", kSome);
  write_file(damaged.main_file(), damaged_bytes(damaged));
  chmod(damaged.main_file().c_str(), 0640);
  EXPECT_EQ(repair(damaged), Outcome::fine);
  struct stat status {};
  ASSERT_EQ(stat(damaged.main_file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);
}

TEST_P(QvutilRepair, LeavesAFileOfAnotherVersionAlone) {
  const CacheFiles newer = stored("demo", kSome);
  std::string bytes = read_file(newer.main_file());
  bytes[4] = 9;
  write_file(newer.main_file(), bytes);
  EXPECT_THROW(repair(newer), Failure);
  EXPECT_EQ(read_file(newer.main_file()), bytes);
}

TEST_P(QvutilRepair, GivesWayToAnEmptyCacheIfNothingIsWhole) {
  const CacheFiles damaged = stored("demo", kSome);
  const std::string bytes(100, '\x55');
  write_file(damaged.main_file(), bytes);
  EXPECT_EQ(repair(damaged), Outcome::fine);
  EXPECT_EQ(content_of(damaged), Content());
  EXPECT_EQ(read_file(damaged.main_file() + ".damaged"), bytes);
}

TEST(QvutilRepairMissing, SaysThatAFileIsMissingAndWhatIsLostWithIt) {
  const std::tuple<Kind, const char*, const char*> cases[] = {{Kind::lazy_lookup, "key_", "val_"},
                                                              {Kind::lazy_lookup, "val_", "key_"},
                                                              {Kind::indexed, "dat_", "idx_"}};
  for (const auto& [kind, missing, other] : cases) {
    const test::TempDir root;
    const CacheFiles cache{kind, root.path(), "demo"};
    ASSERT_TRUE(test::store_all(cache, kSome));
    const std::string bytes = quorvane::tool::grouped(read_file(cache.path(other)).size());
    unlink(cache.path(missing).c_str());
    test::HeardConsole console;
    EXPECT_EQ(repair(cache, console), Outcome::fine);
    const std::string out = console.out();
    for (const std::string& line :
         {std::string("the file is missing"), std::string("of no use without ") + missing + "demo",
          "Kept 0 entries, lost " + bytes + " bytes in 2 places"}) {
      EXPECT_NE(out.find(line + "\n"), std::string::npos) << out;
    }
    EXPECT_EQ(content_of(cache), Content());
  }
}

// Writes an input of the store's fuzzer as the files of a cache.
void write_seed(const CacheFiles& cache, std::string bytes) {
  if (cache.kind == Kind::basic) {
    write_file(cache.main_file(), bytes);
    return;
  }
  bytes.erase(0, cache.kind == Kind::indexed ? 1 : 0);  // flags
  const std::size_t main = static_cast<unsigned char>(bytes.at(0)) +
                           std::size_t{256} * static_cast<unsigned char>(bytes.at(1));
  bytes.erase(0, 2);
  write_file(cache.main_file(), bytes.substr(0, main));
  if (cache.kind == Kind::lazy_lookup) {
    write_file(cache.path("val_"), bytes.substr(std::min(main, bytes.size())));
  }
}

TEST_P(QvutilRepair, MakesEveryHostileFileACacheThatOpens) {
  const std::string seeds = std::string(QV_SOURCE_DIR "/fuzz/seeds/") +
                            (GetParam() == Kind::basic         ? "basic_store"
                             : GetParam() == Kind::lazy_lookup ? "lazy_lookup_store"
                                                               : "indexed_store");
  int opened = 0;
  for (const std::string& seed : test::names_in(seeds)) {
    SCOPED_TRACE(seed);
    write_seed(cache(seed), read_file(seeds + "/" + seed));
    try {
      EXPECT_EQ(repair(cache(seed)), Outcome::fine);
    } catch (const Failure&) {  // of another version, and so not this tool's business
      EXPECT_NE(seed.find("version"), std::string::npos);
      EXPECT_FALSE(test::exists(cache(seed).main_file() + ".damaged"));
      continue;
    }
    EXPECT_TRUE(content_of(cache(seed)).has_value());
    ++opened;
  }
  EXPECT_GT(opened, 5);
}

TEST(QvutilRepairLazy, KeepsTheFirstOfARepeatedKey) {
  const test::TempDir root;
  const CacheFiles cache{Kind::lazy_lookup, root.path(), "demo"};
  ASSERT_TRUE(test::store_all(cache, kSome));
  const std::string keys = read_file(cache.main_file());
  write_file(cache.main_file(), keys + keys.substr(8));
  ASSERT_EQ(content_of(cache), std::nullopt);
  EXPECT_EQ(repair(cache), Outcome::fine);
  EXPECT_EQ(content_of(cache), kSome);
}

TEST(QvutilRepairLazy, MakesAMissingFileAnew) {
  for (const char* missing : {"key_", "val_"}) {
    const test::TempDir root;
    const CacheFiles cache{Kind::lazy_lookup, root.path(), "demo"};
    ASSERT_TRUE(test::store_all(cache, kSome));
    unlink(cache.path(missing).c_str());
    ASSERT_EQ(content_of(cache), std::nullopt);
    EXPECT_EQ(repair(cache), Outcome::fine) << missing;
    EXPECT_EQ(content_of(cache), Content()) << missing;
    EXPECT_TRUE(test::store_all(cache, kSome));
    EXPECT_EQ(content_of(cache), kSome);
  }
}

}  // namespace
