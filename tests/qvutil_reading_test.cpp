// qvutil ls, show, get, find, top and verify.
#include <fcntl.h>
#include <quorvane/file_store.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "qvutil/commands/ls.h"
#include "qvutil/store/cache_files.h"
#include "qvutil/store/survey.h"
#include "support/indexed_cache.h"
#include "support/json.h"
#include "support/lazy_files.h"
#include "support/made_store.h"
#include "support/processes.h"
#include "support/refuse.h"
#include "support/scanned_cache.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

using quorvane::cache::EntryMap;
using quorvane::cache::StoreKind;
using quorvane::cache::StoreOptions;
using quorvane::tool::Kind;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

namespace test {
namespace {

constexpr Kind kKinds[] = {Kind::basic, Kind::lazy_lookup, Kind::indexed};

Ran qvutil(const Arguments& arguments, const Environment& environment = {}) {
  return run_program(QV_BINARY_DIR "/bin/qvutil", arguments, environment);
}

StoreKind store_kind(Kind kind) {
  return kind == Kind::basic         ? StoreKind::basic
         : kind == Kind::lazy_lookup ? StoreKind::lazy_lookup
                                     : StoreKind::indexed;
}

StoreOptions options_for(const std::string& root, Kind kind, const std::string& name) {
  static auto& no_limit = *new quorvane::cache::CleanupController(0);
  StoreOptions options;
  options.kind = store_kind(kind);
  options.root = root;
  options.name = name;
  options.controller = &no_limit;
  return options;
}

bool store(const std::string& root, Kind kind, const std::string& name,
           const std::vector<Entry>& entries) {
  const auto made = quorvane::cache::make_store(options_for(root, kind, name));
  EntryMap loaded;
  return made->try_load(loaded) && made->try_store_diff(entry_map(entries));
}

// The name of a cache is that of its kind.
class Reading : public testing::Test {
 protected:
  Reading() {
    for (const Kind kind : kKinds) {
      store(root(), kind, name_of(kind), entries_);
    }
  }
  const std::string& root() const { return dir_.path(); }
  std::string cache(Kind kind) const { return dir_.file(name_of(kind)); }

  TempDir dir_;
  const std::vector<Entry> entries_{{"b", {"2", "3"}}, {"k\x1b", {std::string("1\n2")}}};
};

// --- ls ---

TEST_F(Reading, LsListsTheCachesOfEachKind) {
  const Ran ran = qvutil({"ls", root()});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  std::istringstream lines(ran.out);
  std::string line;
  std::getline(lines, line);
  EXPECT_THAT(line, MatchesRegex("NAME         KIND         ENTRIES  BYTES +AGE  STATE  LOCK"));
  for (const char* start :
       {"basic        basic              2", "indexed      indexed            2",
        "lazy_lookup  lazy_lookup        2"}) {
    std::getline(lines, line);
    EXPECT_THAT(line, StartsWith(start));
    EXPECT_THAT(line, HasSubstr("  whole"));
  }
}

TEST_F(Reading, LsTakesTheRootOfTheEnvironment) {
  EXPECT_EQ(qvutil({"ls", "--json"}, {{"QV_CACHE_STORE_ROOT", root()}}).out,
            qvutil({"ls", "--json", root() + "/"}).out);
  EXPECT_TRUE(qvutil({"ls"}).exited_with(2));
}

TEST_F(Reading, LsTakesNoEmptyRoot) {
  const Ran ran = qvutil({"ls", ""}, {{"QV_CACHE_STORE_ROOT", root()}});
  EXPECT_TRUE(ran.exited_with(2));
  EXPECT_EQ(ran.out, "");
  EXPECT_THAT(ran.err, StartsWith("qvutil ls: ROOT: empty; leave it out for QV_CACHE_STORE_ROOT"));
}

TEST_F(Reading, LsPrintsOneJsonObjectACache) {
  std::istringstream lines(qvutil({"ls", "--json", root()}).out);
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    const auto json = nlohmann::json::parse(line);
    EXPECT_EQ(json["name"], json["kind"]);
    EXPECT_EQ(json["entries"], 2);
    EXPECT_EQ(json["state"], "whole");
    EXPECT_FALSE(json.contains("lock"));
  }
  EXPECT_EQ(count, 3);
}

// Holds a lock until it is killed.
pid_t lock_holder(const std::string& path) {
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) {
    return -1;
  }
  const pid_t holder = in_child([&] {
    flock(open(path.c_str(), O_RDONLY), LOCK_EX);
    close(ready[0]);
    close(ready[1]);
    for (;;) {
      pause();
    }
    return 0;
  });
  close(ready[1]);
  char byte;
  EXPECT_EQ(read(ready[0], &byte, 1), 0);  // the holder has closed its end
  close(ready[0]);
  return holder;
}

