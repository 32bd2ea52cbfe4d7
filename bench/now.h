// The clock of the benchmarks that take single times.
#ifndef BENCH_NOW_H_
#define BENCH_NOW_H_

#include <time.h>

namespace bench {

// In us, the same for all processes.
inline double now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

}  // namespace bench

#endif  // BENCH_NOW_H_
