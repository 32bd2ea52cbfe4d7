// Servers that stop, die and come back while caches use them.
#include <quorvane/cache.h>
#include <quorvane/remote_store.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/descriptors.h"
#include "support/lines.h"
#include "support/redis_servers.h"
#include "support/remote_cache.h"
#include "support/scenario.h"
#include "support/thread_state.h"

namespace {

using quorvane::cache::Cache;
using test::add;
using test::add_numbered;
using test::ends_soon;
using test::eventually;
using test::get;
using test::hasty;
using test::lines_of;
using test::look_up;
using test::LookedUp;
using test::numbered_keys;
using test::open_remote;
using test::patient;
using test::prefetch;
using test::Ran;
using test::RedisServer;
using test::RemoteSettings;
using test::run_scenario;
using testing::ElementsAre;

// A server that keeps what it has taken, also when it is killed: it writes each command
// into a file before it answers.
class RemoteOutage : public testing::TestWithParam<RedisServer::Port> {
 protected:
  RemoteOutage() {
    const auto writer = open_remote();
    add_numbered(*writer, 0, kEntries);
    EXPECT_TRUE(writer->flush());
  }

  static constexpr std::size_t kEntries = 100;

  // Connects.
  std::unique_ptr<Cache> connected() {
    auto cache = open_remote();
    EXPECT_EQ(get(*cache, "to connect"), std::nullopt);
    return cache;
  }

