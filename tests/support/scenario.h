// A scenario is a small program inside a test executable. A test runs it in a separate
// process with its own environment, and gets its exit status, its output and its log
// records.
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

// The whole environment of a scenario, except for what the sanitizers and the loader
// need. An empty optional unsets a variable, even one that is set by default.
using Environment = std::map<std::string, std::optional<std::string>>;

// The value of `variable` with `option` added, for the options of a sanitizer.
std::string with_option(const char* variable, const std::string& option);

struct Ran {
  pid_t pid = 0;
  int status = 0;  // as waitpid(2) gives it
  std::string out;
  std::string err;
  std::string log;                 // the bytes of the log file
  std::vector<LogRecord> records;  // parsed from the log; a malformed line fails the test

  bool exited_with(int code) const;
  bool killed_by(int signal) const;
  bool aborted() const;  // by SIGABRT
  // "LEVEL message" of each record, for comparing whole sequences.
  std::vector<std::string> messages() const;
};

// Runs a scenario until it ends. By default QV_LOG_FILE is a new file, QV_LOG_LEVEL is
// DEBUG, and the library's other variables are unset.
Ran run_scenario(const std::string& name, const Environment& environment = {},
                 const Arguments& arguments = {});

// The same for any program.
Ran run_program(const std::string& path, const Arguments& arguments,
                const Environment& environment = {});

int run_registered_scenario(const std::string& name, const Arguments& arguments);

}  // namespace test

#endif  // TESTS_SUPPORT_SCENARIO_H_
