#include "fingerprint/fingerprinter.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "fingerprint/complaint.h"
#include "fingerprint/interruption.h"

namespace fingerprint {
namespace {

using quorvane::util::RoBuffer;

constexpr std::size_t CHUNK_SIZE = std::size_t{1} << 20;

// The BLAKE2b-256 of no bytes.
constexpr std::array<std::uint8_t, 32> STRONG_OF_NOTHING = {
    0x0e, 0x57, 0x51, 0xc0, 0x26, 0xe5, 0x43, 0xb2, 0xe8, 0xab, 0x2e, 0xb0, 0x60, 0x99, 0xda, 0xa1,
    0xd1, 0xe5, 0xdf, 0x47, 0x77, 0x8f, 0x77, 0x87, 0xfa, 0xab, 0x45, 0xcd, 0xf1, 0x2f, 0xe3, 0xa8};

// The chain of FarmHash digests starts at 0 and stays 0 without a chunk.
constexpr std::array<std::uint8_t, 16> FAST_OF_NOTHING = {};

// Fills the chunk, unless the file ends first: the digest depends on where chunks end,
// so a short read must not end one. -1 with errno on an error.
ssize_t read_chunk(int fd, std::uint8_t* out) {
  std::size_t filled = 0;
  while (filled < CHUNK_SIZE) {
    const ssize_t got = read(fd, out + filled, CHUNK_SIZE - filled);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      return -1;
    }
    if (got == 0) {
      break;
    }
    filled += static_cast<std::size_t>(got);
  }
  return static_cast<ssize_t>(filled);
}

bool same_version(const struct stat& a, const struct stat& b) {
  return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
         a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

// The hashers return an empty buffer when nothing was hashed, and a cache refuses empty
// atoms: an empty file gets the digests defined above.
template <std::size_t N>
RoBuffer or_nothing(RoBuffer digest, const std::array<std::uint8_t, N>& of_nothing) {
  return digest.get_size() != 0 ? digest : RoBuffer::copy(of_nothing.data(), N);
}

}  // namespace

Fingerprinter::Fingerprinter(quorvane::cache::Cache& cache, Counts& counts)
    : cache_(cache), counts_(counts), chunk_(CHUNK_SIZE) {}

void Fingerprinter::process(const std::string& path) {
  struct stat file {};
  if (lstat(path.c_str(), &file) != 0) {
    complain_about(path, errno);
    return;
  }
  const RoBuffer key = key_of(path, file);
  if (cache_.get_value(key) != nullptr) {
    ++counts_.hits;
    return;
  }
  miss(path, file, key);
}

RoBuffer Fingerprinter::key_of(const std::string& path, const struct stat& file) {
  const std::int64_t numbers[] = {file.st_size, file.st_mtim.tv_sec, file.st_mtim.tv_nsec};
  // The NUL at the end of the path separates it from the numbers.
  strong_.push(reinterpret_cast<const std::uint8_t*>(path.c_str()), path.size() + 1);
  strong_.push(reinterpret_cast<const std::uint8_t*>(numbers), sizeof(numbers));
  return strong_.calculate_and_reset();
}

void Fingerprinter::miss(const std::string& path, const struct stat& file, const RoBuffer& key) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) {
    complain_about(path, errno);
    return;
  }
  Atoms atoms;
  const bool done = digest(fd, atoms);
  const int error = errno;
  struct stat now {};
  const bool unchanged = fstat(fd, &now) == 0 && same_version(file, now);
  close(fd);
  if (!done) {
    complain_about(path, error);
    return;
  }
  if (interruption() != 0) {  // perhaps only part of the file was digested
    return;
  }
  ++counts_.misses;
  // If the file changed meanwhile, its digests belong to no version of it.
  if (unchanged) {
    cache_.add_value(key, std::move(atoms));
  }
}

bool Fingerprinter::digest(int fd, Atoms& out) {
  std::uint64_t lines = 0;
  ssize_t size = 0;
  while (interruption() == 0 && (size = read_chunk(fd, chunk_.data())) > 0) {
    strong_.push(chunk_.data(), static_cast<std::size_t>(size));
    fast_.push(chunk_.data(), static_cast<std::size_t>(size));
    lines += static_cast<std::uint64_t>(std::count(chunk_.data(), chunk_.data() + size, '\n'));
    counts_.bytes_read += static_cast<std::uint64_t>(size);
  }
  const int error = errno;
  out.push_back(or_nothing(strong_.calculate_and_reset(), STRONG_OF_NOTHING));
  out.push_back(or_nothing(fast_.calculate_and_reset(), FAST_OF_NOTHING));
  const std::string text = std::to_string(lines);
  out.push_back(RoBuffer::copy(text.data(), text.size()));
  errno = error;
  return size >= 0;
}

void Fingerprinter::complain_about(const std::string& path, int error) {
  complain(with_errno(path, error));
  ++counts_.unreadable;
}

}  // namespace fingerprint
