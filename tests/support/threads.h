// Threads that a test starts and joins.
#ifndef TESTS_SUPPORT_THREADS_H_
#define TESTS_SUPPORT_THREADS_H_

#include <functional>

namespace test {

// Runs `body` in `count` threads, each with its index, and waits for all of them.
void run_threads(int count, const std::function<void(int)>& body);

}  // namespace test

#endif  // TESTS_SUPPORT_THREADS_H_
