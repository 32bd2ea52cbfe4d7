// The example that adds up traces, run as a user runs it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

test::Ran summarize(test::Arguments arguments) {
  arguments.insert(arguments.begin(),
                   {"python3", QV_SOURCE_DIR "/examples/trace_summary/trace_summary.py"});
  return test::run_program("/usr/bin/env", arguments);
}

const std::string kHead = "operation                count      total us     mean us  longest us\n";

TEST(TraceSummary, AddsUpTheOperationsOfAllFilesButNotHalfALine) {
  const test::TempDir dir;
  const std::string process = R"({"ph":"M","pid":1,"tid":0,"name":"process_name","args":{}})"
                              "\n";
  const auto span = [](const std::string& name, const std::string& microseconds) {
    return R"(,{"ph":"X","pid":1,"tid":1,"ts":1.000,"dur":)" + microseconds + R"(,"name":")" +
           name +
           R"(","args":{}})"
           "\n";
  };
  test::write_file(dir.file("a"), "[" + process + span("store_find", "1.500") +
                                      span("store_flush", "20.000") + "," + process);
  test::write_file(dir.file("b"), "[" + process + span("store_find", "2.500") + ",{\"ph\":");
  const test::Ran ran = summarize({dir.file("a"), dir.file("b")});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.err, "");
  EXPECT_EQ(ran.out, kHead +
                         "store_flush                  1          20.0        20.0        20.0\n"
                         "store_find                   2           4.0         2.0         2.5\n");
}

TEST(TraceSummary, ReadsWhatATracedProgramLeaves) {
  const test::TempDir dir;
  const std::string file = dir.file("trace.json");
  const test::Ran traced = test::run_program(
      QV_BINARY_DIR "/bin/c_cache", {"one", "two"},
      {{"QV_CACHE_STORE_ROOT", dir.path()},
       {"QV_TRACE_FILE", file},
       {"LD_PRELOAD", QV_TRACE_LIBRARY},
       {"ASAN_OPTIONS", test::with_option("ASAN_OPTIONS", "verify_asan_link_order=0")}});
  EXPECT_TRUE(traced.exited_with(0));
  const test::Ran ran = summarize({file});
  EXPECT_EQ(ran.err, "");
  EXPECT_THAT(ran.out, testing::StartsWith(kHead));
  for (const std::string operation : {"store_open ", "store_find ", "store_flush "}) {
    EXPECT_THAT(ran.out, testing::HasSubstr("\n" + operation));
  }
}

TEST(TraceSummary, SaysWhichFileIsMissing) {
  const test::Ran ran = summarize({"/none"});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_EQ(ran.err, "trace_summary: [Errno 2] No such file or directory: '/none'\n");
  EXPECT_TRUE(summarize({}).exited_with(2));
}

}  // namespace
