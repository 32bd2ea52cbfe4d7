// Runs the tests of this executable, or one of its scenarios when a test starts
// it again with --scenario NAME.
#include <gtest/gtest.h>

#include <cstring>

#include "support/scenario.h"

// ThreadSanitizer asks a program for these before its own start. The threads that
// a child of fork leaves behind in its parent are no leak, and the pages that a
// test's memory limit keeps from being locked are no concern of ours. By default
// it would also keep every such child a second long at its end.
extern "C" const char* __tsan_default_options();
const char* __tsan_default_options() {
  return "report_thread_leaks=0:use_madv_dontdump=0:atexit_sleep_ms=50";
}

int main(int argc, char** argv) {
  if (argc >= 3 && std::strcmp(argv[1], "--scenario") == 0) {
    return test::run_registered_scenario(argv[2], {argv + 3, argv + argc});
  }
  testing::InitGoogleTest(&argc, argv);
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  return RUN_ALL_TESTS();
}
