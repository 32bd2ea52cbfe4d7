// The lazy store: its entries, its state between operations, its size and its cleaning.
#include <gtest/gtest.h>
#include <quorvane/file_store.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/lazy_files.h"
#include "support/lazy_root.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/store_maps.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

using quorvane::cache::EntryMap;
using quorvane::cache::LazyLookupStore;
using quorvane::util::BufferReader;
using quorvane::util::BufferWriter;
using quorvane::util::RoBuffer;
using quorvane::util::RwBuffer;
using test::buffer;
using test::buffers;
using test::expectation;
using test::expectation_at;
using test::kEntries;
using test::kLoaded;
using test::lazy_files;
using test::lazy_lines;
using test::LazyFiles;
using test::LazyRoot;
using test::le64;
using test::Ran;
using test::root_file;
using Maps = test::Maps<LazyLookupStore>;
using Messages = std::vector<std::string>;

// --- the pieces of the files ---

TEST(LazyStoreEntry, Takes28BytesAndTheKeyAnd8PerAtomInTheKeyFile) {
  EXPECT_EQ(
      LazyLookupStore::get_key_file_entry_representation_size(buffer("abc"), buffers({"ab", "c"})),
      28u + 3 + 16);
  EXPECT_EQ(LazyLookupStore::get_key_file_entry_representation_size(buffer("k"), {}), 29u);
}

TEST(LazyStoreEntry, Takes4BytesAndItsAtomsInTheValueFile) {
  EXPECT_EQ(LazyLookupStore::get_val_file_entry_representation_size(buffers({"ab", "c"})), 7u);
  EXPECT_EQ(LazyLookupStore::get_val_file_entry_representation_size({}), 4u);
}

TEST(LazyStoreEntry, FilesAreNamedAfterTheCache) {
  EXPECT_EQ(LazyLookupStore::get_key_fname("maps"), "key_maps");
  EXPECT_EQ(LazyLookupStore::get_val_fname("maps"), "val_maps");
}

TEST(LazyStoreEntry, IsWrittenAsMagicNumberKeyAndPositions) {
  RwBuffer bytes(47);
  BufferWriter writer = bytes.writer();
  ASSERT_TRUE(
      LazyLookupStore::write_key_file_entry(writer, buffer("abc"), 0x1234, buffers({"ab", "c"})));
  EXPECT_EQ(test::bytes_of(bytes), test::key_file_entry({"abc", {"ab", "c"}}, 0x1234));
}

TEST(LazyStoreEntry, OfTheValueFileIsAMagicNumberAndTheAtomsOneAfterTheOther) {
  RwBuffer bytes(7);
  BufferWriter writer = bytes.writer();
  ASSERT_TRUE(LazyLookupStore::write_val_file_entry(writer, buffers({"ab", "", "c"})));
  EXPECT_EQ(test::bytes_of(bytes),
            "\xa5\xc3\xa5\xc3"
            "abc");
}

TEST(LazyStoreEntry, PositionsAreReadAsTheyWereWritten) {
  const RoBuffer bytes = buffer(le64(99) + le64(2) + le64(5) + le64(7) + "rest");
  BufferReader reader = bytes.reader();
  std::size_t offset = 0;
  std::vector<std::size_t> sizes{1, 2, 3};
  ASSERT_TRUE(LazyLookupStore::read_val_atom_positions(reader, offset, sizes));
  EXPECT_EQ(offset, 99u);
  EXPECT_EQ(sizes, (std::vector<std::size_t>{5, 7}));
  EXPECT_EQ(reader.remaining(), 4u);
  BufferReader skipper = bytes.reader();
  ASSERT_TRUE(LazyLookupStore::skip_val_atom_positions(skipper));
  EXPECT_EQ(skipper.remaining(), 4u);
}

TEST(LazyStoreEntry, AtomsAreViewsAndNotCopies) {
  RoBuffer values = buffer(test::header_bytes(2) + "nonsabccc");
  std::vector<RoBuffer> val = buffers({"before"});
  ASSERT_TRUE(LazyLookupStore::shallow_read_val(values, 8, {2, 3}, val));
  ASSERT_EQ(val.size(), 3u);
  EXPECT_EQ(val[1].get_buffer(), values.get_buffer() + 12);
  EXPECT_EQ(val[1].get_size(), 2u);
  EXPECT_EQ(val[2].get_buffer(), values.get_buffer() + 14);
  EXPECT_EQ(test::bytes_of(val[2]), "ccc");
}

