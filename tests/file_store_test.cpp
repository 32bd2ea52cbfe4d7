// What all file stores share: the sequences under the lock, paths, the header, how they are made.
#include <gtest/gtest.h>
#include <quorvane/file_store.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::CleanupController;
using quorvane::cache::EntryMap;
using quorvane::cache::FileStoreSkeleton;
using quorvane::cache::get_store_file_path;
using quorvane::cache::KeySet;
using quorvane::cache::make_file_store;
using quorvane::cache::Store;
using quorvane::cache::StoreKind;
using quorvane::util::BufferReader;
using quorvane::util::RoBuffer;
using test::buffer;
using test::buffers;
using test::expectation;
using test::Ran;
using test::run_scenario;
using test::TempDir;
using test::without_lines;
using Messages = std::vector<std::string>;

namespace {

// Records the steps of a sequence, the lock's among them.
class StepLock : public Store::Lock {
 public:
  explicit StepLock(std::string& steps) : steps_(steps) {}
  bool is_valid() const override { return true; }
  void lock() override { steps_ += "lock "; }
  void unlock() override { steps_ += "unlock "; }

 private:
  std::string& steps_;
};

class StepStore : public FileStoreSkeleton {
 public:
  StepStore(std::string& steps, std::shared_ptr<Store::Lock> lock, CleanupController* controller)
      : FileStoreSkeleton(7, "path", std::move(lock), controller), steps_(steps) {}

  std::string type() const override { return "StepStore"; }
  bool try_nonlock_append(const EntryMap& diff, const KeySet& new_keys) override {
    steps_ +=
        "append(" + std::to_string(diff.size()) + "," + std::to_string(new_keys.size()) + ") ";
    return append_succeeds;
  }
  bool try_nonlock_load(EntryMap& out) override {
    steps_ += "load(" + std::to_string(out.size()) + ") ";
    if (load_throws) {
      throw std::runtime_error("load");
    }
    for (const test::Entry& entry : content) {
      out.emplace(buffer(entry.key), buffers(entry.atoms));
    }
    return load_succeeds;
  }
  bool try_nonlock_load_new_keys(KeySet& new_keys) override {
    steps_ += "scan(" + std::to_string(new_keys.size()) + ") ";
    new_keys.insert(buffer("foreign"));
    return scan_succeeds;
  }
  std::uint64_t nonlock_get_disk_usage() const override {
    steps_ += "measure ";
    return 1000;
  }
  void nonlock_clean() override { steps_ += "clean "; }

  std::vector<test::Entry> content;
  bool load_succeeds = true;
  bool load_throws = false;
  bool scan_succeeds = true;
  bool append_succeeds = true;

 private:
  std::string& steps_;
};

struct Steps {
  explicit Steps(std::uint64_t threshold = 0) : controller(threshold) {}

  std::string taken() { return std::exchange(text, ""); }

  std::string text;
  CleanupController controller;
  StepStore store{text, std::make_shared<StepLock>(text), &controller};
};

const EntryMap kOneEntry = test::entry_map({{"k", {"v"}}});

}  // namespace

// --- the sequences ---

TEST(FileStoreLoad, HappensUnderTheLockAndClearsTheMapFirst) {
  Steps steps;
  steps.store.content = {{"a", {"1"}}, {"b", {"2"}}};
  EntryMap out = test::entry_map({{"old", {"1"}}});
  EXPECT_TRUE(steps.store.try_load(out));
  EXPECT_EQ(steps.taken(), "lock load(0) unlock ");
  EXPECT_EQ(test::listing(out), "a=1\nb=2\n");
}

TEST(FileStoreLoad, MeasuresAndCleansBeforeAnythingIsRead) {
  Steps steps(100);
  EntryMap out;
  EXPECT_TRUE(steps.store.try_load(out));
  EXPECT_EQ(steps.taken(), "lock measure clean measure load(0) unlock ");
}

TEST(FileStoreLoad, AFailureIsHandedOnAndTheLockIsReleased) {
  Steps steps;
  steps.store.load_succeeds = false;
  EntryMap out;
  EXPECT_FALSE(steps.store.try_load(out));
  EXPECT_EQ(steps.taken(), "lock load(0) unlock ");
}

TEST(FileStoreLoad, ReleasesTheLockWhenReadingThrows) {
  Steps steps;
  steps.store.load_throws = true;
  EntryMap out;
  EXPECT_THROW(steps.store.try_load(out), std::runtime_error);
  EXPECT_EQ(steps.taken(), "lock load(0) unlock ");
}

TEST(FileStoreDiff, ScansForForeignKeysThenAppendsThenCleansUnderOneLock) {
  Steps steps(100);
  EXPECT_TRUE(steps.store.try_store_diff(kOneEntry));
  EXPECT_EQ(steps.taken(), "lock scan(0) append(1,1) measure clean measure unlock ");
}

TEST(FileStoreDiff, CleansAlsoAfterAnAppendThatFailed) {
  Steps steps(100);
  steps.store.append_succeeds = false;
  EXPECT_FALSE(steps.store.try_store_diff(kOneEntry));
  EXPECT_EQ(steps.taken(), "lock scan(0) append(1,1) measure clean measure unlock ");
}

