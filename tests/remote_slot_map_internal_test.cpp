#include "src/slot_map.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;
using quorvane::remote::Address;
using quorvane::remote::kSlots;
using quorvane::remote::Redirect;
using quorvane::remote::Reply;
using quorvane::remote::slot_of;
using quorvane::remote::SlotMap;
using testing::ElementsAre;
using testing::IsEmpty;

// ---------------------------------------------------------------------- slots

TEST(SlotOfAKey, IsTheChecksumModuloTheNumberOfSlots) {
  EXPECT_EQ(slot_of("123456789"), 0x31c3u);
  EXPECT_EQ(slot_of("foo"), 12182u);
  EXPECT_EQ(slot_of(""), 0u);
  EXPECT_EQ(slot_of("\xff\xfe\0\x80"s), slot_of("{\xff\xfe\0\x80}x"s));
}

TEST(SlotOfAKey, IsThatOfItsHashTag) {
  EXPECT_EQ(slot_of("{user1000}.following"), slot_of("user1000"));
  EXPECT_EQ(slot_of("a{foo}b"), 12182u);
  EXPECT_EQ(slot_of("foo{{bar}}zap"), slot_of("{bar"));
  EXPECT_EQ(slot_of("foo{bar}{zap}"), slot_of("bar"));
  EXPECT_EQ(slot_of("}a{foo}"), 12182u);
}

// A whole key's checksum, through a tag that holds it: the key must not have a closing brace.
TEST(SlotOfAKey, IsThatOfAllOfItWithoutAWholeHashTag) {
  EXPECT_EQ(slot_of("foo{bar"), slot_of("{foo{bar}"));
  EXPECT_NE(slot_of("foo{}{bar}"), slot_of("bar"));
  EXPECT_NE(slot_of("foo{}{bar}"), slot_of("foo{}{baz}"));
  EXPECT_NE(slot_of("{}"), slot_of(""));
  EXPECT_EQ(slot_of("foo}"), 15679u);
}

// ------------------------------------------------------------------- replies

// A reply as the protocol has it. Fails the test unless it is exactly one.
Reply reply_of(const std::string& bytes) {
  redisReader* const reader = redisReaderCreate();
  void* reply = nullptr;
  redisReaderFeed(reader, bytes.data(), bytes.size());
  EXPECT_EQ(redisReaderGetReply(reader, &reply), REDIS_OK) << bytes;
  EXPECT_NE(reply, nullptr) << bytes;
  redisReaderFree(reader);
  return Reply(static_cast<redisReply*>(reply));
}

std::string array(const std::vector<std::string>& elements) {
  std::string bytes = "*" + std::to_string(elements.size()) + "\r\n";
  for (const std::string& element : elements) {
    bytes += element;
  }
  return bytes;
}

std::string number(long long value) { return ":" + std::to_string(value) + "\r\n"; }

std::string text(const std::string& value) {
  return "$" + std::to_string(value.size()) + "\r\n" + value + "\r\n";
}

const std::string kNil = "$-1\r\n";

std::string node(const std::string& host, long long port) {
  return array({text(host), number(port), text("id")});
}

std::string range(long long first, long long last, const std::string& master) {
  return array({number(first), number(last), master});
}

Address address(const std::string& written) { return Address::parse(written).value(); }

const Address kAsked = address("10.0.0.9:7000");

std::optional<SlotMap> parse(const std::string& bytes) {
  return SlotMap::parse(*reply_of(bytes), kAsked);
}

std::vector<std::string> masters_of(const SlotMap& map) {
  std::vector<std::string> texts;
  for (const Address& master : map.masters) {
    texts.push_back(master.text);
  }
  return texts;
}

// ----------------------------------------------------------------------- map

