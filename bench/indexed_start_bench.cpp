// Processes that open a store: how long that takes for stores of several sizes, how long
// until the last of several processes that start at once has opened it, and how much memory
// they have after some look-ups. Compared with LMDB, with a constant database and with our
// other stores.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>

#include "cdb_store.h"
#include "lmdb_store.h"
#include "now.h"
#include "other_process.h"
#include "own_store.h"
#include "ratio.h"

namespace {

using bench::now;
using bench::OtherProcess;

constexpr std::uint64_t kLookUps = 1000;

// This process's share of the memory, in MB.
double memory() {
  std::ifstream file("/proc/self/smaps_rollup");
  std::string word;
  while (file >> word && word != "Pss:") {
  }
  double kib = 0;
  file >> kib;
  return kib * 1024 / 1e6;
}

std::string name_of(std::uint64_t entries) { return "of_" + std::to_string(entries); }

// What a process of ours does: it opens a store, looks up entries of its own choice, and
// tells its share of the memory.
template <typename Store>
void start(std::uint64_t entries, std::uint64_t number) {
  const std::string name = name_of(entries);
  OtherProcess::send(0);
  OtherProcess::wait_for_order();
  const double begin = now();
  Store store(name);
  const double end = now();
  OtherProcess::send(end - begin);
  OtherProcess::send(end);
  OtherProcess::wait_for_order();
  for (std::uint64_t i = 0; i < kLookUps; ++i) {
    if (!store.find(bench::numbered_key(bench::scrambled(kLookUps * number + i) % entries))) {
      std::abort();
    }
  }
  OtherProcess::send(0);
  OtherProcess::wait_for_order();
  OtherProcess::send(memory());
  OtherProcess::wait_for_order();
}

// The same process opens a store again and again.
template <typename Store>
void reopen(std::uint64_t entries) {
  const std::string name = name_of(entries);
  double least = HUGE_VAL;
  for (int i = 0; i < 100; ++i) {
    const double begin = now();
    const Store store(name);
    least = std::min(least, now() - begin);
  }
  OtherProcess::send(least);
}

struct Kind {
  std::string name;
  void (*write)(const std::string& name, std::uint64_t entries);
  void (*start)(std::uint64_t entries, std::uint64_t number);
  void (*reopen)(std::uint64_t entries);
  bool reads_all;  // when it opens: measured less often, and not at the largest size
};

template <typename Store>
Kind kind(const std::string& name, bool reads_all) {
  return {name, &Store::write, &start<Store>, &reopen<Store>, reads_all};
}

const std::vector<Kind>& kinds() {
  static const std::vector<Kind> all{
      kind<bench::IndexedCache>("indexed", false), kind<bench::LmdbStore>("LMDB", false),
      kind<bench::CdbStore>("cdb", false), kind<bench::BasicCache>("basic", true),
      kind<bench::LazyCache>("lazy", true)};
  return all;
}

// The least of all rounds.
struct Times {
  double open = HUGE_VAL;    // in the fastest process, in us
  double again = HUGE_VAL;   // in a process that has opened the store before, in us
  double last = HUGE_VAL;    // until the last process has opened, in us
  double memory = HUGE_VAL;  // of all processes after their look-ups, in MB
};
// By kind, entries and processes.
using Table = std::map<std::string, Times>;

std::string row(const std::string& kind, std::uint64_t entries, std::uint64_t processes) {
  return kind + " " + std::to_string(entries) + " " + std::to_string(processes);
}

std::vector<std::string> arguments(const char* role, const Kind& kind, std::uint64_t entries,
                                   std::uint64_t number) {
  return {"indexed_start_bench", role, kind.name, std::to_string(entries), std::to_string(number)};
}

void start_at_once(const Kind& kind, std::uint64_t entries, std::uint64_t count, Times& times) {
  std::vector<std::unique_ptr<OtherProcess>> processes;
  for (std::uint64_t number = 0; number < count; ++number) {
    processes.push_back(std::make_unique<OtherProcess>(arguments("start", kind, entries, number)));
  }
  double last = 0;
  double memory = 0;
  const auto order_all = [&processes] {
    for (const auto& process : processes) {
      process->report();  // that it is ready
    }
    const double begin = now();
    for (const auto& process : processes) {
      process->order();
    }
    return begin;
  };
  const double begin = order_all();
  for (const auto& process : processes) {
    times.open = std::min(times.open, process->report());
    last = std::max(last, process->report() - begin);
    process->order();
  }
  order_all();
  for (const auto& process : processes) {
    memory += process->report();
  }
  times.last = std::min(times.last, last);
  times.memory = std::min(times.memory, memory);
}

void measure(const Kind& kind, std::uint64_t entries, std::uint64_t count, Table& table) {
  Times& times = table[row(kind.name, entries, count)];
  start_at_once(kind, entries, count, times);
  if (count == 1 && !kind.reads_all) {
    const OtherProcess process(arguments("reopen", kind, entries, 0));
    times.again = std::min(times.again, process.report());
  }
}

void print(const Table& table) {
  std::printf("%-22s %12s %12s %12s %10s\n", "kind, entries, processes", "open, us", "again, us",
              "last, us", "PSS, MB");
  for (const auto& [name, times] : table) {
    std::printf("%-24s %12.1f %12.1f %12.1f %10.1f\n", name.c_str(), times.open, times.again,
                times.last, times.memory);
  }
  const auto at = [&table](const char* kind, std::uint64_t entries, std::uint64_t processes) {
    const auto found = table.find(row(kind, entries, processes));
    return found == table.end() ? Times{} : found->second;
  };
  bench::print_ratio_head();
  for (const std::uint64_t entries : {1'000U, 100'000U, 1'000'000U, 5'000'000U}) {
    const std::string label = "open " + std::to_string(entries);
    const Times ours = at("indexed", entries, 1);
    const Times lmdb = at("LMDB", entries, 1);
    const Times cdb = at("cdb", entries, 1);
    bench::print_ratio(label + " / LMDB", ours.open / lmdb.open, 1);
    bench::print_ratio(label + " again / LMDB", ours.again / lmdb.again, 1);
    const double limit = entries <= 1'000'000 ? 3 : 0;
    bench::print_ratio(label + " / cdb", ours.open / cdb.open, limit);
    bench::print_ratio(label + " again / cdb", ours.again / cdb.again, limit);
  }
  const Times largest = at("indexed", 5'000'000, 1);
  const Times smallest = at("indexed", 1'000, 1);
  bench::print_ratio("open 5 M / 1 k", largest.open / smallest.open, 2);
  bench::print_ratio("open 5 M / 1 k, again", largest.again / smallest.again, 2);
  const Times ours = at("indexed", 1'000'000, 8);
  bench::print_ratio("1000 * last of 8 at 1 M / basic",
                     1000 * ours.last / at("basic", 1'000'000, 8).last, 1);
  bench::print_ratio("last of 8 at 1 M / LMDB", ours.last / at("LMDB", 1'000'000, 8).last, 0);
  bench::print_ratio("PSS of 8 at 1 M / LMDB", ours.memory / at("LMDB", 1'000'000, 8).memory, 0.8);
}

// Only stores of so many entries at most.
int measure_all(int rounds, std::uint64_t most) {
  bench::root();
  setenv("QV_LOG_FILE", "/dev/null", 1);
  std::vector<std::uint64_t> sizes{1'000, 100'000, 1'000'000, 5'000'000};
  sizes.erase(std::upper_bound(sizes.begin(), sizes.end(), most), sizes.end());
  Table table;
  const std::uint64_t shared = std::min<std::uint64_t>(most, 1'000'000);
  for (const std::uint64_t entries : sizes) {
    for (const Kind& kind : kinds()) {
      if (kind.reads_all && entries > shared) {
        continue;
      }
      const OtherProcess writer(arguments("write", kind, entries, 0));
      writer.report();
    }
  }
  for (int round = 0; round < rounds; ++round) {
    // The first process of a kind finds the processor's caches full of another kind's code.
    std::reverse(sizes.begin(), sizes.end());
    for (const Kind& kind : kinds()) {
      if (kind.reads_all && round >= 2) {
        continue;
      }
      for (const std::uint64_t entries : sizes) {
        if (!kind.reads_all || entries <= shared) {
          measure(kind, entries, 1, table);
        }
      }
      for (const std::uint64_t processes : {2U, 4U, 8U}) {
        measure(kind, shared, processes, table);
      }
    }
  }
  print(table);
  return 0;
}

// In another process.
int run(const std::string& role, const std::string& name, std::uint64_t entries,
        std::uint64_t number) {
  for (const Kind& kind : kinds()) {
    if (kind.name != name) {
      continue;
    }
    if (role == "write") {
      kind.write(name_of(entries), entries);
      OtherProcess::send(0);
    } else if (role == "start") {
      kind.start(entries, number);
    } else {
      kind.reopen(entries);
    }
  }
  return 0;
}

}  // namespace

// Usage: indexed_start_bench [ROUNDS [ENTRIES]]
int main(int argc, char** argv) {
  if (argc == 5) {
    return run(argv[1], argv[2], std::stoull(argv[3]), std::stoull(argv[4]));
  }
  return measure_all(argc > 1 ? std::atoi(argv[1]) : 20,
                     argc > 2 ? std::stoull(argv[2]) : 5'000'000);
}
