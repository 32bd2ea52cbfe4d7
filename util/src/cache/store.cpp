#include <quorvane/store.h>

#include "src/cache/checks.h"

namespace quorvane {
namespace cache {

const Module g_module("util/src/cache");

// Out of line, so that the vtables are in this library only.
Store::Lock::~Lock() = default;
Store::~Store() = default;
LookupStore::~LookupStore() = default;
CleanableResource::~CleanableResource() = default;

}  // namespace cache
}  // namespace quorvane
