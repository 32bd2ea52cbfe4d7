// Lines of statistics reports.
#ifndef TESTS_SUPPORT_REPORTS_H_
#define TESTS_SUPPORT_REPORTS_H_

#include <string>

namespace test {

struct MadeReport {
  long ts = 1709294400;
  int pid = 1234;
  std::string members = {};    // of the recorder's object behind @process: "\"m\":{\"n\":1}"
  std::string inherited = {};  // the value of @inherited, or nothing
  std::string program = "\"reader\"";  // as JSON
  std::string start = "1709290800";    // as JSON
};

// With a newline.
inline std::string line_of(const MadeReport& report) {
  return "{\"ts\": " + std::to_string(report.ts) +
         ", \"log\":{\"@process\":{\"pid\":" + std::to_string(report.pid) +
         ",\"program\":" + report.program + ",\"start\":" + report.start + ",\"parent\":1}" +
         (report.inherited.empty() ? "" : ",\"@inherited\":" + report.inherited) +
         (report.members.empty() ? "" : "," + report.members) + "}}\n";
}

// A histogram whose buckets are these.
inline std::string histogram_of(const std::string& count, const std::string& sum,
                                const std::string& min, const std::string& max,
                                const std::string& buckets) {
  return "{\"count\":" + count + ",\"sum\":" + sum + ",\"min\":" + min + ",\"max\":" + max +
         ",\"mean\":null,\"p50\":null,\"p90\":null,\"p99\":null,\"p99.9\":null,\"buckets\":" +
         buckets + "}";
}

}  // namespace test

#endif  // TESTS_SUPPORT_REPORTS_H_
