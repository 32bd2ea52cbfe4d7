#include "qvutil/rewrite/entry_writer.h"

#include "qvutil/rewrite/basic_writer.h"
#include "qvutil/rewrite/lazy_writer.h"
#include "qvutil/rewrite/store_writer.h"

namespace quorvane::tool {

std::unique_ptr<EntryWriter> make_writer(const CacheFiles& files) {
  switch (files.kind) {
    case Kind::basic:
      return std::make_unique<BasicWriter>(files);
    case Kind::lazy_lookup:
      return std::make_unique<LazyWriter>(files);
    case Kind::indexed:
      break;
  }
  return StoreWriter::into_indexed(files.root, files.name);
}

}  // namespace quorvane::tool
