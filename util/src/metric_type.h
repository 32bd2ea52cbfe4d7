// The kinds of metrics.
#ifndef QUORVANE_SRC_METRIC_TYPE_H_
#define QUORVANE_SRC_METRIC_TYPE_H_

namespace quorvane {
namespace stats {

// The numbers by which the recorder knows the kinds. They are circmetrics.h's, which this
// library doesn't include: it loads the recorder at run time, or does without. A test
// compares the two.
enum MetricType { kGaugeInt64 = 3, kCounter = 5, kGaugeDouble = 6, kHistogram = 7 };

}  // namespace stats
}  // namespace quorvane

#endif  // QUORVANE_SRC_METRIC_TYPE_H_
