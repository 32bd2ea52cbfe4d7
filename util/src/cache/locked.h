// Holds a store lock for the length of a scope.
#ifndef QUORVANE_SRC_CACHE_LOCKED_H_
#define QUORVANE_SRC_CACHE_LOCKED_H_

#include <quorvane/store.h>

namespace quorvane {
namespace cache {

// Holds the store lock for one load or store, even if that throws.
class Locked {
 public:
  explicit Locked(Store::Lock& lock) : lock_(lock) { lock_.lock(); }
  ~Locked() { lock_.unlock(); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  Store::Lock& lock_;
};

}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_LOCKED_H_
