#include <quorvane/mmapped_file.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <quorvane/module.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/refuse.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using quorvane::util::MMappedFile;
using test::next_descriptor;  // unchanged if no descriptor has leaked
using Messages = std::vector<std::string>;

std::size_t page() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }

void open_to_read(MMappedFile& file, const std::string& path) {
  file.open(path, O_RDONLY, 0, PROT_READ, MAP_PRIVATE);
}

// The bytes of address space that map `path`.
std::size_t mapped_bytes(const std::string& path) {
  std::ifstream maps("/proc/self/maps");
  std::size_t bytes = 0;
  for (std::string line; std::getline(maps, line);) {
    if (line.size() > path.size() && line.substr(line.size() - path.size()) == path) {
      std::istringstream range(line);
      std::size_t begin = 0;
      std::size_t end = 0;
      char dash = 0;
      range >> std::hex >> begin >> dash >> end;
      bytes += end - begin;
    }
  }
  return bytes;
}

bool is_closed(const MMappedFile& file) {
  return !file.is_open() && file.data() == MAP_FAILED && file.size() == 0;
}

// A scenario's first argument is a path; the next two are the module's thresholds.
void set_thresholds(const test::Arguments& arguments) {
  auto* const module =
      static_cast<quorvane::module::Module*>(qv_module_find("util/src/mmapped_file"));
  module->fault_log_level = std::stoi(arguments.at(1));
  module->fault_abort_level = std::stoi(arguments.at(2));
}

const std::string kRefusedOpen =
    "ERROR QV_FAULT_EXPECT: expectation (fd_ >= 0) failed (util/src/mmapped_file:20)";
const std::string kRefusedFstat =
    "ERROR QV_FAULT_EXPECT: expectation (fstat(fd_, &s) == 0) failed (util/src/mmapped_file:27)";
const std::string kRefusedMmap =
    "ERROR QV_FAULT_EXPECT: expectation (data_ != MAP_FAILED) failed (util/src/mmapped_file:42)";
const std::string kRefusedMunmap =
    "ERROR QV_FAULT_EXPECT: expectation (munmap(data_, mmap_size_) == 0) failed "
    "(util/src/mmapped_file:66)";
const std::string kRefusedClose =
    "ERROR QV_FAULT_EXPECT: expectation (::close(fd_) == 0) failed (util/src/mmapped_file:75)";

TEST(MMappedFile, StartsClosed) {
  MMappedFile file;
  EXPECT_TRUE(is_closed(file));
  file.close();
  EXPECT_TRUE(is_closed(file));
}

TEST(MMappedFile, MapsAWholePageForAFileOfOneByte) {
  const test::TempDir dir;
  const std::string path = dir.file("one");
  test::write_file(path, "x");
  MMappedFile file;
  open_to_read(file, path);
  ASSERT_TRUE(file.is_open());
  EXPECT_EQ(file.size(), 1u);
  EXPECT_EQ(file.data()[0], 'x');
  EXPECT_EQ(file.data()[page() - 1], 0);
  EXPECT_EQ(mapped_bytes(path), page());
}

TEST(MMappedFile, MapsExactlyThePagesOfAFile) {
  const test::TempDir dir;
  for (const std::size_t pages : {1u, 3u}) {
    const std::string path = dir.file(std::to_string(pages));
    test::write_file(path, std::string(pages * page(), 'p'));
    MMappedFile file;
    open_to_read(file, path);
    ASSERT_TRUE(file.is_open());
    EXPECT_EQ(file.size(), pages * page());
    EXPECT_EQ(mapped_bytes(path), pages * page());
    EXPECT_EQ(file.data()[file.size() - 1], 'p');
  }
}

TEST(MMappedFile, RoundsOneByteAboveAPageUpToTwo) {
  const test::TempDir dir;
  const std::string path = dir.file("file");
  test::write_file(path, std::string(page() + 1, 'p'));
  MMappedFile file;
  open_to_read(file, path);
  EXPECT_EQ(file.size(), page() + 1);
  EXPECT_EQ(mapped_bytes(path), 2 * page());
}

