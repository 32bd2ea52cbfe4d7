// Runs the tests of this executable, or one of its scenarios when a test starts
// it again with --scenario NAME.
#include <gtest/gtest.h>

#include <cstring>

#include "support/scenario.h"

int main(int argc, char** argv) {
  if (argc >= 3 && std::strcmp(argv[1], "--scenario") == 0) {
    return test::run_registered_scenario(argv[2], {argv + 3, argv + argc});
  }
  testing::InitGoogleTest(&argc, argv);
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  return RUN_ALL_TESTS();
}
