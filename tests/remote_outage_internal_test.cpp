// The remote store and servers that fail.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/remote_store.h>

#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/descriptors.h"
#include "support/scenario.h"
#include "support/scripted_node.h"
#include "support/temp_dir.h"

using quorvane::cache::LookupStore;
using quorvane::remote::Exchange;
using quorvane::remote::RemoteStore;
using quorvane::remote::Settings;
using test::Answer;
using test::answering;
using test::entry_map;
using test::found;
using test::Ran;
using test::ScriptedNode;
using test::settings_of;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Clock = std::chrono::steady_clock;

namespace {

// Whatever the limit is, a machine under load ends before this.
constexpr std::chrono::seconds kSurelyEnded{15};

Answer closing() { return Answer("x").cut_after(0); }

// Looks the key up until it is found; how many times it was not.
int misses_until_found(LookupStore& store, const std::string& key) {
  const auto end = Clock::now() + kSurelyEnded;
  int misses = 0;
  while (found(store, key) == "none" && Clock::now() < end) {
    ++misses;
  }
  return misses;
}

std::unique_ptr<LookupStore> store_of_environment() {
  auto store = quorvane::cache::make_remote_store(test::kCacheName);
  return std::unique_ptr<LookupStore>(dynamic_cast<LookupStore*>(store.release()));
}

Ran run(const std::string& scenario, const ScriptedNode& node, test::Environment more = {}) {
  more["QV_CACHE_REMOTE"] = node.address();
  more["QV_CACHE_REMOTE_NAMESPACE"] = test::kNamespace;
  more["QV_CACHE_REMOTE_TIMEOUT"] = "20000";
  more["QV_CACHE_REMOTE_CONNECT_TIMEOUT"] = "20000";
  Ran ran = test::run_scenario(scenario, more);
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  return ran;
}

const std::string kConnected =
    "INFO Connected to cache servers, nodes = 1, namespace = \"" + test::kNamespace + "\"";
const std::string kStatisticsOff = "INFO Statistics capture disabled.";

std::string not_asked(const ScriptedNode& node, const std::string& why) {
  return "Cache server " + node.address() + " isn't asked for a while: " + why;
}

}  // namespace

// --- the breaker ---

TEST(RemoteOutage, SkipsAServerAfterThreeFailures) {
  for (const Answer& answer :
       {closing(), Answer("-LOADING wait\r\n"), Answer("-CLUSTERDOWN no\r\n"),
        Answer("-MASTERDOWN no\r\n"), Answer("-TRYAGAIN later\r\n"), Answer("junk\r\n"),
        Answer("-ERR max number of clients reached\r\n"), Answer("$1\r\nx\r\n+surplus\r\n")}) {
    ScriptedNode node(answering("GET", answer));
    RemoteStore remote(test::kCacheName, settings_of({node.address()}));
    for (int i = 0; i < 100; ++i) {
      EXPECT_EQ(found(remote, "a"), "none");
    }
    EXPECT_EQ(node.count_of("GET"), 3u) << answer.bytes;
  }
}

// The network, or the limit, is too small for so many.
TEST(RemoteOutage, GoesOnAskingAServerThatAnswersSomeInTime) {
  ScriptedNode node([](const test::Words& command) -> std::optional<Answer> {
    const bool is_late = command[0] == "GET" && command[1].find("late") != std::string::npos;
    return is_late ? std::optional<Answer>("") : std::nullopt;
  });
  node.put("a", {"1"});
  Settings settings = settings_of({node.address()});
  settings.timeout = std::chrono::milliseconds(500);
  RemoteStore remote(test::kCacheName, settings);
  for (const std::string number : {"1", "2", "3", "4"}) {
    test::prefetch(remote, {"in time " + number, "late " + number});
  }
  EXPECT_EQ(found(remote, "a"), "[1]");
}

TEST(RemoteOutage, ConnectsThreeTimesToAServerThatTakesNoClients) {
  ScriptedNode node;
  node.server().greet_with(Answer("-ERR max number of clients reached\r\nx").cut_after(36));
  RemoteStore remote(test::kCacheName, settings_of({node.address()}));
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(found(remote, "a"), "none");
  }
  // It may accept the last one after the client has given up.
  const auto end = Clock::now() + kSurelyEnded;
  while (node.server().connections() < 3 && Clock::now() < end) {
  }
  EXPECT_EQ(node.server().connections(), 3u);
}

TEST(RemoteOutage, StoresNothingOnAServerThatIsSkipped) {
  ScriptedNode node(answering("GET", closing()));
  RemoteStore remote(test::kCacheName, settings_of({node.address()}));
  for (int i = 0; i < 3; ++i) {
    found(remote, "a");
  }
  EXPECT_FALSE(remote.try_store_diff(entry_map({{"b", {"1"}}})));
  EXPECT_EQ(node.count_of("SET"), 0u);
}

