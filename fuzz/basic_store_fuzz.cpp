// Any bytes as a basic store's file: loading them and scanning them for new keys
// ends in a refusal or in entries that can be read to their last byte, and both
// ways of reading agree on the keys.
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

using quorvane::cache::BasicStore;
using quorvane::cache::CleanupController;
using quorvane::cache::EntryMap;
using quorvane::cache::KeySet;
using quorvane::cache::Store;
using quorvane::util::RoBuffer;

namespace {

// Nobody else has the file.
class FreeLock : public Store::Lock {
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
  ~Root() {
    std::remove(maps().c_str());
    std::remove(path_.c_str());
  }
  Root(const Root&) = delete;
  Root& operator=(const Root&) = delete;

  std::string maps() const { return path_ + "/maps"; }

  void write(const std::uint8_t* data, std::size_t size) const {
    const int fd = open(maps().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ::write(fd, data, size) != static_cast<ssize_t>(size)) {
      std::abort();
    }
    close(fd);
  }

 private:
  std::string path_;
};

void expect(bool condition) {
  if (!condition) {
    std::abort();
  }
}

// Touches every byte.
std::size_t sum(const RoBuffer& buffer) {
  expect(buffer.get_size() > 0);
  return std::accumulate(buffer.get_buffer(), buffer.get_buffer() + buffer.get_size(),
                         std::size_t{0});
}

// How many bytes a file of these entries has, reading all of them.
std::size_t file_size(const EntryMap& entries) {
  std::size_t size = 8;
  volatile std::size_t total = 0;
  for (const auto& [key, value] : entries) {
    size += BasicStore::get_entry_representation_size(key, value);
    total = total + sum(key);
    expect(!value.empty());
    for (const RoBuffer& atom : value) {
      total = total + sum(atom);
    }
  }
  return size;
}

void expect_same_keys(const EntryMap& entries, const KeySet& keys) {
  expect(entries.size() == keys.size());
  for (const RoBuffer& key : keys) {
    expect(entries.count(key) == 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Root root;
  static const auto lock = std::make_shared<FreeLock>();
  static CleanupController controller(0);
  static auto* const module =
      static_cast<quorvane::module::Module*>(qv_module_find("util/src/cache"));
  static auto* const file_module =
      static_cast<quorvane::module::Module*>(qv_module_find("util/src/mmapped_file"));
  module->level = QV_LOG_LEVEL_OFF;
  file_module->level = QV_LOG_LEVEL_OFF;

  root.write(data, size);
  EntryMap entries;
  KeySet keys;
  BasicStore loading("maps", lock, &controller);
  BasicStore scanning("maps", lock, &controller);
  const bool loaded = loading.try_load(entries);
  const bool scanned = scanning.try_nonlock_load_new_keys(keys);
  expect(loaded == scanned);
  expect(file_size(entries) <= size || entries.empty());
  expect_same_keys(entries, keys);
  if (loaded) {
    KeySet none;
    expect(loading.try_nonlock_load_new_keys(none) && none.empty());
  }
  return 0;
}
