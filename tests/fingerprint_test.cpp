// The fingerprint example, run as a user runs it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <quorvane/hasher.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/library_path.h"
#include "support/lines.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using quorvane::util::RoBuffer;
using test::Arguments;
using test::Environment;
using test::lines_of;
using test::Ran;
using test::wait_for;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

const std::string PROGRAM = QV_BINARY_DIR "/bin/fingerprint";

// A tree of three files, one of them in a subdirectory, and an empty root.
class Fingerprint : public testing::Test {
 protected:
  Fingerprint() {
    std::filesystem::create_directories(tree_ + "/below");
    std::filesystem::create_directory(root_);
    test::write_file(tree_ + "/abc", "abc");
    test::write_file(tree_ + "/empty", "");
    test::write_file(tree_ + "/below/lines", "one\ntwo\n");
  }

  Ran run(const Arguments& more = {}) const {
    Arguments all{"--root", root_, tree_};
    all.insert(all.end(), more.begin(), more.end());
    return test::run_program(PROGRAM, all);
  }

  // Runs the program so that permission bits stop even root.
  Ran run_without_privileges(const Arguments& more = {}) const {
    Arguments all{PROGRAM, "--root", root_, tree_};
    all.insert(all.end(), more.begin(), more.end());
    return test::run_scenario("without_privileges", {}, all);
  }

  test::TempDir dir_;
  std::string tree_ = std::filesystem::canonical(dir_.path()).string() + "/tree";
  std::string root_ = dir_.file("root");
  std::string store_ = root_ + "/fingerprint";  // of the basic kind
  std::string data_ = root_ + "/dat_fingerprint";
  std::string index_ = root_ + "/idx_fingerprint";
};

const Arguments BASIC{"--kind", "basic"};
const Arguments LAZY{"--kind", "lazy_lookup"};

// The rows of the table, without the time.
std::map<std::string, std::uint64_t> table(const Ran& ran) {
  std::map<std::string, std::uint64_t> rows;
  for (const std::string& line : lines_of(ran.out)) {
    const std::string name = line.substr(0, line.find("  "));
    if (name != "seconds") {
      rows[name] = std::stoull(line.substr(name.size()));
    }
  }
  return rows;
}

// The program's own messages. Standard error has the library's ERROR records, too.
std::vector<std::string> complaints(const Ran& ran) {
  std::vector<std::string> own;
  for (const std::string& line : lines_of(ran.err)) {
    if (line.rfind("fingerprint: ", 0) == 0) {
      own.push_back(line);
    }
  }
  return own;
}

std::string hex(const RoBuffer& bytes) {
  std::string text;
  for (std::size_t i = 0; i < bytes.get_size(); ++i) {
    char two[3];
    std::snprintf(two, sizeof(two), "%02x", bytes.get_buffer()[i]);
    text += two;
  }
  return text;
}

std::string text_of(const RoBuffer& bytes) {
  return {reinterpret_cast<const char*>(bytes.get_buffer()), bytes.get_size()};
}

// Prints "KEY STRONG FAST LINES" for each entry of an indexed store, or of the kind that is
// named.
SCENARIO(print_store) {
  using quorvane::cache::StoreKind;
  const auto store = arguments.empty()            ? StoreKind::indexed
                     : arguments.at(0) == "basic" ? StoreKind::basic
                                                  : StoreKind::lazy_lookup;
  quorvane::cache::Cache cache("print", quorvane::cache::make_file_store(store, "fingerprint"),
                               false);
  for (const auto& [key, atoms] : cache) {
    std::printf("%s %s %s %s\n", hex(key).c_str(), hex(atoms.at(0)).c_str(),
                hex(atoms.at(1)).c_str(), text_of(atoms.at(2)).c_str());
  }
  return cache.is_valid() ? 0 : 1;
}

// Replaces this process by the program that the arguments name.
int execute(const Arguments& arguments) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  execv(argv[0], argv.data());
  std::perror("execv");
  return 126;
}

