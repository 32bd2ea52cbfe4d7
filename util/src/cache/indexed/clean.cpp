#include "src/cache/indexed/clean.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "src/cache/indexed/data_file.h"
#include "src/cache/indexed/data_writer.h"
#include "src/cache/indexed/write_all.h"

namespace quorvane {
namespace cache {
namespace indexed {
namespace {

// Written with one call.
constexpr std::size_t kBatch = std::size_t{1} << 20;

}  // namespace

bool finish_rename(const Paths& paths) {
  return std::rename(paths.cleaned_data.c_str(), paths.data.c_str()) == 0;
}

// In this order: whoever finds no data file finds no index either.
void remove_leftovers(const Paths& paths) {
  unlink(paths.cleaned_index.c_str());
  unlink(paths.cleaned_data.c_str());
}

// In a child that was forked meanwhile, the mark is the parent's, and so are the files.
Clean::~Clean() {
  const int error = errno;
  if (has_own_names_ && mark_.is_held()) {
    remove_leftovers(paths_);
  }
  errno = error;
}

bool Clean::begin(const Pair& from) {
  struct stat status;
  if (!mark_.create() || fstat(mark_.fd(), &status) != 0) {
    return false;
  }
  if (status.st_size != 0) {
    errno = EEXIST;
    return false;
  }
  has_own_names_ = true;
  from.data.give_owner_to(mark_.fd());
  copied_to_ = from.index.covered();
  end_ = kFirstEntry;
  return DataWriter::write_header(mark_.fd());
}

bool Clean::copy(const Pair& from) {
  KeptEntries entries(from, copied_to_, bound_);
  const std::vector<std::uint64_t> kept = entries.choose(found_);
  // A hint, which may fail. Blocks that are not allocated yet when the file replaces another one
  // are allocated by the rename, and so with the lock.
  fallocate(mark_.fd(), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(entries.end()));
  if (!kept.empty()) {
    from.data.prefetch(kept.front(), copied_to_ - kept.front());
  }
  for (const std::uint64_t offset : kept) {
    if (!add(from, offset, copied_to_)) {
      return false;
    }
  }
  DataFile data;
  return flush() && open_copies(data) && write_index(data);
}

bool Clean::copy_rest(const Pair& from) {
  const std::uint64_t covered = from.index.covered();
  while (copied_to_ < covered) {
    const auto entry = from.data.entry_at(copied_to_, covered);
    if (!entry) {
      errno = EBADMSG;
      return false;
    }
    bool outgrown = false;
    const auto found = from.find(util::RoBuffer::view(entry->key(), entry->key_size()),
                                 hash_of(entry->key(), entry->key_size()), outgrown);
    if (found && found->offset == copied_to_ && !add(from, copied_to_, covered)) {
      return false;
    }
    copied_to_ += padded(entry->size());
  }
  if (bound_.takes(end_ + batch_.size(), kept())) {
    return flush();
  }
  return start_empty() && copy(from);
}

// The copy's checksum is compared: a damaged entry would make the new file unreadable.
bool Clean::add(const Pair& from, std::uint64_t offset, std::uint64_t covered) {
  const auto entry = from.data.entry_at(offset, covered);
  if (!entry || padded(entry->size()) > covered - offset) {
    return true;
  }
  const std::size_t at = batch_.size();
  const auto size = static_cast<std::size_t>(padded(entry->size()));
  batch_.append(reinterpret_cast<const char*>(entry->bytes()), size);
  const auto copy = Entry::at(reinterpret_cast<const unsigned char*>(batch_.data()) + at, size);
  if (!copy || padded(copy->size()) != size || !copy->is_intact()) {
    batch_.resize(at);
    return true;
  }
  places_.push_back({hash_of(copy->key(), copy->key_size()), end_ + at});
  return batch_.size() < kBatch || flush();
}

bool Clean::flush() {
  if (!mark_.is_held()) {
    errno = EBADF;  // the program has closed the descriptor
    return false;
  }
  if (!write_all(mark_.fd(), batch_, end_)) {
    return false;
  }
  end_ += batch_.size();
  batch_.clear();
  return true;
}

bool Clean::open_copies(DataFile& data) const {
  return data.open(paths_.cleaned_data, paths_.data) == Status::fits;
}

bool Clean::write_index(const DataFile& data) {
  IndexBuilder builder(data);
  builder.take(places_, end_);
  indexed_ = places_.size();
  return builder.write(paths_.cleaned_index, bound_.entries);
}

// Inserts what was copied after the index was written. False when there is no room for it.
bool Clean::complete_index(Pair& copies) const {
  if (indexed_ == 0 || copies.index.open(paths_.cleaned_index, copies.data, true) != Status::fits ||
      !copies.index.is_writable() || !has_room(copies.index.slots(), places_.size())) {
    return false;
  }
  for (std::size_t i = indexed_; i < places_.size(); ++i) {
    if (!copies.insert_new(places_[i].hash, places_[i].offset, 0)) {
      return false;
    }
  }
  copies.index.set_covered(end_);
  copies.index.set_entries(places_.size());
  copies.index.set_indexed(end_);
  return true;
}

bool Clean::start_empty() {
  places_.clear();
  indexed_ = 0;
  batch_.clear();
  end_ = kFirstEntry;
  if (!mark_.is_held()) {
    errno = EBADF;
    return false;
  }
  return ftruncate(mark_.fd(), static_cast<off_t>(end_)) == 0;
}

// The index first: until the data file is renamed too, readers find it under its old name.
bool Clean::replace(const Pair& old) {
  if (!descriptor::is_at(paths_.cleaned_data.c_str(), mark_.id())) {
    errno = ESTALE;  // somebody has deleted it
    return false;
  }
  Pair copies;
  if (!open_copies(copies.data) || !(complete_index(copies) || write_index(copies.data))) {
    return false;
  }
  old.index.set_moving(true);
  if (std::rename(paths_.cleaned_index.c_str(), paths_.index.c_str()) != 0) {
    old.index.set_moving(false);
    return false;
  }
  has_own_names_ = false;  // from here on the store needs them
  return finish_rename(paths_);
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
