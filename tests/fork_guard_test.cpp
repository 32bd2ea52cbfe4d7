// Forks while threads make, use and destroy objects with a guarded mutex, and after such
// objects are gone.
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/module.h>
#include <quorvane/store.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "support/processes.h"
#include "support/scenario.h"
#include "support/store_bytes.h"

using quorvane::cache::Cache;
using quorvane::cache::CleanableResource;
using quorvane::cache::CleanupController;
using test::buffer;
using test::buffers;
using test::Ran;
using test::run_scenario;

namespace {

constexpr unsigned kHangSeconds = 60;

template <typename Body>
bool succeeds_in_child(Body body) {
  return test::wait_for(test::in_child([&] {
           alarm(kHangSeconds);
           return body() ? 0 : 1;
         })) == 0;
}

// Whether a fork works after an object is destroyed and its memory unmapped.
template <typename Object, typename... Parameters>
bool fork_finds_nothing_of(Parameters&&... parameters) {
  const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  static_assert(sizeof(Object) < 4096);
  void* const page =
      mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  Object* const object = new (page) Object(std::forward<Parameters>(parameters)...);
  object->~Object();
  munmap(page, size);
  return succeeds_in_child([] { return true; });
}

class FakeResource : public CleanableResource {
 public:
  std::uint64_t get_usage() override { return 1; }
  void clean() override {}
};

// Threads that repeat their work until the object is destroyed.
class Busy {
 public:
  template <typename Work>
  void start(Work work) {
    threads_.emplace_back([this, work] {
      while (!done_) {
        work();
      }
    });
  }
  Busy() = default;
  ~Busy() {
    done_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;

 private:
  std::atomic<bool> done_{false};
  std::vector<std::thread> threads_;
};

constexpr int kForks = 200;

// Stops at the first failure: a child that hangs takes kHangSeconds to fail.
template <typename Body>
bool all_children_succeed(Body body) {
  for (int i = 0; i < kForks; ++i) {
    if (!succeeds_in_child(body)) {
      return false;
    }
  }
  return true;
}

void expect_success(const std::string& scenario) {
  const Ran ran = run_scenario(scenario, {{"QV_LOG_LEVEL", "ERROR"}});
  EXPECT_TRUE(ran.exited_with(0)) << ran.status << ran.err;
}

}  // namespace

// --- after the objects are destroyed ---

SCENARIO(fork_after_the_end) {
  alarm(kHangSeconds);
  static quorvane::logging::LoggingModuleData outlet{-1, -1, QV_LOG_LEVEL_OFF};
  const std::string& what = arguments.at(0);
  if (what == "cache") {
    return fork_finds_nothing_of<Cache>("maps", nullptr, true) ? 0 : 1;
  }
  if (what == "controller") {
    return fork_finds_nothing_of<CleanupController>(0u) ? 0 : 1;
  }
  return fork_finds_nothing_of<quorvane::module::Lookup>(&outlet) ? 0 : 1;
}

TEST(ForkGuard, IsRemovedWithWhatItGuards) {
  for (const char* what : {"cache", "controller", "lookup"}) {
    EXPECT_TRUE(run_scenario("fork_after_the_end", {}, {what}).exited_with(0)) << what;
  }
}

// --- while the objects are in use ---

bool use_a_new_cache() {
#ifndef QV_SANITIZED  // a fork may find the sanitizer's allocator locked
  Cache cache("child", nullptr, true);
  return cache.add_value(buffer("k"), buffers({"v"})) && cache.size() == 1;
#else
  return true;
#endif
}

SCENARIO(forks_beside_constructors) {
  alarm(2 * kHangSeconds);
  Busy busy;
  for (int thread = 0; thread < 2; ++thread) {
    busy.start([] {
      const CleanupController controller(0);
      const Cache cache("busy", nullptr, true);
    });
  }
  return all_children_succeed([] { return use_a_new_cache(); }) ? 0 : 1;
}

TEST(ForkGuard, LetsForksBeWhileOtherThreadsMakeAndDestroyWhatItGuards) {
  expect_success("forks_beside_constructors");
}

SCENARIO(forks_beside_a_used_controller) {
  alarm(2 * kHangSeconds);
  CleanupController controller(100);
  const std::uint64_t ticket = controller.get_ticket();
  const auto measure = [&] {
    FakeResource resource;
    return !controller.update_and_check_usage(ticket, resource);
  };
  Busy busy;
  for (int thread = 0; thread < 2; ++thread) {
    busy.start(measure);
  }
  return all_children_succeed(measure) ? 0 : 1;
}

TEST(ForkGuard, LeavesTheControllersMutexFreeInAChild) {
  expect_success("forks_beside_a_used_controller");
}

SCENARIO(forks_beside_a_used_cache) {
  alarm(2 * kHangSeconds);
  Cache cache("maps", nullptr, true);
  cache.add_value(buffer("k"), buffers({"v"}));
  const auto key = buffer("k");
  const auto measure = [&] { return cache.size() == 1 && cache.get_value(key) != nullptr; };
  measure();  // makes the counters
  Busy busy;
  for (int thread = 0; thread < 2; ++thread) {
    busy.start(measure);
  }
  return all_children_succeed(measure) ? 0 : 1;
}

TEST(ForkGuard, LeavesACachesMutexFreeInAChild) { expect_success("forks_beside_a_used_cache"); }
