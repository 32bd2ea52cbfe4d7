// Damaged pairs of files. However one of the two is cut or changed, the store logs exactly the
// records of the first damage, refuses the files, and takes no more memory than their size.
#include <gtest/gtest.h>
#include <quorvane/file_store.h>

#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/hostile.h"
#include "support/lazy_files.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"

using quorvane::cache::CleanupController;
using quorvane::cache::EntryMap;
using quorvane::cache::KeySet;
using quorvane::cache::LazyLookupStore;
using test::changed;
using test::Entry;
using test::expect_checked;
using test::kHostileEntries;
using test::lazy_files;
using test::LazyFiles;
using test::le64;
using test::print_checked;
using test::root_file;
using test::root_path;
using test::run_hostile;

namespace {

// The offsets of the numbers in the key file.
struct Fields {
  std::vector<std::size_t> magic_numbers;
  std::vector<std::size_t> numbers;  // key sizes, value offsets, counts, atom sizes
};

Fields fields_of(const std::vector<Entry>& entries) {
  Fields fields;
  std::size_t at = 8;
  for (const Entry& entry : entries) {
    fields.magic_numbers.push_back(at);
    fields.numbers.push_back(at + 4);
    at += 4 + 8 + entry.key.size();
    for (std::size_t i = 0; i < 2 + entry.atoms.size(); ++i) {
      fields.numbers.push_back(at);
      at += 8;
    }
  }
  return fields;
}

class Checker {
 public:
  // A load may take `growth` times the size of the files.
  explicit Checker(std::size_t growth = 1) : growth_(growth) {
    check(lazy_files(kHostileEntries), "the whole files");
    checked_ = 0;
  }

  // Loads and scans files of these bytes. Prints any result that differs from the expected one.
  void check(const LazyFiles& files, const std::string& what) {
    // Rewriting a file may wait for the disk.
    std::remove(root_file("key_maps").c_str());
    std::remove(root_file("val_maps").c_str());
    test::write_lazy_files(root_path(), files);
    load(files, what + ", load");
    scan(files, what + ", scan");
    ++checked_;
  }

  int checked() const { return checked_; }

 private:
  void load(const LazyFiles& files, const std::string& what) {
    const test::LazyWalk walk = test::walk_lazy_files(files, key_path(), true);
    EntryMap out;
    LazyLookupStore store("maps", lock_, &controller_);
    const bool ok = [&] {
      const test::GrowthLimit limit(growth_ * (files.key.size() + files.val.size()));
      return store.try_nonlock_load(out);
    }();
    compare(walk, ok, what);
    // The atoms of a failed load are dangling views, so only the keys are compared.
    const EntryMap expected = test::entry_map(walk.entries);
    const bool same =
        ok ? test::listing(out) == test::listing(expected)
           : test::listing(test::keys_of(out)) == test::listing(test::keys_of(expected));
    if (!same) {
      std::printf("%s: other entries\n", what.c_str());
    }
  }

  void scan(const LazyFiles& files, const std::string& what) {
    const test::LazyWalk walk = test::walk_lazy_files(files, key_path(), false);
    KeySet keys;
    LazyLookupStore store("maps", lock_, &controller_);
    const bool ok = [&] {
      const test::GrowthLimit limit(growth_ * (files.key.size() + files.val.size()));
      return store.try_nonlock_load_new_keys(keys);
    }();
    compare(walk, ok, what);
    if (test::listing(keys) != test::listing(test::keys_of(test::entry_map(walk.entries)))) {
      std::printf("%s: other keys\n", what.c_str());
    }
  }

  void compare(const test::LazyWalk& walk, bool ok, const std::string& what) {
    const auto messages = test::without_lines(log_.next(), test::kFirstLazyLine);
    if (ok != walk.messages.empty() || messages != walk.messages) {
      std::printf("%s: %d, with the records\n", what.c_str(), ok);
      for (const std::string& message : messages) {
        std::printf("  %s\n", message.c_str());
      }
    }
  }

