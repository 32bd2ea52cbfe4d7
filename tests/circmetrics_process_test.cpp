// What a report says about its process, and about the values that a child started with.
#include <circmetrics.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>

#include "circmetrics_test/fixture.h"
#include "support/processes.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

using namespace circmetrics_test;
using test::in_child;
using test::wait_for;

namespace {

// A recorder with metrics of every kind, whose histogram has samples of 2.
struct Used : Recorder {
  std::int64_t variable = 7;
  void* counter = stats_register(ns(root, "a"), "c", CIRCMETRICS_COUNTER);
  void* histogram = stats_register(root, "h", CIRCMETRICS_HISTOGRAM);
  void* gauge = stats_register(root, "g", CIRCMETRICS_GAUGE_INT64);

  Used() { stats_observe(gauge, CIRCMETRICS_GAUGE_INT64, &variable); }
  void count(std::int64_t amount) const {
    stats_add64(counter, amount);
    stats_set_hist(histogram, 2, static_cast<std::uint32_t>(amount));
  }
};

// What "@inherited" is in a child of a process that had counted so often.
std::string inherited_after(int count) {
  const std::string twice = std::to_string(2 * count);
  return R"("@inherited":{"a":{"c":)" + std::to_string(count) + R"(},"h":{"count":)" +
         std::to_string(count) + R"(,"sum":)" + twice +
         R"(,"min":2,"max":2,"mean":2,"p50":2,"p90":2,"p99":2,"p99.9":2,"buckets":[[2.03125,)" +
         std::to_string(count) + "]]}},";
}

std::string process_text(const std::string& program, const std::string& start, pid_t parent) {
  return R"({"@process":{"pid":)" + std::to_string(getpid()) + R"(,"program":)" + program +
         R"(,"start":)" + start + R"(,"parent":)" + std::to_string(parent) + "}";
}

json process_of(const std::string& report) { return json::parse(report).at("@process"); }

// What follows the process in a report.
std::string after_process(const std::string& report) {
  const std::size_t end = report.find("},");
  return end == std::string::npos ? "" : report.substr(end + 2);
}

bool begins_with(const std::string& text, const std::string& head) {
  return text.compare(0, head.size(), head) == 0;
}

int print(const std::string& text) {
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
  return 0;
}

}  // namespace

// -- The process

TEST(CircmetricsProcess, IsTheFirstMemberOfItsReports) {
  const Recorder recorder;
  const std::string text = recorder.whole_text();
  const std::string start = process_of(text)["start"].dump();
  EXPECT_EQ(text, process_text("\"circmetrics_process_test\"", start, getppid()) + "}");
  stats_register(recorder.root, "!", CIRCMETRICS_COUNTER);
  EXPECT_EQ(recorder.whole_text(), text.substr(0, text.size() - 1) + R"(,"!":0})");
}

namespace {

// So that the time of a report isn't that of the start.
void wait_two_seconds() {
  const time_t begun = time(nullptr);
  while (time(nullptr) < begun + 2) {
    usleep(10000);
  }
}

}  // namespace

SCENARIO(report_two_seconds_after_the_start) {
  wait_two_seconds();
  return print(Recorder().whole_text());
}

TEST(CircmetricsProcess, HasTheTimeOfItsStart) {
  const time_t before = time(nullptr);
  const test::Ran ran = test::run_scenario("report_two_seconds_after_the_start");
  ASSERT_TRUE(ran.exited_with(0));
  const time_t start = process_of(ran.out)["start"];
  EXPECT_GE(start, before - 1);  // the kernel counts in ticks
  EXPECT_LE(start, time(nullptr) - 2);
  EXPECT_EQ(process_of(ran.out)["pid"], ran.pid);
  EXPECT_EQ(process_of(ran.out)["parent"], getpid());
}

SCENARIO(fork_two_seconds_after_the_start) {
  const Recorder recorder;
  recorder.whole_text();
  wait_two_seconds();
  const pid_t parent = getpid();
  const time_t before = time(nullptr);
  return wait_for(in_child([&] {
    const json process = process_of(recorder.whole_text());
    const bool is_right = process["pid"] == getpid() && process["parent"] == parent &&
                          process["program"] == "circmetrics_process_test" &&
                          process["start"] >= before && process["start"] <= time(nullptr);
    return is_right ? 0 : 1;
  }));
}

TEST(CircmetricsProcess, IsTheChildItselfAfterAFork) {
  EXPECT_TRUE(test::run_scenario("fork_two_seconds_after_the_start").exited_with(0));
}

