// Caches on a real cluster: nodes that die, slots that move, replicas that take over.
#include <quorvane/cache.h>
#include <quorvane/remote_store.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/redis_servers.h"
#include "support/remote_cache.h"

namespace {

using quorvane::cache::Cache;
using test::add;
using test::add_numbered;
using test::ends_soon;
using test::eventually;
using test::get;
using test::hasty;
using test::look_up;
using test::LookedUp;
using test::numbered_keys;
using test::open_remote;
using test::patient;
using test::prefetch;
using test::RedisCluster;
using test::RemoteSettings;

constexpr std::size_t kEntries = 3000;

// Stores the entries.
void fill(std::size_t entries = kEntries) {
  const auto writer = open_remote();
  add_numbered(*writer, 0, entries);
  ASSERT_TRUE(writer->flush());
}

// Connects to all nodes.
std::unique_ptr<Cache> connected() {
  auto cache = open_remote();
  std::vector<std::string> absent;
  for (std::size_t i = 0; i < 100; ++i) {
    absent.push_back(test::numbered("absent", i));
  }
  prefetch(*cache, absent);
  return cache;
}

// --- three nodes ---

TEST(RemoteCluster, SpreadsTheEntriesOverItsNodes) {
  RedisCluster cluster(3);
  const RemoteSettings settings(patient(cluster.addresses()));
  fill();
  EXPECT_EQ(cluster.entries(), kEntries);
  EXPECT_EQ(look_up(*open_remote(), 0, kEntries).right, kEntries);
  for (std::size_t i = 0; i < cluster.size(); ++i) {
    EXPECT_GT(cluster.node(i).number({"DBSIZE"}), kEntries / 10);
  }
}

TEST(RemoteCluster, SpreadsKeysWithTheSameWordInBraces) {
  RedisCluster cluster(3);
  const RemoteSettings settings(patient(cluster.addresses()));
  const auto writer = open_remote();
  for (std::size_t i = 0; i < 100; ++i) {
    add(*writer, test::numbered("{user}", i), "value");
  }
  EXPECT_TRUE(writer->flush());
  const auto cache = open_remote();
  for (std::size_t i = 0; i < 100; ++i) {
    EXPECT_EQ(get(*cache, test::numbered("{user}", i)), "value");
  }
  for (std::size_t i = 0; i < cluster.size(); ++i) {
    EXPECT_GT(cluster.node(i).number({"DBSIZE"}), 0U);
  }
}

TEST(RemoteCluster, AsksEachNodeOnceForAPrefetch) {
  RedisCluster cluster(3);
  // One of them knows the others.
  const RemoteSettings settings(patient(cluster.node(1).address()));
  fill();
  const auto cache = connected();
  for (std::size_t i = 0; i < cluster.size(); ++i) {
    cluster.node(i).command({"CONFIG", "RESETSTAT"});
  }
  prefetch(*cache, numbered_keys(0, kEntries));
  std::uint64_t gets = 0;
  for (std::size_t i = 0; i < cluster.size(); ++i) {
    gets += cluster.node(i).calls("get");
    // Of 16 KiB at most.
    EXPECT_LT(std::stoi(cluster.node(i).info("total_reads_processed")), 100);
  }
  EXPECT_EQ(gets, kEntries);
  EXPECT_EQ(look_up(*cache, 0, kEntries).right, kEntries);
}

TEST(RemoteCluster, WithANodeDownServesWhatTheOthersHave) {
  RedisCluster cluster(3, 0, {"--cluster-require-full-coverage", "no"});
  const RemoteSettings settings(patient(cluster.addresses()));
  fill();
  const std::uint64_t lost = cluster.node(1).number({"DBSIZE"});
  const auto known = connected();
  cluster.node(1).kill();
  add_numbered(*known, kEntries, kEntries + 100);
  const auto unknown = open_remote();
  EXPECT_TRUE(ends_soon([&] {
    EXPECT_FALSE(known->flush());
    for (Cache* cache : {known.get(), unknown.get()}) {
      const LookedUp sum = look_up(*cache, 0, kEntries);
      EXPECT_EQ(sum.right, kEntries - lost);
      EXPECT_EQ(sum.missing, lost);
    }
  }));
  EXPECT_GT(cluster.node(0).number({"DBSIZE"}) + cluster.node(2).number({"DBSIZE"}),
            kEntries - lost);
}

TEST(RemoteCluster, WithANodeThatHasStoppedServesWhatTheOthersHave) {
  RedisCluster cluster(3, 0, {"--cluster-require-full-coverage", "no"});
  {
    const RemoteSettings settings(patient(cluster.addresses()));
    fill();
  }
  const RemoteSettings settings(hasty(cluster.addresses()));
  const std::size_t lost = cluster.node(1).number({"DBSIZE"});
  const auto known = connected();
  const auto unknown = open_remote();
  cluster.node(1).stop();
  for (Cache* cache : {known.get(), unknown.get()}) {
    EXPECT_TRUE(ends_soon([&] { prefetch(*cache, numbered_keys(0, kEntries)); }));
    EXPECT_TRUE(eventually([&] { return look_up(*cache, 0, kEntries).missing == lost; }));
  }
  cluster.node(1).resume();
  for (Cache* cache : {known.get(), unknown.get()}) {
    EXPECT_TRUE(eventually([&] { return look_up(*cache, 0, kEntries).right == kEntries; }));
  }
}

TEST(RemoteCluster, ThatNeedsAllNodesIsAwayWithOneDownAndComesBack) {
  RedisCluster cluster(3, 0, {"--appendonly", "yes", "--appendfsync", "no"});
  const RemoteSettings settings(patient(cluster.addresses()));
  fill();
  const auto known = connected();
  const auto unknown = open_remote();
  cluster.node(1).kill();
  ASSERT_TRUE(eventually([&] { return cluster.is_down(0) && cluster.is_down(2); }));
  EXPECT_TRUE(ends_soon([&] {
    EXPECT_EQ(look_up(*known, 0, kEntries).missing, kEntries);
    EXPECT_EQ(look_up(*unknown, 0, kEntries).missing, kEntries);
  }));
  cluster.node(1).start();
  for (std::size_t i = 0; i < cluster.size(); ++i) {
    ASSERT_TRUE(eventually([&] { return cluster.is_whole(i); }));
  }
  for (Cache* cache : {known.get(), unknown.get()}) {
    EXPECT_TRUE(eventually([&] { return look_up(*cache, 0, kEntries).right == kEntries; }));
  }
}

// --- slots that move ---

// Looks all entries up, each time with a cache of its own that learns nothing from the last.
LookedUp look_up_until(const std::atomic<bool>& is_over, std::size_t entries) {
  LookedUp sum;
  do {
    const auto cache = open_remote();
    const LookedUp looked_up = look_up(*cache, 0, entries);
    sum.right += looked_up.right;
    sum.missing += looked_up.missing;
    sum.wrong += looked_up.wrong;
  } while (!is_over);
  return sum;
}

// Adds and flushes, with a cache that keeps its connections and its map. Returns how many.
std::size_t add_until(Cache& cache, const std::atomic<bool>& is_over, bool& all_stored) {
  constexpr std::size_t kMost = 20000;
  constexpr std::size_t kAtOnce = 100;
  std::size_t added = 0;
  do {
    add_numbered(cache, kEntries + added, kEntries + added + kAtOnce);
    added += kAtOnce;
    all_stored = cache.flush() && all_stored;
  } while (!is_over && added < kMost);
  return added;
}

TEST(RemoteCluster, IsServedWithoutAMissWhileSlotsMove) {
  constexpr unsigned kMoved = 500;
  RedisCluster cluster(3);
  const RemoteSettings settings(patient(cluster.addresses()));
  fill();
  const auto writer = connected();
  const auto early = connected();
  std::atomic<bool> is_over = false;
  LookedUp looked_up;
  std::size_t added = 0;
  bool all_stored = true;
  std::thread looker([&] { looked_up = look_up_until(is_over, kEntries); });
  std::thread adder([&] { added = add_until(*writer, is_over, all_stored); });
  for (unsigned slot = 0; slot < kMoved; ++slot) {
    cluster.move_slot(slot, 0, 2);
  }
  is_over = true;
  looker.join();
  adder.join();
  EXPECT_EQ(looked_up.missing, 0U);
  EXPECT_EQ(looked_up.wrong, 0U);
  EXPECT_GE(looked_up.right, kEntries);
  EXPECT_TRUE(all_stored);
  // `early` has a map from before.
  EXPECT_EQ(look_up(*early, 0, kEntries + added).right, kEntries + added);
  EXPECT_EQ(cluster.entries(), kEntries + added);
}

// One slot is between two nodes: some of its keys here, the others there.
TEST(RemoteCluster, IsServedWhileASlotIsOnTheMove) {
  RedisCluster cluster(2);
  const RemoteSettings settings(patient(cluster.addresses()));
  fill();
  const auto known = connected();
  const std::string slot =
      cluster.node(0).command({"CLUSTER", "KEYSLOT", cluster.node(0).command({"RANDOMKEY"})});
  const std::string key = cluster.node(0).command({"CLUSTER", "GETKEYSINSLOT", slot, "1"});
  cluster.node(1).command({"CLUSTER", "SETSLOT", slot, "IMPORTING", cluster.id(0)});
  cluster.node(0).command({"CLUSTER", "SETSLOT", slot, "MIGRATING", cluster.id(1)});
  ASSERT_EQ(cluster.node(0).command({"MIGRATE", "127.0.0.1", std::to_string(cluster.node(1).port()),
                                     key, "0", "10000"}),
            "OK");
  EXPECT_EQ(look_up(*known, 0, kEntries).right, kEntries);
  EXPECT_EQ(look_up(*open_remote(), 0, kEntries).right, kEntries);
  const auto prefetched = open_remote();
  prefetch(*prefetched, numbered_keys(0, kEntries));
  EXPECT_EQ(look_up(*prefetched, 0, kEntries).right, kEntries);
  // Additions, too: a new key of this slot belongs to the second node.
  add_numbered(*known, kEntries, 20 * kEntries);
  EXPECT_TRUE(known->flush());
  EXPECT_EQ(cluster.entries(), 20 * kEntries);
}

// --- replicas ---

TEST(RemoteCluster, FindsEverythingOnceAReplicaHasTakenOver) {
  RedisCluster cluster(3, 1);
  const RemoteSettings settings(patient(cluster.addresses()));
  fill();
  for (std::size_t i = 0; i < 3; ++i) {
    ASSERT_TRUE(eventually([&] {
      return cluster.node(i).command({"DBSIZE"}) == cluster.node(i + 3).command({"DBSIZE"});
    }));
  }
  const auto known = connected();
  cluster.node(0).kill();
  EXPECT_TRUE(ends_soon([&] { look_up(*known, 0, kEntries); }));
  ASSERT_TRUE(eventually([&] { return cluster.node(3).info("role") == "master"; }));
  for (std::size_t i = 1; i < 4; ++i) {
    ASSERT_TRUE(eventually([&] { return cluster.is_whole(i); }));
  }
  EXPECT_TRUE(eventually([&] { return look_up(*known, 0, kEntries).right == kEntries; }));
  add_numbered(*known, kEntries, kEntries + 100);
  EXPECT_TRUE(eventually([&] { return known->flush(); }));
  EXPECT_EQ(look_up(*open_remote(), 0, kEntries + 100).right, kEntries + 100);
}

}  // namespace
