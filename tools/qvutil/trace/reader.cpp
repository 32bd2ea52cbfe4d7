#include "qvutil/trace/reader.h"

#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <limits>
#include <string>
#include <string_view>

#include "qvutil/output/json.h"
#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

constexpr std::size_t kLongestLine = 65536;

// From us. Nothing beyond what a double holds to the nanosecond.
std::optional<std::int64_t> nanoseconds(const Json& object, const char* member) {
  constexpr double kMost = 4e12;
  const auto found = object.find(member);
  if (found == object.end() || !found->is_number()) {
    return std::nullopt;
  }
  const double microseconds = found->get<double>();
  return microseconds >= 0 && microseconds <= kMost
             ? std::optional(std::llround(microseconds * 1000))
             : std::nullopt;
}

std::optional<std::int64_t> id(const Json& object, const char* member) {
  const auto found = object.find(member);
  return found != object.end() && found->is_number_integer()
             ? std::optional(found->get<std::int64_t>())
             : std::nullopt;
}

std::string text(const Json& object, const char* member) {
  const auto found = object.find(member);
  return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

// Nothing if a viewer couldn't place it.
std::optional<TraceEvent> event_of(std::string_view line) {
  const Json object = Json::parse(line, nullptr, false);
  if (!object.is_object()) {
    return std::nullopt;
  }
  TraceEvent event;
  const std::string phase = text(object, "ph");
  const auto pid = id(object, "pid");
  const auto tid = id(object, "tid");
  if (phase.empty() || !pid) {
    return std::nullopt;
  }
  event.json = line;
  event.pid = *pid;
  event.tid = tid.value_or(0);
  event.name = text(object, "name");
  const auto arguments = object.find("args");
  if (phase == "X") {
    const auto start = nanoseconds(object, "ts");
    const auto duration = nanoseconds(object, "dur");
    if (!start || !duration || !tid) {
      return std::nullopt;
    }
    event.is_span = true;
    event.start = *start;
    event.duration = *duration;
    event.arguments = arguments == object.end() ? "" : arguments->dump();
  } else if (phase == "M" && event.name == "process_name" && arguments != object.end()) {
    event.names_process = true;
    event.name = text(*arguments, "name");
  }
  return event;
}

// The object of a line: "[{...}", ",{...}" or "{...},", and "]" at the end of an array.
std::string_view object_in(std::string_view line) {
  constexpr std::string_view kAround = "[], \t\r";
  const std::size_t first = line.find_first_not_of(kAround);
  return first == std::string_view::npos
             ? std::string_view()
             : line.substr(first, line.find_last_not_of(kAround) + 1 - first);
}

std::uint64_t size_of(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

}  // namespace

TraceReader::TraceReader(Console& console, const std::string& path)
    : path_(path), progress_(console, "reading " + shown(path), size_of(path)) {
  errno = 0;
  in_.open(path, std::ios::binary);
  const int first = in_ ? in_.peek() : 0;
  if (!in_ && !in_.eof()) {
    throw failure_of("can't read " + shown(path), errno);
  }
  if (first != '[' && first != std::ifstream::traits_type::eof()) {
    throw Failure(shown(path) + " is no trace");
  }
}

// False at the end. Keeps no more of a line than kLongestLine bytes.
bool TraceReader::next_line() {
  line_.resize(kLongestLine);
  errno = 0;
  in_.getline(line_.data(), static_cast<std::streamsize>(line_.size()));
  const auto count = static_cast<std::size_t>(in_.gcount());
  done_ += count;
  progress_.at(done_);
  if (in_.bad()) {
    throw failure_of("can't read " + shown(path_), errno);
  }
  is_too_long_ = in_.fail() && !in_.eof();
  if (is_too_long_) {
    in_.clear();
    in_.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    return true;
  }
  const bool has_newline = !in_.eof();
  line_.resize(has_newline ? count - 1 : count);
  is_cut_short_ = !has_newline && !object_in(line_).empty();
  return has_newline || is_cut_short_;
}

std::optional<TraceEvent> TraceReader::next() {
  while (!in_.eof() && next_line()) {
    const std::string_view object = object_in(line_);
    if (object.empty() && !is_too_long_) {
      continue;
    }
    auto event = is_too_long_ ? std::nullopt : event_of(object);
    if (event) {
      is_cut_short_ = false;  // only the newline is missing
      return event;
    }
    damaged_lines_ += is_cut_short_ ? 0 : 1;
  }
  return std::nullopt;
}

}  // namespace quorvane::tool
