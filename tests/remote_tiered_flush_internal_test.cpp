// What processes of one machine ask the servers for.
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "src/tiered_store.h"
#include "support/indexed_cache.h"
#include "support/processes.h"
#include "support/scripted_node.h"
#include "support/temp_dir.h"

using quorvane::cache::Cache;
using quorvane::cache::LookupStore;
using quorvane::remote::RemoteStore;
using quorvane::remote::TieredStore;
using test::buffers;
using test::get;

namespace {

class TieredFlush : public testing::Test {
 protected:
  TieredFlush() {
    for (const std::string& key : keys_) {
      node_.put(key, {"value of " + key});
    }
  }

  // Local files, and the servers.
  std::unique_ptr<Cache> open() {
    std::unique_ptr<LookupStore> files(dynamic_cast<LookupStore*>(
        quorvane::cache::make_store(test::indexed_options(dir_.path())).release()));
    auto servers =
        std::make_unique<RemoteStore>(test::kCacheName, test::settings_of({node_.address()}));
    return std::make_unique<Cache>(
        test::kCacheName,
        std::make_unique<TieredStore>(test::kCacheName, std::move(files), std::move(servers)),
        false);
  }

  // How many of the keys another process finds.
  int found_by_another() {
    return test::wait_for(test::in_child([&] {
      int found = 0;
      const auto cache = open();
      for (const std::string& key : keys_) {
        found += get(*cache, key) == "value of " + key ? 1 : 0;
      }
      return found;
    }));
  }

  const std::vector<std::string> keys_ = test::numbered_keys(3);
  test::TempDir dir_;
  test::ScriptedNode node_;
};

TEST_F(TieredFlush, SparesAnotherProcessWhatThisOneHasLookedUp) {
  const auto cache = open();
  for (const std::string& key : keys_) {
    EXPECT_EQ(get(*cache, key), "value of " + key);
  }
  EXPECT_TRUE(cache->flush());
  EXPECT_EQ(node_.count_of("GET"), 3u);
  EXPECT_EQ(found_by_another(), 3);
  EXPECT_EQ(node_.count_of("GET"), 3u);
}

TEST_F(TieredFlush, SparesAnotherProcessWhatThisOneHasPrefetched) {
  const auto cache = open();
  const auto keys = buffers(keys_);
  cache->prefetch(keys.data(), keys.size());
  EXPECT_TRUE(cache->flush());
  EXPECT_EQ(node_.count_of("GET"), 3u);
  EXPECT_EQ(found_by_another(), 3);
  EXPECT_EQ(node_.count_of("GET"), 3u);
}

TEST_F(TieredFlush, LeavesToAnotherProcessWhatIsNotFlushed) {
  const auto cache = open();
  EXPECT_EQ(get(*cache, keys_[0]), "value of " + keys_[0]);
  EXPECT_EQ(found_by_another(), 3);
  EXPECT_EQ(node_.count_of("GET"), 1u + 3u);
}

}  // namespace
