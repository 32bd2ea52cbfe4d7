// A metrics recorder for tests. It prints each call, returns a different value from each
// function, fails where the test says so, and leaves the report to the test. It is built
// once complete, and nine times without one of its nine functions.
#include "stats_test/fake_recorder.h"

#include <cstdlib>
#include <cstring>
#include <deque>
#include <sstream>
#include <string>

namespace {

FakeOutput g_output = nullptr;
FakeHook g_on_alloc = nullptr;

template <typename... Parts>
void print(const Parts&... parts) {
  std::ostringstream line;
  (line << ... << parts) << "\n";
  const std::string text = line.str();
  [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
}

// Whether the call must fail: FAKE_REFUSES holds the function's name without its prefix. For
// register_ns, a space and the namespace's name follow.
bool refuses(const std::string& call) {
  const char* refused = std::getenv("FAKE_REFUSES");
  return refused != nullptr && call == refused;
}

// A handle points to the path of its metric or namespace.
void* handle(const std::string& path) {
  static std::deque<std::string>& paths = *new std::deque<std::string>;
  return &paths.emplace_back(path);
}

const std::string& path_of(void* handle) { return *static_cast<std::string*>(handle); }

}  // namespace

// The program may define it.
extern "C" void fake_on_load() __attribute__((weak));

[[maybe_unused]] const bool g_loaded = (&fake_on_load != nullptr ? fake_on_load() : void(), true);

extern "C" {

void fake_set_output(FakeOutput output) { g_output = output; }
void fake_set_on_alloc(FakeHook hook) { g_on_alloc = hook; }

const char* fake_name() { return "the recorder"; }

#ifndef WITHOUT_stats_recorder_alloc
void* stats_recorder_alloc() {
  if (std::getenv("FAKE_TELLS_ITS_NAME") != nullptr) {
    print(fake_name());
  }
  print("alloc");
  if (g_on_alloc != nullptr) {
    g_on_alloc();
  }
  return refuses("alloc") ? nullptr : handle("recorder");
}
#endif

#ifndef WITHOUT_stats_recorder_global_ns
void* stats_recorder_global_ns(void* recorder) {
  print("global_ns ", path_of(recorder));
  return refuses("global_ns") ? nullptr : handle("root");
}
#endif

#ifndef WITHOUT_stats_register_ns
void* stats_register_ns(void* recorder, void* parent, const char* name) {
  print("register_ns ", path_of(recorder), " ", path_of(parent), " '", name, "'");
  return refuses(std::string("register_ns ") + name) ? nullptr
                                                     : handle(path_of(parent) + "." + name);
}
#endif

#ifndef WITHOUT_stats_register
void* stats_register(void* ns, const char* name, int type) {
  print("register ", path_of(ns), " '", name, "' ", type);
  return refuses("register") ? nullptr : handle(path_of(ns) + "." + name);
}
#endif

#ifndef WITHOUT_stats_observe
int stats_observe(void* metric, int type, const void* address) {
  print("observe ", path_of(metric), " ", type, " ", address);
  return -1;
}
#endif

#ifndef WITHOUT_stats_add64
int stats_add64(void* metric, std::int64_t amount) {
  print("add64 ", path_of(metric), " ", amount);
  return 64;
}
#endif

#ifndef WITHOUT_stats_set_hist
int stats_set_hist(void* metric, double value, std::uint32_t count) {
  print("set_hist ", path_of(metric), " ", value, " ", count);
  return 65;
}
#endif

#ifndef WITHOUT_stats_set_hist_intscale
int stats_set_hist_intscale(void* metric, std::int64_t value, std::int32_t scale,
                            std::uint32_t count) {
  print("set_hist_intscale ", path_of(metric), " ", value, " ", scale, " ", count);
  return 66;
}
#endif

#ifndef WITHOUT_stats_recorder_output_json
int stats_recorder_output_json(void* recorder, int first, int second, FakeWrite write_piece,
                               void* closure) {
  print("output_json ", path_of(recorder), " ", first, " ", second);
  if (g_output != nullptr) {
    g_output(write_piece, closure);
  } else {
    write_piece(closure, "[]", 2);
  }
  return 0;
}
#endif
}
