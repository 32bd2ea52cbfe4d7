#include "qvutil/report/prometheus.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "qvutil/output/json.h"
#include "qvutil/output/text.h"
#include "qvutil/report/prometheus_name.h"
#include "qvutil/report/summary.h"

namespace quorvane::tool {
namespace {

struct Sample {
  std::string labels;
  const Value* value;
};

// All samples of one metric.
struct Family {
  std::string path;
  MetricType type = MetricType::counter;
  double scale = 1;
  std::vector<Sample> samples;
};

using Families = std::map<std::string, Family>;  // by name

// Writes families one after the other.
class Writer {
 public:
  explicit Writer(std::ostream& out) : out_(out) {}

  void family(const std::string& name, const Family& family) {
    const bool is_scaled = family.scale != 1;
    out_ << "# HELP " << name << " The " << name_of(family.type) << ' ' << help_of(family.path)
         << (is_scaled ? ", in seconds." : ".") << "\n# TYPE " << name << ' '
         << name_of(family.type) << '\n';
    for (const Sample& sample : family.samples) {
      if (const auto* histogram = std::get_if<Histogram>(sample.value)) {
        write(name, sample.labels, *histogram, family.scale);
      } else {
        line(name, sample.labels, value_text(*sample.value, family.scale));
      }
    }
  }

 private:
  // Unlike in labels, quotes stay as they are.
  static std::string help_of(const std::string& path) {
    std::string text;
    for (const char c : shown(path)) {
      text += c == '\\' ? "\\\\" : std::string(1, c);
    }
    return text;
  }

  static std::string text_of(double value) {
    if (std::isnan(value)) {
      return "NaN";
    }
    return std::isinf(value) ? (value > 0 ? "+Inf" : "-Inf") : number_text(value);
  }

  static std::string value_text(const Value& value, double scale) {
    if (const auto* whole = std::get_if<std::int64_t>(&value)) {
      return scale == 1 ? std::to_string(*whole) : text_of(static_cast<double>(*whole) * scale);
    }
    const auto* real = std::get_if<double>(&value);
    return text_of(real == nullptr ? Histogram::kUnknown : *real * scale);
  }

  void line(const std::string& name, const std::string& labels, const std::string& value) {
    out_ << name << '{' << labels << "} " << value << '\n';
  }

  void write(const std::string& name, const std::string& labels, const Histogram& histogram,
             double scale) {
    std::uint64_t count = 0;
    for (const Bucket& bucket : histogram.buckets) {
      count += bucket.count;
      if (!std::isinf(bucket.bound)) {
        line(name + "_bucket", labels + ",le=\"" + text_of(bucket.bound * scale) + '"',
             std::to_string(count));
      }
    }
    line(name + "_bucket", labels + ",le=\"+Inf\"", std::to_string(count));
    line(name + "_sum", labels, text_of(histogram.sum * scale));
    line(name + "_count", labels, std::to_string(count));
  }

  std::ostream& out_;
};

// The labels of the processes. Two that have the same pid one after the other, and the same
// program, are told apart by their start.
class Labels {
 public:
  explicit Labels(const Processes& processes) {
    processes.for_each([&](const Report& report) { ++uses_[key_of(report.process)]; });
  }

  std::string of(const ProcessKey& process) const {
    std::string labels = key_of(process);
    if (uses_.at(labels) > 1) {
      labels += ",start=\"" + (process.start ? std::to_string(*process.start) : "") + '"';
    }
    return labels;
  }

 private:
  static std::string key_of(const ProcessKey& process) {
    return "pid=\"" + std::to_string(process.pid) +
           "\",program=" + prometheus_label(process.program);
  }

  std::map<std::string, int> uses_;
};

// The name for a path, which no other path has.
std::string name_for(Families& families, const std::string& path, MetricType type, double& scale) {
  const PrometheusName wanted = prometheus_name(path, type);
  scale = wanted.scale;
  const bool is_counter = type == MetricType::counter;
  const std::string stem = is_counter ? wanted.name.substr(0, wanted.name.size() - 6) : wanted.name;
  std::string name = wanted.name;
  for (int number = 2; families.count(name) != 0; ++number) {
    name = stem + "_" + std::to_string(number) + (is_counter ? "_total" : "");
  }
  return name;
}

// By path and not by process, so that a name doesn't depend on the order of the reports.
using Paths = std::map<std::pair<std::string, MetricType>, std::vector<Sample>>;

Paths samples_of(const Processes& processes, const MetricTypes& types) {
  const Labels labels(processes);
  Paths paths;
  processes.for_each([&](const Report& report) {
    const std::string of_process = labels.of(report.process);
    for (const auto& [path, value] : report.metrics) {
      paths[{path, types.of(path, value)}].push_back({of_process, &value});
    }
  });
  return paths;
}

}  // namespace

void write_prometheus(std::ostream& out, const Processes& processes, const MetricTypes& types) {
  Families families;
  for (auto& [key, samples] : samples_of(processes, types)) {
    const auto& [path, type] = key;
    Family family{path, type, 1, std::move(samples)};
    const std::string name = name_for(families, path, type, family.scale);
    families.emplace(name, std::move(family));
  }
  Writer writer(out);
  for (const auto& [name, family] : families) {
    writer.family(name, family);
  }
}

}  // namespace quorvane::tool
