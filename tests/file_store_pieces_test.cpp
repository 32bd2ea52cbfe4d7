// The pieces of an entry in a store file: the magic number, the key and the value, read and
// written.
#include <gtest/gtest.h>
#include <quorvane/file_store.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

using quorvane::cache::FileStoreSkeleton;
using quorvane::util::BufferReader;
using quorvane::util::RoBuffer;
using quorvane::util::RwBuffer;
using test::buffer;
using test::buffers;
using test::expectation;
using test::le64;
using test::Ran;
using test::run_scenario;
using test::TempDir;
using test::without_lines;
using Messages = std::vector<std::string>;

// Arguments: a piece and a file. Reads the piece and prints the result and, for "skip", the
// position.
SCENARIO(read_piece) {
  const std::string& piece = arguments.at(0);
  const RoBuffer bytes = buffer(test::read_file(arguments.at(1)));
  BufferReader reader = bytes.reader();
  std::vector<RoBuffer> atoms;
  if (piece == "magic") {
    std::printf("%d", FileStoreSkeleton::read_magic_number(reader));
  } else if (piece == "key") {
    const RoBuffer key = FileStoreSkeleton::read_key(reader);
    std::printf("%s:%zu", key.get_buffer() == nullptr ? "null" : test::bytes_of(key).c_str(),
                key.get_size());
  } else if (piece == "value") {
    std::printf("%d", FileStoreSkeleton::read_val(reader, atoms));
    for (const RoBuffer& atom : atoms) {
      std::printf("[%s]", test::bytes_of(atom).c_str());
    }
  } else {
    const bool skipped = FileStoreSkeleton::skip_val(reader);
    std::printf("%d %zu", skipped, reader.position());
  }
  return 0;
}

Ran read_piece(const std::string& piece, const std::string& bytes) {
  const TempDir dir;
  test::write_file(dir.file("bytes"), bytes);
  return run_scenario("read_piece", {}, {piece, dir.file("bytes")});
}

void expect_piece(const std::string& piece, const std::string& bytes, const std::string& out) {
  const Ran ran = read_piece(piece, bytes);
  EXPECT_EQ(ran.out, out);
  EXPECT_EQ(ran.messages(), Messages{});
}

void expect_failure(const std::string& piece, const std::string& bytes, const std::string& out,
                    const std::string& check) {
  const Ran ran = read_piece(piece, bytes);
  EXPECT_EQ(ran.out, out) << check;
  EXPECT_EQ(without_lines(ran.messages()), Messages{expectation(check)});
}

TEST(StoreMagicNumber, IsFourBytesInLittleEndianOrder) {
  EXPECT_EQ(quorvane::cache::QV_CACHE_STORE_MAGIC_NUMBER, 0xC3A5C3A5u);
  expect_piece("magic", "\xa5\xc3\xa5\xc3", "1");
  expect_failure("magic", "\xa5\xc3\xa5", "0", "freader.get(&magic_number)");
  expect_failure("magic", "\xc3\xa5\xc3\xa5", "0", "magic_number == QV_CACHE_STORE_MAGIC_NUMBER");
}

TEST(StoreKey, IsItsSizeAndItsBytes) { expect_piece("key", le64(3) + "abcd", "abc:3"); }

TEST(StoreKey, FailsAsAnEmptyBuffer) {
  expect_failure("key", le64(3).substr(0, 7), "null:0", "freader.get(&key_size)");
  expect_failure("key", le64(0) + "abc", "null:0", "key_size > 0");
  for (const std::uint64_t size : {std::uint64_t{4}, std::uint64_t{1} << 63, ~std::uint64_t{0}}) {
    expect_failure("key", le64(size) + "abc", "null:0",
                   "freader.get_raw(rvalbuf.get_buffer(), key_size)");
  }
}

TEST(StoreValue, IsItsCountAndItsAtoms) {
  expect_piece("value", test::value_bytes({"ab", "c"}) + "x", "1[ab][c]");
  expect_piece("skip", test::value_bytes({"ab", "c"}) + "x", "1 27");
}

TEST(StoreValue, FailsWithoutItsCountOrAtoms) {
  expect_failure("value", "1234567", "0", "freader.get(&num_val_atoms)");
  expect_failure("value", le64(0), "0", "num_val_atoms > 0");
  expect_failure("value", le64(2) + le64(1) + "a", "0[a]", "freader.get(&val_atom_size)");
  expect_failure("value", le64(1) + le64(0), "0", "val_atom_size > 0");
  expect_failure("value", le64(~std::uint64_t{0}) + le64(1) + "a", "0[a]",
                 "freader.get(&val_atom_size)");
}

