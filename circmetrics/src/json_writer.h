// Writes one JSON value into a string.
#ifndef CIRCMETRICS_SRC_JSON_WRITER_H_
#define CIRCMETRICS_SRC_JSON_WRITER_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace circmetrics {

// The text is valid JSON as long as begin and end match and every member has a key. For
// one thread.
//
// nlohmann-json writes the names and the C++ library the digits; braces and commas are
// written here. nlohmann-json can only write a complete copy of the state, with a
// recursion that overflows the stack for deep namespaces. RapidJSON's writer neither
// replaces bytes that are not UTF-8 nor survives a failed allocation.
class JsonWriter {
 public:
  void begin_object();
  void end_object();
  void key(std::string_view name);

  void number(std::int64_t value);
  void number(std::uint64_t value);
  void number(double value);  // null when not finite: JSON has no such numbers
  void null() { text_ += "null"; }

  std::string take_text() { return std::move(text_); }

 private:
  std::string text_;
  bool first_ = true;  // in its object
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_JSON_WRITER_H_