SCENARIO(without_privileges) {
  if (geteuid() == 0 && (prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE) != 0 ||
                         prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH) != 0)) {
    std::perror("prctl");
    return 125;
  }
  return execute(arguments);
}

// The first argument limits the size of each file. A write beyond the limit kills the
// process, or fails if the second argument is "fails".
SCENARIO(with_small_files) {
  const rlim_t size = std::stoul(arguments.at(0));
  const rlimit limit{size, size};
  if (setrlimit(RLIMIT_FSIZE, &limit) != 0) {
    std::perror("setrlimit");
    return 125;
  }
  signal(SIGXFSZ, arguments.at(1) == "fails" ? SIG_IGN : SIG_DFL);
  return execute({arguments.begin() + 2, arguments.end()});
}

SCENARIO(with_full_output) {
  dup2(open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
  return execute(arguments);
}

std::string child_of(pid_t process) {
  const std::string id = std::to_string(process);
  std::istringstream children(test::read_file("/proc/" + id + "/task/" + id + "/children"));
  std::string first;
  children >> first;
  return first;
}

bool has_open(const std::string& process, const std::string& path) {
  std::error_code error;
  for (std::filesystem::directory_iterator fd("/proc/" + process + "/fd", error), end;
       !error && fd != end; fd.increment(error)) {
    if (std::filesystem::read_symlink(*fd, error) == path) {
      return true;
    }
    error.clear();
  }
  return false;
}

// Runs a program and sends it a signal once its worker has the file open. With "group" the
// worker gets the signal, too, as from a terminal.
SCENARIO(interrupted) {
  const std::string& file = arguments.at(0);
  const bool group = arguments.at(1) == "group";
  const int number = std::stoi(arguments.at(2));
  alarm(100);
  const pid_t child = fork();
  if (child == 0) {
    setpgid(0, 0);
    return execute({arguments.begin() + 3, arguments.end()});
  }
  for (std::string worker; worker.empty() || !has_open(worker, file); usleep(1000)) {
    worker = child_of(child);
  }
  kill(group ? -child : child, number);
  return wait_for(child);
}

// Runs a program whose standard error is a terminal, and prints what the terminal received.
SCENARIO(on_a_terminal) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
    std::perror("posix_openpt");
    return 125;
  }
  const pid_t child = fork();
  if (child == 0) {
    dup2(open(ptsname(master), O_WRONLY | O_NOCTTY | O_CLOEXEC), STDERR_FILENO);
    freopen("/dev/null", "w", stdout);
    execl(arguments[0].c_str(), arguments[0].c_str(), "--root", arguments[1].c_str(),
          arguments[2].c_str(), nullptr);
    _exit(126);
  }
  // The read fails with EIO once the child has closed its side of the terminal.
  char shown[4096];
  for (ssize_t size = 0; (size = read(master, shown, sizeof(shown))) > 0;) {
    std::printf("%.*s", static_cast<int>(size), shown);
  }
  return wait_for(child);
}

std::vector<std::string> stored(const std::string& root, const Arguments& kind = {}) {
  const Ran ran = test::run_scenario("print_store", {{"QV_CACHE_STORE_ROOT", root}}, kind);
  EXPECT_TRUE(ran.exited_with(0));
  return lines_of(ran.out);
}

std::set<std::string> column(const std::string& root, int number) {
  std::set<std::string> values;
  for (const std::string& line : stored(root)) {
    std::istringstream words(line);
    std::string word;
    for (int i = 0; i <= number; ++i) {
      words >> word;
    }
    values.insert(word);
  }
  return values;
}

std::string b2sum(const std::string& path) {
  FILE* pipe = popen(("b2sum -l 256 '" + path + "'").c_str(), "r");
  char digest[65] = "";
  EXPECT_EQ(std::fread(digest, 1, 64, pipe), 64U);
  pclose(pipe);
  return digest;
}

