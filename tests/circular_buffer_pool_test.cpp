// The ranges that a pool lends, and the threads that wait for room in it.
#include <quorvane/circular_buffer_pool.h>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "circular_buffer_pool_test/fixture.h"
#include "support/descriptors.h"

namespace {

std::string g_memory_file_name;
unsigned g_memory_file_flags = 0;

// What this thread's next notification calls first.
thread_local const std::function<void()>* g_before_notify = nullptr;

}  // namespace

// Replaces the standard library's function, in the library, too.
void std::condition_variable::notify_all() noexcept {
  if (const auto* const function = std::exchange(g_before_notify, nullptr)) {
    (*function)();
  }
  pthread_cond_broadcast(native_handle());
}

extern "C" int memfd_create(const char* name, unsigned flags) noexcept {
  g_memory_file_name = name;
  g_memory_file_flags = flags;
  return static_cast<int>(syscall(SYS_memfd_create, name, flags));
}

namespace {

using pool_test::Allocator;
using pool_test::CircularBufferPool;
using pool_test::lend;
using pool_test::page;
using pool_test::position;
using pool_test::RwBuffer;
using pool_test::skip;
using test::open_descriptors;

static_assert(!std::is_copy_constructible_v<CircularBufferPool>);
static_assert(noexcept(std::declval<CircularBufferPool&>().allocate(0, nullptr)));
static_assert(noexcept(std::declval<CircularBufferPool&>().deallocate(nullptr, 0, nullptr)));
static_assert(noexcept(std::declval<CircularBufferPool&>().free(nullptr, 0, nullptr)));

std::string address(const void* pointer) {
  char text[32];
  std::snprintf(text, sizeof(text), "%p", pointer);
  return text;
}

TEST(CircularBufferPool, RoundsUpToWholeCacheLines) {
  CircularBufferPool pool(page());
  for (const auto& [asked, lent] : std::vector<std::pair<unsigned long, std::size_t>>{
           {1, 64}, {63, 64}, {64, 64}, {65, 128}, {page() - 63, page()}, {page(), page()}}) {
    EXPECT_EQ(pool.allocate(asked, nullptr).get_size(), lent) << asked;
  }
}

TEST(CircularBufferPool, LendsRangesOneAfterTheOther) {
  CircularBufferPool pool(page());
  const RwBuffer first = pool.allocate(100, nullptr);
  const RwBuffer second = pool.allocate(10, nullptr);
  const RwBuffer third = pool.allocate(1, nullptr);
  EXPECT_EQ(second.get_buffer(), first.get_buffer() + 128);
  EXPECT_EQ(third.get_buffer(), second.get_buffer() + 64);
}

TEST(CircularBufferPool, LendsNothingWhenAskedForNothing) {
  CircularBufferPool pool(page());
  const RwBuffer whole = pool.allocate(page(), nullptr);
  {
    const RwBuffer nothing = pool.allocate(0, nullptr);
    EXPECT_EQ(nothing.get_size(), 0u);
    EXPECT_EQ(nothing.get_buffer(), whole.get_buffer());
  }
  const RwBuffer again = pool.allocate(0, nullptr);
  EXPECT_EQ(again.get_buffer(), whole.get_buffer());
}

TEST(CircularBufferPool, TakesBackTheSizeThatWasAskedForOrTheOneLent) {
  CircularBufferPool pool(page());
  unsigned char* const base = position(pool);
  pool.deallocate(lend(pool, 100), 100, nullptr);
  pool.deallocate(lend(pool, 100), 128, nullptr);
  EXPECT_EQ(position(pool), base);
  pool.free(lend(pool, 100), 100, nullptr);
  pool.free(lend(pool, 100), 128, nullptr);
  EXPECT_EQ(position(pool), base + 256);
}

TEST(CircularBufferPool, ShowsTheStartOfTheRegionBehindItsEnd) {
  CircularBufferPool pool(page());
  unsigned char* const base = position(pool);
  skip(pool, page() - 64);
  RwBuffer across = pool.allocate(128, nullptr);
  ASSERT_EQ(across.get_buffer(), base + page() - 64);
  std::memset(across.get_buffer(), 'e', 64);
  std::memset(across.get_buffer() + 64, 's', 64);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(base), 64), std::string(64, 's'));
  EXPECT_EQ(std::string(reinterpret_cast<char*>(base) + page() - 64, 64), std::string(64, 'e'));
}

