// Runs a function in a child and stops it wherever it may have changed a file.
#ifndef TESTS_SUPPORT_FILE_CHANGES_H_
#define TESTS_SUPPORT_FILE_CHANGES_H_

#include <functional>

namespace test {

enum class Change { by_call, by_store };

// Runs `body` in a child, and calls `visit` after each of its system calls and after each
// instruction that stores into a file through a shared mapping. Returns the result of `body`, or
// -1 when the child ends otherwise.
//
// The files are then what they would be if the child were killed at this moment.
int at_each_change(const std::function<int()>& body, const std::function<void(Change)>& visit);

}  // namespace test

#endif  // TESTS_SUPPORT_FILE_CHANGES_H_
