// dump: writes each block of a file to a file of its own, to look at with hexdump, for
// example. The log says where each block went.
#include <quorvane/binary_dumper.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::size_t kBlockSize = 4096;

int complain(const char* path) {
  std::fprintf(stderr, "dump: %s: %s\n", path, std::strerror(errno));
  return 1;
}

// Without a directory the dumper writes to $TMPDIR, or to /tmp/ if that is unset.
int dump_blocks(std::FILE* file, const char* path, const char* directory) {
  quorvane::util::BinaryDumper dumper(path, "block_", nullptr, directory, QV_LOG_LEVEL_INFO);
  char block[kBlockSize];
  unsigned long blocks = 0;
  while (const std::size_t size = std::fread(block, 1, sizeof(block), file)) {
    dumper.dump(block, size);
    ++blocks;
  }
  if (std::ferror(file) != 0) {
    return complain(path);
  }
  std::printf("%lu blocks of %s\n", blocks, path);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fprintf(stderr, "usage: dump FILE [DIRECTORY]\n");
    return 2;
  }
  std::FILE* const file = std::fopen(argv[1], "rb");
  if (file == nullptr) {
    return complain(argv[1]);
  }
  const int status = dump_blocks(file, argv[1], argc == 3 ? argv[2] : nullptr);
  std::fclose(file);
  return status;
}
