#include <quorvane/log.h>
#include <quorvane/module.h>
#include <quorvane/stats.h>

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "src/fork_gate.h"
#include "src/once.h"
#include "src/process_generation.h"
#include "src/report_file.h"
#include "src/stats_instance.h"

namespace quorvane {
namespace stats {
namespace {

using module::Module;

constexpr const char* kReportFileEnv = "QV_STATS_REPORT_FILE";
constexpr const char* kReportPeriodEnv = "QV_STATS_REPORT_PERIOD";

#ifdef QV_NO_DEEPBIND
constexpr int kLoadFlags = RTLD_LAZY;
#else
constexpr int kLoadFlags = RTLD_LAZY | RTLD_DEEPBIND;
#endif

void sleep_for(std::chrono::duration<long> period) {
  timespec left{period.count(), 0};
  while (nanosleep(&left, &left) == -1 && errno == EINTR) {
  }
}

// Marks a generation while its first thread renews the report mutex.
constexpr std::uint64_t kRenewing = std::uint64_t{1} << 63;

// Whether this thread is setting up the process's module.
__attribute__((tls_model("initial-exec"))) thread_local bool t_is_setting_up = false;

}  // namespace

template <typename Function>
void CircMetricsModule::look_up(Function*& function, const char* symbol) {
  function = reinterpret_cast<Function*>(dlsym(library_, symbol));
  if (function == nullptr) {
    // At WARN, though the process ends.
    // Kept: docs/compatibility.md
    QV_LOG(Module::get_internal(), WARN, "Could not find symbol %s in libcircmetrics.so", symbol);
    std::abort();
  }
}

void CircMetricsModule::look_up_all() {
  look_up(recorder_alloc_, "stats_recorder_alloc");
  look_up(recorder_global_ns_, "stats_recorder_global_ns");
  look_up(register_ns_, "stats_register_ns");
  look_up(register_, "stats_register");
  look_up(observe_, "stats_observe");
  look_up(add64_, "stats_add64");
  look_up(set_hist_, "stats_set_hist");
  look_up(set_hist_intscale_, "stats_set_hist_intscale");
  look_up(output_json_, "stats_recorder_output_json");
}

CircMetricsModule::CircMetricsModule(void* handle, std::chrono::duration<long> period,
                                     const char* path)
    : period_(period),
      library_(handle),
      file_(new (std::nothrow) ReportFile(report_fd_, !t_is_setting_up)),
      mutex_generation_(process_generation()) {
  look_up_all();
  errno = ENOMEM;
  if (file_ == nullptr || !file_->open(path)) {
    QV_LOG(Module::get_internal(), WARN, "Could not open statistics output file %s: %s", path,
           std::strerror(errno));
    return;
  }
  recorder_ = recorder_alloc_();
  if (recorder_ == nullptr) {
    QV_LOG(Module::get_internal(), WARN, "Could not create statistics recorder object.");
    // report_fd_ stays, so that the destructor logs its record of this failure as well.
    // Kept: docs/compatibility.md
    file_->close();
    return;
  }
  if (period_.count() != 0) {
    start_report_thread();
  }
}

// Aborts if a report thread is running: report_thread_ isn't joined.
// Kept: docs/compatibility.md
CircMetricsModule::~CircMetricsModule() {
  if (file_ == nullptr || file_->close() != 0) {
    // Also reports a file that was never opened, or is closed already.
    // Kept: docs/compatibility.md
    const int error = file_ == nullptr ? EBADF : errno;
    QV_LOG(Module::get_internal(), WARN, "Could not close report_file: %s", std::strerror(error));
  }
  delete file_;
  if (dlclose(library_) != 0) {
    // errno, which dlclose need not set.
    // Kept: docs/compatibility.md
    QV_LOG(Module::get_internal(), WARN, "Could not dlclose CircMetrics library: %s",
           std::strerror(errno));
  }
}

// Without a thread the process still writes its last report.
void CircMetricsModule::start_report_thread() {
  try {
    report_thread_ = std::thread(&CircMetricsModule::report_thr, this);
  } catch (const std::exception& error) {  // no thread, or no memory for one
    QV_LOG(Module::get_internal(), WARN, "Could not start statistics report thread: %s",
           error.what());
  }
}

void* CircMetricsModule::resolve_namespace(const Module& module) {
  if (module.routes == nullptr || module.routes->empty()) {
    // Through the module itself, and so at its level.
    // Kept: docs/compatibility.md
    QV_LOG(const_cast<Module*>(&module), WARN, "Module %p does not have path.",
           static_cast<const void*>(&module));
    return nullptr;
  }
  const std::string_view path = module.routes->front();
  void* ns = recorder_global_ns_(recorder_);
  std::size_t start = 0;
  for (std::size_t slash; (slash = path.find('/', start)) != path.npos; start = slash + 1) {
    if (slash == start) {
      // The components before this one stay registered.
      // Kept: docs/compatibility.md
      return nullptr;
    }
    if (ns != nullptr) {
      ns = register_ns_(recorder_, ns, std::string(path.substr(start, slash - start)).c_str());
    }
  }
  return ns == nullptr ? nullptr
                       : register_ns_(recorder_, ns, std::string(path.substr(start)).c_str());
}

void CircMetricsModule::report_now() {
  renew_mutex_in_child();
  const std::lock_guard<std::mutex> lock(report_mutex_);
  append_report();
}

// A thread that held the mutex at the fork doesn't exist in the child. A fork handler would
// be too late: one that the program registered earlier may report.
void CircMetricsModule::renew_mutex_in_child() {
  const std::uint64_t own = process_generation();
  std::uint64_t seen = mutex_generation_.load(std::memory_order_acquire);
  while (seen != own) {
    if (seen == (own | kRenewing)) {
      mutex_generation_.wait(seen, std::memory_order_acquire);
      seen = mutex_generation_.load(std::memory_order_acquire);
    } else if (mutex_generation_.compare_exchange_strong(seen, own | kRenewing,
                                                         std::memory_order_acquire)) {
      new (&report_mutex_) std::mutex;
      mutex_generation_.store(own, std::memory_order_release);
      mutex_generation_.notify_all();
      return;
    }
  }
}

// With the mutex held. The file lock keeps the lines of several processes whole. After half
// a line, whose writer was killed, the report begins a new line.
void CircMetricsModule::append_report() {
  if (!is_usable() || !file_->lock()) {
    return;
  }
  // Not dprintf: a child forked in the middle of it would flush its buffer again at exit,
  // into another process's line.
  char head[64];
  // A blank after the first colon and none after the second.
  // Kept: docs/compatibility.md
  const int length = std::snprintf(
      head, sizeof head, "%s{\"ts\": %lu, \"log\":", file_->ends_within_a_line() ? "\n" : "",
      static_cast<unsigned long>(time(nullptr)));
  write_report(this, head, static_cast<std::size_t>(length));
  output_json_(recorder_, 1, 0, &write_report, this);
  write_report(this, "}\n", 2);
  file_->unlock();
}

ssize_t CircMetricsModule::write_report(void* closure, const void* bytes, std::size_t length) {
  const int fd = static_cast<CircMetricsModule*>(closure)->report_fd_;
  ssize_t written;
  do {
    written = write(fd, bytes, length);
  } while (written == -1 && errno == EINTR);
  return written;
}

void CircMetricsModule::report_thr() {
  for (;;) {
    // A negative period means no pause.
    // Kept: docs/compatibility.md
    if (period_.count() > 0) {
      sleep_for(period_);
    }
    report_now();
  }
}

// The process is about to end: a report that another thread began after this one would be
// cut off in the middle of its line.
void CircMetricsModule::report_last() {
  renew_mutex_in_child();
  const std::lock_guard<std::mutex> lock(report_mutex_);
  append_report();
  file_->give_up();
}

constinit std::atomic<CircMetricsModule*> g_instance{nullptr};

// What the process does with its module at set-up, at a fork and at its end.
struct ProcessHooks {
  static void set_up(std::unique_ptr<CircMetricsModule> module) {
    ReportFile* const file = module->file_;
    g_instance.store(module.release(), std::memory_order_release);
    file->keep();
  }

