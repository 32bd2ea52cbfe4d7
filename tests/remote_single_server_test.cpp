// Caches that share their entries through one real server.
#include <quorvane/cache.h>
#include <quorvane/remote_store.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/lock_probe.h"
#include "support/processes.h"
#include "support/redis_servers.h"
#include "support/remote_cache.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace {

using quorvane::cache::Cache;
using test::add;
using test::add_numbered;
using test::buffer;
using test::buffers;
using test::eventually;
using test::get;
using test::in_child;
using test::look_up;
using test::numbered;
using test::numbered_keys;
using test::open_remote;
using test::patient;
using test::prefetch;
using test::RedisServer;
using test::remote_key;
using test::RemoteSettings;
using test::Signpost;
using test::TempDir;
using test::wait_for;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

constexpr unsigned kHangSeconds = 100;
constexpr std::size_t kMebibyte = std::size_t{1} << 20;

class RemoteSingle : public testing::Test {
 protected:
  std::uint64_t stored() { return server_.number({"DBSIZE"}); }
  std::uint64_t exists(const std::string& key) { return server_.number({"EXISTS", key}); }

  RedisServer server_;
  const RemoteSettings settings_{patient(server_.address())};
};

void store(const std::string& key, const std::string& value, const std::string& cache = "maps") {
  const auto writer = open_remote(cache);
  ASSERT_TRUE(add(*writer, key, value));
  ASSERT_TRUE(writer->flush());
}

// All atoms.
std::vector<std::string> atoms_of(Cache& cache, const std::string& key) {
  const auto* value = cache.get_value(buffer(key));
  std::vector<std::string> atoms;
  for (std::size_t i = 0; value != nullptr && i < value->size(); ++i) {
    atoms.push_back(test::bytes_of((*value)[i]));
  }
  return atoms;
}

// --- sharing ---

TEST_F(RemoteSingle, AnEntryThatOneProcessFlushedIsFoundByAnother) {
  EXPECT_EQ(wait_for(in_child([] {
              const auto writer = open_remote();
              return add(*writer, "key", "value") && writer->flush() ? 0 : 1;
            })),
            0);
  EXPECT_EQ(get(*open_remote(), "key"), "value");
}

TEST_F(RemoteSingle, AdditionsAreStoredWhenTheirCacheIsDestroyed) {
  const auto reader = open_remote();
  auto writer = open_remote();
  EXPECT_TRUE(writer->add_value(buffer("key"), buffers({"a", "bc", "d"})));
  EXPECT_EQ(stored(), 0U);
  writer.reset();
  EXPECT_THAT(atoms_of(*reader, "key"), ElementsAre("a", "bc", "d"));
}

TEST_F(RemoteSingle, TheFirstOfTwoValuesStays) {
  const auto late = open_remote();
  EXPECT_TRUE(add(*late, "key", "second"));
  store("key", "first");
  EXPECT_TRUE(late->flush());
  EXPECT_EQ(get(*late, "key"), "second");
  EXPECT_EQ(get(*open_remote(), "key"), "first");
}

TEST_F(RemoteSingle, AFlushWithoutNewAdditionsSendsNothing) {
  const auto cache = open_remote();
  add_numbered(*cache, 0, 10);
  EXPECT_TRUE(cache->flush());
  EXPECT_TRUE(cache->flush());
  EXPECT_EQ(server_.calls("set"), 10U);
}

TEST_F(RemoteSingle, AMissIsAskedForOnce) {
  const auto cache = open_remote();
  EXPECT_EQ(get(*cache, "key"), std::nullopt);
  store("key", "value");
  EXPECT_EQ(get(*cache, "key"), std::nullopt);
  EXPECT_EQ(server_.calls("get"), 1U);
}

