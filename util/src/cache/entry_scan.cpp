#include "src/cache/entry_scan.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include <quorvane/file_store.h>

namespace quorvane {
namespace cache {
namespace {

// In larger entries each piece has an allocation of its own.
constexpr std::size_t kSharedAllocationLimit = 4096;

// The magic number, the key size, a byte of key, the atom count, an atom size and a byte of
// value.
constexpr std::size_t kSmallestEntry = 30;
static_assert(sizeof(ScannedEntry) <= kSmallestEntry);

std::uint64_t read_number(const unsigned char* bytes) {
  std::uint64_t number;
  std::memcpy(&number, bytes, sizeof(number));
  return number;
}

std::uint64_t prefix_of(const unsigned char* key, std::size_t size) {
  unsigned char padded[sizeof(std::uint64_t)] = {};
  std::memcpy(padded, key, std::min(size, sizeof(padded)));
  return __builtin_bswap64(read_number(padded));
}

bool scan_size(util::BufferReader& freader, std::uint64_t& size) {
  return freader.get(&size) && size > 0;
}

bool scan_entry(util::BufferReader& freader, ScannedEntry& entry, const PassValue& pass_value) {
  std::uint32_t magic = 0;
  const unsigned char* const head = freader.buffer(sizeof(magic) + sizeof(entry.key_size));
  if (head == nullptr) {
    return false;
  }
  std::memcpy(&magic, head, sizeof(magic));
  const std::uint64_t key_size = read_number(head + sizeof(magic));
  if (magic != QV_CACHE_STORE_MAGIC_NUMBER || key_size == 0) {
    return false;
  }
  const unsigned char* key = freader.buffer(key_size);
  if (key == nullptr || !pass_value(freader)) {
    return false;
  }
  entry = {key_size, prefix_of(key, key_size), key};
  return true;
}

// Copies the pieces of one entry, which share an allocation if they are small.
class PieceCopier {
 public:
  explicit PieceCopier(std::size_t total) {
    if (total <= kSharedAllocationLimit) {
      auto shared = std::make_shared_for_overwrite<unsigned char[]>(total);
      next_ = shared.get();
      owner_ = std::shared_ptr<unsigned char>(std::move(shared), next_);
    }
  }

  util::RoBuffer copy(const unsigned char* bytes, std::size_t size) {
    if (owner_ == nullptr) {
      return util::RoBuffer::copy(bytes, size);
    }
    std::memcpy(next_, bytes, size);
    unsigned char* const here = next_;
    next_ += size;
    return util::RoBuffer::share(owner_, here, size);
  }

 private:
  std::shared_ptr<unsigned char> owner_;
  unsigned char* next_ = nullptr;
};

std::size_t size_of_pieces(const ScannedEntry& entry) {
  std::size_t total = entry.key_size;
  const unsigned char* at = entry.key + entry.key_size;
  std::uint64_t atoms = read_number(at);
  for (at += sizeof(atoms); atoms > 0 && total <= kSharedAllocationLimit; --atoms) {
    const std::uint64_t atom_size = read_number(at);
    total += atom_size;
    at += sizeof(atom_size) + atom_size;
  }
  return total;
}

}  // namespace

bool ScannedEntry::operator<(const ScannedEntry& other) const {
  if (key_size != other.key_size) {
    return key_size < other.key_size;
  }
  if (key_prefix != other.key_prefix) {
    return key_prefix < other.key_prefix;
  }
  return std::memcmp(key, other.key, key_size) < 0;
}

std::pair<util::RoBuffer, std::vector<util::RoBuffer>> ScannedEntry::copy() const {
  PieceCopier copier(size_of_pieces(*this));
  std::pair<util::RoBuffer, std::vector<util::RoBuffer>> result;
  result.first = copier.copy(key, key_size);
  const unsigned char* at = key + key_size;
  const std::uint64_t atoms = read_number(at);
  at += sizeof(atoms);
  result.second.reserve(atoms);
  for (std::uint64_t atom = 0; atom < atoms; ++atom) {
    const std::uint64_t atom_size = read_number(at);
    at += sizeof(atom_size);
    result.second.push_back(copier.copy(at, atom_size));
    at += atom_size;
  }
  return result;
}

bool pass_basic_value(util::BufferReader& freader) {
  std::uint64_t atoms = 0;
  if (!scan_size(freader, atoms)) {
    return false;
  }
  for (std::uint64_t atom = 0; atom < atoms; ++atom) {
    std::uint64_t atom_size = 0;
    if (!scan_size(freader, atom_size) || freader.buffer(atom_size) == nullptr) {
      return false;
    }
  }
  return true;
}

namespace {

// Doubles the capacity, but not beyond what the rest of the file can fill: the list never
// takes more memory than the file.
void make_room(std::vector<ScannedEntry>& entries, std::size_t remaining) {
  if (entries.size() == entries.capacity()) {
    const std::size_t size = entries.size();
    entries.reserve(size + std::min(size + 1, remaining / kSmallestEntry + 1));
  }
}

}  // namespace

std::vector<ScannedEntry> scan_entries(util::BufferReader& freader, const PassValue& pass_value) {
  std::vector<ScannedEntry> entries;
  bool sorted = true;
  while (freader.remaining() > 0) {
    util::BufferReader ahead = freader;
    ScannedEntry entry;
    if (!scan_entry(ahead, entry, pass_value)) {
      break;
    }
    sorted = sorted && (entries.empty() || !(entry < entries.back()));
    freader = ahead;
    make_room(entries, freader.remaining());
    entries.push_back(entry);
  }
  if (!sorted) {
    std::stable_sort(entries.begin(), entries.end());
  }
  return entries;
}

}  // namespace cache
}  // namespace quorvane