  RedisServer server_{GetParam(), {"--appendonly", "yes", "--appendfsync", "no"}};
  const RemoteSettings settings_{patient(server_.address())};
};

INSTANTIATE_TEST_SUITE_P(, RemoteOutage,
                         testing::Values(RedisServer::Port::none, RedisServer::Port::plain),
                         [](const auto& tested) {
                           return tested.param == RedisServer::Port::none ? "OnASocket" : "OnAPort";
                         });

// --- look-ups ---

TEST_P(RemoteOutage, ARestartBetweenTwoLookUpsIsNotNoticed) {
  const auto cache = connected();
  server_.kill();
  server_.start();
  EXPECT_EQ(look_up(*cache, 0, kEntries).right, kEntries);
}

TEST_P(RemoteOutage, ManyLookUpsEndSoonWhenTheServerIsGone) {
  const auto cache = connected();
  server_.kill();
  EXPECT_TRUE(ends_soon([&] { EXPECT_EQ(look_up(*cache, 0, 10000).missing, 10000U); }));
}

TEST_P(RemoteOutage, ManyLookUpsEndSoonWhenTheServerHasStopped) {
  const RemoteSettings limits(hasty(server_.address()));
  const auto cache = connected();
  server_.stop();
  EXPECT_TRUE(ends_soon([&] { EXPECT_EQ(look_up(*cache, 0, 300).missing, 300U); }));
}

TEST_P(RemoteOutage, APrefetchAndAFlushEndSoonWhenTheServerHasStopped) {
  const RemoteSettings limits(hasty(server_.address()));
  const auto cache = connected();
  add_numbered(*cache, kEntries, kEntries + 5000);
  server_.stop();
  EXPECT_TRUE(ends_soon([&] {
    prefetch(*cache, numbered_keys(0, kEntries));
    EXPECT_FALSE(cache->flush());
  }));
}

TEST_P(RemoteOutage, ACacheEndsSoonWhenTheServerHasStopped) {
  const RemoteSettings limits(hasty(server_.address()));
  auto cache = connected();
  add_numbered(*cache, kEntries, kEntries + 5000);
  server_.stop();
  EXPECT_TRUE(ends_soon([&] { cache.reset(); }));
}

TEST_P(RemoteOutage, WhatWasMissedWhileTheServerHadStoppedIsFoundAfterwards) {
  const RemoteSettings limits(hasty(server_.address()));
  const auto cache = connected();
  server_.stop();
  EXPECT_EQ(look_up(*cache, 0, kEntries).missing, kEntries);
  server_.resume();
  EXPECT_TRUE(eventually([&] { return look_up(*cache, 0, kEntries).right == kEntries; }));
}

TEST_P(RemoteOutage, WhatWasMissedWhileTheServerWasGoneIsFoundAfterwards) {
  const auto cache = connected();
  server_.kill();
  prefetch(*cache, numbered_keys(0, kEntries));
  EXPECT_EQ(look_up(*cache, 0, kEntries).missing, kEntries);
  server_.start();
  EXPECT_TRUE(eventually([&] { return look_up(*cache, 0, 1).right == 1; }));
  EXPECT_EQ(look_up(*cache, 0, kEntries).right, kEntries);
}

// The answer to a look-up that was given up comes while the next one waits for its own.
TEST_P(RemoteOutage, ALateAnswerIsNotTakenForThatOfAnotherKey) {
  const RemoteSettings limit{{{"_TIMEOUT", "20"}}};
  LookedUp sum;
  EXPECT_TRUE(eventually([&] {
    const auto cache = connected();
    server_.stop();
    EXPECT_EQ(look_up(*cache, 0, 2).missing, 2U);  // the breaker stays closed
    server_.resume();
    const LookedUp looked_up = look_up(*cache, 2, kEntries);
    sum.wrong += looked_up.wrong;
    sum.right += looked_up.right;
    return sum.right > 10 * kEntries;
  }));
  EXPECT_EQ(sum.wrong, 0U);
}

// --- additions ---

TEST_P(RemoteOutage, WhatAFlushDidntStoreIsStoredByALaterOne) {
  const auto cache = connected();
  add_numbered(*cache, kEntries, kEntries + 10);
  server_.kill();
  EXPECT_FALSE(cache->flush());
  server_.start();
  EXPECT_TRUE(eventually([&] { return cache->flush(); }));
  EXPECT_EQ(look_up(*open_remote(), 0, kEntries + 10).right, kEntries + 10);
}

TEST_P(RemoteOutage, AKillWithAChunkUnderWayFailsTheFlushAtOnce) {
  const auto cache = connected();
  add_numbered(*cache, kEntries, kEntries + 5000);
  server_.stop();
  bool stored = true;
  test::Watched flush([&] { stored = cache->flush(); });
  flush.settle();
  server_.kill();
  EXPECT_TRUE(ends_soon([&] { flush.join(); }));
  EXPECT_FALSE(stored);
  server_.start();
  EXPECT_TRUE(eventually([&] { return cache->flush(); }));
  EXPECT_EQ(look_up(*open_remote(), 0, kEntries + 5000).right, kEntries + 5000);
}

// Kills the server once it has that many entries.
void kill_at(std::uint64_t entries, RedisServer& server, const std::atomic<bool>& is_over) {
  while (!is_over && server.number({"DBSIZE"}) < entries) {
  }
  ::kill(server.pid(), SIGKILL);
}

// At some moment while a flush goes on; most are in the middle of a chunk.
TEST_P(RemoteOutage, AKillDuringAFlushLosesNothingThatALaterFlushDoesntStore) {
  constexpr std::size_t kAdded = 10000;
  int failed = 0;
  for (std::size_t round = 0; round < 3; ++round) {
    server_.command({"FLUSHALL"});
    const auto cache = connected();
    add_numbered(*cache, 0, kAdded);
    std::atomic<bool> is_over = false;
    std::thread killer([&] { kill_at(500 + 777 * round, server_, is_over); });
    const bool stored = cache->flush();
    is_over = true;
    killer.join();
    failed += stored ? 0 : 1;
    server_.kill();
    server_.start();
    EXPECT_TRUE(eventually([&] { return cache->flush(); }));
    const auto reader = open_remote();
    prefetch(*reader, numbered_keys(0, kAdded));
    EXPECT_EQ(look_up(*reader, 0, kAdded).right, kAdded);
  }
  EXPECT_NE(failed, 0);  // or the kills came too late
}

// --- records ---

// Looks up without a server until none is asked any more, and then until it is back. Prints the
// server and how many look-ups were skipped.
SCENARIO(outlive_a_restart) {
  RedisServer server(RedisServer::Port::plain);
  const RemoteSettings settings(patient(server.address()));
  const auto cache = open_remote();
  get(*cache, "to connect");
  server.kill();
  look_up(*cache, 0, 1000);
  server.start();
  std::size_t lookups = 1000;
  const bool is_back = eventually([&] {
    get(*cache, test::numbered("key", lookups++));
    return server.calls("get") != 0;
  });
  const std::size_t asked = 3 + 1;  // in vain, and with success
  std::printf("%s\n%zu\n%d", server.address().c_str(), lookups - asked, is_back);
  return 0;
}

TEST(RemoteRecords, TellOfTheConnectionAndOfTheEndsOfAnOutage) {
  const Ran ran = run_scenario("outlive_a_restart", {{"QV_LOG_LEVEL", "INFO"}});
  const std::vector<std::string> printed = lines_of(ran.out);
  ASSERT_EQ(printed.size(), 3U);
  EXPECT_EQ(printed[2], "1");
  EXPECT_THAT(ran.messages(),
              ElementsAre("INFO Statistics capture disabled.",
                          "INFO Created maps cache with RemoteStore store type",
                          "INFO Connected to cache servers, nodes = 1, namespace = \"\"",
                          "WARN Cache server " + printed[0] +
                              " isn't asked for a while: Connection refused",
                          "INFO Cache server " + printed[0] + " answers again, " + printed[1] +
                              " look-ups were skipped"));
}

// --- the process ---

// Each connection breaks with the first failure, and can't be made again with the next two.
TEST(RemoteDescriptors, AreNotLeftOfTenThousandFailures) {
  RedisServer server;
  const RemoteSettings settings(patient(server.address()));
  const int before = test::open_descriptors();
  for (int round = 0; round < 10; ++round) {
    std::vector<std::unique_ptr<Cache>> caches;
    for (int i = 0; i < 340; ++i) {
      caches.push_back(open_remote());
      EXPECT_EQ(get(*caches.back(), "to connect"), std::nullopt);
    }
    server.kill();
    for (const auto& cache : caches) {
      EXPECT_EQ(look_up(*cache, 0, 3).missing, 3U);
    }
    EXPECT_LE(test::open_descriptors(), before);  // not even while the caches live
    // To start the server forks, which locks all mutexes of all caches. ThreadSanitizer lets a
    // thread have 64.
    caches.clear();
    server.start();
  }
  EXPECT_EQ(test::open_descriptors(), before);
}

TEST_P(RemoteOutage, NeitherSignalsNorDescriptorsAreLeft) {
  struct sigaction before {};
  sigaction(SIGPIPE, nullptr, &before);
  EXPECT_EQ(before.sa_handler, SIG_DFL);
  const int open_before = test::open_descriptors();
  for (int round = 0; round < 5; ++round) {
    const auto cache = connected();
    add_numbered(*cache, kEntries, kEntries + 3000);
    server_.kill();
    EXPECT_EQ(get(*cache, "key1"), std::nullopt);
    EXPECT_FALSE(cache->flush());
    server_.start();
  }
  struct sigaction after {};
  sigaction(SIGPIPE, nullptr, &after);
  EXPECT_EQ(after.sa_handler, SIG_DFL);
  EXPECT_EQ(test::open_descriptors(), open_before);
}

}  // namespace
