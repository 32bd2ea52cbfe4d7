#include "src/records.h"

namespace quorvane {
namespace remote {

const Module g_module("cache/remote");

}  // namespace remote
}  // namespace quorvane