TEST_F(Reading, LsTellsWhoHoldsALockAndWaitsForNobody) {
  const std::string bytes = read_file(cache(Kind::basic));
  write_file(cache(Kind::basic), bytes + bytes.substr(8, 20));  // an append is under way
  const pid_t holder = lock_holder(root() + "/lock_basic");
  const Ran ran = qvutil({"ls", root()});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.out, HasSubstr("  busy   process " + std::to_string(holder) + " (qvutil_readin"));
  const Ran json = qvutil({"ls", root(), "--json"});
  EXPECT_THAT(json.out, HasSubstr("\"lock\":{\"pid\":" + std::to_string(holder)));
  kill(holder, SIGKILL);
  EXPECT_EQ(wait_for(holder), kKilledBy + SIGKILL);
}

TEST_F(Reading, VerifySaysWhomItWaitsFor) {
  const pid_t holder = lock_holder(root() + "/lock_basic");
  int err[2];
  ASSERT_EQ(pipe2(err, O_CLOEXEC), 0);
  const pid_t verifier = in_child([&] {
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    execl(QV_BINARY_DIR "/bin/qvutil", "qvutil", "verify", cache(Kind::basic).c_str(), nullptr);
    return 127;
  });
  close(err[1]);
  std::FILE* const lines = fdopen(err[0], "r");
  char line[512] = "";
  ASSERT_NE(std::fgets(line, sizeof(line), lines), nullptr);
  EXPECT_THAT(line, StartsWith("Waiting for the lock " + root() + "/lock_basic, held by process " +
                               std::to_string(holder) + " (qvutil_readin"));
  kill(holder, SIGKILL);
  EXPECT_EQ(wait_for(holder), kKilledBy + SIGKILL);
  EXPECT_EQ(wait_for(verifier), 0);
  std::fclose(lines);
}

TEST(Ls, SaysThatARootIsEmpty) {
  const TempDir dir;
  const Ran ran = qvutil({"ls", dir.path()});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "");
  EXPECT_EQ(ran.err, "There is no cache in " + dir.path() + ".\n");
  EXPECT_TRUE(qvutil({"ls", dir.file("absent")}).exited_with(2));
}

TEST(Ls, PassesOverFilesOfNoCache) {
  const TempDir dir;
  for (const char* name : {"lock_a", "new_a", "newdat_a", "newidx_a", "lock", "text"}) {
    write_file(dir.file(name), "text");
  }
  mkdir(dir.file("dat_directory").c_str(), 0700);
  EXPECT_EQ(qvutil({"ls", dir.path()}).out, "");
}

TEST(Ls, TellsBasicCachesByTheirContentWhateverTheirNames) {
  const TempDir dir;
  for (const char* name : {"key_a", "val_a", "dat_a", "idx_a", "\x1b[31m"}) {
    write_file(dir.file(name), basic_file({{"a", {"1"}}}));
  }
  const Ran ran = qvutil({"ls", dir.path()});
  for (const char* name : {"\nkey_a ", "\nval_a ", "\ndat_a ", "\nidx_a ", "\n\\x1b[31m "}) {
    EXPECT_THAT(ran.out, HasSubstr(name));
  }
}

