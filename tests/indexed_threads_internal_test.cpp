// Threads that look up in an indexed store while another one stores.
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "src/cache/indexed/engine.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace {

using quorvane::cache::EntryMap;
using quorvane::cache::StoreFLock;
using quorvane::cache::indexed::Engine;
using quorvane::util::RoBuffer;
using test::buffer;
using test::buffers;

constexpr int kEntries = 3000;  // the index grows twice
constexpr int kReaders = 4;

class IndexedThreads : public testing::Test {
 protected:
  IndexedThreads() {
    setenv("QV_CACHE_STORE_ROOT", root_.path().c_str(), 1);
    store_ = std::make_unique<Engine>(root_.path(), "maps", std::make_shared<StoreFLock>("maps"));
    EXPECT_TRUE(store_->open());
  }

  // What is stored is found, by every thread, as soon as `stored_` says so.
  void read() {
    int wrong = 0;
    for (int number = 0, round = 0; number < kEntries || round < kEntries; ++round) {
      const int stored = stored_;
      if (stored == 0) {
        std::this_thread::yield();
        continue;
      }
      number = stored;
      std::vector<RoBuffer> value;
      const std::string expected = std::to_string(round % stored);
      const bool found = store_->find(buffer("key" + expected), value);
      wrong += found && std::string(reinterpret_cast<const char*>(value[0].get_buffer()),
                                    value[0].get_size()) == expected
                   ? 0
                   : 1;
    }
    wrong_ += wrong;
  }

  void store(int from, int to) {
    EntryMap diff;
    for (int number = from; number < to; ++number) {
      diff.emplace(buffer("key" + std::to_string(number)), buffers({std::to_string(number)}));
    }
    EXPECT_TRUE(store_->store(diff));
    stored_ = to;
  }

  test::TempDir root_;
  std::unique_ptr<Engine> store_;
  std::atomic<int> stored_{0};
  std::atomic<int> wrong_{0};
};

TEST_F(IndexedThreads, FindWhatIsStoredWhileTheIndexGrows) {
  std::vector<std::thread> readers;
  for (int i = 0; i < kReaders; ++i) {
    readers.emplace_back([this] { read(); });
  }
  for (int from = 0; from < kEntries; from += 30) {
    store(from, from + 30);
  }
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(wrong_, 0);
  EXPECT_EQ(store_->entries(), std::uint64_t{kEntries});
}

TEST_F(IndexedThreads, FindWhatIsStoredWhileTheIndexIsDeleted) {
  std::vector<std::thread> readers;
  for (int i = 0; i < kReaders; ++i) {
    readers.emplace_back([this] { read(); });
  }
  for (int from = 0; from < kEntries; from += 30) {
    if (from % 300 == 0) {
      unlink(root_.file("idx_maps").c_str());
    }
    store(from, from + 30);
  }
  for (std::thread& reader : readers) {
    reader.join();
  }
  EXPECT_EQ(wrong_, 0);
}

TEST_F(IndexedThreads, MayAllStore) {
  std::vector<std::thread> writers;
  for (int i = 0; i < kReaders; ++i) {
    writers.emplace_back([this, i] {
      for (int from = 0; from < 300; from += 30) {
        store(i * 100 + from, i * 100 + from + 30);  // most keys are another thread's as well
      }
    });
  }
  for (std::thread& writer : writers) {
    writer.join();
  }
  EXPECT_EQ(store_->entries(), 600U);
}

}  // namespace
