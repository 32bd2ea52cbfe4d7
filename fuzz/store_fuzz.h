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
#include <memory>
#include <numeric>
#include <string>
#include <vector>

namespace fuzz {

// Always free: no other process uses the file.
class FreeLock : public quorvane::cache::Store::Lock {
 public:
  bool is_valid() const override { return true; }
  void lock() override {}
  void unlock() override {}
};

// A store root for this process, in memory where the system allows it.
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

// Reads every byte.
inline void expect_readable(const quorvane::util::RoBuffer& buffer) {
  expect(buffer.get_size() > 0);
  [[maybe_unused]] volatile std::size_t sum =
      std::accumulate(buffer.get_buffer(), buffer.get_buffer() + buffer.get_size(), std::size_t{0});
}

inline void expect_readable(const std::vector<quorvane::util::RoBuffer>& value) {
  expect(!value.empty());
  for (const quorvane::util::RoBuffer& atom : value) {
    expect_readable(atom);
  }
}

inline void expect_same_keys(const quorvane::cache::EntryMap& entries,
                             const quorvane::cache::KeySet& keys) {
  expect(entries.size() == keys.size());
  for (const quorvane::util::RoBuffer& key : keys) {
    expect(entries.count(key) == 1);
  }
}

// The store "maps", loaded through one object and scanned for new keys through another.
// The entries are valid as long as this is.
template <typename Store>
struct Reading {
  Reading() {
    quorvane::cache::KeySet none;
    expect(!is_loaded || (loading.try_nonlock_load_new_keys(none) && none.empty()));
  }

  static Store open() {
    static const auto lock = std::make_shared<FreeLock>();
    static quorvane::cache::CleanupController controller(0);
    return Store("maps", lock, &controller);
  }

  quorvane::cache::EntryMap entries;
  quorvane::cache::KeySet keys;
  Store loading = open();
  Store scanning = open();
  const bool is_loaded = loading.try_load(entries);
  const bool is_scanned = scanning.try_nonlock_load_new_keys(keys);
};

// Otherwise a run would do little but write a record for each damaged file.
inline void log_nothing() {
  for (const char* path : {"util/src/cache", "util/src/mmapped_file"}) {
    static_cast<quorvane::module::Module*>(qv_module_find(path))->level = QV_LOG_LEVEL_OFF;
  }
}

}  // namespace fuzz

#endif  // FUZZ_STORE_FUZZ_H_