TEST_F(Fingerprint, TheFirstRunReadsEveryFile) {
  const Ran ran = run();
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.err, "");
  auto rows = table(ran);
  EXPECT_EQ(rows["files"], 3U);
  EXPECT_EQ(rows["misses"], 3U);
  EXPECT_EQ(rows["hits"], 0U);
  EXPECT_EQ(rows["bytes read"], 11U);
  EXPECT_EQ(rows["unreadable"], 0U);
  EXPECT_EQ(rows["store bytes"],
            std::filesystem::file_size(data_) + std::filesystem::file_size(index_));
}

TEST_F(Fingerprint, TheSecondRunReadsNothing) {
  run();
  const Ran ran = run();
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  auto rows = table(ran);
  EXPECT_EQ(rows["files"], 3U);
  EXPECT_EQ(rows["misses"], 0U);
  EXPECT_EQ(rows["hits"], 3U);
  EXPECT_EQ(rows["bytes read"], 0U);
}

TEST_F(Fingerprint, AFileWithAnotherModificationTimeIsReadAgain) {
  run();
  const timespec times[] = {{0, UTIME_OMIT}, {1234567890, 5}};
  ASSERT_EQ(utimensat(AT_FDCWD, (tree_ + "/abc").c_str(), times, 0), 0);
  auto rows = table(run());
  EXPECT_EQ(rows["misses"], 1U);
  EXPECT_EQ(rows["hits"], 2U);
  EXPECT_EQ(rows["bytes read"], 3U);
}

TEST_F(Fingerprint, AFileOfAnotherSizeAndTheSameModificationTimeIsReadAgain) {
  struct stat before {};
  ASSERT_EQ(stat((tree_ + "/abc").c_str(), &before), 0);
  run();
  test::write_file(tree_ + "/abc", "abcd");
  const timespec times[] = {{0, UTIME_OMIT}, before.st_mtim};
  ASSERT_EQ(utimensat(AT_FDCWD, (tree_ + "/abc").c_str(), times, 0), 0);
  EXPECT_EQ(table(run())["bytes read"], 4U);
}

TEST_F(Fingerprint, ABasicStoreHoldsTheSameEntriesInOneFile) {
  const Ran ran = run(BASIC);
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.err, "");
  auto rows = table(ran);
  EXPECT_EQ(rows["files"], 3U);
  EXPECT_EQ(rows["misses"], 3U);
  EXPECT_EQ(rows["hits"], 0U);
  EXPECT_EQ(rows["bytes read"], 11U);
  EXPECT_EQ(rows["unreadable"], 0U);
  EXPECT_EQ(rows["store bytes"], std::filesystem::file_size(store_));
  EXPECT_FALSE(test::exists(data_));
  EXPECT_TRUE(run().exited_with(0));
  EXPECT_EQ(stored(root_, {"basic"}), stored(root_));
}

TEST_F(Fingerprint, TheSecondRunOnABasicStoreReadsNothing) {
  run(BASIC);
  const Ran ran = run(BASIC);
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  auto rows = table(ran);
  EXPECT_EQ(rows["files"], 3U);
  EXPECT_EQ(rows["misses"], 0U);
  EXPECT_EQ(rows["hits"], 3U);
  EXPECT_EQ(rows["bytes read"], 0U);
}

TEST_F(Fingerprint, ALazyStoreHoldsTheSameEntriesInTwoFiles) {
  const std::string keys = root_ + "/key_fingerprint";
  const std::string values = root_ + "/val_fingerprint";
  const Ran ran = run(LAZY);
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.err, "");
  auto rows = table(ran);
  EXPECT_EQ(rows["misses"], 3U);
  EXPECT_EQ(rows["store bytes"],
            std::filesystem::file_size(keys) + std::filesystem::file_size(values));
  EXPECT_FALSE(test::exists(store_));
  EXPECT_TRUE(run(BASIC).exited_with(0));
  EXPECT_EQ(stored(root_, {"lazy"}), stored(root_, {"basic"}));
}