// The content of a file "abc" after a change to its second byte in a mapping.
std::string after_a_change(int open_flags, int map_flags) {
  const test::TempDir dir;
  const std::string path = dir.file("file");
  test::write_file(path, "abc");
  MMappedFile file;
  file.open(path, open_flags, 0, PROT_READ | PROT_WRITE, map_flags);
  if (!file.is_open()) {
    return "not open";
  }
  file.data()[1] = 'B';
  file.close();
  return test::read_file(path);
}

TEST(MMappedFile, WritesThroughASharedMapping) {
  EXPECT_EQ(after_a_change(O_RDWR, MAP_SHARED), "aBc");
}

TEST(MMappedFile, KeepsThePrivateMappingsChangesToItself) {
  EXPECT_EQ(after_a_change(O_RDONLY, MAP_PRIVATE), "abc");
}

TEST(MMappedFile, HandsFlagsAndModeToTheKernel) {
  const test::TempDir dir;
  MMappedFile file;
  file.open(dir.file("new"), O_RDWR | O_CREAT | O_EXCL, 0400, PROT_READ, MAP_SHARED);
  EXPECT_TRUE(is_closed(file));  // a new file is empty
  struct stat status {};
  ASSERT_EQ(stat(dir.file("new").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0400u);
}

TEST(MMappedFile, GivesMappingAndDescriptorBackWhenClosedOrDestroyed) {
  const test::TempDir dir;
  const std::string path = dir.file("file");
  test::write_file(path, "abc");
  const auto descriptor = next_descriptor();
  {
    MMappedFile file;
    open_to_read(file, path);
    ASSERT_TRUE(file.is_open());
    EXPECT_NE(next_descriptor(), descriptor);
    file.close();
    EXPECT_TRUE(is_closed(file));
    EXPECT_EQ(mapped_bytes(path), 0u);
    EXPECT_EQ(next_descriptor(), descriptor);
    open_to_read(file, path);
    EXPECT_TRUE(file.is_open());
  }
  EXPECT_EQ(mapped_bytes(path), 0u);
  EXPECT_EQ(next_descriptor(), descriptor);
}

// Succeeds if an attempt to open the first argument leaves the file and its descriptor closed.
SCENARIO(open_a_path) {
  set_thresholds(arguments);
  const auto descriptor = next_descriptor();
  MMappedFile file;
  open_to_read(file, arguments.at(0));
  return is_closed(file) && next_descriptor() == descriptor ? 0 : 1;
}

SCENARIO(open_and_close_a_path) {
  MMappedFile file;
  open_to_read(file, arguments.at(0));
  return file.is_open() ? 0 : 1;
}

TEST(MMappedFile, LogsASuccessAtDebugOnly) {
  const test::TempDir dir;
  const std::string path = dir.file("file");
  test::write_file(path, "abc");
  const auto ran = test::run_scenario("open_and_close_a_path", {}, {path});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Messages{"DEBUG Opened and mmapped " + path + " file"});
  const auto quiet =
      test::run_scenario("open_and_close_a_path", {{"QV_LOG_LEVEL", "TRACE"}}, {path});
  EXPECT_TRUE(quiet.exited_with(0));
  EXPECT_EQ(quiet.messages(), Messages{});
}

