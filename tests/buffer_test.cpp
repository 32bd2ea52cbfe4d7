#include <quorvane/buffer.h>

#include <gtest/gtest.h>
#include <quorvane/circular_buffer_pool.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "support/scenario.h"

namespace {

using quorvane::util::BufferBase;
using quorvane::util::BufferReader;
using quorvane::util::BufferWriter;
using quorvane::util::CircularBufferPool;
using quorvane::util::RoBuffer;
using quorvane::util::RwBuffer;

constexpr std::size_t kHuge = std::numeric_limits<std::size_t>::max();

unsigned long page() { return static_cast<unsigned long>(sysconf(_SC_PAGESIZE)); }

RwBuffer filled(const std::string& bytes) {
  RwBuffer buffer(bytes.size());
  std::memcpy(buffer.get_buffer(), bytes.data(), bytes.size());
  return buffer;
}

std::string text_of(const BufferBase& buffer) {
  return std::string(reinterpret_cast<const char*>(buffer.get_buffer()), buffer.get_size());
}

void expect_empty(const BufferBase& buffer) {
  EXPECT_EQ(buffer.get_buffer(), nullptr);
  EXPECT_EQ(buffer.get_size(), 0u);
}

static_assert(!std::is_copy_constructible_v<RwBuffer> && !std::is_copy_assignable_v<RwBuffer>);
static_assert(std::is_nothrow_move_constructible_v<RwBuffer>);
static_assert(std::is_copy_constructible_v<RoBuffer> && std::is_copy_assignable_v<RoBuffer>);

TEST(RoBuffer, IsEmptyWhenMadeOfNothing) {
  expect_empty(RoBuffer());
  expect_empty(RoBuffer::copy("abc", 0));
  expect_empty(RoBuffer::copy(nullptr, 0));
}

TEST(RoBuffer, CopyOwnsItsBytes) {
  std::string source = "abc";
  const RoBuffer copy = RoBuffer::copy(source.data(), source.size());
  source = "xyz";
  EXPECT_EQ(text_of(copy), "abc");
}

TEST(RoBuffer, ViewShowsTheBytesOfItsSource) {
  const std::string source = "abc";
  const RoBuffer view = RoBuffer::view(source.data(), source.size());
  EXPECT_EQ(static_cast<const void*>(view.get_buffer()), source.data());
  EXPECT_EQ(view.get_size(), 3u);
}

TEST(RoBuffer, CopiesShareTheBytesUntilTheLastIsGone) {
  std::optional<RoBuffer> first = RoBuffer::copy("abc", 3);
  const RoBuffer second = *first;
  EXPECT_EQ(second.get_buffer(), first->get_buffer());
  first.reset();
  EXPECT_EQ(text_of(second), "abc");
}

TEST(RoBuffer, KeepsTheOwnerOfSharedBytes) {
  auto owner = std::make_shared<unsigned char>(static_cast<unsigned char>('x'));
  const std::weak_ptr<unsigned char> watch = owner;
  const unsigned char* const data = owner.get();
  std::optional<RoBuffer> shared = RoBuffer::share(std::move(owner), data, 1);
  EXPECT_EQ(text_of(*shared), "x");
  EXPECT_FALSE(watch.expired());
  shared.reset();
  EXPECT_TRUE(watch.expired());
}

TEST(RoBuffer, TakesTheBytesOfAWritableBufferAndOutlivesIt) {
  std::optional<RwBuffer> source = filled("abc");
  const unsigned char* const data = source->get_buffer();
  const RoBuffer taken(std::move(*source));
  expect_empty(*source);
  source.reset();
  EXPECT_EQ(taken.get_buffer(), data);
  EXPECT_EQ(text_of(taken), "abc");
}

TEST(RoBuffer, IsEmptyAfterAMove) {
  RoBuffer source = RoBuffer::copy("abc", 3);
  RoBuffer target = std::move(source);
  expect_empty(source);
  source = std::move(target);
  expect_empty(target);
  EXPECT_EQ(text_of(source), "abc");
}

TEST(RoBuffer, KeepsItsBytesWhenMovedToItself) {
  RoBuffer buffer = RoBuffer::copy("abc", 3);
  RoBuffer& same = buffer;
  buffer = std::move(same);
  EXPECT_EQ(text_of(buffer), "abc");
}

TEST(RwBuffer, OfNoBytesHasSizeZero) {
  RwBuffer buffer(0);
  EXPECT_EQ(buffer.get_size(), 0u);
  EXPECT_FALSE(buffer.writer().put(std::uint8_t{1}));
}

TEST(RwBuffer, IsEmptyAfterAMove) {
  RwBuffer source = filled("abc");
  RwBuffer target(std::move(source));
  expect_empty(source);
  source = std::move(target);
  expect_empty(target);
  EXPECT_EQ(text_of(source), "abc");
}

TEST(RwBuffer, KeepsItsBytesWhenMovedToItself) {
  RwBuffer buffer = filled("abc");
  RwBuffer& same = buffer;
  buffer = std::move(same);
  EXPECT_EQ(text_of(buffer), "abc");
}

TEST(RwBuffer, GivesLentBytesBackAsTheNewestUnlessToldOtherwise) {
  CircularBufferPool pool(page());
  std::optional<RwBuffer> oldest = pool.allocate(64, nullptr);
  std::optional<RwBuffer> newest = pool.allocate(64, nullptr);
  const unsigned char* const base = oldest->get_buffer();
  newest.reset();
  newest = pool.allocate(64, nullptr);
  EXPECT_EQ(newest->get_buffer(), base + 64);
  oldest->set_pool_release_is_free(true);
  oldest.reset();
  const RwBuffer next = pool.allocate(64, nullptr);
  EXPECT_EQ(next.get_buffer(), base + 128);
}

TEST(RwBuffer, GivesLentBytesBackOnceThoughItWasMoved) {
  CircularBufferPool pool(page());
  const unsigned char* base = nullptr;
  {
    RwBuffer lent = pool.allocate(64, nullptr);
    base = lent.get_buffer();
    RwBuffer moved = std::move(lent);
    RwBuffer assigned(1);
    assigned = std::move(moved);
    EXPECT_EQ(assigned.get_buffer(), base);
  }
  EXPECT_EQ(pool.allocate(64, nullptr).get_buffer(), base);
}

TEST(RwBuffer, CarriesItsWayOfReleaseAlongWhenMoved) {
  CircularBufferPool pool(page());
  RwBuffer oldest = pool.allocate(64, nullptr);
  const unsigned char* const base = oldest.get_buffer();
  const RwBuffer newest = pool.allocate(64, nullptr);
  oldest.set_pool_release_is_free(true);
  {
    RwBuffer constructed = std::move(oldest);
    RwBuffer assigned(1);
    assigned = std::move(constructed);
  }
  EXPECT_EQ(pool.allocate(64, nullptr).get_buffer(), base + 128);
}

TEST(RwBuffer, GivesItsOwnLentBytesBackBeforeItTakesOthers) {
  CircularBufferPool pool(page());
  RwBuffer lent = pool.allocate(64, nullptr);
  const unsigned char* const base = lent.get_buffer();
  lent = filled("abc");
  EXPECT_EQ(text_of(lent), "abc");
  EXPECT_EQ(pool.allocate(64, nullptr).get_buffer(), base);
}

TEST(RwBuffer, KeepsItsLentBytesWhenItIsMovedIntoItself) {
  CircularBufferPool pool(page());
  RwBuffer lent = pool.allocate(64, nullptr);
  const unsigned char* const base = lent.get_buffer();
  RwBuffer& same = lent;
  lent = std::move(same);
  EXPECT_EQ(lent.get_buffer(), base);
  EXPECT_EQ(pool.allocate(64, nullptr).get_buffer(), base + 64);
}

SCENARIO(lent_bytes_become_read_only) {
  CircularBufferPool pool(page());
  RwBuffer lent = pool.allocate(64, nullptr);
  std::printf("%p", static_cast<const void*>(lent.get_buffer() + lent.get_size()));
  std::fflush(stdout);
  const RoBuffer taken(std::move(lent));
  return 0;
}

// The emptied buffer releases no bytes at null, but the pool expects the end of the lent bytes.
TEST(RwBuffer, EndsTheProcessWhenItsLentBytesWereTakenFromIt) {
  const auto ran = test::run_scenario("lent_bytes_become_read_only");
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(),
            std::vector<std::string>{"ERROR CircularBufferPool::deallocate called in wrong order. "
                                     "Expected " +
                                     ran.out + ", actual (nil)."});
}

