// What the stores report to the program's tracer. This program defines one.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <quorvane/tracer.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "support/lazy_files.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_maps.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::BasicStore;
using quorvane::cache::CleanupController;
using quorvane::cache::EntryMap;
using quorvane::cache::KeySet;
using quorvane::cache::LazyLookupStore;
using test::basic_file;
using test::entry_bytes;
using test::kEntries;
using test::Ran;
using test::StoreRoot;

namespace {

// The two reports of an operation come from the same store and share a record.
const void* g_store = nullptr;
const _qv_trace_rpc_t* g_record = nullptr;

constexpr unsigned kStart = 1543;
constexpr unsigned kEnd = 1544;

}  // namespace

// Prints "event/category(bytes)". The library finds this function when it is loaded.
void qvtracer::util::write_trace(const _qv_trace_rpc_t* rpc, _qv_trace_rpc_t* record,
                                 unsigned int event, unsigned int op, const void* a, const void* b,
                                 const void* c, const void* d) {
  std::printf("%u/%u(%lu)", event, op, reinterpret_cast<std::uintptr_t>(b));
  if (event == kStart) {
    std::memset(record, 's', sizeof(*record));
    g_record = record;
  } else if (record != g_record || record->bytes[255] != 's') {
    std::printf("another record");
  }
  if (rpc != nullptr || a != g_store || c != nullptr || d != nullptr) {
    std::printf("other arguments");
  }
}

