// Writes text into a buffer.
#ifndef QUORVANE_SRC_TEXT_WRITER_H_
#define QUORVANE_SRC_TEXT_WRITER_H_

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace quorvane {

// What doesn't fit is cut. Adds no terminating NUL.
// Allocates nothing and takes no lock, so it is safe in a signal handler and after fork.
class TextWriter {
 public:
  // The caller owns the buffer.
  TextWriter(char* buffer, std::size_t size) : begin_(buffer), at_(buffer), end_(buffer + size) {}

  std::size_t size() const { return static_cast<std::size_t>(at_ - begin_); }
  std::size_t room() const { return static_cast<std::size_t>(end_ - at_); }

  void add(std::string_view text) {
    const std::size_t fits = std::min(text.size(), room());
    std::memcpy(at_, text.data(), fits);
    at_ += fits;
  }

  template <typename Integer>
  void add_number(Integer number) {
    std::array<char, 24> digits;
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), number);
    add({digits.data(), static_cast<std::size_t>(result.ptr - digits.data())});
  }

  // The last `count` digits, with leading zeros. Up to 20.
  void add_digits(std::uint64_t number, std::size_t count) {
    std::array<char, 20> digits;
    for (std::size_t at = count; at-- > 0; number /= 10) {
      digits[at] = static_cast<char>('0' + number % 10);
    }
    add({digits.data(), count});
  }

  // Adds what vsnprintf would print. False if the format has other conversions than %s, %%, and %d
  // and %u with or without l, ll or z; a part of the text has been added then. Most formats have
  // no others, and a process's first vsnprintf takes as long as to open two files.
  bool add_format(const char* format, va_list args);

 private:
  char* const begin_;
  char* at_;
  char* const end_;
};

}  // namespace quorvane

#endif  // QUORVANE_SRC_TEXT_WRITER_H_