  static std::string key_path() { return root_file("key_maps"); }

  std::size_t growth_;
  CleanupController controller_{0};
  std::shared_ptr<test::CountingLock> lock_ = std::make_shared<test::CountingLock>();
  test::LogTail log_;
  int checked_ = 0;
};

}  // namespace

SCENARIO(cut_anywhere) {
  Checker checker;
  const LazyFiles whole = lazy_files(kHostileEntries);
  for (std::size_t size = 1; size < whole.key.size(); ++size) {
    checker.check({whole.key.substr(0, size), whole.val}, "keys cut at " + std::to_string(size));
  }
  for (std::size_t size = 1; size < whole.val.size(); ++size) {
    checker.check({whole.key, whole.val.substr(0, size)}, "values cut at " + std::to_string(size));
  }
  return print_checked(checker);
}

TEST(HostileLazyStore, AFileCutAtAnyByteFailsAtThePieceThatIsCut) {
  const LazyFiles whole = lazy_files(kHostileEntries);
  expect_checked(run_hostile("cut_anywhere"), whole.key.size() - 1 + whole.val.size() - 1);
}

SCENARIO(changed_magic_numbers) {
  Checker checker;
  const LazyFiles whole = lazy_files(kHostileEntries);
  std::vector<std::size_t> offsets{0, 4};  // the magic number and the version of the header
  for (const std::size_t offset : fields_of(kHostileEntries).magic_numbers) {
    offsets.push_back(offset);
  }
  for (const std::size_t offset : offsets) {
    for (std::size_t at = offset; at < offset + 4; ++at) {
      const std::string other(1, static_cast<char>(whole.key[at] ^ 1));
      checker.check({changed(whole.key, at, other), whole.val}, "key at " + std::to_string(at));
    }
  }
  for (std::size_t at = 0; at < 8; ++at) {
    const std::string other(1, static_cast<char>(whole.val[at] ^ 1));
    checker.check({whole.key, changed(whole.val, at, other)}, "value at " + std::to_string(at));
  }
  return print_checked(checker);
}

TEST(HostileLazyStore, AChangedMagicNumberOfAHeaderOrAKeyFails) {
  expect_checked(run_hostile("changed_magic_numbers"), 4 * (2 + kHostileEntries.size()) + 8);
}

SCENARIO(changed_magic_numbers_of_values) {
  Checker checker;
  LazyFiles files = lazy_files(kHostileEntries);
  std::size_t at = 8;
  for (const Entry& entry : kHostileEntries) {
    files.val = changed(files.val, at, "none");
    at += test::val_file_entry(entry).size();
  }
  checker.check(files, "no magic number");
  return print_checked(checker);
}

TEST(HostileLazyStore, TheMagicNumbersBetweenTheValuesAreNeverLookedAt) {
  expect_checked(run_hostile("changed_magic_numbers_of_values"), 1);
}

SCENARIO(changed_numbers) {
  constexpr std::uint64_t kTop = std::uint64_t{1} << 63;
  Checker checker;
  const LazyFiles whole = lazy_files(kHostileEntries);
  for (const std::size_t at : fields_of(kHostileEntries).numbers) {
    const std::uint64_t left = whole.key.size() - at - 8;
    for (const std::uint64_t value :
         {std::uint64_t{0}, std::uint64_t{7}, std::uint64_t{1} << 26, std::uint64_t{1} << 40, kTop,
          ~std::uint64_t{0}, ~std::uint64_t{0} - 3, ~std::uint64_t{0} - at, left, left + 1,
          left / 8, left / 8 + 1, kTop / 4, kTop / 4 + 1, std::uint64_t{whole.val.size()},
          std::uint64_t{whole.val.size()} - 4, std::uint64_t{whole.val.size()} + 1}) {
      checker.check({changed(whole.key, at, le64(value)), whole.val},
                    std::to_string(value) + " at " + std::to_string(at));
    }
  }
  return print_checked(checker);
}