TEST_F(RemoteSingle, AnEntryIsAskedForOnceAndStaysAsItWasFound) {
  store("key", "value");
  const auto cache = open_remote();
  const auto* found = cache->get_value(buffer("key"));
  server_.command({"FLUSHALL"});
  EXPECT_EQ(cache->get_value(buffer("key")), found);
  EXPECT_EQ(get(*cache, "key"), "value");
  EXPECT_EQ(server_.calls("get"), 1U);
}

TEST_F(RemoteSingle, AnAdditionMakesNoRoundTrip) {
  const auto cache = open_remote();
  const std::string before = server_.info("total_connections_received");
  add_numbered(*cache, 0, 1000);
  EXPECT_FALSE(add(*cache, "key1", "another"));
  EXPECT_EQ(cache->size(), 1000U);
  EXPECT_EQ(server_.info("total_connections_received"), before);
}

TEST_F(RemoteSingle, SizeAndIterationCoverWhatThisProcessKnows) {
  store("found", "1");
  store("never asked for", "2");
  const auto cache = open_remote();
  EXPECT_EQ(get(*cache, "found"), "1");
  EXPECT_TRUE(add(*cache, "added", "3"));
  EXPECT_EQ(cache->size(), 2U);
  std::vector<std::string> keys;
  for (const auto& entry : *cache) {
    keys.push_back(test::bytes_of(entry.first));
  }
  EXPECT_THAT(keys, UnorderedElementsAre("found", "added"));
}

// --- two processes race ---

constexpr std::size_t kRacedKeys = 1000;

// Adds all keys, beginning at another one in each process, and flushes every few. Then
// writes what the servers have into a file.
int race(std::size_t racer, const Signpost& start, const std::string& file) {
  alarm(kHangSeconds);
  bool good = true;
  {
    const auto cache = open_remote();
    start.await();
    for (std::size_t i = 0; i < kRacedKeys; ++i) {
      const std::size_t key = racer == 0 ? i : kRacedKeys - 1 - i;
      good = add(*cache, numbered("key", key), numbered("of ", racer)) && good;
      good = (i % 20 != 19 || cache->flush()) && good;
    }
  }
  const auto cache = open_remote();
  std::string values;
  for (std::size_t i = 0; i < kRacedKeys; ++i) {
    values += get(*cache, numbered("key", i)).value_or("nothing") + "\n";
  }
  test::write_file(file, values);
  return good ? 0 : 1;
}

TEST_F(RemoteSingle, AKeyForWhichTwoProcessesRaceHasOneValueEverywhere) {
  const TempDir dir;
  Signpost start;
  std::vector<pid_t> racers;
  for (std::size_t racer = 0; racer < 2; ++racer) {
    racers.push_back(in_child([&] { return race(racer, start, dir.file(std::to_string(racer))); }));
  }
  start.pass();
  for (const pid_t racer : racers) {
    EXPECT_EQ(wait_for(racer), 0);
  }
  const auto cache = open_remote();
  std::string values;
  for (std::size_t i = 0; i < kRacedKeys; ++i) {
    const std::string value = get(*cache, numbered("key", i)).value_or("nothing");
    EXPECT_TRUE(value == "of 0" || value == "of 1") << value;
    values += value + "\n";
  }
  EXPECT_EQ(test::read_file(dir.file("0")), values);
  EXPECT_EQ(test::read_file(dir.file("1")), values);
}

// --- many at once ---

TEST_F(RemoteSingle, APrefetchBringsAThousandEntriesInOneRoundTrip) {
  const auto writer = open_remote();
  add_numbered(*writer, 0, 1000);
  ASSERT_TRUE(writer->flush());
  const auto cache = open_remote();
  EXPECT_EQ(get(*cache, "to connect"), std::nullopt);
  server_.command({"CONFIG", "RESETSTAT"});
  prefetch(*cache, numbered_keys(0, 1000));
  EXPECT_EQ(server_.calls("get"), 1000U);
  // The server reads 16 KiB at once.
  EXPECT_LT(std::stoi(server_.info("total_reads_processed")), 100);
  EXPECT_EQ(look_up(*cache, 0, 1000).right, 1000U);
  EXPECT_EQ(server_.calls("get"), 1000U);
}

