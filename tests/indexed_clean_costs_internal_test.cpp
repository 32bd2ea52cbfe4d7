// What a process that lives through many cleans of an indexed store holds on to.
#include <gtest/gtest.h>
#include <quorvane/file_store.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "src/cache/indexed/engine.h"
#include "support/descriptors.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

#ifdef QV_SANITIZED
// AddressSanitizer keeps 256 MB of what is freed, unless it is told otherwise.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "quarantine_size_mb=16"; }
#endif

namespace {

using quorvane::cache::EntryMap;
using quorvane::cache::StoreFLock;
using quorvane::cache::indexed::Engine;
using quorvane::util::RoBuffer;
using test::buffer;
using test::buffers;

constexpr std::uint64_t kLimit = 40'000;
constexpr int kCleans = 1000;
#ifdef QV_SANITIZED
constexpr long kMemory = 150'000;  // kB
#else
constexpr long kMemory = 30'000;
#endif
constexpr long kMappings = 40;  // far fewer than cleans

struct Held {
  long mappings = 0;
  long of_deleted_files = 0;
  long kilobytes = 0;         // of addresses
  long kilobytes_in_use = 0;  // of memory
};

Held held() {
  Held now;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line); ++now.mappings) {
    now.of_deleted_files += line.find("_maps (deleted)") != std::string::npos ? 1 : 0;
  }
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    std::istringstream words(line);
    std::string name;
    long number = 0;
    words >> name >> number;
    now.kilobytes = name == "VmSize:" ? number : now.kilobytes;
    now.kilobytes_in_use = name == "VmRSS:" ? number : now.kilobytes_in_use;
  }
  return now;
}

class IndexedCleanCosts : public testing::Test {
 protected:
  IndexedCleanCosts() { setenv("QV_CACHE_STORE_ROOT", root_.path().c_str(), 1); }

  std::unique_ptr<Engine> open() const {
    auto store =
        std::make_unique<Engine>(root_.path(), "maps", std::make_shared<StoreFLock>("maps"));
    EXPECT_TRUE(store->open());
    return store;
  }

  // Stores until the store was cleaned so often; `reader` attaches to the new files each time.
  void clean(Engine& writer, Engine& reader, int times) {
    for (std::uint64_t dropped = writer.dropped(); times > 0; ++number_) {
      EntryMap diff;
      diff.emplace(buffer("key" + std::to_string(number_)), buffers({std::string(5000, 'x')}));
      ASSERT_TRUE(writer.store(diff, kLimit));
      ASSERT_LE(writer.usage(), kLimit);
      std::vector<RoBuffer> value;
      ASSERT_TRUE(reader.find(diff.begin()->first, value));
      times -= writer.dropped() != dropped ? 1 : 0;
      dropped = writer.dropped();
    }
  }

  test::TempDir root_;
  int number_ = 0;
};

TEST_F(IndexedCleanCosts, DoNotGrowWithTheNumberOfCleans) {
  const auto writer = open();
  const auto reader = open();
  const int descriptors = test::open_descriptors();
  std::atomic<bool> is_over{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      std::vector<RoBuffer> value;
      while (!is_over) {
        EXPECT_FALSE(reader->find(buffer("none"), value));
      }
    });
  }
  clean(*writer, *reader, 50);
  const Held before = held();
  clean(*writer, *reader, kCleans);
  Held after = held();
  // Nothing is freed while the scheduler keeps a thread within a look-up.
  const auto is_too_much = [&] {
    return after.kilobytes > before.kilobytes + kMappings * 65'000 ||
           after.kilobytes_in_use > before.kilobytes_in_use + kMemory;
  };
  for (int i = 0; i < kCleans && is_too_much(); ++i) {
    clean(*writer, *reader, 1);
    after = held();
  }
  is_over = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(test::open_descriptors(), descriptors);  // now that no thread opens new files
  EXPECT_LE(after.mappings, before.mappings + kMappings);
  EXPECT_LE(after.of_deleted_files, 4);  // of the reader, which is yet to attach
  EXPECT_LE(after.kilobytes, before.kilobytes + kMappings * 65'000);
  EXPECT_LE(after.kilobytes_in_use, before.kilobytes_in_use + kMemory);
}

}  // namespace
