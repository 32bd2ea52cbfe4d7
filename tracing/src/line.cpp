#include "src/line.h"

#include <quorvane/tracer.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>

namespace quorvane {
namespace tracing {
namespace {

using trace::Operation;

// A text that is copied with its padding, which is faster than to copy so many bytes as it has.
template <std::size_t kRoom>
struct Padded {
  char bytes[kRoom] = {};
  std::size_t size = 0;

  constexpr Padded() = default;
  constexpr Padded(std::string_view text) : size(text.size()) {
    std::copy(text.begin(), text.end(), bytes);
  }
};

enum class Kind { none, address, number };

struct Argument {
  Padded<16> opening;  // what stands before its value
  Kind kind = Kind::none;
};

// An operation with the meaning of its arguments, as quorvane/tracer.h gives it. The opening goes
// up to the first one, which is an address.
struct Known {
  Padded<64> opening = {};
  Argument b = {};
  Argument c = {};
  Argument d = {};
};

constexpr Argument kBytes{{",\"bytes\":"}, Kind::number};
constexpr Argument kEntries{{",\"entries\":"}, Kind::number};
constexpr Argument kAtoms{{",\"atoms\":"}, Kind::number};
constexpr Argument kKept{{",\"kept\":"}, Kind::number};
constexpr Argument kRequests{{",\"requests\":"}, Kind::number};
constexpr Argument kBuffer{{",\"buffer\":"}, Kind::address};
constexpr Argument kSize{{",\"size\":"}, Kind::number};
constexpr Argument kHead{{",\"head\":"}, Kind::address};
constexpr Argument kTail{{",\"tail\":"}, Kind::address};

// By their numbers, of which one is free.
constexpr auto kFirst = static_cast<unsigned>(Operation::store_load);
constexpr Known kKnown[] = {
    {{",\"name\":\"store_load\",\"args\":{\"store\":"}, kBytes},
    {{",\"name\":\"store_append\",\"args\":{\"store\":"}, kBytes},
    {},
    {{",\"name\":\"pool_allocate\",\"args\":{\"pool\":"}, kBuffer, kSize, kHead},
    {{",\"name\":\"pool_deallocate\",\"args\":{\"pool\":"}, kBuffer, kSize, kHead},
    {{",\"name\":\"pool_free\",\"args\":{\"pool\":"}, kBuffer, kSize, kTail},
    {{",\"name\":\"store_open\",\"args\":{\"store\":"}, kBytes},
    {{",\"name\":\"store_find\",\"args\":{\"store\":"}, kAtoms},
    {{",\"name\":\"store_flush\",\"args\":{\"store\":"}, kEntries},
    {{",\"name\":\"store_recover\",\"args\":{\"store\":"}, kBytes},
    {{",\"name\":\"store_clean\",\"args\":{\"store\":"}, kKept},
    {{",\"name\":\"remote_round_trip\",\"args\":{\"servers\":"}, kRequests},
};
static_assert(kFirst + std::size(kKnown) ==
              static_cast<unsigned>(Operation::remote_round_trip) + 1);

// Null for an operation that only a newer library has.
const Known* known(unsigned operation) {
  const bool is_known = operation >= kFirst && operation - kFirst < std::size(kKnown) &&
                        kKnown[operation - kFirst].opening.size != 0;
  return is_known ? &kKnown[operation - kFirst] : nullptr;
}

template <std::size_t kRoom>
char* put(char* to, const Padded<kRoom>& text) {
  std::memcpy(to, text.bytes, kRoom);
  return to + text.size;
}

template <std::size_t kSize>
char* put(char* to, const char (&text)[kSize]) {
  std::memcpy(to, text, kSize - 1);
  return to + kSize - 1;
}

char* put_number(char* to, std::uint64_t number, int base = 10) {
  return std::to_chars(to, to + 24, number, base).ptr;
}

// As text: an address may have more digits than the numbers of JSON's readers.
char* put_address(char* to, const void* address) {
  to = put(to, "\"0x");
  to = put_number(to, reinterpret_cast<std::uintptr_t>(address), 16);
  return put(to, "\"");
}

// In us, with all of the nanoseconds' digits.
char* put_time(char* to, std::uint64_t nanoseconds) {
  to = put_number(to, nanoseconds / 1000);
  const auto rest = static_cast<unsigned>(nanoseconds % 1000);
  *to++ = '.';
  *to++ = static_cast<char>('0' + rest / 100);
  *to++ = static_cast<char>('0' + rest / 10 % 10);
  *to++ = static_cast<char>('0' + rest % 10);
  return to;
}

char* put_argument(char* to, const Argument& argument, const void* value) {
  if (argument.kind == Kind::none) {
    return to;
  }
  to = put(to, argument.opening);
  return argument.kind == Kind::address ? put_address(to, value)
                                        : put_number(to, reinterpret_cast<std::uintptr_t>(value));
}

}  // namespace

LineStart::LineStart(pid_t process, pid_t thread)
    : size_(static_cast<std::size_t>(
          std::snprintf(bytes_, sizeof(bytes_),
                        ",{\"ph\":\"X\",\"pid\":%d,\"tid\":%d,\"ts\":", process, thread))) {}

char* LineStart::copy_to(char* to) const {
  std::memcpy(to, bytes_, sizeof(bytes_));
  return to + size_;
}

char* write_line(char* to, const LineStart& start, const Span& span) {
  to = start.copy_to(to);
  to = put_time(to, span.start);
  to = put(to, ",\"dur\":");
  to = put_time(to, span.end - span.start);
  if (const Known* const operation = known(span.operation)) {
    to = put_address(put(to, operation->opening), span.a);
    to = put_argument(to, operation->b, span.b);
    to = put_argument(to, operation->c, span.c);
    to = put_argument(to, operation->d, span.d);
  } else {
    to = put_number(put(to, ",\"name\":\"operation_"), span.operation);
    to = put_address(put(to, "\",\"args\":{\"a\":"), span.a);
    to = put_address(put(to, ",\"b\":"), span.b);
    to = put_address(put(to, ",\"c\":"), span.c);
    to = put_address(put(to, ",\"d\":"), span.d);
  }
  if (span.rpc != nullptr) {
    to = put_address(put(to, ",\"rpc\":"), span.rpc);
  }
  return put(to, "}}\n");
}

// A byte that JSON would need an escape for, or that isn't ASCII, becomes a "?".
char* write_process_name(char* to, bool is_first, pid_t process, const char* name) {
  kTraceStart.copy(to, kTraceStart.size());
  *to = is_first ? kTraceStart.front() : ',';
  to += kTraceStart.size();
  to = put_number(to, static_cast<std::uint64_t>(process));
  to = put(to, ",\"tid\":0,\"name\":\"process_name\",\"args\":{\"name\":\"");
  for (const char byte : std::string_view(name, strnlen(name, 64))) {
    const bool is_plain = byte >= ' ' && byte <= '~' && byte != '"' && byte != '\\';
    *to++ = is_plain ? byte : '?';
  }
  return put(to, "\"}}\n");
}

}  // namespace tracing
}  // namespace quorvane