TEST(FileStoreDiff, AFailedScanIsNoObstacleWhenNothingWasLoaded) {
  Steps steps;
  steps.store.scan_succeeds = false;
  EXPECT_TRUE(steps.store.try_store_diff(kOneEntry));
  EXPECT_EQ(steps.taken(), "lock scan(0) append(1,1) unlock ");
}

SCENARIO(scan_fails_after_load) {
  Steps steps(100);
  steps.store.content = {{"a", {"1"}}};
  steps.store.scan_succeeds = false;
  EntryMap out;
  steps.store.try_load(out);
  steps.taken();
  std::printf("%d ", steps.store.try_store_diff(kOneEntry));
  std::printf("%s\n", steps.taken().c_str());
  // A failed load keeps the count of the last successful one.
  steps.store.load_succeeds = false;
  steps.store.try_load(out);
  std::printf("%d\n", steps.store.try_store_diff(kOneEntry));
  // A load of no entries clears it.
  steps.store.load_succeeds = true;
  steps.store.content.clear();
  steps.store.try_load(out);
  std::printf("%d\n", steps.store.try_store_diff(kOneEntry));
  return 0;
}

TEST(FileStoreDiff, AFailedScanAfterALoadThatFoundEntriesAppendsNothing) {
  const Ran ran = run_scenario("scan_fails_after_load", {{"QV_LOG_LEVEL", "WARN"}});
  EXPECT_EQ(ran.out, "0 lock scan(0) unlock \n0\n1\n");
  const std::string check = expectation("loaded_map_last_size_ == 0 || new_keys_loaded");
  EXPECT_EQ(without_lines(ran.messages()), (Messages{check, check}));
}

TEST(FileStoreValidity, IsThatOfTheLock) {
  CleanupController controller(0);
  std::string steps;
  EXPECT_TRUE(StepStore(steps, std::make_shared<test::CountingLock>(true), &controller).is_valid());
  EXPECT_FALSE(
      StepStore(steps, std::make_shared<test::CountingLock>(false), &controller).is_valid());
  EXPECT_FALSE(StepStore(steps, nullptr, &controller).is_valid());
}

TEST(FileStoreTickets, EachStoreTakesOneFromItsController) {
  CleanupController controller(0);
  std::string steps;
  const StepStore first(steps, nullptr, &controller);
  const StepStore second(steps, nullptr, &controller);
  EXPECT_EQ(controller.get_ticket(), 2u);
}

SCENARIO(store_without_controller) {
  std::string steps;
  StepStore store(steps, std::make_shared<StepLock>(steps), nullptr);
  EntryMap out;
  store.try_load(out);
  std::printf("%s%lu", steps.c_str(),
              FileStoreSkeleton::get_default_cleanup_controller()->get_ticket());
  return 0;
}

TEST(FileStoreTickets, WithoutAControllerTheDefaultOneServes) {
  const Ran ran =
      run_scenario("store_without_controller", {{"QV_CACHE_STORE_CLEANUP_THRESHOLD", "1"}});
  EXPECT_EQ(ran.out, "lock measure clean measure load(0) unlock 1");
}

// --- paths ---

SCENARIO(store_path) {
  std::printf("[%s]", get_store_file_path("maps").c_str());
  return 0;
}

TEST(StorePath, IsTheRootThenASlashThenTheName) {
  const Ran ran = run_scenario("store_path", {{"QV_CACHE_STORE_ROOT", "/some/root"}});
  EXPECT_EQ(ran.out, "[/some/root/maps]");
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_EQ(run_scenario("store_path", {{"QV_CACHE_STORE_ROOT", "r/"}}).out, "[r//maps]");
}

TEST(StorePath, IsEmptyWithACheckWhenTheRootIsNotSet) {
  const Ran ran = run_scenario("store_path");
  EXPECT_EQ(ran.out, "[]");
  EXPECT_EQ(ran.messages(), Messages{"ERROR Caching enabled, but QV_CACHE_STORE_ROOT not set."});
}

TEST(StorePath, IsEmptyInSilenceWhenTheRootIsEmpty) {
  const Ran ran = run_scenario("store_path", {{"QV_CACHE_STORE_ROOT", ""}});
  EXPECT_EQ(ran.out, "[]");
  EXPECT_EQ(ran.messages(), Messages{});
}

SCENARIO(store_path_at_a_lower_threshold) {
  test::module_of("util/src/cache")->fault_log_level = 1;
  return get_store_file_path("maps").empty() ? 0 : 1;
}

TEST(StorePath, TheMissingRootIsACheckOfSeverity2) {
  EXPECT_EQ(run_scenario("store_path_at_a_lower_threshold").messages(), Messages{});
}

// --- the header ---

SCENARIO(read_header) {
  std::string steps;
  CleanupController controller(0);
  const StepStore store(steps, nullptr, &controller);  // of version 7
  const RoBuffer bytes = buffer(test::read_file(arguments.at(0)));
  BufferReader reader = bytes.reader();
  const bool valid = store.read_header(reader);
  std::printf("%d %zu", valid, reader.position());
  return 0;
}

