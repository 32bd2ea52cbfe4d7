#include <quorvane/mpsc.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <quorvane/module.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/scenario.h"
#include "support/thread_state.h"

namespace quorvane {
namespace mpsc {

// Starts a ring at an index other than 0, and wakes its threads spuriously.
class RingProbe {
 public:
  static void start_at(Ring& ring, std::uint32_t first) {
    ring.read_index_ = first;
    ring.commit_index_ = first;
    ring.reserve_index_ = first;
  }
  static void reserve_from(Ring& ring, std::uint32_t first) { ring.reserve_index_ = first; }
  static void wake_producers(Ring& ring) {
    const std::lock_guard<std::mutex> lock(ring.space_mutex_);
    ring.space_.notify_all();
  }
  static void wake_consumer(Ring& ring) {
    const std::lock_guard<std::mutex> lock(ring.data_mutex_);
    ring.data_.notify_one();
  }
  static std::uint32_t size(const Ring& ring) { return ring.size_; }
  // Tries the lock from another thread, since the caller may hold it.
  static bool is_held(Ring& ring, const std::condition_variable* condition) {
    std::mutex& mutex = condition == &ring.data_ ? ring.data_mutex_ : ring.space_mutex_;
    bool is_held = true;
    std::thread([&] {
      const std::unique_lock<std::mutex> lock(mutex, std::try_to_lock);
      is_held = !lock.owns_lock();
    }).join();
    return is_held;
  }
};

}  // namespace mpsc
}  // namespace quorvane

namespace {

// Called before each notification of this thread.
thread_local std::function<void(const std::condition_variable*)> g_before_notify;

void tell(const std::condition_variable* condition) {
  if (g_before_notify) {
    g_before_notify(condition);
  }
}

}  // namespace

// These two replace the standard library's functions, in the library, too.
void std::condition_variable::notify_one() noexcept {
  tell(this);
  pthread_cond_signal(native_handle());
}
void std::condition_variable::notify_all() noexcept {
  tell(this);
  pthread_cond_broadcast(native_handle());
}

namespace {

using quorvane::mpsc::Ring;
using quorvane::mpsc::RingProbe;
using test::Watched;
using testing::ElementsAre;
using Reservation = Ring::Reservation;
using Slots = std::vector<unsigned int>;

static_assert(sizeof(Reservation) == 4);
static_assert(alignof(Ring) == 64);
static_assert(!std::is_polymorphic_v<Ring>);
static_assert(!std::is_copy_constructible_v<Ring>);

constexpr unsigned int kUntouched = 12345;

// Passes `count` entries through an idle ring and returns their slots.
Slots slots_through(Ring& ring, int count) {
  Slots slots;
  for (int i = 0; i < count; ++i) {
    const Reservation reservation = ring.wr_reserve();
    ring.wr_commit(reservation);
    unsigned int slot = kUntouched;
    EXPECT_TRUE(ring.rd_head(slot));
    EXPECT_EQ(slot, ring.wr_slot(reservation));
    ring.rd_advance();
    slots.push_back(slot);
  }
  return slots;
}

bool is_empty(Ring& ring) {
  unsigned int slot;
  return !ring.rd_head(slot);
}

// --- sizes ---

TEST(RingSize, IsAPowerOfTwoFromTwoOn) {
  for (const unsigned int good : {2u, 4u, 8u, 1024u, 1u << 31}) {
    unsigned int out = kUntouched;
    EXPECT_TRUE(Ring::try_use_size(good, out)) << good;
    EXPECT_EQ(out, good);
    EXPECT_EQ(RingProbe::size(Ring(good)), good);
  }
  for (const unsigned int bad : {0u, 1u, 3u, 6u, 12u, 1023u, (1u << 31) + 1, 0xffffffffu}) {
    unsigned int out = kUntouched;
    EXPECT_FALSE(Ring::try_use_size(bad, out)) << bad;
    EXPECT_EQ(out, kUntouched);
  }
}

SCENARIO(makes_a_ring) {
  Ring ring(static_cast<unsigned int>(std::stoul(arguments.at(0))));
  return 0;
}

class BadRingSize : public testing::TestWithParam<const char*> {};

TEST_P(BadRingSize, EndsTheProcessWithARecord) {
  // The record is written at every level.
  for (const char* const level : {"DEBUG", "OFF"}) {
    const auto ran = test::run_scenario("makes_a_ring", {{"QV_LOG_LEVEL", level}}, {GetParam()});
    EXPECT_TRUE(ran.aborted());
    EXPECT_THAT(ran.messages(),
                ElementsAre("ERROR QV_FAULT_ASSERT: assertion (try_use_size(size, size) == true) "
                            "failed (util/src/mpsc:22)"));
    ASSERT_EQ(ran.records.size(), 1u);
    EXPECT_EQ(ran.records[0].pid, ran.pid);
    EXPECT_EQ(ran.records[0].tid, ran.pid);
    EXPECT_EQ(ran.err, ran.log);
  }
}

INSTANTIATE_TEST_SUITE_P(Ring, BadRingSize, testing::Values("0", "1", "12", "4294967295"));

TEST(RingModule, IsFoundUnderItsPath) {
  EXPECT_EQ(qv_module_find("quorvane/mpsc"), quorvane::mpsc::g_module.get());
}

// --- one thread, from several start indices ---

class RingFrom : public testing::TestWithParam<std::uint32_t> {
 protected:
  RingFrom() { RingProbe::start_at(ring_, GetParam()); }

