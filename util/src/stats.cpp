#include <quorvane/log.h>
#include <quorvane/module.h>
#include <quorvane/stats.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
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

#include "src/once.h"
#include "src/process_generation.h"
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

void lock_file(int fd, int operation) {
  while (flock(fd, operation) == -1 && errno == EINTR) {
  }
}

void sleep_for(std::chrono::duration<long> period) {
  timespec left{period.count(), 0};
  while (nanosleep(&left, &left) == -1 && errno == EINTR) {
  }
}

bool is_regular_file(int fd) {
  struct stat status;
  return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

template <typename Function>
void CircMetricsModule::look_up(Function*& function, const char* symbol) {
  function = reinterpret_cast<Function*>(dlsym(library_, symbol));
  if (function == nullptr) {
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
    : period_(period), library_(handle), generation_(process_generation()) {
  look_up_all();
  report_fd_ = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (report_fd_ == -1) {
    QV_LOG(Module::get_internal(), WARN, "Could not open statistics output file %s: %s", path,
           std::strerror(errno));
    return;
  }
  lock_fd_ = report_fd_;
  recorder_ = recorder_alloc_();
  if (recorder_ == nullptr) {
    QV_LOG(Module::get_internal(), WARN, "Could not create statistics recorder object.");
    // The number stays: the destructor's complaint about it belongs to this failure.
    close(report_fd_);
    return;
  }
  if (period_.count() != 0) {
    start_report_thread();
  }
}

CircMetricsModule::~CircMetricsModule() {
  if (close(report_fd_) != 0) {
    QV_LOG(Module::get_internal(), WARN, "Could not close report_file: %s", std::strerror(errno));
  }
  if (dlclose(library_) != 0) {
    QV_LOG(Module::get_internal(), WARN, "Could not dlclose CircMetrics library: %s",
           std::strerror(errno));
  }
}

// A process that may have no more threads still gets its last report.
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
    QV_LOG(const_cast<Module*>(&module), WARN, "Module %p does not have path.",
           static_cast<const void*>(&module));
    return nullptr;
  }
  const std::string_view path = module.routes->front();
  void* ns = recorder_global_ns_(recorder_);
  std::size_t start = 0;
  for (std::size_t slash; (slash = path.find('/', start)) != path.npos; start = slash + 1) {
    if (slash == start) {
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
  const std::lock_guard<std::mutex> lock(report_mutex_);
  append_report();
}

// With the mutex held. The file lock keeps the lines of several processes whole.
void CircMetricsModule::append_report() {
  leave_parents_file();
  lock_file(lock_fd_, LOCK_EX);
  // Not dprintf: a child forked in the middle of it would flush its buffer once
  // more at exit, into someone else's line.
  char head[64];
  const int length = std::snprintf(
      head, sizeof head, "{\"ts\": %lu, \"log\":", static_cast<unsigned long>(time(nullptr)));
  write_report(this, head, static_cast<std::size_t>(length));
  output_json_(recorder_, 1, 0, &write_report, this);
  write_report(this, "}\n", 2);
  lock_file(lock_fd_, LOCK_UN);
}

// A child shares its parent's open file, and so its lock, which therefore would
// keep neither out. Opened anew under the same number, it is the child's own. What
// is no file on disk (a FIFO, say) stays shared: to open it could block.
void CircMetricsModule::leave_parents_file() {
  const std::uint64_t generation = process_generation();
  if (generation_ == generation || !is_regular_file(report_fd_)) {
    return;
  }
  char path[32];
  std::snprintf(path, sizeof path, "/proc/self/fd/%d", report_fd_);
  if (const int own = open(path, O_WRONLY | O_APPEND | O_CLOEXEC); own != -1) {
    if (dup3(own, report_fd_, O_CLOEXEC) != -1) {
      generation_ = generation;
      lock_through(report_fd_);
    }
    close(own);
  } else if (const int readable = open(path, O_RDONLY | O_CLOEXEC); readable != -1) {
    // Who has become another user, and may write to it no more, can still lock it.
    generation_ = generation;
    lock_through(readable);
  }
}

void CircMetricsModule::lock_through(int fd) {
  if (lock_fd_ != report_fd_) {
    close(lock_fd_);
  }
  lock_fd_ = fd;
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
    if (period_.count() > 0) {
      sleep_for(period_);
    }
    const std::lock_guard<std::mutex> lock(report_mutex_);
    if (!ended_) {
      append_report();
    }
  }
}

// The process is about to end: a report that its thread began now would be cut
// off in the middle of the line.
void CircMetricsModule::report_last() {
  const std::lock_guard<std::mutex> lock(report_mutex_);
  ended_ = true;
  append_report();
}

// What the process does with its module when it forks and when it ends.
struct ProcessHooks {
  // The thread that held the mutex at the fork is not in the child.
  static void renew_mutex_in_child() { new (&running_module().report_mutex_) std::mutex; }

  static void report_last() {
    if (CircMetricsModule* module = g_instance.load(std::memory_order_acquire)) {
      module->report_last();
    }
  }
};

constinit std::atomic<CircMetricsModule*> g_instance{nullptr};

namespace {

// The period that the environment asks for; 0 when it makes no sense.
std::chrono::duration<long> report_period() {
  const char* text = std::getenv(kReportPeriodEnv);
  if (text == nullptr) {
    return std::chrono::duration<long>(0);
  }
  char* end = nullptr;
  const long seconds = std::strtol(text, &end, 10);
  if (seconds < 0 || end == text || *end != '\0') {
    QV_LOG(Module::get_internal(), WARN,
           "Could not parse stats report period environment variable \"%s=%s\". Ignoring.",
           kReportPeriodEnv, text);
    return std::chrono::duration<long>(0);
  }
  return std::chrono::duration<long>(seconds);
}

void initialise() {
  const char* path = std::getenv(kReportFileEnv);
  if (path == nullptr) {
    QV_LOG(Module::get_internal(), INFO, "Statistics capture disabled.");
    return;
  }
  const std::chrono::duration<long> period = report_period();
  void* library = dlopen("libcircmetrics.so", kLoadFlags);
  if (library == nullptr) {
    QV_LOG(Module::get_internal(), WARN, "Could not load libcircmetrics.so for stats.");
    return;
  }
  auto module = std::make_unique<CircMetricsModule>(library, period, path);
  if (!module->is_usable()) {
    return;
  }
  g_instance.store(module.release(), std::memory_order_release);
  pthread_atfork(nullptr, nullptr, &ProcessHooks::renew_mutex_in_child);
  QV_LOG(Module::get_internal(), INFO, "Capturing statistics measurements to %s.", path);
}

// A fork waits until another thread's initialisation is over. One that comes
// between its end and that of get_singleton_module()'s run makes the child run it
// again.
void initialise_once() {
  static bool initialised = false;
  if (!initialised) {
    initialise();
    initialised = true;
  }
}

}  // namespace

CircMetricsModule* get_singleton_module() {
  if (CircMetricsModule* module = g_instance.load(std::memory_order_acquire)) {
    return module;
  }
  static constinit Once once;
  once.run([] {
    try {
      initialise_once();
    } catch (const std::bad_alloc&) {
      QV_LOG(Module::get_internal(), WARN, "No memory for statistics.");
    }
  });
  return g_instance.load(std::memory_order_acquire);
}

__attribute__((destructor)) static void report_at_unload() { ProcessHooks::report_last(); }

}  // namespace stats
}  // namespace quorvane
