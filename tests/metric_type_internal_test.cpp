// The kinds of metrics have the same numbers on both sides of dlopen.
#include "src/metric_type.h"

#include <circmetrics.h>
#include <gtest/gtest.h>

namespace {

TEST(MetricType, HasTheNumbersOfTheRecorder) {
  EXPECT_EQ(static_cast<int>(quorvane::stats::kGaugeInt64), CIRCMETRICS_GAUGE_INT64);
  EXPECT_EQ(static_cast<int>(quorvane::stats::kCounter), CIRCMETRICS_COUNTER);
  EXPECT_EQ(static_cast<int>(quorvane::stats::kGaugeDouble), CIRCMETRICS_GAUGE_DOUBLE);
  EXPECT_EQ(static_cast<int>(quorvane::stats::kHistogram), CIRCMETRICS_HISTOGRAM);
}

}  // namespace
