#include <quorvane/log.h>

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

#include "src/log_file.h"
#include "src/once.h"
#include "src/process_generation.h"
#include "src/text_writer.h"

namespace quorvane {
namespace logging {

const char* QV_LOG_FILE_ENV = "QV_LOG_FILE";
const char* QV_LOG_FILE_GLOBAL_ENV = "QV_LOG_FILE_Global";  // Kept: docs/compatibility.md
const char* QV_LOG_LEVEL_ENV = "QV_LOG_LEVEL";

LoggingModuleData g_singleton_outlet = {-1, -1, QV_LOG_LEVEL_ERROR};

namespace {

constinit LogFile g_log_file;

constexpr std::size_t kRecordSize = 4096;
constexpr std::size_t kLevels = QV_LOG_LEVEL_ALL + 1;

struct LevelStrs {
  std::array<std::string, kLevels> names{"OFF", "ERROR", "WARN", "INFO", "TRACE", "DEBUG", "ALL"};
  std::string unknown{"UNKNOWN"};
};

const LevelStrs& level_strs() {
  static const LevelStrs& strs = *new LevelStrs;
  return strs;
}

// Built at load, so that no fork happens while another thread builds it.
[[maybe_unused]] const LevelStrs& g_built_at_load = level_strs();

std::string_view level_prefix(qv_log_level_t level) {
  static constexpr std::array<std::string_view, kLevels> prefixes{
      "[  OFF] ", "[ERROR] ", "[ WARN] ", "[ INFO] ", "[TRACE] ", "[DEBUG] ", "[  ALL] "};
  const auto index = static_cast<unsigned>(level);
  return index < kLevels ? prefixes[index] : std::string_view("[UNKNOWN] ");
}

// The parts of a record that change at most once a second, and those that never change
// in a process. Each thread keeps its own; in a child of fork they are formatted again.
struct Kept {
  std::uint64_t generation = 0;
  std::int64_t second = std::numeric_limits<std::int64_t>::min();
  unsigned date_length = 0;
  unsigned ids_length = 0;
  std::array<char, 48> date{};  // "2024-03-01T12:00:00."
  std::array<char, 48> ids{};   // "Z, 1234, 1240, \""
};

// Initial-exec puts it in the memory that every thread starts with, where the loader reserves
// a few hundred bytes for libraries that are loaded later. Otherwise, if this library is
// loaded later, a thread's first record would allocate.
__attribute__((tls_model("initial-exec"))) thread_local Kept t_kept;

// UTC by arithmetic: gmtime_r takes a lock, which may be held at a fork.
void keep_date(Kept& kept, std::int64_t second) {
  using namespace std::chrono;
  const sys_seconds now{seconds{second}};
  const auto day = floor<days>(now);
  const year_month_day date{day};
  const hh_mm_ss time{now - day};
  TextWriter text(kept.date.data(), kept.date.size());
  text.add_number(static_cast<int>(date.year()));
  text.add("-");
  text.add_digits(static_cast<unsigned>(date.month()), 2);
  text.add("-");
  text.add_digits(static_cast<unsigned>(date.day()), 2);
  text.add("T");
  text.add_digits(static_cast<std::uint64_t>(time.hours().count()), 2);
  text.add(":");
  text.add_digits(static_cast<std::uint64_t>(time.minutes().count()), 2);
  text.add(":");
  text.add_digits(static_cast<std::uint64_t>(time.seconds().count()), 2);
  text.add(".");
  kept.date_length = static_cast<unsigned>(text.size());
  kept.second = second;
}

void keep_ids(Kept& kept, std::uint64_t generation) {
  TextWriter text(kept.ids.data(), kept.ids.size());
  text.add("Z, ");
  text.add_number(getpid());
  text.add(", ");
  text.add_number(syscall(SYS_gettid));
  text.add(", \"");
  kept.ids_length = static_cast<unsigned>(text.size());
  kept.generation = generation;
}

// A record under construction. It reserves room for the closing quote and newline from the
// start, so that a record whose message is cut is still a whole line.
class Record {
 public:
  void append(std::string_view text) {
    std::memcpy(bytes_.data() + size_, text.data(), text.size());
    size_ += text.size();
  }

  void append_microseconds(std::int64_t microseconds) {
    TextWriter(bytes_.data() + size_, 6).add_digits(static_cast<std::uint64_t>(microseconds), 6);
    size_ += 6;
  }

  // Escapes nothing.
  // Kept: docs/compatibility.md
  void append_message(const char* format, va_list args) __attribute__((format(printf, 2, 0))) {
    const std::size_t room = bytes_.size() - kTail.size() - size_;
    TextWriter text(bytes_.data() + size_, room);
    va_list others;
    va_copy(others, args);
    const bool is_added = text.add_format(format, others);
    va_end(others);
    size_ += is_added ? text.size() : print(room, format, args);
    append(kTail);
  }