TEST_F(RemoteSingle, APrefetchAlsoTellsWhichKeysAreAbsent) {
  const auto cache = open_remote();
  prefetch(*cache, numbered_keys(0, 100));
  EXPECT_EQ(look_up(*cache, 0, 100).missing, 100U);
  EXPECT_EQ(server_.calls("get"), 100U);
}

TEST_F(RemoteSingle, APrefetchLeavesOutWhatIsKnown) {
  store("found", "1");
  const auto cache = open_remote();
  EXPECT_EQ(get(*cache, "found"), "1");
  EXPECT_EQ(get(*cache, "absent"), std::nullopt);
  EXPECT_TRUE(add(*cache, "added", "2"));
  server_.command({"CONFIG", "RESETSTAT"});
  prefetch(*cache, {"found", "absent", "added"});
  EXPECT_EQ(server_.calls("get"), 0U);
}

TEST_F(RemoteSingle, AFlushOfThousandsStoresAllOfThem) {
  auto writer = open_remote();
  add_numbered(*writer, 0, 5000);
  EXPECT_TRUE(writer->flush());
  EXPECT_EQ(stored(), 5000U);
  const auto cache = open_remote();
  prefetch(*cache, numbered_keys(0, 5000));
  EXPECT_EQ(look_up(*cache, 0, 5000).right, 5000U);
}

// --- keys and values ---

std::string all_bytes() {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    bytes.push_back(static_cast<char>(byte));
  }
  return bytes;
}

TEST_F(RemoteSingle, AnyBytesMayBeKeysAndValues) {
  const std::vector<std::string> all{"{",          "{}",       "{a}b",
                                     "{a}c",       "a{b",      std::string(1, '\0'),
                                     "\r\n",       "*1\r\n$4", std::string("a\0b", 3),
                                     all_bytes(),  "\xff\xfe", std::string(70000, 'k'),
                                     "key \"q\" '"};
  const auto writer = open_remote();
  for (const std::string& bytes : all) {
    EXPECT_TRUE(add(*writer, bytes, "value of " + bytes));
  }
  EXPECT_TRUE(writer->flush());
  EXPECT_EQ(stored(), all.size());
  const auto cache = open_remote();
  for (const std::string& bytes : all) {
    EXPECT_EQ(get(*cache, bytes), "value of " + bytes);
  }
}

TEST_F(RemoteSingle, EntriesOfOtherCachesAndNamespacesAreNotFound) {
  store("key", "of maps");
  store("key", "of routes", "routes");
  const RemoteSettings foreign{{{"_NAMESPACE", "test"}}};
  EXPECT_EQ(get(*open_remote(), "key"), std::nullopt);
  store("key", "of test");
  EXPECT_EQ(get(*open_remote(), "key"), "of test");
  EXPECT_EQ(get(*open_remote("routes"), "key"), std::nullopt);
  EXPECT_EQ(stored(), 3U);
  EXPECT_EQ(exists(remote_key("key")), 1U);
  EXPECT_EQ(exists(remote_key("key", "", "routes")), 1U);
  EXPECT_EQ(exists(remote_key("key", "test")), 1U);
}

TEST_F(RemoteSingle, AValueOfAlmostAMebibyteIsShared) {
  const std::string value(kMebibyte - 1000, 'v');
  store("key", value);
  EXPECT_EQ(get(*open_remote(), "key"), value);
}

TEST_F(RemoteSingle, ALargerValueStaysInItsProcess) {
  const std::string large(kMebibyte + 1, 'v');
  const auto writer = open_remote();
  EXPECT_TRUE(add(*writer, "large", large));
  EXPECT_TRUE(add(*writer, "small", "1"));
  EXPECT_FALSE(writer->flush());
  EXPECT_EQ(get(*writer, "large"), large);
  EXPECT_EQ(stored(), 1U);
  EXPECT_EQ(get(*open_remote(), "small"), "1");
}

