#include "qvutil/rewrite/lazy_writer.h"

#include "qvutil/store/format.h"

namespace quorvane::tool {

LazyWriter::LazyWriter(const CacheFiles& files)
    : keys_(files.path("key_")), values_(files.path("val_")), seen_(files.root) {
  for (OutputFile* file : {&keys_, &values_}) {
    file->number(format::kMagic);
    file->number(format::kLazyVersion);
  }
}

bool LazyWriter::add(std::string_view key, const Atoms& atoms) {
  if (!seen_.add(key)) {
    return false;
  }
  keys_.number(format::kMagic);
  keys_.number<std::uint64_t>(key.size());
  keys_.write(key);
  keys_.number<std::uint64_t>(values_.size());
  keys_.number<std::uint64_t>(atoms.size());
  values_.number(format::kMagic);
  for (const std::string_view atom : atoms) {
    keys_.number<std::uint64_t>(atom.size());
    values_.write(atom);
  }
  return true;
}

void LazyWriter::finish() {
  values_.finish();
  keys_.finish();
}

}  // namespace quorvane::tool
