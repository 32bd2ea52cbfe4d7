#include "support/scenario.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "support/temp_dir.h"

extern char** environ;

namespace test {
namespace {

std::map<std::string, ScenarioFunction>& scenarios() {
  static std::map<std::string, ScenarioFunction> registered;
  return registered;
}

// Variables that the process needs, but the library doesn't read.
bool is_inherited(const std::string& name) {
  return name == "PATH" || name == "TMPDIR" || name.find("SAN_OPTIONS") != std::string::npos ||
         name == "LLVM_PROFILE_FILE" || name.rfind("GCOV_", 0) == 0;
}

std::vector<std::string> environment_block(const Environment& environment,
                                           const std::string& log_file) {
  Environment all{{"QV_LOG_FILE", log_file}, {"QV_LOG_LEVEL", "DEBUG"}};
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::size_t equals = text.find('=');
    if (equals != std::string::npos && is_inherited(text.substr(0, equals))) {
      all[text.substr(0, equals)] = text.substr(equals + 1);
    }
  }
  for (const auto& [name, value] : environment) {
    all[name] = value;
  }
  std::vector<std::string> block;
  for (const auto& [name, value] : all) {
    if (value) {
      block.push_back(name + "=" + *value);
    }
  }
  return block;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (std::string& text : strings) {
    result.push_back(text.data());
  }
  result.push_back(nullptr);
  return result;
}

pid_t start(const std::string& path, std::vector<std::string> argv, std::vector<std::string> block,
            const std::string& out_file, const std::string& err_file) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out_file.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                   0644);
  posix_spawn_file_actions_addopen(&actions, 2, err_file.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                   0644);
  pid_t pid = -1;
  const int error = posix_spawn(&pid, path.c_str(), &actions, nullptr, pointers(argv).data(),
                                pointers(block).data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    throw std::runtime_error("posix_spawn " + path + ": " + std::strerror(error));
  }
  return pid;
}

}  // namespace

ScenarioRegistration::ScenarioRegistration(const char* name, ScenarioFunction function) {
  scenarios()[name] = function;
}

int run_registered_scenario(const std::string& name, const Arguments& arguments) {
  const auto found = scenarios().find(name);
  if (found == scenarios().end()) {
    std::fprintf(stderr, "no scenario %s\n", name.c_str());
    return 127;
  }
  return found->second(arguments);
}

std::string with_option(const char* variable, const std::string& option) {
  const char* const set = std::getenv(variable);
  return set == nullptr ? option : std::string(set) + ":" + option;
}

bool Ran::exited_with(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
bool Ran::killed_by(int signal) const { return WIFSIGNALED(status) && WTERMSIG(status) == signal; }
bool Ran::aborted() const { return killed_by(SIGABRT); }
std::vector<std::string> Ran::messages() const { return level_and_message(records); }

Ran run_program(const std::string& path, const Arguments& arguments,
                const Environment& environment) {
  const TempDir dir;
  const auto log = environment.find("QV_LOG_FILE");
  const bool own_log = log != environment.end();
  const std::string log_file = own_log ? log->second.value_or("") : dir.file("log");
  std::vector<std::string> argv{path};
  argv.insert(argv.end(), arguments.begin(), arguments.end());

  Ran ran;
  ran.pid =
      start(path, argv, environment_block(environment, log_file), dir.file("out"), dir.file("err"));
  if (waitpid(ran.pid, &ran.status, 0) != ran.pid) {
    throw std::runtime_error("waitpid");
  }
  ran.out = read_file(dir.file("out"));
  ran.err = read_file(dir.file("err"));
  if (!log_file.empty()) {
    ran.log = read_file(log_file);
    ran.records = parse_records(ran.log);
  }
  return ran;
}

Ran run_scenario(const std::string& name, const Environment& environment,
                 const Arguments& arguments) {
  Arguments all{"--scenario", name};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return run_program("/proc/self/exe", all, environment);
}

}  // namespace test
