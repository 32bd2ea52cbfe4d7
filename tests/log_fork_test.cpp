// Logging, modules and settings in children of fork.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/env_config.h>
#include <quorvane/fault.h>
#include <quorvane/log.h>
#include <quorvane/module.h>
#include <quorvane/store.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "support/processes.h"
#include "support/refuse.h"
#include "support/scenario.h"

namespace {

using test::Ran;
using test::run_scenario;

pid_t raw_clone() {
  return static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
}

// Runs `work` in a child. Returns 0 if the child exits with 0, 1 otherwise.
int in_child(pid_t (*make_child)(), const std::function<int()>& work) {
  const pid_t child = make_child();
  if (child == 0) {
    _exit(work());
  }
  return test::wait_for(child) == 0 ? 0 : 1;
}

// Logs a record whose message says what its ids must be.
int log_ids(const char* who) {
  static const quorvane::Module module("test/fork");
  QV_LOG(module, INFO, "%s %d %d", who, getpid(), gettid());
  return 0;
}

void expect_right_ids(const Ran& ran, const std::vector<std::string>& writers) {
  EXPECT_TRUE(ran.exited_with(0));
  std::vector<std::string> seen;
  for (const test::LogRecord& record : ran.records) {
    const std::string who = record.message.substr(0, record.message.find(' '));
    seen.push_back(who);
    EXPECT_EQ(record.message,
              who + " " + std::to_string(record.pid) + " " + std::to_string(record.tid));
  }
  EXPECT_EQ(seen, writers);
}

// --------------------------------------------------------------- ids of children

SCENARIO(logs_in_a_child) {
  log_ids("parent");
  const int status = in_child(&fork, [] { return log_ids("child"); });
  log_ids("parent");
  return status;
}

TEST(ForkedLog, AChildsRecordsCarryItsIdsAndTheParentsKeepTheirs) {
  expect_right_ids(run_scenario("logs_in_a_child"), {"parent", "child", "parent"});
}

SCENARIO(logs_in_a_grandchild) {
  log_ids("parent");
  return in_child(&fork, [] { return in_child(&fork, [] { return log_ids("grandchild"); }); });
}

TEST(ForkedLog, AGrandchildWhoseParentNeverLoggedHasItsIds) {
  expect_right_ids(run_scenario("logs_in_a_grandchild"), {"parent", "grandchild"});
}

SCENARIO(logs_in_four_generations) {
  log_ids("first");
  return in_child(&fork, [] {
    log_ids("second");
    return in_child(&fork, [] {
      log_ids("third");
      const int status = in_child(&fork, [] { return log_ids("fourth"); });
      log_ids("third");
      return status;
    });
  });
}

TEST(ForkedLog, EveryGenerationHasItsIds) {
  expect_right_ids(run_scenario("logs_in_four_generations"),
                   {"first", "second", "third", "fourth", "third"});
}

SCENARIO(logs_in_a_raw_clone) {
  log_ids("parent");
  const int status = in_child(&raw_clone, [] {
    log_ids("clone");
    return in_child(&raw_clone, [] { return log_ids("cloneclone"); });
  });
  log_ids("parent");
  return status;
}

TEST(ForkedLog, AChildThatNoForkHandlerSawHasItsIds) {
  expect_right_ids(run_scenario("logs_in_a_raw_clone"),
                   {"parent", "clone", "cloneclone", "parent"});
}

SCENARIO(logs_in_a_child_of_a_thread) {
  log_ids("main");
  int status = 1;
  std::thread([&] {
    log_ids("thread");
    status = in_child(&fork, [] { return log_ids("child"); });
    log_ids("thread");
  }).join();
  log_ids("main");
  return status;
}

TEST(ForkedLog, AChildOfAThreadIsItsOwnMainThread) {
  expect_right_ids(run_scenario("logs_in_a_child_of_a_thread"),
                   {"main", "thread", "child", "thread", "main"});
}

#ifndef QV_SANITIZED
// ThreadSanitizer allows no new threads in the child of a process with several threads.
SCENARIO(logs_in_a_thread_of_a_child) {
  log_ids("parent");
  return in_child(&fork, [] {
    std::thread([] { log_ids("thread"); }).join();
    return log_ids("child");
  });
}

TEST(ForkedLog, AThreadOfAChildHasItsIds) {
  expect_right_ids(run_scenario("logs_in_a_thread_of_a_child"), {"parent", "thread", "child"});
}
#endif

SCENARIO(logs_first_in_children) {
  static const quorvane::Module module("test/fork");
  const int first = in_child(&fork, [] { return log_ids("one"); });
  const int second = in_child(&fork, [] { return log_ids("two"); });
  return first + second + log_ids("parent");
}

TEST(ForkedLog, SiblingsForkedBeforeAnyRecordHaveTheirIds) {
  expect_right_ids(run_scenario("logs_first_in_children"), {"one", "two", "parent"});
}

// -------------------------------------- when the kernel doesn't help to detect a fork

// The refusal survives exec, so it applies when the library is loaded.
SCENARIO(loads_without_wiping) {
  test::refuse(SYS_madvise, EINVAL, test::When{2, MADV_WIPEONFORK});
  execl("/proc/self/exe", "log_fork_test", "--scenario", "logs_in_four_generations", nullptr);
  return 1;
}

TEST(ForkedLog, IdsAreRightWhenTheKernelCannotWipeOnFork) {
  expect_right_ids(run_scenario("loads_without_wiping"),
                   {"first", "second", "third", "fourth", "third"});
}

#ifndef QV_SANITIZED
// A sanitizer maps single pages itself and fails without them.
SCENARIO(loads_without_a_page) {
  test::refuse(SYS_mmap, ENOMEM, test::When{1, static_cast<std::uint32_t>(getpagesize())},
               test::When{3, MAP_PRIVATE | MAP_ANONYMOUS});
  execl("/proc/self/exe", "log_fork_test", "--scenario", "logs_in_four_generations", nullptr);
  return 1;
}

TEST(ForkedLog, IdsAreRightWhenNoPageCanBeMapped) {
  expect_right_ids(run_scenario("loads_without_a_page"),
                   {"first", "second", "third", "fourth", "third"});
}
#endif

// ------------------------------------------------ forks while threads are busy

constexpr int kForks = 200;
constexpr int kMostStepsPerFork = 30;  // of each thread
constexpr unsigned kHangSeconds = 30;  // after which a child counts as hung

std::string name_of(const char* kind, int number) {
  return std::string("test/") + kind + "/" + std::to_string(number);
}

// Does all that a child may do. The alarm ends a child that hangs.
int use_all(int round) {
  alarm(kHangSeconds);
  const quorvane::Module fresh(name_of("child", round).c_str());
  QV_LOG(fresh, INFO, "child %d", round);
  const quorvane::Module malformed("/child");
  QV_LOG(malformed, DEBUG, "child %d", round);
  errno = 0;
  const bool read = qv_env_config_get_int("QV_TEST_BAD", 3) == 3;
  const bool found = qv_module_find(name_of("child", round).c_str()) == fresh.get() &&
                     qv_module_find("test/fork") != nullptr;
  return read && found ? 0 : 1;
}

class BusyThreads {
 public:
  BusyThreads() {
    start([this](int i) { QV_LOG(module_, INFO, "thread %d", i); });
    start([](int i) { const quorvane::Module fresh(name_of("thread", i).c_str()); });
    start([](int) { const quorvane::Module malformed("/thread"); });
    start([](int i) { qv_module_find(name_of("thread", i).c_str()); });
  }
  ~BusyThreads() {
    stop_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }
  BusyThreads(const BusyThreads&) = delete;
  BusyThreads& operator=(const BusyThreads&) = delete;

