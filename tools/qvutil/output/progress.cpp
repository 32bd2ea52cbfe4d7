#include "qvutil/output/progress.h"

#include <algorithm>
#include <string>
#include <utility>

#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

constexpr const char* kEraseLine = "\r\033[K";
constexpr std::uint64_t kStep = 65536;

}  // namespace

Progress::Progress(Console& console, std::string what, std::uint64_t total)
    : console_(console),
      what_(std::move(what)),
      total_(total),
      shows_(console.style().progress && !console.json()) {}

Progress::~Progress() {
  if (is_on_screen_) {
    console_.err() << kEraseLine << std::flush;
  }
}

void Progress::update(std::uint64_t done) {
  next_done_ = done + kStep;
  const Clock::time_point now = Clock::now();
  if (now < next_) {
    return;
  }
  next_ = now + std::chrono::milliseconds(100);
  is_on_screen_ = true;
  const double seconds = std::chrono::duration<double>(now - start_).count();
  console_.err() << kEraseLine << line(what_, times_ * done, total_, seconds) << std::flush;
}

std::string Progress::line(const std::string& what, std::uint64_t done, std::uint64_t total,
                           double seconds) {
  const double rate = static_cast<double>(done) / seconds;
  std::string text = what + ": ";
  if (total != 0) {
    const int percent =
        static_cast<int>(100 * static_cast<double>(done) / static_cast<double>(total));
    text += std::to_string(std::min(100, percent)) + " % of " + size_text(total) + ", ";
  } else {
    text += size_text(done) + ", ";
  }
  text += size_text(static_cast<std::uint64_t>(rate)) + "/s";
  if (total > done && rate >= 1) {
    text += ", " + duration_text(static_cast<double>(total - done) / rate) + " left";
  }
  return text;
}

}  // namespace quorvane::tool
