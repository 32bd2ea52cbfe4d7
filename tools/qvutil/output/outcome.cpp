#include "qvutil/output/outcome.h"

#include <string>
#include <system_error>

namespace quorvane::tool {

Failure failure_of(const std::string& what, int error_number) {
  return Failure(what + ": " + std::generic_category().message(error_number));
}

}  // namespace quorvane::tool