SCENARIO(outlast_an_outage) {
  const auto store = store_of_environment();
  for (int i = 0; i < 3; ++i) {
    found(*store, "a");
  }
  store->try_store_diff(entry_map({{"b", {"1"}}}));  // no look-up
  printf("%d", misses_until_found(*store, "a"));
  return 0;
}

TEST(RemoteOutage, SaysWhenAServerIsSkippedAndWhenItAnswersAgain) {
  int failures = 0;
  ScriptedNode node([&failures](const test::Words& command) -> std::optional<Answer> {
    const bool fails = command[0] == "GET" && failures++ < 3;
    return fails ? std::optional<Answer>("-LOADING wait\r\n") : std::nullopt;
  });
  node.put("a", {"1"});
  const Ran ran = run("outlast_an_outage", node);
  EXPECT_THAT(
      ran.messages(),
      ElementsAre(kStatisticsOff, kConnected, "WARN " + not_asked(node, "it answered LOADING"),
                  HasSubstr("1 of 1 additions"),
                  "INFO Cache server " + node.address() + " answers again, " + ran.out +
                      " look-ups were skipped"));
}

TEST(RemoteOutage, ConnectsAgainAfterTheServerHasRestarted) {
  ScriptedNode node;
  node.put("a", {"1"});
  node.put("b", {"2"});
  RemoteStore remote(test::kCacheName, settings_of({node.address()}));
  EXPECT_EQ(found(remote, "a"), "[1]");
  node.server().stop();
  node.server().start();
  EXPECT_EQ(found(remote, "b"), "[2]");
}

// --- time limits ---

TEST(RemoteOutage, EndsACallWithinItsLimit) {
  for (const char* command : {"PING", "CLUSTER", "GET", "SET"}) {
    for (const Answer& answer : {Answer(), Answer("+dribbled, a byte at a time, without an end")
                                               .dribbled(std::chrono::milliseconds(20))}) {
      ScriptedNode node(answering(command, answer));
      Settings settings = settings_of({node.address()});
      settings.connect_timeout = std::chrono::milliseconds(50);
      settings.timeout = settings.store_timeout = std::chrono::milliseconds(100);
      RemoteStore remote(test::kCacheName, settings);
      const auto start = Clock::now();
      found(remote, "a");
      test::prefetch(remote, {"b", "c"});
      remote.try_store_diff(entry_map({{"d", {"1"}}}));
      EXPECT_LT(Clock::now() - start, kSurelyEnded) << command;
    }
  }
}

TEST(RemoteOutage, BoundsTheTimeForConnecting) {
  ScriptedNode node(answering("PING", Answer()));
  Settings settings = settings_of({node.address()});
  settings.connect_timeout = std::chrono::milliseconds(50);
  settings.timeout = std::chrono::hours(1);
  RemoteStore remote(test::kCacheName, settings);
  EXPECT_EQ(found(remote, "a"), "none");
}

TEST(RemoteOutage, BoundsTheTimeForAllStoring) {
  ScriptedNode node(answering("SET", Answer()));
  Settings settings = settings_of({node.address()});
  settings.timeout = std::chrono::hours(1);
  settings.store_timeout = std::chrono::milliseconds(100);
  RemoteStore remote(test::kCacheName, settings);
  std::vector<test::Entry> entries;
  for (const std::string& key : test::numbered_keys(3000)) {
    entries.push_back({key, {"1"}});
  }
  EXPECT_FALSE(remote.try_store_diff(entry_map(entries)));
}

// --- nothing is left behind ---

TEST(RemoteOutage, LeaksNoDescriptorOverTenThousandFailures) {
  ScriptedNode node(answering("GET", closing()));
  ScriptedNode unfriendly(answering("PING", closing()));
  const int before = test::open_descriptors();
  for (int i = 0; i < 3400; ++i) {
    const ScriptedNode& failing = i % 4 == 0 ? node : unfriendly;
    RemoteStore remote(test::kCacheName, settings_of({failing.address()}));
    for (int look_up = 0; look_up < 3; ++look_up) {
      EXPECT_EQ(found(remote, "a"), "none");
    }
  }
  EXPECT_GE(node.count_of("GET") + unfriendly.count_of("PING"), 10000u);
  // The servers close theirs when they hear of it.
  const auto end = Clock::now() + kSurelyEnded;
  while (test::open_descriptors() > before && Clock::now() < end) {
  }
  // There may have been more while the servers began.
  EXPECT_LE(test::open_descriptors(), before);
}

