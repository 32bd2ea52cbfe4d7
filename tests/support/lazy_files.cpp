#include "support/lazy_files.h"

#include <cstring>
#include <set>
#include <utility>

#include "support/temp_dir.h"

namespace test {
namespace {

// A plain reader that shares nothing with the library's. A load reads the value file, a scan
// for keys doesn't.
class LazyWalker {
 public:
  LazyWalker(const LazyFiles& files, std::string key_path, bool is_load)
      : files_(files), key_path_(std::move(key_path)), is_load_(is_load) {}

  LazyWalk walk() {
    if (!read_header(files_.key) || (is_load_ && !read_header(files_.val))) {
      if (!is_load_) {
        walk_.messages.push_back(expectation_at("read_header(key_freader)", 1279));
      }
      return walk_;
    }
    at_ = 8;
    while (walk_.messages.empty() && at_ < files_.key.size()) {
      read_entry();
    }
    if (!walk_.messages.empty()) {
      walk_.messages.push_back("ERROR Cachemap " + key_path_ + " file corrupted");
    }
    return walk_;
  }

 private:
  bool fail(const std::string& message) {
    walk_.messages.push_back(message);
    return false;
  }

  bool read_header(const std::string& bytes) {
    if (bytes.size() < 8) {
      return fail(expectation("hdr"));
    }
    return bytes.compare(0, 8, header_bytes(2)) == 0 ||
           fail(expectation("std::memcmp(hdr, &valid_hdr_, sizeof(valid_hdr_)) == 0"));
  }

  bool read_entry() {
    std::uint64_t magic = 0;
    Entry entry;
    if (!read(magic, 4, expectation("freader.get(&magic_number)")) ||
        (magic != kStoreMagic &&
         !fail(expectation("magic_number == QV_CACHE_STORE_MAGIC_NUMBER"))) ||
        !read_key(entry) || !(is_load_ ? read_positions(entry) : skip_positions())) {
      return false;
    }
    if (!seen_.insert(entry.key).second) {
      fail(std::string(is_load_ ? "ERROR" : "WARN") + " Collision inside cachemap " + key_path_ +
           " file ocurred");
      return is_load_ || fail(expectation_at("emplace_ret.second", 1332));
    }
    walk_.entries.push_back(entry);
    return true;
  }

  bool read_key(Entry& entry) {
    std::uint64_t size = 0;
    if (!read(size, 8, expectation("freader.get(&key_size)")) ||
        (size == 0 && !fail(expectation("key_size > 0"))) ||
        (size > left() && !fail(expectation("freader.get_raw(rvalbuf.get_buffer(), key_size)")))) {
      return false;
    }
    entry.key = files_.key.substr(at_, size);
    at_ += size;
    return true;
  }

  bool read_positions(Entry& entry) {
    std::uint64_t offset = 0;
    std::uint64_t atoms = 0;
    std::vector<std::uint64_t> sizes;
    if (!read(offset, 8, expectation_at("key_freader.get(&val_offset)", 897)) ||
        !read(atoms, 8, expectation_at("key_freader.get(&num_val_atoms)", 902)) ||
        (atoms == 0 && !fail(expectation_at("num_val_atoms > 0", 904)))) {
      return false;
    }
    for (; atoms > 0; --atoms) {
      sizes.push_back(0);
      if (!read(sizes.back(), 8, expectation_at("key_freader.get(&val_atom_size)", 911)) ||
          (sizes.back() == 0 && !fail(expectation_at("val_atom_size > 0", 913)))) {
        return false;
      }
    }
    return read_atoms(entry, offset, sizes);
  }

  bool read_atoms(Entry& entry, std::uint64_t offset, const std::vector<std::uint64_t>& sizes) {
    if (offset < 8) {
      return fail(expectation_at("val_offset >= sizeof(hdr_t)", 923));
    }
    std::string rest = offset <= files_.val.size() ? files_.val.substr(offset) : "";
    for (const std::uint64_t size : sizes) {
      const std::uint64_t before = entry.atoms.empty() ? 4 : 0;
      if (rest.size() < before || rest.size() - before < size) {
        return fail(
            expectation_at("val_atom_offset + val_atom_size <= val_fbuffer.get_size()", 934));
      }
      entry.atoms.push_back(rest.substr(before, size));
      rest.erase(0, before + size);
    }
    return true;
  }

  bool skip_positions() {
    std::uint64_t offset = 0;
    std::uint64_t atoms = 0;
    if (!read(offset, 8, expectation_at("key_freader.buffer(sizeof(std::size_t))", 950)) ||
        !read(atoms, 8, expectation_at("key_freader.get(&num_val_atoms)", 955)) ||
        (atoms == 0 && !fail(expectation_at("num_val_atoms > 0", 957)))) {
      return false;
    }
    if (atoms > left() / 8) {
      return fail(expectation_at("key_freader.buffer(num_val_atoms * sizeof(std::size_t))", 963));
    }
    at_ += 8 * atoms;
    return true;
  }

  std::size_t left() const { return files_.key.size() - at_; }

  bool read(std::uint64_t& out, std::size_t width, const std::string& otherwise) {
    if (left() < width) {
      return fail(otherwise);
    }
    std::memcpy(&out, files_.key.data() + at_, width);
    at_ += width;
    return true;
  }

  const LazyFiles& files_;
  const std::string key_path_;
  const bool is_load_;
  std::size_t at_ = 0;
  std::set<std::string> seen_;
  LazyWalk walk_;
};

}  // namespace

std::string key_file_entry(const Entry& entry, std::uint64_t val_offset) {
  std::string bytes = "\xa5\xc3\xa5\xc3" + le64(entry.key.size()) + entry.key + le64(val_offset) +
                      le64(entry.atoms.size());
  for (const std::string& atom : entry.atoms) {
    bytes += le64(atom.size());
  }
  return bytes;
}

std::string val_file_entry(const Entry& entry) {
  std::string bytes = "\xa5\xc3\xa5\xc3";
  for (const std::string& atom : entry.atoms) {
    bytes += atom;
  }
  return bytes;
}

LazyFiles add_to(LazyFiles files, const std::vector<Entry>& entries) {
  for (const Entry& entry : entries) {
    files.key += key_file_entry(entry, files.val.size());
    files.val += val_file_entry(entry);
  }
  return files;
}

LazyFiles lazy_files(const std::vector<Entry>& entries) {
  return add_to({header_bytes(2), header_bytes(2)}, entries);
}

LazyFiles read_lazy_files(const std::string& root) {
  return {read_file(root + "/key_maps"), read_file(root + "/val_maps")};
}

void write_lazy_files(const std::string& root, const LazyFiles& files) {
  write_file(root + "/key_maps", files.key);
  write_file(root + "/val_maps", files.val);
}

LazyWalk walk_lazy_files(const LazyFiles& files, const std::string& key_path, bool is_load) {
  return LazyWalker(files, key_path, is_load).walk();
}

}  // namespace test
