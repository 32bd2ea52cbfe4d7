// Where programs find what the library opens.
#ifndef TESTS_SUPPORT_LIBRARY_PATH_H_
#define TESTS_SUPPORT_LIBRARY_PATH_H_

#include <optional>
#include <string>

namespace test {

// For LD_LIBRARY_PATH. The library finds the recorder and the store on servers in its own
// directory, but a sanitizer's dlopen ignores the library's run path.
#ifdef QV_SANITIZED
inline const std::optional<std::string> kLibraryPath = QV_BINARY_DIR "/lib";
#else
inline const std::optional<std::string> kLibraryPath;
#endif

}  // namespace test

#endif  // TESTS_SUPPORT_LIBRARY_PATH_H_