TEST(BufferReader, ReadsExactlyWhatRemains) {
  const RoBuffer buffer = RoBuffer::copy("abcd", 4);
  BufferReader reader = buffer.reader();
  std::array<char, 4> out{};
  EXPECT_TRUE(reader.get_raw(out.data(), 1));
  EXPECT_EQ(reader.position(), 1u);
  EXPECT_TRUE(reader.get_raw(out.data() + 1, 3));
  EXPECT_EQ(std::string(out.data(), 4), "abcd");
  EXPECT_EQ(reader.position(), 4u);
  EXPECT_EQ(reader.remaining(), 0u);
}

TEST(BufferReader, RefusesOneByteMoreThanRemainsAndChangesNothing) {
  const RoBuffer buffer = RoBuffer::copy("abcd", 4);
  BufferReader reader = buffer.reader();
  ASSERT_NE(reader.buffer(2), nullptr);
  std::string out = "....";
  EXPECT_FALSE(reader.get_raw(out.data(), 3));
  EXPECT_EQ(reader.buffer(3), nullptr);
  EXPECT_EQ(out, "....");
  EXPECT_EQ(reader.position(), 2u);
}

TEST(BufferReader, RefusesALengthThatWrapsAround) {
  const RoBuffer buffer = RoBuffer::copy("abcd", 4);
  BufferReader reader = buffer.reader();
  ASSERT_NE(reader.buffer(2), nullptr);
  std::string out = "....";
  EXPECT_FALSE(reader.get_raw(out.data(), kHuge));
  EXPECT_FALSE(reader.get_raw(out.data(), kHuge - 1));
  EXPECT_EQ(reader.buffer(kHuge), nullptr);
  EXPECT_EQ(reader.buffer(kHuge - 1), nullptr);
  EXPECT_EQ(reader.position(), 2u);
}