TEST(HostileLazyStore, AChangedSizeCountOrOffsetFailsWithoutAskingForItsMemory) {
  expect_checked(run_hostile("changed_numbers"), 17 * fields_of(kHostileEntries).numbers.size());
}

SCENARIO(random_changes) {
  constexpr int kRounds = 2000;
  constexpr int kChanges = 64;
  Checker checker;
  std::mt19937 random(static_cast<unsigned>(std::stoul(arguments.at(0))));
  for (int round = 0; round < kRounds; ++round) {
    LazyFiles files = lazy_files(kHostileEntries);
    // Every other round leaves the headers intact, to get past them.
    const std::size_t first = round % 2 == 0 ? 0 : 8;
    for (int change = 0; change < kChanges; ++change) {
      std::string& bytes = random() % 2 == 0 ? files.key : files.val;
      bytes[first + random() % (bytes.size() - first)] = static_cast<char>(random());
    }
    checker.check(files, "round " + std::to_string(round));
  }
  return print_checked(checker);
}

TEST(HostileLazyStore, SixtyFourChangedBytesGiveARefusalOrWhatTheFilesThenSay) {
  for (const char* seed : {"1", "2"}) {
    expect_checked(run_hostile("random_changes", {seed}), 2000);
  }
}

// One changed byte leaves more of the files' structure intact than 64 changed bytes do.
SCENARIO(single_changes) {
  Checker checker;
  const LazyFiles whole = lazy_files(kHostileEntries);
  for (std::size_t at = 0; at < whole.key.size(); ++at) {
    for (const int flip : {0x01, 0x80, 0xff}) {
      const std::string other(1, static_cast<char>(whole.key[at] ^ flip));
      checker.check({changed(whole.key, at, other), whole.val},
                    std::to_string(flip) + " at " + std::to_string(at));
    }
  }
  return print_checked(checker);
}

TEST(HostileLazyStore, OneChangedByteGivesARefusalOrWhatTheFilesThenSay) {
  expect_checked(run_hostile("single_changes"), 3 * lazy_files(kHostileEntries).key.size());
}

// Repeated and reordered entries.
SCENARIO(shuffled_entries) {
  constexpr int kRounds = 500;
  Checker checker;
  std::mt19937 random(3);
  for (int round = 0; round < kRounds; ++round) {
    LazyFiles files = lazy_files({});
    for (int i = 0; i < 3; ++i) {
      files = add_to(files, {kHostileEntries[random() % kHostileEntries.size()]});
    }
    files.key += round % 3 == 0 ? "rest" : "";
    checker.check(files, "round " + std::to_string(round));
  }
  return print_checked(checker);
}

TEST(HostileLazyStore, ARepeatedKeyFailsWhereItIsRepeated) {
  expect_checked(run_hostile("shuffled_entries"), 500);
}

// The store reserves memory for no more atoms than the key file can hold, whatever a count claims.
SCENARIO(many_small_atoms) {
  Checker checker(32);
  LazyFiles files = lazy_files({{"k", std::vector<std::string>(20000, "a")}});
  files.key = changed(files.key, 8 + 4 + 8 + 1 + 8, le64(std::uint64_t{1} << 33));
  checker.check(files, "count of 2^33");
  return print_checked(checker);
}

TEST(HostileLazyStore, ACountThatClaimsMoreAtomsThanTheKeyFileHoldsFailsAtItsEnd) {
  expect_checked(run_hostile("many_small_atoms"), 1);
}

// The key file holds the sizes of the atoms, but the value file lacks their bytes.
SCENARIO(atoms_beyond_the_values) {
  Checker checker(2);
  LazyFiles files = lazy_files({{"k", std::vector<std::string>(200000, "a")}});
  files.val = files.val.substr(0, 100);
  checker.check(files, "100 bytes");
  return print_checked(checker);
}

TEST(HostileLazyStore, SizesThatTheValueFileHasNoBytesForAreNotMadeRoomFor) {
  expect_checked(run_hostile("atoms_beyond_the_values"), 1);
}
