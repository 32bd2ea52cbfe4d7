#include "src/cache/indexed/entry.h"

#include <farmhash.h>

#include <cstring>
#include <limits>
#include <memory>

namespace quorvane {
namespace cache {
namespace indexed {
namespace {

std::uint32_t checksum_of(const unsigned char* entry, std::uint64_t size) {
  return static_cast<std::uint32_t>(
      ::util::Fingerprint64(reinterpret_cast<const char*>(entry) + kChecksummedFrom,
                            static_cast<std::size_t>(size) - kChecksummedFrom));
}

void append(std::string& bytes, const util::RoBuffer& buffer) {
  bytes.append(reinterpret_cast<const char*>(buffer.get_buffer()), buffer.get_size());
}

}  // namespace

std::optional<EntryHeader> Entry::header_at(const unsigned char* bytes, std::uint64_t available) {
  EntryHeader header;
  if (available < sizeof(header)) {
    return std::nullopt;
  }
  std::memcpy(&header, bytes, sizeof(header));
  return header.magic == kEntryMagic ? std::optional(header) : std::nullopt;
}

std::optional<Entry> Entry::start_at(const unsigned char* bytes, std::uint64_t available) {
  const std::optional<EntryHeader> header = header_at(bytes, available);
  if (!header || header->key_size == 0 || header->atoms == 0) {
    return std::nullopt;
  }
  // None of these sums wraps: both factors have 32 bits.
  const std::uint64_t sizes = std::uint64_t{header->atoms} * sizeof(std::uint64_t);
  const std::uint64_t fixed = sizeof(*header) + sizes + header->key_size;
  if (sizes > available - sizeof(*header) || fixed > header->size) {
    return std::nullopt;
  }
  const Entry entry(bytes, *header);
  std::uint64_t left = header->size - fixed;
  for (std::uint32_t atom = 0; atom < header->atoms; ++atom) {
    const std::uint64_t size = entry.atom_size(atom);
    if (size == 0 || size > left) {
      return std::nullopt;
    }
    left -= size;
  }
  return left == 0 ? std::optional(entry) : std::nullopt;
}

std::optional<Entry> Entry::at(const unsigned char* bytes, std::uint64_t available) {
  const std::optional<Entry> entry = start_at(bytes, available);
  return entry && entry->size() <= available ? entry : std::nullopt;
}

std::uint64_t Entry::atom_size(std::uint32_t atom) const {
  std::uint64_t size;
  std::memcpy(&size, bytes_ + sizeof(EntryHeader) + atom * sizeof(size), sizeof(size));
  return size;
}

const unsigned char* Entry::key() const {
  return bytes_ + sizeof(EntryHeader) + header_.atoms * sizeof(std::uint64_t);
}

bool Entry::has_key(const util::RoBuffer& key) const {
  return header_.key_size == key.get_size() &&
         std::memcmp(this->key(), key.get_buffer(), key.get_size()) == 0;
}

bool Entry::is_intact() const { return checksum_of(bytes_, header_.size) == header_.checksum; }

std::vector<util::RoBuffer> Entry::value_views() const {
  std::vector<util::RoBuffer> value;
  value.reserve(header_.atoms);
  const unsigned char* atom = key() + header_.key_size;
  for (std::uint32_t i = 0; i < header_.atoms; ++i) {
    const auto size = static_cast<std::size_t>(atom_size(i));
    value.push_back(util::RoBuffer::view(atom, size));
    atom += size;
  }
  return value;
}

std::optional<std::vector<util::RoBuffer>> Entry::copy_value() const {
  const auto size = static_cast<std::size_t>(header_.size);
  auto copy = std::make_shared_for_overwrite<unsigned char[]>(size);
  std::memcpy(copy.get(), bytes_, size);
  // The copy is checked, not the file's bytes, which may change in between.
  const std::optional<Entry> entry = at(copy.get(), size);
  if (!entry || entry->size() != header_.size || entry->key_size() != header_.key_size ||
      !entry->is_intact()) {
    return std::nullopt;
  }
  const std::shared_ptr<unsigned char> owner(copy, copy.get());
  std::vector<util::RoBuffer> value = entry->value_views();
  for (util::RoBuffer& atom : value) {
    atom = util::RoBuffer::share(owner, const_cast<unsigned char*>(atom.get_buffer()),
                                 atom.get_size());
  }
  return value;
}

std::uint64_t size_in_file(const util::RoBuffer& key, const std::vector<util::RoBuffer>& value) {
  constexpr std::size_t kLargest = std::numeric_limits<std::uint32_t>::max();
  if (key.get_size() > kLargest || value.size() > kLargest) {
    return 0;
  }
  std::uint64_t size = sizeof(EntryHeader) + key.get_size();
  for (const util::RoBuffer& atom : value) {
    size += sizeof(std::uint64_t) + atom.get_size();
  }
  return padded(size);
}

void encode(std::string& bytes, const util::RoBuffer& key,
            const std::vector<util::RoBuffer>& value) {
  const std::size_t start = bytes.size();
  const std::uint64_t in_file = size_in_file(key, value);
  EntryHeader header{kEntryMagic, 0, 0, static_cast<std::uint32_t>(key.get_size()),
                     static_cast<std::uint32_t>(value.size())};
  bytes.append(sizeof(header), '\0');
  for (const util::RoBuffer& atom : value) {
    const std::uint64_t size = atom.get_size();
    bytes.append(reinterpret_cast<const char*>(&size), sizeof(size));
  }
  append(bytes, key);
  for (const util::RoBuffer& atom : value) {
    append(bytes, atom);
  }
  header.size = bytes.size() - start;
  std::memcpy(bytes.data() + start, &header, sizeof(header));
  header.checksum =
      checksum_of(reinterpret_cast<const unsigned char*>(bytes.data()) + start, header.size);
  std::memcpy(bytes.data() + start, &header, sizeof(header));
  bytes.append(static_cast<std::size_t>(in_file - header.size), '\0');
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
