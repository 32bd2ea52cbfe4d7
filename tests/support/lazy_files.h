// Builds and parses the two files of a lazy store, independently of the library.
#ifndef TESTS_SUPPORT_LAZY_FILES_H_
#define TESTS_SUPPORT_LAZY_FILES_H_

#include <cstdint>
#include <string>
#include <vector>

#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace test {

// The lowest line number of the lazy store's checks, whose line numbers are pinned. The other
// checks of the caches have lower line numbers.
constexpr int kFirstLazyLine = 897;

struct LazyFiles {
  std::string key;
  std::string val;
  bool operator==(const LazyFiles& other) const { return key == other.key && val == other.val; }
};

std::string key_file_entry(const Entry& entry, std::uint64_t val_offset);

std::string val_file_entry(const Entry& entry);

LazyFiles add_to(LazyFiles files, const std::vector<Entry>& entries);

// Both files, holding these entries in this order.
LazyFiles lazy_files(const std::vector<Entry>& entries);

// The files of the store "maps" in a root.
LazyFiles read_lazy_files(const std::string& root);
void write_lazy_files(const std::string& root, const LazyFiles& files);

// What a reader of the two files must find: the entries before the first damage, and the
// records of that damage (none when the files are intact).
struct LazyWalk {
  std::vector<Entry> entries;  // a scan for keys leaves their atoms out
  std::vector<std::string> messages;
};

// A load reads the value file, a scan for keys doesn't.
LazyWalk walk_lazy_files(const LazyFiles& files, const std::string& key_path, bool is_load);

}  // namespace test

#endif  // TESTS_SUPPORT_LAZY_FILES_H_