TEST(MMappedFile, IsSilentAboutAMissingFile) {
  const test::TempDir dir;
  const auto ran = test::run_scenario("open_a_path", {}, {dir.file("none"), "2", "0"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Messages{});
}

TEST(MMappedFile, LogsAMissingFileWhenSeverityThreeIsLogged) {
  const test::TempDir dir;
  const auto ran = test::run_scenario("open_a_path", {}, {dir.file("none"), "3", "2"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Messages{kRefusedOpen});
}

TEST(MMappedFile, AbortsOnAMissingFileWhenSeverityThreeIsFatal) {
  const test::TempDir dir;
  const auto silent = test::run_scenario("open_a_path", {}, {dir.file("none"), "2", "3"});
  EXPECT_TRUE(silent.aborted());
  EXPECT_EQ(silent.messages(), Messages{});
  const auto logged = test::run_scenario("open_a_path", {}, {dir.file("none"), "3", "3"});
  EXPECT_TRUE(logged.aborted());
  EXPECT_EQ(logged.messages(), Messages{kRefusedOpen});
}

TEST(MMappedFile, StaysClosedOnAnEmptyFile) {
  const test::TempDir dir;
  const std::string path = dir.file("empty");
  test::write_file(path, "");
  const std::string reason = "DEBUG mmap(" + path + ") failed with error: Invalid argument";
  const auto ran = test::run_scenario("open_a_path", {}, {path, "2", "0"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Messages{reason});
  const auto logged = test::run_scenario("open_a_path", {}, {path, "3", "0"});
  EXPECT_TRUE(logged.exited_with(0));
  EXPECT_EQ(logged.messages(), (Messages{kRefusedMmap, reason}));
  const auto fatal = test::run_scenario("open_a_path", {}, {path, "3", "3"});
  EXPECT_TRUE(fatal.aborted());
  EXPECT_EQ(fatal.messages(), Messages{kRefusedMmap});
}

TEST(MMappedFile, LogsTheReasonOfARefusedMappingAtDebugOnly) {
  const test::TempDir dir;
  test::write_file(dir.file("empty"), "");
  const auto ran =
      test::run_scenario("open_a_path", {{"QV_LOG_LEVEL", "TRACE"}}, {dir.file("empty"), "2", "0"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Messages{});
}

// Refuses by flags, so that the process's other mappings succeed.
SCENARIO(open_a_path_that_mmap_refuses) {
  set_thresholds(arguments);
  const auto descriptor = next_descriptor();
  MMappedFile file;
  test::refuse(SYS_mmap, ENOMEM, test::When{3, MAP_SHARED | MAP_POPULATE});
  file.open(arguments.at(0), O_RDONLY, 0, PROT_READ, MAP_SHARED | MAP_POPULATE);
  const bool refused = is_closed(file) && next_descriptor() == descriptor;
  open_to_read(file, arguments.at(0));  // the refused attempt leaves nothing behind
  return refused && file.is_open() && file.size() == 3 ? 0 : 1;
}

TEST(MMappedFile, StaysClosedWhenTheMappingOfAFileIsRefused) {
  const test::TempDir dir;
  const std::string path = dir.file("file");
  test::write_file(path, "abc");
  const std::string reason = "DEBUG mmap(" + path + ") failed with error: Cannot allocate memory";
  const std::string opened = "DEBUG Opened and mmapped " + path + " file";
  const auto ran = test::run_scenario("open_a_path_that_mmap_refuses", {}, {path, "2", "0"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), (Messages{reason, opened}));
  const auto logged = test::run_scenario("open_a_path_that_mmap_refuses", {}, {path, "3", "2"});
  EXPECT_TRUE(logged.exited_with(0));
  EXPECT_EQ(logged.messages(), (Messages{kRefusedMmap, reason, opened}));
}

SCENARIO(open_a_path_that_fstat_refuses) {
  set_thresholds(arguments);
  const auto descriptor = next_descriptor();
  test::refuse(SYS_fstat, EIO);
  test::refuse(SYS_newfstatat, EIO);
  MMappedFile file;
  open_to_read(file, arguments.at(0));
  return is_closed(file) && next_descriptor() == descriptor ? 0 : 1;
}

TEST(MMappedFile, LogsARefusedFstatAtError) {
  const test::TempDir dir;
  const std::string path = dir.file("file");
  test::write_file(path, "abc");
  const std::string reason = "ERROR fstat(" + path + ") failed with error: Input/output error";
  const test::Environment errors_only{{"QV_LOG_LEVEL", "ERROR"}};
  const auto ran =
      test::run_scenario("open_a_path_that_fstat_refuses", errors_only, {path, "2", "0"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Messages{reason});
  const auto logged =
      test::run_scenario("open_a_path_that_fstat_refuses", errors_only, {path, "3", "0"});
  EXPECT_TRUE(logged.exited_with(0));
  EXPECT_EQ(logged.messages(), (Messages{kRefusedFstat, reason}));
}

TEST(MMappedFile, IsSilentAtOffWhateverTheKernelRefuses) {
  const test::TempDir dir;
  const std::string path = dir.file("file");
  test::write_file(path, "abc");
  const auto ran = test::run_scenario("open_a_path_that_fstat_refuses", {{"QV_LOG_LEVEL", "OFF"}},
                                      {path, "3", "0"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Messages{});
}

constexpr std::size_t kPagesOfRefused = 3;

SCENARIO(close_a_mapping_that_munmap_refuses) {
  set_thresholds(arguments);
  const auto descriptor = next_descriptor();
  MMappedFile file;
  open_to_read(file, arguments.at(0));
  // Refuses by length, so that only the unmapping of this file fails.
  test::refuse(SYS_munmap, EINVAL,
               test::When{1, static_cast<std::uint32_t>(kPagesOfRefused * page())});
  file.close();
  return is_closed(file) && next_descriptor() == descriptor ? 0 : 1;
}

TEST(MMappedFile, ClosesThoughMunmapIsRefused) {
  const test::TempDir dir;
  const std::string path = dir.file("file");
  test::write_file(path, std::string(kPagesOfRefused * page(), 'p'));
  const std::string opened = "DEBUG Opened and mmapped " + path + " file";
  const auto ran = test::run_scenario("close_a_mapping_that_munmap_refuses", {}, {path, "2", "0"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), (Messages{opened, kRefusedMunmap}));
  const auto fatal =
      test::run_scenario("close_a_mapping_that_munmap_refuses", {}, {path, "2", "2"});
  EXPECT_TRUE(fatal.aborted());
  EXPECT_EQ(fatal.messages(), (Messages{opened, kRefusedMunmap}));
}

SCENARIO(close_a_descriptor_that_close_refuses) {
  set_thresholds(arguments);
  const auto descriptor = next_descriptor();
  MMappedFile file;
  open_to_read(file, arguments.at(0));
  test::refuse(SYS_close, EIO, test::When{0, descriptor});
  file.close();
  return is_closed(file) ? 0 : 1;
}

TEST(MMappedFile, IsClosedThoughCloseIsRefused) {
  const test::TempDir dir;
  const std::string path = dir.file("file");
  test::write_file(path, "abc");
  const std::string opened = "DEBUG Opened and mmapped " + path + " file";
  const auto ran =
      test::run_scenario("close_a_descriptor_that_close_refuses", {}, {path, "2", "0"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), (Messages{opened, kRefusedClose}));
  const auto silent =
      test::run_scenario("close_a_descriptor_that_close_refuses", {}, {path, "1", "0"});
  EXPECT_TRUE(silent.exited_with(0));
  EXPECT_EQ(silent.messages(), Messages{opened});
  const auto fatal =
      test::run_scenario("close_a_descriptor_that_close_refuses", {}, {path, "2", "2"});
  EXPECT_TRUE(fatal.aborted());
  EXPECT_EQ(fatal.messages(), (Messages{opened, kRefusedClose}));
}

SCENARIO(do_nothing_with_a_closed_file) {
  MMappedFile file;
  file.close();
  return 0;
}

TEST(MMappedFile, LogsNothingWhenNothingIsOpen) {
  const auto ran = test::run_scenario("do_nothing_with_a_closed_file");
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.messages(), Messages{});
}

}  // namespace
