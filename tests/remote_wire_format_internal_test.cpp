#include "src/wire_format.h"

#include <farmhash.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "support/hexdump.h"
#include "support/no_memory.h"
#include "support/store_bytes.h"

namespace {

using namespace std::string_literals;
using quorvane::remote::decode;
using quorvane::remote::encode;
using quorvane::remote::encoded_size;
using quorvane::remote::key_prefix;
using quorvane::remote::Value;
using quorvane::remote::wire_key;
using quorvane::util::RoBuffer;
using test::hexdump;
using test::le32;
using testing::ElementsAre;

RoBuffer bytes(std::string_view text) { return RoBuffer::copy(text.data(), text.size()); }

Value value_of(const std::vector<std::string>& atoms) {
  Value value;
  for (const std::string& atom : atoms) {
    value.push_back(bytes(atom));
  }
  return value;
}

std::vector<std::string> texts_of(const Value& value) {
  std::vector<std::string> atoms;
  for (const RoBuffer& atom : value) {
    atoms.emplace_back(reinterpret_cast<const char*>(atom.get_buffer()), atom.get_size());
  }
  return atoms;
}

bool is_decoded(std::string_view key, std::string_view stored) {
  Value value;
  return decode(key, stored, value);
}

const std::string kKey = wire_key(key_prefix("space", "demo"), bytes("key"));
const std::string kStored = encode(kKey, value_of({"ab", "c"}));

TEST(RemoteKey, HasTheNamespaceTheCacheAndTheKey) {
  EXPECT_EQ(kKey, "qv1{}space\0demo\0key"s);
  EXPECT_EQ(key_prefix("", ""), "qv1{}\0\0"s);
  EXPECT_EQ(wire_key("p", RoBuffer()), "p");
  EXPECT_EQ(wire_key("p", bytes("{a}\0\xff"s)), "p{a}\0\xff"s);
}

TEST(RemoteKey, HasNoPrefixWhenANameHasANul) {
  EXPECT_EQ(key_prefix("a\0b"s, "c"), "");
  EXPECT_EQ(key_prefix("a", "b\0"s), "");
}

TEST(RemoteValue, HasTheDocumentedBytes) {
  EXPECT_EQ(test::documented_hexdump("key"), hexdump(kKey));
  EXPECT_EQ(test::documented_hexdump("value"), hexdump(kStored));
}

TEST(RemoteValue, ComesBackAsItWasStored) {
  const std::vector<std::vector<std::string>> values = {
      {"v"}, {"ab", "c"}, {"\0"s, std::string(100000, 'x'), "\xff"}};
  for (const std::vector<std::string>& atoms : values) {
    const std::string stored = encode(kKey, value_of(atoms));
    EXPECT_EQ(stored.size(), encoded_size(value_of(atoms)));
    Value value = value_of({"old"});
    EXPECT_TRUE(decode(kKey, stored, value));
    EXPECT_EQ(texts_of(value), atoms);
  }
}

TEST(RemoteValue, ComesBackUnderAKeyOfAnyLength) {
  for (const std::size_t size : {0u, 1u, 11u, 12u, 13u, 1000u}) {
    const std::string key(size, 'k');
    EXPECT_TRUE(is_decoded(key, encode(key, value_of({"v"})))) << size;
  }
}

TEST(RemoteValue, OutlivesTheReply) {
  Value value;
  {
    const std::string reply = kStored;
    ASSERT_TRUE(decode(kKey, reply, value));
  }
  value.erase(value.begin());
  EXPECT_THAT(texts_of(value), ElementsAre("c"));
}

TEST(RemoteValue, IsNothingWhenItCouldNotBeReadBack) {
  EXPECT_EQ(encode(kKey, {}), "");
  EXPECT_EQ(encode(kKey, value_of({"a", "", "b"})), "");
  const Value too_large{RoBuffer::view("", std::size_t{1} << 32)};
  EXPECT_EQ(encode(kKey, too_large), "");
  EXPECT_EQ(encoded_size(too_large), (std::uint64_t{1} << 32) + 20);
}

TEST(RemoteValue, IsRefusedWhereverItIsCut) {
  for (std::size_t size = 0; size < kStored.size(); ++size) {
    EXPECT_FALSE(is_decoded(kKey, kStored.substr(0, size))) << size;
  }
}

TEST(RemoteValue, IsRefusedWithAnyBitFlipped) {
  for (std::size_t bit = 0; bit < 8 * kStored.size(); ++bit) {
    std::string damaged = kStored;
    damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << bit % 8));
    EXPECT_FALSE(is_decoded(kKey, damaged)) << bit;
  }
}