TEST_F(Fingerprint, TheSecondRunOnALazyStoreReadsNothing) {
  EXPECT_TRUE(run({"--kind", "lazy_lookup", "--jobs", "3"}).exited_with(0));
  test::write_file(tree_ + "/new", "new");
  const Ran ran = run({"--kind", "lazy_lookup", "--jobs", "3"});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  auto rows = table(ran);
  EXPECT_EQ(rows["hits"], 3U);
  EXPECT_EQ(rows["misses"], 1U);
  EXPECT_EQ(rows["bytes read"], 3U);
  EXPECT_THAT(stored(root_, {"lazy"}), SizeIs(4));
}

TEST_F(Fingerprint, ADamagedLazyStoreIsNamedLeftAloneAndTheWorkIsDone) {
  run(LAZY);
  const std::string keys = root_ + "/key_fingerprint";
  const std::string damaged = test::read_file(keys) + "x";
  test::write_file(keys, damaged);
  const Ran ran = run(LAZY);
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(complaints(ran),
              ElementsAre("fingerprint: " + keys + " and " + root_ +
                          "/val_fingerprint: damaged or unreadable store (delete it to start "
                          "anew); going on without a store"));
  EXPECT_EQ(table(ran)["misses"], 3U);
  EXPECT_EQ(test::read_file(keys), damaged);
}

TEST_F(Fingerprint, DigestsThatALazyStoreCouldNotTakeAreReported) {
  run(LAZY);
  test::write_file(tree_ + "/new", "new");
  chmod((root_ + "/val_fingerprint").c_str(), 0444);
  const Ran ran = test::run_scenario("without_privileges", {},
                                     {PROGRAM, "--kind", "lazy_lookup", "--root", root_, tree_});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(complaints(ran),
              ElementsAre("fingerprint: " + root_ + "/key_fingerprint and " + root_ +
                          "/val_fingerprint: not all new digests could be stored"));
  EXPECT_EQ(table(ran)["hits"], 3U);
}

TEST_F(Fingerprint, AnotherWayToNameTheTreeFindsTheSameEntries) {
  run();
  const Ran ran = test::run_program(PROGRAM, {"--root", root_, tree_ + "/below/.."});
  EXPECT_EQ(table(ran)["hits"], 3U);
}

TEST_F(Fingerprint, TheStrongDigestsAreThoseOfB2sum) {
  test::write_file(tree_ + "/long", std::string((std::size_t{5} << 19) + 7, 'x'));
  run();
  EXPECT_EQ(column(root_, 1), (std::set{b2sum(tree_ + "/abc"), b2sum(tree_ + "/empty"),
                                        b2sum(tree_ + "/below/lines"), b2sum(tree_ + "/long")}));
}

TEST_F(Fingerprint, AShortFileIsFarmHashedInOnePieceAndAnEmptyOneIsZero) {
  std::filesystem::remove_all(tree_ + "/below");
  run();
  EXPECT_EQ(column(root_, 2), (std::set<std::string>{"268113d71097df7b848d157d5c47b87e",
                                                     "00000000000000000000000000000000"}));
}

TEST_F(Fingerprint, ALongFileIsFarmHashedInChunksOfOneMebibyte) {
  const std::string content((std::size_t{5} << 19) + 7, 'x');
  const std::string other = dir_.file("long");
  std::filesystem::create_directory(other);
  test::write_file(other + "/long", content);
  test::run_program(PROGRAM, {"--root", root_, other});

  quorvane::hash::fast::FarmHash128Hasher hasher;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(content.data());
  constexpr std::size_t CHUNK = 1048576;
  hasher.push(bytes, CHUNK);
  hasher.push(bytes + CHUNK, CHUNK);
  hasher.push(bytes + 2 * CHUNK, content.size() - 2 * CHUNK);
  EXPECT_EQ(column(root_, 2), std::set{hex(hasher.calculate_and_reset())});
}

TEST_F(Fingerprint, TheThirdAtomCountsNewlines) {
  run();
  EXPECT_EQ(column(root_, 3), (std::set<std::string>{"0", "2"}));
}

