#include <quorvane/uuid.h>

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/string_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cstdint>
#include <new>

#include "src/once.h"

namespace quorvane {
namespace {

using boost::uuids::uuid;

constexpr std::size_t kPageSize = 4096;

// Has a page of its own, which the kernel sets to 0 in every child: all zeros mean that the
// identity isn't made yet. The halves are atomic, since a fork may come while another thread
// writes them.
class alignas(kPageSize) Identity {
 public:
  bool is_made() const { return made_.has_run(); }

  // Only the first call in a process has an effect.
  void make(const uuid& value) {
    made_.run([&] {
      const auto halves = std::bit_cast<std::array<std::uint64_t, 2>>(value);
      first_.store(halves[0], std::memory_order_relaxed);
      second_.store(halves[1], std::memory_order_relaxed);
    });
  }

  uuid get() const {
    return std::bit_cast<uuid>(std::array<std::uint64_t, 2>{
        first_.load(std::memory_order_relaxed), second_.load(std::memory_order_relaxed)});
  }

 private:
  Once made_;
  std::atomic<std::uint64_t> first_{0};
  std::atomic<std::uint64_t> second_{0};
};

constinit Identity g_identity;

void forget_in_child() { new (&g_identity) Identity; }

// If the kernel can't wipe the page, a fork handler does, except in a raw clone, which runs
// no handlers.
bool renew_in_children() {
  const bool is_page = sysconf(_SC_PAGESIZE) == static_cast<long>(kPageSize);
  return (is_page && madvise(&g_identity, sizeof(g_identity), MADV_WIPEONFORK) == 0) ||
         pthread_atfork(nullptr, nullptr, &forget_in_child) == 0;
}

[[maybe_unused]] const bool g_children_are_renewed = renew_in_children();

}  // namespace

uuid uuid_generate() { return boost::uuids::random_generator()(); }

uuid uuid_parse(const char* text) {
  // The result doesn't tell a malformed text from the text of the nil UUID.
  // Kept: docs/compatibility.md
  try {
    return text == nullptr ? uuid{} : boost::uuids::string_generator()(text);
  } catch (...) {
    return uuid{};
  }
}

std::string uuid_unparse(uuid u) { return boost::uuids::to_string(u); }

void uuid_clear(uuid& u) { std::fill(u.begin(), u.end(), std::uint8_t{0}); }

// Asks the kernel before it enters Once: no other thread waits for the kernel, and an
// exception leaves nothing half made.
uuid get_my_uuid() {
  if (!g_identity.is_made()) {
    g_identity.make(uuid_generate());
  }
  return g_identity.get();
}

}  // namespace quorvane