TEST(CircularBufferPool, KeepsLendingRightPlacesOverManyRounds) {
  CircularBufferPool pool(3 * page());
  unsigned char* const base = position(pool);
  std::size_t counter = 0;
  for (unsigned long i = 0; i < 2000; ++i) {
    const unsigned long size = 64 * (i % 37 + 1);
    RwBuffer buffer = pool.allocate(size, nullptr);
    ASSERT_EQ(buffer.get_buffer(), base + counter % (3 * page()));
    buffer.get_buffer()[0] = 'a';
    buffer.get_buffer()[size - 1] = 'z';
    buffer.set_pool_release_is_free(true);
    counter += size;
  }
}

// The size of each mapping of a pool's memory file.
std::vector<std::size_t> pool_mappings(const CircularBufferPool* pool) {
  std::ifstream maps("/proc/self/maps");
  const std::string name = "/memfd:ringbuf-" + address(pool) + " ";
  std::vector<std::size_t> sizes;
  for (std::string line; std::getline(maps, line);) {
    if (line.find(name) != std::string::npos) {
      EXPECT_NE(line.find(" rw-s "), std::string::npos) << line;
      const std::size_t dash = line.find('-');
      sizes.push_back(std::stoul(line.substr(dash + 1), nullptr, 16) -
                      std::stoul(line.substr(0, dash), nullptr, 16));
    }
  }
  return sizes;
}

TEST(CircularBufferPool, MapsItsFileTwiceAndKeepsNoDescriptor) {
  const int descriptors = open_descriptors();
  std::optional<CircularBufferPool> pool;
  pool.emplace(2 * page());
  EXPECT_EQ(pool_mappings(&*pool), (std::vector<std::size_t>{2 * page(), 2 * page()}));
  EXPECT_EQ(open_descriptors(), descriptors);
  const CircularBufferPool* const gone = &*pool;
  pool.reset();
  EXPECT_EQ(pool_mappings(gone), std::vector<std::size_t>{});
}

TEST(CircularBufferPool, NamesItsFileAfterItselfAndKeepsItFromOtherPrograms) {
  const CircularBufferPool pool(page());
  EXPECT_EQ(g_memory_file_name, "ringbuf-" + address(&pool));
  EXPECT_EQ(g_memory_file_flags, static_cast<unsigned>(MFD_CLOEXEC));
}

TEST(CircularBufferPool, WaitsForRoomThatFreeMakes) {
  CircularBufferPool pool(page());
  std::optional<RwBuffer> oldest = pool.allocate(64, nullptr);
  const unsigned char* const base = oldest->get_buffer();
  RwBuffer rest = pool.allocate(page() - 64, nullptr);
  rest.set_pool_release_is_free(true);
  oldest->set_pool_release_is_free(true);
  Allocator waiter(pool, 64);
  waiter.settle();
  EXPECT_FALSE(waiter.is_done());
  oldest.reset();
  waiter.result().set_pool_release_is_free(true);
  EXPECT_EQ(waiter.result().get_buffer(), base);
  rest = RwBuffer(0);  // the oldest range must be freed first
}

TEST(CircularBufferPool, WaitsForRoomThatDeallocateMakes) {
  CircularBufferPool pool(page());
  const RwBuffer oldest = pool.allocate(64, nullptr);
  std::optional<RwBuffer> newest = pool.allocate(page() - 64, nullptr);
  Allocator waiter(pool, 65);
  waiter.settle();
  EXPECT_FALSE(waiter.is_done());
  newest.reset();
  EXPECT_EQ(waiter.result().get_buffer(), oldest.get_buffer() + 64);
}

TEST(CircularBufferPool, GoesOnWaitingWhileTooLittleIsReleased) {
  CircularBufferPool pool(page());
  std::optional<RwBuffer> first = pool.allocate(64, nullptr);
  std::optional<RwBuffer> second = pool.allocate(64, nullptr);
  RwBuffer rest = pool.allocate(page() - 128, nullptr);
  for (RwBuffer* buffer : {&*first, &*second, &rest}) {
    buffer->set_pool_release_is_free(true);
  }
  Allocator waiter(pool, 128);
  waiter.settle();
  first.reset();
  waiter.settle();
  EXPECT_FALSE(waiter.is_done());
  second.reset();
  waiter.result().set_pool_release_is_free(true);
  rest = RwBuffer(0);
}

TEST(CircularBufferPool, WakesEveryWaiterWithOneRelease) {
  CircularBufferPool pool(page());
  std::optional<RwBuffer> whole = pool.allocate(page(), nullptr);
  const unsigned char* const base = whole->get_buffer();
  Allocator one(pool, 64);
  Allocator two(pool, 64);
  one.settle();
  two.settle();
  EXPECT_FALSE(one.is_done() || two.is_done());
  whole.reset();
  RwBuffer first = std::move(one.result());
  RwBuffer second = std::move(two.result());
  if (first.get_buffer() > second.get_buffer()) {
    std::swap(first, second);
  }
  EXPECT_EQ(first.get_buffer(), base);
  EXPECT_EQ(second.get_buffer(), base + 64);
  second = RwBuffer(0);  // the newest range must be released first
}

