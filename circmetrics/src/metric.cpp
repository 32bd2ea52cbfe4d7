// The kinds of metrics. To add one:
//
// 1. Give it a number in circmetrics.h, and say there what it is in the JSON. If it is
//    updated in a way of its own, add that function there and to exports.cpp.
// 2. Write its class, like Counter, and list the source in CMakeLists.txt.
// 3. Add a case below.
// 4. To let users of QVUtil make it, add its number to util/src/metric_type.h and a
//    function to util/src/stats_c.cpp.
#include "metric.h"

#include "circmetrics.h"
#include "counter.h"
#include "gauge.h"
#include "histogram.h"

namespace circmetrics {
namespace {

constinit const Metric* g_newest = nullptr;

}  // namespace

void Metric::list() {
  older_ = g_newest;
  g_newest = this;
}

const Metric* Metric::newest() { return g_newest; }

std::unique_ptr<Metric> make_metric(int type) {
  switch (type) {
    case CIRCMETRICS_GAUGE_INT64:
    case CIRCMETRICS_GAUGE_DOUBLE:
      return std::make_unique<Gauge>(type);
    case CIRCMETRICS_COUNTER:
      return std::make_unique<Counter>();
    case CIRCMETRICS_HISTOGRAM:
      return std::make_unique<Histogram>();
    default:
      return nullptr;
  }
}

}  // namespace circmetrics
