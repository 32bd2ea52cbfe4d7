// The note that an append keeps in the lock file: who writes it, heeds it and clears it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/processes.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::BasicStore;
using quorvane::cache::Cache;
using quorvane::cache::make_file_store;
using quorvane::cache::StoreFLock;
using quorvane::cache::StoreKind;
using test::buffer;
using test::buffers;
using test::Ran;
using test::root_file;
using test::StoreRoot;
using Messages = std::vector<std::string>;

namespace {

std::unique_ptr<Cache> basic_cache() {
  return std::make_unique<Cache>("maps", make_file_store(StoreKind::basic, "maps"), false);
}

void add_one(const std::string& key, std::size_t size) {
  basic_cache()->add_value(buffer(key), buffers({std::string(size, 'v')}));
}

// Forks a child that the kernel kills in the middle of its append, where the file would grow
// beyond the limit.
int killed_in_an_append() {
  return test::wait_for(test::in_child([] {
    const rlimit limit{10000, 10000};
    setrlimit(RLIMIT_FSIZE, &limit);
    add_one("killed", 20000);
    return 0;
  }));
}

std::string undone(const StoreRoot& root) {
  return "WARN Undid an append to " + root.file("maps") + " that was cut short";
}

Messages relevant(const Ran& ran) {
  Messages messages = test::without_lines(ran.messages());
  std::erase(messages, "INFO Statistics capture disabled.");
  return messages;
}

}  // namespace

SCENARIO(append_after_a_killed_one) {
  add_one("first", 1);
  std::printf("%d ", killed_in_an_append());
  add_one("second", 1);
  add_one("third", 1);
  return 0;
}

TEST(StoreFLockNote, OfAKilledAppendIsHeededOnceAndWithOneRecord) {
  const StoreRoot root;
  const Ran ran = root.run_unlimited("append_after_a_killed_one");
  EXPECT_EQ(ran.out, std::to_string(test::kKilledBy + SIGXFSZ) + " ");
  EXPECT_EQ(relevant(ran), Messages{undone(root)});
  EXPECT_EQ(test::read_file(root.file("maps")),
            test::basic_file({{"first", {"v"}}, {"second", {"v"}}, {"third", {"v"}}}));
  EXPECT_EQ(test::read_file(root.file("lock_maps")), "");
}

SCENARIO(take_and_leave_the_lock) {
  StoreFLock lock("maps");
  lock.lock();
  lock.unlock();
  return 0;
}

SCENARIO(add_one_entry) {
  add_one("first", 1);
  return 0;
}

TEST(StoreFLockNote, ThatMakesNoSenseIsClearedInSilence) {
  for (const std::string& text :
       {std::string("text"), std::string(5000, 'x'), std::string(100, '\0')}) {
    const StoreRoot root;
    test::write_file(root.file("lock_maps"), text);
    test::write_file(root.file("maps"), "what is there");
    const Ran ran = root.run_unlimited("take_and_leave_the_lock");
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_EQ(ran.messages(), Messages{});
    EXPECT_EQ(test::read_file(root.file("lock_maps")), "");
    EXPECT_EQ(test::read_file(root.file("maps")), "what is there");
  }
}

// Whoever may write to the root may have made the link, and the process may be root's.
TEST(StoreFLockNote, IsNotWrittenOverWhatALinkLeadsTo) {
  const StoreRoot root;
  test::write_file(root.file("victim"), "somebody else's");
  std::filesystem::create_symlink("victim", root.file("lock_maps"));
  EXPECT_TRUE(root.run_unlimited("take_and_leave_the_lock").exited_with(0));
  EXPECT_EQ(root.run_unlimited("add_one_entry").messages(), Messages{});
  EXPECT_EQ(test::read_file(root.file("maps")), test::basic_file({{"first", {"v"}}}));
  EXPECT_EQ(test::read_file(root.file("victim")), "somebody else's");
}

// The reader of the note can't write to the lock file. If it appended, the next process would
// undo its append.
SCENARIO(append_beside_a_note_that_stays) {
  add_one("first", 1);
  killed_in_an_append();
  const pid_t child = test::in_child([] {
    test::refuse(SYS_pwrite64, EBADF);
    test::refuse(SYS_ftruncate, EINVAL);
    StoreFLock lock("maps");
    BasicStore store("maps", std::make_shared<StoreFLock>(std::move(lock)), nullptr);
    std::printf("%d ", store.try_store_diff(test::entry_map({{"second", {"v"}}})));
    std::fflush(stdout);
    return 0;
  });
  std::printf("%d", test::wait_for(child));
  std::fflush(stdout);
  add_one("third", 1);
  return 0;
}

TEST(StoreFLockNote, ThatCannotBeClearedKeepsItsReaderFromAppending) {
  const StoreRoot root;
  const Ran ran = root.run_unlimited("append_beside_a_note_that_stays");
  EXPECT_EQ(ran.out, "0 0");
  EXPECT_EQ(test::read_file(root.file("maps")),
            test::basic_file({{"first", {"v"}}, {"third", {"v"}}}));
}