TEST(BufferReader, RefusesANullDestinationEvenForNoBytes) {
  const RoBuffer buffer = RoBuffer::copy("a", 1);
  BufferReader reader = buffer.reader();
  EXPECT_FALSE(reader.get_raw(nullptr, 0));
  EXPECT_FALSE(reader.get_raw(nullptr, 1));
  EXPECT_EQ(reader.position(), 0u);
}

TEST(BufferReader, ReadsNoBytesAnywhere) {
  const RoBuffer buffer = RoBuffer::copy("a", 1);
  BufferReader reader = buffer.reader();
  char out = '.';
  EXPECT_TRUE(reader.get_raw(&out, 0));
  ASSERT_TRUE(reader.get_raw(&out, 1));
  EXPECT_TRUE(reader.get_raw(&out, 0));
  EXPECT_EQ(reader.buffer(0), buffer.get_buffer() + 1);
  EXPECT_EQ(out, 'a');
  const RoBuffer empty;
  EXPECT_TRUE(empty.reader().get_raw(&out, 0));
}

TEST(BufferReader, HandsOutBytesWithoutACopy) {
  const RoBuffer buffer = RoBuffer::copy("abcd", 4);
  BufferReader reader = buffer.reader();
  EXPECT_EQ(reader.buffer(3), buffer.get_buffer());
  EXPECT_EQ(reader.buffer(1), buffer.get_buffer() + 3);
  EXPECT_EQ(reader.buffer(1), nullptr);
}

TEST(BufferReader, ReadsScalarsLowByteFirst) {
  const RoBuffer buffer = RoBuffer::copy("\x04\x03\x02\x01\x08\0\0\0\0\0\0\x80.", 13);
  BufferReader reader = buffer.reader();
  std::uint32_t magic = 0;
  std::uint64_t count = 0;
  EXPECT_TRUE(reader.get(&magic));
  EXPECT_TRUE(reader.get(&count));
  EXPECT_EQ(magic, 0x01020304u);
  EXPECT_EQ(count, 0x8000000000000008u);
  EXPECT_FALSE(reader.get(&magic));
  EXPECT_EQ(magic, 0x01020304u);
  EXPECT_EQ(reader.position(), 12u);
}

TEST(BufferReader, CopiesACStringWithItsNulAndStaysBeforeIt) {
  const RoBuffer buffer = RoBuffer::copy(".abc\0d", 6);
  BufferReader reader = buffer.reader();
  ASSERT_NE(reader.buffer(1), nullptr);
  std::string out = "######";
  EXPECT_TRUE(reader.get_c_string(out.data(), 4));
  EXPECT_EQ(out, std::string("abc\0##", 6));
  EXPECT_EQ(reader.position(), 1u);
}

