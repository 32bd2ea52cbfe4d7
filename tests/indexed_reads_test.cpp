// How caches on indexed stores read the entries that they find: with few pages mapped, and
// right whatever happens to the descriptor.
#include <quorvane/cache.h>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "support/descriptors.h"
#include "support/indexed_cache.h"
#include "support/refuse.h"
#include "support/scenario.h"
#include "support/temp_dir.h"
#include "support/threads.h"

namespace {

using quorvane::cache::Cache;
using test::add;
using test::get;
using test::numbered;

constexpr std::size_t kEntries = 2000;
const std::string kSmall(2000, 's');
const std::string kTiny(100, 't');

// The descriptor that this process has open on a file; -1 without one.
int descriptor_on(const std::string& path) {
  for (int fd = 0; fd < 1024; ++fd) {
    std::error_code error;
    if (std::filesystem::equivalent("/proc/self/fd/" + std::to_string(fd), path, error)) {
      return fd;
    }
  }
  return -1;
}

class IndexedReads : public testing::Test {
 protected:
  IndexedReads() {
    const auto cache = open();
    for (std::size_t i = 0; i < kEntries; ++i) {
      add(*cache, numbered("tiny", i), kTiny + std::to_string(i));
      add(*cache, numbered("small", i), kSmall + std::to_string(i));
    }
  }

  std::unique_ptr<Cache> open() const { return test::open_cache(root_.path()); }
  std::string data() const { return root_.path() + "/dat_maps"; }

  int descriptor() const { return descriptor_on(data()); }

  static void expect_tiny(Cache& cache, std::size_t first, std::size_t count) {
    for (std::size_t i = first; i < first + count; ++i) {
      EXPECT_EQ(get(cache, numbered("tiny", i)), kTiny + std::to_string(i));
    }
  }

