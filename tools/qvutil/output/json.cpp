#include "qvutil/output/json.h"

#include <string>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
Json json_of_bytes(std::string_view bytes) {
  if (is_utf8(bytes)) {
    return std::string(bytes);
  }
  return Json{{"hex", hex(bytes)}};
}

std::string bytes_of_json(const Json& json) {
  if (json.is_string()) {
    return json.get<std::string>();
  }
  if (json.is_object() && json.size() == 1 && json.contains("hex") && json["hex"].is_string()) {
    return bytes_of_hex(json["hex"].get_ref<const std::string&>());
  }
  throw Failure("expected a string or {\"hex\": ...}, not " + json.dump());
}

void print_json(Console& console, const Json& object) { console.out() << object.dump() << '\n'; }

}  // namespace quorvane::tool
