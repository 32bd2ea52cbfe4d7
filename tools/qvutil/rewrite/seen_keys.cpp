#include "qvutil/rewrite/seen_keys.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

// Kept in memory.
constexpr std::size_t kMostKeys = 50000;
constexpr std::size_t kMostKeyBytes = std::size_t{4} << 20;

// A store has no keys without values.
const EntryWriter::Atoms& mark() {
  static const EntryWriter::Atoms atoms{"1"};
  return atoms;
}

}  // namespace

SeenKeys::~SeenKeys() {
  many_.reset();
  if (!own_directory_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(own_directory_, ignored);
  }
}

bool SeenKeys::add(std::string_view key) {
  if (many_ != nullptr) {
    return many_->add(key, mark());
  }
  if (!few_.emplace(key).second) {
    return false;
  }
  few_bytes_ += key.size();
  if (few_.size() > kMostKeys || few_bytes_ > kMostKeyBytes) {
    move_to_store();
  }
  return true;
}

void SeenKeys::move_to_store() {
  std::string directory = directory_ + "/qvutil_keys_XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) {
    throw failure_of("can't make a directory in " + shown(directory_), errno);
  }
  own_directory_ = directory;
  many_ = StoreWriter::into_indexed(own_directory_, "seen");
  for (const std::string& key : few_) {
    many_->add(key, mark());
  }
  few_.clear();
}

}  // namespace quorvane::tool