TEST_F(Fingerprint, OneWorkerAndFourStoreTheSameEntries) {
  for (int i = 0; i < 40; ++i) {
    test::write_file(tree_ + "/" + std::to_string(i), std::string(static_cast<unsigned>(i), '\n'));
  }
  const std::string other = dir_.file("other");
  std::filesystem::create_directory(other);
  EXPECT_TRUE(run({"--jobs", "1"}).exited_with(0));
  EXPECT_TRUE(test::run_program(PROGRAM, {"--root", other, "--jobs", "4", tree_}).exited_with(0));
  EXPECT_THAT(stored(root_), SizeIs(43));
  EXPECT_EQ(stored(root_), stored(other));
}

TEST_F(Fingerprint, MoreWorkersThanFilesDoNoHarm) {
  EXPECT_TRUE(run({"--jobs", "7"}).exited_with(0));
  EXPECT_THAT(stored(root_), SizeIs(3));
}

TEST_F(Fingerprint, SymbolicLinksAreNotFollowed) {
  std::filesystem::create_symlink("..", tree_ + "/below/up");
  std::filesystem::create_symlink("abc", tree_ + "/again");
  const Ran ran = run();
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(table(ran)["files"], 3U);
}

void expect_denied(const Ran& ran, const std::string& path) {
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_EQ(ran.err, "fingerprint: " + path + ": Permission denied\n");
  EXPECT_EQ(table(ran)["files"], 2U);
  EXPECT_EQ(table(ran)["unreadable"], 1U);
}

TEST_F(Fingerprint, AnUnreadableDirectoryIsNamedAndTheRestIsDone) {
  chmod((tree_ + "/below").c_str(), 0);
  const Ran ran = run_without_privileges();
  chmod((tree_ + "/below").c_str(), 0700);
  expect_denied(ran, tree_ + "/below");
  EXPECT_THAT(stored(root_), SizeIs(2));
}

TEST_F(Fingerprint, WhatLiesInADirectoryThatCantBeSearchedIsNamed) {
  chmod((tree_ + "/below").c_str(), 0444);
  const Ran ran = run_without_privileges();
  chmod((tree_ + "/below").c_str(), 0700);
  expect_denied(ran, tree_ + "/below/lines");
}

TEST_F(Fingerprint, AnUnreadableFileIsNamedAndTheRestIsDone) {
  chmod((tree_ + "/abc").c_str(), 0);
  const Ran ran = run_without_privileges();
  expect_denied(ran, tree_ + "/abc");
  EXPECT_THAT(stored(root_), SizeIs(2));
}

TEST_F(Fingerprint, ATreeThatIsNotThereIsNamed) {
  const Ran ran = test::run_program(PROGRAM, {"--root", root_, tree_ + "/nowhere"});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_EQ(ran.err, "fingerprint: " + tree_ + "/nowhere: No such file or directory\n");
  EXPECT_EQ(table(ran)["files"], 0U);
}

TEST_F(Fingerprint, WithoutAUsableRootTheWorkIsDoneAllTheSame) {
  test::write_file(dir_.file("file"), "not a directory");
  for (const std::string& root : {dir_.file("missing"), dir_.file("file")}) {
    const Ran ran = test::run_program(PROGRAM, {"--root", root, tree_});
    EXPECT_TRUE(ran.exited_with(1));
    EXPECT_EQ(ran.err, "fingerprint: " + root +
                           ": not a directory that a store can be kept in; going on without a "
                           "store\n");
    EXPECT_EQ(table(ran)["misses"], 3U);
    EXPECT_EQ(table(ran)["store bytes"], 0U);
  }
}

TEST_F(Fingerprint, InARootThatMayNotBeWrittenTheWorkIsDoneAllTheSame) {
  chmod(root_.c_str(), 0555);
  const Ran ran = run_without_privileges();
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(complaints(ran), SizeIs(1));
  EXPECT_EQ(table(ran)["misses"], 3U);
  EXPECT_TRUE(std::filesystem::is_empty(root_));
}

