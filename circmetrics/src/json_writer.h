// Writes one JSON value into a string.
#ifndef CIRCMETRICS_SRC_JSON_WRITER_H_
#define CIRCMETRICS_SRC_JSON_WRITER_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace circmetrics {

// Valid JSON as long as begin and end match and every member has a key. Used by
// one thread. By hand, so that the recorder needs no package: of a JSON library it
// would use no more than this.
class JsonWriter {
 public:
  void begin_object();
  void end_object();
  void key(std::string_view name);

  void number(std::int64_t value);
  void number(std::uint64_t value);
  void number(double value);  // null when not finite: JSON has no such numbers
  void null() { text_ += "null"; }

  const std::string& text() const { return text_; }

 private:
  void append_escaped(std::string_view name);

  std::string text_;
  bool first_ = true;  // in its object
};

}  // namespace circmetrics

#endif  // CIRCMETRICS_SRC_JSON_WRITER_H_
