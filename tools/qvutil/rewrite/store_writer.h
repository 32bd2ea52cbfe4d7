// Entries that go into a store of the library.
#ifndef TOOLS_QVUTIL_REWRITE_STORE_WRITER_H_
#define TOOLS_QVUTIL_REWRITE_STORE_WRITER_H_

#include <quorvane/store.h>

#include <cstddef>
#include <memory>
#include <string>

#include "qvutil/rewrite/entry_writer.h"

namespace quorvane::tool {

// Stores them in batches.
class StoreWriter : public EntryWriter {
 public:
  // An indexed store in an existing directory; new, or with entries.
  static std::unique_ptr<StoreWriter> into_indexed(const std::string& directory,
                                                   const std::string& name);
  // The cache `name` on the servers of the environment. Entries that are there stay as they are.
  static std::unique_ptr<StoreWriter> into_remote(const std::string& name);

  bool add(std::string_view key, const Atoms& atoms) override;
  void finish() override;

 private:
  // `place` is where entries go, for messages.
  StoreWriter(std::unique_ptr<cache::Store> store, std::string place);

  void flush();

  const std::unique_ptr<cache::Store> store_;
  const std::string place_;
  cache::LookupStore* present_ = nullptr;  // can be asked for keys cheaply; else null
  cache::EntryMap batch_;
  std::size_t batch_bytes_ = 0;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_STORE_WRITER_H_
