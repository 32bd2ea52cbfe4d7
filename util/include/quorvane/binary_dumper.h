/// \file
/// Dumps of raw bytes for inspection, each into a numbered file of its own.
#ifndef QUORVANE_BINARY_DUMPER_H_
#define QUORVANE_BINARY_DUMPER_H_

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <quorvane/export.h>
#include <quorvane/log.h>

namespace quorvane {
namespace util {

/// Writes each dump to DIRECTORY/PREFIXnnnnSUFFIX, numbered from 0000, and logs
/// it through the module "util/src/fatbin_parser"; a dump counts also when the
/// module's level hides its record. Invariant: a number is given out once.
/// Thread-safety: any thread may dump at any time. Fork-safety: a child goes on
/// with the numbers of its parent, and so overwrites what its parent dumps from
/// then on; give it a dumper of its own.
class QV_EXPORT BinaryDumper {
 public:
  /// Copies its arguments. A null one takes its default: the name "(Unset)",
  /// which only records show, the prefix "dump_", the suffix ".bin", and the
  /// directory $TMPDIR (also when that is empty, but not in a set-user-id program)
  /// or else "/tmp/". An empty string is taken as it is. `level` is that of all
  /// records of this dumper. Without memory for the copies no dump finds a file that
  /// it can open.
  BinaryDumper(const char* name, const char* prefix, const char* suffix, const char* directory,
               qv_log_level_t level);
  /// All defaults, with records at INFO.
  BinaryDumper() : BinaryDumper(nullptr, nullptr, nullptr, nullptr, QV_LOG_LEVEL_INFO) {}
  ~BinaryDumper();
  BinaryDumper(const BinaryDumper&) = delete;
  BinaryDumper& operator=(const BinaryDumper&) = delete;

  /// Writes `size` bytes into the next file, over one that has the name already,
  /// and logs that it does so. Null data and a file that can't be opened give a
  /// record more or instead; null data takes no number. Bytes that don't fit on
  /// the disk are lost without a record. The path has room for four digits: from
  /// the number 10000 on it loses a character of its end for each digit more.
  void dump(const void* data, std::size_t size);

  // End of the public interface.

 private:
  char* prefix_;
  char* name_;
  char* suffix_;
  char* directory_;
  qv_log_level_t level_;
  std::uint32_t path_size_;  // with the terminating NUL
  std::atomic<std::uint32_t> counter_{0};
};

}  // namespace util
}  // namespace quorvane

#endif  // QUORVANE_BINARY_DUMPER_H_
