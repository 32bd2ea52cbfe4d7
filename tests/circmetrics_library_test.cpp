// What the recorder shows of itself: its header, and nine functions to load.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "support/scenario.h"

namespace {

struct CommandResult {
  int status = -1;
  std::string output;
};

CommandResult run(const std::string& command) {
  CommandResult result;
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  std::array<char, 4096> bytes;
  while (pipe != nullptr && fgets(bytes.data(), bytes.size(), pipe) != nullptr) {
    result.output += bytes.data();
  }
  result.status = pipe != nullptr ? pclose(pipe) : -1;
  return result;
}

const std::string kLibrary = QV_BINARY_DIR "/lib/libcircmetrics.so";

}  // namespace

TEST(CircmetricsLibrary, HasAHeaderThatCompilesAlone) {
  for (const std::string compiler :
       {QV_C_COMPILER " -xc -std=c11", QV_CXX_COMPILER " -xc++ -std=c++17",
        QV_CXX_COMPILER " -xc++ -std=c++20"}) {
    const CommandResult result =
        run("echo '#include <circmetrics.h>' | " + compiler +
            " -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I " QV_SOURCE_DIR
            "/circmetrics/include -");
    EXPECT_EQ(result.status, 0) << compiler << "\n" << result.output;
  }
}

TEST(CircmetricsLibrary, ExportsItsNineFunctionsAndNothingElse) {
  std::istringstream lines(run("nm -D --defined-only --format=posix " + kLibrary).output);
  std::vector<std::string> names;
  for (std::string line; std::getline(lines, line);) {
    names.push_back(line.substr(0, line.find(' ')));
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{
                       "stats_add64", "stats_observe", "stats_recorder_alloc",
                       "stats_recorder_global_ns", "stats_recorder_output_json", "stats_register",
                       "stats_register_ns", "stats_set_hist", "stats_set_hist_intscale"}));
}

namespace {

void* g_root = nullptr;
void* (*g_register)(void* ns, const char* name, int type) = nullptr;

template <int kNumber>
void register_metric() {
  if (g_register != nullptr && g_register(g_root, std::to_string(kNumber).c_str(), 5) == nullptr) {
    std::abort();
  }
}

}  // namespace

// Such handlers run within the recorder's own, which hold its lock.
SCENARIO(fork_with_handlers_from_before) {
  alarm(60);
  pthread_atfork(&register_metric<1>, &register_metric<2>, &register_metric<3>);
  void* library = dlopen(kLibrary.c_str(), RTLD_NOW | RTLD_LOCAL);
  const auto alloc = reinterpret_cast<void* (*)()>(dlsym(library, "stats_recorder_alloc"));
  const auto root = reinterpret_cast<void* (*)(void*)>(dlsym(library, "stats_recorder_global_ns"));
  g_register =
      reinterpret_cast<void* (*)(void*, const char*, int)>(dlsym(library, "stats_register"));
  g_root = root(alloc());
  void* const before = g_register(g_root, "before", 5);
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
  }
  const bool is_right = g_register(g_root, "before", 5) == before;
  if (child == 0) {
    _exit(is_right ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return is_right && status == 0 ? 0 : 1;
}

TEST(CircmetricsLibrary, ForkHandlersFromBeforeItWasLoadedMayRegisterMetrics) {
  EXPECT_TRUE(test::run_scenario("fork_with_handlers_from_before").exited_with(0));
}

// Threads that count still end later, and forks run its handlers.
TEST(CircmetricsLibrary, StaysWhenItIsClosed) {
  void* library = dlopen(kLibrary.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto alloc = reinterpret_cast<void* (*)()>(dlsym(library, "stats_recorder_alloc"));
  const auto root = reinterpret_cast<void* (*)(void*)>(dlsym(library, "stats_recorder_global_ns"));
  const auto make =
      reinterpret_cast<void* (*)(void*, const char*, int)>(dlsym(library, "stats_register"));
  const auto add = reinterpret_cast<int (*)(void*, std::int64_t)>(dlsym(library, "stats_add64"));
  void* counter = make(root(alloc()), "c", 5);
  EXPECT_EQ(dlclose(library), 0);
  EXPECT_EQ(add(counter, 1), 0);
}
