// What stores on servers report to the program's tracer. This program defines one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/cache.h>

#include "support/heard.h"
#include "support/redis_servers.h"
#include "support/remote_cache.h"

namespace {

using test::add;
using test::get;
using test::take_heard;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(RemoteTracer, HearsOfEachRoundTripWithItsRequests) {
  test::RedisServer server;
  const test::RemoteSettings settings(test::patient(server.address()));
  const auto cache = test::open_remote("maps");
  take_heard();
  EXPECT_EQ(get(*cache, "key"), std::nullopt);
  EXPECT_THAT(take_heard(), ElementsAre("start 22", "end 22: 1"));
  add(*cache, "a", "1");
  add(*cache, "b", "2");
  EXPECT_THAT(take_heard(), IsEmpty());
  ASSERT_TRUE(cache->flush());
  EXPECT_THAT(take_heard(), ElementsAre("start 22", "end 22: 2"));
}

}  // namespace
