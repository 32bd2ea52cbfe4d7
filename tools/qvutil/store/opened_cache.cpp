#include "qvutil/store/opened_cache.h"

#include <algorithm>
#include <string>
#include <utility>

#include "qvutil/output/outcome.h"
#include "qvutil/output/text.h"
#include "qvutil/store/format.h"
#include "qvutil/store/indexed_scan.h"

namespace quorvane::tool {
namespace {

std::uint32_t version_of(Kind kind) {
  return kind == Kind::lazy_lookup ? format::kLazyVersion : format::kBasicVersion;
}

void check_version(MappedFile& file, std::uint32_t magic, std::uint32_t version) {
  const format::Start start = format::start_of(file.bytes());
  if (start.magic == magic && format::is_other_version(start.version, version)) {
    throw format::OtherVersion(shown(file.path()), start.version, version);
  }
}

std::optional<std::uint64_t> identity_of(MappedFile& data) {
  const std::string_view bytes = data.bytes();
  return bytes.size() < format::kDataHeaderSize
             ? std::nullopt
             : std::optional(format::number_at<std::uint64_t>(bytes, 8));
}

bool is_noted(const NotedFile& noted, const MappedFile& file) {
  return noted.name == file.name() &&
         (noted.inode == 0 ? file.size() == 0
                           : noted.device == file.device() && noted.inode == file.inode());
}

}  // namespace

OpenedCache::OpenedCache(const CacheFiles& files, const std::vector<NotedFile>& noted)
    : kind(files.kind), main(MappedFile::open(files.main_file())) {
  if (kind == Kind::indexed) {
    open_index(files);
    return;
  }
  if (kind == Kind::lazy_lookup) {
    values = MappedFile::open(files.path("val_"));
  }
  for (std::optional<MappedFile>* file : {&main, &values}) {
    if (*file) {
      leave_out(**file, noted);
      check_version(**file, format::kMagic, version_of(kind));
    }
  }
}

void OpenedCache::leave_out(MappedFile& file, const std::vector<NotedFile>& noted) {
  for (const NotedFile& each : noted) {
    const std::uint64_t size = each.existed ? each.size : 0;
    if (is_noted(each, file) && (size < file.size() || !each.existed)) {
      places.push_back({file.name(), size, file.size() - size,
                        "an append was cut short here; the next writer undoes it", false});
      file.limit(size);
    }
  }
}

// A clean that was killed between its renames leaves an index of the data file that has no
// name of its own yet. The library uses both.
void OpenedCache::open_index(const CacheFiles& files) {
  const auto fitting = [&](MappedFile& data) {
    check_version(data, format::kDataMagic, format::kIndexedVersion);
    const auto identity = identity_of(data);
    if (identity) {
      index.emplace(files.path("idx_"), data, *identity);
    }
    return identity && index->fits();
  };
  if (main && fitting(*main)) {
    return;
  }
  std::optional<MappedFile> cleaned = MappedFile::open(files.path("newdat_"));
  const auto identity = cleaned ? identity_of(*cleaned) : std::nullopt;
  if (identity && IndexView(files.path("idx_"), *cleaned, *identity).fits()) {
    fitting(*cleaned);
    places.push_back(
        {cleaned->name(), 0, 0, "a clean was cut short; the next writer renames this file", false});
    main = std::move(cleaned);
  }
}

bool OpenedCache::ends_with_rest() const {
  return kind == Kind::indexed && main && index &&
         (!index->fits() || index->covered() < main->size());
}

bool OpenedCache::leave_out_rest() {
  if (!ends_with_rest()) {
    return true;
  }
  const std::string_view data = main->bytes();
  Entry entry;
  std::uint64_t end = index->fits() ? index->covered() : format::kDataHeaderSize;
  while (end < data.size() && IndexedScan::read(data, end, entry) == nullptr) {
    end += format::padded(entry.size);
  }
  if (end < data.size() && IndexedScan::is_cut(data, end)) {
    places.push_back(IndexedScan::rest(main->name(), end, data.size()));
    main->limit(end);
  }
  return end >= main->size();
}

std::uint64_t OpenedCache::bytes() const {
  return (main ? main->size() : 0) + (values ? values->size() : 0) +
         (index ? index->file_size() : 0);
}

std::int64_t OpenedCache::changed() const {
  return std::max(
      {main ? main->changed() : 0, values ? values->changed() : 0, index ? index->changed() : 0});
}

}  // namespace quorvane::tool
