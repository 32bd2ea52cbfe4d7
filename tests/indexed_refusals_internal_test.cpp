// Indexed stores to which the kernel refuses calls, room or permission. Each call of each
// operation is refused in turn.
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/hostile.h"
#include "support/indexed_store.h"
#include "support/refuse_nth.h"
#include "support/scenario.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

#ifdef QV_SANITIZED
// A child is forked for each call, and takes the longer, the more AddressSanitizer keeps of what
// is freed: 256 MB, unless it is told otherwise.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "quarantine_size_mb=4"; }
#endif

using quorvane::cache::EntryMap;
using quorvane::cache::indexed::Engine;
using test::data_path;
using test::Entry;
using test::index_path;
using test::Ran;
using test::StoreRoot;
using Messages = std::vector<std::string>;

namespace {

const std::vector<Entry> kOld = test::numbered_entries(0, 40);
const std::vector<Entry> kNew = test::numbered_entries(400, 420);
const std::vector<Entry> kMany = test::numbered_entries(400, 1060);  // outgrow the first index

using Store = std::shared_ptr<Engine>;

// The file lock has refusals of its own, with tests of their own.
Store make_store() {
  return std::make_shared<Engine>(test::root_path(), "maps",
                                  std::make_shared<test::CountingLock>());
}

Store open_store() {
  const Store store = make_store();
  store->open();
  return store;
}

int stored(Engine& store, const std::vector<Entry>& entries) {
  return test::count_found(store, entries);
}

// What is done while a call is refused: prepared, and then done. `added`: what it stores.
struct Operation {
  std::function<Store()> prepare;
  std::function<bool(Engine&)> run;
  std::vector<Entry> added;
};

bool has_old(Engine& store) { return stored(store, kOld) == static_cast<int>(kOld.size()); }

std::map<std::string, Operation> operations() {
  const auto add = [](const std::vector<Entry>& entries) {
    return [&entries](Engine& store) { return store.store(test::entry_map(entries)); };
  };
  const auto open = [](Engine& store) { return store.open(); };
  return {{"open", {make_store, open, {}}},
          {"rebuild",
           {[] {
              unlink(index_path().c_str());
              return make_store();
            },
            open,
            {}}},
          {"append", {open_store, add(kNew), kNew}},
          {"growth", {open_store, add(kMany), kMany}},
          {"look-ups",
           {[] {
              const Store store = open_store();
              open_store()->store(test::entry_map(kMany));
              return store;
            },
            [](Engine& store) {  // a refusal costs one look-up: the next opens the new files
              return has_old(store) && stored(store, kMany) + 1 >= static_cast<int>(kMany.size());
            },
            {}}},
          {"append after a kill",
           {[] {
              const Store store = open_store();
              test::write_file(data_path(), test::read_file(data_path()) + std::string(100, 'x'));
              return store;
            },
            add(kNew), kNew}},
          {"append to a deleted index",
           {[] {
              const Store store = open_store();
              unlink(index_path().c_str());
              return store;
            },
            add(kNew), kNew}}};
}

void start_again(bool with_old) {
  for (const auto& file : std::filesystem::directory_iterator(test::root_path())) {
    std::filesystem::remove(file);
  }
  if (with_old) {
    open_store()->store(test::entry_map(kOld));
  }
}

// What the next process makes of the files.
bool works_for_the_next(bool had_old, const std::vector<Entry>& added, bool was_stored) {
  const Store store = make_store();
  if (!store->open() || (had_old && !has_old(*store))) {
    return false;
  }
  const int found = stored(*store, added);
  const int all = static_cast<int>(added.size());
  return (found == all || (found == 0 && !was_stored)) && store->store(test::entry_map(kNew)) &&
         stored(*store, kNew) == 20 && !test::exists(test::root_file("new_maps"));
}

constexpr int kDone = 0;
constexpr int kRefused = 1;

// Refuses each call of an operation in turn, and returns how many there were.
int refuse_each_call(const Operation& operation, int error, bool with_old, test::LogTail& log) {
  for (int allowed = 0;; ++allowed) {
    start_again(with_old);
    log.next();
    const test::Refused refused = test::in_child_with_a_refusal(
        allowed, error, operation.prepare,
        [&](const Store& store) { return operation.run(*store) ? kDone : kRefused; });
    const std::size_t records = log.next().size();
    const bool may_fail = error != EINTR || refused.call != SYS_pwrite64;
    if (refused.status > (may_fail ? kRefused : kDone) ||
        (refused.status == kRefused ? records != 1 : records != 0)) {
      std::printf("call %d, %s: ended with %d and %zu records\n", allowed, std::strerror(error),
                  refused.status, records);
    }
    if (!works_for_the_next(with_old, operation.added, refused.status == kDone)) {
      std::printf("call %d (%lu), %s: harmed\n", allowed, refused.call, std::strerror(error));
    }
    if (refused.call == test::kNoCall) {
      return allowed;
    }
  }
}

}  // namespace

