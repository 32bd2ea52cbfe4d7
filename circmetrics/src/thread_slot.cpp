#include "thread_slot.h"

#include <pthread.h>

#include <atomic>
#include <bit>

#include "tsan_mark.h"

namespace circmetrics {

constinit thread_local unsigned ThreadSlot::t_number = 0;

// Which slots are owned, as bits, and when ownership ends.
struct SlotOwners {
  static constexpr unsigned kAll = (1U << ThreadSlot::kCount) - 1;

  static inline std::atomic<unsigned> taken{0};
  static inline std::atomic<unsigned> sharers{0};
  static inline pthread_key_t key;

  static unsigned bit_of(unsigned number) { return 1U << (number - 1); }

  // Takes a free slot; returns its number, or 0.
  static unsigned take() {
    unsigned known = taken.load(std::memory_order_relaxed);
    while (known != kAll) {
      const auto free = static_cast<unsigned>(std::countr_one(known));
      if (taken.compare_exchange_weak(known, known | 1U << free, std::memory_order_acquire,
                                      std::memory_order_relaxed)) {
        return free + 1;
      }
    }
    return 0;
  }

  static void give_back(unsigned number) {
    taken.fetch_and(~bit_of(number), std::memory_order_release);
  }

  static unsigned share() {
    const unsigned sharer = sharers.fetch_add(1, std::memory_order_relaxed);
    return ThreadSlot::kCount + 1 + sharer % ThreadSlot::kCount;
  }

  // The thread shares a slot from now on: destructors that run later may still update metrics.
  static void at_thread_exit(void*) {
    const unsigned owned = ThreadSlot::t_number;
    ThreadSlot::t_number = share();
    give_back(owned);
  }

  static void in_child() {
    const unsigned number = ThreadSlot::t_number;
    const bool owns = number != 0 && number <= ThreadSlot::kCount;
    taken.store(owns ? bit_of(number) : 0, std::memory_order_relaxed);
    TsanMark::stop_in_child();
  }

  static bool prepare() {
    return pthread_key_create(&key, &at_thread_exit) == 0 &&
           pthread_atfork(nullptr, nullptr, &in_child) == 0;
  }
};

namespace {

// If false, every thread shares.
const bool g_may_own = SlotOwners::prepare();

}  // namespace

// Shares a slot first: the calls below may allocate, and the program's allocator may update
// metrics.
unsigned ThreadSlot::obtain() {
  t_number = SlotOwners::share();
  const unsigned owned = g_may_own ? SlotOwners::take() : 0;
  if (owned != 0) {
    if (pthread_setspecific(SlotOwners::key, &SlotOwners::key) == 0) {
      t_number = owned;
    } else {
      SlotOwners::give_back(owned);
    }
  }
  return t_number;
}

}  // namespace circmetrics
