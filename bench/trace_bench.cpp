// An operation in the trace, which has two reports and gives one line of the file, compared with
// the least that it can take: two looks at the clock, a copy of such a line into a buffer, and the
// write of the buffer when it is full.
#include <fcntl.h>
#include <quorvane/tracer.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "ratio.h"

namespace {

constexpr char kVariable[] = "QV_TRACE_FILE";
constexpr std::size_t kBuffer = 65'000;

std::string trace_path() { return std::getenv(kVariable); }
std::string peer_path() { return trace_path() + ".peer"; }

// Every measurement begins with an empty file.
void clear(const std::string& path) {
  if (std::filesystem::exists(path)) {
    std::filesystem::resize_file(path, 0);
  }
}

void report(quorvane::trace::Event event, _qv_trace_rpc_t& record, std::uintptr_t bytes) {
  qvtracer::util::write_trace(nullptr, &record, static_cast<unsigned>(event),
                              static_cast<unsigned>(quorvane::trace::Operation::store_append),
                              &record, reinterpret_cast<const void*>(bytes), nullptr, nullptr);
}

void traced(benchmark::State& state) {
  if (state.thread_index() == 0) {
    clear(trace_path());
  }
  std::uintptr_t bytes = 0;
  for (auto _ : state) {
    _qv_trace_rpc_t record;
    report(quorvane::trace::Event::start, record, 0);
    report(quorvane::trace::Event::end, record, ++bytes);
  }
}

void look_at_the_clock() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  benchmark::DoNotOptimize(time);
}

// As long as a line of the trace.
const std::string kLine(136, 'l');

void clock_and_write(benchmark::State& state) {
  if (state.thread_index() == 0) {
    clear(peer_path());
  }
  const int fd = open(peer_path().c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  static thread_local char buffer[kBuffer];
  std::size_t filled = 0;
  for (auto _ : state) {
    look_at_the_clock();
    look_at_the_clock();
    if (filled + kLine.size() > kBuffer) {
      if (write(fd, buffer, filled) == -1) {
        state.SkipWithError("write");
      }
      filled = 0;
    }
    std::memcpy(buffer + filled, kLine.data(), kLine.size());
    benchmark::ClobberMemory();
    filled += kLine.size();
  }
  close(fd);
}

BENCHMARK(traced)->UseRealTime()->Repetitions(15)->MinTime(0.05)->Threads(1)->Threads(4);
BENCHMARK(clock_and_write)->UseRealTime()->Repetitions(15)->MinTime(0.05)->Threads(1)->Threads(4);

}  // namespace

// The tracer reads its variable when it is loaded.
int main(int argc, char** argv) {
  if (std::getenv(kVariable) == nullptr) {
    const std::string path =
        std::filesystem::temp_directory_path() / ("qvbench." + std::to_string(getpid()) + ".trace");
    setenv(kVariable, path.c_str(), 1);
    execv("/proc/self/exe", argv);
    std::perror("execv");
    return 1;
  }
  const int status = bench::run(argc, argv,
                                {{"traced operation / clock, copy and write, 1 thread",
                                  "traced/threads:1", "clock_and_write/threads:1", 2.0},
                                 {"traced operation / clock, copy and write, 4 threads",
                                  "traced/threads:4", "clock_and_write/threads:4", 2.0}});
  std::filesystem::remove(trace_path());
  std::filesystem::remove(peer_path());
  return status;
}
