#ifndef TESTS_SUPPORT_RECORDER_PATH_H_
#define TESTS_SUPPORT_RECORDER_PATH_H_

#include <optional>
#include <string>

namespace test {

// For LD_LIBRARY_PATH. The recorder lies beside the library, and is found there
// unless a sanitizer calls dlopen in the library's place.
#ifdef QV_SANITIZED
inline const std::optional<std::string> kRecorderPath = QV_BINARY_DIR "/lib";
#else
inline const std::optional<std::string> kRecorderPath;
#endif

}  // namespace test

#endif  // TESTS_SUPPORT_RECORDER_PATH_H_
