// A cache on a store of which only a part answers at once.
#include <gtest/gtest.h>
#include <quorvane/cache.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/fake_store.h"
#include "support/store_bytes.h"

using quorvane::cache::Cache;
using quorvane::cache::EntryMap;
using quorvane::cache::LookupStore;
using quorvane::util::RoBuffer;
using test::buffer;
using test::buffers;
using test::value_of;

namespace {

struct Parts {
  EntryMap near;
  EntryMap far;
  int far_looks = 0;  // how often the far part was asked
};

bool find_in(const EntryMap& part, const RoBuffer& key, std::vector<RoBuffer>& value) {
  const auto entry = part.find(key);
  if (entry != part.end()) {
    value = entry->second;
  }
  return entry != part.end();
}

class TwoPartStore : public LookupStore {
 public:
  explicit TwoPartStore(Parts& parts) : parts_(parts) {}
  std::string type() const override { return "TwoPartStore"; }
  bool is_valid() const override { return true; }
  bool try_load(EntryMap& /*out*/) override { return true; }
  bool try_store_diff(const EntryMap& diff) override {
    parts_.near.insert(diff.begin(), diff.end());
    return true;
  }
  bool find(const RoBuffer& key, std::vector<RoBuffer>& value) override {
    if (find_in(parts_.near, key, value)) {
      return true;
    }
    ++parts_.far_looks;
    return find_in(parts_.far, key, value);
  }
  bool find_at_once(const RoBuffer& key, std::vector<RoBuffer>& value) override {
    return find_in(parts_.near, key, value);
  }
  std::uint64_t entries() override { return parts_.near.size(); }
  void prefetch(const RoBuffer* /*keys*/, std::size_t /*count*/) override {}
  bool try_read_all(EntryMap& out) override {
    out.insert(parts_.near.begin(), parts_.near.end());
    return true;
  }

 private:
  Parts& parts_;
};

class CacheOnTwoParts : public testing::Test {
 protected:
  CacheOnTwoParts() {
    parts_.near = test::entry_map({{"near", {"1"}}});
    parts_.far = test::entry_map({{"far", {"2"}}});
  }

  bool add(const std::string& key) { return cache_.add_value(buffer(key), buffers({"mine"})); }

  Parts parts_;
  Cache cache_{"parts", std::make_unique<TwoPartStore>(parts_), false};
};

TEST_F(CacheOnTwoParts, AddsWithoutAskingTheFarPart) {
  EXPECT_TRUE(add("new"));
  EXPECT_TRUE(add("far"));
  EXPECT_EQ(parts_.far_looks, 0);
  EXPECT_EQ(value_of(cache_, "far"), "[mine]");
}

TEST_F(CacheOnTwoParts, RefusesAKeyOfTheNearPartAndKnowsItsValueThen) {
  EXPECT_FALSE(add("near"));
  parts_.near.clear();
  EXPECT_EQ(value_of(cache_, "near"), "[1]");
  EXPECT_EQ(parts_.far_looks, 0);
}

TEST_F(CacheOnTwoParts, RefusesAKeyThatItHasFoundInTheFarPart) {
  EXPECT_EQ(value_of(cache_, "far"), "[2]");
  EXPECT_FALSE(add("far"));
  EXPECT_EQ(parts_.far_looks, 1);
}

TEST_F(CacheOnTwoParts, CountsWithoutAskingTheFarPart) {
  add("new");
  add("far");
  parts_.near.insert({buffer("new"), buffers({"another's"})});  // stored by another process
  EXPECT_EQ(cache_.size(), 3u);                                 // near, new, far
  EXPECT_EQ(parts_.far_looks, 0);
}

}  // namespace
