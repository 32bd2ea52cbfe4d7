// Finds the digests of files, in the cache or by reading the file.
#ifndef FINGERPRINT_FINGERPRINTER_H_
#define FINGERPRINT_FINGERPRINTER_H_

#include <quorvane/cache.h>
#include <quorvane/hasher.h>
#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "fingerprint/counts.h"

namespace fingerprint {

// Belongs to one worker. An entry's key is the BLAKE2b-256 of the file's path,
// size and modification time; its value is three atoms:
//   1. the BLAKE2b-256 of the content;
//   2. its FarmHash128. That hash depends on how the content is split, so the
//      split is part of the format: chunks of exactly 1 MiB, the last one
//      shorter. A file of at most 1 MiB is hashed in one piece;
//   3. its number of newlines, as decimal text.
class Fingerprinter {
 public:
  Fingerprinter(quorvane::cache::Cache& cache, Counts& counts);

  // Looks the file up, and reads it only when it isn't in the cache.
  void process(const std::string& path);

 private:
  using Atoms = std::vector<quorvane::util::RoBuffer>;

  quorvane::util::RoBuffer key_of(const std::string& path, const struct stat& file);
  bool digest(int fd, Atoms& out);
  void miss(const std::string& path, const struct stat& file, const quorvane::util::RoBuffer& key);
  void complain_about(const std::string& path, int error);

  quorvane::cache::Cache& cache_;
  Counts& counts_;
  quorvane::hash::strong::Blake2Hasher strong_;
  quorvane::hash::fast::FarmHash128Hasher fast_;
  std::vector<std::uint8_t> chunk_;
};

}  // namespace fingerprint

#endif  // FINGERPRINT_FINGERPRINTER_H_
