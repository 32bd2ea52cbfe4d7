#include "qvutil/rewrite/install_lazy.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"
#include "qvutil/rewrite/file_calls.h"
#include "qvutil/rewrite/output_file.h"
#include "qvutil/store/format.h"
#include "qvutil/store/mapped_file.h"

namespace quorvane::tool {
namespace {

using format::kHeaderSize;

void cut(const std::string& path, std::uint64_t size) {
  if (truncate(path.c_str(), static_cast<off_t>(size)) != 0) {
    throw failure_of("can't cut " + shown(path), errno);
  }
}

// The values of one file, copied to an offset of another or of the same.
void copy_values(const std::string& from, const std::string& to, std::uint64_t offset) {
  const FileDescriptor source(from, O_RDONLY);
  const FileDescriptor target(to, O_WRONLY);
  copy_bytes(source.get(), kHeaderSize, target.get(), offset);
  if (fsync(target.get()) != 0) {
    throw failure_of("can't write " + shown(to), errno);
  }
}

void append_values(const std::string& from, const std::string& to, std::uint64_t size,
                   std::uint64_t offset) {
  try {
    copy_values(from, to, offset);
  } catch (const Failure&) {
    cut(to, size);
    throw;
  }
}

// Reads a number and moves behind it.
std::uint64_t next_number(std::string_view bytes, std::uint64_t& at) {
  const auto number = format::number_at<std::uint64_t>(bytes, at);
  at += sizeof(number);
  return number;
}

// An old pair without entries fits any value file, and one without a value file never opens.
bool install_simply(const CacheFiles& staged, const CacheFiles& cache) {
  const auto old_keys = size_of_file(cache.path("key_"));
  const auto old_values = size_of_file(cache.path("val_"));
  const bool keys_first = !old_values;
  if (!keys_first && old_keys.value_or(0) > kHeaderSize) {
    return false;
  }
  put_in_place(staged.path(keys_first ? "key_" : "val_"), cache.path(keys_first ? "key_" : "val_"));
  put_in_place(staged.path(keys_first ? "val_" : "key_"), cache.path(keys_first ? "val_" : "key_"));
  return true;
}

// This tool has just written the key file, and nobody else knows it.
void move_offsets(const std::string& from, const std::string& to, std::uint64_t distance) {
  auto file = MappedFile::open(from);
  const std::string_view bytes = file ? file->bytes() : std::string_view();
  OutputFile moved(to);
  moved.write(bytes.substr(0, kHeaderSize));
  for (std::uint64_t start = kHeaderSize; start < bytes.size();) {
    std::uint64_t at = start + sizeof(format::kMagic);
    at += next_number(bytes, at);  // the key
    moved.write(bytes.substr(start, at - start));
    moved.number(next_number(bytes, at) + distance);
    const std::uint64_t atoms_at = at;
    at += next_number(bytes, at) * sizeof(std::uint64_t);
    moved.write(bytes.substr(atoms_at, at - atoms_at));
    start = at;
  }
  moved.finish();
}

}  // namespace

void install_lazy(const CacheFiles& staged, const CacheFiles& cache) {
  if (install_simply(staged, cache)) {
    return;
  }
  const std::string keys = staged.path("key_");
  const std::string values = staged.path("val_");
  const std::string moved_keys = staged.path("moved_key_");
  const std::uint64_t old_size = size_of_file(cache.path("val_")).value_or(0);
  const std::uint64_t new_size = size_of_file(values).value_or(0);
  // Values that share bytes in the old file don't in the new one, which may so be the longer.
  const std::uint64_t second = std::max({old_size, new_size, kHeaderSize});
  move_offsets(keys, moved_keys, second - kHeaderSize);
  adopt_mode(moved_keys, cache.path("key_"));
  sync_file(moved_keys);
  copy_values(values, values, second);

  append_values(values, cache.path("val_"), old_size, second);
  put_in_place(moved_keys, cache.path("key_"));
  put_in_place(values, cache.path("val_"));
  put_in_place(keys, cache.path("key_"));
  cut(cache.path("val_"), new_size);
}

}  // namespace quorvane::tool
