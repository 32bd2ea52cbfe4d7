// The time per item from several producers to one consumer: the ring with an array of
// items, a queue with a mutex and two condition variables, a lock-free queue whose users
// yield while it is empty or full, and an unbounded blocking queue.
//
// A run lasts a fixed time, since the number of items varies up to a thousandfold: with
// more producers than cores, the ring's commits spin for a producer that isn't running.
#include <benchmark/benchmark.h>
#include <blockingconcurrentqueue.h>
#include <quorvane/mpsc.h>

#include <atomic>
#include <boost/lockfree/queue.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ratio.h"

namespace {

constexpr unsigned kSize = 1024;

class RingQueue {
 public:
  void put(std::uint64_t item) {
    const auto reservation = ring_.wr_reserve();
    items_[ring_.wr_slot(reservation)] = item;
    ring_.wr_commit(reservation);
  }

  // Hands each item to `use` until that returns false.
  template <typename Use>
  void take(Use use) {
    auto lock = ring_.rd_lock();
    for (bool goes_on = true; goes_on;) {
      unsigned slot;
      while (goes_on && ring_.rd_head(slot)) {
        goes_on = use(items_[slot]);
        ring_.rd_advance();
      }
      if (goes_on) {
        ring_.rd_wait(lock);
      }
    }
  }

 private:
  quorvane::mpsc::Ring ring_{kSize};
  std::vector<std::uint64_t> items_ = std::vector<std::uint64_t>(kSize);
};

// The obvious queue.
class MutexQueue {
 public:
  void put(std::uint64_t item) {
    std::unique_lock<std::mutex> lock(mutex_);
    space_.wait(lock, [this] { return tail_ - head_ < kSize; });
    items_[tail_++ % kSize] = item;
    data_.notify_one();
  }

  template <typename Use>
  void take(Use use) {
    for (bool goes_on = true; goes_on;) {
      std::unique_lock<std::mutex> lock(mutex_);
      data_.wait(lock, [this] { return tail_ != head_; });
      goes_on = use(items_[head_++ % kSize]);
      space_.notify_one();
    }
  }

 private:
  std::mutex mutex_;
  std::condition_variable data_;
  std::condition_variable space_;
  std::uint64_t head_ = 0;
  std::uint64_t tail_ = 0;
  std::vector<std::uint64_t> items_ = std::vector<std::uint64_t>(kSize);
};

class LockFreeQueue {
 public:
  void put(std::uint64_t item) {
    while (!queue_.bounded_push(item)) {
      std::this_thread::yield();
    }
  }

  template <typename Use>
  void take(Use use) {
    for (bool goes_on = true; goes_on;) {
      std::uint64_t item;
      if (queue_.pop(item)) {
        goes_on = use(item);
      } else {
        std::this_thread::yield();
      }
    }
  }

 private:
  boost::lockfree::queue<std::uint64_t, boost::lockfree::fixed_sized<true>> queue_{kSize};
};

class UnboundedQueue {
 public:
  void put(std::uint64_t item) { queue_.enqueue(item); }

  template <typename Use>
  void take(Use use) {
    std::uint64_t item;
    do {
      queue_.wait_dequeue(item);
    } while (use(item));
  }

 private:
  moodycamel::BlockingConcurrentQueue<std::uint64_t> queue_{kSize};
};

constexpr std::uint64_t kLast = 0;  // a producer's last item

// Producers put items for a while. True when all items arrived.
template <typename Queue>
bool run_for_a_while(Queue& queue, unsigned producers, std::uint64_t& taken) {
  std::atomic<bool> is_over{false};
  std::atomic<std::uint64_t> put{0};
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < producers; ++i) {
    threads.emplace_back([&queue, &is_over, &put] {
      std::uint64_t mine = 0;
      while (!is_over.load(std::memory_order_relaxed)) {
        queue.put(++mine);
      }
      queue.put(kLast);
      put += mine + 1;
    });
  }
  std::thread clock([&is_over] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    is_over = true;
  });
  unsigned running = producers;
  queue.take([&running, &taken](std::uint64_t item) {
    ++taken;
    running -= item == kLast ? 1 : 0;
    return running > 0;
  });
  clock.join();
  for (std::thread& thread : threads) {
    thread.join();
  }
  return taken == put;
}

template <typename Queue>
void stream(benchmark::State& state) {
  for (auto _ : state) {
    auto queue = std::make_unique<Queue>();
    std::uint64_t items = 0;
    const auto start = std::chrono::steady_clock::now();
    if (!run_for_a_while(*queue, static_cast<unsigned>(state.range(0)), items)) {
      state.SkipWithError("items were lost");
    }
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(spent.count() / static_cast<double>(items));
  }
}

void traffic(benchmark::internal::Benchmark* benchmark) {
  benchmark->UseManualTime()->Iterations(1)->Repetitions(7);
  benchmark->Arg(1)->Arg(2)->Arg(4);
}

BENCHMARK_TEMPLATE(stream, RingQueue)->Apply(traffic);
BENCHMARK_TEMPLATE(stream, MutexQueue)->Apply(traffic);
BENCHMARK_TEMPLATE(stream, LockFreeQueue)->Apply(traffic);
BENCHMARK_TEMPLATE(stream, UnboundedQueue)->Apply(traffic);

// Times per item. The targets: the ring carries 1.6 times the items of the mutex queue with
// one producer, and 1.1 times with two.
std::vector<bench::Ratio> ratios() {
  std::vector<bench::Ratio> all;
  for (const char* const peer : {"MutexQueue", "LockFreeQueue", "UnboundedQueue"}) {
    for (const char* const producers : {"1", "2", "4"}) {
      const bool is_limited = peer[0] == 'M' && producers[0] != '4';
      const double target = is_limited ? 1 / (producers[0] == '1' ? 1.6 : 1.1) : 0;
      all.push_back({std::string("ring / ") + peer + ", producers: " + producers,
                     std::string("stream<RingQueue>/") + producers,
                     std::string("stream<") + peer + ">/" + producers, target});
    }
  }
  return all;
}

}  // namespace

int main(int argc, char** argv) { return bench::run(argc, argv, ratios()); }
