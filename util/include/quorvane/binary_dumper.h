/// \file
/// Dumps raw bytes for inspection, each time into the next numbered file.
///
/// Thread-safety: any thread may dump at any time. Fork-safety: parent and child number
/// their dumps alike after a fork; see BinaryDumper.
#ifndef QUORVANE_BINARY_DUMPER_H_
#define QUORVANE_BINARY_DUMPER_H_

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <quorvane/export.h>
#include <quorvane/log.h>

namespace quorvane {
namespace util {

/// Writes each dump to the file DIRECTORY/PREFIXnnnnSUFFIX, numbered from 0000, and logs
/// it through the module "util/src/fatbin_parser". If the module's level hides the
/// record, the dump is written all the same.
///
/// Invariant: a number repeats only after 2^32 dumps.
/// Thread-safety: any thread may dump at any time. Fork-safety: parent and child use the
/// same numbers after a fork and so overwrite each other's dumps; give the child a dumper
/// with another prefix or directory. Not in signal handlers.
class QV_EXPORT BinaryDumper {
 public:
  /// Copies its arguments. A null argument takes its default: the name "(Unset)", which
  /// appears in records only, the prefix "dump_", the suffix ".bin", and the directory
  /// $TMPDIR, or "/tmp/" when that is unset or the program is set-user-id. An empty
  /// string, also in $TMPDIR, is used as it is. `level` is the level of all records of
  /// this dumper. If there is no memory for the copies, every dump fails like one whose
  /// file can't be opened.
  BinaryDumper(const char* name, const char* prefix, const char* suffix, const char* directory,
               qv_log_level_t level);
  /// All defaults, with records at INFO.
  BinaryDumper() : BinaryDumper(nullptr, nullptr, nullptr, nullptr, QV_LOG_LEVEL_INFO) {}
  /// Keeps the files.
  ~BinaryDumper();
  BinaryDumper(const BinaryDumper&) = delete;
  BinaryDumper& operator=(const BinaryDumper&) = delete;

  /// Logs the dump, then writes `size` bytes into the next file, replacing any file
  /// of that name. Null data takes no number and logs a different record. A file that
  /// can't be opened takes its number and gives a second record. Bytes that don't fit on
  /// the disk are lost without a record. The path has room for four digits: from number
  /// 10000 on, each further digit cuts one character off its end.
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