  static void after_fork_in_child() {
    fork_gate::after_fork_in_child();
    ReportFile::all_in_child();
  }

  static void report_last() {
    if (CircMetricsModule* module = g_instance.load(std::memory_order_acquire)) {
      module->report_last();
    }
  }
};

namespace {

// Registered at load, so that every fork runs the handlers, and after fork_guard's, which the
// order of linking ensures: handlers run in reverse order, and a fork that waits for a recorder to
// be loaded must not yet hold the mutexes that the recorder may need.
[[maybe_unused]] const int g_registered = pthread_atfork(
    &fork_gate::before_fork, &fork_gate::after_fork_in_parent, &ProcessHooks::after_fork_in_child);

// The period in the environment; 0 if it can't be parsed.
std::chrono::duration<long> report_period() {
  const char* text = secure_getenv(kReportPeriodEnv);
  if (text == nullptr) {
    return std::chrono::duration<long>(0);
  }
  char* end = nullptr;
  const long seconds = std::strtol(text, &end, 10);
  // A number out of range counts as the largest, and an empty text is an error.
  // Kept: docs/compatibility.md
  if (seconds < 0 || end == text || *end != '\0') {
    QV_LOG(Module::get_internal(), WARN,
           "Could not parse stats report period environment variable \"%s=%s\". Ignoring.",
           kReportPeriodEnv, text);
    return std::chrono::duration<long>(0);
  }
  return std::chrono::duration<long>(seconds);
}

// Two waits, each of about a second at most, keep children safe. Forks wait for dlopen, so that
// a child finds the loader's state consistent. And the recorder stays unused until the forks that
// began before it was loaded are over, since these don't run its fork handlers.
void* load_recorder() {
  void* library = nullptr;
  {
    const fork_gate::Closed closed;
    library = dlopen("libcircmetrics.so", kLoadFlags);
  }
  fork_gate::wait_for_earlier_forks();
  return library;
}

// Makes the module for the process. A child that is forked meanwhile closes the report file.
std::unique_ptr<CircMetricsModule> make_module(void* library, std::chrono::duration<long> period,
                                               const char* path) {
  struct SettingUp {
    SettingUp() { t_is_setting_up = true; }
    ~SettingUp() { t_is_setting_up = false; }
  };
  const SettingUp setting_up;
  return std::make_unique<CircMetricsModule>(library, period, path);
}

// A child that is forked meanwhile runs this again: only the last step sets the process
// up.
void initialise() {
  const char* path = secure_getenv(kReportFileEnv);
  // An empty name doesn't turn statistics off: it is a file that can't be opened.
  // Kept: docs/compatibility.md
  if (path == nullptr) {
    QV_LOG(Module::get_internal(), INFO, "Statistics capture disabled.");
    return;
  }
  const std::chrono::duration<long> period = report_period();
  void* library = load_recorder();
  if (library == nullptr) {
    QV_LOG(Module::get_internal(), WARN, "Could not load libcircmetrics.so for stats.");
    return;
  }
  if (g_instance.load(std::memory_order_acquire) != nullptr) {
    return;  // a child forked by the recorder's constructor, with statistics set up already
  }
  auto module = make_module(library, period, path);
  if (!module->is_usable()) {
    return;
  }
  ProcessHooks::set_up(std::move(module));
  QV_LOG(Module::get_internal(), INFO, "Capturing statistics measurements to %s.", path);
}

}  // namespace

CircMetricsModule* get_singleton_module() {
  if (CircMetricsModule* module = g_instance.load(std::memory_order_acquire)) {
    return module;
  }
  static constinit Once once;
  once.run([] {
    try {
      initialise();
    } catch (const std::bad_alloc&) {
      QV_LOG(Module::get_internal(), WARN, "No memory for statistics.");
    }
  });
  return g_instance.load(std::memory_order_acquire);
}

__attribute__((destructor)) static void report_at_unload() { ProcessHooks::report_last(); }

}  // namespace stats
}  // namespace quorvane
