// The fingerprint example on servers: each root is a machine of its own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "support/lines.h"
#include "support/redis_servers.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

using test::Ran;
using test::RedisServer;
using testing::HasSubstr;

namespace {

class FingerprintOnServers : public testing::Test {
 protected:
  FingerprintOnServers() {
    for (const char* directory : {"tree", "one", "another"}) {
      std::filesystem::create_directory(dir_.file(directory));
    }
    test::write_file(dir_.file("tree/abc"), "abc");
    test::write_file(dir_.file("tree/lines"), "one\ntwo\n");
  }

  // On the machine with this root.
  Ran run(const std::string& kind, const std::string& machine) const {
    return test::run_program(QV_BINARY_DIR "/bin/fingerprint",
                             {"--kind", kind, "--root", dir_.file(machine), dir_.file("tree")},
                             {{"QV_CACHE_REMOTE", servers_}});
  }

  // The number in a row of the table; -1 if it has no such row.
  static long row(const Ran& ran, const std::string& name) {
    for (const std::string& line : test::lines_of(ran.out)) {
      if (line.rfind(name + " ", 0) == 0) {
        return std::stol(line.substr(line.rfind(' ')));
      }
    }
    return -1;
  }

  test::TempDir dir_;
  RedisServer server_;
  std::string servers_ = server_.address();
};

class FingerprintKind : public FingerprintOnServers,
                        public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Kinds, FingerprintKind, testing::Values("remote", "tiered"),
                         [](const auto& kind) { return std::string(kind.param); });

TEST_P(FingerprintKind, ReadsNoFileOnASecondMachine) {
  const Ran first = run(GetParam(), "one");
  EXPECT_TRUE(first.exited_with(0)) << first.err;
  EXPECT_EQ(row(first, "bytes read"), 11);
  const Ran second = run(GetParam(), "another");
  EXPECT_TRUE(second.exited_with(0)) << second.err;
  EXPECT_EQ(row(second, "hits"), 2);
  EXPECT_EQ(row(second, "bytes read"), 0);
}

TEST_P(FingerprintKind, DoesTheWorkWhileNoServerAnswersAndSaysWhatIsNotStored) {
  server_.kill();
  const Ran ran = run(GetParam(), "one");
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_EQ(row(ran, "bytes read"), 11);
  EXPECT_THAT(ran.err, HasSubstr("not all new digests could be stored"));
}

TEST_P(FingerprintKind, DoesTheWorkWithAWrongSetting) {
  servers_ = "localhost:6379";  // not numeric
  const Ran ran = run(GetParam(), "one");
  EXPECT_EQ(row(ran, "bytes read"), 11);
  EXPECT_THAT(ran.err, HasSubstr("the store's directory or servers can't be used"));
}

TEST_F(FingerprintOnServers, ATieredStoreKeepsOnASecondMachineWhatTheServersGave) {
  run("tiered", "one");
  run("tiered", "another");
  server_.kill();
  for (const char* machine : {"one", "another"}) {
    const Ran ran = run("tiered", machine);
    EXPECT_TRUE(ran.exited_with(0)) << ran.err;
    EXPECT_EQ(row(ran, "hits"), 2) << machine;
  }
}

TEST_F(FingerprintOnServers, ARemoteStoreNeedsNoRootAndLeavesNoFiles) {
  const Ran ran =
      test::run_program(QV_BINARY_DIR "/bin/fingerprint", {"--kind", "remote", dir_.file("tree")},
                        {{"QV_CACHE_REMOTE", servers_}, {"QV_CACHE_STORE_ROOT", std::nullopt}});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(row(ran, "misses"), 2);
  EXPECT_EQ(row(ran, "store bytes"), 0);
}

}  // namespace