TEST(StoreValue, FailsWhenAnAtomIsLongerThanWhatRemains) {
  for (const std::uint64_t size : {std::uint64_t{2}, std::uint64_t{1} << 63, ~std::uint64_t{0}}) {
    expect_failure("value", le64(1) + le64(size) + "a", "0",
                   "freader.get_raw(val_atom_buf.get_buffer(), val_atom_size)");
    expect_failure("skip", le64(1) + le64(size) + "a", "0 16", "freader.buffer(val_atom_size)");
  }
}

TEST(StoreValue, IsPassedOverWithTheSameChecks) {
  expect_failure("skip", "1234567", "0 0", "freader.get(&num_val_atoms)");
  expect_failure("skip", le64(0), "0 8", "num_val_atoms > 0");
  expect_failure("skip", le64(2) + le64(1) + "a", "0 17", "freader.get(&val_atom_size)");
  expect_failure("skip", le64(1) + le64(0), "0 16", "val_atom_size > 0");
}

TEST(StoreValue, EachAtomOwnsItsBytes) {
  std::vector<RoBuffer> atoms;
  {
    RwBuffer bytes(test::value_bytes({"ab", "c"}).size());
    bytes.writer().put_raw(test::value_bytes({"ab", "c"}).data(), bytes.get_size());
    BufferReader reader = bytes.reader();
    ASSERT_TRUE(FileStoreSkeleton::read_val(reader, atoms));
    std::memset(bytes.get_buffer(), 'x', bytes.get_size());
  }
  ASSERT_EQ(atoms.size(), 2u);
  EXPECT_EQ(test::bytes_of(atoms[0]), "ab");
  EXPECT_EQ(test::bytes_of(atoms[1]), "c");
}

TEST(StoreValue, AKeyOwnsItsBytes) {
  RoBuffer key;
  {
    RwBuffer bytes(11);
    bytes.writer().put_raw((le64(3) + "abc").data(), 11);
    BufferReader reader = bytes.reader();
    key = FileStoreSkeleton::read_key(reader);
    std::memset(bytes.get_buffer(), 'x', bytes.get_size());
  }
  EXPECT_EQ(test::bytes_of(key), "abc");
}

// Arguments: a piece, the size of a buffer, and the file that gets the buffer on success.
SCENARIO(write_piece) {
  RwBuffer bytes(std::stoul(arguments.at(1)));
  quorvane::util::BufferWriter writer = bytes.writer();
  const std::string& piece = arguments.at(0);
  bool written = false;
  if (piece == "magic") {
    written = FileStoreSkeleton::write_magic_number(writer);
  } else if (piece == "key") {
    written = FileStoreSkeleton::write_key(writer, buffer("abc"));
  } else {
    written = FileStoreSkeleton::write_val(writer, buffers({"ab", "c"}));
  }
  if (written) {
    test::write_file(arguments.at(2), test::bytes_of(bytes));
  }
  return 0;
}

void expect_written(const std::string& piece, const std::string& bytes) {
  const TempDir dir;
  const Ran ran =
      run_scenario("write_piece", {}, {piece, std::to_string(bytes.size()), dir.file("bytes")});
  EXPECT_EQ(test::read_file(dir.file("bytes")), bytes);
  EXPECT_EQ(ran.messages(), Messages{});
}

void expect_no_room(const std::string& piece, std::size_t room, const std::string& check) {
  const TempDir dir;
  const Ran ran = run_scenario("write_piece", {}, {piece, std::to_string(room), dir.file("bytes")});
  EXPECT_FALSE(test::exists(dir.file("bytes")));
  EXPECT_EQ(without_lines(ran.messages()), Messages{expectation(check)});
}

TEST(StoreWriting, FillsABufferOfExactlyTheSize) {
  expect_written("magic", "\xa5\xc3\xa5\xc3");
  expect_written("key", le64(3) + "abc");
  expect_written("value", test::value_bytes({"ab", "c"}));
}

TEST(StoreWriting, StopsWhereTheBufferEnds) {
  expect_no_room("magic", 3, "fwriter.put(QV_CACHE_STORE_MAGIC_NUMBER)");
  expect_no_room("key", 7, "fwriter.put(key.get_size())");
  expect_no_room("key", 10, "fwriter.put_raw(key.get_buffer(), key.get_size())");
  expect_no_room("value", 7, "fwriter.put(val.size())");
  expect_no_room("value", 15, "fwriter.put(val_atom.get_size())");
  expect_no_room("value", 17, "fwriter.put_raw(val_atom.get_buffer(), val_atom.get_size())");
  expect_no_room("value", 18, "fwriter.put(val_atom.get_size())");
}

TEST(StoreWriting, DoesNotMindSizesThatAReaderRefuses) {
  RwBuffer bytes(8);
  quorvane::util::BufferWriter writer = bytes.writer();
  EXPECT_TRUE(FileStoreSkeleton::write_val(writer, {}));
  EXPECT_EQ(test::bytes_of(bytes), le64(0));
}
