#include <quorvane/binary_dumper.h>
#include <quorvane/module.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace quorvane {
namespace util {
namespace {

// Named after this file and not after BinaryDumper.
// Kept: docs/compatibility.md
const Module g_module("util/src/fatbin_parser");

bool logs_at(qv_log_level_t level) { return g_module->level >= level; }

// An empty TMPDIR is the root directory; "/tmp/" gives a path with two slashes.
// Kept: docs/compatibility.md
const char* default_directory() {
  const char* const set = secure_getenv("TMPDIR");
  return set == nullptr ? "/tmp/" : set;
}

char* own(const char* text, const char* fallback) {
  return strdup(text == nullptr ? fallback : text);
}

// The slash, four digits and the NUL: a longer number cuts the path.
// Kept: docs/compatibility.md
constexpr std::size_t kFixedPart = 6;

// 0 when there was no memory for one of the strings: such a dumper opens no file.
std::uint32_t path_size(const char* directory, const char* prefix, const char* suffix) {
  if (directory == nullptr || prefix == nullptr || suffix == nullptr) {
    return 0;
  }
  return static_cast<std::uint32_t>(std::strlen(directory) + std::strlen(prefix) +
                                    std::strlen(suffix) + kFixedPart);
}

// The caller frees the path; null without memory.
char* make_path(std::uint32_t path_size, const char* directory, const char* prefix, int number,
                const char* suffix) {
  auto* const path = path_size == 0 ? nullptr : static_cast<char*>(std::malloc(path_size));
  if (path != nullptr) {
    std::snprintf(path, path_size, "%s/%s%04d%s", directory, prefix, number, suffix);
  }
  return path;
}

}  // namespace

BinaryDumper::BinaryDumper(const char* name, const char* prefix, const char* suffix,
                           const char* directory, qv_log_level_t level)
    : prefix_(own(prefix, "dump_")),
      name_(own(name, "(Unset)")),
      suffix_(own(suffix, ".bin")),
      directory_(own(directory, default_directory())),
      level_(level),
      path_size_(name_ == nullptr ? 0 : path_size(directory_, prefix_, suffix_)) {}

BinaryDumper::~BinaryDumper() {
  std::free(prefix_);
  std::free(name_);
  std::free(suffix_);
  std::free(directory_);
}

void BinaryDumper::dump(const void* data, std::size_t size) {
  if (data == nullptr) {
    if (logs_at(level_)) {
      qv_log_do(g_module.get(), level_, 0, "Can't dump a %s - no data ptr!", name_);
    }
    return;
  }
  const int number = static_cast<int>(counter_.fetch_add(1));
  char* const path = make_path(path_size_, directory_, prefix_, number, suffix_);
  // Logged before the file is opened, with the low half of the size.
  // Kept: docs/compatibility.md
  if (path != nullptr && logs_at(level_)) {
    qv_log_do(g_module.get(), level_, 0, "Dumping %s #%04d of size %d to %s", name_, number,
              static_cast<int>(size), path);
  }
  std::FILE* const file = path == nullptr ? nullptr : std::fopen(path, "wb");
  std::free(path);
  if (file == nullptr) {
    if (logs_at(level_)) {
      // At the level of all records of this dumper, although it is a failure.
      // Kept: docs/compatibility.md
      qv_log_do(g_module.get(), level_, 0, "Dump failed!  Can't open file.");
    }
    return;
  }
  // A full disk is not reported.
  // Kept: docs/compatibility.md
  std::fwrite(data, 1, size, file);
  std::fclose(file);
}

}  // namespace util
}  // namespace quorvane
