#include <quorvane/circular_buffer_pool.h>

#include <gtest/gtest.h>
#include <pthread.h>
#include <quorvane/module.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/refuse.h"
#include "support/scenario.h"

namespace {

using quorvane::util::CircularBufferPool;
using quorvane::util::RwBuffer;
using Messages = std::vector<std::string>;

struct Report {
  const _qv_trace_rpc_t* rpc;
  const _qv_trace_rpc_t* record;
  unsigned event;
  unsigned op;
  const void* a;
  const void* b;
  std::uintptr_t c;
  const void* d;
};

// Receives the reports of its own thread while it lives.
class Listener {
 public:
  using Function = std::function<void(const Report&)>;

  explicit Listener(Function function) : function_(std::move(function)) { current_ = this; }
  ~Listener() { current_ = nullptr; }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  static void hear(const Report& report) {
    if (current_ != nullptr) {
      current_->function_(report);
    }
  }

 private:
  static thread_local Listener* current_;
  Function function_;
};

thread_local Listener* Listener::current_ = nullptr;

}  // namespace

// The library finds this one when it is loaded.
void qvtracer::util::write_trace(const _qv_trace_rpc_t* rpc, _qv_trace_rpc_t* record,
                                 unsigned int event, unsigned int op, const void* a, const void* b,
                                 const void* c, const void* d) {
  std::memset(record, static_cast<int>(event & 0xff), sizeof(*record));
  Listener::hear({rpc, record, event, op, a, b, reinterpret_cast<std::uintptr_t>(c), d});
}

namespace {

std::string g_memory_file_name;
unsigned g_memory_file_flags = 0;

}  // namespace

namespace {

// What this thread's next notification does first.
thread_local const std::function<void()>* g_before_notify = nullptr;

}  // namespace

// The library finds this one first.
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

static_assert(!std::is_copy_constructible_v<CircularBufferPool>);
static_assert(noexcept(std::declval<CircularBufferPool&>().allocate(0, nullptr)));
static_assert(noexcept(std::declval<CircularBufferPool&>().deallocate(nullptr, 0, nullptr)));
static_assert(noexcept(std::declval<CircularBufferPool&>().free(nullptr, 0, nullptr)));

unsigned long page() { return static_cast<unsigned long>(sysconf(_SC_PAGESIZE)); }

std::string address(const void* pointer) {
  char text[32];
  std::snprintf(text, sizeof(text), "%p", pointer);
  return text;
}

// Where the region of a pool that lends nothing at the moment goes on.
unsigned char* position(CircularBufferPool& pool) { return pool.allocate(0, nullptr).get_buffer(); }

// Lends and releases as the oldest, so that the next range starts `size` further.
void skip(CircularBufferPool& pool, unsigned long size) {
  pool.allocate(size, nullptr).set_pool_release_is_free(true);
}

// Lends a range that nobody gives back but the caller: the buffer's destructor never runs.
unsigned char* lend(CircularBufferPool& pool, unsigned long size) {
  alignas(RwBuffer) unsigned char storage[sizeof(RwBuffer)];
  return (new (storage) RwBuffer(pool.allocate(size, nullptr)))->get_buffer();
}

// The state letter of a thread of this process; 'X' when it has ended.
char state_of(pid_t thread) {
  std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string text;
  std::getline(stat, text);
  const std::size_t name_end = text.rfind(')');
  return name_end == std::string::npos ? 'X' : text[name_end + 2];
}

// A thread that allocates, and that can be watched while it waits for room.
class Allocator {
 public:
  Allocator(CircularBufferPool& pool, unsigned long size)
      : thread_([this, &pool, size] {
          id_ = gettid();
          buffer_ = pool.allocate(size, nullptr);
          done_ = true;
        }) {}

  // Returns once the thread sleeps or has its buffer.
  void settle() const {
    while (id_ == 0 || (!done_ && state_of(id_) != 'S')) {
      std::this_thread::yield();
    }
  }

  bool is_done() const { return done_; }

