#include <quorvane/hasher.h>

#include <blake2.h>
#include <farmhash.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/no_memory.h"
#include "support/scenario.h"
#include "support/threads.h"

#ifdef QV_FARMHASH_USE_CITY
namespace farmhashcc {
util::uint128_t CityHash128WithSeed(const char* s, size_t len, util::uint128_t seed);
}
#endif

namespace {

using quorvane::hash::Hasher;
using quorvane::hash::fast::FarmHash128Hasher;
using quorvane::hash::strong::Blake2Hasher;
using quorvane::util::RoBuffer;

const std::string kBlake2OfAbc = "bddd813c634239723171ef3fee98579b94964e3bb1cb3e427262c8c068d52319";
const std::string kFarmHashOfAbc = "268113d71097df7b848d157d5c47b87e";

std::string hex(const void* data, std::size_t size) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const auto* const bytes = static_cast<const unsigned char*>(data);
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

std::string hex(const RoBuffer& digest) { return hex(digest.get_buffer(), digest.get_size()); }

bool push(Hasher& hasher, const std::string& bytes) {
  return hasher.push(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

std::string digest_of(Hasher& hasher, const std::vector<std::string>& chunks) {
  for (const std::string& chunk : chunks) {
    EXPECT_TRUE(push(hasher, chunk));
  }
  return hex(hasher.calculate_and_reset());
}

util::uint128_t farm_hash(const std::string& bytes, const util::uint128_t& seed) {
#ifdef QV_FARMHASH_USE_CITY
  return farmhashcc::CityHash128WithSeed(bytes.data(), bytes.size(), seed);
#else
  return util::Hash128WithSeed(bytes.data(), bytes.size(), seed);
#endif
}

std::string farm_hash_in_memory(const util::uint128_t& hash) {
  const std::uint64_t halves[] = {hash.first, hash.second};
  return hex(halves, sizeof(halves));
}

std::string blake2_by_the_library(const std::string& bytes) {
  unsigned char out[32];
  EXPECT_EQ(blake2b(out, bytes.data(), nullptr, sizeof(out), bytes.size(), 0), 0);
  return hex(out, sizeof(out));
}

// Bytes whose period is no power of two.
std::string some_bytes(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<char>(i * 7 % 251);
  }
  return bytes;
}

template <typename T>
class EveryHasher : public testing::Test {};

struct HasherNames {
  template <typename T>
  static std::string GetName(int) {
    return std::is_same_v<T, Blake2Hasher> ? "Blake2" : "FarmHash128";
  }
};
using BothHashers = testing::Types<Blake2Hasher, FarmHash128Hasher>;
TYPED_TEST_SUITE(EveryHasher, BothHashers, HasherNames);

TYPED_TEST(EveryHasher, GivesAnEmptyBufferWhenNothingWasPushed) {
  TypeParam hasher;
  const RoBuffer digest = hasher.calculate_and_reset();
  EXPECT_EQ(digest.get_buffer(), nullptr);
  EXPECT_EQ(digest.get_size(), 0u);
}

TYPED_TEST(EveryHasher, GivesAnEmptyBufferRightAfterADigest) {
  TypeParam hasher;
  EXPECT_NE(digest_of(hasher, {"abc"}), "");
  const RoBuffer digest = hasher.calculate_and_reset();
  EXPECT_EQ(digest.get_buffer(), nullptr);
  EXPECT_EQ(digest.get_size(), 0u);
}

TYPED_TEST(EveryHasher, RefusesNullAndNoBytes) {
  TypeParam hasher;
  const std::uint8_t byte = 'x';
  EXPECT_FALSE(hasher.push(nullptr, 3));
  EXPECT_FALSE(hasher.push(nullptr, 0));
  EXPECT_FALSE(hasher.push(&byte, 0));
  EXPECT_EQ(hasher.calculate_and_reset().get_size(), 0u);
}

TYPED_TEST(EveryHasher, ChangesNothingWhenItRefuses) {
  TypeParam undisturbed;
  const std::string expected = digest_of(undisturbed, {"ab", "c"});
  TypeParam hasher;
  EXPECT_TRUE(push(hasher, "ab"));
  EXPECT_FALSE(hasher.push(nullptr, 3));
  EXPECT_FALSE(push(hasher, ""));
  EXPECT_EQ(digest_of(hasher, {"c"}), expected);
}

TYPED_TEST(EveryHasher, StartsAfreshAfterEachDigest) {
  TypeParam hasher;
  const std::string first = digest_of(hasher, {some_bytes(300), "abc"});
  EXPECT_NE(digest_of(hasher, {"other"}), first);
  EXPECT_EQ(digest_of(hasher, {some_bytes(300), "abc"}), first);
}

TYPED_TEST(EveryHasher, GivesADigestThatOutlivesIt) {
  std::unique_ptr<Hasher> hasher = std::make_unique<TypeParam>();
  EXPECT_TRUE(push(*hasher, "abc"));
  const RoBuffer digest = hasher->calculate_and_reset();
  const std::string text = hex(digest);
  EXPECT_TRUE(push(*hasher, "other"));
  const RoBuffer other = hasher->calculate_and_reset();
  hasher.reset();
  EXPECT_EQ(hex(digest), text);
  EXPECT_NE(hex(other), text);
}

TYPED_TEST(EveryHasher, GoesOnInACopyFromWhereItStands) {
  TypeParam hasher;
  EXPECT_TRUE(push(hasher, "ab"));
  TypeParam copy = hasher;
  EXPECT_EQ(digest_of(copy, {"c"}), digest_of(hasher, {"c"}));
}

TYPED_TEST(EveryHasher, ThrowsWithoutMemoryAndKeepsWhatWasPushed) {
  TypeParam undisturbed;
  const std::string expected = digest_of(undisturbed, {"ab", "c"});
  TypeParam hasher;
  EXPECT_TRUE(push(hasher, "ab"));
  test::no_memory_from = 0;
  EXPECT_THROW(hasher.calculate_and_reset(), std::bad_alloc);
  test::no_memory_from = test::kEnoughMemory;
  EXPECT_EQ(digest_of(hasher, {"c"}), expected);
}

TEST(Blake2Hasher, GivesTheStandardDigest) {
  Blake2Hasher hasher;
  EXPECT_EQ(digest_of(hasher, {"abc"}), kBlake2OfAbc);
}

TEST(Blake2Hasher, DoesNotDependOnHowTheInputIsSplit) {
  Blake2Hasher hasher;
  EXPECT_EQ(digest_of(hasher, {"a", "b", "c"}), kBlake2OfAbc);
  const std::string bytes = some_bytes(600);
  const std::string expected = blake2_by_the_library(bytes);
  for (std::size_t cut = 1; cut < bytes.size(); ++cut) {
    EXPECT_EQ(digest_of(hasher, {bytes.substr(0, cut), bytes.substr(cut)}), expected) << cut;
  }
}

TEST(Blake2Hasher, AgreesWithTheLibraryAtEveryLength) {
  Blake2Hasher hasher;
  for (std::size_t size = 1; size <= 600; ++size) {
    EXPECT_EQ(digest_of(hasher, {some_bytes(size)}), blake2_by_the_library(some_bytes(size)))
        << size;
  }
}

TEST(FarmHash128Hasher, GivesTheReleaseDigestLowHalfFirst) {
  FarmHash128Hasher hasher;
  EXPECT_EQ(digest_of(hasher, {"abc"}), kFarmHashOfAbc);
}

TEST(FarmHash128Hasher, DependsOnHowTheInputIsSplit) {
  FarmHash128Hasher hasher;
  EXPECT_NE(digest_of(hasher, {"ab", "c"}), digest_of(hasher, {"abc"}));
}

TEST(FarmHash128Hasher, SeedsEachPushWithTheResultOfTheOneBefore) {
  FarmHash128Hasher hasher;
  util::uint128_t chained(0, 0);
  std::vector<std::string> chunks;
  for (const std::size_t size : {3u, 127u, 128u, 129u, 500u}) {
    chunks.push_back(some_bytes(size));
    chained = farm_hash(chunks.back(), chained);
    EXPECT_EQ(digest_of(hasher, chunks), farm_hash_in_memory(chained)) << size;
  }
}

TEST(FarmHash128Hasher, AgreesWithTheLibraryAtEveryLength) {
  FarmHash128Hasher hasher;
  for (std::size_t size = 1; size <= 600; ++size) {
    EXPECT_EQ(digest_of(hasher, {some_bytes(size)}),
              farm_hash_in_memory(farm_hash(some_bytes(size), {0, 0})))
        << size;
  }
}

// The first use in a process: several threads begin at the same time.
SCENARIO(hash_in_many_threads) {
  constexpr int kThreads = 8;
  std::atomic<int> ready{0};
  std::atomic<int> right{0};
  test::run_threads(kThreads, [&](int) {
    ++ready;
    while (ready < kThreads) {
      std::this_thread::yield();
    }
    Blake2Hasher strong;
    FarmHash128Hasher fast;
    right += digest_of(strong, {"a", "bc"}) == kBlake2OfAbc;
    right += digest_of(fast, {"abc"}) == kFarmHashOfAbc;
  });
  return right == 2 * kThreads ? 0 : 1;
}

TEST(HasherThreads, WorksInManyThreadsFromTheFirstUseOn) {
  const auto ran = test::run_scenario("hash_in_many_threads");
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
}

}  // namespace
