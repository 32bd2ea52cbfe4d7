// What a trace file holds, and reports to the tracer.
#ifndef TESTS_SUPPORT_TRACE_H_
#define TESTS_SUPPORT_TRACE_H_

#include <gtest/gtest.h>
#include <quorvane/tracer.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "support/json.h"
#include "support/temp_dir.h"

namespace test {

using Events = std::vector<nlohmann::json>;

// The events of a file's text. Every line must be whole: a bracket or comma, and an object. All
// lines and a closing bracket must be an array.
inline Events events_of(const std::string& text) {
  Events events;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = text.find('\n', at);
    const auto event = nlohmann::json::parse(text.substr(at + 1, end - at - 1), nullptr, false);
    if (end == std::string::npos || !event.is_object() || text[at] != (at == 0 ? '[' : ',')) {
      ADD_FAILURE() << "no event at " << at << ": " << text.substr(at, 200);
      return events;
    }
    events.push_back(event);
    at = end + 1;
  }
  EXPECT_TRUE(nlohmann::json::accept(text + "]"));
  return events;
}

// Those of operations, in the order of the file.
inline Events spans_of(const std::string& text) {
  Events spans;
  for (const nlohmann::json& event : events_of(text)) {
    if (event.at("ph") == "X") {
      spans.push_back(event);
    }
  }
  return spans;
}

inline Events spans_in(const std::string& path) { return spans_of(read_file(path)); }

// In ns, from a time in us.
inline std::int64_t nanoseconds(const nlohmann::json& microseconds) {
  return static_cast<std::int64_t>(microseconds.get<double>() * 1000 + 0.5);
}

inline const void* as_pointer(std::uint64_t number) {
  // The tracer takes numbers as pointers, and nobody follows these.
  return reinterpret_cast<const void*>(number);  // NOLINT(performance-no-int-to-ptr)
}

// Reports what an append of so many bytes reports, in a program that is linked with the tracer.
inline void report_append(std::uint64_t bytes, std::uint64_t store = 1) {
  using quorvane::trace::Event;
  _qv_trace_rpc_t record;
  for (const Event event : {Event::start, Event::end}) {
    qvtracer::util::write_trace(nullptr, &record, static_cast<unsigned>(event),
                                static_cast<unsigned>(quorvane::trace::Operation::store_append),
                                as_pointer(store), as_pointer(event == Event::end ? bytes : 0),
                                nullptr, nullptr);
  }
}

// The numbers that report_append got.
inline std::vector<std::uint64_t> bytes_in(const Events& spans) {
  std::vector<std::uint64_t> bytes;
  for (const nlohmann::json& span : spans) {
    bytes.push_back(span.at("args").at("bytes"));
  }
  return bytes;
}

inline std::vector<std::uint64_t> numbers_from_0(std::size_t count) {
  std::vector<std::uint64_t> numbers;
  for (std::uint64_t number = 0; number < count; ++number) {
    numbers.push_back(number);
  }
  return numbers;
}

}  // namespace test

#endif  // TESTS_SUPPORT_TRACE_H_