  RwBuffer& result() {
    if (thread_.joinable()) {
      thread_.join();
    }
    return *buffer_;
  }

 private:
  std::atomic<pid_t> id_{0};
  std::atomic<bool> done_{false};
  std::optional<RwBuffer> buffer_;
  std::thread thread_;
};

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

// How often and how far this process maps a pool's memory file.
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

std::size_t open_descriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

TEST(CircularBufferPool, MapsItsFileTwiceAndKeepsNoDescriptor) {
  const std::size_t descriptors = open_descriptors();
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
  rest = RwBuffer(0);  // the older of the two goes first
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
  second = RwBuffer(0);  // newest first
}

TEST(CircularBufferPool, GivesTheLockUpBeforeItWakesTheWaiters) {
  for (const bool is_free : {false, true}) {
    CircularBufferPool pool(page());
    unsigned char* const base = lend(pool, page());
    Allocator waiter(pool, page());
    waiter.settle();
    bool is_told = false;
    const std::function<void()> allocate = [&] {
      pool.allocate(0, nullptr);  // would wait for ever for a lock that its own thread holds
      is_told = true;
    };
    g_before_notify = &allocate;
    is_free ? pool.free(base, page(), nullptr) : pool.deallocate(base, page(), nullptr);
    EXPECT_TRUE(is_told);
    EXPECT_EQ(waiter.result().get_buffer(), base);
  }
}

// The second is not woken by what the first does: an allocation notifies nobody.
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

// Allocations of nothing move nothing, but they write the counters.
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

void print_line(const void* pointer) {
  std::printf("%p\n", pointer);
  std::fflush(stdout);
}

SCENARIO(build_a_pool) {
  const CircularBufferPool pool(std::stoul(arguments.at(0)));
  return 0;
}

TEST(CircularBufferPoolDeath, AbortsOnASizeThatIsNoMultipleOfThePageSize) {
  for (const unsigned long size : {page() + 64, page() - 1, 1ul}) {
    const auto ran = test::run_scenario("build_a_pool", {}, {std::to_string(size)});
    EXPECT_TRUE(ran.aborted());
    EXPECT_EQ(ran.messages(), Messages{"ERROR Buffer pool must be a multiple of page size"});
  }
}

TEST(CircularBufferPoolDeath, AbortsOnAnEmptyPool) {
  const auto ran = test::run_scenario("build_a_pool", {}, {"0"});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(), Messages{"ERROR mmap failed: Invalid argument"});
}

TEST(CircularBufferPoolDeath, AbortsOnASizeWhoseDoubleWrapsAround) {
  const auto ran = test::run_scenario("build_a_pool", {}, {std::to_string(std::uint64_t{1} << 63)});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(), Messages{"ERROR ftruncate failed: Invalid argument"});
}

SCENARIO(build_a_pool_without_memfd) {
  test::refuse(SYS_memfd_create, EMFILE);
  const CircularBufferPool pool(page());
  return 0;
}

SCENARIO(build_a_pool_without_ftruncate) {
  test::refuse(SYS_ftruncate, ENOSPC);
  const CircularBufferPool pool(page());
  return 0;
}

SCENARIO(build_a_pool_without_file_mappings) {
  test::refuse(SYS_mmap, ENOMEM, test::When{4, static_cast<std::uint32_t>(-1), true});
  const CircularBufferPool pool(page());
  return 0;
}

SCENARIO(build_a_pool_without_reservation) {
  test::refuse(SYS_mmap, ENOMEM, test::When{2, PROT_NONE});
  const CircularBufferPool pool(page());
  return 0;
}

TEST(CircularBufferPoolDeath, AbortsWhenTheKernelRefusesTheMemory) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"build_a_pool_without_memfd", "ERROR memfd_create failed: Too many open files"},
      {"build_a_pool_without_ftruncate", "ERROR ftruncate failed: No space left on device"},
      {"build_a_pool_without_file_mappings", "ERROR mmap failed: Cannot allocate memory"}};
  for (const auto& [scenario, record] : cases) {
    const auto ran = test::run_scenario(scenario);
    EXPECT_TRUE(ran.aborted()) << scenario;
    EXPECT_EQ(ran.messages(), Messages{record});
  }
}

