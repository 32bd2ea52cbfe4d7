// The PID set example, run as a user runs it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace {

const std::string PROGRAM = QV_BINARY_DIR "/bin/pidset";

TEST(PidSetExample, SeesWorkersComeAndGo) {
  const test::TempDir dir;
  const std::string path = dir.file("pids");
  const std::string most = std::to_string((getpagesize() - 8) / 4);
  for (int run = 0; run < 2; ++run) {  // on a new file, then on the same file
    const auto ran = test::run_program(PROGRAM, {path, "2"});
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_EQ(ran.err, "");
    const std::regex expected("2 of at most " + most +
                              " ids\n(\\d+) is there\n(\\d+) is there\n"
                              "0 of at most " +
                              most + " ids\n(\\d+) is gone\n(\\d+) is gone\n");
    std::smatch ids;
    ASSERT_TRUE(std::regex_match(ran.out, ids, expected)) << ran.out;
    EXPECT_NE(ids[1], ids[2]);
    EXPECT_EQ(ids[1], ids[3]);
    EXPECT_EQ(ids[2], ids[4]);
    EXPECT_EQ(test::read_file(path).substr(0, 8), test::le64(0));
  }
}

TEST(PidSetExample, SaysWhatIsWrongWithTheFile) {
  const test::TempDir dir;
  const std::string path = dir.file("pids");
  test::write_file(path, "no page");
  const auto ran = test::run_program(PROGRAM, {path});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_EQ(ran.err, "pidset: " + path + " can't be opened as a set\n");
  const auto missing = test::run_program(PROGRAM, {dir.file("none/pids")});
  EXPECT_TRUE(missing.exited_with(1));
  EXPECT_EQ(missing.err, "pidset: " + dir.file("none/pids") + ": No such file or directory\n");
}

TEST(PidSetExample, SaysHowItIsUsed) {
  const auto ran = test::run_program(PROGRAM, {});
  EXPECT_TRUE(ran.exited_with(2));
  EXPECT_EQ(ran.err, "usage: pidset FILE [WORKERS]\n");
}

}  // namespace
