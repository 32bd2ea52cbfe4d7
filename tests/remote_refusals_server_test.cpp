// Servers that answer, but refuse: credentials, commands, more memory, more clients.
#include <quorvane/cache.h>
#include <quorvane/remote_store.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/redis_servers.h"
#include "support/remote_cache.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using quorvane::cache::Cache;
using test::add;
using test::add_numbered;
using test::Arguments;
using test::ends_soon;
using test::eventually;
using test::get;
using test::look_up;
using test::numbered_keys;
using test::open_remote;
using test::patient;
using test::prefetch;
using test::Ran;
using test::records_of_refusal;
using test::RedisServer;
using test::remote_key;
using test::RemoteSettings;
using test::RemoteVariables;
using test::run_remote;
using test::TempDir;
using test::without_lines;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

const std::string kPassword = "password-marker";

class RemoteRefusals : public testing::Test {
 protected:
  RemoteRefusals() {
    const auto writer = open_remote();
    add(*writer, "key", "value");
    EXPECT_TRUE(writer->flush());
  }

  std::uint64_t stored() { return server_.number({"DBSIZE"}); }

  void add_user(const std::string& name, const std::vector<std::string>& rights) {
    std::vector<std::string> words{"ACL", "SETUSER", name, "on", ">" + kPassword, "~qv1{}*"};
    words.insert(words.end(), rights.begin(), rights.end());
    ASSERT_EQ(server_.command(words), "OK");
  }

  // A file that holds a password.
  std::string file_of(const std::string& password) {
    const std::string path = dir_.file(std::to_string(++files_));
    test::write_file(path, password + "\n");
    chmod(path.c_str(), S_IRUSR | S_IWUSR);
    return path;
  }

  RedisServer server_;
  const RemoteSettings settings_{patient(server_.address())};
  const TempDir dir_;
  int files_ = 0;
};

SCENARIO(use_remote_cache) { return test::use_remote_cache(arguments); }

// The variables of a client that gives a user's name and password.
RemoteVariables login_of(const RedisServer& server, const std::string& user,
                         const std::string& password_file) {
  RemoteVariables variables = patient(server.address());
  variables["_USER"] = user;
  variables["_PASSWORD_FILE"] = password_file;
  return variables;
}

const std::vector<std::string> kWriter{"+get", "+set", "+ping", "+asking", "+cluster|slots"};
const std::vector<std::string> kReader{"+get", "+ping", "+asking", "+cluster|slots"};
const std::vector<std::string> kBlind{"+set", "+ping", "+asking", "+cluster|slots"};

// --- credentials ---

TEST_F(RemoteRefusals, AUserWithTheRightsOfTheGuideMayLookUpAndStore) {
  add_user("writer", kWriter);
  const RemoteSettings login(login_of(server_, "writer", file_of(kPassword)));
  const auto cache = open_remote();
  EXPECT_EQ(get(*cache, "key"), "value");
  EXPECT_TRUE(add(*cache, "own", "1"));
  EXPECT_TRUE(cache->flush());
  EXPECT_EQ(stored(), 2U);
}

TEST_F(RemoteRefusals, ThePasswordOfTheDefaultUserIsEnough) {
  server_.command({"CONFIG", "SET", "requirepass", kPassword});
  EXPECT_EQ(get(*open_remote(), "key"), std::nullopt);
  const RemoteSettings login{{{"_PASSWORD_FILE", file_of(kPassword)}}};
  EXPECT_EQ(get(*open_remote(), "key"), "value");
}

TEST_F(RemoteRefusals, AUserWithoutTheRightToStoreStillLooksUp) {
  add_user("reader", kReader);
  const RemoteSettings login(login_of(server_, "reader", file_of(kPassword)));
  const auto cache = open_remote();
  add_numbered(*cache, 0, 10);
  EXPECT_FALSE(cache->flush());
  EXPECT_EQ(get(*cache, "key"), "value");
  EXPECT_EQ(stored(), 1U);
}

TEST_F(RemoteRefusals, AWrongPasswordIsTriedOnce) {
  add_user("reader", kReader);
  const RemoteSettings login(login_of(server_, "reader", file_of("wrong")));
  const auto cache = open_remote();
  EXPECT_EQ(look_up(*cache, 0, 1000).missing, 1000U);
  prefetch(*cache, numbered_keys(0, 10));
  EXPECT_TRUE(add(*cache, "own", "1"));
  EXPECT_FALSE(cache->flush());
  EXPECT_EQ(get(*cache, "own"), "1");
  EXPECT_EQ(server_.calls("auth"), 1U);
  EXPECT_EQ(stored(), 1U);
}