TEST(SlotMapOfAReply, HasTheMastersAndTheirSlots) {
  const auto map = parse(
      array({range(0, 5460, node("127.0.0.1", 7001)), range(5461, 10922, node("127.0.0.1", 7002)),
             range(10923, 16383, node("::1", 7003))}));
  ASSERT_TRUE(map);
  EXPECT_THAT(masters_of(*map), ElementsAre("127.0.0.1:7001", "127.0.0.1:7002", "[::1]:7003"));
  ASSERT_EQ(map->owner.size(), kSlots);
  for (unsigned slot = 0; slot < kSlots; ++slot) {
    ASSERT_EQ(map->owner[slot], slot <= 5460 ? 0 : slot <= 10922 ? 1 : 2) << slot;
  }
}

TEST(SlotMapOfAReply, NamesAMasterOfSeveralRangesOnce) {
  const auto map = parse(
      array({range(2, 2, node("127.0.0.1", 7001)), range(0, 0, node("127.0.0.1", 7002)),
             range(1, 1, node("127.0.0.1", 7001)), range(5, 16383, node("127.0.0.1", 7002))}));
  ASSERT_TRUE(map);
  EXPECT_THAT(masters_of(*map), ElementsAre("127.0.0.1:7001", "127.0.0.1:7002"));
  EXPECT_THAT(std::vector<std::uint16_t>(map->owner.begin(), map->owner.begin() + 6),
              ElementsAre(1, 0, 0, SlotMap::kNobody, SlotMap::kNobody, 1));
}

TEST(SlotMapOfAReply, PassesOverReplicasAndWhatNewerServersAdd) {
  const std::string master =
      array({text("127.0.0.1"), number(7001), text("id"), array({text("hostname"), text("h")})});
  const auto map = parse(array({array(
      {number(0), number(9), master, node("10.0.0.1", 7004), node("not.numeric", 0), number(3)})}));
  ASSERT_TRUE(map);
  EXPECT_THAT(masters_of(*map), ElementsAre("127.0.0.1:7001"));
}

TEST(SlotMapOfAReply, TakesTheAskedServersHostForAnUnknownOne) {
  const auto map =
      parse(array({range(0, 0, node("", 7001)), range(1, 1, array({kNil, number(7002)}))}));
  ASSERT_TRUE(map);
  EXPECT_THAT(masters_of(*map), ElementsAre("10.0.0.9:7001", "10.0.0.9:7002"));
}

TEST(SlotMapOfAReply, HasNobodyWhenNoSlotIsGiven) {
  const auto map = parse(array({}));
  ASSERT_TRUE(map);
  EXPECT_THAT(map->masters, IsEmpty());
  EXPECT_EQ(map->owner, std::vector<std::uint16_t>(kSlots, SlotMap::kNobody));
}

TEST(SlotMapOfAReply, TakesAsManyMastersAsThereAreSlots) {
  std::vector<std::string> ranges;
  for (unsigned slot = 0; slot < kSlots; ++slot) {
    ranges.push_back(range(slot, slot, node("127.0.0.1", slot + 1)));
  }
  const auto map = parse(array(ranges));
  ASSERT_TRUE(map);
  EXPECT_EQ(map->masters.size(), kSlots);
  EXPECT_EQ(map->owner.back(), kSlots - 1);
  ranges.push_back(range(0, 0, node("127.0.0.1", 60000)));
  EXPECT_FALSE(parse(array(ranges)));
}

TEST(SlotMapOfAReply, IsNothingForAnyOtherReply) {
  const std::string good = node("127.0.0.1", 7001);
  ASSERT_TRUE(parse(array({range(0, 16383, good)})));
  for (const std::string& bytes : {"-ERR This instance has cluster support disabled\r\n"s,
                                   "+OK\r\n"s,
                                   number(3),
                                   text("x"),
                                   kNil,
                                   "*-1\r\n"s,
                                   array({number(1)}),
                                   array({array({})}),
                                   array({array({number(0), number(1)})}),
                                   array({range(-1, 1, good)}),
                                   array({range(0, 16384, good)}),
                                   array({range(2, 1, good)}),
                                   array({range(0, (1LL << 32) + 1, good)}),
                                   array({range(0, 1, text("127.0.0.1"))}),
                                   array({array({text("0"), text("1"), good})}),
                                   array({range(0, 1, array({}))}),
                                   array({range(0, 1, array({text("127.0.0.1")}))}),
                                   array({range(0, 1, node("h", 7001))}),
                                   array({range(0, 1, node("127.0.0.1\0"s, 7001))}),
                                   array({range(0, 1, node("::1]", 7001))}),
                                   array({range(0, 1, node("127.0.0.1", 0))}),
                                   array({range(0, 1, node("127.0.0.1", 65536))}),
                                   array({range(0, 1, node("127.0.0.1", -1))}),
                                   array({range(0, 1, array({text("127.0.0.1"), text("7001")}))}),
                                   array({range(0, 1, array({number(1), number(7001)}))}),
                                   array({range(0, 5, good), range(5, 9, good)}),
                                   array({range(0, 5, good), number(1)})}) {
    EXPECT_FALSE(parse(bytes)) << bytes;
  }
}

