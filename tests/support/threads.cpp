#include "support/threads.h"

#include <thread>
#include <vector>

namespace test {

void run_threads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int index = 0; index < count; ++index) {
    threads.emplace_back(body, index);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace test
