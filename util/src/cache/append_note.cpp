#include "src/cache/append_note.h"

#include <farmhash.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace quorvane {
namespace cache {
namespace {

constexpr std::uint32_t kMagic = 0x4E565151;  // "QQVN"
constexpr std::uint32_t kVersion = 1;

struct Header {
  std::uint32_t magic;
  std::uint32_t version;
  std::uint64_t checksum;  // of all that follows
};

struct FileRecord {
  std::uint64_t device;
  std::uint64_t inode;
  std::uint64_t size;
  std::uint32_t existed;
  std::uint32_t name_size;  // the name follows
};

template <typename Record>
void append(std::string& bytes, const Record& record) {
  bytes.append(reinterpret_cast<const char*>(&record), sizeof(record));
}

template <typename Record>
bool take(std::string_view& bytes, Record& record) {
  if (bytes.size() < sizeof(record)) {
    return false;
  }
  std::memcpy(&record, bytes.data(), sizeof(record));
  bytes.remove_prefix(sizeof(record));
  return true;
}

// Fingerprint64 stays the same in every build of its library.
std::uint64_t checksum_of(std::string_view bytes) {
  return ::util::Fingerprint64(bytes.data(), bytes.size());
}

bool is_plain_name(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

// Open for the moment it takes to change a file.
class Opened {
 public:
  explicit Opened(const char* path, int flags)
      : fd_(open(path, O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | flags, 0666)),
        known_(fd_ >= 0 && fstat(fd_, &status_) == 0) {}
  ~Opened() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  Opened(const Opened&) = delete;
  Opened& operator=(const Opened&) = delete;

  bool is_known() const { return known_; }
  descriptor::FileId id() const { return descriptor::id_of(status_); }
  std::uint64_t size() const { return static_cast<std::uint64_t>(status_.st_size); }
  bool cut(std::uint64_t size) const { return ftruncate(fd_, static_cast<off_t>(size)) == 0; }

 private:
  int fd_;
  struct stat status_ {};
  bool known_;
};

}  // namespace

AppendNote::AppendNote(std::string directory) : directory_(std::move(directory)) {}

void AppendNote::add(const std::string& path) {
  File file{path, false, {}, 0};
  struct stat status;
  if (lstat(path.c_str(), &status) == 0) {
    if (!S_ISREG(status.st_mode)) {
      return;
    }
    file.existed = true;
    file.id = descriptor::id_of(status);
    file.size = static_cast<std::uint64_t>(status.st_size);
  } else if (errno != ENOENT) {
    return;
  }
  if (path.compare(0, directory_.size() + 1, directory_ + "/") == 0 &&
      is_plain_name(name_of(file))) {
    files_.push_back(std::move(file));
  }
}

std::string_view AppendNote::name_of(const File& file) const {
  return std::string_view(file.path).substr(directory_.size() + 1);
}

void AppendNote::create_missing() {
  for (File& file : files_) {
    if (!file.existed) {
      if (const Opened created(file.path.c_str(), O_CREAT | O_EXCL); created.is_known()) {
        file.id = created.id();
      }
    }
  }
}

bool AppendNote::has_missing() const {
  return std::any_of(files_.begin(), files_.end(), [](const File& file) { return !file.existed; });
}

bool AppendNote::is_being_deleted() const noexcept {
  return std::any_of(files_.begin(), files_.end(), [](const File& file) {
    struct stat status;
    return file.existed && lstat(file.path.c_str(), &status) != 0 && errno == ENOENT;
  });
}

bool AppendNote::undo() const noexcept {
  const bool delete_all = is_being_deleted();
  bool changed = false;
  for (const File& file : files_) {
    changed = file.undo(delete_all || !file.existed) || changed;
  }
  return changed;
}

bool AppendNote::File::undo(bool delete_it) const noexcept {
  const Opened now(path.c_str(), 0);
  if (!now.is_known()) {
    return false;
  }
  if (id == descriptor::FileId{}) {
    // Killed between the creation and the second note: it holds nothing yet.
    return now.size() == 0 && unlink(path.c_str()) == 0;
  }
  if (!(now.id() == id)) {
    return false;
  }
  if (delete_it) {
    return unlink(path.c_str()) == 0;
  }
  return now.size() > size && now.cut(size);
}

std::string AppendNote::paths() const {
  std::string all;
  for (const File& file : files_) {
    all += (all.empty() ? "" : ", ") + file.path;
  }
  return all;
}

void AppendNote::encode(std::string& bytes) const {
  bytes.assign(sizeof(Header), '\0');
  for (const File& file : files_) {
    const std::string_view name = name_of(file);
    append(bytes, FileRecord{file.id.device, file.id.inode, file.size, file.existed,
                             static_cast<std::uint32_t>(name.size())});
    bytes += name;
  }
  const std::string_view files = std::string_view(bytes).substr(sizeof(Header));
  const Header header{kMagic, kVersion, checksum_of(files)};
  std::memcpy(bytes.data(), &header, sizeof(header));
}

std::optional<AppendNote> AppendNote::decode(std::string directory, std::string_view bytes) {
  Header header;
  if (!take(bytes, header) || header.magic != kMagic || header.version != kVersion ||
      header.checksum != checksum_of(bytes)) {
    return std::nullopt;
  }
  AppendNote note(std::move(directory));
  while (!bytes.empty()) {
    FileRecord record;
    if (!take(bytes, record) || record.name_size > bytes.size() ||
        !is_plain_name(bytes.substr(0, record.name_size))) {
      return std::nullopt;
    }
    note.files_.push_back({note.directory_ + "/" + std::string(bytes.substr(0, record.name_size)),
                           record.existed != 0,
                           {record.device, record.inode},
                           record.size});
    bytes.remove_prefix(record.name_size);
  }
  return note;
}

}  // namespace cache
}  // namespace quorvane
