// A constant database as a peer of our stores: it is written once and as a whole.
#ifndef BENCH_CDB_STORE_H_
#define BENCH_CDB_STORE_H_

#include <cdb.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "numbered_key.h"
#include "store_fixture.h"

namespace bench {

class CdbStore {
 public:
  // In the store root.
  explicit CdbStore(const std::string& name)
      : fd_(open(path_of(name).c_str(), O_RDONLY | O_CLOEXEC)) {
    if (fd_ < 0 || cdb_init(&cdb_, fd_) != 0) {
      std::abort();
    }
  }
  ~CdbStore() {
    cdb_free(&cdb_);
    close(fd_);
  }
  CdbStore(const CdbStore&) = delete;
  CdbStore& operator=(const CdbStore&) = delete;

  static void write(const std::string& name, std::uint64_t entries) {
    const int fd = open(path_of(name).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    cdb_make made;
    check(fd >= 0 && cdb_make_start(&made, fd) == 0);
    for_each_batch(entries, [&made](const quorvane::cache::EntryMap& batch) {
      for (const auto& [key, value] : batch) {
        const auto& atom = value.front();
        check(cdb_make_add(&made, key.get_buffer(), static_cast<unsigned>(key.get_size()),
                           atom.get_buffer(), static_cast<unsigned>(atom.get_size())) == 0);
      }
    });
    check(cdb_make_finish(&made) == 0);
    close(fd);
  }

  bool find(const Key& key) {
    return cdb_find(&cdb_, key.data(), static_cast<unsigned>(key.size())) > 0;
  }

 private:
  static std::string path_of(const std::string& name) {
    return getenv("QV_CACHE_STORE_ROOT") + ("/cdb_" + name);
  }

  static void check(bool holds) {
    if (!holds) {
      std::abort();
    }
  }

  int fd_;
  struct cdb cdb_ {};
};

}  // namespace bench

#endif  // BENCH_CDB_STORE_H_
