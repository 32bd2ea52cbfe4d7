// Splits text into lines.
#ifndef TESTS_SUPPORT_LINES_H_
#define TESTS_SUPPORT_LINES_H_

#include <sstream>
#include <string>
#include <vector>

namespace test {

// The lines of `text` without their newlines. The last one may lack its newline.
inline std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

}  // namespace test

#endif  // TESTS_SUPPORT_LINES_H_
