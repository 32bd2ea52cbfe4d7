#include "src/text_writer.h"

namespace quorvane {
namespace {

// Moves `format` behind the length modifier there, if any. Whether it stands for 64 bits: l, ll
// and z all do.
bool skip_length(const char*& format) {
  if (*format == 'z') {
    ++format;
    return true;
  }
  const char* const begin = format;
  while (*format == 'l' && format - begin < 2) {
    ++format;
  }
  return format != begin;
}

}  // namespace

bool TextWriter::add_format(const char* format, va_list args) {
  for (;;) {
    const char* const percent = strchrnul(format, '%');
    add({format, static_cast<std::size_t>(percent - format)});
    if (*percent == '\0') {
      return true;
    }
    format = percent + 1;
    const char* const modifier = format;
    const bool is_long = skip_length(format);
    const char conversion = *format++;
    if (conversion == 'd') {
      add_number(is_long ? va_arg(args, std::int64_t) : va_arg(args, int));
    } else if (conversion == 'u') {
      add_number(is_long ? va_arg(args, std::uint64_t) : va_arg(args, unsigned));
    } else if (conversion == 's' && !is_long) {
      const char* const text = va_arg(args, const char*);
      add(text == nullptr ? "(null)" : std::string_view(text, strnlen(text, room())));
    } else if (conversion == '%' && modifier + 1 == format) {
      add("%");
    } else {
      return false;
    }
  }
}

}  // namespace quorvane
