// The tracer in programs of many threads, and in those that are killed.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <csignal>
#include <latch>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/processes.h"
#include "support/scenario.h"
#include "support/temp_dir.h"
#include "support/threads.h"
#include "support/trace.h"

using nlohmann::json;
using test::Ran;

namespace {

class TraceThreads : public testing::Test {
 protected:
  std::string file() const { return dir_.file("trace.json"); }

  Ran run(const std::string& scenario, const test::Arguments& arguments = {}) const {
    return test::run_scenario(scenario, {{"QV_TRACE_FILE", file()}}, arguments);
  }

  // The events of each thread, in the order of the file.
  std::map<pid_t, test::Events> by_thread() const {
    std::map<pid_t, test::Events> threads;
    for (const json& span : test::spans_in(file())) {
      threads[span.at("tid")].push_back(span);
    }
    return threads;
  }

  test::TempDir dir_;
};

// Operations within operations, three deep.
void report_nested(int depth, std::uint64_t number) {
  _qv_trace_rpc_t record;
  qvtracer::util::write_trace(nullptr, &record, 1543, 11, nullptr, nullptr, nullptr, nullptr);
  if (depth > 1) {
    report_nested(depth - 1, number);
    report_nested(depth - 1, number);
  }
  qvtracer::util::write_trace(nullptr, &record, 1544, 11, nullptr, test::as_pointer(number),
                              nullptr, nullptr);
}

constexpr std::uint64_t kRounds = 300;  // more than a buffer takes
constexpr std::size_t kOfRound = 7;

SCENARIO(report_in_threads) {
  const int threads = std::stoi(arguments.at(0));
  const auto rounds = std::stoull(arguments.at(1));
  std::barrier together(threads);
  test::run_threads(threads, [&](int) {
    report_nested(3, 0);
    together.arrive_and_wait();  // all threads are alive
    for (std::uint64_t round = 1; round < rounds; ++round) {
      report_nested(3, round);
    }
  });
  return 0;
}

void expect_nested(const test::Events& spans) {
  std::vector<std::pair<std::int64_t, std::int64_t>> within;  // those that hold no other's yet
  for (const json& span : spans) {                            // in the order of their ends
    const std::int64_t start = std::stoll(span.at("ts_ns").get<std::string>());
    const std::int64_t end = start + std::stoll(span.at("dur_ns").get<std::string>());
    while (!within.empty() && within.back().first >= start) {
      ASSERT_LE(within.back().second, end) << span;
      within.pop_back();
    }
    if (!within.empty()) {
      ASSERT_LE(within.back().second, start) << span;
    }
    within.emplace_back(start, end);
  }
}

// The times as text without their point, since a double doesn't hold all of their digits.
std::map<pid_t, test::Events> with_exact_times(const std::string& path) {
  std::string text = test::read_file(path);
  for (const std::string name : {"ts", "dur"}) {
    const std::string from = "\"" + name + "\":";
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
      const std::size_t first = at + from.size();
      std::size_t last = text.find(',', first);
      std::string number = text.substr(first, last - first);
      number.erase(number.find('.'), 1);
      const std::string exact = "\"" + name + "_ns\":\"" + number + "\"";
      text.replace(at, last - at, exact);
      at += exact.size();
    }
  }
  std::map<pid_t, test::Events> threads;
  for (const json& span : test::spans_of(text)) {
    threads[span.at("tid")].push_back(span);
  }
  return threads;
}

TEST_F(TraceThreads, HaveAllOfTheirEventsInOrder) {
  EXPECT_TRUE(run("report_in_threads", {"8", std::to_string(kRounds)}).exited_with(0));
  const auto threads = by_thread();
  EXPECT_EQ(threads.size(), 8U);
  for (const auto& [thread, spans] : threads) {
    std::vector<std::uint64_t> expected;
    for (std::size_t i = 0; i < kRounds * kOfRound; ++i) {
      expected.push_back(i / kOfRound);
    }
    EXPECT_EQ(test::bytes_in(spans), expected);
  }
}

TEST_F(TraceThreads, HaveSpansThatNest) {
  EXPECT_TRUE(run("report_in_threads", {"4", "100"}).exited_with(0));
  const auto threads = with_exact_times(file());
  EXPECT_EQ(threads.size(), 4U);
  for (const auto& [thread, spans] : threads) {
    EXPECT_EQ(spans.size(), 100 * kOfRound);
    expect_nested(spans);
  }
}

TEST_F(TraceThreads, LoseNothingWhenThereAreMoreOfThemThanBuffers) {
  EXPECT_TRUE(run("report_in_threads", {"200", "10"}).exited_with(0));
  const auto threads = by_thread();
  EXPECT_EQ(threads.size(), 200U);
  for (const auto& [thread, spans] : threads) {
    EXPECT_EQ(spans.size(), 10 * kOfRound);
  }
}

SCENARIO(report_in_threads_one_after_another) {
  for (std::uint64_t number = 0; number < 300; ++number) {
    std::thread([number] {
      test::report_append(number);
      test::report_append(number);
    }).join();
  }
  kill(getpid(), SIGKILL);
  return 0;
}

TEST_F(TraceThreads, WriteWhatTheyHaveWhenTheyEnd) {
  EXPECT_TRUE(run("report_in_threads_one_after_another").killed_by(SIGKILL));
  EXPECT_EQ(test::spans_in(file()).size(), 600U);
}