  // One write to the descriptor that `fd` refers to at that moment. A failure drops the
  // record, a short write isn't continued, and descriptor 0 gets nothing.
  // Kept: docs/compatibility.md
  void write_to(const int& fd) const {
    while (fd != 0 && ::write(fd, bytes_.data(), size_) == -1 && errno == EINTR) {
    }
  }

 private:
  // Returns the size of what was printed.
  std::size_t print(std::size_t room, const char* format, va_list args)
      __attribute__((format(printf, 3, 0))) {
    char* const message = bytes_.data() + size_;
    *message = '\0';
    // The tail overwrites the terminating NUL.
    const int wanted = std::vsnprintf(message, room + 1, format, args);
    // A text that can't be converted, or has more than INT_MAX bytes, is cut there.
    return wanted < 0 ? strnlen(message, room) : std::min(static_cast<std::size_t>(wanted), room);
  }

  static constexpr std::string_view kTail = "\"\n";
  std::size_t size_ = 0;
  std::array<char, kRecordSize> bytes_;
};

void set_up_outlet() {
  LoggingModuleData& outlet = g_singleton_outlet;
  const std::string path = get_default_log_path();
  if (path.empty()) {
    // QV_LOG_LEVEL has no effect without a log file.
    // Kept: docs/compatibility.md
    outlet.level = outlet.error_fd >= 0 ? QV_LOG_LEVEL_ERROR : QV_LOG_LEVEL_OFF;
    return;
  }
  // Any value turns it on, even "0" and an empty one.
  // Kept: docs/compatibility.md
  const int sync = secure_getenv("QV_LOG_SYNC") != nullptr ? O_SYNC : 0;
  // Survives an exec.
  // Kept: docs/compatibility.md
  outlet.fd = g_log_file.open(path, O_WRONLY | O_CREAT | O_APPEND | sync, 0644);
  outlet.error_fd = STDERR_FILENO;
  if (outlet.fd < 0) {
    std::fprintf(stderr, "QVUtil: Failed to open requested log file %s.\n", path.c_str());
    outlet.level = QV_LOG_LEVEL_ERROR;
    return;
  }
  // An unknown name means INFO, without a record.
  // Kept: docs/compatibility.md
  const char* level = secure_getenv(QV_LOG_LEVEL_ENV);
  if (level == nullptr || !parse_level_string(level, outlet.level)) {
    outlet.level = QV_LOG_LEVEL_INFO;
  }
}

std::string environment(const char* name) {
  const char* value = secure_getenv(name);
  return value == nullptr ? "" : value;
}

}  // namespace

const std::string& level_to_string(qv_log_level_t level) {
  const auto index = static_cast<unsigned>(level);
  return index < kLevels ? level_strs().names[index] : level_strs().unknown;
}

bool parse_level_string(const char* text, qv_log_level_t& out) {
  // Throws std::logic_error when `text` is null.
  // Kept: docs/compatibility.md
  const auto& names = level_strs().names;
  const auto found = std::find(names.begin(), names.end(), std::string(text));
  if (found == names.end()) {
    return false;
  }
  out = static_cast<qv_log_level_t>(found - names.begin());
  return true;
}

void logv_do(LoggingModuleData& outlet, qv_log_level_t level, const char* format, va_list args) {
  const int caller_errno = errno;
  timeval now;
  gettimeofday(&now, nullptr);
  Kept& kept = t_kept;
  if (kept.second != now.tv_sec) {
    keep_date(kept, now.tv_sec);
  }
  const std::uint64_t generation = process_generation();
  if (kept.generation != generation) {
    keep_ids(kept, generation);
  }

  Record record;
  record.append(level_prefix(level));
  record.append({kept.date.data(), kept.date_length});
  record.append_microseconds(now.tv_usec);
  record.append({kept.ids.data(), kept.ids_length});
  errno = caller_errno;  // for %m
  record.append_message(format, args);
  record.write_to(outlet.fd);
  // OFF goes there as well. A file that both descriptors are open on gets the record twice.
  // Kept: docs/compatibility.md
  if (level == QV_LOG_LEVEL_ERROR || level == QV_LOG_LEVEL_OFF) {
    record.write_to(outlet.error_fd);
  }
  errno = caller_errno;
}

std::string get_default_log_path() {
  for (const char* name : {QV_LOG_FILE_ENV, QV_LOG_FILE_GLOBAL_ENV}) {
    if (std::string path = environment(name); !path.empty()) {
      return path;
    }
  }
  const std::string home = environment("HOME");
  std::array<char, 64> host{};
  if (home.empty() || gethostname(host.data(), host.size()) != 0) {
    return "";
  }
  return home + "/.quorvane/" + "qv_Global." + host.data() + ".log";
}

LoggingModuleData* get_singleton_outlet() {
  static constinit Once once;
  once.run(set_up_outlet);
  return &g_singleton_outlet;
}

}  // namespace logging
}  // namespace quorvane

int qv_log_reopen(void) { return quorvane::logging::g_log_file.reopen(); }
