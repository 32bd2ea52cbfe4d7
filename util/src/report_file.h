// The file that statistics append their reports to.
#ifndef QUORVANE_SRC_REPORT_FILE_H_
#define QUORVANE_SRC_REPORT_FILE_H_

#include <atomic>
#include <cstdint>

#include "src/descriptor.h"

namespace quorvane {
namespace stats {

// Holds a descriptor to write through and, for a file on disk, another to lock and to read
// through. The program may have closed either and opened a file of its own under that
// number: so a descriptor is checked before each use, and one that is open on another file
// is left alone.
//
// A child may write through its parent's descriptor. But a shared lock would exclude
// neither of them, and would outlive a parent that is killed: so the child's fork handler
// opens a descriptor of its own to lock through, and closes the inherited one. A file that isn't
// on disk stays shared, and so does its lock: opening a FIFO again could block, and opening
// it for reading would hide from a writer that its reader has gone.
//
// Used by one thread at a time; another thread may fork at any moment.
class ReportFile {
 public:
  // Keeps `number`, the descriptor to write through, up to date: -1 while no file is open. A
  // child closes a file that isn't kept yet.
  ReportFile(int& number, bool is_kept);
  ~ReportFile();
  ReportFile(const ReportFile&) = delete;
  ReportFile& operator=(const ReportFile&) = delete;

  void keep() { is_kept_ = true; }

  // False with errno.
  bool open(const char* path);

  // Closes the descriptor as close(2) does, but only if it is open on the file: otherwise -1
  // with EBADF. `number` stays.
  int close();

  // Waits for the lock. False, without a lock, after give_up, and when the descriptor is no
  // longer open on the file and the file can't be opened again.
  bool lock();
  void unlock();
  void give_up() { is_given_up_ = true; }

  // Whether the last line is incomplete, as a killed writer leaves it. Call it with the lock
  // held.
  bool ends_within_a_line() const;

  // What the fork handler does with every file.
  static void all_in_child();

 private:
  void in_child();
  int number() const;
  void set_number(int number);
  bool is_open() const;
  bool has_lock_fd() const;
  bool take(int fd);
  bool reopen();
  bool make_ours();
  void open_lock_fd();
  void drop_lock_fd();
  void let_go_of_parents_lock();
  void let_go_of_parents_number();
  int lock_number() const;

  int& number_;
  char* path_ = nullptr;  // absolute; null when unknown
  bool is_given_up_ = false;
  descriptor::FileId id_;
  std::atomic<bool> is_on_disk_{false};
  std::atomic<int> lock_fd_{-1};
  std::atomic<bool> is_shared_{false};     // the number is shared with the parent
  std::atomic<std::uint64_t> generation_;  // of the process that lock_fd_ belongs to
  std::atomic<bool> is_kept_;
  ReportFile* next_;  // in the list of all files
};

}  // namespace stats
}  // namespace quorvane

#endif  // QUORVANE_SRC_REPORT_FILE_H_
