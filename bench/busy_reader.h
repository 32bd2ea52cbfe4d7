// A thread that looks up one key after another, and how long that takes at worst.
#ifndef BENCH_BUSY_READER_H_
#define BENCH_BUSY_READER_H_

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include <quorvane/store.h>

#include "now.h"
#include "numbered_key.h"

namespace bench {

// Looks up keys of the first `entries` from its construction on.
class BusyReader {
 public:
  struct Times {
    double median;  // in us
    double longest;
  };

  BusyReader(quorvane::cache::LookupStore& store, std::uint64_t entries)
      : thread_([this, &store, entries] { run(store, entries); }) {
    while (!started_) {
      std::this_thread::yield();
    }
  }
  ~BusyReader() { stop(); }
  BusyReader(const BusyReader&) = delete;
  BusyReader& operator=(const BusyReader&) = delete;

  Times stop() {
    stopped_ = true;
    if (thread_.joinable()) {
      thread_.join();
    }
    std::sort(times_.begin(), times_.end());
    return {times_[times_.size() / 2], times_.back()};
  }

 private:
  void run(quorvane::cache::LookupStore& store, std::uint64_t entries) {
    std::vector<quorvane::util::RoBuffer> value;
    for (std::uint64_t i = 0; !stopped_; ++i) {
      const Key key = numbered_key(scrambled(i) % entries);
      const double begin = now();
      if (!store.find(quorvane::util::RoBuffer::view(key.data(), key.size()), value)) {
        std::abort();
      }
      times_.push_back(now() - begin);
      started_ = true;
    }
  }

  std::atomic<bool> started_{false};
  std::atomic<bool> stopped_{false};
  std::vector<double> times_;
  std::thread thread_;
};

}  // namespace bench

#endif  // BENCH_BUSY_READER_H_
