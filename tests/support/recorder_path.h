// Where programs find the recorder.
#ifndef TESTS_SUPPORT_RECORDER_PATH_H_
#define TESTS_SUPPORT_RECORDER_PATH_H_

#include <optional>
#include <string>

namespace test {

// For LD_LIBRARY_PATH. The library finds the recorder in its own directory, but a
// sanitizer's dlopen ignores the library's run path.
#ifdef QV_SANITIZED
inline const std::optional<std::string> kRecorderPath = QV_BINARY_DIR "/lib";
#else
inline const std::optional<std::string> kRecorderPath;
#endif

}  // namespace test

#endif  // TESTS_SUPPORT_RECORDER_PATH_H_
