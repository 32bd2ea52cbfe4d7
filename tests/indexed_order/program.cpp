// Threads find what another one stores. Nothing but the index orders what they do, so that
// ThreadSanitizer reports a data race when one of the index's memory orders is too weak.
#include <quorvane/file_store.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "src/cache/indexed/engine.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace {

using quorvane::cache::EntryMap;
using quorvane::cache::StoreFLock;
using quorvane::cache::indexed::Engine;

using Operation = std::function<bool(Engine& store)>;

bool finds(Engine& store) {
  std::vector<quorvane::util::RoBuffer> value;
  return store.find(test::buffer("key"), value);
}

bool reads(Engine& store) {
  EntryMap all;
  return store.read_all(all) && all.size() == 1;
}

// The first look-up also learns how far the data reach. The second one relies on that, and
// is ordered by its slot alone.
const std::vector<Operation> kOperations{finds, finds, reads};

}  // namespace

int main() {
  const test::TempDir root;
  setenv("QV_CACHE_STORE_ROOT", root.path().c_str(), 1);
  Engine store(root.path(), "maps", std::make_shared<StoreFLock>("maps"));
  std::atomic<int> done{store.open() ? 0 : -1};  // operations, and the append before them
  std::vector<std::thread> threads;
  for (const Operation& operation : kOperations) {
    threads.emplace_back([&, turn = static_cast<int>(threads.size()) + 1] {
      while (done.load(std::memory_order_relaxed) != turn) {
        std::this_thread::yield();
      }
      if (!operation(store)) {
        std::_Exit(1);
      }
      done.fetch_add(1, std::memory_order_relaxed);
      // A thread that ends hands its place in the readers' gate on, which orders what follows.
      while (done.load(std::memory_order_relaxed) <= static_cast<int>(kOperations.size())) {
        std::this_thread::yield();
      }
    });
  }
  if (!store.store({{test::buffer("key"), test::buffers({"value"})}})) {
    return 1;
  }
  done.fetch_add(1, std::memory_order_relaxed);
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::puts("all is found");
  return 0;
}
