#include "process.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "json_writer.h"

namespace circmetrics {
namespace {

constexpr std::int64_t kNanoseconds = 1'000'000'000;

std::int64_t now(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return time.tv_sec * kNanoseconds + time.tv_nsec;
}

// The content of a file in /proc, up to the size of the buffer; empty if it can't be read.
template <std::size_t kSize>
std::string_view read_file(const char* path, std::array<char, kSize>& buffer) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  const ssize_t size = fd == -1 ? -1 : read(fd, buffer.data(), buffer.size() - 1);
  if (fd != -1) {
    close(fd);
  }
  buffer[size > 0 ? static_cast<std::size_t>(size) : 0] = '\0';
  return buffer.data();
}

// When the process began, in ticks since boot. It is the 22nd field of the file; the second
// is a name in parentheses, which may contain anything.
std::optional<std::int64_t> start_ticks() {
  constexpr int kBlanksAfterName = 20;
  std::array<char, 1024> buffer;
  const std::string_view stat = read_file("/proc/self/stat", buffer);
  std::size_t blank = stat.rfind(')');
  for (int count = 0; count < kBlanksAfterName && blank != stat.npos; ++count) {
    blank = stat.find(' ', blank + 1);
  }
  if (blank == stat.npos) {
    return std::nullopt;
  }
  return std::strtoll(stat.data() + blank, nullptr, 10);
}

std::optional<time_t> start_time() {
  const std::optional<std::int64_t> ticks = start_ticks();
  if (!ticks) {
    return std::nullopt;
  }
  const std::int64_t start = *ticks * (kNanoseconds / sysconf(_SC_CLK_TCK));
  return (now(CLOCK_REALTIME) - now(CLOCK_BOOTTIME) + start) / kNanoseconds;
}

}  // namespace

constinit Process Process::g_known;

// A child that ran no fork handlers is known by its id.
const Process& Process::current() {
  if (g_known.id_ != getpid()) {
    g_known.start_ = start_time();
    g_known.parent_ = getppid();
    g_known.id_ = getpid();
  }
  if (g_known.program_[0] == '\0') {
    g_known.read_program();
  }
  return g_known;
}

void Process::begin_child(pid_t parent) {
  g_known.start_ = time(nullptr);
  g_known.parent_ = parent;
  g_known.id_ = getpid();
}

// The kernel appends the mark to the name of a file that was deleted or replaced.
void Process::read_program() {
  constexpr std::string_view kDeleted = " (deleted)";
  std::array<char, 4096> path;
  const ssize_t size = readlink("/proc/self/exe", path.data(), path.size());
  std::string_view name(path.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
  name.remove_prefix(name.rfind('/') + 1);
  if (name.ends_with(kDeleted)) {
    name.remove_suffix(kDeleted.size());
  }
  name.copy(program_.data(), program_.size() - 1);
}

void Process::write(JsonWriter& json) const {
  json.begin_object();
  json.key("pid");
  json.number(std::int64_t{id_});
  json.key("program");
  program_[0] != '\0' ? json.string(program_.data()) : json.null();
  json.key("start");
  start_ ? json.number(std::int64_t{*start_}) : json.null();
  json.key("parent");
  json.number(std::int64_t{parent_});
  json.end_object();
}

}  // namespace circmetrics