TEST(CircularBufferPoolDeath, AbortsWhenItsAddressSpaceWasNotReserved) {
  const auto ran = test::run_scenario("build_a_pool_without_reservation");
  EXPECT_TRUE(ran.aborted());
  // Which error an impossible fixed address gives is the kernel's affair.
  ASSERT_EQ(ran.records.size(), 1u);
  EXPECT_EQ(ran.messages()[0].rfind("ERROR mmap failed: ", 0), 0u) << ran.messages()[0];
}

SCENARIO(allocate_too_much) {
  CircularBufferPool pool(page());
  const RwBuffer whole = pool.allocate(page(), nullptr);
  pool.allocate(std::stoul(arguments.at(0)), nullptr);
  return 0;
}

TEST(CircularBufferPoolDeath, AbortsOnARequestAboveTheRegionThoughItIsFull) {
  const auto ran = test::run_scenario("allocate_too_much", {}, {std::to_string(page() + 1)});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(),
            Messages{"ERROR CircularBufferPool::allocate cannot satisfy allocation request of " +
                     std::to_string(page() + 64) + " > MAX_SIZE (" + std::to_string(page()) + ")"});
}

TEST(CircularBufferPoolDeath, AbortsOnARequestThatRoundsUpToNothing) {
  const auto ran = test::run_scenario("allocate_too_much", {}, {std::to_string(UINT64_MAX)});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(),
            Messages{"ERROR CircularBufferPool::allocate cannot satisfy allocation request of 0 > "
                     "MAX_SIZE (" +
                     std::to_string(page()) + ")"});
}

SCENARIO(release_out_of_order) {
  CircularBufferPool pool(page());
  RwBuffer first = pool.allocate(100, nullptr);
  RwBuffer second = pool.allocate(10, nullptr);
  print_line(first.get_buffer());
  print_line(second.get_buffer());
  if (arguments.at(0) == "free") {
    pool.free(second.get_buffer(), 10, nullptr);
  } else {
    // By the second's size, so that the second's start is what is expected.
    pool.deallocate(first.get_buffer(), 10, nullptr);
  }
  return 0;
}

TEST(CircularBufferPoolDeath, AbortsWhenFreeSkipsTheOldest) {
  const auto ran = test::run_scenario("release_out_of_order", {}, {"free"});
  EXPECT_TRUE(ran.aborted());
  const std::size_t end = ran.out.find('\n');
  const std::string first = ran.out.substr(0, end);
  const std::string second = ran.out.substr(end + 1, ran.out.size() - end - 2);
  EXPECT_EQ(ran.messages(), Messages{"ERROR CircularBufferPool::free called in wrong order. "
                                     "Expected " +
                                     first + ", actual " + second + "."});
}

TEST(CircularBufferPoolDeath, AbortsWhenDeallocateSkipsTheNewest) {
  const auto ran = test::run_scenario("release_out_of_order", {}, {"deallocate"});
  EXPECT_TRUE(ran.aborted());
  const std::size_t end = ran.out.find('\n');
  const std::string first = ran.out.substr(0, end);
  const std::string second = ran.out.substr(end + 1, ran.out.size() - end - 2);
  EXPECT_EQ(ran.messages(), Messages{"ERROR CircularBufferPool::deallocate called in wrong order. "
                                     "Expected " +
                                     second + ", actual " + first + "."});
}

SCENARIO(build_a_bad_pool_at_the_modules_level) {
  auto* const module = static_cast<quorvane::module::Module*>(qv_module_find("util/buffer_pool"));
  module->level = static_cast<qv_log_level_t>(std::stoi(arguments.at(0)));
  const CircularBufferPool pool(1);
  return 0;
}