// Arguments: the operation, and whether there are files.
SCENARIO(refuse_calls) {
  test::LogTail log;
  const bool with_old = arguments.at(1) == "files";
  const auto all = operations();
  int calls = 0;
  for (const int error : {EIO, ENOSPC, ENOMEM, EMFILE, EINTR}) {
    calls = refuse_each_call(all.at(arguments.at(0)), error, with_old, log);
  }
  std::printf("%d", calls);
  return 0;
}

namespace {

// How many calls an operation makes at least.
void expect_no_harm(const std::string& operation, const std::string& files, int calls) {
  const Ran ran = StoreRoot().run("refuse_calls", {operation, files}, "WARN");
  EXPECT_TRUE(ran.exited_with(0)) << ran.status << ran.err;
  EXPECT_EQ(ran.out.find_first_not_of("0123456789"), std::string::npos) << ran.out;
  EXPECT_GE(std::atoi(ran.out.c_str()), calls);
}

TEST(IndexedRefusals, OfAnyCallOfTheCreationHarmNothing) { expect_no_harm("open", "none", 15); }
TEST(IndexedRefusals, OfAnyCallOfAnOpenHarmNothing) { expect_no_harm("open", "files", 8); }
TEST(IndexedRefusals, OfAnyCallOfARebuildHarmNothing) { expect_no_harm("rebuild", "files", 15); }
TEST(IndexedRefusals, OfAnyCallOfAnAppendHarmNothing) { expect_no_harm("append", "files", 5); }
TEST(IndexedRefusals, OfAnyCallOfAGrowthHarmNothing) { expect_no_harm("growth", "files", 15); }
TEST(IndexedRefusals, OfAnyCallOfALookUpInNewFilesCostOneMiss) {
  expect_no_harm("look-ups", "files", 8);
}
TEST(IndexedRefusals, OfAnyCallAfterAKilledAppendHarmNothing) {
  expect_no_harm("append after a kill", "files", 6);
}
TEST(IndexedRefusals, OfAnyCallOfAnAppendThatMakesTheIndexHarmNothing) {
  expect_no_harm("append to a deleted index", "files", 15);
}

}  // namespace

// --- no room ---

// A process that may write files of this size only. The kernel writes what fits before it
// refuses, so this is also what short writes do.
SCENARIO(limit_file_sizes) {
  const auto operation = operations().at(arguments.at(0));
  const bool with_old = arguments.at(1) == "files";
  int refused = 0;
  for (rlim_t limit = 0; limit < 300000; limit += 1 + limit / 8) {
    start_again(with_old);
    const int status = test::wait_for(test::in_child([&] {
      const Store store = operation.prepare();
      signal(SIGXFSZ, SIG_IGN);
      const rlimit size{limit, limit};
      setrlimit(RLIMIT_FSIZE, &size);
      return operation.run(*store) ? kDone : kRefused;
    }));
    if (status > kRefused || !works_for_the_next(with_old, operation.added, status == kDone)) {
      std::printf("limit %lu: ended with %d\n", limit, status);
    }
    refused += status == kRefused ? 1 : 0;
  }
  std::printf("%d", refused > 3);
  return 0;
}

