// The headers of a cache's files.
#ifndef TOOLS_QVUTIL_STORE_HEADERS_H_
#define TOOLS_QVUTIL_STORE_HEADERS_H_

#include <cstdint>

#include "qvutil/store/mapped_file.h"
#include "qvutil/store/scan.h"

namespace quorvane::tool {

// Tells what is wrong with the header of a file. False if the file has no more than that.
bool check_header(MappedFile& file, std::uint32_t magic, std::uint32_t version, std::uint64_t size,
                  Visitor& visitor);

// The same for the data file of an indexed store.
bool check_data_header(MappedFile& file, Visitor& visitor);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_HEADERS_H_
