// Reads the values of entries.
#ifndef TOOLS_QVUTIL_STORE_VALUE_READER_H_
#define TOOLS_QVUTIL_STORE_VALUE_READER_H_

#include <cstddef>
#include <string_view>

#include "qvutil/store/scan.h"

namespace quorvane::tool {

// A scan of an older kind passes values over. That their bytes can be read is all that can be
// checked of them.
class ValueReader {
 public:
  void read(const Entry& entry) {
    for (const std::string_view atom : entry.atoms) {
      for (std::size_t at = 0; at < atom.size(); at += kPage) {
        read_ = read_ + static_cast<unsigned char>(atom[at]);
      }
    }
  }

 private:
  static constexpr std::size_t kPage = 4096;

  volatile unsigned read_ = 0;  // otherwise the bytes need not be read
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_VALUE_READER_H_