TEST(CircularBufferPool, GivesTheLockUpBeforeItWakesTheWaiters) {
  for (const bool is_free : {false, true}) {
    CircularBufferPool pool(page());
    unsigned char* const base = lend(pool, page());
    Allocator waiter(pool, page());
    waiter.settle();
    bool is_told = false;
    const std::function<void()> allocate = [&] {
      pool.allocate(0, nullptr);  // would deadlock if this thread held the lock
      is_told = true;
    };
    g_before_notify = &allocate;
    is_free ? pool.free(base, page(), nullptr) : pool.deallocate(base, page(), nullptr);
    EXPECT_TRUE(is_told);
    EXPECT_EQ(waiter.result().get_buffer(), base);
  }
}

// An allocation notifies nobody, so the first waiter doesn't wake the second.
TEST(CircularBufferPool, WakesEveryWaiterWithOneFree) {
  CircularBufferPool pool(page());
  unsigned char* const base = lend(pool, page());
  Allocator one(pool, 64);
  Allocator two(pool, 64);
  one.settle();
  two.settle();
  EXPECT_FALSE(one.is_done() || two.is_done());
  pool.free(base, page(), nullptr);
  std::vector<const unsigned char*> lent{one.result().get_buffer(), two.result().get_buffer()};
  std::sort(lent.begin(), lent.end());
  EXPECT_EQ(lent, (std::vector<const unsigned char*>{base, base + 64}));
  one.result().set_pool_release_is_free(true);
  two.result().set_pool_release_is_free(true);
  (one.result().get_buffer() == base ? one : two).result() = RwBuffer(0);
}

TEST(CircularBufferPool, TakesANewestRangeBackThatCrossesTheEndInALaterRound) {
  CircularBufferPool pool(page());
  unsigned char* const base = position(pool);
  for (unsigned round = 0; round < 3; ++round) {
    skip(pool, round == 0 ? page() - 64 : page());
    unsigned char* const across = lend(pool, 128);
    EXPECT_EQ(across, base + page() - 64);
    pool.deallocate(across, 128, nullptr);
    EXPECT_EQ(position(pool), across);
  }
}

TEST(CircularBufferPool, TakesTheNewestRangesBackToTheStartOfTheRegion) {
  CircularBufferPool pool(page());
  skip(pool, page());
  unsigned char* const first = lend(pool, 64);
  unsigned char* const second = lend(pool, page() - 64);
  pool.deallocate(second, page() - 64, nullptr);
  pool.deallocate(first, 64, nullptr);
  EXPECT_EQ(position(pool), first);
}

// An allocation of no bytes moves nothing, but it writes the counters.
TEST(CircularBufferPool, TellsOneThreadsPositionWhileAnotherAllocates) {
  CircularBufferPool pool(page());
  const auto allocate_often = [&pool] {
    for (int i = 0; i < 1000; ++i) {
      pool.allocate(0, nullptr);
    }
  };
  std::thread other(allocate_often);
  allocate_often();
  other.join();
}

TEST(CircularBufferPool, CarriesBytesFromProducersToAConsumer) {
  constexpr std::uint64_t kBuffers = 20000;
  CircularBufferPool pool(page());
  std::mutex mutex;
  std::condition_variable filled;
  std::vector<RwBuffer> queue;
  std::thread producer([&] {
    for (std::uint64_t i = 0; i < kBuffers; ++i) {
      RwBuffer buffer = pool.allocate(8 + i % 300, nullptr);
      buffer.set_pool_release_is_free(true);
      std::memcpy(buffer.get_buffer(), &i, sizeof(i));
      const std::lock_guard<std::mutex> lock(mutex);
      queue.push_back(std::move(buffer));
      filled.notify_one();
    }
  });
  std::uint64_t right = 0;
  for (std::uint64_t next = 0; next < kBuffers;) {
    std::unique_lock<std::mutex> lock(mutex);
    filled.wait(lock, [&] { return !queue.empty(); });
    std::vector<RwBuffer> taken = std::exchange(queue, {});
    lock.unlock();
    for (RwBuffer& buffer : taken) {
      right += std::memcmp(buffer.get_buffer(), &next, sizeof(next)) == 0;
      buffer = RwBuffer(0);
      ++next;
    }
  }
  producer.join();
  EXPECT_EQ(right, kBuffers);
}

}  // namespace