namespace {

const test::Entry kForeign{"foreign", {"1", "22"}};

std::string reports(unsigned category, std::size_t bytes) {
  const auto report = [&](unsigned event, std::size_t size) {
    return std::to_string(event) + "/" + std::to_string(category) + "(" + std::to_string(size) +
           ")";
  };
  return report(kStart, 0) + report(kEnd, bytes);
}

// Takes the steps that the arguments name, and prints the reports of each in brackets.
template <typename Store>
int take(const test::Arguments& arguments) {
  CleanupController controller(0);
  Store store("maps", std::make_shared<test::CountingLock>(), &controller);
  g_store = &store;
  for (const std::string& step : arguments) {
    EntryMap map;
    KeySet keys;
    std::printf("[");
    if (step == "load") {
      store.try_nonlock_load(map);
    } else if (step == "scan") {
      store.try_nonlock_load_new_keys(keys);
    } else if (step == "append") {
      store.try_nonlock_append(test::entry_map(kEntries), test::key_set({"b"}));
    } else if (step == "others append") {
      test::Maps<Store>::others_append({kForeign});
    } else if (step == "refuse writes" || step == "refuse writes to the second file") {
      test::refuse_writes_to_the_next_file(step == "refuse writes" ? 0 : 1);
    } else {
      test::write_file(test::root_file("maps"), step);
    }
    std::printf("]");
  }
  // A sanitizer checks the types that are destroyed here and opens a pipe for that, which must
  // not get a refused descriptor.
  for (int taken = 0; taken < 2; ++taken) {
    [[maybe_unused]] const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  }
  return 0;
}

SCENARIO(traced_steps) { return take<BasicStore>(arguments); }
SCENARIO(traced_lazy_steps) { return take<LazyLookupStore>(arguments); }

std::string steps(const StoreRoot& root, const test::Arguments& arguments,
                  const std::string& scenario = "traced_steps") {
  const Ran ran = root.run(scenario, arguments);
  EXPECT_TRUE(ran.exited_with(0));
  return ran.out;
}

TEST(StoreTracer, HearsOfALoadWithTheSizeOfTheFile) {
  const StoreRoot root;
  test::write_file(root.file("maps"), basic_file(kEntries));
  EXPECT_EQ(steps(root, {"load"}), "[" + reports(11, basic_file(kEntries).size()) + "]");
}

TEST(StoreTracer, HearsOfALoadThatFindsDamage) {
  const StoreRoot root;
  test::write_file(root.file("maps"), basic_file(kEntries) + "damage");
  EXPECT_EQ(steps(root, {"load"}), "[" + reports(11, basic_file(kEntries).size() + 6) + "]");
}

TEST(StoreTracer, HearsOfAScanWithTheBytesThatAreNew) {
  const StoreRoot root;
  test::write_file(root.file("maps"), basic_file(kEntries));
  const std::string loaded = "[" + reports(11, basic_file(kEntries).size()) + "]";
  EXPECT_EQ(steps(root, {"scan"}), loaded);
  EXPECT_EQ(
      steps(root, {"load", "others append", "scan", "scan"}),
      loaded + "[][" + reports(11, entry_bytes(kForeign).size()) + "][" + reports(11, 0) + "]");
}

TEST(StoreTracer, HearsOfAnAppendWithTheBytesThatItAdded) {
  const StoreRoot root;
  const std::string added = "[" + reports(12, entry_bytes({"aa", {"1"}}).size()) + "]";
  EXPECT_EQ(steps(root, {"append", "append"}), added + added);
  EXPECT_EQ(test::read_file(root.file("maps")),
            basic_file({{"aa", {"1"}}}) + entry_bytes({"aa", {"1"}}));
}

// The stream buffers the entry until its flush, and the bytes are counted after that. The
// first append makes a sanitizer check the types before writes are refused.
TEST(StoreTracer, HearsOfNoBytesOfAnAppendThatIsRefusedAtItsFlush) {
  const StoreRoot root;
  const std::string added = "[" + reports(12, entry_bytes({"aa", {"1"}}).size()) + "]";
  EXPECT_EQ(steps(root, {"append", "refuse writes", "append"}),
            added + "[][" + reports(12, 0) + "]");
}

TEST(StoreTracer, HearsOfNoOperationThatDoesNotGetToTheFilesContent) {
  const StoreRoot root;
  EXPECT_EQ(steps(root, {"load", "scan"}), "[][]");
  const StoreRoot none;
  EXPECT_EQ(
      test::run_scenario("traced_steps", {{"QV_CACHE_STORE_ROOT", none.file("none")}}, {"append"})
          .out,
      "[]");
  test::write_file(root.file("maps"), basic_file(kEntries));
  EXPECT_EQ(steps(root, {"load", "shrunken", "scan"}),
            "[" + reports(11, basic_file(kEntries).size()) + "][][]");
}

// --- the lazy store ---

std::string lazy_steps(const StoreRoot& root, const test::Arguments& arguments) {
  return steps(root, arguments, "traced_lazy_steps");
}

TEST(LazyStoreTracer, HearsOfALoadWithTheSizeOfTheKeyFile) {
  const StoreRoot root;
  test::LazyFiles files = test::lazy_files(kEntries);
  test::write_lazy_files(root.path(), files);
  EXPECT_EQ(lazy_steps(root, {"load"}), "[" + reports(11, files.key.size()) + "]");
  files.key += "damage";
  test::write_lazy_files(root.path(), files);
  EXPECT_EQ(lazy_steps(root, {"load"}), "[" + reports(11, files.key.size()) + "]");
}

TEST(LazyStoreTracer, HearsOfAScanWithTheBytesOfTheKeyFileThatAreNew) {
  const StoreRoot root;
  test::write_lazy_files(root.path(), test::lazy_files(kEntries));
  const std::string loaded = "[" + reports(11, test::lazy_files(kEntries).key.size()) + "]";
  EXPECT_EQ(lazy_steps(root, {"scan"}), loaded);
  EXPECT_EQ(lazy_steps(root, {"load", "others append", "scan", "scan"}),
            loaded + "[][" + reports(11, test::key_file_entry(kForeign, 0).size()) + "][" +
                reports(11, 0) + "]");
}

TEST(LazyStoreTracer, HearsOfAnAppendWithTheBytesThatItAddedToBothFiles) {
  const StoreRoot root;
  const test::Entry added{"aa", {"1"}};
  const std::size_t size =
      test::key_file_entry(added, 0).size() + test::val_file_entry(added).size();
  const std::string expected = "[" + reports(12, size) + "]";
  EXPECT_EQ(lazy_steps(root, {"append", "append"}), expected + expected);
  EXPECT_EQ(test::read_lazy_files(root.path()), test::lazy_files({added, added}));
}

TEST(LazyStoreTracer, HearsOfNoBytesOfTheFileThatIsRefusedAtItsFlush) {
  const test::Entry entry{"aa", {"1"}};
  const std::size_t key_size = test::key_file_entry(entry, 0).size();
  const std::size_t val_size = test::val_file_entry(entry).size();
  const std::string added = "[" + reports(12, key_size + val_size) + "]";
  const StoreRoot root;
  // No key is written without its value.
  EXPECT_EQ(lazy_steps(root, {"append", "refuse writes to the second file", "append"}),
            added + "[][" + reports(12, 0) + "]");
  const StoreRoot other;
  EXPECT_EQ(lazy_steps(other, {"append", "refuse writes", "append"}),
            added + "[][" + reports(12, val_size) + "]");
}

TEST(LazyStoreTracer, HearsOfNoOperationThatDoesNotGetToTheFilesContent) {
  const StoreRoot root;
  EXPECT_EQ(lazy_steps(root, {"load", "scan"}), "[][]");
  const StoreRoot none;
  EXPECT_EQ(test::run_scenario("traced_lazy_steps", {{"QV_CACHE_STORE_ROOT", none.file("none")}},
                               {"append"})
                .out,
            "[]");
}

}  // namespace
