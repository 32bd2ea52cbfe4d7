// JSON for programs: what --json prints.
#ifndef TOOLS_QVUTIL_OUTPUT_JSON_H_
#define TOOLS_QVUTIL_OUTPUT_JSON_H_

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "qvutil/output/console.h"

namespace quorvane::tool {

// Members stay in the order in which they were added.
using Json = nlohmann::ordered_json;

// Any bytes without loss: a string if they are UTF-8, else {"hex": "00ff"}.
Json json_of_bytes(std::string_view bytes);

// What json_of_bytes made. Throws Failure for anything else.
std::string bytes_of_json(const Json& json);

// Prints one object as one line.
void print_json(Console& console, const Json& object);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_OUTPUT_JSON_H_
