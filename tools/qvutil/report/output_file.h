// The file that a command makes.
#ifndef TOOLS_QVUTIL_REPORT_OUTPUT_FILE_H_
#define TOOLS_QVUTIL_REPORT_OUTPUT_FILE_H_

#include <string>
#include <string_view>

namespace quorvane::tool {

// Puts a new file in the place of one that may be there, by rename: a reader sees the old one or
// the new one, whole. What is no regular file is written to: a pipe, a device. Throws Failure if
// that can't be done; the old file stays then.
void write_output(const std::string& path, std::string_view bytes);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_OUTPUT_FILE_H_
