// Checks of options that are numbers.
#ifndef TOOLS_QVUTIL_CLI_NUMBERS_H_
#define TOOLS_QVUTIL_CLI_NUMBERS_H_

#include <cstdint>

#include <CLI/CLI.hpp>

namespace quorvane::tool {

// A decimal number from `least` up. Give these to transform(): the parser takes -1 for a huge
// number, and 010 for 8.
CLI::Validator whole_number(std::int64_t least);

// Bytes, perhaps with a unit: 512, 10kb, 10kib.
CLI::Validator byte_count();

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_CLI_NUMBERS_H_