TEST(SlotMapOfASingleServer, GivesItEverySlot) {
  const SlotMap map = SlotMap::single(kAsked);
  EXPECT_THAT(masters_of(map), ElementsAre("10.0.0.9:7000"));
  EXPECT_EQ(map.owner, std::vector<std::uint16_t>(kSlots, 0));
}

// ------------------------------------------------------------------ redirects

std::optional<Redirect> redirect(const std::string& line) {
  return Redirect::parse(*reply_of(line + "\r\n"), kAsked);
}

TEST(RedirectOfAReply, SaysWhereToGo) {
  const auto moved = redirect("-MOVED 3999 127.0.0.1:6381");
  ASSERT_TRUE(moved);
  EXPECT_FALSE(moved->is_ask);
  EXPECT_EQ(moved->slot, 3999u);
  EXPECT_EQ(moved->to.text, "127.0.0.1:6381");
  const auto ask = redirect("-ASK 16383 ::1:6381");
  ASSERT_TRUE(ask);
  EXPECT_TRUE(ask->is_ask);
  EXPECT_EQ(ask->slot, 16383u);
  EXPECT_EQ(ask->to.text, "[::1]:6381");
}

TEST(RedirectOfAReply, TakesTheAskedServersHostForAnUnknownOne) {
  const auto moved = redirect("-MOVED 0 :6381");
  ASSERT_TRUE(moved);
  EXPECT_EQ(moved->to.text, "10.0.0.9:6381");
}

TEST(RedirectOfAReply, IsNothingForAnyOtherReply) {
  for (const std::string& line : {"+MOVED 3999 127.0.0.1:6381"s,
                                  "$26\r\nMOVED 3999 127.0.0.1:6381x"s,
                                  "-MOVED"s,
                                  "-MOVED "s,
                                  "-MOVED 3999"s,
                                  "-MOVED 3999 "s,
                                  "-MOVED 3999 127.0.0.1"s,
                                  "-MOVED 3999 127.0.0.1:"s,
                                  "-MOVED 16384 127.0.0.1:6381"s,
                                  "-MOVED -1 127.0.0.1:6381"s,
                                  "-MOVED 4294967296 127.0.0.1:6381"s,
                                  "-MOVED 3999x 127.0.0.1:6381"s,
                                  "-MOVED  3999 127.0.0.1:6381"s,
                                  "-MOVED 3999  127.0.0.1:6381"s,
                                  "-MOVED 3999 127.0.0.1:0"s,
                                  "-MOVED 3999 127.0.0.1:65536"s,
                                  "-MOVED 3999 127.0.0.1:6381 "s,
                                  "-MOVED 3999 127.0.0.1:+6381"s,
                                  "-MOVED 3999 host.example:6381"s,
                                  "-MOVED 3999 ?:6381"s,
                                  "-MOVED :1 2"s,
                                  "-MOVEDX 3999 127.0.0.1:6381"s,
                                  "-moved 3999 127.0.0.1:6381"s,
                                  "-ASKING 3999 127.0.0.1:6381"s,
                                  "-ERR MOVED 3999 127.0.0.1:6381"s,
                                  "-"s}) {
    EXPECT_FALSE(redirect(line)) << line;
  }
}

}  // namespace
