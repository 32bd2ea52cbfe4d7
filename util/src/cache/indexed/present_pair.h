// The pair of files that a process looks up in, and its replacement by a newer one.
#ifndef QUORVANE_SRC_CACHE_INDEXED_PRESENT_PAIR_H_
#define QUORVANE_SRC_CACHE_INDEXED_PRESENT_PAIR_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "src/cache/indexed/look_clock.h"
#include "src/cache/indexed/pair.h"
#include "src/cache/indexed/paths.h"
#include "src/cache/indexed/pinned.h"
#include "src/cache/indexed/reader_gate.h"

namespace quorvane {
namespace cache {
namespace indexed {

// Frees a replaced pair once no thread can be using it: the files at once, the addresses
// when a later pair is attached.
// Thread-safety: any thread may call everything but the constructor and destructor.
// Fork-safety: a child may use its copy.
class PresentPair {
 public:
  // `may_write`: see IndexFile::open.
  PresentPair(const Paths& paths, bool may_write);
  ~PresentPair();
  PresentPair(const PresentPair&) = delete;
  PresentPair& operator=(const PresentPair&) = delete;

  // The pair may be used while the thread is inside the ReaderGate.
  Pair* get() const { return present_.load(); }

  // The pair may be used as long as it is pinned.
  Pinned pin();

  // Opens the pair to which the names lead. On another result than `fits`, it tells more.
  Status open(std::unique_ptr<Pair>& pair) const;

  // Makes the pair the present one, unless another thread has replaced `replaced` first.
  void attach(std::unique_ptr<Pair> pair, Pair* replaced);

  // With the store lock: makes the pair, which has the names, the present one.
  void replace_by(std::unique_ptr<Pair> pair);

  // Inside the gate, after a miss in `seen`: whether there is another pair to look into.
  // `outgrown` as from Pair::find.
  bool may_look_again(Pair* seen, bool outgrown);

  // Inside the gate: the same, if the names lead to other files. A failed attempt is
  // repeated at the next miss.
  bool open_again(Pair* seen);

 private:
  void retire(Pair* pair) noexcept;
  void free_drained();

  const Paths& paths_;
  const bool may_write_;
  std::atomic<Pair*> present_{nullptr};
  LookClock clock_;  // for files that were replaced by hand: they carry no mark
  std::mutex retired_mutex_;
  std::unique_ptr<Pair> retired_;  // a list; not in use, but perhaps by threads inside the gate
};

}  // namespace indexed
}  // namespace cache
}  // namespace quorvane

#endif  // QUORVANE_SRC_CACHE_INDEXED_PRESENT_PAIR_H_
