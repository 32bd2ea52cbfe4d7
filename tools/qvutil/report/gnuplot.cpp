#include "qvutil/report/gnuplot.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

constexpr std::size_t kLongestTitle = 60;  // characters

// Gnuplot takes a doubled quote for the string's end if it comes first, and what follows a
// semicolon for a command; in backquotes stands a command for the shell. Their look-alikes mean
// nothing to it.
std::string harmless(char c) {
  return c == '\'' ? "\u2019" : c == '`' ? "\u02cb" : std::string(1, c);
}

std::string quoted(const std::string& bytes) {
  std::string text = "'";
  std::size_t width = 0;
  for (const char c : shown(bytes)) {
    const bool begins_character = (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    width += begins_character ? 1 : 0;
    if (width > kLongestTitle) {
      text += "...";
      break;
    }
    text += harmless(c);
  }
  return text + "'";
}

std::string number(double value) {
  std::array<char, 32> text;
  return {text.data(), std::to_chars(text.data(), text.data() + text.size(), value).ptr};
}

std::string data_name(std::size_t panel, std::size_t line) {
  return "$d" + std::to_string(panel) + "_" + std::to_string(line);
}

// Each value from the begin of its interval to its end. An empty line is a gap.
std::string data_of(const std::string& name, const std::vector<Point>& points) {
  std::string text = name + " << EOD\n";
  const Point* before = nullptr;
  for (const Point& point : points) {
    if (before != nullptr && before->to != point.from) {
      text += "\n";
    }
    const std::string value = " " + number(point.value) + "\n";
    text += std::to_string(point.from);
    text += value;
    text += std::to_string(point.to);
    text += value;
    before = &point;
  }
  return text + "EOD\n";
}

std::string heading_of(const Panel& panel) {
  return panel.type == MetricType::counter ? panel.metric + ", a second" : panel.metric;
}

struct Range {
  std::int64_t from = INT64_MAX;
  std::int64_t to = 0;
};

Range range_of(const Panel& panel) {
  Range range;
  for (const PlotLine& line : panel.lines) {
    for (const Point& point : line.points) {
      range.from = std::min(range.from, point.from);
      range.to = std::max(range.to, point.to);
    }
  }
  range.from = std::min(range.from, range.to);
  range.to = std::max(range.to, range.from + 1);  // an axis has a length
  return range;
}

// A tick every so many seconds, at most five of them, at times that people like.
std::int64_t step_of(const Range& range) {
  constexpr std::array<std::int64_t, 20> kSteps{1,     2,     5,     10,    15,     30,    60,
                                                120,   300,   600,   900,   1800,   3600,  7200,
                                                10800, 21600, 43200, 86400, 172800, 604800};
  const std::int64_t least = (range.to - range.from + 4) / 5;
  const auto* const step = std::lower_bound(kSteps.begin(), kSteps.end(), least);
  return step == kSteps.end() ? (least / 604800 + 1) * 604800 : *step;
}

std::string axis_of(const Panel& panel) {
  const Range range = range_of(panel);
  const std::int64_t step = step_of(range);
  const char* format = step < 60 ? "%H:%M:%S" : step < 86400 ? "%H:%M" : "%d %b";
  return "set xrange [" + std::to_string(range.from) + ":" + std::to_string(range.to) +
         "]\nset xtics " + std::to_string(step) + "\nset format x '" + format + "'\nset xlabel '" +
         time_text(range.from) + "'\n";
}

std::string plot_of(const Panel& panel, std::size_t index) {
  std::string text;
  for (std::size_t line = 0; line < panel.lines.size(); ++line) {
    text += data_of(data_name(index, line), panel.lines[line].points);
  }
  text += axis_of(panel) + "set title " + quoted(heading_of(panel)) + " noenhanced\nplot ";
  for (std::size_t line = 0; line < panel.lines.size(); ++line) {
    text += (line == 0 ? "" : ", ") + data_name(index, line) + " using 1:2 with lines lw 2 title " +
            quoted(panel.lines[line].title) + " noenhanced";
  }
  return text + "\n";
}

// The size of a picture with so many panels.
struct Layout {
  explicit Layout(std::size_t panels)
      : columns(panels > 3 ? 2 : 1), rows((panels + columns - 1) / columns) {}
  std::string size() const {
    return std::to_string(columns * 560) + "," + std::to_string(rows * 300);
  }
  std::size_t columns;
  std::size_t rows;
};

std::string terminal_of(PlotForm picture, const Layout& layout) {
  switch (picture) {
    case PlotForm::png:
      return "set terminal pngcairo noenhanced size " + layout.size() + " font 'sans,10'\n";
    case PlotForm::svg:
      return "set terminal svg noenhanced size " + layout.size() +
             " dynamic font 'sans-serif,12' background '#ffffff'\n";
    case PlotForm::inline_svg:
      break;
  }
  // Small, so that texts can still be read where it is made narrower.
  return "set terminal svg noenhanced size 460,290 dynamic font 'sans-serif,13'\n";
}

// Colours that can be told apart, also on black and by the colour-blind.
constexpr const char* kPlotStyle = R"(set encoding utf8
set xdata time
set timefmt '%s'
set yrange [*<0:0<*]
set border 3 lc rgb '#808080'
set tics nomirror textcolor rgb '#808080'
set grid ytics lc rgb '#808080' lw 0.3
set xlabel textcolor rgb '#808080'
set title textcolor rgb '#808080'
set key outside top center horizontal textcolor rgb '#808080'
set linetype 1 lc rgb '#0072b2'
set linetype 2 lc rgb '#e69f00'
set linetype 3 lc rgb '#d55e00'
set linetype 4 lc rgb '#009e73'
set linetype 5 lc rgb '#cc79a7'
set linetype 6 lc rgb '#56b4e9'
set linetype 7 lc rgb '#a0522d'
set linetype 8 lc rgb '#999933'
set linetype cycle 8
)";

