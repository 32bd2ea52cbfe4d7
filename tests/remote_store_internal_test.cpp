// The remote store and one server.
#include "src/remote_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/scripted_node.h"
#include "support/temp_dir.h"

using quorvane::remote::RemoteStore;
using quorvane::remote::Settings;
using test::answering;
using test::entry_map;
using test::found;
using test::numbered_keys;
using test::prefetch;
using test::ScriptedNode;
using test::settings_of;
using test::Words;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class RemoteStoreTest : public testing::Test {
 protected:
  RemoteStoreTest() : settings_(settings_of({node_.address()})) {}

  std::unique_ptr<RemoteStore> store() const {
    return std::make_unique<RemoteStore>(test::kCacheName, settings_);
  }

  // The last command of this name.
  Words last(const std::string& name) const {
    Words found;
    for (const Words& command : node_.server().commands()) {
      if (command[0] == name) {
        found = command;
      }
    }
    return found;
  }

  mutable ScriptedNode node_;
  Settings settings_;
};

std::vector<test::Entry> entries_of(const std::vector<std::string>& keys) {
  std::vector<test::Entry> entries;
  for (const std::string& key : keys) {
    entries.push_back({key, {"value of " + key}});
  }
  return entries;
}

}  // namespace

// --- look-ups ---

TEST_F(RemoteStoreTest, FindsWhatTheServerHas) {
  node_.put("a", {"1", std::string("two\0\r\n", 6)});
  const auto remote = store();
  EXPECT_EQ(found(*remote, "a"), "[1][" + std::string("two\0\r\n", 6) + "]");
  EXPECT_EQ(found(*remote, "b"), "none");
}

TEST_F(RemoteStoreTest, OpensNothingBeforeTheFirstLookUp) {
  const auto remote = store();
  quorvane::cache::EntryMap map = entry_map({{"rest", {"1"}}});
  EXPECT_TRUE(remote->is_valid());
  EXPECT_TRUE(remote->try_load(map));
  EXPECT_THAT(map, IsEmpty());
  EXPECT_EQ(node_.server().connections(), 0u);
}

TEST_F(RemoteStoreTest, AsksOnceForAKey) {
  node_.put("a", {"1"});
  const auto remote = store();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(found(*remote, "a"), "[1]");
    EXPECT_EQ(found(*remote, "b"), "none");
  }
  EXPECT_EQ(node_.count_of("GET"), 2u);
  EXPECT_EQ(node_.server().connections(), 1u);
}

TEST_F(RemoteStoreTest, LooksUpAtOnceOnlyWhatItKnows) {
  node_.put("a", {"1"});
  const auto remote = store();
  std::vector<quorvane::util::RoBuffer> value;
  EXPECT_FALSE(remote->find_at_once(test::buffer("a"), value));
  EXPECT_EQ(node_.server().connections(), 0u);
  EXPECT_EQ(found(*remote, "a"), "[1]");
  EXPECT_TRUE(remote->find_at_once(test::buffer("a"), value));
}

TEST_F(RemoteStoreTest, TakesAValueThatItCantReadForAMissAndLeavesIt) {
  node_.put_raw(test::on_servers("a"), "of another program");
  std::string damaged = test::encoded("b", {"1"});
  damaged.back() ^= 1;
  node_.put_raw(test::on_servers("b"), damaged);
  const auto before = node_.entries();
  const auto remote = store();
  EXPECT_EQ(found(*remote, "a"), "none");
  EXPECT_EQ(found(*remote, "b"), "none");
  EXPECT_TRUE(remote->try_store_diff(entry_map({{"a", {"2"}}, {"b", {"2"}}})));
  EXPECT_EQ(node_.entries(), before);
}

TEST_F(RemoteStoreTest, MissesAValueBeyondTheLimit) {
  settings_.max_value = 100;
  node_.put("a", {std::string(101, 'x')});
  node_.put("b", {std::string(50, 'x')});
  const auto remote = store();
  EXPECT_EQ(found(*remote, "a"), "none");
  EXPECT_EQ(found(*remote, "b"), "[" + std::string(50, 'x') + "]");
}

TEST_F(RemoteStoreTest, DoesntRememberAnErrorAsAbsence) {
  node_.put("a", {"1"});
  for (const char* error : {"-NOPERM no\r\n", "-LOADING wait\r\n", "-WRONGTYPE x\r\n", ":1\r\n"}) {
    const auto remote = store();
    node_.answer_instead(answering("GET", error));
    EXPECT_EQ(found(*remote, "a"), "none") << error;
    node_.answer_instead(nullptr);
    EXPECT_EQ(found(*remote, "a"), "[1]") << error;
  }
}

