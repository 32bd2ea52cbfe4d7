#include "support/thread_state.h"

#include <fstream>
#include <sstream>

namespace test {

std::string stat_from_state(pid_t tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string text;
  std::getline(stat, text);
  const std::size_t name_end = text.rfind(')');
  return name_end == std::string::npos ? "" : text.substr(name_end + 2);
}

bool is_asleep(pid_t tid) { return stat_from_state(tid).rfind('S', 0) == 0; }

long computed_ticks(pid_t tid) {
  std::istringstream fields(stat_from_state(tid));
  std::string skipped;
  for (int field = 3; field < 14; ++field) {
    fields >> skipped;
  }
  long user = 0;
  long system = 0;
  fields >> user >> system;
  return user + system;
}

long sleeps(pid_t tid) {
  std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
  std::string word;
  while (status >> word && word != "voluntary_ctxt_switches:") {
  }
  long count = -1;
  status >> count;
  return count;
}

}  // namespace test
