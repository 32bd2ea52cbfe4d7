// Damaged files. However a file is cut or changed, the store logs exactly the records of the
// first damage, refuses the file, and takes no more memory than the size of the file.
#include <gtest/gtest.h>
#include <quorvane/file_store.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "support/hostile.h"
#include "support/no_memory.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::BasicStore;
using quorvane::cache::CleanupController;
using quorvane::cache::EntryMap;
using quorvane::cache::KeySet;
using test::basic_file;
using test::changed;
using test::Entry;
using test::entry_bytes;
using test::expect_checked;
using test::expectation;
using test::GrowthLimit;
using test::kHostileEntries;
using test::le64;
using test::LogTail;
using test::print_checked;
using test::root_file;
using test::run_hostile;
using Messages = std::vector<std::string>;

namespace {

// The place of a number in the file.
struct Field {
  std::size_t offset;
  std::size_t remaining;  // bytes after the field, in the whole file
};

struct Fields {
  std::vector<Field> magic_numbers;
  std::vector<Field> sizes;
  std::vector<Field> counts;
};

Fields fields_of(const std::vector<Entry>& entries) {
  const std::size_t end = basic_file(entries).size();
  Fields fields;
  std::size_t at = 8;
  const auto add = [&](std::vector<Field>& to, std::size_t width) {
    to.push_back({at, end - at - width});
    at += width;
  };
  for (const Entry& entry : entries) {
    add(fields.magic_numbers, 4);
    add(fields.sizes, 8);
    at += entry.key.size();
    add(fields.counts, 8);
    for (const std::string& atom : entry.atoms) {
      add(fields.sizes, 8);
      at += atom.size();
    }
  }
  return fields;
}

std::string maps_file() { return root_file("maps"); }

Messages expected_messages(const test::Walk& walk, bool is_scan) {
  Messages messages;
  for (std::size_t i = 0; i < walk.collisions.size(); ++i) {
    messages.push_back(expectation("emplace_ret.second"));
    messages.push_back("WARN Collision inside cachemap " + maps_file() + " file ocurred");
  }
  if (!walk.failed_check.empty()) {
    messages.push_back(expectation(walk.failed_check));
    if (is_scan && (walk.failed_check == "hdr" || walk.failed_check.rfind("std::memcmp", 0) == 0)) {
      messages.push_back(expectation("read_header(freader)"));
    }
    messages.push_back("ERROR Cachemap " + maps_file() + " file corrupted");
  }
  return messages;
}

class Checker {
 public:
  // A load may take `growth` times the size of the file.
  explicit Checker(std::size_t growth = 1) : growth_(growth), controller_(0) {
    load_bytes(basic_file(kHostileEntries), "the whole file");
    scan_bytes(basic_file(kHostileEntries), "the whole file");
  }

  // Loads and scans a file of these bytes. Prints any result that differs from the expected one.
  void check(const std::string& bytes, const std::string& what) {
    load_bytes(bytes, what);
    scan_bytes(bytes, what);
    ++checked_;
  }

  int checked() const { return checked_; }

 private:
  void load_bytes(const std::string& bytes, const std::string& what) {
    const test::Walk walk = test::walk_basic_file(bytes);
    EntryMap out;
    const bool ok = run(bytes, [&](BasicStore& store) { return store.try_nonlock_load(out); });
    report(what + ", load", walk, ok,
           test::without_lines(log_.next()) == expected_messages(walk, false));
    if (test::listing(out) != test::listing(test::entry_map(walk.entries))) {
      std::printf("%s, load: other entries\n", what.c_str());
    }
  }