TEST(RemoteOutage, LeaksNoDescriptorOverTenThousandRefusedConnections) {
  ScriptedNode node;
  node.server().stop();
  const int before = test::open_descriptors();
  for (int i = 0; i < 3400; ++i) {
    RemoteStore remote(test::kCacheName, settings_of({node.address()}));
    for (int look_up = 0; look_up < 3; ++look_up) {
      EXPECT_EQ(found(remote, "a"), "none");
    }
  }
  EXPECT_EQ(test::open_descriptors(), before);
}

// --- records ---

SCENARIO(look_up_often) {
  const auto store = store_of_environment();
  for (int i = 0; i < 10; ++i) {
    found(*store, "secret key");
  }
  return 0;
}

SCENARIO(store_three) {
  const auto store = store_of_environment();
  const std::string large(200, 'x');
  printf("%d", static_cast<int>(store->try_store_diff(
                   entry_map({{"secret key", {"1"}}, {"b", {large}}, {"c", {large}}}))));
  return 0;
}

TEST(RemoteOutage, SaysOnceThatCredentialsAreRefused) {
  const test::TempDir directory;
  const std::string file = directory.file("password");
  test::write_file(file, "hunter2\n");
  chmod(file.c_str(), 0600);
  ScriptedNode node(answering("AUTH", "-WRONGPASS invalid pair hunter2\r\n"));
  const Ran ran = run("look_up_often", node, {{"QV_CACHE_REMOTE_PASSWORD_FILE", file}});
  EXPECT_THAT(
      ran.messages(),
      ElementsAre(kStatisticsOff, "ERROR " + not_asked(node,
                                                       "it refuses the credentials, it answered "
                                                       "WRONGPASS")));
}

// A second refusal comes a minute later, when the server is tried again.
SCENARIO(be_refused_twice) {
  const Settings settings = settings_of({arguments.at(0)});
  std::mutex mutex;
  quorvane::remote::Node node(settings.servers.at(0), nullptr, mutex);
  node.refused("no");
  node.refused("no");
  node.succeeded();
  node.refused("no");
  return 0;
}

TEST(RemoteOutage, SaysAgainThatCredentialsAreRefusedOnlyAfterTheyWereAccepted) {
  const Ran ran = test::run_scenario("be_refused_twice", {}, {"/socket"});
  const std::string refused = "ERROR Cache server /socket isn't asked for a while: no";
  EXPECT_THAT(ran.messages(),
              ElementsAre(refused,
                          "INFO Cache server /socket answers again, 0 look-ups were "
                          "skipped",
                          refused));
}

TEST(RemoteOutage, KeepsNoConnectionThatWasRefused) {
  for (const char* answer : {"-NOAUTH no\r\n", "-LOADING wait\r\n"}) {
    ScriptedNode server(answering("PING", answer));
    const Settings settings = settings_of({server.address()});
    std::mutex mutex;
    const auto node =
        std::make_shared<quorvane::remote::Node>(settings.servers.at(0), nullptr, mutex);
    {
      Exchange exchange(node, true, 1000);
      Exchange::connect({&exchange}, settings,
                        quorvane::remote::Deadline(std::chrono::seconds(20)));
      EXPECT_TRUE(exchange.has_failed());
    }
    EXPECT_TRUE(node->take() == node->none()) << answer;
  }
}

TEST(RemoteOutage, SaysOnceAMinuteThatLookUpsAreRefused) {
  ScriptedNode node(answering("GET", "-NOPERM no access to secret key\r\n"));
  EXPECT_THAT(
      run("look_up_often", node).messages(),
      ElementsAre(kStatisticsOff, kConnected,
                  "WARN A cache server refuses look-ups in maps cache: it answered NOPERM"));
  EXPECT_EQ(node.count_of("GET"), 10u);
}

TEST(RemoteOutage, SaysHowManyAdditionsAreNotStored) {
  ScriptedNode node;
  const Ran ran = run("store_three", node, {{"QV_CACHE_REMOTE_MAX_VALUE", "100"}});
  EXPECT_EQ(ran.out, "0");
  EXPECT_THAT(ran.messages(),
              ElementsAre(kStatisticsOff, kConnected,
                          "WARN 2 of 3 additions to maps cache are not on the servers: the value "
                          "is larger than QV_CACHE_REMOTE_MAX_VALUE"));
}

TEST(RemoteOutage, SaysWhyTheServerTakesNoAdditions) {
  ScriptedNode node(answering("SET", "-OOM command not allowed for secret key\r\n"));
  const Ran ran = run("store_three", node);
  EXPECT_THAT(ran.messages(), ElementsAre(kStatisticsOff, kConnected,
                                          "WARN 3 of 3 additions to maps cache are not on the "
                                          "servers: it answered OOM"));
}