TEST(CircularBufferPoolDeath, LogsBeforeItAbortsWhenItsModuleStandsAtError) {
  const auto ran = test::run_scenario("build_a_bad_pool_at_the_modules_level", {}, {"1"});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(), Messages{"ERROR Buffer pool must be a multiple of page size"});
}

TEST(CircularBufferPoolDeath, AbortsWithoutARecordWhenItsModuleIsOff) {
  const auto ran = test::run_scenario("build_a_bad_pool_at_the_modules_level", {}, {"0"});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_EQ(ran.err, "");
}

TEST(CircularBufferPoolDeath, AbortsWithoutARecordWhenTheEnvironmentTurnsLoggingOff) {
  const auto ran = test::run_scenario("release_out_of_order", {{"QV_LOG_LEVEL", "OFF"}}, {"free"});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_EQ(ran.err, "");
}

void expect_reports(const std::vector<Report>& reports, const CircularBufferPool& pool, unsigned op,
                    const _qv_trace_rpc_t* rpc) {
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[0].event, 1543u);
  EXPECT_EQ(reports[1].event, 1544u);
  EXPECT_EQ(reports[0].record, reports[1].record);
  for (const Report& report : reports) {
    EXPECT_EQ(report.op, op);
    EXPECT_EQ(report.rpc, rpc);
    EXPECT_EQ(report.a, &pool);
  }
}

void expect_arguments(const Report& report, const void* b, std::uintptr_t c, const void* d) {
  EXPECT_EQ(report.b, b);
  EXPECT_EQ(report.c, c);
  EXPECT_EQ(report.d, d);
}

// A pool whose next range runs past its end by 64 bytes.
class TracedPool : public testing::Test {
 protected:
  TracedPool() : base_(position(pool_)) { skip(pool_, page() - 64); }

  std::vector<Report> reports_of(const std::function<void()>& operation) {
    std::vector<Report> reports;
    const Listener listener([&reports](const Report& report) { reports.push_back(report); });
    operation();
    return reports;
  }

  CircularBufferPool pool_{page()};
  unsigned char* base_;
  _qv_trace_rpc_t rpc_{};
};

TEST_F(TracedPool, ReportsAnAllocation) {
  std::optional<RwBuffer> buffer;
  const auto reports = reports_of([&] { buffer = pool_.allocate(100, &rpc_); });
  expect_reports(reports, pool_, 14, &rpc_);
  expect_arguments(reports.at(0), nullptr, 100, base_ + page() - 64);
  expect_arguments(reports.at(1), base_ + page() - 64, 128, base_ + 64);
}

TEST_F(TracedPool, ReportsADeallocation) {
  unsigned char* const ptr = lend(pool_, 100);
  const auto reports = reports_of([&] { pool_.deallocate(ptr, 100, &rpc_); });
  expect_reports(reports, pool_, 15, &rpc_);
  expect_arguments(reports.at(0), ptr, 128, base_ + 64);
  expect_arguments(reports.at(1), ptr, 128, ptr);
}

TEST_F(TracedPool, ReportsARelease) {
  unsigned char* const ptr = lend(pool_, 100);
  const auto reports = reports_of([&] { pool_.free(ptr, 100, &rpc_); });
  expect_reports(reports, pool_, 16, &rpc_);
  expect_arguments(reports.at(0), ptr, 128, base_ + page() - 64);
  expect_arguments(reports.at(1), ptr, 128, base_ + 64);
}

// A pool whose oldest range and whose newest end are apart.
class TracedBusyPool : public TracedPool {
 protected:
  unsigned char* oldest_ = lend(pool_, 256);  // to 192 past the end
  unsigned char* newest_ = lend(pool_, 100);
};

TEST_F(TracedBusyPool, ReportsAnAllocation) {
  std::optional<RwBuffer> buffer;
  const auto reports = reports_of([&] { buffer = pool_.allocate(10, &rpc_); });
  expect_reports(reports, pool_, 14, &rpc_);
  expect_arguments(reports.at(0), nullptr, 10, base_ + 320);
  expect_arguments(reports.at(1), base_ + 320, 64, base_ + 384);
}

