#include "src/record.h"

#include <quorvane/log.h>
#include <quorvane/module.h>

#include <cstdio>

namespace quorvane {
namespace tracing {

// Weak, as libQVUtil's reference to the tracer is: a program may have either without the other.
// The second is module::Module::get_internal; a member can't be declared anew.
#pragma weak qv_log_do
module::Module* internal_module() __asm__("_ZN8quorvane6module6Module12get_internalEv")
    __attribute__((weak));

void record_end(const char* path, const char* why) {
  if (&internal_module != nullptr && &qv_log_do != nullptr) {
    qv_log_do(internal_module(), QV_LOG_LEVEL_WARN, 0,
              "Couldn't write the trace %s, so it ends: %s", path, why);
  } else {
    dprintf(2, "Couldn't write the trace %s, so it ends: %s\n", path, why);
  }
}

}  // namespace tracing
}  // namespace quorvane
