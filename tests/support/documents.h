// The fenced blocks of the documents, and the programs in them.
#ifndef TESTS_SUPPORT_DOCUMENTS_H_
#define TESTS_SUPPORT_DOCUMENTS_H_

#include <cstddef>
#include <string>

namespace test {

// The lines from the first `opening` line to the closing fence, without either. "" if the
// text has no such block.
inline std::string fenced_block(const std::string& text, const std::string& opening) {
  const std::size_t begin = text.find(opening + "\n");
  if (begin == std::string::npos) {
    return "";
  }
  const std::size_t first = begin + opening.size() + 1;
  return text.substr(first, text.find("```\n", first) - first);
}

#ifdef QV_SANITIZE_FLAG
// Compiles a program as README.md does, with this build's compiler and library.
inline std::string compile_command(const std::string& source, const std::string& program,
                                   const std::string& options = "") {
  const std::string library = QV_BINARY_DIR "/lib";
  return QV_CXX_COMPILER " -std=c++20 -Wall -Wextra -Werror " QV_SANITIZE_FLAG " -I'" QV_SOURCE_DIR
                         "/util/include' -I'" QV_SOURCE_DIR "/remote/include' '" +
         source + "' -L'" + library + "' -lQVUtil " + options + " -Wl,-rpath,'" + library +
         "' -o '" + program + "'";
}

// The same for a program in C. Only the C++ driver finds the runtime of a sanitized C++ library,
// so it links.
inline std::string compile_c_command(const std::string& source, const std::string& program) {
  const std::string object = program + ".o";
  return QV_C_COMPILER " -std=c11 -Wall -Wextra -Wpedantic -Werror -I'" QV_SOURCE_DIR
                       "/util/include' -c '" +
         source + "' -o '" + object + "' && " + compile_command(object, program);
}
#endif

}  // namespace test

#endif  // TESTS_SUPPORT_DOCUMENTS_H_
