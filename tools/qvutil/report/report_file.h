// The reports of a file.
#ifndef TOOLS_QVUTIL_REPORT_REPORT_FILE_H_
#define TOOLS_QVUTIL_REPORT_REPORT_FILE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "qvutil/output/console.h"
#include "qvutil/report/report.h"

namespace quorvane::tool {

struct ReportFileOptions {
  std::string path;  // "-": standard input
  bool follow = false;
  // Called at the end of the file, each time that it is reached.
  std::function<void()> at_end = [] {};
};

// A report, and the size of its line.
using ReportHandler = std::function<void(Report report, std::size_t size)>;

// Hands out the reports of a file, in their order. With `follow`, waits for more, also in a file
// that takes the place of this one, until SIGINT or SIGTERM. Lines that are no reports are said
// on standard error: the first of them, and how many there were. Returns how many. Throws
// Failure if the file can't be read.
std::uint64_t read_reports(Console& console, const ReportFileOptions& options,
                           const ReportHandler& handler);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REPORT_REPORT_FILE_H_
