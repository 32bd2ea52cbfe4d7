// Writes one JSON value into a string.
#ifndef CIRCMETRICS_SRC_JSON_WRITER_H_
#define CIRCMETRICS_SRC_JSON_WRITER_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace circmetrics {

// Valid JSON as long as begin and end match and every member has a key. Used by
// one thread.
//
// Names come from nlohmann-json and digits from the C++ library. Braces and commas
// are by hand: nlohmann-json writes only a whole copy of the state, by recursion that
// a deep namespace ends with the stack, and RapidJSON's writer neither replaces bytes
// that are no UTF-8 nor survives an allocation that fails.
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
