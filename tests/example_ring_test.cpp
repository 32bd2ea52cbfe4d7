// The ring example, run as a user runs it.
#include <gtest/gtest.h>

#include <string>

#include "support/scenario.h"

namespace {

const std::string PROGRAM = QV_BINARY_DIR "/bin/ring";

TEST(RingExample, CountsPrimesOfTwoProducers) {
  const auto ran = test::run_program(PROGRAM, {"2", "30"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out,
            "producer 0 found 1 primes\n"
            "producer 1 found 9 primes\n"
            "10 primes below 30, sum 129\n");
  EXPECT_EQ(ran.err, "");
}

// The producers find more primes than the ring has slots.
TEST(RingExample, LosesNothingOnAFullRing) {
  EXPECT_EQ(test::run_program(PROGRAM, {"1", "100000"}).out,
            "producer 0 found 9592 primes\n9592 primes below 100000, sum 454396537\n");
}

TEST(RingExample, SaysHowItIsUsed) {
  for (const char* const count : {"0", "65", "many"}) {
    const auto ran = test::run_program(PROGRAM, {count});
    EXPECT_TRUE(ran.exited_with(2));
    EXPECT_EQ(ran.err, "usage: ring [PRODUCERS [LIMIT]], 1 to 64 producers\n");
  }
}

}  // namespace
