#include "support/store_bytes.h"

#include <cstring>
#include <map>

namespace test {
namespace {

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

}  // namespace

std::string little_endian(std::uint64_t value, int width) {
  std::string bytes;
  for (int i = 0; i < width; ++i) {
    bytes.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
  }
  return bytes;
}

std::string header_bytes(std::uint32_t version) { return "\xa5\xc3\xa5\xc3" + le32(version); }

std::string value_bytes(const std::vector<std::string>& atoms) {
  std::string bytes = le64(atoms.size());
  for (const std::string& atom : atoms) {
    bytes += le64(atom.size()) + atom;
  }
  return bytes;
}

std::string entry_bytes(const Entry& entry) {
  return "\xa5\xc3\xa5\xc3" + le64(entry.key.size()) + entry.key + value_bytes(entry.atoms);
}

std::string basic_file(const std::vector<Entry>& entries) {
  std::string bytes = header_bytes(1);
  for (const Entry& entry : entries) {
    bytes += entry_bytes(entry);
  }
  return bytes;
}

quorvane::util::RoBuffer buffer(const std::string& bytes) {
  return quorvane::util::RoBuffer::copy(bytes.data(), bytes.size());
}

std::vector<quorvane::util::RoBuffer> buffers(const std::vector<std::string>& atoms) {
  std::vector<quorvane::util::RoBuffer> result;
  for (const std::string& atom : atoms) {
    result.push_back(buffer(atom));
  }
  return result;
}

std::string bytes_of(const quorvane::util::BufferBase& buffer) {
  return {reinterpret_cast<const char*>(buffer.get_buffer()), buffer.get_size()};
}

Entry entry_of(const quorvane::cache::EntryMap::value_type& stored) {
  Entry entry{bytes_of(stored.first), {}};
  for (const quorvane::util::RoBuffer& atom : stored.second) {
    entry.atoms.push_back(bytes_of(atom));
  }
  return entry;
}

quorvane::cache::EntryMap entry_map(const std::vector<Entry>& entries) {
  quorvane::cache::EntryMap map;
  for (const Entry& entry : entries) {
    map.emplace(buffer(entry.key), buffers(entry.atoms));
  }
  return map;
}

quorvane::cache::KeySet key_set(const std::vector<std::string>& keys) {
  quorvane::cache::KeySet set;
  for (const std::string& key : keys) {
    set.insert(buffer(key));
  }
  return set;
}

quorvane::cache::KeySet keys_of(const quorvane::cache::EntryMap& entries) {
  quorvane::cache::KeySet keys;
  for (const auto& entry : entries) {
    keys.insert(entry.first);
  }
  return keys;
}

std::string listing(const quorvane::cache::KeySet& keys) {
  std::string text;
  for (const quorvane::util::RoBuffer& key : keys) {
    text += bytes_of(key) + "\n";
  }
  return text;
}

Walk walk_basic_file(const std::string& bytes, bool copying) {
  return FileWalker(bytes, copying).walk();
}

std::string expectation(const std::string& condition, const std::string& source) {
  return "ERROR QV_FAULT_EXPECT: expectation (" + condition + ") failed (" + source + ")";
}

std::string assertion(const std::string& condition, const std::string& source) {
  return "ERROR QV_FAULT_ASSERT: assertion (" + condition + ") failed (" + source + ")";
}

std::string expectation_at(const std::string& condition, int line) {
  return expectation(condition, "util/src/cache:" + std::to_string(line));
}

std::vector<std::string> without_lines(std::vector<std::string> messages, int first_fixed) {
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

template std::string listing(const quorvane::cache::EntryMap& entries);

}  // namespace test

template class std::vector<test::Entry>;
