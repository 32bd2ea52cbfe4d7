// A file that takes longer than a second to read.
#ifndef TESTS_SUPPORT_SLOW_PIPE_H_
#define TESTS_SUPPORT_SLOW_PIPE_H_

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <utility>

namespace test {

class SlowPipe {
 public:
  // Its reader gets `text` twice, the second one a second after the first.
  SlowPipe(const std::string& path, std::string text) {
    EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
    writer_ = std::thread([path, text = std::move(text)] {
      std::ofstream pipe(path);
      pipe << text << std::flush;
      std::this_thread::sleep_for(std::chrono::milliseconds(1100));
      pipe << text << std::flush;
    });
  }
  ~SlowPipe() { writer_.join(); }
  SlowPipe(const SlowPipe&) = delete;
  SlowPipe& operator=(const SlowPipe&) = delete;

 private:
  std::thread writer_;
};

}  // namespace test

#endif  // TESTS_SUPPORT_SLOW_PIPE_H_
