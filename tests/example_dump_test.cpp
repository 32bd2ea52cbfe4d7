// The dump example, run as a user runs it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using test::Arguments;
using test::Ran;
using testing::ElementsAre;

const std::string PROGRAM = QV_BINARY_DIR "/bin/dump";

class DumpExample : public testing::Test {
 protected:
  DumpExample() {
    std::filesystem::create_directory(blocks_);
    test::write_file(input_, std::string(4096, 'a') + std::string(4096, 'b') + "rest");
  }

  std::string record(const std::string& number, const std::string& size) const {
    return "INFO Dumping " + input_ + " #" + number + " of size " + size + " to " + blocks_ +
           "/block_" + number + ".bin";
  }

  void expect_dumped(const Ran& ran) const {
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_EQ(ran.out, "3 blocks of " + input_ + "\n");
    EXPECT_EQ(ran.err, "");
    EXPECT_THAT(ran.messages(),
                ElementsAre(record("0000", "4096"), record("0001", "4096"), record("0002", "4")));
    EXPECT_EQ(test::read_file(blocks_ + "/block_0000.bin"), std::string(4096, 'a'));
    EXPECT_EQ(test::read_file(blocks_ + "/block_0001.bin"), std::string(4096, 'b'));
    EXPECT_EQ(test::read_file(blocks_ + "/block_0002.bin"), "rest");
  }

  test::TempDir dir_;
  std::string input_ = dir_.file("input");
  std::string blocks_ = dir_.file("blocks");
};

TEST_F(DumpExample, WritesEachBlockToAFileOfItsOwn) {
  expect_dumped(test::run_program(PROGRAM, {input_, blocks_}));
}

TEST_F(DumpExample, TakesTheDirectoryFromTheEnvironment) {
  expect_dumped(test::run_program(PROGRAM, {input_}, {{"TMPDIR", blocks_}}));
}

TEST_F(DumpExample, NamesAFileThatItCannotRead) {
  const Ran missing = test::run_program(PROGRAM, {dir_.file("missing"), blocks_});
  EXPECT_TRUE(missing.exited_with(1));
  EXPECT_EQ(missing.err, "dump: " + dir_.file("missing") + ": No such file or directory\n");
  const Ran directory = test::run_program(PROGRAM, {dir_.path(), blocks_});
  EXPECT_TRUE(directory.exited_with(1));
  EXPECT_EQ(directory.err, "dump: " + dir_.path() + ": Is a directory\n");
  EXPECT_EQ(missing.out + directory.out, "");
}

TEST_F(DumpExample, SaysHowItIsUsed) {
  for (const Arguments& arguments : {Arguments{}, Arguments{"a", "b", "c"}}) {
    const Ran ran = test::run_program(PROGRAM, arguments);
    EXPECT_TRUE(ran.exited_with(2));
    EXPECT_EQ(ran.err, "usage: dump FILE [DIRECTORY]\n");
  }
}

}  // namespace