  test::TempDir root_;
};

#ifndef __SANITIZE_THREAD__  // under which all reads go through the mapping
// How much of the file's mapping this process has touched.
std::uint64_t resident_kib(const std::string& path) {
  std::ifstream maps("/proc/self/smaps");
  std::string line;
  bool is_of_file = false;
  std::uint64_t kib = 0;
  while (std::getline(maps, line)) {
    if (line.find('-') < line.find(' ')) {
      is_of_file = line.find(path) != line.npos;
    }
    std::uint64_t rss = 0;
    std::string word;
    if (is_of_file && std::istringstream(line) >> word >> rss && word == "Rss:") {
      kib += rss;
    }
  }
  return kib;
}

TEST_F(IndexedReads, MapNothingForAFewSmallEntries) {
  const auto cache = open();
  expect_tiny(*cache, 0, 20);
  EXPECT_EQ(test::read_file("/proc/self/maps").find(data()), std::string::npos);
}

TEST_F(IndexedReads, GoThroughTheMappingAfterMany) {
  const auto cache = open();
  expect_tiny(*cache, 0, kEntries);
  EXPECT_GT(resident_kib(data()), 0);
}
#endif

TEST_F(IndexedReads, FindEntriesThatAreTooLargeForOneRead) {
  const auto cache = open();
  for (std::size_t i = 0; i < 20; ++i) {
    EXPECT_EQ(get(*cache, numbered("small", i)), kSmall + std::to_string(i));
  }
}

TEST_F(IndexedReads, FindThemInSeveralThreadsThatAreTheFirst) {
  for (int round = 0; round < 20; ++round) {
    const auto cache = open();
    test::run_threads(8, [&](int thread) {
      const auto number = static_cast<std::size_t>(thread);
      EXPECT_EQ(get(*cache, numbered("small", number)), kSmall + std::to_string(number));
    });
  }
}

TEST_F(IndexedReads, FindEntriesThatAreTooLargeAfterTheProgramHasClosedTheDescriptor) {
  const auto cache = open();
  close(descriptor());
  EXPECT_EQ(get(*cache, "small1"), kSmall + "1");
}

TEST_F(IndexedReads, TakeNoOtherFileUnderTheirNumberForTheirs) {
  const auto cache = open();
  const int fd = descriptor();
  const int own = ::open("/dev/zero", O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(dup2(own, fd), fd);
  EXPECT_EQ(get(*cache, "small1"), kSmall + "1");
  close(fd);
  close(own);
}

int g_theirs = -1;
bool g_is_replaced = false;

void open_another_file() {
  const int own = ::open("/dev/zero", O_RDONLY | O_CLOEXEC);
  g_is_replaced = dup2(own, g_theirs) == g_theirs;
  close(own);
}

// The program closes our descriptor and opens a file of its own under the number, after we have
// looked whose it is and before we map it. Prints whether it did, whether we find a large entry,
// and whether we keep the other file mapped. The kernel refuses to map so many bytes or, without an
// argument, to map the other file.
SCENARIO(map_what_is_replaced_meanwhile) {
  const auto cache = test::open_cache(arguments.at(0));
  g_theirs = descriptor_on(arguments.at(0) + "/dat_maps");
  const test::When when = arguments.size() > 1
                              ? test::When{1, static_cast<std::uint32_t>(std::stoul(arguments[1]))}
                              : test::When{4, static_cast<std::uint32_t>(g_theirs)};
  test::refuse_after(SYS_mmap, ENOMEM, when, &open_another_file);
  const bool is_found = get(*cache, "small1") == kSmall + "1";
  const bool is_kept = test::read_file("/proc/self/maps").find("/dev/zero") != std::string::npos;
  std::printf("%d %d %d", g_is_replaced, is_found, is_kept);
  return 0;
}

TEST_F(IndexedReads, TakeNoFileForTheirsThatGotTheirNumberMeanwhile) {
  struct statfs on;
  ASSERT_EQ(statfs(root_.path().c_str(), &on), 0);
  if (on.f_type == OVERLAYFS_SUPER_MAGIC) {
    return;  // there, no mapping has room, so none is tried without
  }
  constexpr std::uint64_t kLeastRoom = std::uint64_t{64} << 20;
  ASSERT_LT(2 * std::filesystem::file_size(data()), kLeastRoom);
  const test::Ran ran = test::run_scenario("map_what_is_replaced_meanwhile", {},
                                           {root_.path(), std::to_string(kLeastRoom)});
  EXPECT_EQ(ran.out, "1 1 0");
  EXPECT_THAT(ran.messages(), testing::Not(testing::Contains(testing::HasSubstr("Couldn't"))));
}

TEST_F(IndexedReads, OpenTheirFileAgainWhenAnotherGotTheirNumberAndCannotBeMapped) {
  const test::Ran ran = test::run_scenario("map_what_is_replaced_meanwhile", {}, {root_.path()});
  EXPECT_EQ(ran.out, "1 1 0");
  EXPECT_THAT(ran.messages(), testing::Not(testing::Contains(testing::HasSubstr("Couldn't"))));
}

// Prints whether it finds a large entry, twice, and then whether it stores one.
SCENARIO(use_what_cannot_be_mapped) {
  const auto cache = test::open_cache(arguments.at(0));
  test::refuse(SYS_mmap, ENOMEM, test::When{3, MAP_SHARED});
  std::printf("%d ", get(*cache, "small1").has_value());
  std::printf("%d ", get(*cache, "small2").has_value());
  add(*cache, "new", "value");
  std::printf("%d", cache->flush());
  std::fflush(stdout);
  _exit(0);
}

TEST_F(IndexedReads, MissWhatCannotBeMappedAndSaySo) {
  const test::Ran ran = test::run_scenario("use_what_cannot_be_mapped", {}, {root_.path()});
  EXPECT_EQ(ran.out, "0 0 0");
  const std::string record = "WARN Couldn't map " + data() + ": Cannot allocate memory";
  const auto messages = ran.messages();
  EXPECT_EQ(std::count(messages.begin(), messages.end(), record), 2) << "a look-up's, the flush's";
  const auto cache = open();
  EXPECT_EQ(get(*cache, "small1"), kSmall + "1");
  EXPECT_EQ(get(*cache, "new"), std::nullopt);
}

SCENARIO(rebuild_what_cannot_be_mapped) {
  test::refuse(SYS_mmap, ENOMEM, test::When{3, MAP_SHARED});
  std::printf("%d", test::open_cache(arguments.at(0))->is_valid());
  return 0;
}

TEST_F(IndexedReads, GiveNoIndexOfWhatCannotBeMapped) {
  std::filesystem::remove(root_.file("idx_maps"));
  const test::Ran ran = test::run_scenario("rebuild_what_cannot_be_mapped", {}, {root_.path()});
  EXPECT_EQ(ran.out, "0");
  EXPECT_THAT(ran.messages(),
              testing::Contains("ERROR Couldn't map " + data() + ": Cannot allocate memory"));
  EXPECT_EQ(open()->size(), 2 * kEntries);
}

TEST_F(IndexedReads, GoOnWhenTheProgramHasClosedTheDescriptor) {
  const auto cache = open();
  const int fd = descriptor();
  ASSERT_GE(fd, 3);
  close(fd);
  expect_tiny(*cache, 0, 100);
}

TEST_F(IndexedReads, IgnoreAndKeepAFileOfTheProgramUnderTheirNumber) {
  const std::string other = root_.path() + "/other";
  std::filesystem::copy_file(data(), other);
  {  // a file with entries like ours, in which nothing is right
    std::fstream file(other, std::ios::in | std::ios::out | std::ios::binary);
    std::string bytes = test::read_file(other);
    for (const std::size_t offset : test::indexed_offsets(bytes)) {
      bytes[offset + 24 + 8 + 6] ^= 1;  // behind the header and a size: in the key
    }
    file << bytes;
  }
  auto cache = open();
  const int fd = descriptor();
  ASSERT_GE(fd, 3);
  const int own = ::open(other.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(dup2(own, fd), fd);
  expect_tiny(*cache, 0, 100);
  cache.reset();
  EXPECT_GE(fcntl(fd, F_GETFD), 0) << "the program's descriptor was closed";
  close(fd);
  close(own);
}

TEST_F(IndexedReads, ReadAValueThatIsWrongUnderTheirNumberFromTheMapping) {
  const std::string other = root_.path() + "/other";
  std::string bytes = test::read_file(data());
  for (std::size_t at = 0; (at = bytes.find(kTiny, at)) != bytes.npos; ++at) {
    bytes[at] = 'x';  // the keys fit
  }
  test::write_file(other, bytes);
  const auto cache = open();
  const int fd = descriptor();
  ASSERT_GE(fd, 3);
  const int own = ::open(other.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(dup2(own, fd), fd);
  expect_tiny(*cache, 0, 100);
  close(fd);
  close(own);
}

TEST_F(IndexedReads, KeepOneDescriptorAsLongAsTheCacheLives) {
  const int before = test::open_descriptors();
  {
    const auto cache = open();
    expect_tiny(*cache, 0, 10);
    EXPECT_EQ(test::open_descriptors(), before + 1);
  }
  EXPECT_EQ(test::open_descriptors(), before);
  EXPECT_EQ(descriptor(), -1);
}

}  // namespace
