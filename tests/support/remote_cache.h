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
RemoteVariables patient(const std::string& address);

// The limits of users who set none.
RemoteVariables hasty(const std::string& address);

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
std::unique_ptr<quorvane::cache::Cache> open_remote(const std::string& name = "maps");

std::string remote_key(const std::string& key, const std::string& name_space = "",
                       const std::string& cache = "maps");

inline std::string remote_value_of(std::size_t number) { return numbered("value of ", number); }

void add_numbered(quorvane::cache::Cache& cache, std::size_t from, std::size_t to);

void prefetch(quorvane::cache::Cache& cache, const std::vector<std::string>& keys);

std::vector<std::string> numbered_keys(std::size_t from, std::size_t to);

// What look-ups of numbered keys give.
struct LookedUp {
  std::size_t right = 0;
  std::size_t missing = 0;
  std::size_t wrong = 0;
};

LookedUp look_up(quorvane::cache::Cache& cache, std::size_t from, std::size_t to);

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
int use_remote_cache(const Arguments& words);

// Runs that in a scenario, which the test must define.
Ran run_remote(const RemoteVariables& values, const Arguments& words,
               const std::string& level = "INFO");

// The records of an attempt to store.
std::vector<std::string> not_stored(std::size_t lost, std::size_t all, const std::string& why);

// The record of the first look-up, then `more`, then those of a flush and of the cache's end, which
// both store nothing.
std::vector<std::string> records_of_refusal(std::vector<std::string> more, std::size_t lost,
                                            std::size_t all, const std::string& why);

}  // namespace test

#endif  // TESTS_SUPPORT_REMOTE_CACHE_H_