// Each buffer is too small for a different piece of an entry.
SCENARIO(pieces_without_room) {
  const auto value = buffers({"ab", "c"});
  for (const std::size_t size : {3u, 14u, 22u, 30u, 38u}) {
    RwBuffer bytes(size);
    BufferWriter writer = bytes.writer();
    std::printf("%d", LazyLookupStore::write_key_file_entry(writer, buffer("abc"), 8, value));
  }
  for (const std::size_t size : {3u, 6u}) {
    RwBuffer bytes(size);
    BufferWriter writer = bytes.writer();
    std::printf("%d", LazyLookupStore::write_val_file_entry(writer, value));
  }
  return 0;
}

TEST(LazyStoreEntry, StopsAtTheFirstPieceThatDoesNotFit) {
  const Ran ran = test::run_scenario("pieces_without_room");
  EXPECT_EQ(ran.out, "0000000");
  EXPECT_EQ(lazy_lines(ran),
            (Messages{expectation("fwriter.put(QV_CACHE_STORE_MAGIC_NUMBER)"),
                      expectation("fwriter.put_raw(key.get_buffer(), key.get_size())"),
                      expectation_at("fwriter.put(val_offset)", 973),
                      expectation_at("fwriter.put(val.size())", 977),
                      expectation_at("fwriter.put(val_atom.get_size())", 983),
                      expectation("fwriter.put(QV_CACHE_STORE_MAGIC_NUMBER)"),
                      expectation_at("fwriter.put_raw(val_atom.get_buffer(), val_atom.get_size())",
                                     996)}));
}

SCENARIO(damaged_positions) {
  for (const std::string& bytes :
       {le64(9).substr(1), le64(9) + "1234567", le64(9) + le64(0), le64(9) + le64(1),
        le64(9) + le64(2) + le64(1) + "1234567", le64(9) + le64(2) + le64(1) + le64(0)}) {
    const RoBuffer positions = buffer(bytes);
    BufferReader reader = positions.reader();
    BufferReader skipper = positions.reader();
    std::size_t offset = 0;
    std::vector<std::size_t> sizes;
    const bool read = LazyLookupStore::read_val_atom_positions(reader, offset, sizes);
    std::printf("%d%d ", read, LazyLookupStore::skip_val_atom_positions(skipper));
  }
  return 0;
}

TEST(LazyStoreEntry, DamagedPositionsFailAtTheFirstDamage) {
  const Ran ran = test::run_scenario("damaged_positions");
  // A reader that skips the sizes doesn't notice a size of 0.
  EXPECT_EQ(ran.out, "00 00 00 00 00 01 ");
  const std::string too_many =
      expectation_at("key_freader.buffer(num_val_atoms * sizeof(std::size_t))", 963);
  const std::string no_size = expectation_at("key_freader.get(&val_atom_size)", 911);
  EXPECT_EQ(
      ran.messages(),
      (Messages{expectation_at("key_freader.get(&val_offset)", 897),
                expectation_at("key_freader.buffer(sizeof(std::size_t))", 950),
                expectation_at("key_freader.get(&num_val_atoms)", 902),
                expectation_at("key_freader.get(&num_val_atoms)", 955),
                expectation_at("num_val_atoms > 0", 904), expectation_at("num_val_atoms > 0", 957),
                no_size, too_many, no_size, too_many, expectation_at("val_atom_size > 0", 913)}));
}

// --- the state between operations ---

SCENARIO(vanished_files) {
  Maps maps;
  maps.load();
  std::remove(root_file("key_maps").c_str());
  std::remove(root_file("val_maps").c_str());
  std::printf("consistent %d\n", maps.store.check_consistent_state());
  maps.load();
  maps.scan();
  return 0;
}