TEST(RemoteValue, IsRefusedWithBytesBehindIt) {
  EXPECT_FALSE(is_decoded(kKey, kStored + '\0'));
  EXPECT_FALSE(is_decoded(kKey, kStored + kStored));
}

TEST(RemoteValue, IsRefusedUnderAnotherKey) {
  EXPECT_TRUE(is_decoded(kKey, kStored));
  EXPECT_FALSE(is_decoded(kKey + "x", kStored));
  EXPECT_FALSE(is_decoded(kKey.substr(1), kStored));
  EXPECT_FALSE(is_decoded("", kStored));
}

TEST(RemoteValue, LeavesTheCallersValueAloneWhenItIsRefused) {
  Value value = value_of({"old"});
  EXPECT_FALSE(decode(kKey, kStored + "x", value));
  EXPECT_THAT(texts_of(value), ElementsAre("old"));
}

// A value with this body and its right hash: anybody who may write can store it.
std::string sealed(const std::string& body) {
  const std::string run = kKey + body;
  return "QV\1\0"s + test::le64(::util::Fingerprint64(run.data(), run.size())) + body;
}

TEST(RemoteValue, IsRefusedWithAWrongStructureUnderARightHash) {
  ASSERT_TRUE(is_decoded(kKey, sealed(le32(1) + le32(1) + "a")));
  for (const std::string& body :
       {""s, le32(0), le32(1).substr(1), le32(1), le32(1) + le32(0), le32(1) + le32(2) + "a",
        le32(1) + le32(1) + "ab", le32(2) + le32(1) + le32(0) + "a", le32(2) + le32(1) + "a",
        le32(2) + le32(0xffffffff) + le32(2) + "a", le32(2) + le32(2) + le32(0xffffffff) + "a"}) {
    EXPECT_FALSE(is_decoded(kKey, sealed(body))) << hexdump(body);
  }
}

TEST(RemoteValue, IsRefusedWithAnotherVersionOrFlags) {
  for (const std::string& begin : {"QV\2\0"s, "QV\0\0"s, "QV\1\1"s, "VQ\1\0"s}) {
    EXPECT_FALSE(is_decoded(kKey, begin + kStored.substr(begin.size())));
  }
}

TEST(RemoteValue, TakesNoMemoryForAtomsThatItDoesNotHave) {
  for (const std::uint32_t count : {3u, 0x10000000u, 0x40000000u, 0x80000001u, 0xffffffffu}) {
    const std::string stored = sealed(le32(count) + le32(1) + "a");
    Value value;
    const test::FailingAllocation any(0, test::Afterwards::fail);
    EXPECT_FALSE(decode(kKey, stored, value)) << count;
    EXPECT_FALSE(test::FailingAllocation::end()) << count;
  }
}

TEST(RemoteValue, TakesNoMemoryForASizeThatItDoesNotHave) {
  const std::string stored = sealed(le32(1) + le32(0xffffffff) + "a");
  Value value;
  const test::FailingAllocation any(0, test::Afterwards::fail);
  EXPECT_FALSE(decode(kKey, stored, value));
  EXPECT_FALSE(test::FailingAllocation::end());
}

}  // namespace
