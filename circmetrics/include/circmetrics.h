/** \file
 * A metrics recorder: counters, gauges and histograms in nested namespaces,
 * written out as one JSON value.
 *
 * A program loads libcircmetrics.so with dlopen(3) and looks these functions up.
 *
 * Names: any bytes. Bytes that are not UTF-8 are reported as U+FFFD, so names that
 * differ only in such bytes become two members with the same key. Within a namespace a
 * name denotes at most one metric and one namespace: registering either again returns
 * the same one; registering the metric with another type returns null.
 *
 * Lifetime: recorders, namespaces and metrics live until the process ends.
 *
 * Thread-safety: any thread may call any function. Updates are lock-free (the first
 * sample in a new range of a histogram allocates) and none is lost.
 * Fork-safety: a child may use everything and continues from the values at the fork,
 * which its outputs also show. If another thread was recording a sample at that moment,
 * the histogram's sum, min and max may include the sample although its count doesn't.
 * Fork handlers may use everything. A child that ran no fork handlers (a raw clone) while
 * another thread was registering something finds empty namespaces; its metrics still work.
 * Signal handlers may call only stats_add64, in a thread that has called it before
 * outside of a handler.
 * No function throws. */
#ifndef CIRCMETRICS_H_
#define CIRCMETRICS_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

/** Marks what the library exports. */
#define CIRCMETRICS_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* To add a kind, follow the steps in src/metric.cpp. */
/** The kinds of metrics, and what each is in the JSON. */
enum circmetrics_type {
  /** An int64_t variable of the caller, read at every output: a number, or null while
   * nothing is observed. */
  CIRCMETRICS_GAUGE_INT64 = 3,
  /** A sum that stats_add64 adds to, modulo 2^64: a number. */
  CIRCMETRICS_COUNTER = 5,
  /** A double variable of the caller, read at every output: a number; null while
   * nothing is observed, and for an infinity or NaN. */
  CIRCMETRICS_GAUGE_DOUBLE = 6,
  /** The distribution of its samples: an object with "count", "sum", "min",
   * "max", "mean", "p50", "p90", "p99", "p99.9" and "buckets". A percentile is within 1 % of
   * the sample of its rank, whatever the sample's sign and magnitude; the rank of p90
   * among n samples is 0.9 * n, rounded up. The count is modulo 2^64; the sum adds
   * doubles. Once the sum overflows, or an infinity is added to it, the sum and the mean
   * stay null. Without samples everything but count, sum and buckets is null, as is any
   * value that is not finite. A sample that is recorded during an output may be in only
   * some of the values. "buckets" lists [upper bound, count] for each bucket that has
   * samples, in ascending order; the last bound is null if there are infinite samples.
   * Bounds never change: the difference of two outputs is the distribution in between.
   * There are at most 64 buckets for each doubling. Takes at most 2.3 MB for any number of
   * samples, and 6 kB when they span ten octaves. */
  CIRCMETRICS_HISTOGRAM = 7
};

/** Takes `length` bytes. Returns how many it took (more than `length` means all), or -1
 * to end the output. */
typedef ssize_t (*circmetrics_write)(void* closure, const void* bytes, size_t length);

/** A new recorder; null when out of memory. */
CIRCMETRICS_EXPORT void* stats_recorder_alloc(void);

/** The recorder's root namespace; null for a null recorder. */
CIRCMETRICS_EXPORT void* stats_recorder_global_ns(void* recorder);

/** The namespace `name` inside `parent`, made if it doesn't exist. Null for a null
 * argument and when out of memory. */
CIRCMETRICS_EXPORT void* stats_register_ns(void* recorder, void* parent, const char* name);

/** The metric `name` of type `type` inside `ns`, made if it doesn't exist. Null when
 * a metric of another type has this name, for an unknown type or a null argument, for
 * "@process" and "@inherited" in the root namespace, and when out of memory. */
CIRCMETRICS_EXPORT void* stats_register(void* ns, const char* name, int type);

/** Makes a gauge of this type read the variable at `address` at every output. The
 * variable must stay there. With a null `address` the gauge observes nothing. Returns 0; or
 * -1, changing nothing, when the metric is null or of another type. */
CIRCMETRICS_EXPORT int stats_observe(void* metric, int type, const void* address);

/** Adds `amount`, which may be negative, to a counter. Returns 0; or -1, changing
 * nothing, when the metric is null or not a counter. */
CIRCMETRICS_EXPORT int stats_add64(void* metric, int64_t amount);

/** Records `count` samples of `value` in a histogram. An infinity is a sample like any
 * other: it is counted and becomes the min or the max. Returns 0; or -1, changing
 * nothing, when the metric is null or not a histogram, for NaN, and when there is no
 * memory for a new range of values. */
CIRCMETRICS_EXPORT int stats_set_hist(void* metric, double value, uint32_t count);

/** The same for samples of value * 10^scale, rounded to the nearest double, for callers
 * without floating point. Also returns -1, changing nothing, when the product exceeds
 * the greatest double. */
CIRCMETRICS_EXPORT int stats_set_hist_intscale(void* metric, int64_t value, int32_t scale,
                                               uint32_t count);

/** Writes the recorder's present state as one JSON object through `write`, in one or more
 * pieces. The object begins with "@process", an object of the process's "pid", "program" (the
 * name of its file), "start" (in seconds since 1970) and "parent" (the id of the process that
 * forked it). In a child of fork whose parent had metrics, "@inherited" follows: the counters and
 * histograms as they were at the fork, in the same namespaces; null if they aren't known, as in a
 * raw clone. Then come the contents of the root. A namespace is an object of its members, sorted
 * by name. A namespace that has the name of a metric follows that metric; its key is the name and
 * as many "/" as make the key unique. A namespace "@process" or "@inherited" in the root gets "/"
 * appended in the same way. `version` is the version of the layout and must be 1: compact, on one
 * line, without a newline at the end. `flags` must be 0: counters and histograms show everything
 * since the start, and nothing is reset. With other values the function returns -1 and writes
 * nothing. No lock is held while `write` runs, so it may call every function here. When `write`
 * takes less than it is offered, it is offered the rest next. Returns 0, or -1 as soon as `write`
 * takes nothing or fails. */
CIRCMETRICS_EXPORT int stats_recorder_output_json(void* recorder, int version, int flags,
                                                  circmetrics_write write, void* closure);

#ifdef __cplusplus
}
#endif

#endif /* CIRCMETRICS_H_ */