TEST_F(RemoteSingle, AValueBeyondTheReadersLimitIsAMissAndHidesNoOther) {
  {
    const RemoteSettings generous{{{"_MAX_VALUE", "8388608"}}};
    store("large", std::string(2 * kMebibyte, 'v'));
    store("huge", std::string(7 * kMebibyte, 'v'));
  }
  store("small", "1");
  const auto reader = open_remote();
  EXPECT_EQ(get(*reader, "large"), std::nullopt);
  EXPECT_EQ(get(*reader, "huge"), std::nullopt);
  EXPECT_EQ(get(*reader, "small"), "1");
}

TEST_F(RemoteSingle, ManyValuesBeyondTheReadersLimitHideNoOther) {
  const std::vector<std::string> large = numbered_keys(0, 5);
  for (const std::string& key : large) {
    server_.command({"SET", remote_key(key), std::string(6 * kMebibyte, 'v')});
  }
  store("small", "1");
  const auto reader = open_remote();
  for (const std::string& key : large) {
    EXPECT_EQ(get(*reader, key), std::nullopt);
  }
  EXPECT_EQ(get(*reader, "small"), "1");
  const auto other = open_remote();
  std::vector<std::string> all = large;
  all.insert(all.begin() + 3, "small");
  prefetch(*other, all);
  EXPECT_EQ(other->size(), 1U);
}

TEST_F(RemoteSingle, ForeignBytesUnderAKeyAreAMiss) {
  store("key", "value");
  const std::string good = server_.command({"GET", remote_key("key")});
  server_.command({"SET", remote_key("empty"), ""});
  server_.command({"SET", remote_key("foreign"), "not ours"});
  server_.command({"SET", remote_key("of another key"), good});
  server_.command({"SET", remote_key("cut"), good.substr(0, good.size() - 1)});
  server_.command({"RPUSH", remote_key("a list"), good});
  const auto cache = open_remote();
  for (const char* key : {"empty", "foreign", "of another key", "cut", "a list"}) {
    EXPECT_EQ(get(*cache, key), std::nullopt) << key;
  }
  EXPECT_EQ(get(*cache, "key"), "value");
}

// --- settings ---

TEST_F(RemoteSingle, EntriesExpireWhenATimeToLiveIsSet) {
  store("stays", "1");
  {
    const RemoteSettings brief{{{"_TTL", "1"}}};
    store("expires", "2");
  }
  EXPECT_EQ(server_.command({"TTL", remote_key("stays")}), "-1");
  EXPECT_TRUE(eventually([&] { return exists(remote_key("expires")) == 0; }));
  EXPECT_EQ(get(*open_remote(), "expires"), std::nullopt);
  EXPECT_EQ(get(*open_remote(), "stays"), "1");
}

TEST_F(RemoteSingle, AReadOnlyStoreSendsNoAdditions) {
  store("key", "value");
  server_.command({"CONFIG", "RESETSTAT"});
  {
    const RemoteSettings read_only{{{"_READ_ONLY", "1"}}};
    const auto cache = open_remote();
    EXPECT_TRUE(add(*cache, "own", "1"));
    cache->flush();
    EXPECT_EQ(get(*cache, "key"), "value");
    EXPECT_EQ(get(*cache, "own"), "1");
  }
  EXPECT_EQ(server_.calls("set"), 0U);
  EXPECT_EQ(stored(), 1U);
}

TEST_F(RemoteSingle, TheNextServerIsAskedWhenTheFirstIsAway) {
  RedisServer away(RedisServer::Port::plain);
  const RemoteSettings both{{{"", away.address() + "," + server_.address()}}};
  away.kill();
  store("key", "value");
  EXPECT_EQ(get(*open_remote(), "key"), "value");
  EXPECT_EQ(stored(), 1U);
}

}  // namespace
