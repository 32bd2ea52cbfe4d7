// What a caller gets instead of a store that must exist and doesn't.
#ifndef QUORVANE_SRC_CACHE_MISSING_STORE_H_
#define QUORVANE_SRC_CACHE_MISSING_STORE_H_

#include <string>

#include <quorvane/store.h>

namespace quorvane {
namespace cache {

// Never valid. Using it is a mistake, but harmless: it neither loads nor stores.
class MissingStore : public Store {
 public:
  std::string type() const override { return "MissingStore"; }
  bool is_valid() const override { return false; }
  bool try_store_diff(const EntryMap& /*diff*/) override { return false; }
  bool try_load(EntryMap& /*out*/) override { return false; }
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_MISSING_STORE_H_