TEST_F(TracedBusyPool, ReportsADeallocation) {
  const auto reports = reports_of([&] { pool_.deallocate(newest_, 100, &rpc_); });
  expect_reports(reports, pool_, 15, &rpc_);
  expect_arguments(reports.at(0), newest_, 128, base_ + 320);
  expect_arguments(reports.at(1), newest_, 128, newest_);
}

TEST_F(TracedBusyPool, ReportsARelease) {
  const auto reports = reports_of([&] { pool_.free(oldest_, 256, &rpc_); });
  expect_reports(reports, pool_, 16, &rpc_);
  expect_arguments(reports.at(0), oldest_, 256, base_ + page() - 64);
  expect_arguments(reports.at(1), oldest_, 256, newest_);
}

TEST_F(TracedPool, ReportsTheReleasesOfABufferWithoutACall) {
  std::optional<RwBuffer> buffer = pool_.allocate(1, &rpc_);
  expect_reports(reports_of([&] { buffer.reset(); }), pool_, 15, nullptr);
  buffer = pool_.allocate(1, &rpc_);
  buffer->set_pool_release_is_free(true);
  expect_reports(reports_of([&] { buffer.reset(); }), pool_, 16, nullptr);
}

TEST_F(TracedPool, ReportsTheStartOfAnAllocationBeforeItTakesTheLock) {
  bool is_nested = false;
  const Listener listener([&](const Report& report) {
    if (report.event == 1543 && report.op == 14 && !is_nested) {
      is_nested = true;
      skip(pool_, 64);  // would wait for ever for a lock that its own thread holds
    }
  });
  EXPECT_EQ(pool_.allocate(64, nullptr).get_buffer(), base_);
  EXPECT_TRUE(is_nested);
}

// Whether another thread's allocation has to wait while each report of the
// operation is made. The others' empty buffers are given back before the next
// operation: a release is for the head of the ring as it was at the allocation.
std::vector<bool> waits_of_others(CircularBufferPool& pool,
                                  const std::function<void()>& operation) {
  std::vector<std::unique_ptr<Allocator>> others;
  std::vector<bool> waited;
  {
    const Listener listener([&](const Report& report) {
      if (report.event == 1543 && report.op == 14) {
        return;
      }
      others.push_back(std::make_unique<Allocator>(pool, 0));
      others.back()->settle();
      waited.push_back(!others.back()->is_done());
    });
    operation();
  }
  for (const auto& other : others) {
    EXPECT_EQ(other->result().get_size(), 0u);
  }
  return waited;
}

TEST_F(TracedPool, ReportsAllElseWithTheLockHeld) {
  using Waits = std::vector<bool>;
  unsigned char* ptr = nullptr;
  EXPECT_EQ(waits_of_others(pool_, [&] { ptr = lend(pool_, 64); }), Waits{true});
  EXPECT_EQ(waits_of_others(pool_, [&] { pool_.deallocate(ptr, 64, nullptr); }),
            (Waits{true, true}));
  ptr = lend(pool_, 64);
  EXPECT_EQ(waits_of_others(pool_, [&] { pool_.free(ptr, 64, nullptr); }), (Waits{true, true}));
}

TEST(CircularBufferPoolTracer, IsCalledWhenItIsPreloaded) {
  test::Environment environment{{"LD_PRELOAD", QV_PRINT_TRACER}};
  const char* const options = std::getenv("ASAN_OPTIONS");
  environment["ASAN_OPTIONS"] =
      std::string(options == nullptr ? "" : options) + ":verify_asan_link_order=0";
  const auto ran = test::run_program(QV_UNTRACED_PROGRAM, {}, environment);
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out,
            "1543 14 100\n1544 14 128\n1543 14 10\n1544 14 64\nused\n"
            "1543 15 64\n1544 15 64\n1543 16 128\n1544 16 128\n");
}

TEST(CircularBufferPoolTracer, IsNotMissed) {
  const auto ran = test::run_program(QV_UNTRACED_PROGRAM, {});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out, "used\n");
}

}  // namespace
