// What the fuzz targets of the stores share.
#ifndef FUZZ_STORE_FUZZ_H_
#define FUZZ_STORE_FUZZ_H_

#include <fcntl.h>
#include <quorvane/file_store.h>
#include <quorvane/module.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <numeric>
#include <string>

namespace fuzz {

// Nobody else has the file.
class FreeLock : public quorvane::cache::Store::Lock {
 public:
  bool is_valid() const override { return true; }
  void lock() override {}
  void unlock() override {}
};

// A root of this process, in memory where there is such a place.
class Root {
 public:
  Root() {
    const std::string shared_memory = "/dev/shm";
    path_ = access(shared_memory.c_str(), W_OK) == 0
                ? shared_memory
                : std::filesystem::temp_directory_path().string();
    path_ += "/qvfuzz.XXXXXX";
    if (mkdtemp(path_.data()) == nullptr || setenv("QV_CACHE_STORE_ROOT", path_.c_str(), 1) != 0) {
      std::abort();
    }
  }
  ~Root() { std::filesystem::remove_all(path_); }
  Root(const Root&) = delete;
  Root& operator=(const Root&) = delete;

  void write(const std::string& name, const std::uint8_t* data, std::size_t size) const {
    const int fd =
        open((path_ + "/" + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ::write(fd, data, size) != static_cast<ssize_t>(size)) {
      std::abort();
    }
    close(fd);
  }

 private:
  std::string path_;
};

inline void expect(bool condition) {
  if (!condition) {
    std::abort();
  }
}

// Touches every byte.
inline std::size_t sum(const quorvane::util::RoBuffer& buffer) {
  expect(buffer.get_size() > 0);
  return std::accumulate(buffer.get_buffer(), buffer.get_buffer() + buffer.get_size(),
                         std::size_t{0});
}

inline void expect_same_keys(const quorvane::cache::EntryMap& entries,
                             const quorvane::cache::KeySet& keys) {
  expect(entries.size() == keys.size());
  for (const quorvane::util::RoBuffer& key : keys) {
    expect(entries.count(key) == 1);
  }
}

// A record per damage would be all that a run does.
inline void log_nothing() {
  for (const char* path : {"util/src/cache", "util/src/mmapped_file"}) {
    static_cast<quorvane::module::Module*>(qv_module_find(path))->level = QV_LOG_LEVEL_OFF;
  }
}

}  // namespace fuzz

#endif  // FUZZ_STORE_FUZZ_H_
