// Values on the servers that are larger than this process takes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/scripted_node.h"

using quorvane::remote::RemoteStore;
using test::found;
using test::ScriptedNode;

namespace {

class RemoteLargeValue : public testing::Test {
 protected:
  // Ten keys, of which every second one has a value of 6 MiB.
  RemoteLargeValue() {
    for (std::size_t i = 0; i < keys_.size(); ++i) {
      i % 2 == 0 ? node_.put(keys_[i], {std::string(std::size_t{6} << 20, 'v')})
                 : node_.put(keys_[i], {"small"});
    }
  }

  const std::vector<std::string> keys_ = test::numbered_keys(10);
  ScriptedNode node_;
  RemoteStore store_{test::kCacheName, test::settings_of({node_.address()})};
};

TEST_F(RemoteLargeValue, IsAMissAndNoFailureOfTheServer) {
  for (std::size_t i = 0; i < keys_.size(); i += 2) {
    EXPECT_EQ(found(store_, keys_[i]), "none");
  }
  EXPECT_EQ(node_.count_of("GET"), 5u);  // it was asked each time
  EXPECT_EQ(found(store_, keys_[1]), "[small]");
}

TEST_F(RemoteLargeValue, IsAskedForOnce) {
  EXPECT_EQ(found(store_, keys_[0]), "none");
  EXPECT_EQ(found(store_, keys_[0]), "none");
  EXPECT_EQ(node_.count_of("GET"), 1u);
}

TEST_F(RemoteLargeValue, LetsAPrefetchBringAllOthers) {
  test::prefetch(store_, keys_);
  EXPECT_EQ(store_.entries(), 5u);
  for (std::size_t i = 0; i < keys_.size(); ++i) {
    EXPECT_EQ(found(store_, keys_[i]), i % 2 == 0 ? "none" : "[small]");
  }
  EXPECT_EQ(node_.count_of("GET"), 10u);
  EXPECT_EQ(node_.server().connections(), 1u);
}

TEST_F(RemoteLargeValue, IsGivenToAProcessThatTakesIt) {
  auto settings = test::settings_of({node_.address()});
  settings.max_value = std::size_t{7} << 20;
  RemoteStore generous(test::kCacheName, settings);
  test::prefetch(generous, keys_);
  EXPECT_EQ(generous.entries(), 10u);
}

}  // namespace
