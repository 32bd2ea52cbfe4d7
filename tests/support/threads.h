// Threads that a test starts and joins.
#ifndef TESTS_SUPPORT_THREADS_H_
#define TESTS_SUPPORT_THREADS_H_

#include <functional>
#include <thread>
#include <vector>

namespace test {

// Runs `body` in `count` threads, each with its index, and waits for all of them.
inline void run_threads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int index = 0; index < count; ++index) {
    threads.emplace_back(body, index);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace test

#endif  // TESTS_SUPPORT_THREADS_H_
