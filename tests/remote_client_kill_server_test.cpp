// Clients that are killed while they store: what servers and files then have.
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <quorvane/remote_store.h>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "support/indexed_cache.h"
#include "support/processes.h"
#include "support/redis_servers.h"
#include "support/remote_cache.h"
#include "support/temp_dir.h"

namespace {

using quorvane::cache::Cache;
using test::add_numbered;
using test::eventually;
using test::in_child;
using test::kKilledBy;
using test::look_up;
using test::LookedUp;
using test::numbered_keys;
using test::open_remote;
using test::patient;
using test::prefetch;
using test::RedisServer;
using test::RemoteSettings;
using test::wait_for;

// At some moment while its chunks go out; most are in the middle of one.
TEST(RemoteClientKill, LeavesWholeEntriesAndAnotherProcessStoresTheRest) {
  constexpr std::size_t kAdded = 20000;
  RedisServer server;
  const RemoteSettings settings(patient(server.address()));
  int cut_off = 0;
  for (std::uint64_t round = 0; round < 5; ++round) {
    server.command({"FLUSHALL"});
    const pid_t child = in_child([] {
      const auto cache = open_remote();
      add_numbered(*cache, 0, kAdded);
      return cache->flush() ? 0 : 1;
    });
    EXPECT_TRUE(eventually([&] { return server.number({"DBSIZE"}) >= 300 + 777 * round; }));
    kill(child, SIGKILL);
    EXPECT_EQ(wait_for(child), kKilledBy + SIGKILL);
    const auto reader = open_remote();
    prefetch(*reader, numbered_keys(0, kAdded));
    const LookedUp left = look_up(*reader, 0, kAdded);
    EXPECT_EQ(left.wrong, 0U);
    EXPECT_GT(left.right, 0U);
    cut_off += left.missing != 0 ? 1 : 0;
    const auto next = open_remote();
    add_numbered(*next, 0, kAdded);
    EXPECT_TRUE(next->flush());
    EXPECT_EQ(server.number({"DBSIZE"}), kAdded);
  }
  EXPECT_NE(cut_off, 0);  // or the kills came too late
}

std::unique_ptr<Cache> open_tiered(const std::string& root) {
  return std::make_unique<Cache>(
      "maps",
      quorvane::cache::make_remote_store("maps",
                                         quorvane::cache::make_store(test::indexed_options(root))),
      false);
}

TEST(RemoteClientKill, LosesNothingThatIsInTheFilesWhenItsServerIsSilent) {
  constexpr std::size_t kAdded = 100;
  const test::TempDir root;
  RedisServer server;
  const RemoteSettings settings(patient(server.address()));
  server.stop();
  const pid_t child = in_child([&] {
    const auto cache = open_tiered(root.path());
    add_numbered(*cache, 0, kAdded);
    return cache->flush() ? 0 : 1;
  });
  // The server takes nothing, so the files must have come first.
  EXPECT_TRUE(eventually([&] {
    const auto local = test::open_cache(root.path());
    return look_up(*local, 0, kAdded).right == kAdded;
  }));
  EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0);
  kill(child, SIGKILL);
  EXPECT_EQ(wait_for(child), kKilledBy + SIGKILL);
  server.resume();
  EXPECT_EQ(server.number({"DBSIZE"}), 0U);
  const auto next = open_tiered(root.path());
  EXPECT_EQ(look_up(*next, 0, kAdded).right, kAdded);
}

}  // namespace
