// The remote store and several servers: slots, redirects, servers that go and come.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "support/scripted_node.h"

using quorvane::remote::RemoteStore;
using test::Answer;
using test::answering;
using test::entry_map;
using test::found;
using test::numbered_keys;
using test::prefetch;
using test::ScriptedNode;
using test::settings_of;
using test::slot_of;
using test::slots_reply;
using test::Words;

namespace {

constexpr unsigned kLastSlot = 16383;

std::string redirect(const std::string& kind, const std::string& key, const ScriptedNode& to) {
  return "-" + kind + " " + std::to_string(slot_of(key)) + " " + to.address() + "\r\n";
}

// Three servers with a third of the slots each.
class RemoteCluster : public testing::Test {
 protected:
  RemoteCluster() {
    for (ScriptedNode& node : nodes_) {
      ports_.push_back(node.server().port());
    }
    for (ScriptedNode& node : nodes_) {
      node.answer_instead(answering("CLUSTER", map_of({0, 1, 2})));
    }
  }

  // Gives each third of the slots to one of the servers.
  std::string map_of(const std::vector<std::size_t>& owners) const {
    return slots_reply({{0, 5460, ports_[owners[0]]},
                        {5461, 10922, ports_[owners[1]]},
                        {10923, kLastSlot, ports_[owners[2]]}});
  }

  ScriptedNode& node(std::size_t number) {
    return *std::next(nodes_.begin(), static_cast<std::ptrdiff_t>(number));
  }
  ScriptedNode& owner_of(const std::string& key) {
    return node(slot_of(key) <= 5460 ? 0 : slot_of(key) <= 10922 ? 1 : 2);
  }
  // A key of that server.
  std::string key_of(std::size_t number) {
    for (const std::string& key : numbered_keys(1000)) {
      if (&owner_of(key) == &node(number)) {
        return key;
      }
    }
    return "";
  }

  std::size_t entries_on_servers() const {
    std::size_t count = 0;
    for (const ScriptedNode& node : nodes_) {
      count += node.entries().size();
    }
    return count;
  }

  std::unique_ptr<RemoteStore> store(std::vector<std::string> servers = {}) {
    if (servers.empty()) {
      servers.push_back(node(0).address());
    }
    return std::make_unique<RemoteStore>(test::kCacheName, settings_of(servers));
  }

  // Answers GET with `answer`, and the rest as before.
  void answer_get(std::size_t number, const Answer& answer) {
    const std::string map = map_of({0, 1, 2});
    node(number).answer_instead([=](const Words& command) -> std::optional<Answer> {
      if (command[0] == "CLUSTER") {
        return map;
      }
      return command[0] == "GET" ? std::optional<Answer>(answer) : std::nullopt;
    });
  }

  std::list<ScriptedNode> nodes_{3};
  std::vector<std::uint16_t> ports_;
};

}  // namespace

TEST_F(RemoteCluster, AsksTheServerOfTheKey) {
  const auto remote = store();
  for (const std::string& key : numbered_keys(50)) {
    owner_of(key).put(key, {key});
    EXPECT_EQ(found(*remote, key), "[" + key + "]");
  }
  EXPECT_EQ(node(0).count_of("CLUSTER"), 1u);
  EXPECT_EQ(node(1).count_of("CLUSTER") + node(2).count_of("CLUSTER"), 0u);
}

TEST_F(RemoteCluster, StoresOnAllServers) {
  std::vector<test::Entry> entries;
  for (const std::string& key : numbered_keys(4000)) {
    entries.push_back({key, {"value of " + key}});
  }
  EXPECT_TRUE(store()->try_store_diff(entry_map(entries)));
  for (const std::string& key : numbered_keys(4000)) {
    EXPECT_TRUE(owner_of(key).has(key)) << key;
  }
}

