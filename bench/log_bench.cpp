// A record of a 90-byte message, compared with one bare write of the same bytes and with
// a logger that flushes its file after every record; and what a call costs that the
// module's level suppresses.
#include <fcntl.h>
#include <quorvane/log.h>
#include <quorvane/module.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

#include "ratio.h"

namespace {

const std::string kMessage(90, 'm');

// A log file that is removed at the end of the run.
class LogFile {
 public:
  explicit LogFile(const char* name)
      : path_(std::filesystem::temp_directory_path() /
              ("qvbench." + std::to_string(getpid()) + "." + name)),
        fd_(open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644)) {}
  ~LogFile() {
    close(fd_);
    std::filesystem::remove(path_);
  }
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  int fd() const { return fd_; }
  const std::filesystem::path& path() const { return path_; }

  // Every measurement begins with an empty file.
  void clear() const {
    if (ftruncate(fd_, 0) != 0) {
      std::perror("ftruncate");
    }
  }

 private:
  std::filesystem::path path_;
  int fd_;
};

LogFile& file() {
  static LogFile log_file("log");
  return log_file;
}

quorvane::module::Module& module() {
  static quorvane::logging::LoggingModuleData outlet{file().fd(), -1, QV_LOG_LEVEL_INFO};
  static quorvane::module::Module record{QV_LOG_LEVEL_INFO, 0, 2, 0, &outlet, nullptr};
  return record;
}

// The bytes of a record, read from the file.
const std::string& record_bytes() {
  static const std::string bytes = [] {
    file().clear();
    QV_LOG(&module(), INFO, "%s", kMessage.c_str());
    std::string text(std::filesystem::file_size(file().path()), '\0');
    const int fd = open(file().path().c_str(), O_RDONLY);
    if (read(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      std::perror("read");
    }
    close(fd);
    return text;
  }();
  return bytes;
}

void record(benchmark::State& state) {
  if (state.thread_index() == 0) {
    file().clear();
  }
  for (auto _ : state) {
    QV_LOG(&module(), INFO, "%s", kMessage.c_str());
  }
}

void bare_write(benchmark::State& state) {
  const std::string& bytes = record_bytes();
  if (state.thread_index() == 0) {
    file().clear();
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(write(file().fd(), bytes.data(), bytes.size()));
  }
}

// Writes the same record: level, UTC time to the microsecond, both ids, message.
void flushing_logger(benchmark::State& state) {
  static const LogFile log_file("peer");
  static const std::shared_ptr<spdlog::logger> logger = [] {
    auto made = spdlog::basic_logger_mt("peer", log_file.path().string());
    made->set_pattern("[%l] %Y-%m-%dT%H:%M:%S.%fZ, %P, %t, \"%v\"", spdlog::pattern_time_type::utc);
    made->flush_on(spdlog::level::info);
    return made;
  }();
  if (state.thread_index() == 0) {
    log_file.clear();
  }
  for (auto _ : state) {
    logger->info("{}", kMessage);
  }
}

void below_level(benchmark::State& state) {
  auto* silent = &module();
  for (auto _ : state) {
    benchmark::DoNotOptimize(silent);
    QV_LOG(silent, DEBUG, "%s", kMessage.c_str());
  }
}

BENCHMARK(record)->UseRealTime()->Repetitions(15)->MinTime(0.05)->Threads(1)->Threads(4);
BENCHMARK(bare_write)->UseRealTime()->Repetitions(15)->MinTime(0.05)->Threads(1)->Threads(4);
BENCHMARK(flushing_logger)->UseRealTime()->Repetitions(15)->MinTime(0.05)->Threads(1)->Threads(4);
BENCHMARK(below_level)->UseRealTime()->Repetitions(5)->MinTime(0.05);

}  // namespace

int main(int argc, char** argv) {
  return bench::run(
      argc, argv,
      {{"record / bare write, 1 thread", "record/threads:1", "bare_write/threads:1", 1.35},
       {"record / bare write, 4 threads", "record/threads:4", "bare_write/threads:4", 1.10},
       {"record / flushing logger, 1 thread", "record/threads:1", "flushing_logger/threads:1",
        0.75},
       {"record / flushing logger, 4 threads", "record/threads:4", "flushing_logger/threads:4",
        0.45}});
}