// An index whose slots the disk has no blocks for would end the process that stores into them.
SCENARIO(count_blocks) {
  start_again(true);
  const Store store = open_store();
  for (const char* when : {"made", "grown", "made again"}) {
    struct stat status {};
    stat(index_path().c_str(), &status);
    if (status.st_blocks * 512 < status.st_size) {
      std::printf("%s: %ld blocks, %ld bytes\n", when, status.st_blocks, status.st_size);
    }
    store->store(test::entry_map(kMany));
    if (std::string(when) == "grown") {
      unlink(index_path().c_str());
      open_store();
    }
  }
  return 0;
}

// --- no permission ---

SCENARIO(use_what_is_read_only) {
  const Store store = make_store();
  const bool is_open = store->open();
  std::printf("%d %d ", is_open, has_old(*store));
  std::printf("%d %d", store->store(test::entry_map(kNew)), has_old(*store));
  return 0;
}

SCENARIO(write_old) {
  start_again(true);
  return 0;
}

// Root may write everywhere. Dropped capabilities stay dropped after exec.
SCENARIO(use_without_privileges) {
  if (geteuid() == 0 && prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE) != 0) {
    std::perror("prctl");
    return 125;
  }
  execl("/proc/self/exe", "test", "--scenario", "use_what_is_read_only", nullptr);
  return 126;
}

namespace {

TEST(IndexedRefusals, OfRoomInTheMiddleOfAnyWriteHarmNothing) {
  const std::vector<test::Arguments> cases{
      {"open", "none"}, {"rebuild", "files"}, {"append", "files"}, {"growth", "files"}};
  for (const test::Arguments& what : cases) {
    const Ran ran = StoreRoot().run("limit_file_sizes", what, "OFF");
    EXPECT_TRUE(ran.exited_with(0)) << what[0];
    EXPECT_EQ(ran.out, "1") << what[0];
  }
}

TEST(IndexedRefusals, OfRoomComeBeforeSlotsAreStored) {
  EXPECT_EQ(StoreRoot().run("count_blocks").out, "");
}

// Parameter: whether the index is there.
class ReadOnlyIndexedStore : public testing::TestWithParam<bool> {
 protected:
  ReadOnlyIndexedStore() {
    root_.run("write_old");
    if (!GetParam()) {
      unlink(root_.file("idx_maps").c_str());
    }
    chmod(root_.file("dat_maps").c_str(), 0444);
    chmod(root_.file("idx_maps").c_str(), 0444);
    chmod(root_.path().c_str(), 0555);
  }
  ~ReadOnlyIndexedStore() override { chmod(root_.path().c_str(), 0755); }

  StoreRoot root_;
};

TEST_P(ReadOnlyIndexedStore, IsReadIfItHasAnIndexAndRefusesAppends) {
  const Ran ran = root_.run("use_without_privileges", {}, "WARN");
  EXPECT_TRUE(ran.exited_with(0)) << ran.status << ran.err;
  EXPECT_EQ(ran.out, GetParam() ? "1 1 0 1" : "0 0 0 0");
  const std::string no_index =
      "ERROR Couldn't make " + root_.file("idx_maps") + ": Permission denied";
  const std::string no_append =
      "WARN Couldn't append to " + root_.file("dat_maps") + ": Permission denied";
  EXPECT_EQ(ran.messages(), GetParam() ? Messages{no_append} : (Messages{no_index, no_index}));
}

INSTANTIATE_TEST_SUITE_P(WithAnIndex, ReadOnlyIndexedStore, testing::Bool(),
                         testing::PrintToStringParamName());

}  // namespace
