// Runs the tests of this executable, or the scenario NAME when a test starts it again
// with --scenario NAME.
#include <gtest/gtest.h>

#include <cstring>

#include "support/scenario.h"

// ThreadSanitizer reads these options before it starts. A child of fork lacks its parent's
// threads, which is no leak. To keep its memory out of core dumps, ThreadSanitizer would call
// madvise, which a test may refuse. By default it would also delay each exit by a second.
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
