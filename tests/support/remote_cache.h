// Caches on remote stores, and what the servers hold.
#ifndef TESTS_SUPPORT_REMOTE_CACHE_H_
#define TESTS_SUPPORT_REMOTE_CACHE_H_

#include <quorvane/cache.h>
#include <quorvane/remote_store.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/indexed_cache.h"
#include "support/redis_servers.h"
#include "support/scenario.h"
#include "support/store_bytes.h"

namespace test {

// Variables of the remote store, without "QV_CACHE_REMOTE" in front: {"", ADDRESS}, {"_TTL",
// "1"}.
using RemoteVariables = std::map<std::string, std::string>;

inline std::string remote_variable(const std::string& name) { return "QV_CACHE_REMOTE" + name; }

// So long limits that they don't end a call on a busy machine.
inline RemoteVariables patient(const std::string& address) {
  return {{"", address},
          {"_TIMEOUT", "60000"},
          {"_CONNECT_TIMEOUT", "60000"},
          {"_STORE_TIMEOUT", "60000"}};
}

// The limits of users who set none.
inline RemoteVariables hasty(const std::string& address) {
  return {
      {"", address}, {"_TIMEOUT", "250"}, {"_CONNECT_TIMEOUT", "100"}, {"_STORE_TIMEOUT", "2000"}};
}

// Sets variables while the object lives. Stores that were made meanwhile keep what they read.
class RemoteSettings {
 public:
  explicit RemoteSettings(const RemoteVariables& values) {
    for (const auto& [name, value] : values) {
      const char* const before = getenv(remote_variable(name).c_str());
      before_[name] = before != nullptr ? std::optional<std::string>(before) : std::nullopt;
      setenv(remote_variable(name).c_str(), value.c_str(), 1);
    }
  }
  ~RemoteSettings() {
    for (const auto& [name, value] : before_) {
      if (value.has_value()) {
        setenv(remote_variable(name).c_str(), value->c_str(), 1);
      } else {
        unsetenv(remote_variable(name).c_str());
      }
    }
  }
  RemoteSettings(const RemoteSettings&) = delete;
  RemoteSettings& operator=(const RemoteSettings&) = delete;

 private:
  std::map<std::string, std::optional<std::string>> before_;
};

// A cache on the servers of the environment.
inline std::unique_ptr<quorvane::cache::Cache> open_remote(const std::string& name = "maps") {
  return std::make_unique<quorvane::cache::Cache>(name, quorvane::cache::make_remote_store(name),
                                                  false);
}

inline std::string remote_key(const std::string& key, const std::string& name_space = "",
                              const std::string& cache = "maps") {
  return "qv1{}" + name_space + '\0' + cache + '\0' + key;
}

inline std::string remote_value_of(std::size_t number) { return numbered("value of ", number); }

inline void add_numbered(quorvane::cache::Cache& cache, std::size_t from, std::size_t to) {
  for (std::size_t i = from; i < to; ++i) {
    ASSERT_TRUE(add(cache, numbered("key", i), remote_value_of(i)));
  }
}

inline void prefetch(quorvane::cache::Cache& cache, const std::vector<std::string>& keys) {
  const std::vector<quorvane::util::RoBuffer> all = buffers(keys);
  cache.prefetch(all.data(), all.size());
}

inline std::vector<std::string> numbered_keys(std::size_t from, std::size_t to) {
  std::vector<std::string> keys;
  for (std::size_t i = from; i < to; ++i) {
    keys.push_back(numbered("key", i));
  }
  return keys;
}

// What look-ups of numbered keys give.
struct LookedUp {
  std::size_t right = 0;
  std::size_t missing = 0;
  std::size_t wrong = 0;
};

inline LookedUp look_up(quorvane::cache::Cache& cache, std::size_t from, std::size_t to) {
  LookedUp sum;
  for (std::size_t i = from; i < to; ++i) {
    const auto value = get(cache, numbered("key", i));
    ++(!value ? sum.missing : *value == remote_value_of(i) ? sum.right : sum.wrong);
  }
  return sum;
}

// Far longer than any of the time limits, and far shorter than for ever.
constexpr std::chrono::seconds kSoon{20};

// Whether the function ends soon.
template <typename Function>
bool ends_soon(const Function& function) {
  const auto start = std::chrono::steady_clock::now();
  function();
  return std::chrono::steady_clock::now() - start < kSoon;
}

// --- scenarios, whose records can be compared ---

// Uses the cache "maps" as the words say: "add=KEY", "get=KEY", "lookups=COUNT", "flush". Prints
// a line for each, except for additions.
inline int use_remote_cache(const Arguments& words) {
  const auto cache = open_remote();
  for (const std::string& word : words) {
    const std::string argument = word.substr(word.find('=') + 1);
    if (word.rfind("add=", 0) == 0) {
      add(*cache, argument, "value of " + argument);
    } else if (word.rfind("get=", 0) == 0) {
      std::printf("%s\n", get(*cache, argument).value_or("nothing").c_str());
    } else if (word.rfind("lookups=", 0) == 0) {
      std::printf("%zu missing\n", look_up(*cache, 0, std::stoul(argument)).missing);
    } else if (word == "flush") {
      std::printf("flush %d\n", cache->flush());
    }
  }
  return 0;
}

// Runs that in a scenario, which the test must define.
inline Ran run_remote(const RemoteVariables& values, const Arguments& words,
                      const std::string& level = "INFO") {
  Environment environment{{"QV_LOG_LEVEL", level}};
  for (const auto& [name, value] : values) {
    environment[remote_variable(name)] = value;
  }
  return run_scenario("use_remote_cache", environment, words);
}

// The records of an attempt to store.
inline std::vector<std::string> not_stored(std::size_t lost, std::size_t all,
                                           const std::string& why) {
  return {"WARN " + std::to_string(lost) + " of " + std::to_string(all) +
              " additions to maps cache are not on the servers: " + why,
          expectation("store_->try_store_diff(diff_map_)")};
}

// The record of the first look-up, then `more`, then those of a flush and of the cache's end, which
// both store nothing.
inline std::vector<std::string> records_of_refusal(std::vector<std::string> more, std::size_t lost,
                                                   std::size_t all, const std::string& why) {
  std::vector<std::string> records{"INFO Statistics capture disabled."};
  records.insert(records.end(), more.begin(), more.end());
  for (int attempt = 0; attempt < 2; ++attempt) {
    const std::vector<std::string> lines = not_stored(lost, all, why);
    records.insert(records.end(), lines.begin(), lines.end());
  }
  return records;
}

}  // namespace test

#endif  // TESTS_SUPPORT_REMOTE_CACHE_H_
