// Builds and parses the bytes of store files independently of the library, and the buffers
// and records that go with them.
#ifndef TESTS_SUPPORT_STORE_BYTES_H_
#define TESTS_SUPPORT_STORE_BYTES_H_

#include <quorvane/buffer.h>
#include <quorvane/module.h>
#include <quorvane/store.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <string>
#include <vector>

namespace test {

constexpr std::uint32_t kStoreMagic = 0xC3A5C3A5;

struct Entry {
  std::string key;
  std::vector<std::string> atoms;
  bool operator==(const Entry& other) const { return key == other.key && atoms == other.atoms; }
};

inline std::string little_endian(std::uint64_t value, int width) {
  std::string bytes;
  for (int i = 0; i < width; ++i) {
    bytes.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
  }
  return bytes;
}
inline std::string le32(std::uint32_t value) { return little_endian(value, 4); }
inline std::string le64(std::uint64_t value) { return little_endian(value, 8); }

inline std::string header_bytes(std::uint32_t version) {
  return "\xa5\xc3\xa5\xc3" + le32(version);
}

inline std::string value_bytes(const std::vector<std::string>& atoms) {
  std::string bytes = le64(atoms.size());
  for (const std::string& atom : atoms) {
    bytes += le64(atom.size()) + atom;
  }
  return bytes;
}

inline std::string entry_bytes(const Entry& entry) {
  return "\xa5\xc3\xa5\xc3" + le64(entry.key.size()) + entry.key + value_bytes(entry.atoms);
}

// A basic store's file, holding these entries in this order.
inline std::string basic_file(const std::vector<Entry>& entries) {
  std::string bytes = header_bytes(1);
  for (const Entry& entry : entries) {
    bytes += entry_bytes(entry);
  }
  return bytes;
}

inline quorvane::util::RoBuffer buffer(const std::string& bytes) {
  return quorvane::util::RoBuffer::copy(bytes.data(), bytes.size());
}

inline std::vector<quorvane::util::RoBuffer> buffers(const std::vector<std::string>& atoms) {
  std::vector<quorvane::util::RoBuffer> result;
  for (const std::string& atom : atoms) {
    result.push_back(buffer(atom));
  }
  return result;
}

inline std::string bytes_of(const quorvane::util::BufferBase& buffer) {
  return {reinterpret_cast<const char*>(buffer.get_buffer()), buffer.get_size()};
}

inline Entry entry_of(const quorvane::cache::EntryMap::value_type& stored) {
  Entry entry{bytes_of(stored.first), {}};
  for (const quorvane::util::RoBuffer& atom : stored.second) {
    entry.atoms.push_back(bytes_of(atom));
  }
  return entry;
}

inline quorvane::cache::EntryMap entry_map(const std::vector<Entry>& entries) {
  quorvane::cache::EntryMap map;
  for (const Entry& entry : entries) {
    map.emplace(buffer(entry.key), buffers(entry.atoms));
  }
  return map;
}

inline quorvane::cache::KeySet key_set(const std::vector<std::string>& keys) {
  quorvane::cache::KeySet set;
  for (const std::string& key : keys) {
    set.insert(buffer(key));
  }
  return set;
}

inline quorvane::cache::KeySet keys_of(const quorvane::cache::EntryMap& entries) {
  quorvane::cache::KeySet keys;
  for (const auto& entry : entries) {
    keys.insert(entry.first);
  }
  return keys;
}

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

inline std::string listing(const quorvane::cache::KeySet& keys) {
  std::string text;
  for (const quorvane::util::RoBuffer& key : keys) {
    text += bytes_of(key) + "\n";
  }
  return text;
}

// What a reader of a basic store's file must find: the entries before the first damage, and
// the check that fails there ("" when the file is intact).
struct Walk {
  std::vector<Entry> entries;
  std::vector<std::string> collisions;  // keys that occurred again
  std::string failed_check;
};

// A plain reader that shares nothing with the library's. Without `copying` it quotes the
// check of a reader that skips the values.
class FileWalker {
 public:
  FileWalker(const std::string& bytes, bool copying) : bytes_(bytes), copying_(copying) {}

  Walk walk() {
    Walk walk;
    std::map<std::string, bool> seen;
    walk.failed_check = read_header();
    while (walk.failed_check.empty() && pos_ < bytes_.size()) {
      Entry entry;
      walk.failed_check = read_entry(entry);
      if (!walk.failed_check.empty()) {
        break;
      }
      if (seen.emplace(entry.key, true).second) {
        walk.entries.push_back(entry);
      } else {
        walk.collisions.push_back(entry.key);
      }
    }
    return walk;
  }

