#include "src/breaker.h"

#include <gtest/gtest.h>

#include <chrono>

namespace {

using namespace std::chrono_literals;
using quorvane::remote::Breaker;
using Change = Breaker::Change;
using Time = Breaker::Clock::time_point;

constexpr auto kInstant = 1ms;

// A breaker whose times are not shortened.
class BreakerTest : public testing::Test {
 protected:
  static double nothing() { return 0; }

  void open() {
    breaker_.failed(now_);
    breaker_.failed(now_);
    ASSERT_EQ(breaker_.failed(now_), Change::opened);
  }

  // Expects that nobody may try before `wait` is over, and that then one caller may.
  void expect_a_try_after(Breaker::Clock::duration wait) {
    EXPECT_FALSE(breaker_.may_try(now_ + wait - kInstant));
    now_ += wait;
    EXPECT_TRUE(breaker_.may_try(now_));
    EXPECT_FALSE(breaker_.may_try(now_));
  }

  Breaker breaker_{&nothing};
  Time now_ = Breaker::Clock::now();
};

TEST_F(BreakerTest, IsClosedAtFirst) {
  EXPECT_TRUE(breaker_.may_try(now_));
  EXPECT_TRUE(breaker_.may_try(now_));
  EXPECT_EQ(breaker_.succeeded(), Change::none);
}

TEST_F(BreakerTest, OpensForASecondAfterThreeFailuresInARow) {
  EXPECT_EQ(breaker_.failed(now_), Change::none);
  EXPECT_EQ(breaker_.failed(now_), Change::none);
  EXPECT_TRUE(breaker_.may_try(now_));
  EXPECT_EQ(breaker_.failed(now_), Change::opened);
  expect_a_try_after(1s);
}

TEST_F(BreakerTest, CountsFailuresAnewAfterASuccess) {
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(breaker_.failed(now_), Change::none);
    EXPECT_EQ(breaker_.failed(now_), Change::none);
    EXPECT_EQ(breaker_.succeeded(), Change::none);
  }
  EXPECT_TRUE(breaker_.may_try(now_));
}

TEST_F(BreakerTest, DoublesItsTimeWithEachFailedTryUpToAMinute) {
  open();
  for (const auto wait : {1s, 2s, 4s, 8s, 16s, 32s, 60s, 60s}) {
    expect_a_try_after(wait);
    EXPECT_EQ(breaker_.failed(now_), Change::none);
  }
}

TEST_F(BreakerTest, ClosesWithASuccessAndNextTimeOpensForASecondAgain) {
  open();
  expect_a_try_after(1s);
  breaker_.failed(now_);
  expect_a_try_after(2s);
  EXPECT_EQ(breaker_.succeeded(), Change::closed);
  EXPECT_TRUE(breaker_.may_try(now_));
  EXPECT_TRUE(breaker_.may_try(now_));
  EXPECT_EQ(breaker_.succeeded(), Change::none);
  open();
  expect_a_try_after(1s);
}

// Of many callers that ask at the same time, three failures open it; the others come later.
TEST_F(BreakerTest, IsNotOpenedForLongerByCallersThatAskedBefore) {
  open();
  for (int i = 0; i < 61; ++i) {
    EXPECT_EQ(breaker_.failed(now_ + 100ms), Change::none);
  }
  expect_a_try_after(1s);
}

TEST_F(BreakerTest, LetsAnotherCallerTryWhenOneForgoesIt) {
  open();
  expect_a_try_after(1s);
  breaker_.forget_try();
  EXPECT_TRUE(breaker_.may_try(now_));
  EXPECT_FALSE(breaker_.may_try(now_));
}

TEST_F(BreakerTest, ForgetsNothingWhenNobodyTries) {
  breaker_.forget_try();
  EXPECT_TRUE(breaker_.may_try(now_));
  open();
  breaker_.forget_try();
  expect_a_try_after(1s);
}

TEST_F(BreakerTest, LetsAnotherCallerTryAMinuteAfterOneWhoNeverReports) {
  open();
  expect_a_try_after(1s);
  expect_a_try_after(60s);
}

TEST_F(BreakerTest, OpensForAMinuteAtOnceWhenCredentialsAreRefused) {
  EXPECT_EQ(breaker_.refused(now_), Change::opened);
  expect_a_try_after(60s);
  EXPECT_EQ(breaker_.refused(now_), Change::none);
  expect_a_try_after(60s);
  EXPECT_EQ(breaker_.succeeded(), Change::closed);
}

TEST_F(BreakerTest, StaysOpenForAMinuteWhenCredentialsAreRefusedInATry) {
  open();
  expect_a_try_after(1s);
  EXPECT_EQ(breaker_.refused(now_), Change::none);
  expect_a_try_after(60s);
}

TEST(BreakersRandomPart, ShortensTheTimeByUpToAQuarter) {
  Breaker breaker([] { return 1.0; });
  const Time now = Breaker::Clock::now();
  breaker.refused(now);
  EXPECT_FALSE(breaker.may_try(now + 45s - kInstant));
  EXPECT_TRUE(breaker.may_try(now + 45s));
}

// When the breaker first lets a caller try, to the millisecond.
std::chrono::milliseconds time_until_a_try(Breaker& breaker, Time now) {
  std::chrono::milliseconds time{0};
  while (!breaker.may_try(now + time)) {
    ++time;
  }
  return time;
}

TEST(BreakersRandomPart, DiffersFromOneTimeToTheNext) {
  const Time now = Breaker::Clock::now();
  std::chrono::milliseconds least = 60s;
  std::chrono::milliseconds most = 0s;
  for (int i = 0; i < 100; ++i) {
    Breaker breaker;
    breaker.refused(now);
    const auto time = time_until_a_try(breaker, now);
    least = std::min(least, time);
    most = std::max(most, time);
  }
  EXPECT_GE(least, 45s);
  EXPECT_LE(most, 60s);
  // The chance that all of 100 are within 1 of 15 seconds is below 10^-100.
  EXPECT_GT(most - least, 1s);
}

}  // namespace
