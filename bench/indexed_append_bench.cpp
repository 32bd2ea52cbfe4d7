// Changes of an indexed store: appends, compared with LMDB's and those of our other stores;
// the growth of its index, and the rebuilding of one that is lost. How long the store lock is
// held for each, and what look-ups take meanwhile.
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>

#include "busy_reader.h"
#include "lmdb_store.h"
#include "now.h"
#include "own_store.h"
#include "ratio.h"
#include "timed_lock.h"

namespace {

using bench::now;
using bench::TimedLock;
using quorvane::cache::EntryMap;
using quorvane::cache::IndexedStore;
using quorvane::cache::StoreKind;

constexpr std::uint64_t kAppended = 100;

std::string name_of(const char* use, std::uint64_t entries) {
  return use + ("_" + std::to_string(entries));
}

std::string index_path(const std::string& name) { return bench::root() + "/idx_" + name; }

void check(bool holds) {
  if (!holds) {
    std::abort();
  }
}

// What a row of the table has, in us: the least and the most of all rounds.
struct Row {
  double least = HUGE_VAL;
  double most = 0;
  void add(double time) {
    least = std::min(least, time);
    most = std::max(most, time);
  }
};
std::map<std::string, Row> table;

// Entries that no store of this process has.
EntryMap new_entries() {
  static std::uint64_t next = std::uint64_t{1} << 40;
  next += kAppended;
  return bench::numbered_entries(next - kAppended, next);
}

double time_of_append(const std::function<void(const EntryMap&)>& append) {
  const EntryMap entries = new_entries();
  const double begin = now();
  append(entries);
  return now() - begin;
}

void append_twice(const std::string& label, const std::function<void(const EntryMap&)>& append) {
  table["append to " + label + ", first"].add(time_of_append(append));
  table["append to " + label + ", next"].add(time_of_append(append));
}

void append_to_indexed(const char* label, std::uint64_t entries) {
  const auto lock = std::make_shared<TimedLock>(name_of("indexed", entries));
  IndexedStore store(name_of("indexed", entries), lock, nullptr);
  EntryMap none;
  check(store.try_load(none));
  append_twice(label, [&](const EntryMap& diff) { check(store.try_store_diff(diff)); });
  table[std::string("lock held, two appends to ") + label].add(lock->take_held());
}

void append_to_lmdb(const char* label, std::uint64_t entries, unsigned flags) {
  bench::LmdbStore store(name_of("lmdb", entries), flags);
  append_twice(label, [&store](const EntryMap& diff) { store.append(diff); });
}

void rebuild(const char* label, std::uint64_t entries) {
  const std::string name = name_of("indexed", entries);
  check(unlink(index_path(name).c_str()) == 0);
  const auto lock = std::make_shared<TimedLock>(name);
  IndexedStore store(name, lock, nullptr);
  EntryMap none;
  check(store.try_load(none));
  table[std::string("rebuild of ") + label].add(lock->take_held());
}

// So many entries that the next one makes the index grow.
std::uint64_t full_at(std::uint64_t slots) { return slots / 3 * 2; }

void write_full(std::uint64_t slots) {
  const std::string name = name_of("full", slots);
  IndexedStore store(name, std::make_shared<TimedLock>(name), nullptr);
  EntryMap none;
  check(store.try_load(none));
  const std::uint64_t batch = std::min<std::uint64_t>(slots * 3 / 8, 500'000);
  for (std::uint64_t from = 0; from < full_at(slots); from += batch) {
    check(store.try_store_diff(
        bench::numbered_entries(from, std::min(from + batch, full_at(slots)))));
  }
  check(std::filesystem::file_size(index_path(name)) < 2 * slots * sizeof(std::uint64_t));
  std::filesystem::copy_file(index_path(name), bench::root() + "/kept_" + name);
}

void grow(const char* label, std::uint64_t slots) {
  const std::string name = name_of("full", slots);
  const auto lock = std::make_shared<TimedLock>(name);
  IndexedStore store(name, lock, nullptr);
  IndexedStore other(name, std::make_shared<TimedLock>(name), nullptr);
  EntryMap none;
  check(store.try_load(none) && other.try_load(none));
  bench::BusyReader reader(other, full_at(slots));
  check(store.try_store_diff(new_entries()));
  const auto times = reader.stop();
  table[std::string("growth of ") + label].add(lock->take_held());
  table[std::string("look-up during growth of ") + label + ", median"].add(times.median);
  table[std::string("look-up during growth of ") + label + ", longest"].add(times.longest);
  // As it was: the next append also takes what the index doesn't cover.
  std::filesystem::rename(bench::root() + "/kept_" + name, index_path(name));
  std::filesystem::copy_file(index_path(name), bench::root() + "/kept_" + name);
}

struct Size {
  const char* label;
  std::uint64_t entries;
  std::uint64_t slots;  // of an index that is full with about as many entries
};
constexpr Size kAllSizes[] = {{"100 k", 100'000, std::uint64_t{1} << 18},
                              {"1 M", 1'000'000, std::uint64_t{1} << 21},
                              {"5 M", 5'000'000, std::uint64_t{1} << 23}};

std::vector<Size> sizes(std::uint64_t most) {
  std::vector<Size> sizes;
  for (const Size& size : kAllSizes) {
    if (size.entries <= most) {
      sizes.push_back(size);
    }
  }
  return sizes;
}

double least(const std::string& row) { return table[row].least; }

void print(const std::vector<Size>& sizes) {
  std::printf("%-52s %12s %12s\n", "times, in us", "least", "most");
  for (const auto& [label, row] : table) {
    std::printf("%-52s %12.1f %12.1f\n", label.c_str(), row.least, row.most);
  }
  bench::print_ratio_head();
  for (const char* which : {", first", ", next"}) {
    const std::string of = which;
    bench::print_ratio("append to 1 M / LMDB, not synced" + of,
                       least("append to 1 M" + of) / least("append to LMDB, 1 M" + of), 0.4);
    bench::print_ratio("append to 1 M / LMDB, synced" + of,
                       least("append to 1 M" + of) / least("append to LMDB, 1 M, synced" + of), 0);
    bench::print_ratio("append to 1 M / basic" + of,
                       least("append to 1 M" + of) / least("append to basic, 1 M" + of), 0);
    bench::print_ratio("append to 1 M / lazy" + of,
                       least("append to 1 M" + of) / least("append to lazy, 1 M" + of), 0);
    bench::print_ratio("append to 5 M / 100 k" + of,
                       least("append to 5 M" + of) / least("append to 100 k" + of), 1.3);
  }
  for (std::size_t i = 1; i < sizes.size(); ++i) {
    const Size& large = sizes[i];
    const Size& small = sizes[i - 1];
    const std::string pair = std::string(large.label) + " / " + small.label + ", per entry";
    const auto per_entry = [](const char* what, const Size& size, std::uint64_t entries) {
      return least(what + std::string(size.label)) / static_cast<double>(entries);
    };
    bench::print_ratio("rebuild of " + pair,
                       per_entry("rebuild of ", large, large.entries) /
                           per_entry("rebuild of ", small, small.entries),
                       0);
    bench::print_ratio("growth of " + pair,
                       per_entry("growth of ", large, full_at(large.slots)) /
                           per_entry("growth of ", small, full_at(small.slots)),
                       0);
  }
}

}  // namespace

// Usage: indexed_append_bench [ROUNDS [ENTRIES]]: only stores of so many entries at most
int main(int argc, char** argv) {
  setenv("QV_LOG_FILE", "/dev/null", 1);
  bench::root();
  const std::vector<Size> sizes = ::sizes(argc > 2 ? std::stoull(argv[2]) : 5'000'000);
  for (const Size& size : sizes) {
    bench::IndexedCache::write(name_of("indexed", size.entries), size.entries);
    write_full(size.slots);
  }
  constexpr std::uint64_t kPeer = 1'000'000;
  bench::LmdbStore::write(name_of("lmdb", kPeer), kPeer);
  std::map<std::string, std::unique_ptr<quorvane::cache::Store>> others;
  for (const auto& [label, kind] :
       {std::pair{"basic", StoreKind::basic}, std::pair{"lazy", StoreKind::lazy_lookup}}) {
    const std::string name = name_of(label, kPeer);
    auto& store = others[label] = quorvane::cache::make_file_store(kind, name);
    EntryMap loaded;
    check(store->try_store_diff(bench::numbered_entries(0, kPeer)) && store->try_load(loaded));
  }
  sync();  // while the kernel writes a page back, a store into it waits or faults again
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 15;
  for (int round = 0; round < rounds; ++round) {
    for (const Size& size : sizes) {
      append_to_indexed(size.label, size.entries);
    }
    append_to_lmdb("LMDB, 1 M", kPeer, MDB_NOSYNC);
    append_to_lmdb("LMDB, 1 M, synced", kPeer, 0);
    for (const auto& other : others) {
      append_twice(other.first + ", 1 M",
                   [&other](const EntryMap& diff) { check(other.second->try_store_diff(diff)); });
    }
  }
  for (int round = 0; round < (rounds + 2) / 3; ++round) {
    for (const Size& size : sizes) {
      rebuild(size.label, size.entries);
      grow(size.label, size.slots);
    }
  }
  print(sizes);
  return 0;
}
