// Whether what was printed has been written.
#ifndef TOOLS_QVUTIL_OUTPUT_WRITTEN_H_
#define TOOLS_QVUTIL_OUTPUT_WRITTEN_H_

#include <cerrno>

#include "qvutil/output/console.h"
#include "qvutil/output/outcome.h"

namespace quorvane::tool {

// Throws Failure if standard output has failed. Call it at once after printing: the stream doesn't
// keep the reason, which errno has until another call fails.
inline void expect_written(Console& console) {
  const int error = errno;
  if (!console.out()) {
    throw failure_of("can't write to standard output", error);
  }
}

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_OUTPUT_WRITTEN_H_