TEST_F(RemoteCluster, PrefetchesFromAllServers) {
  const std::vector<std::string> keys = numbered_keys(4000);
  for (const std::string& key : keys) {
    owner_of(key).put(key, {key});
  }
  const auto remote = store();
  prefetch(*remote, keys);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_GT(node(i).count_of("GET"), 1000u);
  }
  for (ScriptedNode& node : nodes_) {
    node.server().stop();
  }
  for (const std::string& key : keys) {
    EXPECT_EQ(found(*remote, key), "[" + key + "]");
  }
}

TEST_F(RemoteCluster, AsksTheNextServerOfTheSettingForTheMap) {
  node(1).server().stop();
  node(2).put(key_of(2), {"1"});
  const auto remote = store({node(1).address(), node(2).address()});
  EXPECT_EQ(found(*remote, key_of(2)), "[1]");
  EXPECT_EQ(node(2).count_of("CLUSTER"), 1u);
}

TEST_F(RemoteCluster, AsksOneThatMayNotSeeTheSlots) {
  node(0).answer_instead(answering("CLUSTER", "-NOPERM no\r\n"));
  node(0).put("a", {"1"});
  EXPECT_EQ(found(*store(), "a"), "[1]");
}

// A server's reply with the most ranges that there can be. Each has replicas with long names.
TEST_F(RemoteCluster, ReadsAMapInWhichEachSlotIsARangeOfItsOwn) {
  const auto number = [](auto value) { return ":" + std::to_string(value) + "\r\n"; };
  const std::string names = "*2\r\n" + test::bulk("hostname") + test::bulk(std::string(250, 'h'));
  std::string map = "*16384\r\n";
  for (unsigned slot = 0; slot <= kLastSlot; ++slot) {
    map += "*5\r\n" + number(slot) + number(slot);
    for (unsigned server = 0; server < 3; ++server) {
      map += "*4\r\n" + test::bulk("127.0.0.1") + number(ports_[(slot + server) % 3]) +
             test::bulk(std::string(40, 'a')) + names;
    }
  }
  node(0).answer_instead(answering("CLUSTER", map));
  const auto remote = store();
  for (const std::string& key : numbered_keys(50)) {
    node(slot_of(key) % 3).put(key, {key});
    EXPECT_EQ(found(*remote, key), "[" + key + "]");
  }
  EXPECT_EQ(node(0).count_of("CLUSTER"), 1u);
}

TEST_F(RemoteCluster, TakesAMapBeyondAllBoundsForAFailure) {
  node(0).answer_instead(answering("CLUSTER", "*1000000000\r\n"));
  const auto remote = store();
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(found(*remote, "a"), "none");
  }
  EXPECT_EQ(node(0).count_of("CLUSTER"), 3u);
}

// --- redirects ---

TEST_F(RemoteCluster, FollowsAMoveAndRemembersIt) {
  ScriptedNode other;
  const std::string key = key_of(0);
  other.put(key, {"1"});
  answer_get(0, redirect("MOVED", key, other));
  const auto remote = store();
  EXPECT_EQ(found(*remote, key), "[1]");
  EXPECT_TRUE(remote->try_store_diff(entry_map({{key, {"2"}}})));
  EXPECT_EQ(node(0).count_of("GET"), 1u);
  EXPECT_EQ(node(0).count_of("SET"), 0u);
  EXPECT_EQ(other.count_of("SET"), 1u);
}

TEST_F(RemoteCluster, AsksOnceMoreWithoutRememberingIt) {
  ScriptedNode other;
  const std::string key = key_of(0);
  other.put(key, {"1"});
  answer_get(0, redirect("ASK", key, other));
  const auto remote = store();
  EXPECT_EQ(found(*remote, key), "[1]");
  EXPECT_EQ(other.count_of("ASKING"), 1u);
  EXPECT_TRUE(remote->try_store_diff(entry_map({{key, {"2"}}})));
  EXPECT_EQ(node(0).count_of("SET"), 1u);
}

