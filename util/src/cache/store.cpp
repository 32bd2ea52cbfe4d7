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

bool LookupStore::find_at_once(const util::RoBuffer& key, std::vector<util::RoBuffer>& value) {
  return find(key, value);
}

void LookupStore::keep_found() {}

}  // namespace cache
}  // namespace quorvane
