#include "src/password_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/module.h>
#include <sys/stat.h>

#include <iostream>
#include <optional>
#include <string>

#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using namespace std::string_literals;
using quorvane::remote::read_password;
using test::Ran;
using testing::ElementsAre;
using testing::IsEmpty;

class PasswordFile : public testing::Test {
 protected:
  void write(const std::string& bytes, mode_t mode = 0600) {
    test::write_file(path_, bytes);
    ASSERT_EQ(chmod(path_.c_str(), mode), 0);
  }

  std::optional<std::string> read() { return read_password(path_, error_); }

  void expect_refused(const std::string& why) {
    EXPECT_EQ(read(), std::nullopt);
    EXPECT_EQ(error_, "the password file " + path_ + ": " + why);
  }

  test::TempDir dir_;
  const std::string path_ = dir_.file("password");
  std::string error_;
};

TEST_F(PasswordFile, HoldsThePasswordInItsFirstLine) {
  for (const std::string& end : {""s, "\n"s, "\n\n"s, "\nother\n"s}) {
    write(" s\xff\0\r "s + end);
    EXPECT_EQ(read(), " s\xff\0\r "s);
    EXPECT_EQ(error_, "");
  }
}

TEST_F(PasswordFile, TakesAPasswordOf4096Bytes) {
  const std::string longest(4096, 'p');
  write(longest);
  EXPECT_EQ(read(), longest);
  write(longest + "\n" + longest);
  EXPECT_EQ(read(), longest);
  write(longest + "p");
  expect_refused("its first line is longer than 4096 bytes");
}

TEST_F(PasswordFile, IsRefusedWithoutAPassword) {
  write("");
  expect_refused("its first line is empty");
  write("\nsecret\n");
  expect_refused("its first line is empty");
}

TEST_F(PasswordFile, IsRefusedWhenItIsMissing) { expect_refused("No such file or directory"); }

TEST_F(PasswordFile, IsRefusedWhenItIsADirectory) {
  ASSERT_EQ(mkdir(path_.c_str(), 0700), 0);
  expect_refused("not a regular file");
}

// Nobody ever writes to it.
TEST_F(PasswordFile, IsRefusedWithoutAWaitWhenItIsAFifo) {
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  expect_refused("not a regular file");
}

SCENARIO(reads_a_password_twice) {
  std::string error;
  for (int i = 0; i < 2; ++i) {
    std::cout << read_password(arguments.at(0), error).value_or(error);
  }
  return 0;
}

TEST_F(PasswordFile, GivesOneRecordWhenOtherUsersCanReadIt) {
  write("secret\n", 0604);
  const Ran ran = test::run_scenario("reads_a_password_twice", {}, {path_});
  EXPECT_EQ(ran.out, "secretsecret");
  EXPECT_THAT(ran.messages(), ElementsAre("WARN Other users can read the password file " + path_));
}

SCENARIO(reads_a_password_without_the_stores_records) {
  static_cast<qv_module_t*>(qv_module_find("cache/remote"))->level = QV_LOG_LEVEL_OFF;
  return scenario_reads_a_password_twice(arguments);
}

TEST_F(PasswordFile, LogsThroughTheModuleOfTheStore) {
  write("secret\n", 0604);
  const Ran ran = test::run_scenario("reads_a_password_without_the_stores_records", {}, {path_});
  EXPECT_EQ(ran.out, "secretsecret");
  EXPECT_THAT(ran.messages(), IsEmpty());
}

TEST_F(PasswordFile, GivesNoRecordWhenOnlyItsGroupCanReadIt) {
  write("secret\n", 0640);
  const Ran ran = test::run_scenario("reads_a_password_twice", {}, {path_});
  EXPECT_EQ(ran.out, "secretsecret");
  EXPECT_THAT(ran.messages(), IsEmpty());
}

}  // namespace
