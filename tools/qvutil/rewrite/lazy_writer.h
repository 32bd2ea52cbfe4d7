// The two files of a lazy cache.
#ifndef TOOLS_QVUTIL_REWRITE_LAZY_WRITER_H_
#define TOOLS_QVUTIL_REWRITE_LAZY_WRITER_H_

#include "qvutil/rewrite/entry_writer.h"
#include "qvutil/rewrite/output_file.h"
#include "qvutil/rewrite/seen_keys.h"

namespace quorvane::tool {

// The library would keep all keys in memory.
class LazyWriter : public EntryWriter {
 public:
  explicit LazyWriter(const CacheFiles& files);

  bool add(std::string_view key, const Atoms& atoms) override;
  void finish() override;

 private:
  OutputFile keys_;
  OutputFile values_;
  SeenKeys seen_;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_LAZY_WRITER_H_
