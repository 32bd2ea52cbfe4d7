// Splits text into lines.
#ifndef TESTS_SUPPORT_LINES_H_
#define TESTS_SUPPORT_LINES_H_

#include <string>
#include <vector>

namespace test {

// The lines of `text` without their newlines. The last one may lack its newline.
std::vector<std::string> lines_of(const std::string& text);

}  // namespace test

#endif  // TESTS_SUPPORT_LINES_H_
