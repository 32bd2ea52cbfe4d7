#include "qvutil/store/lock_note.h"

#include <farmhash.h>

#include "qvutil/store/format.h"

namespace quorvane::tool {
namespace {

constexpr std::uint32_t kMagic = 0x4E565151;  // "QQVN"
constexpr std::uint32_t kVersion = 1;
constexpr std::uint64_t kNoteHeaderSize = 16;
constexpr std::uint64_t kFileSize = 32;  // without the name

bool is_note(std::string_view content) {
  if (content.size() < kNoteHeaderSize) {
    return false;
  }
  const format::Start start = format::start_of(content);
  const std::string_view files = content.substr(kNoteHeaderSize);
  return start.magic == kMagic && start.version == kVersion &&
         format::number_at<std::uint64_t>(content, 8) ==
             ::util::Fingerprint64(files.data(), files.size());
}

}  // namespace

std::vector<NotedFile> noted_files(std::string_view content) {
  if (!is_note(content)) {
    return {};
  }
  std::vector<NotedFile> files;
  for (content.remove_prefix(kNoteHeaderSize); !content.empty();) {
    if (content.size() < kFileSize) {
      return {};
    }
    NotedFile file;
    file.device = format::number_at<std::uint64_t>(content, 0);
    file.inode = format::number_at<std::uint64_t>(content, 8);
    file.size = format::number_at<std::uint64_t>(content, 16);
    file.existed = format::number_at<std::uint32_t>(content, 24) != 0;
    const auto name_size = format::number_at<std::uint32_t>(content, 28);
    content.remove_prefix(kFileSize);
    if (name_size > content.size()) {
      return {};
    }
    file.name = content.substr(0, name_size);
    content.remove_prefix(name_size);
    files.push_back(std::move(file));
  }
  return files;
}

}  // namespace quorvane::tool
