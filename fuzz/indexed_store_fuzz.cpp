// Any bytes as the two files of an indexed store: opening them, looking up, reading everything,
// appending and opening again ends, and gives values that can be read to their last byte. What
// was appended is found again.
//
// An input is a byte of flags, the size of the data file in two bytes, the data file, the words
// of the index page, and the slots in what is left. Flag 1 makes the words of the page that
// never change fit the data, flag 2 the marks and checksums of entries: few random bytes would
// get past these.
#include <farmhash.h>
#include <quorvane/file_store.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "src/cache/indexed/engine.h"
#include "src/cache/indexed/index_file.h"
#include "store_fuzz.h"

using quorvane::cache::EntryMap;
using quorvane::cache::indexed::DataFile;
using quorvane::cache::indexed::Engine;
using quorvane::cache::indexed::EntryHeader;
using quorvane::cache::indexed::IndexPage;
using quorvane::util::RoBuffer;
namespace indexed = quorvane::cache::indexed;

namespace {

std::uint32_t hash_of(const std::string& bytes, std::size_t from, std::size_t size) {
  return static_cast<std::uint32_t>(::util::Fingerprint64(bytes.data() + from, size));
}

// Follows the sizes as far as they lead.
void mark_entries(std::string& data) {
  std::size_t at = indexed::kFirstEntry;
  while (at + sizeof(EntryHeader) <= data.size()) {
    EntryHeader header;
    std::memcpy(&header, data.data() + at, sizeof(header));
    const std::size_t left = data.size() - at;
    if (header.size >= sizeof(header) && header.size <= left) {
      header.checksum =
          hash_of(data, at + indexed::kChecksummedFrom, header.size - indexed::kChecksummedFrom);
      std::memcpy(data.data() + at, &header, sizeof(header));
    }
    header.magic = indexed::kEntryMagic;
    std::memcpy(data.data() + at, &header, sizeof(header));
    at += std::clamp<std::uint64_t>(indexed::padded(std::min(header.size, left)),
                                    indexed::kAlignment, left);
  }
}

std::string data_file(std::string data, bool marked) {
  constexpr std::uint32_t kBegin[2] = {indexed::kDataMagic, indexed::kVersion};
  if (marked && data.size() >= sizeof(kBegin)) {
    std::memcpy(data.data(), kBegin, sizeof(kBegin));
    mark_entries(data);
  }
  return data;
}

std::string index_file(const std::string& words, const std::string& path, bool sealed) {
  IndexPage page{};
  std::memcpy(&page, words.data(), std::min(words.size(), sizeof(page)));
  const std::string slots = words.substr(std::min(words.size(), sizeof(page)));
  DataFile data;
  if (sealed && data.open(path) == indexed::Status::fits) {
    const IndexPage fitting = indexed::page_for(data, slots.size() / sizeof(std::uint64_t));
    std::memcpy(&page, &fitting, offsetof(IndexPage, covered));
  }
  std::string bytes(indexed::kIndexPageSize, '\0');
  std::memcpy(bytes.data(), &page, sizeof(page));
  return bytes + slots;
}

void write(const fuzz::Root& root, const std::string& name, const std::string& bytes) {
  root.write(name, reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

RoBuffer buffer(const std::string& text) { return RoBuffer::copy(text.data(), text.size()); }

bool finds(Engine& store, const RoBuffer& key) {
  std::vector<RoBuffer> value;
  const bool found = store.find(key, value);
  if (found) {
    fuzz::expect_readable(value);
  }
  const std::uint64_t hash = quorvane::cache::key_hash::lasting(key);
  store.prefetch_slot(hash);
  return found && !store.lacks(hash);
}

void read_everything(Engine& store) {
  EntryMap all;
  store.read_all(all);
  for (const auto& [key, value] : all) {
    fuzz::expect_readable(key);
    fuzz::expect_readable(value);
    finds(store, key);
    store.prefetch(&key, 1);
  }
  for (const char* key : {"a", "b", "some key", "absent"}) {
    finds(store, buffer(key));
  }
  store.entries();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static const fuzz::Root root;
  static const auto lock = std::make_shared<fuzz::FreeLock>();
  static const std::string path = std::getenv("QV_CACHE_STORE_ROOT");
  fuzz::log_nothing();
  if (size < 3) {
    return 0;
  }
  const std::string input(reinterpret_cast<const char*>(bytes) + 3, size - 3);
  const std::size_t data_size = std::min(bytes[1] + std::size_t{256} * bytes[2], input.size());
  write(root, "dat_maps", data_file(input.substr(0, data_size), (bytes[0] & 2) != 0));
  write(root, "idx_maps",
        index_file(input.substr(data_size), path + "/dat_maps", (bytes[0] & 1) != 0));

  Engine store(path, "maps", lock);
  const bool is_open = store.open();
  read_everything(store);
  const RoBuffer key = buffer("added");
  const EntryMap added{{key, {buffer("value")}}};
  const bool stored = store.store(added);
  fuzz::expect(is_open || !stored);
  fuzz::expect(!stored || finds(store, key));
  read_everything(store);
  Engine again(path, "maps", lock);
  fuzz::expect(again.open() || !stored);
  fuzz::expect(!stored || finds(again, key));
  read_everything(again);
  return 0;
}