TEST(CircmetricsProcess, KeepsTheParentThatHasEnded) {
  const Recorder recorder;
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t middle = in_child([&] {
    const pid_t parent = getpid();
    in_child([&] {
      alarm(60);
      while (getppid() == parent) {
        usleep(1000);
      }
      const char is_right = process_of(recorder.whole_text())["parent"] == parent ? 'y' : 'n';
      return write(ends[1], &is_right, 1) == 1 ? 0 : 1;
    });
    return 0;
  });
  EXPECT_EQ(wait_for(middle), 0);
  close(ends[1]);
  char is_right = '-';
  EXPECT_EQ(read(ends[0], &is_right, 1), 1);
  EXPECT_EQ(is_right, 'y');
  close(ends[0]);
}

SCENARIO(report) { return print(Recorder().whole_text()); }

SCENARIO(report_after_deletion) {
  std::filesystem::remove(std::filesystem::read_symlink("/proc/self/exe"));
  return print(Recorder().whole_text());
}

namespace {

// The name in the report of this program under the name `file`.
json reported_name(const std::string& file, const std::string& scenario = "report") {
  const test::TempDir dir;
  const std::string program = dir.file(file);
  std::filesystem::copy_file("/proc/self/exe", program);
  const test::Ran ran = test::run_program(program, {"--scenario", scenario});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.out.find_first_of("\n\x01"), std::string::npos);
  return process_of(ran.out)["program"];
}

}  // namespace

TEST(CircmetricsProcess, MayHaveAProgramWithAnyName) {
  for (const std::string name :
       {"a \"quoted\" one", "back\\slash", "two\nlines", "{\"pid\":1},\x01\x7f\t",
        "\xC3\xA9 \xF0\x9F\x8E\xB2", ") 1 2 3 (", "name (deleted) more"}) {
    EXPECT_EQ(reported_name(name), name);
  }
  EXPECT_EQ(reported_name(std::string(255, 'n')), std::string(255, 'n'));
}

TEST(CircmetricsProcess, HasReplacementsForTheBytesOfANameThatAreNotUtf8) {
  EXPECT_EQ(reported_name("<\xFF\xC0\xAF>"), "<\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD>");
  EXPECT_EQ(reported_name("\xE2\x82"), "\xEF\xBF\xBD");
}

TEST(CircmetricsProcess, KeepsTheNameOfAProgramThatWasDeleted) {
  EXPECT_EQ(reported_name("gone", "report_after_deletion"), "gone");
}

SCENARIO(report_without_proc) {
  const Recorder recorder;
  test::refuse(SYS_openat, ENOENT);
  test::refuse(SYS_readlink, ENOENT);
  const std::string text = recorder.whole_text();
  return text == process_text("null", "null", getppid()) + "}" ? 0 : 1;
}

TEST(CircmetricsProcess, HasNullForWhatItCantFindOut) {
  EXPECT_TRUE(test::run_scenario("report_without_proc").exited_with(0));
}

TEST(CircmetricsProcess, LeavesItsNameToNoMetricAndASlashToANamespace) {
  for (const char* name : {"@process", "@inherited"}) {
    const Recorder recorder;
    EXPECT_EQ(stats_register(recorder.root, name, CIRCMETRICS_COUNTER), nullptr);
    void* inner = recorder.ns(recorder.root, name);
    ASSERT_NE(inner, nullptr);
    EXPECT_NE(stats_register(inner, name, CIRCMETRICS_COUNTER), nullptr);
    stats_register(recorder.root, (name + std::string("/")).c_str(), CIRCMETRICS_COUNTER);
    recorder.ns(inner, "@process");
    recorder.ns(inner, "@inherited");
    const json state = recorder.state();
    EXPECT_EQ(state.size(), 2U);
    EXPECT_EQ(state[name + std::string("/")], 0);
    const json& inside = state[name + std::string("//")];
    EXPECT_EQ(inside[name], 0);
    EXPECT_EQ(inside.size(), 3U);
  }
}

TEST(CircmetricsProcess, LeavesOtherNamesWithAnAtSignAsTheyAre) {
  const Recorder recorder;
  recorder.ns(recorder.root, "@scope");
  stats_register(recorder.root, "@processes", CIRCMETRICS_COUNTER);
  EXPECT_EQ(recorder.text(), R"({"@processes":0,"@scope":{}})");
}

// -- What a child started with

TEST(CircmetricsInherited, IsWhatTheParentHadCountedAtTheFork) {
  const Used recorder;
  recorder.count(5);
  const pid_t child = in_child([&] {
    recorder.count(3);
    const bool is_right = begins_with(after_process(recorder.whole_text()), inherited_after(5)) &&
                          recorder.state()["a"]["c"] == 8;
    return is_right ? 0 : 1;
  });
  EXPECT_EQ(wait_for(child), 0);
}

TEST(CircmetricsInherited, IsTheSameInAllReportsOfTheChild) {
  const Used recorder;
  recorder.count(5);
  const pid_t child = in_child([&] {
    const std::string first = after_process(recorder.whole_text());
    recorder.count(9);
    const std::string second = after_process(recorder.whole_text());
    return begins_with(first, inherited_after(5)) && begins_with(second, inherited_after(5)) ? 0
                                                                                             : 1;
  });
  EXPECT_EQ(wait_for(child), 0);
}

TEST(CircmetricsInherited, IsNotInTheParentsReports) {
  const Used recorder;
  recorder.count(5);
  EXPECT_EQ(wait_for(in_child([] { return 0; })), 0);
  EXPECT_FALSE(json::parse(recorder.whole_text()).contains("@inherited"));
}

TEST(CircmetricsInherited, OfAGrandchildIsWhatTheChildHad) {
  const Used recorder;
  recorder.count(5);
  const pid_t child = in_child([&] {
    recorder.count(2);
    return wait_for(in_child([&] {
      recorder.count(1);
      return begins_with(after_process(recorder.whole_text()), inherited_after(7)) ? 0 : 1;
    }));
  });
  EXPECT_EQ(wait_for(child), 0);
}

TEST(CircmetricsInherited, HasNothingOfMetricsThatTheChildMade) {
  const Used recorder;
  recorder.count(5);
  const pid_t child = in_child([&] {
    void* own = stats_register(recorder.root, "0", CIRCMETRICS_COUNTER);
    stats_add64(own, 1);
    return begins_with(after_process(recorder.whole_text()), inherited_after(5)) ? 0 : 1;
  });
  EXPECT_EQ(wait_for(child), 0);
}

SCENARIO(fork_before_the_first_metric) {
  const Recorder recorder;
  return wait_for(in_child([&] {
    stats_add64(stats_register(recorder.root, "c", CIRCMETRICS_COUNTER), 1);
    return after_process(recorder.whole_text()) == "\"c\":1}" ? 0 : 1;
  }));
}

TEST(CircmetricsInherited, IsMissingIfThereWasNoMetricAtTheFork) {
  EXPECT_TRUE(test::run_scenario("fork_before_the_first_metric").exited_with(0));
}

SCENARIO(fork_with_gauges_only) {
  const Recorder recorder;
  stats_register(recorder.root, "g", CIRCMETRICS_GAUGE_DOUBLE);
  return wait_for(in_child([&] {
    return after_process(recorder.whole_text()) == R"("@inherited":{},"g":null})" ? 0 : 1;
  }));
}

TEST(CircmetricsInherited, HasNoGauges) {
  EXPECT_TRUE(test::run_scenario("fork_with_gauges_only").exited_with(0));
}

TEST(CircmetricsInherited, IsUnknownInARawCloneWhichReportsItsOwnId) {
  const Used recorder;
  recorder.count(5);
  recorder.whole_text();
  const auto clone = static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
  if (clone == 0) {
    alarm(60);
    const std::string text = recorder.whole_text();
    const bool is_right = begins_with(after_process(text), "\"@inherited\":null,\"a\"") &&
                          process_of(text)["pid"] == getpid() &&
                          process_of(text)["parent"] == getppid();
    _exit(is_right ? 0 : 1);
  }
  EXPECT_EQ(wait_for(clone), 0);
}

// A counter takes three words: its address, the size of the rest, its value.
SCENARIO(fork_without_memory) {
  const Recorder recorder;
  stats_add64(stats_register(recorder.root, "c", CIRCMETRICS_COUNTER), 4);
  test::refuse(SYS_mmap, ENOMEM, test::When{1, 24});
  return wait_for(in_child([&] {
    return after_process(recorder.whole_text()) == R"("@inherited":null,"c":4})" ? 0 : 1;
  }));
}

TEST(CircmetricsInherited, IsUnknownWithoutMemoryForIt) {
  EXPECT_TRUE(test::run_scenario("fork_without_memory").exited_with(0));
}

// The child's values less those that it started with are its own, whatever other threads of the
// parent did at the fork.
TEST(CircmetricsInherited, TakenOffAChildsValuesLeavesItsOwn) {
  const Used recorder;
  recorder.count(1);  // makes the range now: a sanitizer's allocator must be idle at a fork
  std::atomic<bool> stop{false};
  std::thread busy([&] {
    while (!stop) {
      recorder.count(1);
    }
  });
  for (int round = 0; round < 40; ++round) {
    const pid_t child = in_child([&] {
      alarm(60);
      recorder.count(10);
      const json all = json::parse(recorder.whole_text());
      const json& before = all["@inherited"];
      const auto own = [&](const char* key) {
        return all["h"][key].get<long>() - before["h"][key].get<long>();
      };
      const bool is_right =
          all["a"]["c"].get<long>() - before["a"]["c"].get<long>() == 10 && own("count") == 10 &&
          own("sum") == 20 &&
          all["h"]["buckets"][0][1].get<long>() - before["h"]["buckets"][0][1].get<long>() == 10;
      return is_right ? 0 : 1;
    });
    EXPECT_EQ(wait_for(child), 0);
  }
  stop = true;
  busy.join();
}