  void scan_bytes(const std::string& bytes, const std::string& what) {
    const test::Walk walk = test::walk_basic_file(bytes, false);
    KeySet keys;
    const bool ok =
        run(bytes, [&](BasicStore& store) { return store.try_nonlock_load_new_keys(keys); });
    report(what + ", scan", walk, ok,
           test::without_lines(log_.next()) == expected_messages(walk, true));
    std::vector<std::string> expected;
    for (const Entry& entry : walk.entries) {
      expected.push_back(entry.key);
    }
    if (test::listing(keys) != test::listing(test::key_set(expected))) {
      std::printf("%s, scan: other keys\n", what.c_str());
    }
  }

  bool run(const std::string& bytes, const std::function<bool(BasicStore&)>& operation) {
    std::remove(maps_file().c_str());  // rewriting a file may wait for the disk
    test::write_file(maps_file(), bytes);
    BasicStore store("maps", lock_, &controller_);
    const GrowthLimit limit(growth_ * bytes.size());
    return operation(store);
  }

  static void report(const std::string& what, const test::Walk& walk, bool ok, bool records_agree) {
    if (ok != walk.failed_check.empty() || !records_agree) {
      std::printf("%s: %d, but expected \"%s\"; records %d\n", what.c_str(), ok,
                  walk.failed_check.c_str(), records_agree);
    }
  }

  std::size_t growth_;
  CleanupController controller_;
  std::shared_ptr<test::CountingLock> lock_ = std::make_shared<test::CountingLock>();
  LogTail log_;
  int checked_ = 0;
};

// No allocation for the list of a file's entries is larger than the file.
SCENARIO(many_small_entries) {
  alarm(100);
  std::string bytes = basic_file({});
  for (int number = 0; number < 70000; ++number) {
    char key[8];
    std::snprintf(key, sizeof(key), "%05d", number);
    bytes += entry_bytes({key, {"v"}});
  }
  test::write_file(maps_file(), bytes + "rest");
  CleanupController controller(0);
  BasicStore store("maps", std::make_shared<quorvane::cache::StoreFLock>("maps"), &controller);
  EntryMap map;
  test::no_memory_from = bytes.size();
  const bool loaded = store.try_load(map);
  test::no_memory_from = test::kEnoughMemory;
  return !loaded && map.size() == 70000 ? 0 : 1;
}

TEST(HostileStore, NoListOfEntriesIsLargerThanTheFile) {
  EXPECT_TRUE(run_hostile("many_small_entries").exited_with(0));
}

}  // namespace

SCENARIO(cut_anywhere) {
  Checker checker;
  const std::string bytes = basic_file(kHostileEntries);
  for (std::size_t size = 1; size < bytes.size(); ++size) {
    checker.check(bytes.substr(0, size), "cut at " + std::to_string(size));
  }
  return print_checked(checker);
}

TEST(HostileStore, AFileCutAtAnyByteFailsAtThePieceThatIsCut) {
  expect_checked(run_hostile("cut_anywhere"), basic_file(kHostileEntries).size() - 1);
}

SCENARIO(changed_magic_numbers) {
  Checker checker;
  const std::string bytes = basic_file(kHostileEntries);
  std::vector<std::size_t> offsets{0, 4};  // the magic number and the version of the header
  for (const Field& field : fields_of(kHostileEntries).magic_numbers) {
    offsets.push_back(field.offset);
  }
  for (const std::size_t offset : offsets) {
    for (std::size_t i = 0; i < 4; ++i) {
      const char other = static_cast<char>(bytes[offset + i] ^ 1);
      checker.check(changed(bytes, offset + i, std::string(1, other)),
                    "byte at " + std::to_string(offset + i));
    }
  }
  return print_checked(checker);
}

TEST(HostileStore, AChangedMagicNumberFails) {
  expect_checked(run_hostile("changed_magic_numbers"), 4 * (2 + kHostileEntries.size()));
}