TEST_F(RemoteStoreTest, CountsWhatItKnows) {
  node_.put("a", {"1"});
  node_.put("taken", {"theirs"});
  const auto remote = store();
  EXPECT_EQ(remote->entries(), 0u);
  found(*remote, "a");
  found(*remote, "b");
  EXPECT_EQ(remote->entries(), 1u);
  EXPECT_TRUE(remote->try_store_diff(entry_map({{"c", {"3"}}, {"taken", {"ours"}}})));
  EXPECT_EQ(remote->entries(), 3u);
  EXPECT_EQ(found(*remote, "c"), "[3]");
  EXPECT_EQ(found(*remote, "taken"), "[theirs]");
  EXPECT_EQ(remote->entries(), 3u);
  quorvane::cache::EntryMap map;
  EXPECT_TRUE(remote->try_read_all(map));
  EXPECT_EQ(test::listing(map), "a=1\nc=3\ntaken=theirs\n");
}

// --- prefetch ---

TEST_F(RemoteStoreTest, PrefetchesInOnePipeline) {
  for (const std::string& key : numbered_keys(1500)) {
    node_.put(key, {"value of " + key});
  }
  const auto remote = store();
  std::vector<std::string> keys = numbered_keys(1500);
  keys.push_back("absent");
  prefetch(*remote, keys);
  EXPECT_EQ(node_.count_of("GET"), keys.size());
  EXPECT_EQ(node_.server().connections(), 1u);
  for (const std::string& key : numbered_keys(1500)) {
    EXPECT_EQ(found(*remote, key), "[value of " + key + "]");
  }
  EXPECT_EQ(found(*remote, "absent"), "none");
  prefetch(*remote, keys);
  EXPECT_EQ(node_.count_of("GET"), keys.size());
  EXPECT_EQ(remote->entries(), 1500u);
}

// --- additions ---

TEST_F(RemoteStoreTest, StoresUnlessTheKeyIsThere) {
  node_.put("b", {"theirs"});
  const auto remote = store();
  EXPECT_TRUE(remote->try_store_diff(entry_map({{"a", {"1", "2"}}, {"b", {"ours"}}})));
  EXPECT_THAT(last("SET"),
              ElementsAre("SET", test::on_servers("b"), test::encoded("b", {"ours"}), "NX"));
  const auto other = store();
  EXPECT_EQ(found(*other, "a"), "[1][2]");
  EXPECT_EQ(found(*other, "b"), "[theirs]");
}

TEST_F(RemoteStoreTest, StoresWithATimeToLive) {
  settings_.ttl = 77;
  EXPECT_TRUE(store()->try_store_diff(entry_map({{"a", {"1"}}})));
  EXPECT_THAT(last("SET"), ElementsAre("SET", test::on_servers("a"), test::encoded("a", {"1"}),
                                       "NX", "EX", "77"));
}

TEST_F(RemoteStoreTest, FindsWhatItHasStoredAfterAMiss) {
  const auto remote = store();
  EXPECT_EQ(found(*remote, "a"), "none");
  EXPECT_TRUE(remote->try_store_diff(entry_map({{"a", {"1"}}})));
  EXPECT_EQ(found(*remote, "a"), "[1]");
}

TEST_F(RemoteStoreTest, StoresManyInChunks) {
  const std::vector<std::string> keys = numbered_keys(2500);
  EXPECT_TRUE(store()->try_store_diff(entry_map(entries_of(keys))));
  EXPECT_EQ(node_.entries().size(), keys.size());
  EXPECT_EQ(node_.server().connections(), 1u);
}

TEST_F(RemoteStoreTest, StoresNothingWhenThereIsNothing) {
  EXPECT_TRUE(store()->try_store_diff({}));
  EXPECT_EQ(node_.server().connections(), 0u);
}

TEST_F(RemoteStoreTest, KeepsLargeValuesFromTheServer) {
  settings_.max_value = 1000;
  const auto remote = store();
  EXPECT_FALSE(remote->try_store_diff(entry_map({{"a", {"1"}}, {"b", {std::string(1000, 'x')}}})));
  EXPECT_EQ(node_.count_of("SET"), 1u);
}

// Until then, the cache counts all of them as its additions.
TEST_F(RemoteStoreTest, CountsAdditionsOnlyWhenAllAreStored) {
  settings_.max_value = 1000;
  const auto remote = store();
  EXPECT_FALSE(remote->try_store_diff(entry_map({{"a", {"1"}}, {"b", {std::string(1000, 'x')}}})));
  EXPECT_EQ(remote->entries(), 0u);
  EXPECT_TRUE(remote->try_store_diff(entry_map({{"a", {"1"}}})));
  EXPECT_EQ(remote->entries(), 1u);
}

