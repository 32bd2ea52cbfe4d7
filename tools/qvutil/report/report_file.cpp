#include "qvutil/report/report_file.h"

#include <optional>
#include <string>
#include <utility>

#include "qvutil/output/outcome.h"
#include "qvutil/output/progress.h"
#include "qvutil/output/text.h"
#include "qvutil/report/interrupted.h"
#include "qvutil/report/line_reader.h"

namespace quorvane::tool {
namespace {

constexpr int kPeriod = 200;  // milliseconds between two looks at the end of the file

// Reads one file.
class ReportFile {
 public:
  ReportFile(Console& console, const ReportFileOptions& options, const ReportHandler& handler)
      : console_(console),
        options_(options),
        handler_(handler),
        lines_(options.path, kLongestLine) {}

  std::uint64_t read() {
    read_to_end();
    while (options_.follow && !Interrupted::is_set()) {
      Interrupted::pause(kPeriod);
      read_to_end();  // what a process appended to the old file
      const std::string rest(lines_.rest());
      if (lines_.is_at_end() && lines_.reopen()) {
        take_rest(rest);
        read_to_end();
      }
    }
    take_rest(lines_.rest());
    options_.at_end();
    return damaged_;
  }

 private:
  void read_to_end() {
    Progress progress(console_, "reading " + shown(options_.path), lines_.size());
    bool has_new = false;
    for (std::string_view line; !Interrupted::is_set() && lines_.next(line);) {
      take(line);
      progress.at(lines_.done());
      has_new = true;
    }
    if (has_new && options_.follow) {
      options_.at_end();
    }
  }

  // The last line may lack its newline.
  void take_rest(std::string_view rest) {
    if (!rest.empty()) {
      take(rest);
    }
  }

  void take(std::string_view line) {
    ++number_;
    std::optional<Report> report;
    try {
      report = report_of_line(line);
    } catch (const Failure& failure) {
      if (damaged_++ == 0) {
        console_.err() << "qvutil: " << shown(options_.path) << ", line " << number_
                       << ": no report: " << failure.what() << std::endl;
      }
      return;
    }
    handler_(*std::move(report), line.size());
  }

  Console& console_;
  const ReportFileOptions& options_;
  const ReportHandler& handler_;
  LineReader lines_;
  std::uint64_t number_ = 0;
  std::uint64_t damaged_ = 0;
};

}  // namespace

std::uint64_t read_reports(Console& console, const ReportFileOptions& options,
                           const ReportHandler& handler) {
  std::optional<Interrupted> interrupted;
  if (options.follow) {
    interrupted.emplace();
  }
  const std::uint64_t damaged = ReportFile(console, options, handler).read();
  if (damaged != 0) {
    console.err() << "qvutil: " << shown(options.path) << ": " << grouped(damaged)
                  << (damaged == 1 ? " line is no report\n" : " lines are no reports\n");
  }
  return damaged;
}

}  // namespace quorvane::tool