TEST_F(Fingerprint, ADamagedBasicStoreIsNamedLeftAloneAndTheWorkIsDone) {
  run(BASIC);
  const std::string damaged = test::read_file(store_) + "x";
  test::write_file(store_, damaged);
  const Ran ran = run(BASIC);
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(complaints(ran),
              ElementsAre("fingerprint: " + store_ +
                          ": damaged or unreadable store (delete it to start anew); going on "
                          "without a store"));
  EXPECT_EQ(table(ran)["misses"], 3U);
  EXPECT_EQ(test::read_file(store_), damaged);
}

TEST_F(Fingerprint, ADamagedIndexedStoreIsNamedLeftAloneAndTheWorkIsDone) {
  run();
  const std::string damaged = "x" + test::read_file(data_);
  test::write_file(data_, damaged);
  const Ran ran = run();
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(complaints(ran),
              ElementsAre("fingerprint: " + data_ + " and " + index_ +
                          ": damaged or unreadable store (delete it to start anew); going on "
                          "without a store"));
  EXPECT_EQ(table(ran)["misses"], 3U);
  EXPECT_EQ(test::read_file(data_), damaged);
}

TEST_F(Fingerprint, DigestsThatABasicStoreCouldNotTakeAreReported) {
  run(BASIC);
  test::write_file(tree_ + "/new", "new");
  chmod(store_.c_str(), 0444);
  const Ran ran = run_without_privileges(BASIC);
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(complaints(ran),
              ElementsAre("fingerprint: " + store_ + ": not all new digests could be stored"));
  EXPECT_EQ(table(ran)["hits"], 3U);
  EXPECT_EQ(table(ran)["misses"], 1U);
}

TEST_F(Fingerprint, DigestsThatAnIndexedStoreCouldNotTakeAreReported) {
  run();
  test::write_file(tree_ + "/new", "new");
  chmod(data_.c_str(), 0444);
  const Ran ran = run_without_privileges();
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(complaints(ran), ElementsAre("fingerprint: " + data_ + " and " + index_ +
                                           ": not all new digests could be stored"));
  EXPECT_EQ(table(ran)["hits"], 3U);
  EXPECT_EQ(table(ran)["misses"], 1U);
}

// Files for three workers. The store has room for half of their digests.
class TooManyDigests : public Fingerprint {
 protected:
  TooManyDigests() : TooManyDigests("basic", 60) {}

  TooManyDigests(const std::string& kind, std::uint64_t files) : kind_(kind), files_(files) {
    std::filesystem::remove_all(tree_);
    std::filesystem::create_directory(tree_);
    for (std::uint64_t i = 0; i < files; ++i) {
      test::write_file(tree_ + "/" + std::to_string(1000 + i), "x");
    }
    EXPECT_TRUE(run({"--kind", kind}).exited_with(0));
    const std::string& file = kind == "basic" ? store_ : data_;
    room_ = std::to_string(std::filesystem::file_size(file) / 2);
    std::filesystem::remove(file);
  }

  Ran run_short_of_room(const std::string& beyond, const std::string& jobs) const {
    return test::run_scenario(
        "with_small_files", {{"QV_LOG_FILE", "/dev/null"}},
        {room_, beyond, PROGRAM, "--kind", kind_, "--root", root_, "--jobs", jobs, tree_});
  }

  // The complaint about this store.
  std::string not_stored() const {
    return "fingerprint: " + (kind_ == "basic" ? store_ : data_ + " and " + index_) +
           ": not all new digests could be stored";
  }

  const std::string kind_;
  const std::uint64_t files_;
  std::string room_;
};

TEST_F(TooManyDigests, AreMissedAlsoWhenAnotherWorkerStoredItsOwn) {
  const Ran ran = run_short_of_room("fails", "3");
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(complaints(ran), ElementsAre(not_stored()));
  EXPECT_EQ(table(ran)["misses"], files_);
}

TEST_F(TooManyDigests, EndAWorkerThatTheKernelKillsForThem) {
  const Ran ran = run_short_of_room("kills", "1");
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(complaints(ran),
              testing::Contains("fingerprint: a worker failed; its share of the files is not "
                                "complete"));
  EXPECT_EQ(table(ran)["misses"], files_);
}