TEST_F(RemoteRefusals, AMissingPasswordIsNoticedAtOnce) {
  server_.command({"CONFIG", "SET", "requirepass", kPassword});
  const auto before = std::stoull(server_.info("total_connections_received"));
  EXPECT_EQ(look_up(*open_remote(), 0, 1000).missing, 1000U);
  EXPECT_LE(std::stoull(server_.info("total_connections_received")), before + 3);
}

// --- no room, no writing ---

TEST_F(RemoteRefusals, AFullServerStillAnswersLookUps) {
  server_.command({"CONFIG", "SET", "maxmemory-policy", "noeviction"});
  server_.command({"CONFIG", "SET", "maxmemory", "1"});
  const auto cache = open_remote();
  add_numbered(*cache, 0, 10);
  EXPECT_FALSE(cache->flush());
  EXPECT_EQ(get(*cache, "key"), "value");
  EXPECT_EQ(stored(), 1U);
}

TEST_F(RemoteRefusals, WhatAFullServerRefusedIsStoredOnceThereIsRoom) {
  server_.command({"CONFIG", "SET", "maxmemory-policy", "noeviction"});
  server_.command({"CONFIG", "SET", "maxmemory", "1"});
  const auto cache = open_remote();
  add_numbered(*cache, 0, 10);
  EXPECT_FALSE(cache->flush());
  server_.command({"CONFIG", "SET", "maxmemory", "0"});
  EXPECT_TRUE(cache->flush());
  EXPECT_EQ(look_up(*open_remote(), 0, 10).right, 10U);
}

TEST_F(RemoteRefusals, AReplicaAnswersLookUpsAndStoresNothing) {
  server_.command({"REPLICAOF", "127.0.0.1", "1"});
  const auto cache = open_remote();
  EXPECT_TRUE(add(*cache, "own", "1"));
  EXPECT_FALSE(cache->flush());
  EXPECT_EQ(get(*cache, "key"), "value");
  server_.command({"REPLICAOF", "NO", "ONE"});
  EXPECT_TRUE(cache->flush());
  EXPECT_EQ(get(*open_remote(), "own"), "1");
}

// --- not now ---

TEST_F(RemoteRefusals, AReplicaThatHasLostItsMasterDoesntMakeKeysAbsent) {
  const auto cache = open_remote();
  EXPECT_EQ(get(*cache, "to connect"), std::nullopt);
  server_.command({"CONFIG", "SET", "replica-serve-stale-data", "no"});
  server_.command({"REPLICAOF", "127.0.0.1", "1"});
  EXPECT_EQ(get(*cache, "key"), std::nullopt);
  server_.command({"REPLICAOF", "NO", "ONE"});
  EXPECT_EQ(get(*cache, "key"), "value");
}

// Reads its data slowly enough that the test sees it loading.
class RemoteLoading : public testing::Test {
 protected:
  static constexpr std::size_t kEntries = 1000;

  RemoteLoading() {
    const auto writer = open_remote();
    for (std::size_t i = 0; i < kEntries; ++i) {
      add(*writer, test::numbered("key", i), std::string(2048, 'x'));
    }
    EXPECT_TRUE(writer->flush());
    EXPECT_EQ(server_.command({"SAVE"}), "OK");
  }

  void restart_loading() {
    server_.kill();
    server_.start_loading(
        {"--key-load-delay", "20000", "--loading-process-events-interval-bytes", "1024"});
  }

  void end_loading() {
    server_.command({"CONFIG", "SET", "key-load-delay", "0"});
    ASSERT_TRUE(eventually([this] { return server_.command({"PING"}) == "PONG"; }));
  }

  RedisServer server_{RedisServer::Port::none, {"--rdbcompression", "no"}};
  const RemoteSettings settings_{patient(server_.address())};
};

TEST_F(RemoteLoading, AKeyThatAServerMissedWhileLoadingIsFoundLater) {
  const auto known = open_remote();
  EXPECT_EQ(get(*known, "to connect"), std::nullopt);
  restart_loading();
  const auto unknown = open_remote();
  EXPECT_TRUE(ends_soon([&] {
    EXPECT_EQ(get(*known, "key1"), std::nullopt);
    EXPECT_EQ(get(*unknown, "key1"), std::nullopt);
    EXPECT_EQ(server_.command({"PING"}).substr(0, 7), "LOADING");
  }));
  end_loading();
  EXPECT_EQ(get(*known, "key1"), std::string(2048, 'x'));
  EXPECT_EQ(get(*unknown, "key1"), std::string(2048, 'x'));
}

