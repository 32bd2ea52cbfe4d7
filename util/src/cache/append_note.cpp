#include "src/cache/append_note.h"

#include <farmhash.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "src/uncancellable.h"

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

// Unlike the other hashes of its library, Fingerprint64 is the same in every build.
std::uint64_t checksum_of(std::string_view bytes) {
  return ::util::Fingerprint64(bytes.data(), bytes.size());
}

bool is_plain_name(std::string_view name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos;
}

// A file that is open while it is changed.
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
  bool may_be_written_again() const { return (status_.st_mode & S_IWUSR) != 0; }
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

// Under some umasks even the owner can't reopen a new file for writing. Such a file is
// deleted here, and the append creates it.
void AppendNote::create_missing() {
  for (File& file : files_) {
    if (!file.existed) {
      const Opened created(file.path.c_str(), O_CREAT | O_EXCL);
      if (created.is_known() && !created.may_be_written_again()) {
        unlink(file.path.c_str());
      } else if (created.is_known()) {
        file.id = created.id();
      }
    }
  }
}

bool AppendNote::identify_created() {
  bool found = false;
  for (File& file : files_) {
    struct stat status;
    if (!file.existed && file.id == descriptor::FileId{} &&
        lstat(file.path.c_str(), &status) == 0) {
      file.id = descriptor::id_of(status);
      found = true;
    }
  }
  return found;
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

AppendNote::Undone AppendNote::undo() const noexcept {
  const Uncancellable uncancellable;
  const bool delete_all = is_being_deleted();
  Undone all = Undone::nothing;
  for (const File& file : files_) {
    all = std::max(all, file.undo(delete_all || !file.existed));
  }
  return all;
}

AppendNote::Undone AppendNote::File::undo(bool delete_it) const noexcept {
  struct stat now;
  if (lstat(path.c_str(), &now) != 0) {
    return errno == ENOENT ? Undone::nothing : Undone::failed;
  }
  // No id means that the process was killed between creating the file and writing the
  // second note. The file was still empty then.
  const bool is_same = id == descriptor::FileId{} ? now.st_size == 0 : descriptor::id_of(now) == id;
  if (!S_ISREG(now.st_mode) || !is_same) {
    return Undone::nothing;
  }
  if (delete_it) {
    return unlink(path.c_str()) == 0 ? Undone::something : Undone::failed;
  }
  return static_cast<std::uint64_t>(now.st_size) > size ? cut_back() : Undone::nothing;
}

AppendNote::Undone AppendNote::File::cut_back() const noexcept {
  const Opened now(path.c_str(), 0);
  return now.is_known() && now.id() == id && now.cut(size) ? Undone::something : Undone::failed;
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
