// Fork handlers that a program registers before it loads the library. They run while the
// forking thread holds every guarded mutex.
#include "src/fork_guard.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <quorvane/cache.h>
#include <quorvane/module.h>
#include <quorvane/store.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/no_memory.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using quorvane::cache::Cache;
using quorvane::cache::CleanupController;
using test::Ran;
using test::run_scenario;
namespace fork_guard = quorvane::fork_guard;

constexpr unsigned kHangSeconds = 5;  // after which a process counts as hung

// What the handlers call.
std::function<void(const std::string& handler)>* g_work = nullptr;

void work(const char* handler) {
  if (g_work != nullptr) {
    (*g_work)(handler);
  }
}

void prepare() { work("prepare"); }
void parent() { work("parent"); }
void child() { work("child"); }

// Runs before the library, which is linked into this program, makes its objects.
__attribute__((constructor(101))) void register_handlers() {
  pthread_atfork(&prepare, &parent, &child);
}

class Handlers {
 public:
  explicit Handlers(std::function<void(const std::string&)> function)
      : function_(std::move(function)) {
    g_work = &function_;
  }
  ~Handlers() { g_work = nullptr; }
  Handlers(const Handlers&) = delete;
  Handlers& operator=(const Handlers&) = delete;

 private:
  std::function<void(const std::string&)> function_;
};

// 1 if `process` failed, 0 otherwise.
int failure_of(pid_t process) { return test::wait_for(process) == 0 ? 0 : 1; }

quorvane::util::RoBuffer bytes(const char* text) {
  return quorvane::util::RoBuffer::copy(text, std::strlen(text));
}

// Locks guarded mutexes of each kind, and makes and destroys some. Returns whether that worked.
bool use_library() {
  static std::atomic<int> calls{0};
  const std::string name = "test/" + std::to_string(calls++);
  const quorvane::Module fresh(name.c_str());
  QV_LOG(fresh, DEBUG, "%s", name.c_str());
  const quorvane::Module malformed("/malformed");
  CleanupController controller(0);
  Cache cache(name, nullptr, true);
  const bool added = cache.add_value(bytes("key"), {bytes("value")}) &&
                     !cache.add_value(bytes("key"), {bytes("value")});
  return controller.get_ticket() == 0 && added && cache.size() == 1 &&
         qv_module_find(name.c_str()) == fresh.get();
}

// --------------------------------------------------------------- the whole library

#ifdef QV_SANITIZED
constexpr int kForks = 10;
#else
constexpr int kForks = 50;
#endif

SCENARIO(handlers_use_the_library_beside_threads) {
  alarm(kHangSeconds);
  std::atomic<bool> stops{false};
  std::atomic<int> failed{0};
  std::array<std::atomic<int>, 2> rounds{};
  std::vector<std::thread> threads;
  for (std::atomic<int>& own : rounds) {
    threads.emplace_back([&] {
      while (!stops) {
        failed += use_library() ? 0 : 1;
        own.fetch_add(1);
      }
    });
  }
  const Handlers handlers([&](const std::string& handler) {
    if (handler == arguments.at(0)) {
      failed += use_library() && use_library() ? 0 : 1;
    }
  });
  for (int fork_number = 0; fork_number < kForks; ++fork_number) {
    for (const std::atomic<int>& own : rounds) {
      for (const int before = own; own == before;) {
        std::this_thread::yield();
      }
    }
    const pid_t process = fork();
    if (process == 0) {
      alarm(kHangSeconds);
      _exit(failed == 0 && use_library() ? 0 : 1);
    }
    failed += failure_of(process);
  }
  stops = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  return failed == 0 ? 0 : 1;
}

class EarlyHandler : public testing::TestWithParam<std::string> {};

TEST_P(EarlyHandler, MayUseAllOfTheLibraryBesideThreads) {
  const Ran ran = run_scenario("handlers_use_the_library_beside_threads",
                               {{"QV_LOG_FILE", "/dev/null"}}, {GetParam()});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
}

// Waits for all children of this process. Returns how many failed.
int wait_for_all() {
  int failed = 0;
  for (int status = 0; wait(&status) > 0;) {
    failed += status == 0 ? 0 : 1;
  }
  return failed;
}

