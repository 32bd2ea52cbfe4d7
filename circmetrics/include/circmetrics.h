/** \file
 * A metrics recorder: counters, gauges and histograms in nested namespaces,
 * written out as one JSON value.
 *
 * A program loads libcircmetrics.so with dlopen(3) and looks these functions up.
 *
 * Names: any bytes; a byte sequence that is not UTF-8 is reported as U+FFFD, so
 * names that differ only in such bytes come out as two members of one key. A name
 * stands for one metric and one namespace in its namespace: registering either again
 * gives the same one, registering the metric with another type gives null.
 *
 * Lifetime: recorders, namespaces and metrics live until the process ends.
 *
 * Thread-safety: every function from any thread. Updates are lock-free (the
 * first sample in a new range of a histogram allocates) and none is lost.
 * Fork-safety: a child may use everything; it goes on from the values at the
 * fork, where the sum, min and max of a histogram may have a sample that another
 * thread was recording just then and that is not counted. Fork handlers may use
 * everything. A child that ran no fork handlers (a raw clone) while another thread
 * registered something finds empty namespaces; what it has of metrics still works.
 * Signal handlers: only stats_add64, once the thread has called it outside of one.
 * No function throws. */
#ifndef CIRCMETRICS_H_
#define CIRCMETRICS_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

/** Marks what the library shows. */
#define CIRCMETRICS_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/** The kinds of metrics, with what each is in the JSON. */
enum circmetrics_type {
  /** An int64_t of the caller's, read at every output: a number, or null while
   * nothing is observed. */
  CIRCMETRICS_GAUGE_INT64 = 3,
  /** A sum that stats_add64 adds to, modulo 2^64: a number. */
  CIRCMETRICS_COUNTER = 5,
  /** A double of the caller's, read at every output: a number; null while nothing
   * is observed, and for an infinity or NaN. */
  CIRCMETRICS_GAUGE_DOUBLE = 6,
  /** The distribution of its samples: an object with "count", "sum", "min",
   * "max", "mean", "p50", "p90", "p99" and "p99.9". A percentile is at most 1 %
   * off the sample of that rank, whatever its sign and magnitude; p90 of n samples is
   * that of rank 0.9 * n, rounded up. Count is modulo 2^64, sum as doubles add up. A sum
   * that has gone beyond them, or to which an infinity was added, stays null for good,
   * and with it the mean. Without samples all but count and sum are null, as is any
   * value that is not finite. A sample that is being recorded during an output may be
   * in some of the values already. At most 2.3 MB, however many samples; 6 kB when they
   * span ten octaves. */
  CIRCMETRICS_HISTOGRAM = 7
};

/** Takes `length` bytes; returns how many it took (more is all), or -1 to end the
 * output. */
typedef ssize_t (*circmetrics_write)(void* closure, const void* bytes, size_t length);

/** A new recorder; null without memory. */
CIRCMETRICS_EXPORT void* stats_recorder_alloc(void);

/** The recorder's root namespace; null for a null recorder. */
CIRCMETRICS_EXPORT void* stats_recorder_global_ns(void* recorder);

/** The namespace `name` inside `parent`, made when there is none. Null for a null
 * argument and without memory. */
CIRCMETRICS_EXPORT void* stats_register_ns(void* recorder, void* parent, const char* name);

/** The metric `name` of type `type` inside `ns`, made when there is none. Null when
 * a metric of another type has this name, for an unknown type or a null argument, and
 * without memory. */
CIRCMETRICS_EXPORT void* stats_register(void* ns, const char* name, int type);

/** Makes a gauge of this type read the variable at `address` at every output. The
 * variable must stay there; null observes nothing again. Returns 0, or -1, having
 * changed nothing, when the metric is null or of another type. */
CIRCMETRICS_EXPORT int stats_observe(void* metric, int type, const void* address);

/** Adds `amount`, which may be negative, to a counter. Returns 0, or -1, having
 * changed nothing, when the metric is null or no counter. */
CIRCMETRICS_EXPORT int stats_add64(void* metric, int64_t amount);

/** Records `count` samples of `value` in a histogram. An infinity is a sample like any
 * other: it is counted, and is the least or the greatest. Returns 0, or -1, having
 * changed nothing, when the metric is null or no histogram, for NaN, and without
 * memory for a new range of values. */
CIRCMETRICS_EXPORT int stats_set_hist(void* metric, double value, uint32_t count);

/** The same for samples of value * 10^scale, rounded to the nearest double, from a
 * caller that has no floating point at hand. Returns -1, having changed nothing, also
 * when that is beyond the greatest double. */
CIRCMETRICS_EXPORT int stats_set_hist_intscale(void* metric, int64_t value, int32_t scale,
                                               uint32_t count);

/** Writes the recorder's present state as one JSON object through `write`, in as
 * many pieces as that takes: a namespace is an object of what is in it, sorted by
 * name. A namespace that has the name of a metric comes right behind it, under its name
 * followed by "/", or by as many of them as tell it from all other names. `version` of
 * the layout is 1: compact, on one line, without a newline at its end. `flags` is 0:
 * what counters and histograms hold since the start, and nothing is reset. Others give
 * -1 and write nothing. No lock is held while `write` runs: it may call everything
 * here. When it takes less than it is offered, the rest is offered again. Returns 0,
 * or -1 as soon as `write` takes nothing or fails. */
CIRCMETRICS_EXPORT int stats_recorder_output_json(void* recorder, int version, int flags,
                                                  circmetrics_write write, void* closure);

#ifdef __cplusplus
}
#endif

#endif /* CIRCMETRICS_H_ */
