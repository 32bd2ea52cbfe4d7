// The recorder without memory, and what another thread or a clone does while it allocates.
#include <circmetrics.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "circmetrics_test/fixture.h"
#include "support/json.h"
#include "support/no_memory.h"
#include "support/processes.h"
#include "support/thread_state.h"

using circmetrics_test::append;
using nlohmann::json;

namespace {

constexpr const char* kNamespace = "a name too long for a string's own buffer";

// Calls each function once, and counts the calls that fail.
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
    return state.size() == 5U + state.count("@inherited") && state["@process"]["pid"] == getpid() &&
           state[kNamespace] == json::object() && state["gauge"] == 0.5 && state["counter"] == 0 &&
           state["histogram"]["count"] == samples_ && state["histogram"]["sum"] == 2 * samples_;
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
  std::string text_ = std::string(4096, ' ');  // so that a report doesn't allocate for it
};

}  // namespace

TEST(CircmetricsWithoutMemory, RefusesWhatItHasNoMemoryForAndStaysWhole) {
  std::size_t failures = 0;
  for (std::size_t successes = 0; failures == successes; ++successes) {
    User user;
    const test::FailingAllocation failing(successes);
    const int failed = user.use_everything();
    const bool ran_out = test::FailingAllocation::end();
    EXPECT_EQ(failed, ran_out ? 1 : 0) << "after " << successes << " allocations";
    failures += ran_out ? 1 : 0;
    EXPECT_EQ(user.use_everything(), 0) << "after " << successes << " allocations";
    EXPECT_TRUE(user.has_a_whole_report());
  }
  EXPECT_GT(failures, 10);
}

TEST(CircmetricsWithoutMemory, MakesNoRecorder) {
  const test::FailingAllocation failing(0);
  void* const recorder = stats_recorder_alloc();
  test::FailingAllocation::end();
  EXPECT_EQ(recorder, nullptr);
}

namespace {

User* g_user = nullptr;
pid_t g_clone = -1;

// The bare system call clones the process without running fork handlers.
void clone_and_use_everything() {
  g_clone = static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
  if (g_clone == 0) {
    alarm(60);
    const int failed = g_user->use_everything();
    _exit(failed == 0 && g_user->has_a_whole_report() ? 0 : 1);
  }
}

}  // namespace

// The allocation is for the name, in the middle of the registration and under the lock.
TEST(CircmetricsClone, OfAProcessThatRegistersGoesOnWithEmptyNamespaces) {
  User user;
  g_user = &user;
  stats_register(user.root, "left behind", CIRCMETRICS_COUNTER);
  test::during_allocation = &clone_and_use_everything;
  EXPECT_NE(stats_register_ns(user.recorder, user.root, "new"), nullptr);
  EXPECT_EQ(test::wait_for(g_clone), 0);
}

namespace {

std::string g_text;

void report() { stats_recorder_output_json(g_user->recorder, 1, 0, &append, &g_text); }
void register_counter() { stats_register(g_user->root, kNamespace, CIRCMETRICS_COUNTER); }

// Starts kSecond in another thread during an allocation of `first`. Returns whether kSecond
// waits meanwhile.
template <void (*kSecond)()>
bool waits_for(void (*first)()) {
  static std::optional<test::Watched> thread;
  static bool waited;
  waited = false;
  User user;
  g_user = &user;
  test::during_allocation = [] {
    thread.emplace(kSecond);
    thread->settle();
    waited = !thread->is_done();
  };
  first();
  thread->join();
  return waited;
}

}  // namespace

TEST(CircmetricsLock, AReportWaitsForARegistration) {
  EXPECT_TRUE(waits_for<&report>(&register_counter));
}

TEST(CircmetricsLock, ARegistrationWaitsWhileAReportCollectsTheNames) {
  EXPECT_TRUE(waits_for<&register_counter>(&report));
}