// The handler that the first argument names forks once. Its child uses the library, and then
// either ends or goes on with the fork that runs the handler.
SCENARIO(a_handler_forks) {
  alarm(kHangSeconds);
  const quorvane::Module module("test/nested");
  bool may_fork = true;
  int failed = 0;
  const Handlers handlers([&](const std::string& handler) {
    if (handler != arguments.at(0) || !may_fork) {
      return;
    }
    may_fork = false;
    const pid_t process = fork();
    failed += use_library() ? 0 : 1;
    if (process == 0) {
      alarm(kHangSeconds);
      QV_LOG(module, ERROR, "nested");
      if (arguments.at(1) == "ends") {
        _exit(failed);
      }
    }
  });
  fork();
  failed += use_library() ? 0 : 1;
  return failed + wait_for_all();
}

TEST_P(EarlyHandler, MayForkItself) {
  for (const char* next : {"ends", "goes on"}) {
    const Ran ran =
        run_scenario("a_handler_forks", {{"QV_LOG_LEVEL", "ERROR"}}, {GetParam(), next});
    EXPECT_TRUE(ran.exited_with(0)) << next;
    EXPECT_THAT(ran.messages(), testing::Contains("ERROR nested").Times(1));
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, EarlyHandler, testing::Values("prepare", "parent", "child"));

SCENARIO(objects_outlive_the_handlers_they_are_made_in) {
  alarm(kHangSeconds);
  std::optional<CleanupController> old_controller(0);
  std::optional<Cache> old_cache(std::in_place, "old", nullptr, true);
  std::optional<CleanupController> controller;
  std::optional<Cache> cache;
  const Handlers handlers([&](const std::string& handler) {
    if (handler == "prepare") {
      old_controller.reset();
      old_cache.reset();
      controller.emplace(0);
      cache.emplace("new", nullptr, true);
    }
  });
  const pid_t process = fork();
  alarm(kHangSeconds);
  const bool works = controller->get_ticket() == 0 &&
                     cache->add_value(bytes("key"), {bytes("value")}) && cache->size() == 1;
  controller.reset();
  cache.reset();
  if (process == 0) {
    _exit(works ? 0 : 1);
  }
  return works ? failure_of(process) : 1;
}

TEST(EarlyHandlers, MayMakeWhatIsUsedLaterAndDestroyWhatWasMadeEarlier) {
  EXPECT_TRUE(run_scenario("objects_outlive_the_handlers_they_are_made_in").exited_with(0));
}

TEST(EarlyHandlers, LogWhereTheLibraryIsLoadedLater) {
  const Ran ran = test::run_program(QV_FORK_GUARD_LOADER, {QV_LIBRARY});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_THAT(ran.messages(), testing::UnorderedElementsAre("INFO in prepare", "INFO in nested",
                                                            "INFO in parent", "INFO in child"));
}

// --------------------------------------------------------------------- the guards alone

bool is_locked(std::mutex& mutex) {
  bool was_free = false;
  std::thread([&] {
    was_free = mutex.try_lock();
    if (was_free) {
      mutex.unlock();
    }
  }).join();
  return !was_free;
}

// Returns a bit for each kind of failure.
SCENARIO(adds_and_removes_in_prepare) {
  alarm(kHangSeconds);
  std::mutex kept;
  std::mutex added;
  std::mutex removed;
  std::mutex passing;
  std::mutex never_added;
  fork_guard::add(kept);
  fork_guard::add(kept);
  fork_guard::add(removed);
  int failed = 0;
  const Handlers handlers([&](const std::string& handler) {
    if (handler != "prepare") {
      return;
    }
    fork_guard::add(added);
    fork_guard::add(kept);
    fork_guard::remove(removed);
    fork_guard::add(passing);
    fork_guard::remove(passing);
    const std::lock_guard<std::mutex> held(never_added);
    fork_guard::remove(never_added);
    failed |= is_locked(kept) && is_locked(added) ? 0 : 1;
    failed |= is_locked(removed) || is_locked(passing) ? 2 : 0;
    failed |= is_locked(never_added) ? 0 : 4;
    const fork_guard::Lock lock(kept);
    const fork_guard::Lock again(kept);
  });
  const pid_t process = fork();
  for (std::mutex* mutex : {&kept, &added, &removed, &passing, &never_added}) {
    failed |= mutex->try_lock() ? 0 : 8;
  }
  if (process == 0) {
    _exit(failed);
  }
  return failed | test::wait_for(process);
}

TEST(ForkGuard, KeepsTheMutexesLockedThatAreAddedDuringAForkAndFreesThoseRemoved) {
  EXPECT_TRUE(run_scenario("adds_and_removes_in_prepare").exited_with(0));
}

SCENARIO(forks_in_prepare) {
  alarm(kHangSeconds);
  std::mutex mutex;
  fork_guard::add(mutex);
  bool is_nested = false;
  bool stayed_locked = false;
  const Handlers handlers([&](const std::string& handler) {
    if (handler == "prepare" && !is_nested) {
      is_nested = true;
      if (fork() == 0) {
        _exit(0);
      }
      stayed_locked = is_locked(mutex);
    }
  });
  if (fork() == 0) {
    _exit(mutex.try_lock() ? 0 : 1);
  }
  return stayed_locked && mutex.try_lock() ? wait_for_all() : 1;
}

TEST(ForkGuard, KeepsTheMutexesLockedThroughAForkOfAHandler) {
  EXPECT_TRUE(run_scenario("forks_in_prepare").exited_with(0));
}

SCENARIO(adds_without_memory) {
  alarm(kHangSeconds);
  std::mutex unguarded;
  const auto add = [&] {
    test::no_memory_from = 0;
    fork_guard::add(unguarded);
    test::no_memory_from = test::kEnoughMemory;
  };
  std::thread(add).join();
  const Handlers handlers([&](const std::string&) { add(); });
  int failed = 0;
  unguarded.lock();  // the fork doesn't wait for it
  const pid_t process = fork();
  unguarded.unlock();
  {
    const fork_guard::Lock lock(unguarded);
    failed |= is_locked(unguarded) ? 0 : 1;
  }
  fork_guard::remove(unguarded);
  if (process == 0) {
    _exit(failed);
  }
  return failed | test::wait_for(process);
}

TEST(ForkGuard, LeavesAMutexUnguardedThatThereIsNoMemoryFor) {
  EXPECT_TRUE(run_scenario("adds_without_memory").exited_with(0));
}

// A child is forked after a file is opened and before the fork handler can know of the
// descriptor. The child lives on, but must not hold the lock that is taken later.
SCENARIO(opens_beside_a_fork) {
  alarm(kHangSeconds);
  std::mutex mutex;
  fork_guard::add(mutex);
  const char* const path = arguments.at(0).c_str();
  pid_t child = -1;
  int opened = 0;
  int kept = -1;
  fork_guard::open_unshared(
      mutex,
      [&] {
        const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (++opened == 1 && (child = fork()) == 0) {
          for (;;) {
            pause();
          }
        }
        return fd;
      },
      [&](int fd) { kept = fd; });
  const bool is_locked = flock(kept, LOCK_EX | LOCK_NB) == 0;
  close(kept);
  const int other = open(path, O_RDWR | O_CLOEXEC);
  const bool is_free = flock(other, LOCK_EX | LOCK_NB) == 0;
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  return opened == 2 && is_locked && is_free ? 0 : 1;
}

TEST(ForkGuard, OpensAgainWhatAChildHasInheritedMeanwhile) {
  const test::TempDir dir;
  EXPECT_TRUE(run_scenario("opens_beside_a_fork", {}, {dir.file("lock")}).exited_with(0));
}

SCENARIO(opens_nothing) {
  std::mutex mutex;
  int kept = 0;
  const bool opened = fork_guard::open_unshared(
      mutex, [] { return open("/nowhere/lock", O_RDWR); }, [&](int fd) { kept = fd; });
  return !opened && kept == -1 && errno == ENOENT ? 0 : 1;
}

TEST(ForkGuard, SaysWhyWhatItOpensCantBeOpened) {
  EXPECT_TRUE(run_scenario("opens_nothing").exited_with(0));
}

// During a fork, a mutex is free or held by the forking thread, whatever others do.
SCENARIO(forks_in_threads) {
  alarm(kHangSeconds);
  std::mutex mutex;
  fork_guard::add(mutex);
  int inside = 0;
  std::atomic<int> failed{0};
  const auto enter = [&] {
    const fork_guard::Lock lock(mutex);
    failed += ++inside == 1 ? 0 : 1;
    --inside;
  };
  const Handlers handlers([&](const std::string&) { enter(); });
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < kForks; ++round) {
        enter();
        const pid_t process = fork();
        if (process == 0) {
          alarm(kHangSeconds);
          enter();
          _exit(failed);
        }
        failed += failure_of(process);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  fork_guard::remove(mutex);
  return failed == 0 ? 0 : 1;
}

TEST(ForkGuard, ExcludesThreadsThatForkFromEachOther) {
  EXPECT_TRUE(run_scenario("forks_in_threads").exited_with(0));
}

}  // namespace
