#include "src/process_generation.h"

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>

namespace quorvane {
namespace {

using Generation = std::atomic<std::uint64_t>;

Generation g_fallback{0};

// The last generation used by this process and its ancestors; a child inherits it.
Generation g_last{0};

void forget_in_child() { g_fallback.store(0, std::memory_order_relaxed); }

// A word that the kernel sets to 0 in every child. If the kernel can't, a fork handler
// does, except in a raw clone, which runs no handlers.
Generation* make_word() {
  const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void* page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page != MAP_FAILED) {
    if (madvise(page, size, MADV_WIPEONFORK) == 0) {
      return new (page) Generation{0};
    }
    munmap(page, size);
  }
  pthread_atfork(nullptr, nullptr, &forget_in_child);
  return &g_fallback;
}

std::atomic<Generation*> g_word{nullptr};

// Two first callers may both make a word; one of the pages then stays unused.
Generation* word() {
  Generation* known = g_word.load(std::memory_order_acquire);
  if (known != nullptr) {
    return known;
  }
  Generation* made = make_word();
  return g_word.compare_exchange_strong(known, made, std::memory_order_acq_rel) ? made : known;
}

}  // namespace

// Relaxed accesses suffice: the number publishes nothing else.
std::uint64_t process_generation() {
  Generation* const generation = word();
  std::uint64_t current = generation->load(std::memory_order_relaxed);
  if (current == 0) {
    const std::uint64_t next = g_last.fetch_add(1, std::memory_order_relaxed) + 1;
    if (generation->compare_exchange_strong(current, next, std::memory_order_relaxed)) {
      current = next;
    }
  }
  return current;
}

}  // namespace quorvane
