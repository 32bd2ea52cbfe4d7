// ring: several threads search for primes and hand them to one thread, which counts them.
//
//   ring [PRODUCERS [LIMIT]]
#include <quorvane/mpsc.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

// An entry. The ring only hands out slot numbers; the array of entries is the program's.
// A producer's last entry has the prime 0.
struct Finding {
  unsigned producer;
  std::uint32_t prime;
};

constexpr unsigned kSlots = 1024;  // a power of two

quorvane::mpsc::Ring g_ring(kSlots);
std::array<Finding, kSlots> g_findings;

bool is_prime(std::uint32_t number) {
  for (std::uint32_t divisor = 2; divisor <= number / divisor; ++divisor) {
    if (number % divisor == 0) {
      return false;
    }
  }
  return number >= 2;
}

// Do nothing slow between the reservation and the commit: other producers' commits spin
// meanwhile.
void hand_over(const Finding& finding) {
  const auto reservation = g_ring.wr_reserve();
  g_findings[g_ring.wr_slot(reservation)] = finding;
  g_ring.wr_commit(reservation);
}

// Tests every step-th number below the limit.
void produce(unsigned producer, unsigned step, std::uint32_t limit) {
  for (std::uint32_t number = producer; number < limit; number += step) {
    if (is_prime(number)) {
      hand_over({producer, number});
    }
  }
  hand_over({producer, 0});
}

struct Total {
  unsigned count = 0;
  std::uint64_t sum = 0;
};

// Takes entries until every producer has ended.
std::vector<Total> consume(unsigned producers) {
  std::vector<Total> totals(producers);
  unsigned running = producers;
  auto lock = g_ring.rd_lock();
  while (running > 0) {
    unsigned slot;
    while (g_ring.rd_head(slot)) {
      const Finding finding = g_findings[slot];
      g_ring.rd_advance();  // from now on a producer may reuse the slot
      running -= finding.prime == 0 ? 1 : 0;
      totals[finding.producer].count += finding.prime == 0 ? 0 : 1;
      totals[finding.producer].sum += finding.prime;
    }
    if (running > 0) {
      g_ring.rd_wait(lock);
    }
  }
  return totals;
}

unsigned argument_or(int argc, char** argv, int index, unsigned value) {
  return index < argc ? static_cast<unsigned>(std::strtoul(argv[index], nullptr, 10)) : value;
}

}  // namespace

int main(int argc, char** argv) {
  const unsigned producers = argument_or(argc, argv, 1, 2);
  const std::uint32_t limit = argument_or(argc, argv, 2, 100000);
  if (producers == 0 || producers > 64) {
    std::fprintf(stderr, "usage: ring [PRODUCERS [LIMIT]], 1 to 64 producers\n");
    return 2;
  }
  std::vector<std::thread> threads;
  for (unsigned producer = 0; producer < producers; ++producer) {
    threads.emplace_back(produce, producer, producers, limit);
  }
  const std::vector<Total> totals = consume(producers);
  // A producer may still use the ring for a moment after its last entry was read.
  for (std::thread& thread : threads) {
    thread.join();
  }
  Total all;
  for (unsigned producer = 0; producer < producers; ++producer) {
    std::printf("producer %u found %u primes\n", producer, totals[producer].count);
    all.count += totals[producer].count;
    all.sum += totals[producer].sum;
  }
  std::printf("%u primes below %u, sum %llu\n", all.count, limit,
              static_cast<unsigned long long>(all.sum));
}
