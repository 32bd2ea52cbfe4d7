// What it costs to be able to undo a killed append: an append of ten entries under the
// store's own lock, which notes it, compared with the same append under a bare flock.
// Target: the note adds at most 30 us.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "ratio.h"
#include "store_fixture.h"

namespace {

using namespace quorvane;

class BareLock : public cache::Store::Lock {
 public:
  explicit BareLock(const std::string& name)
      : fd_(open((bench::root() + "/lock_" + name).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666)) {}
  ~BareLock() override { close(fd_); }
  bool is_valid() const override { return fd_ >= 0; }
  void lock() override { flock(fd_, LOCK_EX); }
  void unlock() override { flock(fd_, LOCK_UN); }

 private:
  int fd_;
};

constexpr std::size_t kEntries = 10;

// Each append goes to a new store that holds ten entries.
template <typename Store, typename Lock>
void append(benchmark::State& state) {
  const std::string name = "appended";
  const auto keys = bench::make_keys(2 * kEntries);
  cache::EntryMap diff;
  for (std::size_t at = kEntries; at < keys.size(); ++at) {
    const std::string value = bench::make_value(keys[at]);
    diff.emplace(util::RoBuffer::copy(keys[at].data(), bench::kKeySize),
                 std::vector{util::RoBuffer::copy(value.data(), value.size())});
  }
  for (auto _ : state) {
    state.PauseTiming();
    for (const char* prefix : {"", "key_", "val_", "lock_"}) {
      unlink((bench::root() + "/" + prefix + name).c_str());
    }
    bench::write_store<Store>(name, {keys.begin(), keys.begin() + kEntries}, 1);
    Store store(name, std::make_shared<Lock>(name), nullptr);
    state.ResumeTiming();
    if (!store.try_store_diff(diff)) {
      std::abort();
    }
  }
}

template <typename Store>
void bm_noted(benchmark::State& state) {
  append<Store, cache::StoreFLock>(state);
}
template <typename Store>
void bm_bare(benchmark::State& state) {
  append<Store, BareLock>(state);
}

BENCHMARK_TEMPLATE(bm_noted, cache::BasicStore)->Iterations(500)->Repetitions(9);
BENCHMARK_TEMPLATE(bm_bare, cache::BasicStore)->Iterations(500)->Repetitions(9);
BENCHMARK_TEMPLATE(bm_noted, cache::LazyLookupStore)->Iterations(500)->Repetitions(9);
BENCHMARK_TEMPLATE(bm_bare, cache::LazyLookupStore)->Iterations(500)->Repetitions(9);

}  // namespace

int main(int argc, char** argv) {
  return bench::run(argc, argv,
                    {{"basic append, noted to bare", "bm_noted<cache::BasicStore>",
                      "bm_bare<cache::BasicStore>", 0},
                     {"lazy append, noted to bare", "bm_noted<cache::LazyLookupStore>",
                      "bm_bare<cache::LazyLookupStore>", 0}});
}
