// The hexdumps in docs/formats.md.
#ifndef TESTS_SUPPORT_HEXDUMP_H_
#define TESTS_SUPPORT_HEXDUMP_H_

#include <cstddef>
#include <cstdio>
#include <string>

#include "support/documents.h"
#include "support/temp_dir.h"

namespace test {

// The block "```hexdump NAME", without the fences.
inline std::string documented_hexdump(const std::string& name) {
  const std::string block =
      fenced_block(read_file(QV_SOURCE_DIR "/docs/formats.md"), "```hexdump " + name);
  return block.empty() ? "no block " + name : block;
}

// What hexdump -C prints, without the last line, which has the size. The bytes are those at
// `offset` of the file.
inline std::string hexdump(const std::string& bytes, std::size_t offset = 0) {
  std::string dump;
  char piece[24];
  for (std::size_t row = 0; row < bytes.size(); row += 16) {
    std::snprintf(piece, sizeof(piece), "%08zx ", offset + row);
    dump += piece;
    std::string text;
    for (std::size_t i = row; i < row + 16; ++i) {
      dump += i == row + 8 ? " " : "";
      if (i >= bytes.size()) {
        dump += "   ";
        continue;
      }
      const auto byte = static_cast<unsigned char>(bytes[i]);
      std::snprintf(piece, sizeof(piece), " %02x", byte);
      dump += piece;
      text += byte >= 0x20 && byte < 0x7f ? bytes[i] : '.';
    }
    dump += "  |" + text + "|\n";
  }
  return dump;
}

}  // namespace test

#endif  // TESTS_SUPPORT_HEXDUMP_H_
