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
Events events_of(const std::string& text);

// Those of operations, in the order of the file.
Events spans_of(const std::string& text);

Events spans_in(const std::string& path);

// In ns, from a time in us.
std::int64_t nanoseconds(const nlohmann::json& microseconds);

inline const void* as_pointer(std::uint64_t number) {
  // The tracer takes numbers as pointers, and nobody follows these.
  return reinterpret_cast<const void*>(number);  // NOLINT(performance-no-int-to-ptr)
}

// Reports what an append of so many bytes reports, in a program that is linked with the tracer.
void report_append(std::uint64_t bytes, std::uint64_t store = 1);

// The numbers that report_append got.
std::vector<std::uint64_t> bytes_in(const Events& spans);

std::vector<std::uint64_t> numbers_from_0(std::size_t count);

}  // namespace test

#endif  // TESTS_SUPPORT_TRACE_H_
