// Which keys have come already.
#ifndef TOOLS_QVUTIL_REWRITE_SEEN_KEYS_H_
#define TOOLS_QVUTIL_REWRITE_SEEN_KEYS_H_

#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "qvutil/rewrite/store_writer.h"

namespace quorvane::tool {

// A set of keys. A large one is an indexed store: its keys don't stay in memory.
class SeenKeys {
 public:
  // `directory` has room for the store, which is removed with the set.
  explicit SeenKeys(std::string directory) : directory_(std::move(directory)) {}
  ~SeenKeys();
  SeenKeys(const SeenKeys&) = delete;
  SeenKeys& operator=(const SeenKeys&) = delete;

  // Whether the key is new. Throws Failure if the store can't be written.
  bool add(std::string_view key);

 private:
  void move_to_store();

  const std::string directory_;
  std::set<std::string, std::less<>> few_;
  std::size_t few_bytes_ = 0;
  std::string own_directory_;  // of many_
  std::unique_ptr<StoreWriter> many_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_SEEN_KEYS_H_
