// The file that statistics append their reports to.
#ifndef QUORVANE_SRC_REPORT_FILE_H_
#define QUORVANE_SRC_REPORT_FILE_H_

#include <atomic>
#include <cstdint>

#include "src/descriptor.h"

namespace quorvane {
namespace stats {

// Holds a descriptor to write through and, of a file on disk, one to lock and to read
// through. The program may have closed either number and given it to a file of its own:
// whenever one is used again, it is looked at first, and what is open there instead is
// left alone.
//
// A child may write through its parent's descriptor. But a lock that it shared would
// keep neither out, and would outlive a parent that is killed: so a child opens its own
// descriptor to lock through, and lets go of its parent's in the fork handler. What is
// no file on disk stays shared, lock and all: to open a FIFO again could block, and to
// open it for reading would hide from a writer that its reader is gone.
//
// Used by one thread at a time; a fork by another may come at any moment.
class ReportFile {
 public:
  // `number` is kept up to date: -1 while no file is open. A file that is not kept yet
  // is closed in a child.
  ReportFile(int& number, bool is_kept);
  ~ReportFile();
  ReportFile(const ReportFile&) = delete;
  ReportFile& operator=(const ReportFile&) = delete;

  void keep() { is_kept_ = true; }

  // False with errno.
  bool open(const char* path);

  // close(2), but only of the file: -1 with EBADF when its number is not open on it.
  // The number stays.
  int close();

  // Waits for the lock. False, having locked nothing, when the file has lost its number
  // and can't be opened again, and after give_up.
  bool lock();
  void unlock();
  void give_up() { is_given_up_ = true; }

  // Whether it ends within a line, whose writer was killed. To be called with the lock.
  bool ends_within_a_line() const;

  // For the fork handler, on every file.
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
  std::atomic<bool> is_shared_{false};     // the number is the parent's
  std::atomic<std::uint64_t> generation_;  // of the process whose lock_fd_ it is
  std::atomic<bool> is_kept_;
  ReportFile* next_;  // in the list of all
};

}  // namespace stats
}  // namespace quorvane

#endif  // QUORVANE_SRC_REPORT_FILE_H_
