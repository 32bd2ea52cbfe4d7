// The file of a basic cache.
#ifndef TOOLS_QVUTIL_REWRITE_BASIC_WRITER_H_
#define TOOLS_QVUTIL_REWRITE_BASIC_WRITER_H_

#include <cstdint>

#include "qvutil/rewrite/entry_writer.h"
#include "qvutil/rewrite/output_file.h"
#include "qvutil/rewrite/seen_keys.h"

namespace quorvane::tool {

// The library would keep all keys in memory.
class BasicWriter : public EntryWriter {
 public:
  explicit BasicWriter(const CacheFiles& files);

  bool add(std::string_view key, const Atoms& atoms) override;
  void finish() override { file_.finish(); }

 private:
  OutputFile file_;
  SeenKeys seen_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_BASIC_WRITER_H_
