// scripts/demo-remote, on a small tree and with the example of this build.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using test::Ran;
using testing::ContainsRegex;
using testing::IsEmpty;

class DemoRemote : public testing::Test {
 protected:
  DemoRemote() {
    std::filesystem::create_directory(tree_);
    for (int i = 0; i < 100; ++i) {
      test::write_file(tree_ + "/" + std::to_string(i), std::to_string(i));
    }
  }

  Ran run(const std::string& program = QV_BINARY_DIR "/bin/fingerprint") const {
    return test::run_program(QV_SOURCE_DIR "/scripts/demo-remote", {tree_},
                             {{"TMPDIR", dir_.path()}, {"QV_DEMO_PROGRAM", program}});
  }

  // The processes that work in the directory of the demo, as its servers do.
  std::vector<std::string> left_over() const {
    std::vector<std::string> found;
    for (const auto& process : std::filesystem::directory_iterator("/proc")) {
      std::error_code none;  // no process, or one that has ended
      const std::string at = std::filesystem::read_symlink(process.path() / "cwd", none);
      if (at.rfind(dir_.path(), 0) == 0) {
        found.push_back(process.path().filename());
      }
    }
    return found;
  }

  test::TempDir dir_;
  std::string tree_ = dir_.file("tree");
};

// The script itself compares the numbers of files that the runs digested.
TEST_F(DemoRemote, SharesTheDigestsLosesAServerAndLeavesNoProcess) {
  const Ran ran = run();
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_THAT(ran.out, ContainsRegex("first-machine .* 0 known, +100 digested"));
  EXPECT_THAT(ran.out, ContainsRegex("third-machine .* 100 known, +0 digested"));
  EXPECT_THAT(ran.out, ContainsRegex("third-machine .* [1-9][0-9]? known, +[1-9][0-9]? digested"));
  EXPECT_THAT(left_over(), IsEmpty());
}

// The first step that uses the servers signals the script.
TEST_F(DemoRemote, LeavesNoProcessWhenASignalEndsIt) {
  for (const int signal : {SIGHUP, SIGINT, SIGKILL}) {
    const std::string program = dir_.file("program");
    test::write_file(program, "#!/bin/sh\nkill -" + std::to_string(signal) + " $PPID\n");
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    const Ran ran = run(program);
    EXPECT_TRUE(signal == SIGKILL ? ran.killed_by(signal) : ran.exited_with(128 + signal));
    EXPECT_THAT(ran.out, testing::HasSubstr("QV_CACHE_REMOTE=127.0.0.1:"));
    // The kernel ends them soon after the script.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!left_over().empty() && std::chrono::steady_clock::now() < end) {
      std::this_thread::yield();
    }
    EXPECT_THAT(left_over(), IsEmpty());
  }
}

TEST_F(DemoRemote, LeavesNoProcessWhenAStepFails) {
  const Ran ran = run("/nonexistent");
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(ran.err, testing::EndsWith("demo-remote: fingerprint ended with status 127\n"));
  EXPECT_THAT(left_over(), IsEmpty());
}

TEST_F(DemoRemote, ExplainsItself) {
  const Ran help = test::run_program(QV_SOURCE_DIR "/scripts/demo-remote", {"--help"});
  EXPECT_TRUE(help.exited_with(0));
  EXPECT_THAT(help.out, testing::StartsWith("Usage: scripts/demo-remote"));
  const Ran wrong = test::run_program(QV_SOURCE_DIR "/scripts/demo-remote", {"/nowhere"});
  EXPECT_TRUE(wrong.exited_with(2));
  EXPECT_EQ(wrong.err, "demo-remote: /nowhere is not a directory\n");
}

}  // namespace