  Slots slots_from(std::uint32_t offset, int count) const {
    Slots slots;
    for (int i = 0; i < count; ++i) {
      slots.push_back((GetParam() + offset + static_cast<std::uint32_t>(i)) % 8);
    }
    return slots;
  }

  Ring ring_{8};
};

TEST_P(RingFrom, GivesSlotsRoundAndRound) {
  EXPECT_EQ(slots_through(ring_, 20), slots_from(0, 20));
}

TEST_P(RingFrom, NumbersReservationsFromOneOn) {
  for (std::uint32_t i = 1; i <= 7; ++i) {
    EXPECT_EQ(ring_.wr_reserve().value, GetParam() + i);
  }
}

TEST_P(RingFrom, HoldsOneEntryLessThanItHasSlots) {
  for (int i = 0; i < 7; ++i) {
    ring_.wr_commit(ring_.wr_reserve());
  }
  Watched eighth([this] { ring_.wr_commit(ring_.wr_reserve()); });
  eighth.settle();
  EXPECT_FALSE(eighth.is_done());
  Slots slots;
  unsigned int slot;
  while (slots.size() < 7 && ring_.rd_head(slot)) {
    slots.push_back(slot);
    // Freeing one slot wakes nobody: the ring must be drained.
    eighth.settle();
    EXPECT_FALSE(eighth.is_done());
    ring_.rd_advance();
  }
  eighth.join();
  EXPECT_EQ(slots, slots_from(0, 7));
  EXPECT_TRUE(ring_.rd_head(slot));
  EXPECT_EQ(slot, slots_from(7, 1)[0]);
}

TEST_P(RingFrom, ReservesAgainInADrainedRing) {
  for (int round = 0; round < 5; ++round) {
    for (int i = 0; i < 7; ++i) {
      ring_.wr_commit(ring_.wr_reserve());
    }
    for (int i = 0; i < 7; ++i) {
      ring_.rd_advance();
    }
    EXPECT_TRUE(is_empty(ring_));
  }
}

TEST_P(RingFrom, ShowsAnEntryOnceItIsCommitted) {
  const Reservation reservation = ring_.wr_reserve();
  EXPECT_TRUE(is_empty(ring_));
  ring_.wr_commit(reservation);
  EXPECT_FALSE(is_empty(ring_));
}

TEST_P(RingFrom, LeavesTheSlotAloneWhenItIsEmpty) {
  unsigned int slot = kUntouched;
  EXPECT_FALSE(ring_.rd_head(slot));
  EXPECT_EQ(slot, kUntouched);
}

TEST_P(RingFrom, ShowsTheSameHeadUntilItIsRetired) {
  ring_.wr_commit(ring_.wr_reserve());
  ring_.wr_commit(ring_.wr_reserve());
  unsigned int first = kUntouched;
  unsigned int again = kUntouched;
  EXPECT_TRUE(ring_.rd_head(first));
  EXPECT_TRUE(ring_.rd_head(again));
  EXPECT_EQ(first, again);
}

TEST_P(RingFrom, PublishesInTheOrderOfTheReservations) {
  const Reservation first = ring_.wr_reserve();
  const Reservation second = ring_.wr_reserve();
  Watched later([&] { ring_.wr_commit(second); });
  // The producer spins without sleeping, however long it takes.
  const long slept = test::sleeps(later.tid());
  const long ticks = test::computed_ticks(later.tid());
  bool is_always_empty = true;
  while (test::computed_ticks(later.tid()) < ticks + 3) {
    is_always_empty = is_always_empty && is_empty(ring_);
    std::this_thread::yield();
  }
  EXPECT_TRUE(is_always_empty);
  EXPECT_EQ(test::sleeps(later.tid()), slept);
  EXPECT_FALSE(later.is_done());
  ring_.wr_commit(first);
  later.join();
  unsigned int slot = kUntouched;
  EXPECT_TRUE(ring_.rd_head(slot));
  EXPECT_EQ(slot, ring_.wr_slot(first));
  ring_.rd_advance();
  EXPECT_TRUE(ring_.rd_head(slot));
  EXPECT_EQ(slot, ring_.wr_slot(second));
}

INSTANTIATE_TEST_SUITE_P(Start, RingFrom,
                         testing::Values(0u, 5u, 0x7ffffffcu, 0xfffffffbu, 0xffffffffu));

// A producer reads the reserve index and is delayed while entries of other producers come and
// go. If it slept then, nobody might ever wake it.
TEST_P(RingFrom, IsNotFullForAProducerThatWasOvertaken) {
  RingProbe::reserve_from(ring_, GetParam() - 1);
  Watched producer([this] { ring_.wr_reserve(); });
  const long ticks = test::computed_ticks(producer.tid());
  while (!test::is_asleep(producer.tid()) && test::computed_ticks(producer.tid()) < ticks + 3) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(test::is_asleep(producer.tid()));
  EXPECT_FALSE(producer.is_done());
  RingProbe::start_at(ring_, GetParam() + 8);
  RingProbe::wake_producers(ring_);
}

TEST(Ring, OfTwoSlotsHoldsOneEntryAtATime) {
  Ring ring(2);
  EXPECT_EQ(slots_through(ring, 4), (Slots{0, 1, 0, 1}));
  ring.wr_commit(ring.wr_reserve());
  Watched second([&ring] { ring.wr_commit(ring.wr_reserve()); });
  second.settle();
  EXPECT_FALSE(second.is_done());
  ring.rd_advance();
  second.join();
  EXPECT_FALSE(is_empty(ring));
}

// --- the consumer's lock ---

TEST(RingLock, IsHeldByTheConsumer) {
  Ring ring(2);
  auto lock = ring.rd_lock();
  EXPECT_TRUE(lock.owns_lock());
  EXPECT_NE(lock.mutex(), nullptr);
  Watched other([&ring] { const auto theirs = ring.rd_lock(); });
  other.settle();
  EXPECT_FALSE(other.is_done());
  lock.unlock();
}

TEST(RingLock, IsTakenByACommitOnADrainedRing) {
  Ring ring(4);
  auto lock = ring.rd_lock();
  Watched producer([&ring] { ring.wr_commit(ring.wr_reserve()); });
  producer.settle();
  EXPECT_FALSE(producer.is_done());
  EXPECT_FALSE(is_empty(ring));  // published first
  lock.unlock();
}

TEST(RingLock, IsNotTakenByACommitOnOtherEntries) {
  Ring ring(4);
  ring.wr_commit(ring.wr_reserve());
  const auto lock = ring.rd_lock();
  ring.wr_commit(ring.wr_reserve());  // would deadlock if it took the lock
  ring.rd_advance();
  EXPECT_FALSE(is_empty(ring));
}

TEST(RingWait, ReturnsAtOnceWhenThereIsAnEntry) {
  Ring ring(4);
  ring.wr_commit(ring.wr_reserve());
  auto lock = ring.rd_lock();
  ring.rd_wait(lock);
  EXPECT_TRUE(lock.owns_lock());
}

TEST(RingWait, EndsWithACommit) {
  Ring ring(4);
  Watched consumer([&ring] {
    auto lock = ring.rd_lock();
    while (is_empty(ring)) {
      ring.rd_wait(lock);
    }
  });
  consumer.settle();
  EXPECT_FALSE(consumer.is_done());
  ring.wr_commit(ring.wr_reserve());
}

TEST(RingWait, SleepsOnceHoweverItIsWoken) {
  Ring ring(4);
  bool was_empty = false;
  Watched consumer([&] {
    auto lock = ring.rd_lock();
    ring.rd_wait(lock);
    was_empty = is_empty(ring);
  });
  consumer.settle();
  RingProbe::wake_consumer(ring);
  consumer.join();
  EXPECT_TRUE(was_empty);
}

// --- streams ---

#ifdef QV_SANITIZED
constexpr std::uint32_t kEntries = 100'000;  // each access takes ten times as long
#else
constexpr std::uint32_t kEntries = 1'000'000;
#endif
constexpr std::uint32_t kNarrow = std::min(kEntries, 300'000U);

struct Entry {
  std::uint32_t producer;
  std::uint32_t number;
};

// The entries are plain memory: only the ring orders the accesses.
class Stream {
 public:
  Stream(unsigned int size, std::uint32_t start) : ring_(size), entries_(size) {
    RingProbe::start_at(ring_, start);
  }

  void produce(std::uint32_t producer, std::uint32_t count) {
    for (std::uint32_t number = 0; number < count; ++number) {
      const Reservation reservation = ring_.wr_reserve();
      entries_[ring_.wr_slot(reservation)] = {producer, number};
      ring_.wr_commit(reservation);
    }
  }

  // Takes `total` entries and counts those of each producer. An entry that isn't its
  // producer's next one fails the test.
  std::vector<std::uint32_t> consume(std::uint32_t producers, std::uint32_t total) {
    std::vector<std::uint32_t> next(producers);
    auto lock = ring_.rd_lock();
    std::uint32_t wrong = 0;
    for (std::uint32_t taken = 0; taken < total;) {
      unsigned int slot;
      while (taken < total && ring_.rd_head(slot)) {
        const Entry entry = entries_[slot];
        wrong += entry.producer < producers && entry.number == next[entry.producer]++ ? 0 : 1;
        ring_.rd_advance();
        ++taken;
      }
      if (taken < total) {
        ring_.rd_wait(lock);
      }
    }
    EXPECT_EQ(wrong, 0u);
    EXPECT_TRUE(is_empty(ring_));
    return next;
  }

 private:
  Ring ring_;
  std::vector<Entry> entries_;
};

struct Traffic {
  std::uint32_t producers;
  unsigned int size;
  std::uint32_t entries = kEntries;
  std::uint32_t crossed = 0;  // the index that the ring passes half-way
};

void PrintTo(const Traffic& row, std::ostream* out) {
  *out << row.entries << " entries of " << row.producers << " producers on " << row.size
       << " slots";
}

class RingTraffic : public testing::TestWithParam<Traffic> {};

TEST_P(RingTraffic, ShowsEachEntryOnceAndEachProducersInOrder) {
  const auto [producers, size, entries, crossed] = GetParam();
  const std::uint32_t each = entries / producers;
  Stream stream(size, crossed - entries / 2);
  std::vector<std::thread> threads;
  for (std::uint32_t producer = 0; producer < producers; ++producer) {
    threads.emplace_back([&stream, producer, each] { stream.produce(producer, each); });
  }
  EXPECT_EQ(stream.consume(producers, each * producers),
            std::vector<std::uint32_t>(producers, each));
  for (std::thread& thread : threads) {
    thread.join();
  }
}

// A usual number of slots, but few entries: a producer that loses its core between reserve
// and commit makes all others spin.
INSTANTIATE_TEST_SUITE_P(Wide, RingTraffic,
                         testing::Values(Traffic{1, 1024}, Traffic{2, 1024, 10'000}));

// With few slots the ring is full, and most producers sleep instead of spinning. So many entries
// are enough for a publication that may be seen too late to hang some of these.
INSTANTIATE_TEST_SUITE_P(Narrow, RingTraffic,
                         testing::Values(Traffic{1, 2, 50'000}, Traffic{2, 4, kNarrow},
                                         Traffic{4, 4, kNarrow / 2},
                                         Traffic{4, 4, kNarrow / 2, 1u << 31},
                                         Traffic{16, 4, kNarrow / 2},
                                         Traffic{16, 4, kNarrow / 2, 1u << 31}));

// Two threads pass one token back and forth through two rings, so that each consumer sleeps,
// or is about to, when its entry arrives. A lost wake-up would hang the test.
void pass_token(Ring& from, Ring& to, int rounds) {
  for (int round = 0; round < rounds; ++round) {
    auto lock = from.rd_lock();
    while (is_empty(from)) {
      from.rd_wait(lock);
    }
    from.rd_advance();
    lock.unlock();  // a commit must not run under a consumer's lock
    to.wr_commit(to.wr_reserve());
  }
}

TEST(RingTokens, WakeASleepingConsumerEachTime) {
  constexpr int kRounds = 5'000;
  Ring there(2);
  Ring back(2);
  std::thread other([&] { pass_token(there, back, kRounds); });
  there.wr_commit(there.wr_reserve());
  pass_token(back, there, kRounds);
  other.join();
  EXPECT_FALSE(is_empty(there));
  EXPECT_TRUE(is_empty(back));
}

TEST(RingTokens, WakeAConsumerThatIsFastAsleep) {
  Ring ring(4);
  for (int round = 0; round < 500; ++round) {
    Watched consumer([&ring] {
      auto lock = ring.rd_lock();
      while (is_empty(ring)) {
        ring.rd_wait(lock);
      }
      ring.rd_advance();
    });
    consumer.settle();
    ring.wr_commit(ring.wr_reserve());
  }
  EXPECT_TRUE(is_empty(ring));
}

// Returns, for each notification in `operation`, whether its condition's lock is held.
std::vector<bool> locks_at_notifications(Ring& ring, const std::function<void()>& operation) {
  std::vector<bool> held;
  g_before_notify = [&](const std::condition_variable* condition) {
    held.push_back(RingProbe::is_held(ring, condition));
  };
  operation();
  g_before_notify = nullptr;
  return held;
}

TEST(RingWakeUp, GivesTheLockUpAfterTheNotification) {
  Ring ring(4);
  EXPECT_THAT(locks_at_notifications(ring, [&ring] { ring.wr_commit(ring.wr_reserve()); }),
              ElementsAre(true));
  EXPECT_THAT(locks_at_notifications(ring, [&ring] { ring.rd_advance(); }), ElementsAre(true));
}

TEST(RingWakeUp, IsLeftOutWhereNobodyCanWait) {
  Ring ring(4);
  ring.wr_commit(ring.wr_reserve());
  EXPECT_THAT(locks_at_notifications(ring,
                                     [&ring] {
                                       ring.wr_commit(ring.wr_reserve());
                                       ring.rd_advance();
                                     }),
              ElementsAre());
}

// Three producers sleep on the full ring, and all must wake.
TEST(RingSpace, WakesAllProducersWhenItIsDrained) {
  Ring ring(4);
  for (int round = 0; round < 100; ++round) {
    for (int i = 0; i < 3; ++i) {
      ring.wr_commit(ring.wr_reserve());
    }
    std::vector<std::unique_ptr<Watched>> producers;
    for (int i = 0; i < 3; ++i) {
      producers.push_back(
          std::make_unique<Watched>([&ring] { ring.wr_commit(ring.wr_reserve()); }));
      producers.back()->settle();
      EXPECT_FALSE(producers.back()->is_done());
    }
    for (int i = 0; i < 3; ++i) {
      ring.rd_advance();
    }
    producers.clear();
    for (int i = 0; i < 3; ++i) {
      EXPECT_FALSE(is_empty(ring));
      ring.rd_advance();
    }
    EXPECT_TRUE(is_empty(ring));
  }
}

}  // namespace
