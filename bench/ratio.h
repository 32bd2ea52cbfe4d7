// Ratios between the benchmarks of one run: ours to a peer or to a limit.
//
// Give each benchmark repetitions. Its least time counts, since noise only adds time.
// Random interleaving spreads the noise over both sides.
#ifndef BENCH_RATIO_H_
#define BENCH_RATIO_H_

#include <benchmark/benchmark.h>

#include <cstdio>
#include <limits>
#include <map>
#include <string>
#include <vector>

namespace bench {

struct Ratio {
  std::string label;
  std::string ours;  // the benchmarks' full names
  std::string peer;
  double target;  // at most; 0: none
};

inline void print_ratio_head() { std::printf("\n%-52s %8s %8s\n", "Ratio", "is", "target"); }

// A target of 0 is none.
inline void print_ratio(const std::string& label, double ratio, double target) {
  std::printf("%-52s %8.2f ", label.c_str(), ratio);
  target > 0 ? std::printf("%8.2f\n", target) : std::printf("%8s\n", "-");
}

// Prints as usual, and keeps the least time of each benchmark.
class LeastTimes : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
        const std::string name = run.run_name.function_name +
                                 (run.run_name.args.empty() ? "" : "/" + run.run_name.args) +
                                 (run.run_name.threads.empty() ? "" : "/" + run.run_name.threads);
        auto& least = times_.emplace(name, std::numeric_limits<double>::max()).first->second;
        least = std::min(least, run.GetAdjustedRealTime());
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }

  double time(const std::string& name) const {
    const auto found = times_.find(name);
    return found == times_.end() ? std::numeric_limits<double>::quiet_NaN() : found->second;
  }

  void print_names() const {
    for (const auto& [name, least] : times_) {
      std::printf("  %-50s %14.1f\n", name.c_str(), least);
    }
  }

 private:
  std::map<std::string, double> times_;
};

inline int run(int argc, char** argv, const std::vector<Ratio>& ratios) {
  benchmark::Initialize(&argc, argv);
  LeastTimes times;
  benchmark::RunSpecifiedBenchmarks(&times);
  std::printf("\nLeast times:\n");
  times.print_names();
  print_ratio_head();
  for (const Ratio& ratio : ratios) {
    print_ratio(ratio.label, times.time(ratio.ours) / times.time(ratio.peer), ratio.target);
  }
  return 0;
}

}  // namespace bench

#endif  // BENCH_RATIO_H_
