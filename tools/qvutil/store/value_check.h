// The value file of a lazy look-up store.
#ifndef TOOLS_QVUTIL_STORE_VALUE_CHECK_H_
#define TOOLS_QVUTIL_STORE_VALUE_CHECK_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "qvutil/store/scan.h"

namespace quorvane::tool {

// Passes on to a visitor what a scan of the key file visits, and looks meanwhile at what the
// library doesn't: whether a magic number precedes each value, and whether the values lie one
// after the other.
class ValueCheck : public Visitor {
 public:
  // `name` is the value file's.
  ValueCheck(std::string name, std::string_view values, Visitor& visitor)
      : name_(std::move(name)), values_(values), visitor_(visitor) {}

  void entry(const Entry& entry) override;
  void place(const Place& place) override;

  // After the scan: what follows the last value.
  void finish();

 private:
  void tell_gap(std::uint64_t end);

  const std::string name_;
  const std::string_view values_;
  Visitor& visitor_;
  std::uint64_t next_ = 8;  // where the next value should begin
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_VALUE_CHECK_H_
