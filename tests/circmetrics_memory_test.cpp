// The recorder without memory: every allocation of its own fails once.
#include <circmetrics.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <limits>
#include <new>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>

#include "support/thread_state.h"

using nlohmann::json;

namespace {

// How many more allocations succeed before one fails.
constexpr int kUnlimited = std::numeric_limits<int>::max();
int g_left = kUnlimited;

// Runs once, within the next allocation of this thread.
thread_local void (*t_meanwhile)() = nullptr;

bool may_allocate() { return g_left == kUnlimited || g_left-- != 0; }

void* allocate(std::size_t size, std::size_t alignment) {
  if (auto* const meanwhile = std::exchange(t_meanwhile, nullptr)) {
    meanwhile();
  }
  const std::size_t whole = (size + alignment - 1) / alignment * alignment;
  return may_allocate() ? std::aligned_alloc(alignment, whole) : nullptr;
}

void* allocate_or_throw(std::size_t size, std::size_t alignment) {
  void* const allocated = allocate(size, alignment);
  return allocated != nullptr ? allocated : throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate_or_throw(size, __STDCPP_DEFAULT_NEW_ALIGNMENT__);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  return allocate_or_throw(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size, __STDCPP_DEFAULT_NEW_ALIGNMENT__);
}
void operator delete(void* allocated) noexcept { std::free(allocated); }
void operator delete(void* allocated, std::size_t) noexcept { std::free(allocated); }
void operator delete(void* allocated, std::align_val_t) noexcept { std::free(allocated); }
void operator delete(void* allocated, std::size_t, std::align_val_t) noexcept {
  std::free(allocated);
}
void operator delete(void* allocated, const std::nothrow_t&) noexcept { std::free(allocated); }

namespace {

constexpr const char* kNamespace = "a name that takes memory of its own";

ssize_t append(void* closure, const void* bytes, size_t length) {
  auto* const text = static_cast<std::string*>(closure);
  text->append(static_cast<const char*>(bytes), length);
  return static_cast<ssize_t>(length);
}

// Uses everything once, and counts what failed.
class User {
 public:
  void* recorder = stats_recorder_alloc();
  void* root = stats_recorder_global_ns(recorder);

  int use_everything() {
    failed_ = 0;
    check(stats_register_ns(recorder, root, kNamespace) != nullptr);
    void* gauge = registered("gauge", CIRCMETRICS_GAUGE_DOUBLE);
    check(gauge == nullptr || stats_observe(gauge, CIRCMETRICS_GAUGE_DOUBLE, &variable_) == 0);
    void* counter = registered("counter", CIRCMETRICS_COUNTER);
    check(counter == nullptr || stats_add64(counter, 0) == 0);
    void* histogram = registered("histogram", CIRCMETRICS_HISTOGRAM);
    const bool recorded = histogram != nullptr && stats_set_hist(histogram, 2, 1) == 0;
    check(histogram == nullptr || recorded);
    samples_ += recorded ? 1 : 0;
    text_.clear();
    check(stats_recorder_output_json(recorder, 1, 0, &append, &text_) == 0);
    return failed_;
  }

  bool has_a_whole_report() const {
    const json state = json::parse(text_);
    return state.size() == 4 && state[kNamespace] == json::object() && state["gauge"] == 0.5 &&
           state["counter"] == 0 && state["histogram"]["count"] == samples_ &&
           state["histogram"]["sum"] == 2 * samples_;
  }

 private:
  void check(bool done) { failed_ += done ? 0 : 1; }

  void* registered(const char* name, int type) {
    void* metric = stats_register(root, name, type);
    check(metric != nullptr);
    return metric;
  }

  double variable_ = 0.5;
  int failed_ = 0;
  int samples_ = 0;
  std::string text_ = std::string(4096, ' ');  // takes a report without growing
};

}  // namespace

TEST(CircmetricsWithoutMemory, RefusesWhatItHasNoMemoryForAndStaysWhole) {
  int failures = 0;
  for (int successes = 0; failures == successes; ++successes) {
    User user;
    g_left = successes;
    const int failed = user.use_everything();
    const bool ran_out = g_left < 0;
    g_left = kUnlimited;
    EXPECT_EQ(failed, ran_out ? 1 : 0) << "after " << successes << " allocations";
    failures += ran_out ? 1 : 0;
    EXPECT_EQ(user.use_everything(), 0) << "after " << successes << " allocations";
    EXPECT_TRUE(user.has_a_whole_report());
  }
  EXPECT_GT(failures, 10);
}

TEST(CircmetricsWithoutMemory, MakesNoRecorder) {
  g_left = 0;
  void* const recorder = stats_recorder_alloc();
  g_left = kUnlimited;
  EXPECT_EQ(recorder, nullptr);
}

namespace {

User* g_user = nullptr;
pid_t g_clone = -1;

// A clone of the process by the bare system call runs no fork handlers.
void clone_and_use_everything() {
  g_clone = static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
  if (g_clone == 0) {
    alarm(60);
    const int failed = g_user->use_everything();
    _exit(failed == 0 && g_user->has_a_whole_report() ? 0 : 1);
  }
}

}  // namespace

// The allocation is that of a name: within the registration, with its lock held.
TEST(CircmetricsClone, OfAProcessThatRegistersGoesOnWithEmptyNamespaces) {
  User user;
  g_user = &user;
  stats_register(user.root, "left behind", CIRCMETRICS_COUNTER);
  t_meanwhile = &clone_and_use_everything;
  EXPECT_NE(stats_register_ns(user.recorder, user.root, "new"), nullptr);
  int status = -1;
  ASSERT_EQ(waitpid(g_clone, &status, 0), g_clone);
  EXPECT_EQ(status, 0);
}

namespace {

// A second thread, started within an allocation of the first.
std::optional<test::Watched> g_second;
bool g_second_waited = false;
std::string g_text;

void report() { stats_recorder_output_json(g_user->recorder, 1, 0, &append, &g_text); }
void register_counter() { stats_register(g_user->root, kNamespace, CIRCMETRICS_COUNTER); }

template <void (*kFunction)()>
void begin_beside() {
  g_second.emplace(kFunction);
  g_second->settle();
  g_second_waited = !g_second->is_done();
}

}  // namespace

TEST(CircmetricsLock, AReportWaitsForARegistration) {
  User user;
  g_user = &user;
  t_meanwhile = &begin_beside<&report>;
  register_counter();
  g_second->join();
  EXPECT_TRUE(g_second_waited);
}

TEST(CircmetricsLock, ARegistrationWaitsWhileAReportCollectsTheNames) {
  User user;
  g_user = &user;
  t_meanwhile = &begin_beside<&register_counter>;
  report();
  g_second->join();
  EXPECT_TRUE(g_second_waited);
}
