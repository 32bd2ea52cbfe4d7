#include "support/remote_cache.h"

#include <cstdio>

namespace test {

RemoteVariables patient(const std::string& address) {
  return {{"", address},
          {"_TIMEOUT", "60000"},
          {"_CONNECT_TIMEOUT", "60000"},
          {"_STORE_TIMEOUT", "60000"}};
}

RemoteVariables hasty(const std::string& address) {
  return {
      {"", address}, {"_TIMEOUT", "250"}, {"_CONNECT_TIMEOUT", "100"}, {"_STORE_TIMEOUT", "2000"}};
}

std::unique_ptr<quorvane::cache::Cache> open_remote(const std::string& name) {
  return std::make_unique<quorvane::cache::Cache>(name, quorvane::cache::make_remote_store(name),
                                                  false);
}

std::string remote_key(const std::string& key, const std::string& name_space,
                       const std::string& cache) {
  return "qv1{}" + name_space + '\0' + cache + '\0' + key;
}

void add_numbered(quorvane::cache::Cache& cache, std::size_t from, std::size_t to) {
  for (std::size_t i = from; i < to; ++i) {
    ASSERT_TRUE(add(cache, numbered("key", i), remote_value_of(i)));
  }
}

void prefetch(quorvane::cache::Cache& cache, const std::vector<std::string>& keys) {
  const std::vector<quorvane::util::RoBuffer> all = buffers(keys);
  cache.prefetch(all.data(), all.size());
}

std::vector<std::string> numbered_keys(std::size_t from, std::size_t to) {
  std::vector<std::string> keys;
  for (std::size_t i = from; i < to; ++i) {
    keys.push_back(numbered("key", i));
  }
  return keys;
}

LookedUp look_up(quorvane::cache::Cache& cache, std::size_t from, std::size_t to) {
  LookedUp sum;
  for (std::size_t i = from; i < to; ++i) {
    const auto value = get(cache, numbered("key", i));
    ++(!value ? sum.missing : *value == remote_value_of(i) ? sum.right : sum.wrong);
  }
  return sum;
}

int use_remote_cache(const Arguments& words) {
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

Ran run_remote(const RemoteVariables& values, const Arguments& words, const std::string& level) {
  Environment environment{{"QV_LOG_LEVEL", level}};
  for (const auto& [name, value] : values) {
    environment[remote_variable(name)] = value;
  }
  return run_scenario("use_remote_cache", environment, words);
}

std::vector<std::string> not_stored(std::size_t lost, std::size_t all, const std::string& why) {
  return {"WARN " + std::to_string(lost) + " of " + std::to_string(all) +
              " additions to maps cache are not on the servers: " + why,
          expectation("store_->try_store_diff(diff_map_)")};
}

std::vector<std::string> records_of_refusal(std::vector<std::string> more, std::size_t lost,
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
