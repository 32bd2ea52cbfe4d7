// A store that does what a test tells it to, for the tests of caches.
#ifndef TESTS_SUPPORT_FAKE_STORE_H_
#define TESTS_SUPPORT_FAKE_STORE_H_

#include <pthread.h>
#include <quorvane/cache.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/store_bytes.h"

namespace test {

// The record of the first look-up of a process without statistics.
inline const std::string kStatisticsOff = "INFO Statistics capture disabled.";

// What a fake store does, and what it was asked to do.
struct Script {
  bool valid = true;
  bool load_succeeds = true;
  bool load_throws = false;
  std::string throws_a_number;  // the name of the function that throws 7
  std::string cancels;          // the name of the function that cancels its thread
  bool store_succeeds = true;
  bool store_throws = false;
  std::vector<Entry> content;

  int loads = 0;
  int stores = 0;
  std::string stored;
  bool destroyed = false;
};

class FakeStore : public quorvane::cache::Store {
 public:
  explicit FakeStore(Script& script) : script_(script) {}
  ~FakeStore() override { script_.destroyed = true; }
  std::string type() const override {
    misbehave("type");
    return "FakeStore";
  }
  bool is_valid() const override {
    misbehave("is_valid");
    return script_.valid;
  }

  bool try_load(quorvane::cache::EntryMap& out) override {
    ++script_.loads;
    out = entry_map(script_.content);
    misbehave("try_load");
    if (script_.load_throws) {
      throw std::length_error("too long");
    }
    return script_.load_succeeds;
  }

  bool try_store_diff(const quorvane::cache::EntryMap& diff) override {
    ++script_.stores;
    script_.stored = listing(diff);
    misbehave("try_store_diff");
    if (script_.store_throws) {
      throw std::runtime_error("no room");
    }
    return script_.store_succeeds;
  }

 private:
  void misbehave(const char* function) const {
    if (script_.throws_a_number == function) {
      throw 7;
    }
    if (script_.cancels == function) {
      pthread_cancel(pthread_self());
      pthread_testcancel();
    }
  }

  Script& script_;
};

inline std::unique_ptr<quorvane::cache::Store> fake(Script& script) {
  return std::make_unique<FakeStore>(script);
}

// "[atom][atom]", or "null".
inline std::string value_of(quorvane::cache::Cache& cache, const std::string& key) {
  const auto* value = cache.get_value(buffer(key));
  if (value == nullptr) {
    return "null";
  }
  std::string text;
  for (const quorvane::util::RoBuffer& atom : *value) {
    text += "[" + bytes_of(atom) + "]";
  }
  return text;
}

inline const std::vector<Entry> kTwoEntries{{"aa", {"1"}}, {"b", {"2", "3"}}};

}  // namespace test

#endif  // TESTS_SUPPORT_FAKE_STORE_H_
