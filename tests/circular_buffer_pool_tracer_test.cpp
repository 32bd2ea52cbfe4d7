// The reports that a pool makes to a tracer.
#include <quorvane/circular_buffer_pool.h>

#include <gtest/gtest.h>
#include <quorvane/tracer.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "circular_buffer_pool_test/fixture.h"
#include "support/scenario.h"

namespace {

using pool_test::Allocator;
using pool_test::CircularBufferPool;
using pool_test::lend;
using pool_test::page;
using pool_test::position;
using pool_test::RwBuffer;
using pool_test::skip;

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

// Receives the reports of its thread as long as it lives.
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

// The library's weak reference resolves to this function when the library is loaded.
void qvtracer::util::write_trace(const _qv_trace_rpc_t* rpc, _qv_trace_rpc_t* record,
                                 unsigned int event, unsigned int op, const void* a, const void* b,
                                 const void* c, const void* d) {
  std::memset(record, static_cast<int>(event & 0xff), sizeof(*record));
  Listener::hear({rpc, record, event, op, a, b, reinterpret_cast<std::uintptr_t>(c), d});
}

namespace {

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

// A pool whose position is 64 bytes before the end of its region.
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

// A pool that has lent two ranges, so that its oldest isn't its newest.
class TracedBusyPool : public TracedPool {
 protected:
  unsigned char* oldest_ = lend(pool_, 256);  // crosses the end by 192
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
      skip(pool_, 64);  // would deadlock if this thread held the lock
    }
  });
  EXPECT_EQ(pool_.allocate(64, nullptr).get_buffer(), base_);
  EXPECT_TRUE(is_nested);
}

// For each report of the operation except the start of an allocation: whether another thread's
// allocation waits meanwhile. The other threads' empty buffers are released before the next
// operation: a release must find the head of the ring where its allocation left it.
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
  const auto ran = test::run_program(
      QV_UNTRACED_PROGRAM, {},
      {{"LD_PRELOAD", QV_PRINT_TRACER},
       {"ASAN_OPTIONS", test::with_option("ASAN_OPTIONS", "verify_asan_link_order=0")}});
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