TEST(Ls, FindsDamagedCachesAndThoseOfOtherVersions) {
  const TempDir dir;
  std::string bytes = basic_file({{"a", {"1"}}, {"b", {"2"}}});
  write_file(dir.file("newer"), header_bytes(9));
  bytes[8] = 'x';
  write_file(dir.file("torn"), bytes);
  const Ran ran = qvutil({"ls", dir.path()});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(ran.out, HasSubstr("other version"));
  EXPECT_THAT(ran.out, HasSubstr("torn   basic        1"));
  EXPECT_THAT(ran.out, HasSubstr("damaged"));
  EXPECT_THAT(ran.err, HasSubstr("newer has version 9 of its format, this tool knows version 1"));
}

SCENARIO(list_refused) {
  constexpr auto kHow = static_cast<std::uint32_t>(O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (arguments.at(1) == "open") {
    refuse(SYS_openat, EACCES, When{2, kHow});
  } else {
    refuse(SYS_mmap, ENOMEM, When{3, MAP_SHARED});
  }
  std::ostringstream out;
  quorvane::tool::Console console(out, out, {});
  const auto outcome = quorvane::tool::ls(console, {arguments.at(0)});
  std::printf("%s", out.str().c_str());
  return static_cast<int>(outcome);
}

TEST_F(Reading, LsListsCachesThatTheKernelDoesNotLetItRead) {
  const auto expect = [&](const std::string& call, const std::string& reason) {
    const Ran ran = run_scenario("list_refused", {}, {root(), call});
    EXPECT_TRUE(ran.exited_with(1)) << call << ": " << ran.out << ran.err;
    for (const Kind kind : kKinds) {
      EXPECT_THAT(ran.out,
                  testing::ContainsRegex("\n" + std::string(name_of(kind)) + " .* unreadable"))
          << call;
    }
    EXPECT_THAT(ran.out, HasSubstr(reason)) << call;
  };
  expect("open", "Permission denied");
  expect("map", "Cannot allocate memory");
}

// --- which cache ---

TEST_F(Reading, ACacheIsAPathOrANameOrAFileOfIt) {
  for (const Kind kind : kKinds) {
    const std::string expected = qvutil({"show", cache(kind)}).out;
    EXPECT_THAT(expected, StartsWith("b\n"));
    EXPECT_EQ(qvutil({"show", name_of(kind)}, {{"QV_CACHE_STORE_ROOT", root()}}).out, expected);
  }
  EXPECT_EQ(qvutil({"show", root() + "/dat_indexed"}).out,
            qvutil({"show", cache(Kind::indexed)}).out);
  EXPECT_EQ(qvutil({"show", root() + "/val_lazy_lookup"}).out,
            qvutil({"show", cache(Kind::lazy_lookup)}).out);
}

TEST_F(Reading, KindDecidesWhereCachesOfSeveralKindsHaveTheName) {
  ASSERT_TRUE(store(root(), Kind::indexed, "basic", {{"other", {"1"}}}));
  const Ran both = qvutil({"show", cache(Kind::basic)});
  EXPECT_TRUE(both.exited_with(2));
  EXPECT_THAT(both.err, HasSubstr("of the kinds basic and indexed"));
  EXPECT_THAT(qvutil({"show", cache(Kind::basic), "--kind", "indexed"}).out, StartsWith("other\n"));
  EXPECT_THAT(qvutil({"show", cache(Kind::basic), "--kind", "basic"}).out, StartsWith("b\n"));
}

TEST_F(Reading, AMissingCacheIsNamedAndASimilarOneSuggested) {
  const Ran ran = qvutil({"verify", root() + "/indxed"});
  EXPECT_TRUE(ran.exited_with(2));
  EXPECT_EQ(ran.err, "qvutil verify: no cache indxed in " + root() + "; did you mean indexed?\n");
}

TEST(Survey, TellsItsProgress) {
  const TempDir dir;
  ASSERT_TRUE(
      store(dir.path(), Kind::basic, "large", {{"a", {std::string(80'000, 'x')}}, {"b", {"1"}}}));
  std::ostringstream out;
  std::ostringstream err;
  quorvane::tool::Console::Style style;
  style.progress = true;
  quorvane::tool::Console console(out, err, style);
  quorvane::tool::Progress progress(console, "looking at caches", 200'000);
  progress.go_on_from(20'000);
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  quorvane::tool::survey({Kind::basic, dir.path(), "large"}, progress);
  EXPECT_THAT(err.str(), HasSubstr("looking at caches: 50 % of 200 kB, "));
}

// --- show, get, find, top ---

TEST_F(Reading, ShowPrintsNoControlCharacters) {
  for (const Kind kind : kKinds) {
    const Ran ran = qvutil({"show", cache(kind)});
    EXPECT_TRUE(ran.exited_with(0));
    EXPECT_EQ(ran.out, "b\n  1 B: 2\n  1 B: 3\nk\\x1b\n  3 B: 1\\n2\n");
  }
}

TEST_F(Reading, ShowPrintsHexadecimalAndJsonAndTheFirstEntries) {
  EXPECT_EQ(qvutil({"show", cache(Kind::basic), "--hex", "--limit", "1"}).out,
            "62\n  1 B: 32\n  1 B: 33\n");
  EXPECT_EQ(qvutil({"show", cache(Kind::basic), "--json", "--limit", "1"}).out,
            "{\"key\":\"b\",\"offset\":8,\"atoms\":[\"2\",\"3\"]}\n");
}

TEST_F(Reading, ShowCutsLongValuesUnlessAllIsAskedFor) {
  ASSERT_TRUE(store(root(), Kind::basic, "long", {{"a", {std::string(1000, 'x')}}}));
  const std::string path = root() + "/long";
  EXPECT_EQ(qvutil({"show", path}).out,
            "a\n  1.0 kB: " + std::string(256, 'x') + "... (1 000 B)\n");
  EXPECT_EQ(qvutil({"show", path, "--full"}).out, "a\n  1.0 kB: " + std::string(1000, 'x') + "\n");
}

// More than a buffer, so that it fails before the end.
TEST_F(Reading, SaysWhyItsOutputIsLost) {
  std::vector<Entry> entries;
  for (int i = 0; i < 1000; ++i) {
    entries.push_back({"key" + std::to_string(i) + std::string(50, 'k'), {std::string(100, 'v')}});
  }
  entries.push_back({"large", {std::string(1 << 20, 'v')}});
  ASSERT_TRUE(store(root(), Kind::basic, "big", entries));
  for (const std::string arguments : {"show ", "show --json ", "find ", "find --json ", "get "}) {
    const std::string key = arguments == "get " ? " large" : "";
    const Ran ran = run_program("/bin/sh", {"-c", QV_BINARY_DIR "/bin/qvutil " + arguments +
                                                      dir_.file("big") + key + " >/dev/full"});
    EXPECT_TRUE(ran.exited_with(2)) << arguments;
    EXPECT_THAT(ran.err, HasSubstr("can't write to standard output: No space left on device\n"))
        << arguments;
  }
}

TEST_F(Reading, GetPrintsTheBytesOfOneAtom) {
  for (const Kind kind : kKinds) {
    EXPECT_EQ(qvutil({"get", cache(kind), "6b1b", "--hex"}).out, "1\n2");
    EXPECT_EQ(qvutil({"get", cache(kind), "b", "--atom", "1"}).out, "3");
  }
}

TEST_F(Reading, GetTellsAMissingKeyFromAMissingAtom) {
  const Ran key = qvutil({"get", cache(Kind::indexed), "absent"});
  EXPECT_TRUE(key.exited_with(1));
  EXPECT_EQ(key.out, "");
  EXPECT_THAT(key.err, HasSubstr("There is no key absent in "));
  const Ran which = qvutil({"get", cache(Kind::indexed), "b"});
  EXPECT_TRUE(which.exited_with(2));
  EXPECT_THAT(which.err, HasSubstr("the value has 2 atoms; choose one with --atom 0 to 1"));
  EXPECT_TRUE(qvutil({"get", cache(Kind::indexed), "b", "--atom", "2"}).exited_with(2));
  EXPECT_TRUE(qvutil({"get", cache(Kind::indexed), "xyz", "--hex"}).exited_with(2));
}

// The slot of the first entry in the index of the store "one".
class ReadingByIndex : public Reading {
 protected:
  ReadingByIndex() {
    EXPECT_TRUE(store(root(), Kind::indexed, "one", {{"key", {"first"}}, {"other", {"x"}}}));
    for (std::string index = read_file(index_file()); at_ < index.size(); at_ += 8) {
      slot_ = number_at(index, at_, 8);
      if (slot_ % kOffsets == kFirstIndexedEntry) {
        break;
      }
    }
  }

  std::string index_file() const { return root() + "/idx_one"; }
  std::string data_file() const { return root() + "/dat_one"; }

  void lead_to(std::uint64_t offset) const {
    std::string index = read_file(index_file());
    index.replace(at_, 8, le64(slot_ / kOffsets * kOffsets + offset));
    write_file(index_file(), index);
  }

  Ran get() const { return qvutil({"get", root() + "/one", "key"}); }

  std::size_t at_ = 4096;

 private:
  static constexpr std::uint64_t kOffsets = std::uint64_t{1} << 48;

  std::uint64_t slot_ = 0;
};

// A search would find the first entry.
TEST_F(ReadingByIndex, GetFindsTheEntryOfTheSlot) {
  ASSERT_TRUE(store(root(), Kind::indexed, "two", {{"key", {"second"}}}));
  const std::string data = read_file(data_file());
  write_file(data_file(), data + read_file(root() + "/dat_two").substr(kFirstIndexedEntry));
  EXPECT_EQ(get().out, "first");
  lead_to(data.size());
  EXPECT_EQ(get().out, "second");
}

TEST_F(ReadingByIndex, GetSearchesWhereTheSlotLeadsElsewhere) {
  const std::string data = read_file(data_file());
  const std::size_t other = indexed_offsets(data).at(1);
  for (const std::uint64_t offset : {std::uint64_t{0}, other, other + 8, data.size() - 16,
                                     data.size(), std::uint64_t{1} << 47}) {
    lead_to(offset);
    EXPECT_EQ(get().out, "first") << offset;
  }
  std::filesystem::remove(index_file());
  EXPECT_EQ(get().out, "first");
}

// The slot is the first one, because all between its place and the end are taken.
TEST_F(ReadingByIndex, GetGoesOnAtTheFirstSlotBehindTheLast) {
  ASSERT_TRUE(store(root(), Kind::indexed, "two", {{"key", {"second"}}}));
  const std::string data = read_file(data_file());
  write_file(data_file(), data + read_file(root() + "/dat_two").substr(kFirstIndexedEntry));
  lead_to(data.size());
  std::string index = read_file(index_file());
  const std::string slot = index.substr(at_, 8);
  for (std::size_t at = at_; at < index.size(); at += 8) {
    index.replace(at, 8, le64(~number_at(slot, 0, 8)));
  }
  index.replace(4096, 8, slot);
  write_file(index_file(), index);
  EXPECT_EQ(get().out, "second");
}

TEST_F(ReadingByIndex, GetSearchesWhenTheIndexDoesNotFit) {
  std::string index = read_file(index_file());
  index.replace(48, 8, le64(std::uint64_t{1} << 40));  // so many slots
  write_file(index_file(), index);
  EXPECT_EQ(get().out, "first");
}

TEST_F(ReadingByIndex, GetTellsOfDamageInTheEntryOfTheSlot) {
  std::string data = read_file(data_file());
  data[data.find("first")] = 'F';
  write_file(data_file(), data);
  const Ran ran = get();
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_EQ(ran.out, "");
  EXPECT_THAT(ran.err, HasSubstr("damaged in 1 place, which was passed over"));
}

TEST_F(Reading, FindFiltersByPrefixAndSize) {
  for (const Kind kind : kKinds) {
    EXPECT_EQ(qvutil({"find", cache(kind), "--prefix", "k"}).out,
              "  VALUE  ATOMS  KEY\n    3 B      1  k\\x1b\n");
    EXPECT_EQ(qvutil({"find", cache(kind), "--max-size", "2", "--json"}).out,
              "{\"key\":\"b\",\"key_size\":1,\"value_size\":2,\"atoms\":2}\n");
    EXPECT_TRUE(qvutil({"find", cache(kind), "--min-size", "1kb"}).exited_with(1));
    EXPECT_TRUE(
        qvutil({"find", cache(kind), "--max-size", "08kb", "--limit", "09"}).exited_with(0));
    EXPECT_EQ(qvutil({"find", cache(kind), "--prefix", "6b", "--hex"}).out,
              "  VALUE  ATOMS  KEY\n    3 B      1  6b1b\n");
  }
}

TEST_F(Reading, TopShowsWhatTakesTheSpace) {
  for (const Kind kind : kKinds) {
    EXPECT_EQ(qvutil({"top", cache(kind), "--largest", "1"}).out,
              "2 entries, 3 B of keys, 5 B of values\n"
              "\n"
              "KEY SIZE  ENTRIES  BYTES\n"
              "     1 B        1    1 B  ####################\n"
              "2 to 3 B        1    2 B  ########################################\n"
              "\n"
              "VALUE SIZE  ENTRIES  BYTES\n"
              "  2 to 3 B        2    5 B  ########################################\n"
              "\n"
              "LARGEST  ATOMS  KEY\n"
              "    3 B      1  k\\x1b\n");
  }
}

// --- verify ---

TEST_F(Reading, VerifyChecksAllCachesOfARoot) {
  const Ran ran = qvutil({"verify", "--root", root()});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_THAT(ran.out, StartsWith("basic (basic): whole, 2 whole entries, "));
  EXPECT_EQ(qvutil({"verify", "--root"}, {{"QV_CACHE_STORE_ROOT", root()}}).out, ran.out);
  EXPECT_TRUE(qvutil({"verify"}).exited_with(2));
}

TEST_F(Reading, VerifyTellsWhereWhatIsDamagedAndHowManyEntriesAreWhole) {
  std::string data = read_file(root() + "/dat_indexed");
  data[64 + 4] = static_cast<char>(data[64 + 4] ^ 1);
  write_file(root() + "/dat_indexed", data);
  const Ran ran = qvutil({"verify", cache(Kind::indexed), cache(Kind::basic)});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_THAT(ran.out, StartsWith("damage  dat_indexed at 64, 48 B: the checksum of the entry is "
                                  "wrong\nindexed (indexed): damaged, 1 whole entry, "));
  EXPECT_THAT(ran.out, HasSubstr(", 1 damaged place\nbasic (basic): whole"));
  const Ran json = qvutil({"verify", cache(Kind::indexed), "--json"});
  EXPECT_THAT(json.out,
              StartsWith("{\"cache\":\"indexed\",\"kind\":\"indexed\",\"file\":\"dat_indexed\","
                         "\"offset\":64,\"size\":48,\"reason\":\"the checksum of the entry is "
                         "wrong\",\"damage\":true}\n"));
}

TEST_F(Reading, VerifyGoesOnAfterACacheThatItCantRead) {
  write_file(root() + "/newer", header_bytes(2));
  const Ran ran = qvutil({"verify", root() + "/newer", root() + "/absent", cache(Kind::basic)});
  EXPECT_TRUE(ran.exited_with(2));
  EXPECT_THAT(ran.err, HasSubstr("newer has version 2 of its format"));
  EXPECT_THAT(ran.err, HasSubstr("qvutil verify: no cache absent in "));
  EXPECT_THAT(ran.out, StartsWith("basic (basic): whole"));
}

TEST(Verify, SaysThatARootIsEmpty) {
  const TempDir dir;
  const Ran ran = qvutil({"verify", "--root", dir.path()});
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.err, "There are no caches in " + dir.path() + ".\n");
}

SCENARIO(is_killed_while_it_appends) { return append_and_be_killed(options_of(arguments)) ? 0 : 1; }

TEST(Verify, FindsAnAppendThatWasCutShortOdd) {
  for (const char* kind : {"basic", "lazy"}) {
    const TempDir dir;
    write_stores(dir.path());
    ASSERT_TRUE(run_scenario("is_killed_while_it_appends", {}, {kind, "root=" + dir.path()})
                    .exited_with(0));
    const Arguments of_kind{"--kind", std::string(kind) == "lazy" ? "lazy_lookup" : "basic"};
    const Ran ran = qvutil({"verify", dir.file("maps"), of_kind[0], of_kind[1]});
    EXPECT_TRUE(ran.exited_with(0)) << ran.out;
    EXPECT_THAT(ran.out, HasSubstr("an append was cut short here; the next writer undoes it"));
    EXPECT_THAT(ran.out, HasSubstr("whole, 2 whole entries"));
    EXPECT_THAT(qvutil({"ls", dir.path()}).out, HasSubstr("cut short"));
  }
}

constexpr int kAppends = 100;

int append_entries(const std::string& root, Kind kind, const std::string& prefix) {
  const auto made = quorvane::cache::make_store(options_for(root, kind, "maps"));
  EntryMap loaded;
  bool is_stored = made->try_load(loaded);
  for (int i = 0; i < kAppends; ++i) {
    is_stored = made->try_store_diff(entry_map({{prefix + std::to_string(i), {"value", "2"}}})) &&
                is_stored;
  }
  return is_stored ? 0 : 1;
}

TEST(Verify, FindsNoDamageWhileTwoProcessesAppend) {
  for (const Kind kind : kKinds) {
    const TempDir dir;
    ASSERT_TRUE(store(dir.path(), kind, "maps", {{"first", {"1"}}}));
    const pid_t one = in_child([&] { return append_entries(dir.path(), kind, "a"); });
    const pid_t two = in_child([&] { return append_entries(dir.path(), kind, "b"); });
    siginfo_t ended{};
    std::size_t entries = 0;
    while (entries < 2 * kAppends &&
           waitid(P_PID, static_cast<id_t>(one), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == 0) {
      const ScannedCache found = scanned(dir.path(), kind);
      EXPECT_FALSE(found.is_damaged()) << found.places_text();
      EXPECT_GE(found.entries.size(), entries);
      entries = found.entries.size();
    }
    EXPECT_EQ(wait_for(one), 0);
    EXPECT_EQ(wait_for(two), 0);
    const ScannedCache found = scanned(dir.path(), kind);
    EXPECT_EQ(found.entries.size(), 2 * kAppends + 1u);
    EXPECT_EQ(found.places_text(), "");
  }
}

// Whether writers can take the lock during a scan.
struct LockProbe : quorvane::tool::Visitor {
  void entry(const quorvane::tool::Entry&) override {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    is_free = is_free && flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    ++entries;
  }
  void place(const quorvane::tool::Place&) override {}
  std::string path;
  bool is_free = true;
  int entries = 0;
};

TEST_F(Reading, AScanKeepsNoWriterWaiting) {
  const std::string data = read_file(root() + "/dat_indexed");
  write_file(root() + "/dat_torn", data + data.substr(64, 40));  // without an index
  write_file(root() + "/lock_torn", "");
  const std::vector<quorvane::tool::CacheFiles> caches = quorvane::tool::caches_of(root());
  EXPECT_EQ(caches.size(), 4u);
  for (const quorvane::tool::CacheFiles& files : caches) {
    LockProbe probe;
    probe.path = files.lock_file();
    std::ostringstream out;
    quorvane::tool::Console console(out, out, {});
    quorvane::tool::Progress progress(console, "", 0);
    quorvane::tool::scan(console, files, probe, progress);
    EXPECT_EQ(probe.entries, 2);
    EXPECT_TRUE(probe.is_free) << files.name;
  }
}

// Truncates the file that is being scanned.
struct Truncator : quorvane::tool::Visitor {
  void entry(const quorvane::tool::Entry&) override {
    if (truncate(path.c_str(), 0) != 0) {
      _exit(3);
    }
  }
  void place(const quorvane::tool::Place&) override {}
  std::string path;
};

SCENARIO(scans_a_file_that_shrinks) {
  Truncator visitor;
  visitor.path = arguments[0] + "/maps";
  std::ostringstream out;
  quorvane::tool::Console console(out, out, {});
  quorvane::tool::Progress progress(console, "", 0);
  quorvane::tool::scan(console, {Kind::basic, arguments[0], "maps"}, visitor, progress);
  return 0;
}

TEST(Scan, FailsWithATextWhenAFileShrinksMeanwhile) {
  const TempDir dir;
  write_file(dir.file("maps"), basic_file({{"a", {std::string(100000, 'x')}}, {"b", {"2"}}}));
  const Ran ran = run_scenario("scans_a_file_that_shrinks", {}, {dir.path()});
  EXPECT_TRUE(ran.exited_with(2)) << ran.status;
  EXPECT_EQ(ran.err, "qvutil: a file was truncated while it was read, or its disk has an error\n");
}

// --- memory ---

std::uint64_t anonymous_kilobytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("RssAnon:", 0) == 0) {
      return std::stoull(line.substr(8));
    }
  }
  return 0;
}

struct MemoryWatch : quorvane::tool::Visitor {
  void entry(const quorvane::tool::Entry&) override {
    if (++entries % 10000 == 0) {
      most = std::max(most, anonymous_kilobytes());
    }
  }
  void place(const quorvane::tool::Place&) override {}
  std::uint64_t entries = 0;
  std::uint64_t most = 0;
};

SCENARIO(scans_in_little_memory) {
  MemoryWatch visitor;
  std::ostringstream out;
  quorvane::tool::Console console(out, out, {});
  quorvane::tool::Progress progress(console, "", 0);
  const std::uint64_t before = anonymous_kilobytes();
  quorvane::tool::scan(console, {Kind::basic, arguments[0], "maps"}, visitor, progress);
  std::printf("%lu entries", visitor.entries);
  return visitor.most - before < 8000 ? 0 : 1;
}

TEST(Scan, NeedsEightBytesAnEntry) {
  const TempDir dir;
  std::string bytes = header_bytes(1);
  for (int i = 0; i < 300000; ++i) {
    bytes += entry_bytes({"key" + std::to_string(i), {"value"}});
  }
  write_file(dir.file("maps"), bytes);
  const Ran ran = run_scenario("scans_in_little_memory", {}, {dir.path()});
  EXPECT_EQ(ran.out, "300000 entries");
#ifndef QV_SANITIZED  // a sanitizer has memory of its own
  EXPECT_TRUE(ran.exited_with(0));
#endif
}

}  // namespace
}  // namespace test
