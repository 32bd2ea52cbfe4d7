// The log module of the cache and its fault checks.
#ifndef QUORVANE_SRC_CACHE_CHECKS_H_
#define QUORVANE_SRC_CACHE_CHECKS_H_

#include <quorvane/fault.h>
#include <quorvane/module.h>

namespace quorvane {
namespace cache {

extern const Module g_module;

}  // namespace cache
}  // namespace quorvane

#define CACHE_EXPECT(severity, condition) \
  QV_FAULT_EXPECT(::quorvane::cache::g_module, severity, condition, "util/src/cache")
#define CACHE_ASSERT(condition) \
  QV_FAULT_ASSERT(::quorvane::cache::g_module, condition, "util/src/cache")

// The same with a fixed line: readers of logs search for it, so it must not change when the
// code moves. Kept: docs/compatibility.md
#define CACHE_EXPECT_AT(severity, condition, line) \
  QV_FAULT_EXPECT_AT(::quorvane::cache::g_module, severity, condition, "util/src/cache", line)
#define CACHE_ASSERT_AT(condition, line) \
  QV_FAULT_ASSERT_AT(::quorvane::cache::g_module, condition, "util/src/cache", line)

// With a fixed text, where readers of logs search for a condition that the code no longer
// has. Kept: docs/compatibility.md
#define CACHE_EXPECT_AS(severity, condition, text, line) \
  QV_FAULT_EXPECT_AS(::quorvane::cache::g_module, severity, condition, text, "util/src/cache", line)

#endif  // QUORVANE_SRC_CACHE_CHECKS_H_
