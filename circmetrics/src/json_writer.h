// Writes one JSON value into a string.
#ifndef CIRCMETRICS_SRC_JSON_WRITER_H_
#define CIRCMETRICS_SRC_JSON_WRITER_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace circmetrics {

// The text is valid JSON as long as begin and end match, every member has a key and every
// element is announced. For one thread.
//
// nlohmann-json writes the strings and the C++ library the digits; braces and commas are
// written here. nlohmann-json can only write a complete copy of the state, with a
// recursion that overflows the stack for deep namespaces. RapidJSON's writer neither
// replaces bytes that are not UTF-8 nor survives a failed allocation.
class JsonWriter {
 public:
  void begin_object();
  void end_object();
  void key(std::string_view name);

  void begin_array();
  void end_array();
  void next_element();  // before each

  void string(std::string_view bytes);

  void number(std::int64_t value);
  void number(std::uint64_t value);
  void number(double value);  // null when not finite: JSON has no such numbers
  void null() { text_ += "null"; }

  // Adds the members of another object, and ends the present one.
  void end_with(std::string_view object);

  std::string take_text() { return std::move(text_); }

 private:
  void begin(char bracket);
  void end(char bracket);
  void separate();

  std::string text_;
  bool first_ = true;  // in its object or array
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_JSON_WRITER_H_