TEST(LazyStoreState, FilesThatVanishedAfterTheirLoadFailEverything) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("vanished_files");
  EXPECT_EQ(ran.out, kLoaded + "consistent 0\nload 0\nscan 0\n");
  const std::string gone = expectation_at("key_file_last_size_ == 0 || key_file_exists", 1041);
  EXPECT_EQ(ran.messages(),
            (Messages{root.opened_key(), root.opened_val(), root.loaded(), gone, gone, gone}));
}

// --- disk usage and cleaning ---

SCENARIO(usage) { return test::print_usage<LazyLookupStore>(arguments); }

TEST(LazyStoreUsage, IsTheSizeOfBothFiles) {
  const LazyFiles files = lazy_files(kEntries);
  const std::string size = std::to_string(files.key.size() + files.val.size());
  EXPECT_EQ(LazyRoot(files).run("usage").out, size + " " + size);
}

TEST(LazyStoreUsage, OfAMissingFileIsZeroAndACheckOfSeverity3) {
  const LazyRoot root;
  EXPECT_EQ(root.run("usage").out, "0 0");
  EXPECT_EQ(root.run("usage").messages(), Messages{});
  const std::string key = expectation_at("stat(key_fpath_.c_str(), &st) == 0", 1365);
  const std::string val = expectation_at("stat(val_fpath_.c_str(), &st) == 0", 1368);
  EXPECT_EQ(root.run("usage", {"loud"}).messages(), (Messages{key, val, key, val}));
  test::write_file(root.val(), "12345");
  EXPECT_EQ(root.run("usage").out, "5 5");
  EXPECT_EQ(root.run("usage", {"loud"}).messages(), (Messages{key, key}));
}

SCENARIO(clean) {
  Maps maps;
  EntryMap out;
  maps.store.try_nonlock_load(out);
  maps.store.nonlock_clean();
  maps.store.clean();
  std::printf("%s", test::listing(out).c_str());
  return 0;
}

TEST(LazyStoreClean, RemovesBothFilesSaysSoWhateverTheResultAndKeepsTheValuesMapped) {
  const LazyRoot root(lazy_files(kEntries));
  const Ran ran = root.run("clean");
  EXPECT_TRUE(root.has_neither());
  EXPECT_EQ(ran.out, "b=2,3\naa=1\n");
  const std::string cleaned =
      "DEBUG Cachemap files " + root.key() + " and " + root.val() + " cleaned";
  EXPECT_EQ(ran.messages(),
            (Messages{root.opened_key(), root.opened_val(), root.loaded(), cleaned, cleaned}));
}

// Reports the names of the files that are deleted in a directory, in order.
class Deletions {
 public:
  explicit Deletions(const std::string& directory) : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    inotify_add_watch(fd_, directory.c_str(), IN_DELETE);
  }
  ~Deletions() { close(fd_); }
  Deletions(const Deletions&) = delete;
  Deletions& operator=(const Deletions&) = delete;

  std::vector<std::string> names() const {
    alignas(inotify_event) char events[4096];
    const ssize_t size = read(fd_, events, sizeof(events));
    std::vector<std::string> names;
    for (const char* at = events; at < events + size;) {
      const auto* event = reinterpret_cast<const inotify_event*>(at);
      names.emplace_back(event->name);
      at += sizeof(inotify_event) + event->len;
    }
    return names;
  }

 private:
  int fd_;
};

TEST(LazyStoreClean, RemovesTheValuesFirst) {
  const LazyRoot root(lazy_files(kEntries));
  const Deletions deletions(root.path());
  root.run("clean");
  EXPECT_EQ(deletions.names(), (std::vector<std::string>{"val_maps", "key_maps"}));
}

SCENARIO(locked_load_with_threshold) {
  return test::load_under_threshold<LazyLookupStore>(arguments);
}

TEST(LazyStoreClean, FilesLargerThanTheThresholdAreRemovedBeforeTheyAreLoaded) {
  const LazyFiles files = lazy_files(kEntries);
  const std::size_t size = files.key.size() + files.val.size();
  const LazyRoot root(files);
  EXPECT_EQ(root.run("locked_load_with_threshold", {std::to_string(size)}).out, "1 2\n");
  EXPECT_EQ(root.run("locked_load_with_threshold", {std::to_string(size - 1)}).out, "0 0\n");
  EXPECT_TRUE(root.has_neither());
}