Ran read_header(const std::string& bytes) {
  const TempDir dir;
  test::write_file(dir.file("header"), bytes);
  return run_scenario("read_header", {}, {dir.file("header")});
}

TEST(StoreHeader, IsAcceptedWhenAllEightBytesAgree) {
  const Ran ran = read_header(test::header_bytes(7) + "rest");
  EXPECT_EQ(ran.out, "1 8");
  EXPECT_EQ(ran.messages(), Messages{});
}

TEST(StoreHeader, OfSevenBytesIsTooShort) {
  const Ran ran = read_header(test::header_bytes(7).substr(0, 7));
  EXPECT_EQ(ran.out, "0 0");
  EXPECT_EQ(without_lines(ran.messages()), Messages{expectation("hdr")});
}

TEST(StoreHeader, OfAnotherVersionIsPassedOverAndRefused) {
  const Ran ran = read_header(test::header_bytes(2));
  EXPECT_EQ(ran.out, "0 8");
  EXPECT_EQ(without_lines(ran.messages()), Messages{test::kOtherHeader});
}

TEST(StoreHeader, WithAnotherMagicNumberIsRefused) {
  EXPECT_EQ(read_header("\xa5\xc3\xa5\xc4" + test::le32(7)).out, "0 8");
}

// --- the file to append to ---

SCENARIO(prepare_to_append) {
  std::string steps;
  CleanupController controller(0);
  const StepStore store(steps, nullptr, &controller);  // of version 7
  std::ofstream file = store.cache_file_prepare_to_append(arguments.at(0));
  std::printf("%d", file.good());
  file << "appended";
  file.close();
  return 0;
}

TEST(StoreFileToAppend, GetsTheHeaderWhenItIsNew) {
  const TempDir dir;
  const Ran ran = run_scenario("prepare_to_append", {}, {dir.file("maps")});
  EXPECT_EQ(ran.out, "1");
  EXPECT_EQ(test::read_file(dir.file("maps")), test::header_bytes(7) + "appended");
  EXPECT_EQ(ran.messages(), Messages{});
}

TEST(StoreFileToAppend, GetsTheHeaderWhenItIsEmpty) {
  const TempDir dir;
  test::write_file(dir.file("maps"), "");
  run_scenario("prepare_to_append", {}, {dir.file("maps")});
  EXPECT_EQ(test::read_file(dir.file("maps")), test::header_bytes(7) + "appended");
}

TEST(StoreFileToAppend, IsLeftAsItIsWhateverItHolds) {
  const TempDir dir;
  test::write_file(dir.file("maps"), "x");
  const Ran ran = run_scenario("prepare_to_append", {}, {dir.file("maps")});
  EXPECT_EQ(ran.out, "1");
  EXPECT_EQ(test::read_file(dir.file("maps")), "xappended");
  EXPECT_EQ(ran.messages(), Messages{});
}

TEST(StoreFileToAppend, IsNotGoodInADirectoryThatDoesNotExist) {
  const TempDir dir;
  const Ran ran = run_scenario("prepare_to_append", {}, {dir.file("none/maps")});
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(without_lines(ran.messages()), Messages{expectation("file.good()")});
}

TEST(StoreFileToAppend, ReportsAHeaderThatCannotBeWritten) {
  const Ran ran = run_scenario("prepare_to_append", {}, {"/dev/full"});
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(ran.messages(), Messages{"ERROR Writing header file failed (/dev/full)"});
}

// --- making a store ---

SCENARIO(make_store) {
  const auto store = test::maps_store(StoreKind::basic);
  std::printf("%s %d", store->type().c_str(), store->is_valid());
  return 0;
}

TEST(MakeFileStore, MakesAValidStoreWithALockOfItsName) {
  const test::StoreRoot root;
  const Ran ran = root.run("make_store");
  EXPECT_EQ(ran.out, "BasicStore 1");
  EXPECT_TRUE(test::exists(root.file("lock_maps")));
  EXPECT_FALSE(test::exists(root.file("maps")));
  EXPECT_EQ(ran.messages(), Messages{});
}

TEST(MakeFileStore, MakesAnInvalidStoreOnARootThatDoesNotExist) {
  const TempDir dir;
  const Ran ran = run_scenario("make_store", {{"QV_CACHE_STORE_ROOT", dir.file("none")}});
  EXPECT_EQ(ran.out, "BasicStore 0");
  EXPECT_EQ(ran.messages(),
            Messages{"WARN Cache store " + dir.file("none") +
                     "/lock_maps lock couldn't be obtained: No such file or directory."});
  EXPECT_FALSE(test::exists(dir.file("none")));
}

// A program that was compiled against a later version may ask for one.
TEST(MakeFileStore, MakesNoStoreOfAnUnknownKind) {
  CleanupController controller(0);
  EXPECT_EQ(make_file_store(static_cast<StoreKind>(99), "maps", &controller), nullptr);
}
