#include "qvutil/commands/stats.h"

#include <cerrno>
#include <cstdint>
#include <memory>
#include <set>
#include <utility>

#include "qvutil/output/text.h"
#include "qvutil/report/intervals.h"
#include "qvutil/report/metrics_printer.h"
#include "qvutil/report/processes.h"
#include "qvutil/report/prometheus.h"
#include "qvutil/report/report_file.h"

namespace quorvane::tool {
namespace {

// So that what was read is seen while more is waited for. At the end of the command, its caller
// does it.
void flush(Console& console, const StatsOptions& options) {
  errno = 0;
  if (options.follow && !console.out().flush()) {
    throw failure_of("can't write to standard output", errno);
  }
}

// Each report, or each interval, as it comes.
class Stream {
 public:
  Stream(Console& console, const StatsOptions& options)
      : console_(console), options_(options), types_(options.gauges), intervals_(types_, false) {
    if (options.csv) {
      printer_ = std::make_unique<CsvPrinter>(console);
    } else {
      printer_ = std::make_unique<TablePrinter>(console);
    }
  }

  void take(Report report, std::size_t size) {
    if (options_.rate) {
      if (const auto interval = intervals_.next(std::move(report), size)) {
        printer_->interval(*interval, types_);
      }
      return;
    }
    printer_->report(report, types_);
    intervals_.next(std::move(report), size);
  }

  void at_end() { flush(console_, options_); }

 private:
  Console& console_;
  const StatsOptions& options_;
  MetricTypes types_;
  Intervals intervals_;
  std::unique_ptr<MetricsPrinter> printer_;
};

// The last report of each process. While a file is followed, each process's table is printed
// again after it has reported.
class Last {
 public:
  Last(Console& console, const StatsOptions& options)
      : console_(console), options_(options), types_(options.gauges), printer_(console) {}

  void take(Report report, std::size_t size) {
    types_.see(report, processes_.last_of(report.process));
    new_.insert(report.process);
    processes_.keep(std::move(report), size);
  }

  void at_end() {
    if (options_.prometheus) {
      write_prometheus(console_.out(), processes_, types_);
    } else {
      processes_.for_each([&](const Report& report) {
        if (new_.count(report.process) != 0) {
          printer_.report(report, types_);
        }
      });
    }
    new_.clear();
    flush(console_, options_);
    if (processes_.forgotten() != forgotten_) {
      forgotten_ = processes_.forgotten();
      console_.err() << "qvutil: " << shown(options_.path) << ": " << grouped(forgotten_)
                     << " processes are left out: too many others have reported since\n";
    }
  }

 private:
  Console& console_;
  const StatsOptions& options_;
  MetricTypes types_;
  TablePrinter printer_;
  Processes processes_;
  std::set<ProcessKey> new_;
  std::uint64_t forgotten_ = 0;
};

template <typename Reader>
Outcome read_with(Reader reader, Console& console, const StatsOptions& options) {
  const auto handler = [&](Report report, std::size_t size) {
    reader.take(std::move(report), size);
  };
  const ReportFileOptions file{options.path, options.follow, [&] { reader.at_end(); }};
  return read_reports(console, file, handler) == 0 ? Outcome::fine : Outcome::found;
}

}  // namespace

Outcome stats(Console& console, const StatsOptions& options) {
  if (options.prometheus && (options.follow || options.rate || options.csv || console.json())) {
    throw Failure(
        "--prometheus prints one state: it doesn't go with --follow, --rate, --csv or --json");
  }
  if (options.csv && console.json()) {
    throw Failure("--csv doesn't go with --json");
  }
  return options.rate || options.csv ? read_with(Stream(console, options), console, options)
                                     : read_with(Last(console, options), console, options);
}

}  // namespace quorvane::tool
