// The kinds of cache for which libQVUtil.so opens libqvremote.so.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/cache_c.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "support/c_cache.h"
#include "support/library_path.h"
#include "support/redis_servers.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

using test::CCache;
using test::Environment;
using test::Ran;
using test::RedisServer;
using test::TempDir;
using testing::ElementsAre;

namespace {

// What went wrong with the cache that is opened with `arguments`: kind, root and flags.
int error_of_opening(const test::Arguments& arguments) {
  const unsigned flags = arguments.size() > 2 ? 1U : 0U;
  errno = 0;
  const CCache cache(
      qv_cache_open(arguments.at(0).c_str(), arguments.at(1).c_str(), "maps", flags));
  return cache == nullptr ? errno : 0;
}

Environment servers(const std::string& addresses) {
  return {{"QV_CACHE_REMOTE", addresses},
          {"QV_CACHE_STORE_SIZE", "0"},
          {"LD_LIBRARY_PATH", test::kLibraryPath}};
}

Ran open_with(const Environment& environment, const test::Arguments& arguments) {
  return test::run_scenario("open_and_say", environment, arguments);
}

}  // namespace

SCENARIO(open_and_say) {
  std::printf("%d", error_of_opening(arguments));
  return 0;
}

// --- errors ---

TEST(RemoteCacheError, IsEnotsupWithoutTheLibrary) {
  const TempDir libraries;
  std::filesystem::copy_file(QV_BINARY_DIR "/lib/libQVUtil.so.1", libraries.file("libQVUtil.so.1"));
  test::write_file(libraries.file("libqvremote.so.1"), "");  // hides an installed one
  Environment environment = servers("127.0.0.1:1");
  environment["LD_LIBRARY_PATH"] = libraries.path();
  for (const char* kind : {"remote", "tiered"}) {
    const TempDir root;
    const Ran ran = open_with(environment, {kind, kind[0] == 't' ? root.path() : ""});
    EXPECT_EQ(ran.out, std::to_string(ENOTSUP)) << kind;
    ASSERT_FALSE(ran.messages().empty()) << kind;
    EXPECT_EQ(ran.messages().back(), "ERROR No store on servers: " +
                                         libraries.file("libqvremote.so.1") + ": file too short")
        << kind;
  }
}

TEST(RemoteCacheError, IsEinvalWithoutServers) {
  Environment environment = servers("");
  environment["QV_CACHE_REMOTE"] = std::nullopt;
  const Ran ran = open_with(environment, {"remote", ""});
  EXPECT_EQ(ran.out, std::to_string(EINVAL));
  EXPECT_THAT(ran.messages(),
              ElementsAre("ERROR No servers for maps cache: QV_CACHE_REMOTE isn't set"));
}

TEST(RemoteCacheError, IsEinvalForAWrongSettingOrArgument) {
  const TempDir root;
  const std::string wrong = std::to_string(EINVAL);
  EXPECT_EQ(open_with(servers("a name:1"), {"remote", ""}).out, wrong);
  EXPECT_EQ(open_with(servers("a name:1"), {"tiered", root.path()}).out, wrong);
  EXPECT_EQ(open_with(servers("127.0.0.1:1"), {"remote", root.path()}).out, wrong);
  EXPECT_EQ(open_with(servers("127.0.0.1:1"), {"remote", "", "a flag"}).out, wrong);
  EXPECT_EQ(open_with(servers("127.0.0.1:1"), {"tiered", root.path(), "a flag"}).out, wrong);
}

TEST(RemoteCacheError, IsThatOfTheRootIfTheCacheIsTiered) {
  EXPECT_EQ(open_with(servers("127.0.0.1:1"), {"tiered", "/nowhere"}).out, std::to_string(ENOENT));
}

TEST(RemoteCacheError, ThereIsNoneAtTheOpeningIfNoServerAnswers) {
  const TempDir root;
  EXPECT_EQ(open_with(servers("127.0.0.1:1"), {"remote", ""}).out, "0");
  EXPECT_EQ(open_with(servers("127.0.0.1:1"), {"tiered", root.path()}).out, "0");
}

// --- with servers ---

// Adds the key to the cache of this kind.
SCENARIO(add_and_flush) {
  const CCache cache = test::open_cache(arguments.at(0), arguments.at(1));
  std::printf("%d", test::add(cache, arguments.at(2), {"value"}));
  std::printf(" %d", qv_cache_flush(cache.get()));
  return 0;
}

SCENARIO(print_values) {
  const CCache cache = test::open_cache(arguments.at(0), arguments.at(1));
  for (std::size_t i = 2; i < arguments.size(); ++i) {
    std::printf("%s ", test::get(cache, arguments[i]).value_or("none").c_str());
  }
  return 0;
}

TEST(RemoteCache, SharesEntriesWithoutFiles) {
  RedisServer server;
  EXPECT_EQ(
      test::run_scenario("add_and_flush", servers(server.address()), {"remote", "", "key"}).out,
      "1 0");
  EXPECT_EQ(
      test::run_scenario("print_values", servers(server.address()), {"remote", "", "key", "no"})
          .out,
      "value none ");
}

TEST(TieredCache, FindsOnAnotherMachineWhatOneHasStoredAndThenWithoutTheServers) {
  const TempDir one;
  const TempDir another;
  RedisServer server;
  const Environment environment = servers(server.address());
  EXPECT_EQ(test::run_scenario("add_and_flush", environment, {"tiered", one.path(), "key"}).out,
            "1 0");
  EXPECT_EQ(test::run_scenario("print_values", environment, {"tiered", another.path(), "key"}).out,
            "value ");
  server.kill();
  for (const TempDir* root : {&one, &another}) {
    EXPECT_EQ(test::run_scenario("print_values", environment, {"tiered", root->path(), "key"}).out,
              "value ");
  }
}

TEST(TieredCache, SaysEioForWhatOnlyTheServersDidNotTake) {
  const TempDir root;
  const Ran ran =
      test::run_scenario("add_and_flush", servers("127.0.0.1:1"), {"tiered", root.path(), "key"});
  EXPECT_EQ(ran.out, "1 -1");
  EXPECT_EQ(test::run_scenario("print_values", servers(""), {"indexed", root.path(), "key"}).out,
            "value ");
}