TEST_F(RemoteLoading, AdditionsWaitUntilTheServerHasLoaded) {
  restart_loading();
  const auto cache = open_remote();
  EXPECT_TRUE(add(*cache, "own", "1"));
  EXPECT_FALSE(cache->flush());
  EXPECT_EQ(server_.command({"PING"}).substr(0, 7), "LOADING");
  end_loading();
  EXPECT_TRUE(eventually([&] { return cache->flush(); }));
  EXPECT_EQ(get(*open_remote(), "own"), "1");
}

TEST_F(RemoteRefusals, AServerWithTooManyClientsCostsMissesOnly) {
  server_.command({"CONFIG", "SET", "maxclients", "1"});  // the test's own
  const auto cache = open_remote();
  EXPECT_TRUE(add(*cache, "own", "1"));
  EXPECT_TRUE(ends_soon([&] {
    EXPECT_EQ(look_up(*cache, 0, 1000).missing, 1000U);
    EXPECT_EQ(get(*cache, "key"), std::nullopt);
    EXPECT_FALSE(cache->flush());
  }));
  EXPECT_NE(server_.info("rejected_connections"), "0");
  server_.command({"CONFIG", "SET", "maxclients", "100"});
  EXPECT_TRUE(eventually([&] { return get(*cache, "key") == "value"; }));
  EXPECT_TRUE(cache->flush());
}

// --- records ---

TEST_F(RemoteRefusals, OneRecordTellsOfAWrongPassword) {
  add_user("reader", kReader);
  const Ran ran = run_remote(login_of(server_, "reader", file_of("wrong")),
                             {"add=own", "lookups=1000", "flush"}, "WARN");
  EXPECT_EQ(ran.out, "1000 missing\nflush 0\n");
  EXPECT_EQ(without_lines(ran.messages()),
            records_of_refusal(
                {"ERROR Cache server " + server_.address() +
                 " isn't asked for a while: it refuses the credentials, it answered WRONGPASS"},
                1, 1, "no server can be reached"));
}

TEST_F(RemoteRefusals, ARecordTellsWhyAdditionsAreNotStored) {
  add_user("reader", kReader);
  const Ran ran = run_remote(login_of(server_, "reader", file_of(kPassword)),
                             {"add=own", "add=another", "get=key", "flush"}, "WARN");
  EXPECT_EQ(ran.out, "value\nflush 0\n");
  EXPECT_EQ(without_lines(ran.messages()), records_of_refusal({}, 2, 2, "it answered NOPERM"));
}

TEST_F(RemoteRefusals, OneRecordAMinuteTellsThatLookUpsAreRefused) {
  add_user("blind", kBlind);
  const Ran ran = run_remote(login_of(server_, "blind", file_of(kPassword)),
                             {"add=own", "lookups=1000", "flush"}, "WARN");
  EXPECT_EQ(ran.out, "1000 missing\nflush 1\n");
  EXPECT_THAT(
      ran.messages(),
      ElementsAre("INFO Statistics capture disabled.",
                  "WARN A cache server refuses look-ups in maps cache: it answered NOPERM"));
}

TEST_F(RemoteRefusals, NoRecordHoldsAKeyAValueOrAPassword) {
  add_user("writer", kWriter);
  add_user("reader", kReader);
  add_user("blind", kBlind);
  const Arguments words{"add=key-marker", "get=key-marker", "get=another-key-marker", "lookups=10",
                        "flush"};  // the value is "value of key-marker"
  std::string log;
  const auto log_of = [&](const RemoteVariables& variables) {
    const Ran ran = run_remote(variables, words, "ALL");
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_NE(ran.log, "");
    log += ran.log;
  };
  for (const char* user : {"writer", "reader", "blind", "nobody"}) {
    log_of(login_of(server_, user, file_of(kPassword)));
  }
  log_of(login_of(server_, "writer", file_of("wrong-" + kPassword)));
  server_.command({"RPUSH", remote_key("another-key-marker"), "x"});
  log_of(login_of(server_, "writer", file_of(kPassword)));
  server_.command({"CONFIG", "SET", "maxmemory", "1"});
  log_of(login_of(server_, "writer", file_of(kPassword)));
  server_.kill();
  log_of(login_of(server_, "writer", file_of(kPassword)));
  EXPECT_THAT(log, Not(HasSubstr("marker")));
  EXPECT_THAT(log, Not(HasSubstr("6d61726b6572")));  // the same in hexadecimal
}

}  // namespace