TEST(BufferReader, RefusesACStringThatDoesNotFit) {
  const RoBuffer buffer = RoBuffer::copy("abc", 4);
  BufferReader reader = buffer.reader();
  std::string out = "####";
  EXPECT_FALSE(reader.get_c_string(out.data(), 3));
  EXPECT_FALSE(reader.get_c_string(out.data(), 0));
  EXPECT_EQ(out, "####");
  EXPECT_EQ(reader.position(), 0u);
}

TEST(BufferReader, RefusesACStringWithoutANul) {
  const RoBuffer buffer = RoBuffer::copy("abc", 3);
  BufferReader reader = buffer.reader();
  std::string out = "########";
  EXPECT_FALSE(reader.get_c_string(out.data(), out.size()));
  ASSERT_NE(reader.buffer(3), nullptr);
  EXPECT_FALSE(reader.get_c_string(out.data(), out.size()));
  EXPECT_EQ(out, "########");
  EXPECT_FALSE(RoBuffer().reader().get_c_string(out.data(), out.size()));
}

TEST(BufferReader, RefusesANullDestinationForACString) {
  const RoBuffer buffer = RoBuffer::copy("", 1);
  BufferReader reader = buffer.reader();
  EXPECT_FALSE(reader.get_c_string(nullptr, 1));
  EXPECT_EQ(reader.position(), 0u);
}

TEST(BufferReader, FindsAnEmptyCString) {
  const RoBuffer buffer = RoBuffer::copy("", 1);
  char out = '.';
  EXPECT_TRUE(buffer.reader().get_c_string(&out, 1));
  EXPECT_EQ(out, '\0');
}

TEST(BufferReader, RefusesToReadOnOnceTheBytesWereMovedElsewhere) {
  RwBuffer buffer = filled("abcd");
  BufferReader reader = buffer.reader();
  ASSERT_NE(reader.buffer(2), nullptr);
  const RoBuffer taken(std::move(buffer));
  char out = '.';
  EXPECT_FALSE(reader.get_raw(&out, 1));
  EXPECT_FALSE(reader.get_c_string(&out, 1));
  EXPECT_EQ(reader.buffer(1), nullptr);
  EXPECT_EQ(reader.remaining(), 0u);
}

TEST(BufferWriter, FillsItsBufferToTheEndAndNoFurther) {
  RwBuffer buffer(6);
  BufferWriter writer = buffer.writer();
  EXPECT_TRUE(writer.put(std::uint32_t{0x64636261}));
  EXPECT_FALSE(writer.put(std::uint32_t{0}));
  EXPECT_FALSE(writer.put_raw("xyz", 3));
  EXPECT_TRUE(writer.put_raw("ef", 2));
  EXPECT_FALSE(writer.put(std::uint8_t{0}));
  EXPECT_EQ(text_of(buffer), "abcdef");
}

TEST(BufferWriter, RefusesALengthThatWrapsAround) {
  RwBuffer buffer(4);
  BufferWriter writer = buffer.writer();
  ASSERT_TRUE(writer.put_raw("ab", 2));
  EXPECT_FALSE(writer.put_raw("x", kHuge));
  EXPECT_FALSE(writer.put_raw("x", kHuge - 1));
  EXPECT_TRUE(writer.put_raw("cd", 2));
  EXPECT_EQ(text_of(buffer), "abcd");
}

TEST(BufferWriter, RefusesANullSourceEvenForNoBytes) {
  RwBuffer buffer(1);
  EXPECT_FALSE(buffer.writer().put_raw(nullptr, 0));
  EXPECT_FALSE(buffer.writer().put_raw(nullptr, 1));
}

TEST(BufferWriter, WritesNoBytesAnywhere) {
  RwBuffer buffer(1);
  BufferWriter writer = buffer.writer();
  EXPECT_TRUE(writer.put_raw("x", 0));
  ASSERT_TRUE(writer.put_raw("a", 1));
  EXPECT_TRUE(writer.put_raw("x", 0));
  EXPECT_EQ(text_of(buffer), "a");
}

TEST(BufferWriter, RefusesToWriteOnOnceTheBytesWereMovedElsewhere) {
  RwBuffer buffer(4);
  BufferWriter writer = buffer.writer();
  ASSERT_TRUE(writer.put_raw("ab", 2));
  const RoBuffer taken(std::move(buffer));
  EXPECT_FALSE(writer.put_raw("c", 1));
  EXPECT_FALSE(writer.put(std::uint8_t{0}));
  EXPECT_EQ(taken.get_size(), 4u);
}

}  // namespace
