#include "qvutil/output/progress.h"

#include <algorithm>
#include <string>
#include <utility>

#include "qvutil/output/text.h"

namespace quorvane::tool {
Progress::Progress(Console& console, std::string what, std::uint64_t total)
    : console_(console),
      what_(std::move(what)),
      total_(total),
      shows_(console.style().progress && !console.json()) {}

Progress::~Progress() { console_.clear_status(); }

void Progress::update(std::uint64_t done) {
  const Clock::time_point now = Clock::now();
  const bool is_anew = done < done_;
  start_ = is_anew ? now : start_;
  done_ = done;
  if (now < next_ || is_anew) {
    return;
  }
  next_ = now + std::chrono::milliseconds(100);
  const double seconds = std::chrono::duration<double>(now - start_).count();
  console_.show_status(line(what_, times_ * done, total_, seconds));
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