 private:
  std::size_t left() const { return bytes_.size() - pos_; }

  std::string read_header() {
    if (left() < 8) {
      return "hdr";
    }
    pos_ = 8;
    return bytes_.compare(0, 8, header_bytes(1)) == 0
               ? ""
               : "std::memcmp(hdr, &valid_hdr_, sizeof(valid_hdr_)) == 0";
  }

  std::string read_entry(Entry& entry) {
    std::uint32_t magic = 0;
    if (!read(&magic, sizeof(magic))) {
      return "freader.get(&magic_number)";
    }
    if (magic != kStoreMagic) {
      return "magic_number == QV_CACHE_STORE_MAGIC_NUMBER";
    }
    std::string failed =
        read_piece("key_size", "freader.get_raw(rvalbuf.get_buffer(), key_size)", entry.key);
    return failed.empty() ? read_value(entry) : failed;
  }

  std::string read_value(Entry& entry) {
    std::uint64_t atoms = 0;
    std::string failed = read_count("num_val_atoms", atoms);
    for (std::uint64_t i = 0; failed.empty() && i < atoms; ++i) {
      entry.atoms.emplace_back();
      failed = read_piece("val_atom_size",
                          copying_ ? "freader.get_raw(val_atom_buf.get_buffer(), val_atom_size)"
                                   : "freader.buffer(val_atom_size)",
                          entry.atoms.back());
    }
    return failed;
  }

  std::string read_piece(const std::string& name, const std::string& check, std::string& out) {
    std::uint64_t size = 0;
    const std::string failed = read_count(name, size);
    if (!failed.empty()) {
      return failed;
    }
    if (size > left()) {
      return check;
    }
    out = bytes_.substr(pos_, size);
    pos_ += size;
    return "";
  }

  std::string read_count(const std::string& name, std::uint64_t& count) {
    if (!read(&count, sizeof(count))) {
      return "freader.get(&" + name + ")";
    }
    return count == 0 ? name + " > 0" : "";
  }

  bool read(void* out, std::size_t size) {
    if (left() < size) {
      return false;
    }
    std::memcpy(out, bytes_.data() + pos_, size);
    pos_ += size;
    return true;
  }

  const std::string& bytes_;
  const bool copying_;
  std::size_t pos_ = 0;
};

inline Walk walk_basic_file(const std::string& bytes, bool copying = true) {
  return FileWalker(bytes, copying).walk();
}

// The record of a failed expectation or assertion, without its line.
inline std::string expectation(const std::string& condition,
                               const std::string& source = "util/src/cache") {
  return "ERROR QV_FAULT_EXPECT: expectation (" + condition + ") failed (" + source + ")";
}
inline std::string assertion(const std::string& condition,
                             const std::string& source = "util/src/cache") {
  return "ERROR QV_FAULT_ASSERT: assertion (" + condition + ") failed (" + source + ")";
}

// The record of a header with another magic number or version.
inline const std::string kOtherHeader =
    expectation("std::memcmp(hdr, &valid_hdr_, sizeof(valid_hdr_)) == 0");

// The record of a failed expectation whose line is pinned.
inline std::string expectation_at(const std::string& condition, int line) {
  return expectation(condition, "util/src/cache:" + std::to_string(line));
}

// Turns a final "(util/src/cache:123)" into "(util/src/cache)", since the line numbers of most
// checks change with the source. Keeps line numbers from `first_fixed` on.
inline std::vector<std::string> without_lines(std::vector<std::string> messages,
                                              int first_fixed = std::numeric_limits<int>::max()) {
  for (std::string& message : messages) {
    const std::size_t colon = message.rfind(':');
    if (message.rfind("(util/src/") >= message.size() || colon == std::string::npos ||
        message.back() != ')') {
      continue;
    }
    const std::string line = message.substr(colon + 1, message.size() - colon - 2);
    if (!line.empty() && line[0] != '0' &&
        line.find_first_not_of("0123456789") == std::string::npos &&
        std::stoi(line) < first_fixed) {
      message.replace(colon, line.size() + 1, "");
    }
  }
  return messages;
}

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

#endif  // TESTS_SUPPORT_STORE_BYTES_H_