SCENARIO(changed_numbers) {
  Checker checker;
  const std::string bytes = basic_file(kHostileEntries);
  const Fields fields = fields_of(kHostileEntries);
  for (const auto* kind : {&fields.sizes, &fields.counts}) {
    for (const Field& field : *kind) {
      for (const std::uint64_t value :
           {std::uint64_t{0}, std::uint64_t{1} << 26, std::uint64_t{1} << 40,
            std::uint64_t{1} << 63, ~std::uint64_t{0}, ~std::uint64_t{0} - field.offset,
            std::uint64_t{field.remaining}, std::uint64_t{field.remaining} + 1}) {
        checker.check(changed(bytes, field.offset, le64(value)),
                      std::to_string(value) + " at " + std::to_string(field.offset));
      }
    }
  }
  return print_checked(checker);
}

TEST(HostileStore, AChangedSizeOrCountFailsWithoutAskingForItsMemory) {
  const Fields fields = fields_of(kHostileEntries);
  expect_checked(run_hostile("changed_numbers"), 8 * (fields.sizes.size() + fields.counts.size()));
}

SCENARIO(random_changes) {
  constexpr int kRounds = 2000;
  constexpr int kChanges = 64;
  Checker checker;
  std::mt19937 random(static_cast<unsigned>(std::stoul(arguments.at(0))));
  for (int round = 0; round < kRounds; ++round) {
    std::string bytes = basic_file(kHostileEntries);
    // Every other round leaves the header intact, to get past it.
    const std::size_t first = round % 2 == 0 ? 0 : 8;
    for (int change = 0; change < kChanges; ++change) {
      bytes[first + random() % (bytes.size() - first)] = static_cast<char>(random());
    }
    checker.check(bytes, "round " + std::to_string(round));
  }
  return print_checked(checker);
}

TEST(HostileStore, SixtyFourChangedBytesGiveARefusalOrWhatTheFileThenSays) {
  for (const char* seed : {"1", "2"}) {
    expect_checked(run_hostile("random_changes", {seed}), 2000);
  }
}

// One changed byte leaves more of the file's structure intact than 64 changed bytes do.
SCENARIO(single_changes) {
  Checker checker;
  const std::string bytes = basic_file(kHostileEntries);
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    for (const int flip : {0x01, 0x80, 0xff}) {
      checker.check(changed(bytes, at, std::string(1, static_cast<char>(bytes[at] ^ flip))),
                    std::to_string(flip) + " at " + std::to_string(at));
    }
  }
  return print_checked(checker);
}

TEST(HostileStore, OneChangedByteGivesARefusalOrWhatTheFileThenSays) {
  expect_checked(run_hostile("single_changes"), 3 * basic_file(kHostileEntries).size());
}

// Repeated and reordered entries.
SCENARIO(shuffled_entries) {
  constexpr int kRounds = 500;
  Checker checker;
  std::mt19937 random(3);
  for (int round = 0; round < kRounds; ++round) {
    std::string bytes = basic_file({});
    for (int i = 0; i < 6; ++i) {
      bytes += entry_bytes(kHostileEntries[random() % kHostileEntries.size()]);
    }
    checker.check(bytes + (round % 3 == 0 ? "rest" : ""), "round " + std::to_string(round));
  }
  return print_checked(checker);
}

TEST(HostileStore, RepeatedEntriesAreReportedOneByOne) {
  expect_checked(run_hostile("shuffled_entries"), 500);
}

// A tiny atom takes more room in memory than in the file. But the store reserves memory for no
// more atoms than the file can hold, whatever the count claims.
SCENARIO(many_small_atoms) {
  Checker checker(32);
  const std::vector<Entry> entries{{"k", std::vector<std::string>(20000, "a")}};
  std::string bytes = basic_file(entries);
  bytes = changed(bytes, 8 + 4 + 8 + 1, le64(std::uint64_t{1} << 33));
  checker.check(bytes, "count of 2^33");
  return print_checked(checker);
}

TEST(HostileStore, ACountThatClaimsMoreAtomsThanTheFileHoldsFailsAtItsEnd) {
  expect_checked(run_hostile("many_small_atoms"), 1);
}
