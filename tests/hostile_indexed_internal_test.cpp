// Thousands of damaged files of an indexed store. Whatever the damage, no process crashes, hangs
// or finds a value that wasn't stored under its key, and damage of the index costs no entry.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "support/hostile.h"
#include "support/indexed_store.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

using quorvane::cache::EntryMap;
using quorvane::cache::indexed::DataHeader;
using quorvane::cache::indexed::Engine;
using quorvane::cache::indexed::EntryHeader;
using quorvane::cache::indexed::IndexPage;
using quorvane::cache::indexed::kFirstEntry;
using quorvane::cache::indexed::kIndexPageSize;
using quorvane::cache::indexed::kOffsetMask;
using quorvane::cache::indexed::make_slot;
using quorvane::util::RoBuffer;
using test::Entry;

namespace {

constexpr unsigned kHangSeconds = 20;
constexpr std::size_t kMemory = std::size_t{512} << 20;

// Four times as many pairs are damaged. A sanitizer slows each of them down tenfold.
#ifdef QV_SANITIZED
constexpr int kPairs = 100;
#else
constexpr int kPairs = 500;
#endif

struct Files {
  std::string data;
  std::string index;
};

// Writes a store.
std::vector<Entry> write_store() {
  std::vector<Entry> entries = test::numbered_entries(0, 60);
  entries.push_back({"large", {std::string(100000, 'l')}});
  entries.push_back({"tiny atoms", std::vector<std::string>(300, "a")});
  entries.push_back({std::string(5000, 'k'), {"long key"}});
  const auto store = test::indexed_store();
  if (!store->open() || !store->store(test::entry_map(entries))) {
    std::abort();
  }
  // Its value holds the bytes of whole entries.
  entries.push_back({"nested", {test::read_file(test::data_path())}});
  store->store(test::entry_map(entries));
  return entries;
}

// One way to damage the files. The random numbers decide on the details.
class Damage {
 public:
  Damage(Files& files, unsigned seed) : files_(files), random_(seed) {}

  // Returns whether the data file was damaged.
  bool apply() {
    bool is_data_damaged = false;
    for (unsigned count = 1 + below(3); count > 0; --count) {
      const bool of_data = below(2) == 0;
      std::string& bytes = of_data ? files_.data : files_.index;
      const unsigned kind = below(11);
      if (kind < 5) {
        change_bytes(bytes, kind);
      } else if (of_data) {
        forge_header();
      } else {
        forge_index(kind);
      }
      is_data_damaged = is_data_damaged || of_data;
    }
    return is_data_damaged;
  }

 private:
  unsigned below(std::size_t limit) { return static_cast<unsigned>(random_() % limit); }

  std::uint64_t any_number() {
    const std::uint64_t base[] = {0,
                                  1,
                                  files_.data.size(),
                                  std::uint64_t{1} << 32,
                                  std::uint64_t{1} << 48,
                                  std::uint64_t{1} << 63,
                                  random_(),
                                  kFirstEntry + below(files_.data.size() + 1)};
    return base[below(std::size(base))] + below(3) - 1;
  }

  void change_bytes(std::string& bytes, unsigned kind) {
    if (bytes.size() < 2) {
      return;
    }
    const std::size_t at = below(bytes.size());
    const std::size_t size = std::min<std::size_t>(1 + below(5000), bytes.size() - at);
    if (kind == 0) {
      bytes[at] = static_cast<char>(bytes[at] ^ (1 << below(8)));
    } else if (kind == 1) {
      std::generate_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), size,
                      [this] { return static_cast<char>(random_()); });
    } else if (kind == 2) {
      bytes.resize(at);
    } else if (kind == 3) {
      bytes.append(size, below(2) == 0 ? '\0' : static_cast<char>(random_()));
    } else {
      const std::size_t other = below(bytes.size() - size + 1) / 16 * 16;
      const std::size_t from = at / 16 * 16;
      const std::string first = bytes.substr(from, size);
      bytes.replace(from, size, bytes.substr(other, size));
      bytes.replace(other, first.size(), first);
    }
  }

  // A header that counts as written, with a number that contradicts the entry.
  void forge_header() {
    const std::size_t at = kFirstEntry + below(files_.data.size()) / 16 * 16;
    if (at + sizeof(EntryHeader) + 8 > files_.data.size()) {
      return;
    }
    const unsigned field = below(4);
    if (field == 0) {
      test::put(files_.data, at + offsetof(EntryHeader, size), any_number());
    } else if (field < 3) {
      test::put(files_.data, at + offsetof(EntryHeader, size) + 4 + 4 * std::size_t{field},
                static_cast<std::uint32_t>(any_number()));
    } else {
      test::put(files_.data, at + sizeof(EntryHeader), any_number());  // the size of an atom
    }
    test::mark_header(files_.data, at);
  }

  void forge_index(unsigned kind) {
    std::string& index = files_.index;
    if (index.size() < kIndexPageSize + 8) {
      return;
    }
    if (kind == 5) {  // the words that never change
      test::put(index, 8 * std::size_t{below(7)}, any_number());
      test::seal_index(index);
    } else if (kind < 8) {  // those that change
      test::put(index, offsetof(IndexPage, covered) + 8 * std::size_t{below(4)}, any_number());
    } else {
      forge_slots(kind);
    }
  }

  void forge_slots(unsigned kind) {
    std::string& index = files_.index;
    const std::uint64_t slots = (index.size() - kIndexPageSize) / 8;
    for (std::uint64_t at = 0; at < slots; ++at) {
      const std::size_t place = kIndexPageSize + 8 * at;
      const auto slot = test::number_at<std::uint64_t>(index, place);
      if (kind == 8 && slot != 0) {  // its key's, but anywhere
        test::put(index, place, make_slot(slot, any_number() & kOffsetMask));
      } else if (kind == 9 && slot == 0) {  // no free one
        test::put(index, place, make_slot(random_(), 16 + below(files_.data.size())));
      } else if (kind == 10 && below(2) == 0) {  // forgotten
        test::put(index, place, std::uint64_t{0});
      }
    }
  }

  Files& files_;
  std::mt19937_64 random_;
};

