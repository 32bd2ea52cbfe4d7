// The entries of the older kinds.
#ifndef TOOLS_QVUTIL_STORE_RECORD_FORMATS_H_
#define TOOLS_QVUTIL_STORE_RECORD_FORMATS_H_

#include <cstdint>
#include <string_view>

#include "qvutil/store/records.h"

namespace quorvane::tool {

class BasicFormat : public RecordFormat {
 public:
  explicit BasicFormat(std::string_view bytes) : RecordFormat(bytes, 30, true) {}
  Record read(std::uint64_t offset, Entry& entry) const override;
};

class LazyFormat : public RecordFormat {
 public:
  // The atoms are in `values`.
  LazyFormat(std::string_view bytes, std::string_view values)
      : RecordFormat(bytes, 37, false), values_(values) {}
  Record read(std::uint64_t offset, Entry& entry) const override;

 private:
  std::string_view values_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_RECORD_FORMATS_H_
