#include "qvutil/output/console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace quorvane::tool {
namespace {

constexpr std::string_view kEraseLine = "\r\033[K";

bool wants_colour() {
  const char* no_color = std::getenv("NO_COLOR");
  const char* term = std::getenv("TERM");
  return (no_color == nullptr || *no_color == '\0') &&
         (term == nullptr || std::string_view(term) != "dumb");
}

const char* code_of(Colour colour) {
  switch (colour) {
    case Colour::red:
      return "31";
    case Colour::green:
      return "32";
    case Colour::yellow:
      return "33";
    case Colour::bold:
      return "1";
    case Colour::dim:
      return "2";
    case Colour::none:
      break;
  }
  return "";
}

}  // namespace

Console::Style Console::style_of_process(bool json) {
  Style style;
  style.json = json;
  style.progress = isatty(STDERR_FILENO) != 0;
  if (isatty(STDOUT_FILENO) != 0) {
    winsize size{};
    style.columns =
        ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : 80;
    style.colour = !json && wants_colour();
  }
  return style;
}

// What was printed goes before it, in whole lines.
void Console::show_status(std::string_view text) {
  out_.flush();
  err_ << kEraseLine << text << std::flush;
  has_status_ = true;
}

void Console::clear_status() {
  if (has_status_) {
    has_status_ = false;
    err_ << kEraseLine << std::flush;
  }
}

std::string Console::paint(Colour colour, std::string_view text) const {
  if (!style_.colour || colour == Colour::none) {
    return std::string(text);
  }
  return std::string("\033[") + code_of(colour) + "m" + std::string(text) + "\033[0m";
}

}  // namespace quorvane::tool