// A file in memory.
class Memory {
 public:
  explicit Memory(const char* name) : fd_(memfd_create(name, MFD_CLOEXEC)) {
    if (fd_ == -1) {
      throw failure_of("can't run gnuplot", errno);
    }
  }
  ~Memory() { close(fd_); }
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;

  int fd() const { return fd_; }

  void write(const std::string& text) const {
    for (std::size_t done = 0; done < text.size();) {
      const ssize_t size =
          pwrite(fd_, text.data() + done, text.size() - done, static_cast<off_t>(done));
      if (size == -1 && errno != EINTR) {
        throw failure_of("can't run gnuplot", errno);
      }
      done += static_cast<std::size_t>(std::max<ssize_t>(size, 0));
    }
  }

  std::string read() const {
    std::string text(static_cast<std::size_t>(std::max<off_t>(lseek(fd_, 0, SEEK_END), 0)), '\0');
    const ssize_t size = pread(fd_, text.data(), text.size(), 0);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return text;
  }

 private:
  int fd_;
};

// The last line that has a text: warnings come before the error.
std::string last_line(std::string text) {
  const std::size_t end = text.find_last_not_of(" \n");
  if (end == std::string::npos) {
    return "it said nothing";
  }
  text.resize(end + 1);
  return shown(text.substr(text.find_last_of('\n') + 1));
}

// Returns the status of the process as waitpid(2) gives it.
int spawn_gnuplot(int in, int out, int err) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
  std::array<char, 8> program{"gnuplot"};
  std::array<char, 3> defaults{"-d"};
  const std::array<char*, 3> arguments{program.data(), defaults.data(), nullptr};
  pid_t child = 0;
  const int error =
      posix_spawnp(&child, program.data(), &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    throw failure_of("can't run gnuplot (install it: apt-get install gnuplot-nox)", error);
  }
  int status = 0;
  while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
  }
  return status;
}

}  // namespace

std::string plot_script(const std::vector<Panel>& panels, PlotForm picture) {
  const Layout layout(panels.size());
  std::string text = terminal_of(picture, layout) + kPlotStyle;
  if (panels.size() > 1) {
    text += "set multiplot layout " + std::to_string(layout.rows) + "," +
            std::to_string(layout.columns) + "\n";
  }
  for (std::size_t index = 0; index < panels.size(); ++index) {
    text += plot_of(panels[index], index);
  }
  return text + (panels.size() > 1 ? "unset multiplot\n" : "");
}

std::string run_gnuplot(const std::string& script) {
  const Memory in("script");
  const Memory out("picture");
  const Memory err("complaints");
  in.write(script);
  const int status = spawn_gnuplot(in.fd(), out.fd(), err.fd());
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw Failure("gnuplot couldn't make the picture: " + last_line(err.read()));
  }
  return out.read();
}

}  // namespace quorvane::tool
