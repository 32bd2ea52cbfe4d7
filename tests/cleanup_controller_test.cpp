// When a controller cleans a resource, and where the default one gets its threshold from.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <quorvane/module.h>
#include <quorvane/store.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "support/processes.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_root.h"
#include "support/thread_state.h"

using quorvane::cache::CleanableResource;
using quorvane::cache::CleanupController;
using quorvane::cache::FileStoreSkeleton;
using test::expectation;
using test::Ran;
using test::run_scenario;
using test::without_lines;
using Messages = std::vector<std::string>;

namespace {

const std::string kUnlimited =
    "WARN Cache store cleanup threshold not set, cache can grow indefinitely";

class FakeResource : public CleanableResource {
 public:
  explicit FakeResource(std::uint64_t bytes, std::uint64_t left = 0) : usage(bytes), left_(left) {}
  std::uint64_t get_usage() override {
    ++measured;
    return usage;
  }
  void clean() override {
    ++cleaned;
    usage = left_;
  }

  std::uint64_t usage;
  int measured = 0;
  int cleaned = 0;

 private:
  std::uint64_t left_;
};

}  // namespace

TEST(CleanupController, TicketsCountFromZero) {
  CleanupController controller(100);
  EXPECT_EQ(controller.get_ticket(), 0u);
  EXPECT_EQ(controller.get_ticket(), 1u);
  EXPECT_EQ(controller.get_ticket(), 2u);
}

TEST(CleanupController, TicketsOfManyThreadsAreDistinct) {
  CleanupController controller(100);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 250; ++i) {
        FakeResource resource(1);
        controller.update_and_check_usage(controller.get_ticket(), resource);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(controller.get_ticket(), 1000u);
}

// Arguments: threshold, usage before and after a cleaning. Prints how often the resource was
// measured and cleaned.
SCENARIO(process_usages) {
  CleanupController controller(std::stoull(arguments.at(0)));
  FakeResource resource(std::stoull(arguments.at(1)), std::stoull(arguments.at(2)));
  controller.process(controller.get_ticket(), resource);
  std::printf("%d %d", resource.measured, resource.cleaned);
  return 0;
}

void expect_processed(const test::Arguments& arguments, const std::string& counts,
                      const Messages& messages) {
  const Ran ran = run_scenario("process_usages", {}, arguments);
  EXPECT_EQ(ran.out, counts);
  EXPECT_EQ(ran.messages(), messages);
}

TEST(CleanupController, WithoutAThresholdNothingIsMeasured) {
  expect_processed({"0", "1000000", "0"}, "0 0", {});
}

TEST(CleanupController, ExactlyTheThresholdIsNotCleaned) {
  expect_processed({"100", "100", "0"}, "1 0", {"TRACE Cache store usage is 100 / 100 bytes."});
}

TEST(CleanupController, OneByteMoreIsCleanedAndMeasuredAgain) {
  expect_processed({"100", "101", "0"}, "2 1",
                   {"TRACE Cache store usage is 101 / 100 bytes.",
                    "TRACE Cache store usage is 0 / 100 bytes.", "INFO Cache store cleaned."});
}

TEST(CleanupController, WhatCleaningLeavesIsRecordedAndNotCleanedAgain) {
  expect_processed({"100", "500", "300"}, "2 1",
                   {"TRACE Cache store usage is 500 / 100 bytes.",
                    "TRACE Cache store usage is 300 / 100 bytes.", "INFO Cache store cleaned."});
}

TEST(CleanupController, TheTotalIsTheSumOfWhatWasLastMeasured) {
  CleanupController controller(100);
  const std::uint64_t first = controller.get_ticket();
  const std::uint64_t second = controller.get_ticket();
  FakeResource small(60);
  FakeResource large(40);
  EXPECT_FALSE(controller.update_and_check_usage(first, small));
  EXPECT_FALSE(controller.update_and_check_usage(second, large));
  large.usage = 41;
  EXPECT_TRUE(controller.update_and_check_usage(second, large));
  small.usage = 59;
  EXPECT_FALSE(controller.update_and_check_usage(first, small));
}

TEST(CleanupController, TheStoreThatCrossesTheThresholdIsTheOneCleaned) {
  CleanupController controller(100);
  FakeResource large(90);
  FakeResource small(20);
  const std::uint64_t first = controller.get_ticket();
  const std::uint64_t second = controller.get_ticket();
  controller.process(first, large);
  controller.process(second, small);
  EXPECT_EQ(large.cleaned, 0);
  EXPECT_EQ(small.cleaned, 1);
  // The cleaned store counts 0 now, so 90 + 10 is within the threshold.
  small.usage = 10;
  controller.process(second, small);
  EXPECT_EQ(small.cleaned, 1);
}

SCENARIO(unknown_ticket) {
  CleanupController controller(100);
  FakeResource resource(1);
  controller.get_ticket();
  controller.update_and_check_usage(1, resource);
  return 0;
}

TEST(CleanupController, ATicketThatWasNotHandedOutEndsTheProcess) {
  const Ran ran = run_scenario("unknown_ticket");
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(without_lines(ran.messages()), Messages{test::assertion("ticket < usages_.size()")});
}

// --- the default controller ---

// Argument: a usage. Prints whether there is one default controller, and how often it cleaned
// a resource with that usage and a resource with one byte more.
SCENARIO(default_controller) {
  CleanupController* controller = FileStoreSkeleton::get_default_cleanup_controller();
  const std::uint64_t usage = std::stoull(arguments.at(0));
  FakeResource fits(usage);
  FakeResource exceeds(usage + 1);
  controller->process(controller->get_ticket(), fits);
  fits.usage = 0;
  controller->update_and_check_usage(0, fits);
  controller->process(controller->get_ticket(), exceeds);
  std::printf("%d %d %d", controller == FileStoreSkeleton::get_default_cleanup_controller(),
              fits.cleaned, exceeds.cleaned);
  return 0;
}

