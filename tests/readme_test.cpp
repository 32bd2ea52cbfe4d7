// README.md's first program does what the page says.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/documents.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using testing::HasSubstr;

const std::string README = QV_SOURCE_DIR "/README.md";

std::string first_program() { return test::fenced_block(test::read_file(README), "```cpp"); }

class Readme : public testing::Test {
 protected:
  void compile() {
    test::write_file(dir_.file("hello.cpp"), first_program());
    const std::string command = test::compile_command(dir_.file("hello.cpp"), hello_);
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
  }

  test::Ran run(const std::string& root) {
    return test::run_program(hello_, {},
                             {{"QV_CACHE_STORE_ROOT", root},
                              {"QV_CACHE_STORE_SIZE", "10G"},
                              {"QV_LOG_LEVEL", std::nullopt}});
  }

  test::TempDir dir_;
  std::string hello_ = dir_.file("hello");
};

TEST_F(Readme, TheFirstProgramRemembersFromOneRunToTheNext) {
  ASSERT_NO_FATAL_FAILURE(compile());
  std::filesystem::create_directory(dir_.file("store"));
  const test::Ran first = run(dir_.file("store"));
  EXPECT_TRUE(first.exited_with(0)) << first.err;
  EXPECT_EQ(first.out, "nothing known yet\n");
  const test::Ran second = run(dir_.file("store"));
  EXPECT_TRUE(second.exited_with(0)) << second.err;
  EXPECT_EQ(second.out, "hello, world\n");
  EXPECT_EQ(first.err + second.err, "");
  EXPECT_THAT(second.messages(), testing::Contains("INFO 1 greetings"));
}

TEST_F(Readme, TheFirstProgramForgetsWithoutAStoreRoot) {
  ASSERT_NO_FATAL_FAILURE(compile());
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(run(dir_.file("missing")).out, "nothing known yet\n");
  }
}

TEST_F(Readme, NamesEveryVariableThatTheLibraryReads) {
  const std::string text = test::read_file(README);
  for (const char* variable : {"QV_LOG_FILE",
                               "QV_LOG_FILE_Global",
                               "HOME",
                               "QV_LOG_LEVEL",
                               "QV_LOG_LEVELS",
                               "QV_LOG_SYNC",
                               "QV_CACHE_STORE_ROOT",
                               "QV_CACHE_STORE_SIZE",
                               "QV_CACHE_STORE_CLEANUP_THRESHOLD",
                               "QV_CACHE_REMOTE",
                               "QV_CACHE_REMOTE_NAMESPACE",
                               "QV_CACHE_REMOTE_USER",
                               "QV_CACHE_REMOTE_PASSWORD_FILE",
                               "QV_CACHE_REMOTE_CONNECT_TIMEOUT",
                               "QV_CACHE_REMOTE_TIMEOUT",
                               "QV_CACHE_REMOTE_STORE_TIMEOUT",
                               "QV_CACHE_REMOTE_MAX_VALUE",
                               "QV_CACHE_REMOTE_TTL",
                               "QV_CACHE_REMOTE_READ_ONLY",
                               "QV_CACHE_REMOTE_CA_FILE",
                               "QV_CACHE_REMOTE_CERT_FILE",
                               "QV_CACHE_REMOTE_KEY_FILE",
                               "QV_STATS_REPORT_FILE",
                               "QV_STATS_REPORT_PERIOD",
                               "QV_TRACE_FILE",
                               "QV_PIDFILE_ROOT",
                               "TMPDIR"}) {
    EXPECT_THAT(text, HasSubstr("| `" + std::string(variable) + "` |"));
  }
}

}  // namespace
