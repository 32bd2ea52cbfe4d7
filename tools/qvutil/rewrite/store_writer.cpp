#include "qvutil/rewrite/store_writer.h"

#include <quorvane/file_store.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"
#include "qvutil/rewrite/remote_library.h"

namespace quorvane::tool {
namespace {

// Of a batch, in memory. An entry in the map takes some 200 bytes more than its own.
constexpr std::size_t kMostEntries = 16384;
constexpr std::size_t kMostBytes = std::size_t{8} << 20;

util::RoBuffer copy_of(std::string_view bytes) {
  return util::RoBuffer::copy(bytes.data(), bytes.size());
}

// The store is a file of this tool: the bounds of the environment are not for it.
cache::CleanupController& no_limit() {
  static cache::CleanupController controller(0);
  return controller;
}

Failure cant_store(const std::string& place, int error) {
  return error != 0 ? failure_of("can't write " + place, error)
                    : Failure("can't write " + place + "; the library's log says why");
}

}  // namespace

std::unique_ptr<StoreWriter> StoreWriter::into_indexed(const std::string& directory,
                                                       const std::string& name) {
  cache::StoreOptions options;
  options.kind = cache::StoreKind::indexed;
  options.name = name;
  options.root = directory;
  options.controller = &no_limit();
  const std::string place = shown(directory + "/dat_" + name);
  errno = 0;
  std::unique_ptr<StoreWriter> writer(new StoreWriter(cache::make_store(options), place));
  cache::EntryMap none;
  if (!writer->store_->try_load(none)) {
    // The library looks for the index after it has failed to make it. The directory is there.
    throw cant_store(place, errno == ENOENT ? 0 : errno);
  }
  writer->present_ = dynamic_cast<cache::LookupStore*>(writer->store_.get());
  return writer;
}

std::unique_ptr<StoreWriter> StoreWriter::into_remote(const std::string& name) {
  errno = 0;
  return std::unique_ptr<StoreWriter>(
      new StoreWriter(make_remote_store(name), shown(name) + " on the servers"));
}

StoreWriter::StoreWriter(std::unique_ptr<cache::Store> store, std::string place)
    : store_(std::move(store)), place_(std::move(place)) {
  if (store_ == nullptr || !store_->is_valid()) {
    throw cant_store(place_, 0);
  }
}

bool StoreWriter::add(std::string_view key, const Atoms& atoms) {
  util::RoBuffer copy = copy_of(key);
  std::vector<util::RoBuffer> value;
  if (batch_.count(copy) != 0 || (present_ != nullptr && present_->find(copy, value))) {
    return false;
  }
  value.clear();
  batch_bytes_ += key.size();
  for (const std::string_view atom : atoms) {
    value.push_back(copy_of(atom));
    batch_bytes_ += atom.size();
  }
  batch_.emplace(std::move(copy), std::move(value));
  if (batch_.size() >= kMostEntries || batch_bytes_ >= kMostBytes) {
    flush();
  }
  return true;
}

void StoreWriter::finish() {
  if (!batch_.empty()) {
    flush();
  }
}

void StoreWriter::flush() {
  errno = 0;
  if (!store_->try_store_diff(batch_)) {
    throw cant_store(place_, present_ != nullptr ? errno : 0);
  }
  batch_.clear();
  batch_bytes_ = 0;
}

}  // namespace quorvane::tool