TEST_F(RemoteStoreTest, SendsAgainOnlyWhatIsLeftWhenTheServerHasTakenTheRest) {
  settings_.max_value = 1000;
  const auto remote = store();
  const auto diff = entry_map({{"a", {"1"}}, {"b", {std::string(1000, 'x')}}});
  EXPECT_FALSE(remote->try_store_diff(diff));
  EXPECT_FALSE(remote->try_store_diff(diff));
  EXPECT_EQ(node_.count_of("SET"), 1u);
}

TEST_F(RemoteStoreTest, SendsEverythingAgainAfterTheServerHasFailed) {
  const auto remote = store();
  EXPECT_TRUE(remote->try_store_diff(entry_map({{"a", {"1"}}})));
  const auto diff = entry_map({{"a", {"1"}}, {"b", {"2"}}});
  node_.answer_instead(answering("SET", test::Answer("x").cut_after(0)));
  EXPECT_FALSE(remote->try_store_diff(diff));
  node_.answer_instead(nullptr);
  node_.forget();
  EXPECT_TRUE(remote->try_store_diff(diff));
  EXPECT_TRUE(node_.has("a"));
  EXPECT_TRUE(node_.has("b"));
}

TEST_F(RemoteStoreTest, StopsStoringWhereNothingIsTaken) {
  for (const char* error : {"-OOM no room\r\n", "-NOPERM no\r\n", "-READONLY replica\r\n"}) {
    ScriptedNode node(answering("SET", error));
    node.put("a", {"1"});
    RemoteStore remote(test::kCacheName, settings_of({node.address()}));
    EXPECT_FALSE(remote.try_store_diff(entry_map(entries_of(numbered_keys(2500))))) << error;
    EXPECT_EQ(node.count_of("SET"), 1000u) << error;
    EXPECT_EQ(remote.entries(), 0u);
    EXPECT_EQ(found(remote, "a"), "[1]") << error;
  }
}

TEST_F(RemoteStoreTest, StoresNothingWhenItMayOnlyRead) {
  settings_.read_only = true;
  EXPECT_FALSE(store()->try_store_diff(entry_map({{"a", {"1"}}})));
  EXPECT_EQ(node_.server().connections(), 0u);
}

// --- credentials and settings ---

TEST_F(RemoteStoreTest, SendsThePasswordFirst) {
  const test::TempDir directory;
  settings_.password_file = directory.file("password");
  test::write_file(settings_.password_file, "secret\n");
  found(*store(), "a");
  EXPECT_THAT(node_.server().commands().at(0), ElementsAre("AUTH", "secret"));
  settings_.user = "reader";
  found(*store(), "a");
  EXPECT_THAT(last("AUTH"), ElementsAre("AUTH", "reader", "secret"));
}

TEST_F(RemoteStoreTest, SendsNothingMoreAfterARefusal) {
  const test::TempDir directory;
  settings_.password_file = directory.file("password");
  test::write_file(settings_.password_file, "secret\n");
  for (const char* error : {"-WRONGPASS no\r\n", "-ERR AUTH without a password\r\n"}) {
    ScriptedNode node(answering("AUTH", error));
    settings_.servers = settings_of({node.address()}).servers;
    const auto remote = store();
    for (int i = 0; i < 10; ++i) {
      EXPECT_EQ(found(*remote, "a"), "none");
      EXPECT_FALSE(remote->try_store_diff(entry_map({{"b", {"1"}}})));
    }
    EXPECT_EQ(node.server().commands().size(), 1u) << error;
  }
}

TEST_F(RemoteStoreTest, ConnectsToNobodyWithoutItsPassword) {
  settings_.password_file = "/nonexistent/password";
  EXPECT_EQ(found(*store(), "a"), "none");
  EXPECT_THAT(node_.server().commands(), IsEmpty());
}

TEST_F(RemoteStoreTest, IsInvalidWithoutServers) {
  for (const auto& settings : {std::optional<Settings>(), std::optional<Settings>(Settings())}) {
    RemoteStore remote(test::kCacheName, settings);
    quorvane::cache::EntryMap map;
    EXPECT_FALSE(remote.is_valid());
    EXPECT_FALSE(remote.try_load(map));
    EXPECT_EQ(found(remote, "a"), "none");
    prefetch(remote, {"a"});
    EXPECT_FALSE(remote.try_store_diff(entry_map({{"a", {"1"}}})));
  }
}

TEST_F(RemoteStoreTest, IsInvalidWithoutItsCertificates) {
  settings_.ca_file = "/nonexistent/ca.pem";
  EXPECT_FALSE(store()->is_valid());
}
