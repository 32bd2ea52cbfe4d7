#include <quorvane/small_utils.h>

#include <atomic>
#include <cstring>

namespace {

std::atomic<std::uint64_t> g_events{0};

}  // namespace

void* qv_find_sequence(const void* haystack, size_t haystack_len, const void* needle,
                       size_t needle_len) {
  // memmem must not be given a null pointer, whatever the lengths.
  if (needle_len == 0) {
    return const_cast<void*>(haystack);
  }
  return haystack_len < needle_len ? nullptr : memmem(haystack, haystack_len, needle, needle_len);
}

void qv_async_inc(void* /*ignored*/) { g_events.fetch_add(1); }

std::uint64_t qv_async_get(void* /*ignored*/) { return g_events.load(); }
