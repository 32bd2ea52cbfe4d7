// Programs that start without some of their standard descriptors, as daemons may.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/mmapped_file.h>
#include <quorvane/module.h>
#include <quorvane/pidset.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using test::Ran;
using testing::ElementsAre;

// Executes the scenario that the second argument names, with the descriptors in the first one
// closed.
SCENARIO(starts_without) {
  for (const char digit : arguments.at(0)) {
    close(digit - '0');
  }
  execl("/proc/self/exe", "standard_descriptors_test", "--scenario", arguments.at(1).c_str(),
        arguments.at(2).c_str(), arguments.at(3).c_str(), arguments.at(4).c_str(), nullptr);
  return 1;
}

bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

// Opens files that the library keeps open, prints and logs, all with the descriptors in the
// first argument closed. A file that took one of their numbers would get the program's output.
SCENARIO(prints_and_logs) {
  quorvane::util::MMappedFile file;
  file.open(arguments.at(1), O_RDWR, 0, PROT_READ | PROT_WRITE, MAP_SHARED);
  qv_pidset_t* const set = qv_pidset_open(arguments.at(2).c_str());
  if (!file.is_open() || set == nullptr || qv_pidset_add(set, 7) != 0) {
    return 2;
  }
  std::printf("printed");
  std::fflush(stdout);
  std::fprintf(stderr, "complained");
  const quorvane::Module module("test/descriptors");
  QV_LOG(module, INFO, "a record");
  QV_LOG(module, ERROR, "an error");
  for (const char digit : arguments.at(0)) {
    if (is_open(digit - '0')) {
      return 3;
    }
  }
  qv_pidset_close(set);
  return 0;
}

class ClosedDescriptors : public testing::TestWithParam<std::string> {};

TEST_P(ClosedDescriptors, AreTakenByNoFileOfTheLibrary) {
  const test::TempDir dir;
  const std::string content(100, 'c');
  test::write_file(dir.file("mapped"), content);
  test::write_file(dir.file("set"), "");
  const std::string& closed = GetParam();
  const Ran ran =
      test::run_scenario("starts_without", {},
                         {closed, "prints_and_logs", closed, dir.file("mapped"), dir.file("set")});
  EXPECT_TRUE(ran.exited_with(0)) << ran.status;
  EXPECT_THAT(ran.messages(),
              ElementsAre("DEBUG Opened and mmapped " + dir.file("mapped") + " file",
                          "INFO a record", "ERROR an error"));
  EXPECT_EQ(test::read_file(dir.file("mapped")), content);
  const std::string page = test::read_file(dir.file("set"));
  EXPECT_EQ(page.find_first_not_of('\0', 12), std::string::npos);
  EXPECT_EQ(page.substr(0, 12), std::string("\1\0\0\0\0\0\0\0\7\0\0\0", 12));
}

INSTANTIATE_TEST_SUITE_P(Sets, ClosedDescriptors,
                         testing::Values("0", "1", "2", "01", "12", "012"));

}  // namespace