void expect_threshold(const std::string& text, const std::string& bytes) {
  const Ran ran =
      run_scenario("default_controller",
                   {{"QV_CACHE_STORE_CLEANUP_THRESHOLD", text}, {"QV_LOG_LEVEL", "WARN"}}, {bytes});
  EXPECT_EQ(ran.out, "1 0 1") << text;
  const Ran logged = run_scenario(
      "default_controller", {{"QV_CACHE_STORE_CLEANUP_THRESHOLD", text}, {"QV_LOG_LEVEL", "DEBUG"}},
      {bytes});
  ASSERT_FALSE(logged.records.empty());
  EXPECT_EQ(logged.messages()[0], "INFO Cache store cleanup threshold set to " + bytes + " bytes");
}

TEST(DefaultCleanupController, TakesItsThresholdFromTheEnvironment) {
  expect_threshold("4096", "4096");
}

TEST(DefaultCleanupController, IgnoresWhatFollowsTheNumber) {
  expect_threshold("4096abc", "4096");
  expect_threshold(" 77 bytes", "77");
}

void expect_no_threshold(const test::Environment& environment, const std::string& check) {
  const Ran ran = run_scenario("default_controller", environment, {"1000000000"});
  EXPECT_EQ(ran.out, "1 0 0");
  const Messages messages = without_lines(ran.messages());
  ASSERT_GE(messages.size(), 2u);
  EXPECT_EQ(messages[0], expectation(check));
  EXPECT_EQ(messages[1], kUnlimited);
}

TEST(DefaultCleanupController, WarnsWhenNoThresholdIsSet) {
  expect_no_threshold({}, "threshold_env");
}

TEST(DefaultCleanupController, WarnsWhenTheThresholdIsNoNumber) {
  const std::string check = "sscanf(threshold_env, \"%zu\", &threshold) == 1";
  expect_no_threshold({{"QV_CACHE_STORE_CLEANUP_THRESHOLD", "abc"}}, check);
  expect_no_threshold({{"QV_CACHE_STORE_CLEANUP_THRESHOLD", ""}}, check);
}

TEST(DefaultCleanupController, AThresholdOfZeroIsNoLimit) {
  const Ran ran = run_scenario("default_controller", {{"QV_CACHE_STORE_CLEANUP_THRESHOLD", "0"}},
                               {"1000000000"});
  EXPECT_EQ(ran.out, "1 0 0");
  EXPECT_EQ(ran.messages()[0], "INFO Cache store cleanup threshold set to 0 bytes");
}

SCENARIO(environment_changes_late) {
  FileStoreSkeleton::get_default_cleanup_controller();
  setenv("QV_CACHE_STORE_CLEANUP_THRESHOLD", "1", 1);
  CleanupController* controller = FileStoreSkeleton::get_default_cleanup_controller();
  FakeResource resource(50);
  controller->process(controller->get_ticket(), resource);
  std::printf("%d", resource.measured);
  return 0;
}

TEST(DefaultCleanupController, ReadsTheEnvironmentOnce) {
  EXPECT_EQ(run_scenario("environment_changes_late").out, "0");
}

// The log is a full pipe, so its writer waits during the fork.
SCENARIO(fork_beside_a_record_that_waits) {
  alarm(test::kHangSeconds);
  int ends[2];
  if (pipe(ends) != 0) {
    return 2;
  }
  std::vector<char> full(static_cast<std::size_t>(fcntl(ends[1], F_GETPIPE_SZ)));
  if (write(ends[1], full.data(), full.size()) != static_cast<ssize_t>(full.size())) {
    return 2;
  }
  static quorvane::logging::LoggingModuleData outlet{ends[1], -1, QV_LOG_LEVEL_ALL};
  quorvane::Module module("util/src/cache");
  module->outlet = &outlet;
  module->level = QV_LOG_LEVEL_ALL;

  CleanupController controller(1);
  FakeResource resource(5);
  const std::uint64_t ticket = controller.get_ticket();
  test::Watched measuring([&] { controller.update_and_check_usage(ticket, resource); });
  measuring.settle();
  test::wait_for(test::in_child([] { return 0; }));
  const bool waited = !measuring.is_done();
  signal(SIGPIPE, SIG_IGN);
  close(ends[0]);  // makes the write fail
  measuring.join();
  return waited ? 0 : 1;
}

TEST(CleanupControllerProcesses, AForkDoesNotWaitForARecord) {
  EXPECT_TRUE(run_scenario("fork_beside_a_record_that_waits").exited_with(0));
}

SCENARIO(first_use_by_many_threads) {
  std::atomic<CleanupController*> seen{nullptr};
  std::atomic<int> different{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      CleanupController* mine = FileStoreSkeleton::get_default_cleanup_controller();
      CleanupController* expected = nullptr;
      different += !seen.compare_exchange_strong(expected, mine) && expected != mine;
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::printf("%d", different.load());
  return 0;
}

TEST(DefaultCleanupController, IsMadeOnceWhoeverAsksFirst) {
  const Ran ran =
      run_scenario("first_use_by_many_threads", {{"QV_CACHE_STORE_CLEANUP_THRESHOLD", "5"}});
  EXPECT_EQ(ran.out, "0");
  EXPECT_EQ(ran.messages(), Messages{"INFO Cache store cleanup threshold set to 5 bytes"});
}
