// Loading a basic store, compared with the obvious way: map the file, and for every entry
// emplace a key and atoms that each own a new[] array.
#include <fcntl.h>

#include "ratio.h"
#include "store_fixture.h"

namespace {

using namespace quorvane;

std::string store_name(std::int64_t entries, std::int64_t batches) {
  return "store_" + std::to_string(entries) + "_" + std::to_string(batches);
}

void prepare(std::int64_t entries, std::int64_t batches) {
  const std::string name = store_name(entries, batches);
  if (!std::filesystem::exists(bench::root() + "/" + name)) {
    bench::write_store(name, bench::make_keys(static_cast<std::size_t>(entries)),
                       static_cast<std::size_t>(batches));
  }
}

util::RoBuffer obvious_copy(util::BufferReader& reader, std::uint64_t size) {
  std::shared_ptr<unsigned char> owner(new unsigned char[size],
                                       std::default_delete<unsigned char[]>());
  reader.get_raw(owner.get(), size);
  const unsigned char* data = owner.get();
  return util::RoBuffer::share(std::move(owner), data, size);
}

bool obvious_load(const std::string& path, cache::EntryMap& out) {
  util::MMappedFile file;
  file.open(path, O_RDONLY, 0, PROT_READ, MAP_PRIVATE | MAP_POPULATE);
  const auto image = util::RoBuffer::view(file.data(), file.size());
  util::BufferReader reader = image.reader();
  reader.buffer(8);
  while (reader.remaining() > 0) {
    std::uint32_t magic = 0;
    std::uint64_t size = 0;
    std::uint64_t atoms = 0;
    if (!reader.get(&magic) || magic != cache::QV_CACHE_STORE_MAGIC_NUMBER || !reader.get(&size)) {
      return false;
    }
    util::RoBuffer key = obvious_copy(reader, size);
    reader.get(&atoms);
    std::vector<util::RoBuffer> value;
    for (; atoms > 0; --atoms) {
      reader.get(&size);
      value.push_back(obvious_copy(reader, size));
    }
    out.emplace(std::move(key), std::move(value));
  }
  return true;
}

template <typename Load>
void measure(benchmark::State& state, Load load) {
  prepare(state.range(0), state.range(1));
  const std::string name = store_name(state.range(0), state.range(1));
  for (auto _ : state) {
    cache::EntryMap map;
    if (!load(name, map) || map.size() != static_cast<std::size_t>(state.range(0))) {
      state.SkipWithError("load failed");
    }
    state.PauseTiming();
    map.clear();
    state.ResumeTiming();
  }
}

void BM_Load(benchmark::State& state) {
  measure(state, [](const std::string& name, cache::EntryMap& map) {
    return cache::BasicStore(name, std::make_shared<cache::StoreFLock>(name), nullptr)
        .try_load(map);
  });
}

void BM_ObviousLoad(benchmark::State& state) {
  measure(state, [](const std::string& name, cache::EntryMap& map) {
    return obvious_load(bench::root() + "/" + name, map);
  });
}

void shapes(benchmark::internal::Benchmark* benchmark) {
  for (const int entries : {10'000, 100'000, 1'000'000}) {
    benchmark->Args({entries, 1})->Args({entries, 100});
  }
  benchmark->Repetitions(5)->Unit(benchmark::kMillisecond)->ReportAggregatesOnly(false);
}
BENCHMARK(BM_Load)->Apply(shapes);
BENCHMARK(BM_ObviousLoad)->Apply(shapes);

}  // namespace

int main(int argc, char** argv) {
  return bench::run(
      argc, argv,
      {{"load 10 k, key order / obvious", "BM_Load/10000/1", "BM_ObviousLoad/10000/1", 0.85},
       {"load 100 k, key order / obvious", "BM_Load/100000/1", "BM_ObviousLoad/100000/1", 0.85},
       {"load 1 M, key order / obvious", "BM_Load/1000000/1", "BM_ObviousLoad/1000000/1", 0.85},
       {"load 10 k, 100 batches / obvious", "BM_Load/10000/100", "BM_ObviousLoad/10000/100", 0.35},
       {"load 100 k, 100 batches / obvious", "BM_Load/100000/100", "BM_ObviousLoad/100000/100",
        0.35},
       {"load 1 M, 100 batches / obvious", "BM_Load/1000000/100", "BM_ObviousLoad/1000000/100",
        0.35},
       {"load 100 k / load 10 k, key order", "BM_Load/100000/1", "BM_Load/10000/1", 0},
       {"load 1 M / load 100 k, key order", "BM_Load/1000000/1", "BM_Load/100000/1", 0}});
}