// More files, since the index takes part of the room.
class TooManyDigestsForAnIndexedStore : public TooManyDigests {
 protected:
  TooManyDigestsForAnIndexedStore() : TooManyDigests("indexed", 300) {}
};

TEST_F(TooManyDigestsForAnIndexedStore, AreMissedAndThoseThatWereStoredStay) {
  const Ran ran = run_short_of_room("fails", "3");
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(complaints(ran), ElementsAre(not_stored()));
  EXPECT_EQ(table(ran)["misses"], files_);
  EXPECT_GT(table(run())["hits"], 0U);
}

TEST_F(TooManyDigestsForAnIndexedStore, EndAWorkerThatTheKernelKillsForThemAndHarmNothing) {
  const Ran ran = run_short_of_room("kills", "1");
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(complaints(ran),
              ElementsAre("fingerprint: a worker failed; its share of the files is not complete"));
  EXPECT_TRUE(run().exited_with(0));
  EXPECT_THAT(stored(root_), SizeIs(files_));
}

struct Signal {
  int number;
  const char* to;
};

class Interruption : public Fingerprint, public testing::WithParamInterface<Signal> {};

// Reading the last file takes for ever.
TEST_P(Interruption, EndsEarlyAndKeepsWhatWasDone) {
  const auto& [number, to] = GetParam();
  const std::string endless = tree_ + "/zz";
  test::write_file(endless, "");
  ASSERT_EQ(truncate(endless.c_str(), off_t{1} << 40), 0);
  const Ran ran = test::run_scenario(
      "interrupted", {},
      {endless, to, std::to_string(number), PROGRAM, "--root", root_, "--jobs", "1", tree_});
  EXPECT_TRUE(ran.exited_with(128 + number));
  EXPECT_EQ(ran.err, "fingerprint: interrupted\n");
  EXPECT_EQ(table(ran)["files"], 3U);
  EXPECT_THAT(stored(root_), SizeIs(3));
}

INSTANTIATE_TEST_SUITE_P(, Interruption,
                         testing::Values(Signal{SIGINT, "group"}, Signal{SIGINT, "parent"},
                                         Signal{SIGTERM, "parent"}, Signal{SIGHUP, "group"}),
                         [](const auto& tested) {
                           return "Signal" + std::to_string(tested.param.number) + tested.param.to;
                         });

TEST_F(Fingerprint, ATableThatCantBeWrittenIsReported) {
  const Ran ran = test::run_scenario("with_full_output", {}, {PROGRAM, "--root", root_, tree_});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_EQ(ran.err, "fingerprint: standard output: No space left on device\n");
  EXPECT_THAT(stored(root_), SizeIs(3));
}

TEST_F(Fingerprint, TheStoreGetsTheNameAskedFor) {
  EXPECT_TRUE(run({"--store", "mine", "--kind", "basic"}).exited_with(0));
  EXPECT_TRUE(test::exists(root_ + "/mine"));
  EXPECT_TRUE(test::exists(root_ + "/lock_mine"));
  EXPECT_FALSE(test::exists(store_));
  EXPECT_TRUE(run({"--store", "mine"}).exited_with(0));
  EXPECT_TRUE(test::exists(root_ + "/dat_mine"));
  EXPECT_FALSE(test::exists(data_));
}

TEST_F(Fingerprint, TheRootComesFromTheEnvironmentUnlessItIsGiven) {
  const Environment environment{{"QV_CACHE_STORE_ROOT", root_}};
  const std::string other = dir_.file("other");
  std::filesystem::create_directory(other);
  for (const auto& [kind, file] : std::vector<std::pair<std::string, std::string>>{
           {"basic", "/fingerprint"}, {"indexed", "/dat_fingerprint"}}) {
    EXPECT_TRUE(test::run_program(PROGRAM, {"--kind", kind, tree_}, environment).exited_with(0));
    EXPECT_TRUE(test::exists(root_ + file));
    EXPECT_FALSE(test::exists(other + file));
    EXPECT_TRUE(test::run_program(PROGRAM, {"--kind", kind, "--root", other, tree_}, environment)
                    .exited_with(0));
    EXPECT_TRUE(test::exists(other + file));
  }
}

// Each line of the reports of a run with three workers.
std::vector<std::string> reports_of(const std::string& file, Arguments arguments) {
  arguments.insert(arguments.end(), {"--jobs", "3"});
  const Ran ran =
      test::run_program(PROGRAM, arguments,
                        {{"QV_STATS_REPORT_FILE", file}, {"LD_LIBRARY_PATH", test::kLibraryPath}});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  return lines_of(test::read_file(file));
}

TEST_F(Fingerprint, EachWorkerReportsItsOwnHitsAndMisses) {
  const auto lines = reports_of(dir_.file("reports"), {"--kind", "basic", "--root", root_, tree_});
  ASSERT_THAT(lines, SizeIs(3));
  for (const std::string& line : lines) {
    EXPECT_THAT(line, HasSubstr("\"cache_hits\":0,\"cache_misses\":1"));
  }
}

// The parent, which ends last, has opened the store.
TEST_F(Fingerprint, TheParentReportsAnIndexedStoreToo) {
  const auto lines = reports_of(dir_.file("reports"), {"--root", root_, tree_});
  ASSERT_THAT(lines, SizeIs(4));
  for (std::size_t worker = 0; worker < 3; ++worker) {
    EXPECT_THAT(lines[worker], HasSubstr("\"cache_hits\":0,\"cache_misses\":1"));
  }
  EXPECT_THAT(lines[3], HasSubstr("\"cache\":{\"fingerprint\":{"));
}

TEST_F(Fingerprint, ProgressIsShownOnATerminalAndWipedAtTheEnd) {
  const Ran ran = test::run_scenario("on_a_terminal", {}, {PROGRAM, root_, tree_});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.out, StartsWith("\r\033[K0 of 3 files"));
  EXPECT_THAT(ran.out, testing::EndsWith("\r\033[K"));
}

TEST_F(Fingerprint, HelpNamesEveryOptionAndExitStatus) {
  const Ran ran = test::run_program(PROGRAM, {"--help"});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.err, "");
  for (const char* part : {"--store", "--kind", "basic", "lazy_lookup", "indexed", "remote",
                           "tiered", "--root", "--jobs", "--help", "Exit status"}) {
    EXPECT_THAT(ran.out, HasSubstr(part));
  }
}

TEST_F(Fingerprint, WrongUsageIsOneLineAndStatusTwo) {
  const std::vector<std::pair<Arguments, std::string>> cases{
      {{"--root", root_}, "expected exactly one directory"},
      {{"--root", root_, tree_, tree_}, "expected exactly one directory"},
      {{"--root", root_, "--jobs", "0", tree_}, "not a number of jobs: 0"},
      {{"--root", root_, "--jobs", "1025", tree_}, "not a number of jobs: 1025"},
      {{"--root", root_, "--jobs", "2x", tree_}, "not a number of jobs: 2x"},
      {{"--root", root_, "--jobs", "", tree_}, "not a number of jobs: "},
      {{"--root", root_, "--store", "a/b", tree_}, "the store's name must be a plain file name"},
      {{"--root", root_, "--store", "", tree_}, "the store's name must be a plain file name"},
      {{"--root", root_, "--kind", "lazy", tree_}, "not a kind of store: lazy"},
      {{"--nonsense", tree_}, "unknown option --nonsense"},
      {{"-xy", tree_}, "unknown option -x"},
      {{tree_, "--root"}, "a value is missing after --root"},
      {{tree_}, "no directory for the store: set QV_CACHE_STORE_ROOT or pass --root DIR"}};
  for (const auto& [arguments, message] : cases) {
    const Ran ran = test::run_program(PROGRAM, arguments);
    EXPECT_TRUE(ran.exited_with(2)) << message;
    EXPECT_EQ(ran.err, "fingerprint: " + message + " (try --help)\n");
    EXPECT_THAT(ran.out, IsEmpty());
  }
}

}  // namespace
