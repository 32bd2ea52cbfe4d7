// Which process a report is of.
#ifndef CIRCMETRICS_SRC_PROCESS_H_
#define CIRCMETRICS_SRC_PROCESS_H_

#include <sys/types.h>

#include <array>
#include <ctime>
#include <optional>

namespace circmetrics {

class JsonWriter;

// Two lines of a file are of the same process if they have the same id and start. What isn't
// known is reported as null.
class Process {
 public:
  // This process. Call it with the registration lock held.
  static const Process& current();

  // What the fork handler does in a child. Allocates nothing and makes no file.
  static void begin_child(pid_t parent);

  void write(JsonWriter& json) const;

 private:
  constexpr Process() = default;
  void read_program();

  static Process g_known;

  pid_t id_ = 0;
  pid_t parent_ = 0;
  std::optional<time_t> start_;      // seconds since 1970
  std::array<char, 256> program_{};  // the name of its file; empty until it is read
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_PROCESS_H_