  // Lets the threads work, and waits until each of them does.
  void wait_until_busy() {
    for (std::atomic<int>& steps : steps_left_) {
      steps = kMostStepsPerFork;
    }
    for (const std::atomic<int>& steps : steps_left_) {
      while (steps == kMostStepsPerFork) {
        std::this_thread::yield();
      }
    }
  }

 private:
  void start(std::function<void(int)> work) {
    std::atomic<int>& steps = steps_left_.at(threads_.size());
    threads_.emplace_back([this, &steps, work = std::move(work)] {
      for (int i = 0; !stop_;) {
        if (steps > 0) {
          work(i++);
          --steps;
        } else {
          std::this_thread::yield();
        }
      }
    });
  }

  quorvane::Module module_{"test/fork"};
  std::atomic<bool> stop_{false};
  std::array<std::atomic<int>, 4> steps_left_{};
  std::vector<std::thread> threads_;
};

SCENARIO(forks_beside_busy_threads) {
  BusyThreads busy;
  int failed = 0;
  for (int round = 0; round < kForks; ++round) {
    busy.wait_until_busy();
    failed += in_child(&fork, [&] { return use_all(round); });
  }
  std::cout << failed;
  return 0;
}

TEST(ForkedLog, NoChildHangsWhateverItsParentsThreadsDid) {
  const Ran ran = run_scenario("forks_beside_busy_threads",
                               {{"QV_LOG_FILE", "/dev/null"}, {"QV_TEST_BAD", "bad"}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(ran.err, "");
}

// Nothing that exit runs, such as static destructors, may wait for a thread of the parent.
SCENARIO(children_exit_beside_busy_threads) {
  int failed = 0;
  {
    BusyThreads busy;
    for (int round = 0; round < kForks / 2; ++round) {
      busy.wait_until_busy();
      const pid_t child = fork();
      if (child == 0) {
        alarm(kHangSeconds);
        exit(log_ids("child"));
      }
      failed += test::wait_for(child) == 0 ? 0 : 1;
    }
  }
  return failed == 0 ? 0 : 1;
}

TEST(ForkedLog, NoChildHangsAtItsExit) {
  // At exit, a leak checker takes the allocator's own locks, for which fork doesn't wait,
  // and ThreadSanitizer waits for a second.
  const Ran ran =
      run_scenario("children_exit_beside_busy_threads",
                   {{"QV_LOG_FILE", "/dev/null"},
                    {"ASAN_OPTIONS", test::with_option("ASAN_OPTIONS", "detect_leaks=0")},
                    {"TSAN_OPTIONS", test::with_option("TSAN_OPTIONS", "atexit_sleep_ms=0")}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.err, "");
}

// Does what a crash reporter does: forks a child to take the report. Prints whether that worked.
void fork_and_tell(int) {
  const pid_t child = test::in_child([] { return 0; });
  const char* const told = test::wait_for(child) == 0 ? "reported" : "failed";
  _exit(write(STDOUT_FILENO, told, strlen(told)) > 0 ? 0 : 1);
}

SCENARIO(reports_a_collision_from_a_fork) {
  signal(SIGABRT, &fork_and_tell);
  alarm(kHangSeconds);
  for (int i = 0; i < 2; ++i) {
    void* const module = qv_module_create();
    qv_module_route("test/twice", module);
    qv_module_commit(module);
  }
  return 1;
}

SCENARIO(reports_a_failed_check_from_a_fork) {
  signal(SIGABRT, &fork_and_tell);
  alarm(kHangSeconds);
  const quorvane::Module module("test/fork");
  QV_FAULT_ASSERT(module, arguments.empty(), "test");
  return 1;
}

class Resource : public quorvane::cache::CleanableResource {
 public:
  std::uint64_t get_usage() override { return 0; }
  void clean() override {}
};

// The check fails while the controller's mutex is held.
SCENARIO(reports_a_check_under_a_mutex_from_a_fork) {
  signal(SIGABRT, &fork_and_tell);
  alarm(kHangSeconds);
  Resource resource;
  quorvane::cache::CleanupController controller(0);
  controller.update_and_check_usage(controller.get_ticket() + 1, resource);
  return 1;
}

TEST(ForkedLog, AHandlerOfAbortMayFork) {
  // ThreadSanitizer allocates in a child and would blame the handler for that.
  const test::Environment environment{
      {"TSAN_OPTIONS", test::with_option("TSAN_OPTIONS", "report_signal_unsafe=0")}};
  const Ran collision = run_scenario("reports_a_collision_from_a_fork", environment);
  EXPECT_TRUE(collision.exited_with(0));
  EXPECT_EQ(collision.out, "reported");
  EXPECT_EQ(collision.records.size(), 1U);
  EXPECT_EQ(run_scenario("reports_a_failed_check_from_a_fork", environment, {"failed"}).out,
            "reported");
  const Ran locked = run_scenario("reports_a_check_under_a_mutex_from_a_fork", environment);
  EXPECT_TRUE(locked.exited_with(0));
  EXPECT_EQ(locked.out, "reported");
}

SCENARIO(a_child_commits_what_its_parent_has_too) {
  const quorvane::Module before("test/before");
  const int status = in_child(&fork, [] {
    const quorvane::Module inherited("test/before");
    const quorvane::Module own("test/own");
    QV_LOG(inherited, INFO, "inherited");
    QV_LOG(own, INFO, "own");
    return 0;
  });
  return status == 0 && qv_module_find("test/own") == nullptr ? 0 : 1;
}

TEST(ForkedLog, AChildsModulesAreItsOwn) {
  const Ran ran = run_scenario("a_child_commits_what_its_parent_has_too");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.messages(), testing::ElementsAre("INFO inherited", "INFO own"));
}

}  // namespace