TEST_F(RemoteCluster, FollowsRedirectsInAPipeline) {
  const std::vector<std::string> keys = numbered_keys(300);
  std::map<std::string, ScriptedNode*> owners;
  for (const std::string& key : keys) {
    owners[test::on_servers(key)] = &owner_of(key);
    owner_of(key).put(key, {key});
  }
  const std::string wrong_map = map_of({1, 2, 0});
  for (ScriptedNode& each : nodes_) {
    each.answer_instead([&, wrong_map](const Words& command) -> std::optional<Answer> {
      if (command[0] == "CLUSTER") {
        return wrong_map;
      }
      const auto owner = command[0] == "GET" ? owners.find(command[1]) : owners.end();
      if (owner == owners.end() || owner->second == &each) {
        return std::nullopt;
      }
      return "-MOVED " + std::to_string(quorvane::remote::slot_of(command[1])) + " " +
             owner->second->address() + "\r\n";
    });
  }
  const auto remote = store();
  prefetch(*remote, keys);
  EXPECT_EQ(remote->entries(), keys.size());
}

TEST_F(RemoteCluster, FollowsThreeRedirectsAndNoMore) {
  ScriptedNode other;
  const std::string key = key_of(0);
  answer_get(0, redirect("MOVED", key, other));
  other.answer_instead(answering("GET", redirect("MOVED", key, node(0))));
  const auto remote = store();
  EXPECT_EQ(found(*remote, key), "none");
  EXPECT_EQ(node(0).count_of("GET") + other.count_of("GET"), 4u);
  EXPECT_EQ(node(0).count_of("CLUSTER"), 1u);
  other.put(key, {"1"});
  other.answer_instead(nullptr);
  EXPECT_EQ(found(*remote, key), "[1]");  // it wasn't taken for absent
  std::size_t maps = other.count_of("CLUSTER");
  for (ScriptedNode& each : nodes_) {
    maps += each.count_of("CLUSTER");
  }
  EXPECT_EQ(maps, 2u);
}

TEST_F(RemoteCluster, CountsARedirectAsNoFailure) {
  answer_get(0, redirect("ASK", key_of(0), node(0)));
  const auto remote = store();
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(found(*remote, key_of(0)), "none");
  }
  node(0).answer_instead(answering("CLUSTER", map_of({0, 1, 2})));
  node(0).put(key_of(0), {"1"});
  EXPECT_EQ(found(*remote, key_of(0)), "[1]");
}

TEST_F(RemoteCluster, TakesARedirectThatItCantReadForAnError) {
  for (const char* text : {"-MOVED\r\n", "-MOVED 1 x\r\n", "-ASK 99999 127.0.0.1:1\r\n"}) {
    const auto remote = store();
    answer_get(0, text);
    EXPECT_EQ(found(*remote, key_of(0)), "none") << text;
  }
}

// --- servers that go and come ---

TEST_F(RemoteCluster, MissesOnlyTheKeysOfAServerThatIsAway) {
  for (std::size_t i = 0; i < 3; ++i) {
    node(i).put(key_of(i), {"1"});
  }
  const auto remote = store();
  found(*remote, "any");
  node(1).server().stop();
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(found(*remote, key_of(1)), "none");
  }
  EXPECT_EQ(found(*remote, key_of(0)), "[1]");
  EXPECT_EQ(found(*remote, key_of(2)), "[1]");
}

TEST_F(RemoteCluster, LearnsThatAnotherServerHasTakenOver) {
  const std::string key = key_of(1);
  ScriptedNode replica;
  replica.put(key, {"1"});
  const auto remote = store();
  found(*remote, "any");
  node(1).server().stop();
  ports_[1] = replica.server().port();
  for (ScriptedNode& each : nodes_) {
    each.answer_instead(answering("CLUSTER", map_of({0, 1, 2})));
  }
  EXPECT_EQ(found(*remote, key), "none");
  EXPECT_EQ(found(*remote, key), "[1]");
}