// A thread waits, while others go on until its events are in the file.
SCENARIO(wait_for_another_to_write) {
  std::atomic<bool> has_reported{false};
  std::thread idle([&] {
    for (std::uint64_t number = 0; number < 3; ++number) {
      test::report_append(number, 2);
    }
    has_reported = true;
    for (;;) {
      pause();
    }
  });
  while (!has_reported) {
    std::this_thread::yield();
  }
  std::size_t found = 0;
  while (found < 3) {
    test::report_append(0);
    const std::string text = test::read_file(arguments.at(0));
    found = 0;
    for (std::size_t at = 0; (at = text.find("\"0x2\"", at)) != std::string::npos; ++at) {
      ++found;
    }
  }
  _exit(0);
}

TEST_F(TraceThreads, WriteWhatIdleOnesHave) {
  EXPECT_TRUE(run("wait_for_another_to_write", {file()}).exited_with(0));
}

SCENARIO(be_killed_while_threads_report) {
  test::run_threads(3, [](int index) {
    for (std::uint64_t number = 0;; ++number) {
      test::report_append(number, static_cast<std::uint64_t>(index));
      if (index == 0 && number == 3000) {
        kill(getpid(), SIGKILL);
      }
    }
  });
  return 0;
}

// The kill may interrupt a write: so only the last line may be cut short.
TEST_F(TraceThreads, LeaveWholeLinesWhenTheirProcessIsKilled) {
  for (int round = 0; round < 3; ++round) {
    unlink(file().c_str());
    EXPECT_TRUE(run("be_killed_while_threads_report").killed_by(SIGKILL));
    const std::string text = test::read_file(file());
    std::map<std::string, test::Events> stores;
    for (const json& span : test::spans_of(text.substr(0, text.rfind('\n') + 1))) {
      stores[span.at("args").at("store")].push_back(span);
    }
    EXPECT_GT(stores["0x0"].size(), 2000U);  // less than a buffer is missing
    for (const auto& [store, spans] : stores) {
      EXPECT_EQ(test::bytes_in(spans), test::numbers_from_0(spans.size()));
    }
  }
}

// Children of a process whose threads are writing. It has opened its file first: otherwise a child
// would have the name, and another would go on in that file.
SCENARIO(fork_while_threads_report) {
  std::latch has_file(4);
  std::vector<std::thread> threads;
  for (std::uint64_t index = 1; index <= 3; ++index) {
    threads.emplace_back([index, &has_file] {
      test::report_append(0, index);
      has_file.count_down();
      for (std::uint64_t number = 1; number < 10'000; ++number) {
        test::report_append(number, index);
      }
    });
  }
  has_file.arrive_and_wait();
  int failures = 0;
  for (int number = 0; number < 20; ++number) {
    const pid_t child = fork();
    if (child == 0) {
      for (std::uint64_t mine = 0; mine < 1000; ++mine) {
        test::report_append(mine, 9);
      }
      exit(0);
    }
    failures += test::wait_for(child) == 0 ? 0 : 1;
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return failures;
}

TEST_F(TraceThreads, DoNotDisturbTheChildrenOfTheirProcess) {
  // A child ends with exit, as it must to write all: its parent's threads seem to leak.
  const std::string no_leaks = test::with_option("TSAN_OPTIONS", "report_thread_leaks=0");
  EXPECT_TRUE(test::run_scenario("fork_while_threads_report",
                                 {{"QV_TRACE_FILE", file()}, {"TSAN_OPTIONS", no_leaks}})
                  .exited_with(0));
  std::size_t children = 0;
  for (const std::string& name : test::names_in(dir_.path())) {
    if (name != "trace.json") {
      const test::Events spans = test::spans_in(dir_.file(name));
      ++children;
      EXPECT_EQ(test::bytes_in(spans), test::numbers_from_0(1000)) << name;
      EXPECT_EQ(spans.at(0).at("args").at("store"), "0x9");
    }
  }
  EXPECT_EQ(children, 20U);
  const auto threads = by_thread();
  EXPECT_EQ(threads.size(), 3U);
  for (const auto& [thread, spans] : threads) {
    EXPECT_EQ(test::bytes_in(spans), test::numbers_from_0(10'000));
  }
}

// Each process takes a buffer, and leaves those of its ancestors.
SCENARIO(fork_again_and_again) {
  const int generations = std::stoi(arguments.at(0));
  for (int generation = 0; generation < generations; ++generation) {
    for (std::uint64_t number = 0; number < 10; ++number) {
      test::report_append(number);
    }
    const pid_t child = fork();
    if (child != 0) {
      exit(test::wait_for(child) == 0 ? 0 : 1);
    }
  }
  return 0;
}

TEST_F(TraceThreads, OfMoreGenerationsThanThereAreBuffersWriteEachTheirOwn) {
  EXPECT_TRUE(
      test::run_scenario("fork_again_and_again", {{"QV_TRACE_FILE", file() + "%p"}}, {"150"})
          .exited_with(0));
  const std::vector<std::string> names = test::names_in(dir_.path());
  EXPECT_EQ(names.size(), 150U);
  for (const std::string& name : names) {
    EXPECT_EQ(test::bytes_in(test::spans_in(dir_.file(name))), test::numbers_from_0(10)) << name;
  }
}

}  // namespace
