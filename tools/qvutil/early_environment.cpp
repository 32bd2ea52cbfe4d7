// The tool isn't one of the processes that it looks at. The library reads its settings while it is
// loaded, so they are changed before that.
#include <cstring>

namespace {

constexpr const char* kNoLog = "QV_LOG_FILE=/dev/null";

// The entry of `name`, which ends with "=", or that of the end.
char** find(char** environment, const char* name) {
  while (*environment != nullptr && std::strncmp(*environment, name, std::strlen(name)) != 0) {
    ++environment;
  }
  return environment;
}

void remove(char** environment, const char* name) {
  for (char** entry = find(environment, name); *entry != nullptr; ++entry) {
    *entry = entry[1];
  }
}

// Whether the variable is set and not empty.
bool has(char** environment, const char* name) {
  const char* const entry = *find(environment, name);
  return entry != nullptr && entry[std::strlen(name)] != '\0';
}

// Changes the array in place: the C library isn't ready for setenv. A look at statistics and at
// pid files adds nothing to them. The log has the tool's records only if it is named: without that,
// a missing default directory would give a line of complaint at each command. The array can't
// grow, so the log's name takes the place of HOME, without which there is no default directory
// either.
void leave_no_traces(int, char**, char** environment) {
  remove(environment, "QV_STATS_REPORT_FILE=");
  remove(environment, "QV_PIDFILE_ROOT=");
  char** const home = find(environment, "HOME=");
  if (*home != nullptr && !has(environment, "QV_LOG_FILE=") &&
      !has(environment, "QV_LOG_FILE_Global=")) {
    remove(environment, "QV_LOG_FILE=");
    *find(environment, "HOME=") = const_cast<char*>(kNoLog);
  }
}

// Runs before the constructors of all libraries.
[[gnu::used, gnu::section(".preinit_array")]] void (*const g_first)(int, char**,
                                                                    char**) = &leave_no_traces;

}  // namespace