TEST_F(RemoteCluster, StoresTheRestWhenAServerIsAway) {
  std::vector<test::Entry> entries;
  std::size_t lost = 0;
  for (const std::string& key : numbered_keys(300)) {
    entries.push_back({key, {"1"}});
    lost += &owner_of(key) == &node(2) ? 1 : 0;
  }
  node(2).server().stop();
  const auto remote = store();
  EXPECT_FALSE(remote->try_store_diff(entry_map(entries)));
  EXPECT_EQ(entries_on_servers(), entries.size() - lost);
  node(2).server().start();
  EXPECT_TRUE(remote->try_store_diff(entry_map(entries)));
  EXPECT_EQ(remote->entries(), entries.size());
}

TEST_F(RemoteCluster, StopsStoringOnlyWhereNothingIsTaken) {
  const std::string map = map_of({0, 1, 2});
  node(1).answer_instead([map](const Words& command) -> std::optional<Answer> {
    if (command[0] == "SET") {
      return "-OOM no room\r\n";
    }
    return command[0] == "CLUSTER" ? std::optional<Answer>(map) : std::nullopt;
  });
  std::vector<test::Entry> entries;
  std::size_t lost = 0;
  for (const std::string& key : numbered_keys(9000)) {
    entries.push_back({key, {"1"}});
    lost += &owner_of(key) == &node(1) ? 1 : 0;
  }
  const auto remote = store();
  EXPECT_FALSE(remote->try_store_diff(entry_map(entries)));
  EXPECT_EQ(entries_on_servers(), entries.size() - lost);
  EXPECT_LT(node(1).count_of("SET"), lost / 2);
}

TEST_F(RemoteCluster, AsksAServerThatHasNotFailedForTheMap) {
  answer_get(1, Answer("x").cut_after(0));
  const auto remote = store();
  EXPECT_EQ(found(*remote, key_of(1)), "none");
  EXPECT_EQ(found(*remote, key_of(0)), "none");
  EXPECT_EQ(node(0).count_of("CLUSTER"), 2u);
  EXPECT_EQ(node(1).count_of("CLUSTER"), 0u);
}

TEST_F(RemoteCluster, FindsNothingInSlotsThatNobodyHas) {
  node(0).answer_instead(answering("CLUSTER", slots_reply({{0, 5460, ports_[0]}})));
  const auto remote = store();
  EXPECT_EQ(found(*remote, key_of(1)), "none");
  EXPECT_FALSE(remote->try_store_diff(entry_map({{key_of(1), {"1"}}})));
}

// Even a cluster whose only known server has none yet.
TEST_F(RemoteCluster, AsksForTheMapAgainWhenSlotsHaveNobody) {
  for (const std::string& map : {std::string("*0\r\n"), slots_reply({{0, 5460, ports_[0]}})}) {
    node(0).answer_instead(answering("CLUSTER", map));
    const auto remote = store();
    EXPECT_EQ(found(*remote, key_of(1)), "none");
    node(0).answer_instead(answering("CLUSTER", map_of({0, 1, 2})));
    node(1).put(key_of(1), {"1"});
    EXPECT_EQ(found(*remote, key_of(1)), "[1]");
  }
}

TEST_F(RemoteCluster, PrefetchesFromTheOthersWhenOneIsGone) {
  const auto remote = store();
  found(*remote, key_of(0));
  node(1).server().stop();
  const std::vector<std::string> keys = numbered_keys(8000);  // more than are sent at a time
  prefetch(*remote, keys);
  std::size_t of_first = 0;
  for (const std::string& key : keys) {
    of_first += &owner_of(key) == &node(0) ? 1 : 0;
  }
  EXPECT_EQ(node(0).count_of("GET"), of_first);
}

TEST_F(RemoteCluster, TakesAMapThatItCantReadForAFailure) {
  node(0).answer_instead(answering("CLUSTER", ":1\r\n"));
  const auto remote = store();
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(found(*remote, "a"), "none");
  }
  EXPECT_EQ(node(0).count_of("CLUSTER"), 3u);
}
