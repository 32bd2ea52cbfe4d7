// The identity example, run as a user runs it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/uuid.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/refuse.h"
#include "support/scenario.h"

namespace {

using test::Ran;
using testing::ElementsAre;

const std::string PROGRAM = QV_BINARY_DIR "/bin/identity";

struct Introduction {
  std::string who;
  std::string uuid;
};

std::vector<Introduction> introductions(const std::string& text) {
  std::vector<Introduction> all;
  std::istringstream words(text);
  for (Introduction one; words >> one.who >> one.uuid;) {
    all.push_back(one);
  }
  return all;
}

TEST(IdentityExample, ShowsThatAChildsIdentityIsItsOwnAndItsParentsStays) {
  const Ran ran = test::run_program(PROGRAM, {});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.err, "");
  const auto all = introductions(ran.out);
  ASSERT_EQ(all.size(), 4U);
  std::set<std::string> uuids;
  std::string expected;
  for (const Introduction& one : all) {
    EXPECT_EQ(quorvane::uuid_unparse(quorvane::uuid_parse(one.uuid.c_str())), one.uuid);
    uuids.insert(one.uuid);
  }
  EXPECT_EQ(uuids.size(), 3U);
  EXPECT_EQ(ran.out, "parent     " + all[0].uuid + "\nchild      " + all[1].uuid + "\ngrandchild " +
                         all[2].uuid + "\nparent     " + all[0].uuid + "\n");
}

// The refusal survives exec.
SCENARIO(without_children) {
  for (const long call : {SYS_clone, SYS_clone3}) {
    test::refuse(call, EAGAIN);
  }
  execl(PROGRAM.c_str(), "identity", nullptr);
  return 1;
}

// A leak checker forks, too.
test::Environment without_leak_checks(test::Environment environment = {}) {
  const char* const set = std::getenv("ASAN_OPTIONS");
  environment["ASAN_OPTIONS"] = (set == nullptr ? "" : std::string(set) + ":") + "detect_leaks=0";
  return environment;
}

TEST(IdentityExample, SaysThatThereCanBeNoChild) {
  const Ran ran = test::run_scenario("without_children", without_leak_checks());
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_EQ(ran.err, "identity: no child: Resource temporarily unavailable\n");
}

}  // namespace
