#include "src/cache/indexed/present_pair.h"

#include <new>
#include <utility>

#include "src/fork_guard.h"

namespace quorvane {
namespace cache {
namespace indexed {

PresentPair::PresentPair(const Paths& paths, bool may_write)
    : paths_(paths), may_write_(may_write) {
  fork_guard::add(retired_mutex_);
}

PresentPair::~PresentPair() {
  fork_guard::remove(retired_mutex_);
  delete get();
  while (retired_ != nullptr) {  // not one within the other: the list may be long
    retired_ = std::move(retired_->next);
  }
}

Pinned PresentPair::pin() {
  const ReaderGate::Inside inside;
  return Pinned(get());
}

// The data file of a renamed index is found under its old name, and then under its new one
// if it was renamed in between.
Status PresentPair::open(std::unique_ptr<Pair>& pair) const {
  Status status = Status::missing;
  for (const bool is_cleaned : {false, true, false, true, false}) {
    pair = std::make_unique<Pair>();
    status = pair->open(paths_, is_cleaned, may_write_);
    if (status == Status::fits) {
      break;
    }
  }
  return status;
}

// Not if another thread has replaced `replaced`: that may have been replace_by, with a newer
// pair than this one.
void PresentPair::attach(std::unique_ptr<Pair> pair, Pair* replaced) {
  Pair* expected = replaced;
  if (present_.compare_exchange_strong(expected, pair.get())) {
    static_cast<void>(pair.release());
    if (replaced != nullptr) {
      retire(replaced);
    }
  }
}

void PresentPair::replace_by(std::unique_ptr<Pair> pair) {
  Pair* const replaced = present_.exchange(pair.release());
  if (replaced != nullptr) {
    retire(replaced);
  }
}

void PresentPair::retire(Pair* pair) noexcept {
  pair->retire();
  pair->round = ReaderGate::end_round();
  const fork_guard::Lock lock(retired_mutex_);
  pair->next = std::move(retired_);
  retired_.reset(pair);
  free_drained();
}

void PresentPair::free_drained() {
  const std::uint64_t first = ReaderGate::first_in_use();
  for (std::unique_ptr<Pair>* pair = &retired_; *pair != nullptr;) {
    if ((*pair)->round < first && (*pair)->is_gone()) {
      *pair = std::move((*pair)->next);
    } else {
      pair = &(*pair)->next;
    }
  }
}

bool PresentPair::may_look_again(Pair* seen, bool outgrown) {
  if (get() != seen) {
    return true;
  }
  const bool is_suspect = outgrown || seen->index.is_moving() || clock_.is_due();
  if (is_suspect && (outgrown || !descriptor::is_at(paths_.index.c_str(), seen->index.id())) &&
      open_again(seen)) {
    return true;
  }
  return get() !=
         seen;  // it may have been replaced, and its file deleted, before the names were seen
}

bool PresentPair::open_again(Pair* seen) try {
  std::unique_ptr<Pair> pair;
  if (open(pair) != Status::fits) {
    return false;
  }
  attach(std::move(pair), seen);
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane
