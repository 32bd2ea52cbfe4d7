// The trace file that libqvtrace.so writes.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/circular_buffer_pool.h>
#include <quorvane/file_store.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/documents.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_maps.h"
#include "support/store_root.h"
#include "support/temp_dir.h"
#include "support/trace.h"

using nlohmann::json;
using test::Ran;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char kVariable[] = "QV_TRACE_FILE";

class Trace : public testing::Test {
 protected:
  std::string file() const { return dir_.file("trace.json"); }

  Ran run(const std::string& scenario, const test::Arguments& arguments = {}) const {
    return test::run_scenario(scenario, {{kVariable, file()}}, arguments);
  }

  test::TempDir dir_;
};

std::string name_of(const json& span) { return span.at("name"); }

// --- what an event says ---

SCENARIO(use_a_pool_and_a_store) {
  quorvane::util::CircularBufferPool pool(4096);
  { const auto buffer = pool.allocate(100, nullptr); }
  quorvane::cache::CleanupController controller(0);
  quorvane::cache::BasicStore store("maps", std::make_shared<test::CountingLock>(), &controller);
  quorvane::cache::EntryMap map;
  store.try_nonlock_append(test::entry_map({{"a", {"1"}}}), {});
  store.try_nonlock_load(map);
  return 0;
}

TEST_F(Trace, HasTheOperationsOfPoolsAndStoresWithTheirSizes) {
  const test::StoreRoot root;
  const Ran ran = test::run_scenario("use_a_pool_and_a_store",
                                     {{kVariable, file()}, {"QV_CACHE_STORE_ROOT", root.path()}});
  ASSERT_TRUE(ran.exited_with(0));
  const test::Events spans = test::spans_in(file());
  ASSERT_EQ(spans.size(), 4U);
  EXPECT_EQ(name_of(spans[0]), "pool_allocate");
  EXPECT_EQ(name_of(spans[1]), "pool_deallocate");
  EXPECT_EQ(name_of(spans[2]), "store_append");
  EXPECT_EQ(name_of(spans[3]), "store_load");
  EXPECT_EQ(spans[0]["args"]["size"], spans[1]["args"]["size"]);
  EXPECT_EQ(spans[0]["args"]["buffer"], spans[1]["args"]["buffer"]);
  const std::size_t size = test::read_file(root.file("maps")).size();
  EXPECT_EQ(spans[3]["args"]["bytes"], size);
  EXPECT_EQ(spans[2]["args"]["store"], spans[3]["args"]["store"]);
}

SCENARIO(report_everything) {
  _qv_trace_rpc_t record;
  const _qv_trace_rpc_t rpc{};
  for (const unsigned operation : {11U, 12U, 14U, 15U, 16U, 99U}) {
    for (const unsigned event : {1543U, 1544U}) {
      qvtracer::util::write_trace(operation == 99 ? &rpc : nullptr, &record, event, operation,
                                  test::as_pointer(0xa), test::as_pointer(0xb),
                                  test::as_pointer(0xc), test::as_pointer(0xd));
    }
  }
  std::printf("%p", static_cast<const void*>(&rpc));
  return 0;
}

TEST_F(Trace, NamesTheArgumentsOfEachOperation) {
  const Ran ran = run("report_everything");
  std::vector<json> said;
  for (const json& span : test::spans_in(file())) {
    said.push_back({span.at("name"), span.at("args")});
  }
  EXPECT_THAT(
      said,
      ElementsAre(
          json{"store_load", {{"store", "0xa"}, {"bytes", 11}}},
          json{"store_append", {{"store", "0xa"}, {"bytes", 11}}},
          json{"pool_allocate",
               {{"pool", "0xa"}, {"buffer", "0xb"}, {"size", 12}, {"head", "0xd"}}},
          json{"pool_deallocate",
               {{"pool", "0xa"}, {"buffer", "0xb"}, {"size", 12}, {"head", "0xd"}}},
          json{"pool_free", {{"pool", "0xa"}, {"buffer", "0xb"}, {"size", 12}, {"tail", "0xd"}}},
          json{"operation_99",
               {{"a", "0xa"}, {"b", "0xb"}, {"c", "0xc"}, {"d", "0xd"}, {"rpc", ran.out}}}));
}

SCENARIO(report_every_operation) {
  for (unsigned operation = 11; operation <= 22; ++operation) {
    _qv_trace_rpc_t record;
    for (const unsigned event : {1543U, 1544U}) {
      if (operation != 13) {  // there is none
        qvtracer::util::write_trace(nullptr, &record, event, operation, nullptr, nullptr, nullptr,
                                    nullptr);
      }
    }
  }
  return 0;
}

SCENARIO(report_between_two_times) {
  const auto print_time = [] {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    std::printf("%ld\n", time.tv_sec * 1'000'000'000 + time.tv_nsec);
  };
  print_time();
  test::report_append(1);
  print_time();
  return 0;
}

TEST_F(Trace, HasTheIdsOfItsThreadAndTheMonotonicTime) {
  const Ran ran = run("report_between_two_times");
  const test::Events spans = test::spans_in(file());
  ASSERT_EQ(spans.size(), 1U);
  EXPECT_EQ(spans[0]["pid"], ran.pid);
  EXPECT_EQ(spans[0]["tid"], ran.pid);
  const std::int64_t before = std::stol(ran.out);
  const std::int64_t after = std::stol(ran.out.substr(ran.out.find('\n')));
  const std::int64_t start = test::nanoseconds(spans[0]["ts"]);
  EXPECT_GE(start + 1000, before);  // a double has lost digits
  EXPECT_LE(start + test::nanoseconds(spans[0]["dur"]) - 1000, after);
}

std::vector<std::string> keys_of(const json& object) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : object.items()) {
    keys.push_back(value.is_object() ? key + " of " + testing::PrintToString(keys_of(value)) : key);
  }
  return keys;
}

TEST_F(Trace, LooksAsTheGuideShowsIt) {
  const test::Events shown = test::events_of(
      test::fenced_block(test::read_file(QV_SOURCE_DIR "/docs/guide.md"), "```trace"));
  ASSERT_EQ(shown.size(), 4U);
  run("report_every_operation");
  std::map<std::string, std::vector<std::string>> written;
  for (const json& event : test::events_of(test::read_file(file()))) {
    written[event.at("name")] = keys_of(event);
  }
  for (const json& event : shown) {
    EXPECT_EQ(keys_of(event), written[event.at("name")]);
  }
}

TEST_F(Trace, HasOnlyOperationsThatTheGuideExplains) {
  const std::string guide = test::read_file(QV_SOURCE_DIR "/docs/guide.md");
  run("report_every_operation");
  const test::Events spans = test::spans_in(file());
  EXPECT_EQ(spans.size(), 11U);
  for (const json& span : spans) {
    EXPECT_THAT(guide, testing::HasSubstr("`" + name_of(span) + "`"));
    for (const auto& [argument, value] : span.at("args").items()) {
      EXPECT_THAT(guide, testing::HasSubstr("`" + argument + "`"));
    }
  }
}

TEST_F(Trace, NamesTheProcess) {
  const Ran ran = run("report_everything");
  const test::Events events = test::events_of(test::read_file(file()));
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events[0], (json{{"ph", "M"},
                             {"pid", ran.pid},
                             {"tid", 0},
                             {"name", "process_name"},
                             {"args", {{"name", "exe"}}}}));
}

SCENARIO(end_an_operation_within_another) {
  _qv_trace_rpc_t outer;
  qvtracer::util::write_trace(nullptr, &outer, 1543, 11, nullptr, nullptr, nullptr, nullptr);
  _qv_trace_rpc_t lost;
  qvtracer::util::write_trace(nullptr, &lost, 1543, 12, nullptr, nullptr, nullptr, nullptr);
  test::report_append(7);
  qvtracer::util::write_trace(nullptr, &outer, 1544, 11, nullptr, nullptr, nullptr, nullptr);
  return 0;
}

TEST_F(Trace, HasAnOperationWithinAnotherButNoneThatDidNotEnd) {
  run("end_an_operation_within_another");
  const test::Events spans = test::spans_in(file());
  ASSERT_EQ(spans.size(), 2U);
  EXPECT_EQ(name_of(spans[0]), "store_append");
  EXPECT_EQ(name_of(spans[1]), "store_load");
  EXPECT_GE(spans[0]["ts"], spans[1]["ts"]);
  EXPECT_LE(test::nanoseconds(spans[0]["ts"]) + test::nanoseconds(spans[0]["dur"]),
            test::nanoseconds(spans[1]["ts"]) + test::nanoseconds(spans[1]["dur"]) + 1000);
}

SCENARIO(keep_errno) {
  errno = 77;
  for (int i = 0; i < 2000; ++i) {  // more than a buffer takes
    test::report_append(0);
  }
  return errno == 77 ? 0 : 1;
}

TEST_F(Trace, LeavesErrnoAlone) {
  EXPECT_TRUE(run("keep_errno").exited_with(0));
  EXPECT_EQ(test::spans_in(file()).size(), 2000U);
  EXPECT_TRUE(test::run_scenario("keep_errno", {{kVariable, "/none/trace"}}).exited_with(0));
}

// --- whether there is a file ---

SCENARIO(report_in) {
  if (chdir(arguments.at(0).c_str()) != 0) {
    return 1;
  }
  test::report_append(0);
  return static_cast<int>(test::names_in("/proc/self/fd").size());
}

TEST_F(Trace, WithoutTheVariableNothingIsOpened) {
  const Ran traced = run("report_in", {dir_.path()});
  const Ran unset = test::run_scenario("report_in", {}, {dir_.path()});
  const Ran empty = test::run_scenario("report_in", {{kVariable, ""}}, {dir_.path()});
  EXPECT_EQ(unset.status, empty.status);
  EXPECT_EQ(WEXITSTATUS(unset.status) + 1, WEXITSTATUS(traced.status));
  EXPECT_THAT(unset.messages(), IsEmpty());
  EXPECT_THAT(test::names_in(dir_.path()), ElementsAre("trace.json"));
}

SCENARIO(report_nothing) { return 0; }

TEST_F(Trace, AProcessWithoutEventsLeavesNoFile) {
  EXPECT_TRUE(run("report_nothing").exited_with(0));
  EXPECT_THAT(test::names_in(dir_.path()), IsEmpty());
}

TEST_F(Trace, APreloadedTracerServesAProgramThatKnowsNothingOfIt) {
  const Ran ran = test::run_program(
      QV_UNTRACED_PROGRAM, {},
      {{kVariable, file()},
       {"LD_PRELOAD", QV_TRACE_LIBRARY},
       {"ASAN_OPTIONS", test::with_option("ASAN_OPTIONS", "verify_asan_link_order=0")}});
  EXPECT_EQ(ran.out, "used\n");
  const test::Events spans = test::spans_in(file());
  std::vector<std::string> names;
  for (const json& span : spans) {
    names.push_back(name_of(span));
  }
  EXPECT_THAT(names, ElementsAre("pool_allocate", "pool_allocate", "pool_deallocate", "pool_free"));
}

TEST_F(Trace, ANameMayHoldTheProcessId) {
  const Ran ran =
      test::run_scenario("report_everything", {{kVariable, dir_.file("%p.of.%p%q.json")}});
  const std::string pid = std::to_string(ran.pid);
  EXPECT_THAT(test::names_in(dir_.path()), ElementsAre(pid + ".of." + pid + "%q.json"));
}

SCENARIO(leave_and_report) {
  test::report_append(0);
  if (chdir("/") != 0) {
    return 1;
  }
  return test::wait_for(test::in_child([] {
    test::report_append(1);
    return 0;
  }));
}

TEST_F(Trace, ARelativeNameIsInTheDirectoryWhereTheProgramStarted) {
  const std::string up = "../../../../../../../..";
  const Ran ran = test::run_scenario("leave_and_report", {{kVariable, up + file()}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(test::names_in(dir_.path()).size(), 2U);
}

// --- a file and its writers ---

TEST_F(Trace, TheNextProcessGoesOnInTheFile) {
  const Ran first = run("report_everything");
  const Ran second = run("report_everything");
  const test::Events spans = test::spans_in(file());
  ASSERT_EQ(spans.size(), 12U);
  EXPECT_EQ(spans[0]["pid"], first.pid);
  EXPECT_EQ(spans[11]["pid"], second.pid);
}

TEST_F(Trace, TheNextProcessCutsOffHalfALineOrTheEndOfTheArray) {
  for (const std::string end : {",", ",{\"ph\":\"X\",\"pi", "]", "]\n"}) {
    unlink(file().c_str());
    run("report_everything");
    const std::string whole = test::read_file(file());
    test::write_file(file(), whole + end);
    run("report_everything");
    EXPECT_EQ(test::read_file(file()).substr(0, whole.size()), whole);
    EXPECT_EQ(test::spans_in(file()).size(), 12U);
  }
}

TEST_F(Trace, TheNextProcessCutsOffHalfOfTheFirstLine) {
  run("report_everything");
  const std::string whole = test::read_file(file());
  test::write_file(file(), whole.substr(0, whole.find('\n')));
  run("report_everything");
  EXPECT_EQ(test::spans_in(file()).size(), 6U);
}

SCENARIO(report_in_parent_and_child) {
  test::report_append(0);
  test::report_append(1);
  const pid_t child = fork();
  if (child == 0) {
    test::report_append(10);
    test::report_append(11);
    exit(0);
  }
  std::printf("%d", child);
  const int status = test::wait_for(child);
  test::report_append(2);
  return status;
}

TEST_F(Trace, AChildOfForkHasAFileOfItsOwnWithItsOwnEvents) {
  const Ran ran = run("report_in_parent_and_child");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(test::bytes_in(test::spans_in(file())), ElementsAre(0, 1, 2));
  EXPECT_THAT(test::bytes_in(test::spans_in(file() + "." + ran.out)), ElementsAre(10, 11));
}

TEST_F(Trace, AChildOfForkHasTheFileOfItsProcessId) {
  const Ran ran = test::run_scenario("report_in_parent_and_child", {{kVariable, dir_.file("%p")}});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(test::bytes_in(test::spans_in(dir_.file(std::to_string(ran.pid)))),
              ElementsAre(0, 1, 2));
  const test::Events spans = test::spans_in(dir_.file(ran.out));
  EXPECT_THAT(test::bytes_in(spans), ElementsAre(10, 11));
  EXPECT_EQ(spans.at(0)["pid"], std::stoi(ran.out));
  EXPECT_EQ(spans.at(0)["tid"], std::stoi(ran.out));
}

SCENARIO(report_in_a_raw_clone) {
  test::report_append(0);
  test::report_append(1);
  const auto child = static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
  if (child == 0) {
    test::report_append(10);
    _exit(0);
  }
  return test::wait_for(child);
}

TEST_F(Trace, AChildOfARawCloneWritesNothing) {
  EXPECT_TRUE(run("report_in_a_raw_clone").exited_with(0));
  EXPECT_THAT(test::bytes_in(test::spans_in(file())), ElementsAre(0, 1));
  EXPECT_THAT(test::names_in(dir_.path()), ElementsAre("trace.json"));
}

// Closes what it didn't open, as a daemon does.
SCENARIO(close_all_and_report) {
  test::report_append(0);
  for (int fd = 3; fd < 100; ++fd) {
    close(fd);
  }
  for (int fd = 3; fd < 100; ++fd) {
    open(arguments.at(0).c_str(), O_RDWR | O_CREAT, 0644);
  }
  test::report_append(1);
  return 0;
}

TEST_F(Trace, AFileThatTheProgramOpenedInItsPlaceGetsNothing) {
  const std::string other = dir_.file("other");
  EXPECT_TRUE(run("close_all_and_report", {other}).exited_with(0));
  EXPECT_EQ(test::read_file(other), "");
  EXPECT_THAT(test::bytes_in(test::spans_in(file())), ElementsAre(0, 1));
}

}  // namespace