// The child can write to the lock file, but has no descriptor left for the store's file.
SCENARIO(load_without_descriptors) {
  add_one("first", 1);
  killed_in_an_append();
  const pid_t child = test::in_child([] {
    auto store = make_file_store(StoreKind::basic, "maps");
    while (open("/dev/null", O_RDONLY) >= 0) {
    }
    quorvane::cache::EntryMap entries;
    return store->try_load(entries) ? 1 : 0;
  });
  std::printf("%d ", test::wait_for(child));
  auto cache = basic_cache();
  std::printf("%d %zu", cache->is_valid(), cache->size());
  return 0;
}

TEST(StoreFLockNote, ThatCannotBeHeededStaysForAProcessThatCan) {
  const StoreRoot root;
  EXPECT_EQ(root.run_unlimited("load_without_descriptors").out, "0 1 1");
}

// A cache can have a name that makes its file the lock file of another cache.
SCENARIO(lock_that_is_a_store) {
  {
    Cache cache("lock_maps", make_file_store(StoreKind::basic, "lock_maps"), false);
    cache.add_value(buffer("a"), buffers({"1"}));
  }
  add_one("first", 1);
  return 0;
}

TEST(StoreFLockNote, IsNotWrittenIntoTheFileOfAStore) {
  const StoreRoot root;
  EXPECT_TRUE(root.run_unlimited("lock_that_is_a_store").exited_with(0));
  EXPECT_EQ(test::read_file(root.file("lock_maps")), test::basic_file({{"a", {"1"}}}));
  EXPECT_EQ(test::read_file(root.file("maps")), test::basic_file({{"first", {"v"}}}));
}

// A full disk may refuse the note. The append goes ahead without it.
SCENARIO(append_without_a_note) {
  test::refuse(SYS_pwrite64, ENOSPC);
  add_one("first", 1);
  return 0;
}

TEST(StoreFLockNote, ThatCannotBeWrittenKeepsNobodyFromAppending) {
  const StoreRoot root;
  const Ran ran = root.run_unlimited("append_without_a_note");
  EXPECT_EQ(relevant(ran), Messages{});
  EXPECT_EQ(test::read_file(root.file("maps")), test::basic_file({{"first", {"v"}}}));
}

// An append that has ended must not be undone, even if its note can't be cut off.
SCENARIO(append_whose_note_cannot_be_cut) {
  return test::wait_for(test::in_child([] {
    test::refuse(SYS_ftruncate, EIO);
    add_one("first", 1);
    return 0;
  }));
}

TEST(StoreFLockNote, OfAnAppendThatHasEndedIsOverwrittenWhereItCannotBeCut) {
  const StoreRoot root;
  EXPECT_TRUE(root.run_unlimited("append_whose_note_cannot_be_cut").exited_with(0));
  const Ran ran = root.run_unlimited("take_and_leave_the_lock");
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_EQ(test::read_file(root.file("maps")), test::basic_file({{"first", {"v"}}}));
}

// A store's lock may be unlocked, or of another kind.
SCENARIO(append_without_the_lock) {
  auto lock = std::make_shared<StoreFLock>("maps");
  BasicStore own("maps", lock, nullptr);
  BasicStore other("other", std::make_shared<test::CountingLock>(), nullptr);
  StoreFLock holder("maps");
  holder.lock();
  test::write_file(root_file("lock_maps"), "the holder's");
  std::printf("%d %d", own.try_nonlock_append(test::entry_map({{"a", {"1"}}}), {}),
              other.try_nonlock_append(test::entry_map({{"b", {"2"}}}), {}));
  return 0;
}

TEST(StoreFLockNote, IsWrittenByNobodyWhoDoesNotHoldTheLock) {
  const StoreRoot root;
  EXPECT_EQ(root.run_unlimited("append_without_the_lock").out, "1 1");
  EXPECT_EQ(test::read_file(root.file("lock_maps")), "the holder's");
  EXPECT_EQ(test::read_file(root.file("maps")), test::basic_file({{"a", {"1"}}}));
  EXPECT_EQ(test::read_file(root.file("other")), test::basic_file({{"b", {"2"}}}));
}

// Cleaning a lazy store deletes two files, and a kill may come between them.
SCENARIO(clean_that_is_killed) {
  {
    Cache cache("maps", make_file_store(StoreKind::lazy_lookup, "maps"), false);
    cache.add_value(buffer("a"), buffers({"1"}));
  }
  const pid_t child = test::in_child([] {
    test::refuse_after(SYS_unlink, 0, test::When{0, static_cast<std::uint32_t>(0), true}, [] {
      unlinkat(AT_FDCWD, root_file("val_maps").c_str(), 0);
      kill(getpid(), SIGKILL);
    });
    quorvane::cache::CleanupController controller(1);
    Cache cache("maps", make_file_store(StoreKind::lazy_lookup, "maps", &controller), false);
    return 0;
  });
  std::printf("%d ", test::wait_for(child));
  Cache cache("maps", make_file_store(StoreKind::lazy_lookup, "maps"), false);
  std::printf("%d %zu", cache.is_valid(), cache.size());
  return 0;
}

TEST(StoreFLockNote, OfAKilledCleaningHasTheOtherFileDeleted) {
  const StoreRoot root;
  EXPECT_EQ(root.run_unlimited("clean_that_is_killed").out,
            std::to_string(test::kKilledBy + SIGKILL) + " 1 0");
}
