// Builds and parses the bytes of store files independently of the library, and the buffers
// and records that go with them.
#ifndef TESTS_SUPPORT_STORE_BYTES_H_
#define TESTS_SUPPORT_STORE_BYTES_H_

#include <quorvane/buffer.h>
#include <quorvane/module.h>
#include <quorvane/store.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace test {

constexpr std::uint32_t kStoreMagic = 0xC3A5C3A5;

struct Entry {
  std::string key;
  std::vector<std::string> atoms;
  bool operator==(const Entry& other) const { return key == other.key && atoms == other.atoms; }
};

std::string little_endian(std::uint64_t value, int width);
inline std::string le32(std::uint32_t value) { return little_endian(value, 4); }
inline std::string le64(std::uint64_t value) { return little_endian(value, 8); }

std::string header_bytes(std::uint32_t version);

std::string value_bytes(const std::vector<std::string>& atoms);

std::string entry_bytes(const Entry& entry);

// A basic store's file, holding these entries in this order.
std::string basic_file(const std::vector<Entry>& entries);

quorvane::util::RoBuffer buffer(const std::string& bytes);

std::vector<quorvane::util::RoBuffer> buffers(const std::vector<std::string>& atoms);

std::string bytes_of(const quorvane::util::BufferBase& buffer);

Entry entry_of(const quorvane::cache::EntryMap::value_type& stored);

quorvane::cache::EntryMap entry_map(const std::vector<Entry>& entries);

quorvane::cache::KeySet key_set(const std::vector<std::string>& keys);

quorvane::cache::KeySet keys_of(const quorvane::cache::EntryMap& entries);

// A line "key=atom,atom" for each entry, in the order of the map.
template <typename Entries>
std::string listing(const Entries& entries) {
  std::string text;
  for (const auto& stored : entries) {
    const Entry entry = entry_of(stored);
    text += entry.key + "=";
    for (std::size_t i = 0; i < entry.atoms.size(); ++i) {
      text += (i == 0 ? "" : ",") + entry.atoms[i];
    }
    text += "\n";
  }
  return text;
}
extern template std::string listing(const quorvane::cache::EntryMap& entries);

std::string listing(const quorvane::cache::KeySet& keys);

// What a reader of a basic store's file must find: the entries before the first damage, and
// the check that fails there ("" when the file is intact).
struct Walk {
  std::vector<Entry> entries;
  std::vector<std::string> collisions;  // keys that occurred again
  std::string failed_check;
};

Walk walk_basic_file(const std::string& bytes, bool copying = true);

// The record of a failed expectation or assertion, without its line.
std::string expectation(const std::string& condition, const std::string& source = "util/src/cache");
std::string assertion(const std::string& condition, const std::string& source = "util/src/cache");

// The record of a header with another magic number or version.
inline const std::string kOtherHeader =
    expectation("std::memcmp(hdr, &valid_hdr_, sizeof(valid_hdr_)) == 0");

// The record of a failed expectation whose line is pinned.
std::string expectation_at(const std::string& condition, int line);

// Turns a final "(util/src/cache:123)" into "(util/src/cache)", since the line numbers of most
// checks change with the source. Keeps line numbers from `first_fixed` on.
std::vector<std::string> without_lines(std::vector<std::string> messages,
                                       int first_fixed = std::numeric_limits<int>::max());

inline quorvane::module::Module* module_of(const char* path) {
  return static_cast<quorvane::module::Module*>(qv_module_find(path));
}

// Counts its calls and excludes nobody: for stores whose files nobody else touches.
class CountingLock : public quorvane::cache::Store::Lock {
 public:
  explicit CountingLock(bool valid = true) : valid_(valid) {}
  bool is_valid() const override { return valid_; }
  void lock() override { ++locked; }
  void unlock() override { ++unlocked; }

  int locked = 0;
  int unlocked = 0;

 private:
  bool valid_;
};

}  // namespace test

extern template class std::vector<test::Entry>;

#endif  // TESTS_SUPPORT_STORE_BYTES_H_
