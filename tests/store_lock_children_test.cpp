// Children that inherit a store lock: its file, its descriptor and the thread that holds it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/lock_probe.h"
#include "support/processes.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::Cache;
using quorvane::cache::make_file_store;
using quorvane::cache::StoreFLock;
using quorvane::cache::StoreKind;
using test::buffer;
using test::buffers;
using test::kHangSeconds;
using test::lock_is_lost;
using test::Ran;
using test::root_file;
using test::Signpost;
using test::StoreRoot;

namespace {

int open_descriptors() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    count += fcntl(fd, F_GETFD) != -1;
  }
  return count;
}

}  // namespace

SCENARIO(child_without_its_lock) {
  auto cache = std::make_unique<Cache>("maps", make_file_store(StoreKind::basic, "maps"), false);
  cache->add_value(buffer("a"), buffers({"1"}));
  if (arguments.at(0) == "refused") {
    test::refuse(SYS_openat, ENOENT, test::When{2, O_RDWR | O_CLOEXEC});
    test::refuse(SYS_openat, ENOENT, test::When{2, O_RDWR | O_CREAT | O_CLOEXEC});
  }
  std::printf(
      "%d", test::wait_for(test::in_child([&] {
        if (arguments.at(0) == "chroot" && (chroot("/proc/self/task") != 0 || chdir("/") != 0)) {
          return 2;
        }
        cache.reset();
        return 0;
      })));
  return 0;
}

TEST(StoreFLockFiles, AChildThatCannotHaveALockOfItsOwnLosesItsStoreButNotItsLife) {
  for (const char* reason : {"refused", "chroot"}) {
    const StoreRoot root;
    const Ran ran = root.run_unlimited("child_without_its_lock", {reason});
    EXPECT_EQ(ran.out, "0") << reason;
    EXPECT_EQ(test::without_lines(ran.messages()), lock_is_lost(root.file("lock_maps"))) << reason;
    EXPECT_EQ(test::read_file(root.file("maps")), test::basic_file({{"a", {"1"}}})) << reason;
  }
}

// One thread of the process holds the lock while another one forks a child. Then the process
// is killed, and the child lives on.
SCENARIO(killed_holder_with_a_child) {
  alarm(kHangSeconds);
  test::PidPipe pids;
  const pid_t holder = test::in_child([&] {
    auto* const lock = new StoreFLock("maps");
    Signpost held;
    std::thread thread([&] {
      lock->lock();
      held.pass();
      pause();
    });
    held.await();
    test::fork_sleeper(pids);
    return test::sleep_until_killed();
  });
  const pid_t sleeper = pids.receive();
  const bool was_held = test::is_locked(root_file("lock_maps"));
  kill(holder, SIGKILL);
  test::wait_for(holder);
  const bool is_held = test::is_locked(root_file("lock_maps"));
  kill(sleeper, SIGKILL);
  std::printf("%d %d", was_held, is_held);
  return 0;
}

TEST(StoreFLockFiles, AKilledHoldersLockIsFreeThoughItsChildLivesOn) {
  const StoreRoot root;
  EXPECT_EQ(root.run_unlimited("killed_holder_with_a_child").out, "1 0");
}

SCENARIO(child_moves_its_lock) {
  alarm(kHangSeconds);
  StoreFLock inherited("maps");
  inherited.lock();
  const auto child = static_cast<pid_t>(
      arguments.at(0) == "fork" ? fork()
                                : syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
  if (child == 0) {
    StoreFLock moved(std::move(inherited));
    moved.lock();
    moved.unlock();
    _exit(0);
  }
  Signpost never;
  const bool waits = test::waits_for_lock(child, never);
  inherited.unlock();
  std::printf("%d %d", waits, test::wait_for(child));
  return 0;
}

TEST(StoreFLockFiles, ALockThatAChildHasMovedExcludesItsParent) {
  for (const char* how : {"fork", "clone"}) {
    const StoreRoot root;
    EXPECT_EQ(root.run_unlimited("child_moves_its_lock", {how}).out, "1 0") << how;
  }
}

SCENARIO(descriptors_of_a_child) {
  StoreFLock lock("maps");
  StoreFLock other("other");
  const int before = open_descriptors();
  const int status = test::wait_for(test::in_child([&] {
    const int at_first = open_descriptors();
    lock.lock();
    lock.unlock();
    return at_first == before && open_descriptors() == before ? 0 : 1;
  }));
  std::printf("%d %d", status, open_descriptors() == before);
  return 0;
}

TEST(StoreFLockFiles, AChildHasAsManyDescriptorsAsItsParent) {
  const StoreRoot root;
  EXPECT_EQ(root.run_unlimited("descriptors_of_a_child").out, "0 1");
}

// Executes a program that lists its descriptors while caches are in use.
SCENARIO(execute_beside_a_cache) {
  Cache basic("maps", make_file_store(StoreKind::basic, "maps"), false);
  Cache lazy("lazy", make_file_store(StoreKind::lazy_lookup, "lazy"), false);
  return test::wait_for(test::in_child([] {
    execl("/bin/sh", "sh", "-c", "ls /proc/self/fd/ -l", nullptr);
    return 1;
  }));
}

TEST(StoreFLockFiles, AnExecutedProgramFindsNoDescriptorOfAStoreOpen) {
  const StoreRoot root;
  const Ran ran = root.run_unlimited("execute_beside_a_cache");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_NE(ran.out.find("0 ->"), std::string::npos);
  EXPECT_EQ(ran.out.find(root.path()), std::string::npos) << ran.out;
}
SCENARIO(fork_beside_a_holder) {
  alarm(kHangSeconds);
  StoreFLock lock("maps");
  Signpost held;
  Signpost may_go;
  std::thread holder([&] {
    lock.lock();
    held.pass();
    may_go.await();
    lock.unlock();
  });
  held.await();
  Signpost child_has_it;
  const pid_t child = test::in_child([&] {
    lock.lock();  // the holder doesn't exist in the child
    child_has_it.pass();
    lock.unlock();
    return 0;
  });
  const bool waits = test::waits_for_lock(child, child_has_it);
  may_go.pass();
  holder.join();
  std::printf("%d %d", waits, test::wait_for(child));
  return 0;
}

TEST(StoreFLockFiles, AChildForkedBesideAHolderWaitsForItAndThenGetsTheLock) {
  const StoreRoot root;
  EXPECT_EQ(root.run_unlimited("fork_beside_a_holder").out, "1 0");
}
