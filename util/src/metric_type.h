// The kinds of metrics.
#ifndef QUORVANE_SRC_METRIC_TYPE_H_
#define QUORVANE_SRC_METRIC_TYPE_H_

namespace quorvane {
namespace stats {

// The recorder's numbers for the kinds, as in circmetrics.h. This library doesn't include
// that header, since it loads the recorder at run time or works without it. A test compares
// the two.
enum MetricType { kGaugeInt64 = 3, kCounter = 5, kGaugeDouble = 6, kHistogram = 7 };

}  // namespace stats
}  // namespace quorvane

#endif  // QUORVANE_SRC_METRIC_TYPE_H_
