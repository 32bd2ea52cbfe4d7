#include "qvutil/rewrite/mend_lazy.h"

#include <fcntl.h>

#include <algorithm>
#include <utility>

#include "qvutil/output/text.h"
#include "qvutil/rewrite/damaged_files.h"
#include "qvutil/rewrite/file_calls.h"
#include "qvutil/rewrite/output_file.h"
#include "qvutil/rewrite/seen_keys.h"
#include "qvutil/store/format.h"
#include "qvutil/store/mapped_file.h"
#include "qvutil/store/scan.h"

namespace quorvane::tool {
namespace {

void write_header(OutputFile& file) {
  file.number(format::kMagic);
  file.number(format::kLazyVersion);
}

// Copies entries of a key file as they are.
class KeyCopier : public Visitor {
 public:
  KeyCopier(std::string_view keys, OutputFile& copy, std::string directory)
      : keys_(keys), copy_(copy), seen_(std::move(directory)) {}

  void entry(const Entry& entry) override {
    if (seen_.add(entry.key)) {
      copy_.write(keys_.substr(entry.offset, entry.size));
    }
  }
  void place(const Place&) override {}

 private:
  const std::string_view keys_;
  OutputFile& copy_;
  SeenKeys seen_;
};

void write_keys(Console& console, const Workspace& workspace, const CacheFiles& cache) {
  OutputFile copy(workspace.staged().path("key_"));
  write_header(copy);
  auto keys = MappedFile::open(cache.path("key_"));
  KeyCopier copier(keys ? keys->bytes() : std::string_view(), copy, workspace.staged().root);
  Progress progress(console, "repairing " + shown(cache.name), bytes_of(cache));
  scan_locked(cache, copier, progress);
  copy.finish();
}

bool has_header(const std::string& path) {
  auto file = MappedFile::open(path);
  if (!file || file->size() < format::kHeaderSize) {
    return false;
  }
  const format::Start start = format::start_of(file->bytes());
  return start.magic == format::kMagic && start.version == format::kLazyVersion;
}

void write_values(const Workspace& workspace, const CacheFiles& cache) {
  const std::string copy = workspace.staged().path("val_");
  OutputFile header(copy);
  write_header(header);
  header.finish();
  if (size_of_file(cache.path("val_")).value_or(0) > format::kHeaderSize) {
    const FileDescriptor from(cache.path("val_"), O_RDONLY);
    const FileDescriptor to(copy, O_WRONLY);
    copy_bytes(from.get(), format::kHeaderSize, to.get(), format::kHeaderSize);
  }
}

// Puts a staged file in place. Adds the name that the old one has now.
void replace(const std::string& staged, const std::string& path, const std::string& like,
             std::vector<std::string>& kept) {
  adopt_mode(staged, like);
  sync_file(staged);
  const std::string name = keep_as_damaged(path);
  if (!name.empty()) {
    kept.push_back(name);
  }
  put_in_place(staged, path);
}

}  // namespace

std::vector<std::string> mend_lazy(Console& console, const Workspace& workspace,
                                   const CacheFiles& cache) {
  const CacheFiles& staged = workspace.staged();
  const bool is_value_file_good = has_header(cache.path("val_"));
  write_keys(console, workspace, cache);
  if (!is_value_file_good) {
    write_values(workspace, cache);
  }
  std::vector<std::string> kept;
  replace(staged.path("key_"), cache.path("key_"), cache.path("key_"), kept);
  if (!is_value_file_good) {
    replace(staged.path("val_"), cache.path("val_"), cache.path("key_"), kept);
  }
  return kept;
}

}  // namespace quorvane::tool
