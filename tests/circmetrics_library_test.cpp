// The recorder from outside: its header, and the nine functions that a program loads.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/lines.h"
#include "support/processes.h"
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
  std::vector<std::string> names;
  for (const std::string& line :
       test::lines_of(run("nm -D --defined-only --format=posix " + kLibrary).output)) {
    names.push_back(line.substr(0, line.find(' ')));
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{
                       "stats_add64", "stats_observe", "stats_recorder_alloc",
                       "stats_recorder_global_ns", "stats_recorder_output_json", "stats_register",
                       "stats_register_ns", "stats_set_hist", "stats_set_hist_intscale"}));
}

namespace {

using RegisterFunction = void* (*)(void* ns, const char* name, int type);

void* g_root = nullptr;
RegisterFunction g_register = nullptr;

template <typename Function>
Function look_up(void* library, const char* symbol) {
  return reinterpret_cast<Function>(dlsym(library, symbol));
}

// The root namespace of the library's recorder.
void* root_of(void* library) {
  const auto alloc = look_up<void* (*)()>(library, "stats_recorder_alloc");
  const auto root = look_up<void* (*)(void*)>(library, "stats_recorder_global_ns");
  return root(alloc());
}

template <int kNumber>
void register_metric() {
  if (g_register != nullptr && g_register(g_root, std::to_string(kNumber).c_str(), 5) == nullptr) {
    std::abort();
  }
}

}  // namespace

// These handlers run while the recorder's own hold its lock.
SCENARIO(fork_with_handlers_from_before) {
  alarm(60);
  pthread_atfork(&register_metric<1>, &register_metric<2>, &register_metric<3>);
  void* library = dlopen(kLibrary.c_str(), RTLD_NOW | RTLD_LOCAL);
  g_register = look_up<RegisterFunction>(library, "stats_register");
  g_root = root_of(library);
  void* const before = g_register(g_root, "before", 5);
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
  }
  const bool is_right = g_register(g_root, "before", 5) == before;
  if (child == 0) {
    _exit(is_right ? 0 : 1);
  }
  const int status = test::wait_for(child);
  return is_right && status == 0 ? 0 : 1;
}

TEST(CircmetricsLibrary, ForkHandlersFromBeforeItWasLoadedMayRegisterMetrics) {
  EXPECT_TRUE(test::run_scenario("fork_with_handlers_from_before").exited_with(0));
}

// After the close, a thread that counted still ends, and a fork still runs the recorder's handlers.
TEST(CircmetricsLibrary, StaysWhenItIsClosed) {
  void* library = dlopen(kLibrary.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  const auto make = look_up<RegisterFunction>(library, "stats_register");
  const auto add = look_up<int (*)(void*, std::int64_t)>(library, "stats_add64");
  void* counter = make(root_of(library), "c", 5);
  EXPECT_EQ(dlclose(library), 0);
  EXPECT_EQ(add(counter, 1), 0);
}
