// Where a command prints, and in what form.
#ifndef TOOLS_QVUTIL_OUTPUT_CONSOLE_H_
#define TOOLS_QVUTIL_OUTPUT_CONSOLE_H_

#include <ostream>
#include <string>
#include <string_view>

namespace quorvane::tool {

enum class Colour { none, red, green, yellow, bold, dim };

// Results go to out(), everything else to err(). With --json, each line of out() is one JSON
// object, and there is nothing else.
class Console {
 public:
  struct Style {
    bool json = false;
    bool colour = false;
    bool progress = false;  // standard error is a terminal
    int columns = 0;        // of the terminal that standard output is; 0: it is none
  };

  Console(std::ostream& out, std::ostream& err, Style style)
      : out_(out), err_(err), style_(style) {}

  // Of this process: colour on a terminal unless NO_COLOR is set or TERM is dumb.
  static Style style_of_process(bool json);

  std::ostream& out() {
    if (style_.columns != 0) {
      clear_status();
    }
    return out_;
  }
  std::ostream& err() {
    clear_status();
    return err_;
  }

  // Shows a line on standard error, a terminal, until it is cleared or another text is printed on
  // the terminal.
  void show_status(std::string_view text);
  void clear_status();

  const Style& style() const { return style_; }
  bool json() const { return style_.json; }

  // `text` in this colour, if colours are used.
  std::string paint(Colour colour, std::string_view text) const;

 private:
  std::ostream& out_;
  std::ostream& err_;
  Style style_;
  bool has_status_ = false;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_OUTPUT_CONSOLE_H_