// What a process does with the files. Each complaint is printed once.
class Visitor {
 public:
  Visitor(unsigned number, const std::vector<Entry>& stored) : number_(number), stored_(stored) {}

  // `is_data_whole`: nothing but the index is damaged.
  void visit(bool is_data_whole) {
    const auto store = test::indexed_store();
    const bool is_open = store->open();
    check(is_open || !is_data_whole, "doesn't open");
    look_at_all(*store);
    const bool stored = store->store(test::entry_map(added_));
    check(is_open || !stored, "stored in a closed store");
    check(!stored || found(*store, added_) == 1, "loses what it has just stored");
    look_at_all(*store);
    const auto again = test::indexed_store();
    const bool opens_again = again->open();
    check(!stored || (opens_again && found(*again, added_) == 1), "loses what was stored");
    look_at_all(*again);
    if (is_data_whole) {
      check_that_nothing_is_lost(stored);
    }
  }

 private:
  void check(bool holds, const char* complaint) const {
    if (!holds) {
      std::printf("case %u: %s\n", number_, complaint);
    }
  }

  static int found(Engine& store, const std::vector<Entry>& entries) try {
    return test::count_found(store, entries);
  } catch (const std::bad_alloc&) {
    return 0;
  }

  bool is_known(const Entry& entry) const {
    return entry == added_[0] || std::count(stored_.begin(), stored_.end(), entry) == 1;
  }

  void look_at_all(Engine& store) const {
    check(found(store, stored_) >= 0, "finds a wrong value");
    check(found(store, {{"absent", {"a"}}, {"key", {"a"}}, {"key60", {"a"}}}) == 0,
          "finds what was never stored");
    store.entries();
    std::vector<RoBuffer> keys;
    for (const Entry& entry : stored_) {
      keys.push_back(test::buffer(entry.key));
    }
    store.prefetch(keys.data(), keys.size());
    try {
      EntryMap all;
      store.read_all(all);
      check(std::all_of(all.begin(), all.end(),
                        [this](const auto& entry) { return is_known(test::entry_of(entry)); }),
            "reads a wrong value");
    } catch (const std::bad_alloc&) {
    }
  }

  void check_that_nothing_is_lost(bool stored) const {
    unlink(test::index_path().c_str());
    const auto store = test::indexed_store();
    check(store->open(), "doesn't open without an index");
    check(test::count_found(*store, stored_) == static_cast<int>(stored_.size()),
          "has lost an entry");
    check(!stored || test::count_found(*store, added_) == 1, "has lost the new entry");
  }

  const unsigned number_;
  const std::vector<Entry>& stored_;
  const std::vector<Entry> added_{{"added", {"new", std::string(3000, 'n')}}};
};

}  // namespace

// Arguments: the first case and their number. Each has its own process.
SCENARIO(damage_files) {
  const std::vector<Entry> stored = write_store();
  const Files intact{test::read_file(test::data_path()), test::read_file(test::index_path())};
  const auto first = static_cast<unsigned>(std::stoul(arguments.at(0)));
  const auto cases = static_cast<unsigned>(std::stoul(arguments.at(1)));
  int ended = 0;
  int of_index_only = 0;
  for (unsigned number = first; number < first + cases; ++number) {
    Files files = intact;
    const bool is_data_damaged = Damage(files, number).apply();
    test::write_file(test::data_path(), files.data);
    test::write_file(test::index_path(), files.index);
    const int status = test::wait_for(test::in_child([&] {
      alarm(kHangSeconds);
      const test::GrowthLimit limit(kMemory);
      Visitor(number, stored).visit(!is_data_damaged);
      std::fflush(stdout);
      return 0;
    }));
    if (status != 0) {
      std::printf("case %u ended with %d\n", number, status);
    }
    ended += status == 0 ? 1 : 0;
    of_index_only += is_data_damaged ? 0 : 1;
  }
  std::printf("%d checked, many of them with whole data: %d", ended, of_index_only * 5 > ended);
  return 0;
}

namespace {

class DamagedIndexedStore : public testing::TestWithParam<int> {};

TEST_P(DamagedIndexedStore, NeitherCrashesNorHangsNorGivesAWrongValueNorLosesOne) {
  const std::string pairs = std::to_string(kPairs);
  const test::Ran ran =
      test::StoreRoot().run("damage_files", {std::to_string(GetParam()), pairs}, "ERROR");
  EXPECT_TRUE(ran.exited_with(0)) << ran.status;
  EXPECT_EQ(ran.out, pairs + " checked, many of them with whole data: 1");
}

INSTANTIATE_TEST_SUITE_P(From, DamagedIndexedStore, testing::Values(0, 500, 1000, 1500),
                         testing::PrintToStringParamName());

}  // namespace
