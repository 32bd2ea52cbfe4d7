// Scenarios: small programs inside a test executable. A test runs one in a
// process of its own, under an environment of its own, and gets back how it
// ended, what it wrote and which records it logged.
//
//   SCENARIO(logs_once) { QV_LOG(qv_module_find("a"), INFO, "hi"); return 0; }
//   TEST(...) { auto ran = test::run_scenario("logs_once", {{"QV_LOG_LEVEL", "DEBUG"}}); }
#ifndef TESTS_SUPPORT_SCENARIO_H_
#define TESTS_SUPPORT_SCENARIO_H_

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/log_records.h"

namespace test {

using Arguments = std::vector<std::string>;
using ScenarioFunction = int (*)(const Arguments& arguments);

struct ScenarioRegistration {
  ScenarioRegistration(const char* name, ScenarioFunction function);
};

// A scenario returns its exit status.
#define SCENARIO(name)                                                                    \
  static int scenario_##name(const ::test::Arguments& arguments);                         \
  static const ::test::ScenarioRegistration registration_##name(#name, &scenario_##name); \
  static int scenario_##name([[maybe_unused]] const ::test::Arguments& arguments)

// The whole environment of a scenario, apart from what the sanitizers and the
// loader need. An empty optional leaves a variable out, also a default one.
using Environment = std::map<std::string, std::optional<std::string>>;

struct Ran {
  pid_t pid = 0;
  int status = 0;  // as waitpid(2) gives it
  std::string out;
  std::string err;
  std::string log;                 // the bytes of the log file
  std::vector<LogRecord> records;  // the same, parsed; a malformed line fails the test

  bool exited_with(int code) const;
  bool killed_by(int signal) const;
  bool aborted() const;  // by SIGABRT
  // "LEVEL message" of each record, for comparing whole sequences.
  std::vector<std::string> messages() const;
};

// Runs a scenario to its end. Unless `environment` says otherwise QV_LOG_FILE is
// a fresh file, QV_LOG_LEVEL is DEBUG, and nothing else of the library's
// variables is set.
Ran run_scenario(const std::string& name, const Environment& environment = {},
                 const Arguments& arguments = {});

// The same for any program.
Ran run_program(const std::string& path, const Arguments& arguments,
                const Environment& environment = {});

int run_registered_scenario(const std::string& name, const Arguments& arguments);

}  // namespace test

#endif  // TESTS_SUPPORT_SCENARIO_H_
