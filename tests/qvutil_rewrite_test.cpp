#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "qvutil/commands/compact.h"
#include "qvutil/commands/convert.h"
#include "qvutil/commands/repair.h"
#include "qvutil/commands/rm.h"
#include "qvutil/rewrite/seen_keys.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/tool_caches.h"

namespace {

using quorvane::tool::CacheFiles;
using quorvane::tool::Failure;
using quorvane::tool::Kind;
using quorvane::tool::Outcome;
using test::Content;
using test::content_of;
using test::read_file;
using test::write_file;

const Content kSome{{"b", {"2", "3"}}, {"aa", {"1"}}, {"ccc", {std::string(300, 'x')}}};

std::string path_of(const CacheFiles& cache) { return cache.root + "/" + cache.name; }

std::uint64_t size_of(const CacheFiles& cache) {
  std::uint64_t size = read_file(cache.main_file()).size();
  if (cache.kind == Kind::lazy_lookup) {
    size += read_file(cache.path("val_")).size();
  }
  return size;
}

Outcome rm(const CacheFiles& cache, const std::vector<std::string>& keys,
           test::HeardConsole& console, bool hex = false) {
  return quorvane::tool::rm(console.get(), {path_of(cache), name_of(cache.kind), keys, hex});
}

Outcome compact(const CacheFiles& cache, test::HeardConsole& console) {
  return quorvane::tool::compact(console.get(), {path_of(cache), name_of(cache.kind)});
}

Outcome convert(const CacheFiles& from, const std::string& to, const std::string& as,
                test::HeardConsole& console, bool force = false) {
  return quorvane::tool::convert(console.get(),
                                 {{path_of(from)}, false, name_of(from.kind), to, as, force});
}

Outcome convert_lines(const std::string& file, const std::string& to, const std::string& as,
                      test::HeardConsole& console) {
  return quorvane::tool::convert(console.get(), {{file}, true, "", to, as, false});
}

// The entries of a cache twice, as processes leave them that append the same ones.
void repeat_entries(const CacheFiles& cache) {
  const std::string bytes = read_file(cache.main_file());
  write_file(cache.main_file(), bytes + bytes.substr(cache.kind == Kind::indexed ? 64 : 8));
  unlink(cache.path("idx_").c_str());
}

class QvutilRewrite : public ::testing::TestWithParam<Kind> {
 protected:
  CacheFiles cache(const std::string& name = "demo") const {
    return {GetParam(), root_.path(), name};
  }
  CacheFiles stored(const Content& content) const {
    EXPECT_TRUE(test::store_all(cache(), content));
    return cache();
  }
  const test::TempDir root_;
  test::HeardConsole console_;
};
INSTANTIATE_TEST_SUITE_P(Kinds, QvutilRewrite, ::testing::ValuesIn(test::kAllKinds),
                         test::kind_name);

// --- rm ---

TEST_P(QvutilRewrite, RmRemovesKeys) {
  const CacheFiles demo = stored(kSome);
  EXPECT_EQ(rm(demo, {"b", "ccc"}, console_), Outcome::fine);
  EXPECT_EQ(content_of(demo), (Content{{"aa", {"1"}}}));
  EXPECT_EQ(console_.out() + console_.err(), "");
}

TEST_P(QvutilRewrite, RmFindsThatAKeyIsNotThereAndRemovesTheOthers) {
  const CacheFiles demo = stored(kSome);
  EXPECT_EQ(rm(demo, {"none\n", "b", "ccc"}, console_), Outcome::found);
  EXPECT_EQ(content_of(demo), (Content{{"aa", {"1"}}}));
  EXPECT_EQ(console_.err(), "demo has no key none\\n\n");
}

TEST_P(QvutilRewrite, RmChangesNothingIfNoKeyIsThere) {
  const CacheFiles demo = stored(kSome);
  struct stat before {};
  struct stat after {};
  ASSERT_EQ(stat(demo.main_file().c_str(), &before), 0);
  EXPECT_EQ(rm(demo, {"none"}, console_), Outcome::found);
  ASSERT_EQ(stat(demo.main_file().c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_P(QvutilRewrite, RmTakesKeysAsHexadecimal) {
  const CacheFiles demo = stored({{std::string("\0\xff", 2), {"1"}}, {"k", {"2"}}});
  EXPECT_EQ(rm(demo, {"00ff"}, console_, true), Outcome::fine);
  EXPECT_EQ(content_of(demo), (Content{{"k", {"2"}}}));
  EXPECT_THROW(rm(demo, {"0g"}, console_, true), Failure);
}

TEST_P(QvutilRewrite, RmCanRemoveEverything) {
  const CacheFiles demo = stored(kSome);
  EXPECT_EQ(rm(demo, {"b", "aa", "ccc"}, console_), Outcome::fine);
  EXPECT_EQ(content_of(demo), Content());
  EXPECT_TRUE(test::store_all(demo, kSome));
  EXPECT_EQ(content_of(demo), kSome);
}

TEST_P(QvutilRewrite, RmLeavesNothingOfAValueInTheFiles) {
  const CacheFiles demo = stored({{"k", {"secret value"}}, {"other", {"1"}}});
  EXPECT_EQ(rm(demo, {"k"}, console_), Outcome::fine);
  for (const std::string& name : test::names_in(root_.path())) {
    EXPECT_EQ(read_file(root_.file(name)).find("secret"), std::string::npos) << name;
  }
}

TEST_P(QvutilRewrite, RmRefusesADamagedCache) {
  const CacheFiles demo = stored(kSome);
  std::string bytes = read_file(demo.main_file());
  bytes[demo.kind == Kind::indexed ? 64 : 8] ^= 1;
  write_file(demo.main_file(), bytes);
  EXPECT_THROW(rm(demo, {"b"}, console_), Failure);
  EXPECT_THROW(compact(demo, console_), Failure);
  EXPECT_EQ(read_file(demo.main_file()), bytes);
}

// The new file would replace the link, and what it leads to would keep the old values.
TEST_P(QvutilRewrite, RefusesSymbolicLinks) {
  const test::TempDir elsewhere;
  const CacheFiles demo = stored(kSome);
  const CacheFiles source{Kind::basic, root_.path(), "source"};
  ASSERT_TRUE(test::store_all(source, kSome));
  for (const std::string& file : demo.files()) {
    const std::string target = elsewhere.file(file.substr(file.rfind('/') + 1));
    ASSERT_EQ(rename(file.c_str(), target.c_str()), 0);
    ASSERT_EQ(symlink(target.c_str(), file.c_str()), 0);
    ASSERT_EQ(unlink(demo.lock_file().c_str()), 0);
    const std::vector<std::string> names = test::names_in(root_.path());
    EXPECT_THROW(rm(demo, {"b"}, console_), Failure);
    EXPECT_THROW(compact(demo, console_), Failure);
    EXPECT_THROW(convert(source, name_of(demo.kind), path_of(demo), console_, true), Failure);
    EXPECT_THROW(quorvane::tool::repair(console_.get(), {path_of(demo), name_of(demo.kind), false}),
                 Failure);
    EXPECT_EQ(test::names_in(root_.path()), names);  // no lock file
    EXPECT_EQ(content_of(demo), kSome);
    ASSERT_EQ(unlink(file.c_str()), 0);
    ASSERT_EQ(rename(target.c_str(), file.c_str()), 0);
  }
}

TEST_P(QvutilRewrite, LeavesNoFilesBehindAndKeepsTheMode) {
  const CacheFiles demo = stored(kSome);
  for (const std::string& file : demo.files()) {
    chmod(file.c_str(), 0640);
  }
  const std::vector<std::string> names = test::names_in(root_.path());
  EXPECT_EQ(rm(demo, {"b"}, console_), Outcome::fine);
  EXPECT_EQ(test::names_in(root_.path()), names);
  for (const std::string& file : demo.files()) {
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U) << file;
  }
}

TEST_P(QvutilRewrite, AProcessThatHasTheCacheOpenGoesOn) {
  const CacheFiles demo = stored(kSome);
  const auto store = test::store_of(demo);
  quorvane::cache::EntryMap loaded;
  ASSERT_TRUE(store->try_load(loaded));
  EXPECT_EQ(rm(demo, {"b"}, console_), Outcome::fine);
  for (const auto& entry : loaded) {  // a lazy store has views of the old file
    EXPECT_EQ(test::entry_of(entry).atoms, kSome.at(test::entry_of(entry).key));
  }
  // The stores of the older kinds refuse to store into files that are shorter than those that
  // they have read.
  const bool is_stored = store->try_store_diff(test::entry_map({{"new", {"9"}}}));
  EXPECT_EQ(is_stored, demo.kind == Kind::indexed);
  Content expected{{"aa", {"1"}}, {"ccc", kSome.at("ccc")}};
  if (is_stored) {
    expected["new"] = {"9"};
  }
  EXPECT_EQ(content_of(demo), expected);
}

// --- compact ---

TEST_P(QvutilRewrite, CompactFindsNothingToDropInACompactCache) {
  const CacheFiles demo = stored(kSome);
  struct stat before {};
  struct stat after {};
  ASSERT_EQ(stat(demo.main_file().c_str(), &before), 0);
  EXPECT_EQ(compact(demo, console_), Outcome::fine);
  ASSERT_EQ(stat(demo.main_file().c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_NE(console_.out().find("nothing to drop\n"), std::string::npos) << console_.out();
}

TEST_P(QvutilRewrite, CompactDropsRepeatedKeys) {
  const CacheFiles demo = stored(kSome);
  const std::uint64_t size = size_of(demo);
  repeat_entries(demo);
  EXPECT_EQ(compact(demo, console_), Outcome::fine);
  EXPECT_NE(console_.out().find("dropped 3 repeated keys\n"), std::string::npos) << console_.out();
  EXPECT_EQ(size_of(demo), size);
  EXPECT_EQ(content_of(demo), kSome);
}

TEST(QvutilCompactLazy, DropsValuesThatNoKeyLeadsTo) {
  const test::TempDir root;
  const CacheFiles demo{Kind::lazy_lookup, root.path(), "demo"};
  ASSERT_TRUE(test::store_all(demo, kSome));
  const std::string values = read_file(demo.path("val_"));
  write_file(demo.path("val_"), values + std::string(1000, 'x'));
  test::HeardConsole console;
  EXPECT_EQ(compact(demo, console), Outcome::fine);
  EXPECT_EQ(read_file(demo.path("val_")), values);
  EXPECT_EQ(content_of(demo), kSome);
}

TEST(QvutilCompactLazy, KeepsEntriesThatShareAValue) {
  const test::TempDir root;
  const CacheFiles demo{Kind::lazy_lookup, root.path(), "demo"};
  ASSERT_TRUE(test::store_all(demo, {{"a", {std::string(500, 'v')}}, {"bb", {"2"}}}));
  const std::string keys = read_file(demo.path("key_"));
  std::string shared = keys;
  for (const char key : std::string("cdefg")) {  // the new value file is longer than the old one
    std::string entry = keys.substr(8, 37);
    entry[12] = key;
    shared += entry;
  }
  write_file(demo.path("key_"), shared);
  const auto before = content_of(demo);
  ASSERT_EQ(before->size(), 7U);
  test::HeardConsole console;
  EXPECT_EQ(rm(demo, {"bb"}, console), Outcome::fine);
  Content expected = *before;
  expected.erase("bb");
  EXPECT_EQ(content_of(demo), expected);
}

// --- convert ---

// Every byte, alone and with the others, in keys and in atoms.
Content all_bytes() {
  Content content;
  std::string all;
  for (int byte = 0; byte < 256; ++byte) {
    const std::string one(1, static_cast<char>(byte));
    all += one;
    content[one] = {one, "x"};
  }
  content[all] = {all, all + all};
  content["\xc3\xa4"] = {"\xe2\x82\xac", "\xed\xa0\x80", "{\"hex\":\"00\"}"};
  return content;
}

class QvutilConvert : public ::testing::TestWithParam<std::tuple<Kind, Kind>> {
 protected:
  const test::TempDir root_;
  test::HeardConsole console_;
};
INSTANTIATE_TEST_SUITE_P(Pairs, QvutilConvert,
                         ::testing::Combine(::testing::ValuesIn(test::kAllKinds),
                                            ::testing::ValuesIn(test::kAllKinds)));

TEST_P(QvutilConvert, ThereAndBackLosesNothing) {
  const auto [from, to] = GetParam();
  const CacheFiles first{from, root_.path(), "first"};
  const CacheFiles second{to, root_.path(), "second"};
  const CacheFiles third{from, root_.path(), "third"};
  ASSERT_TRUE(test::store_all(first, all_bytes()));
  EXPECT_EQ(convert(first, name_of(to), path_of(second), console_), Outcome::fine);
  EXPECT_EQ(content_of(second), all_bytes());
  EXPECT_EQ(convert(second, name_of(from), path_of(third), console_), Outcome::fine);
  EXPECT_EQ(content_of(third), all_bytes());
  EXPECT_EQ(content_of(first), all_bytes());
}

TEST_P(QvutilRewrite, JsonLinesThereAndBackLoseNothing) {
  const CacheFiles demo = stored(all_bytes());
  EXPECT_EQ(convert(demo, "jsonl", "", console_), Outcome::fine);
  write_file(root_.file("demo.jsonl"), console_.out());
  const CacheFiles copy = cache("copy");
  EXPECT_EQ(convert_lines(root_.file("demo.jsonl"), name_of(copy.kind), path_of(copy), console_),
            Outcome::fine);
  EXPECT_EQ(content_of(copy), all_bytes());
}

TEST_P(QvutilRewrite, JsonLinesHaveTheFirstEntryOfAKey) {
  const CacheFiles demo = stored({{"k", {"1"}}, {"other", {"2"}}});
  EXPECT_EQ(convert(demo, "jsonl", "", console_), Outcome::fine);
  repeat_entries(demo);
  test::HeardConsole repeated;
  convert(demo, "jsonl", "", repeated);
  EXPECT_EQ(repeated.out(), console_.out());
}

TEST_P(QvutilRewrite, ConvertKeepsTheNameUnlessToldOtherwise) {
  const CacheFiles demo = stored(kSome);
  const Kind other = demo.kind == Kind::indexed ? Kind::basic : Kind::indexed;
  EXPECT_EQ(convert(demo, name_of(other), "", console_), Outcome::fine);
  EXPECT_EQ(content_of({other, demo.root, "demo"}), kSome);
  EXPECT_EQ(content_of(demo), kSome);
  EXPECT_THROW(convert(demo, name_of(demo.kind), "", console_), Failure);
}

TEST_P(QvutilRewrite, ConvertKnowsACacheByAllItsPaths) {
  const CacheFiles demo = stored(kSome);
  const std::string path = root_.path() + "/./demo";
  EXPECT_THROW(convert(demo, name_of(demo.kind), path, console_, true), Failure);
  const Kind other = demo.kind == Kind::indexed ? Kind::basic : Kind::indexed;
  EXPECT_EQ(convert(demo, name_of(other), path, console_), Outcome::fine);
  EXPECT_EQ(content_of({other, demo.root, "demo"}), kSome);
}

TEST_P(QvutilRewrite, ConvertReplacesACacheOnlyWithForce) {
  const CacheFiles demo = stored(kSome);
  const CacheFiles other{Kind::basic, root_.path(), "other"};
  ASSERT_TRUE(test::store_all(other, {{"k", {"v"}}}));
  const CacheFiles target = cache("other");
  ASSERT_TRUE(test::store_all(target, {{"k", {"v"}}}));
  EXPECT_THROW(convert(demo, name_of(target.kind), path_of(target), console_), Failure);
  EXPECT_EQ(content_of(target), (Content{{"k", {"v"}}}));
  EXPECT_EQ(convert(demo, name_of(target.kind), path_of(target), console_, true), Outcome::fine);
  EXPECT_EQ(content_of(target), kSome);
}

TEST_P(QvutilRewrite, ConvertRefusesNamesOfOtherCachesFiles) {
  const CacheFiles demo = stored(kSome);
  const std::vector<std::string> names = test::names_in(root_.path());
  const std::string bytes = read_file(demo.main_file());
  for (const char* prefix :
       {"lock_", "key_", "val_", "dat_", "idx_", "new_", "newdat_", "newidx_", ".qvutil_"}) {
    for (const Kind kind : test::kAllKinds) {
      const std::string as = root_.file(prefix + std::string("demo"));
      EXPECT_THROW(convert(demo, name_of(kind), as, console_, true), Failure) << as;
    }
  }
  EXPECT_THROW(convert(demo, "basic", root_.file("lock"), console_), Failure);
  EXPECT_EQ(test::names_in(root_.path()), names);
  EXPECT_EQ(read_file(demo.main_file()), bytes);
}

TEST_P(QvutilRewrite, ConvertTakesASourceOfSuchANameToAnother) {
  const CacheFiles odd = cache("lock_other");
  ASSERT_TRUE(test::store_all(odd, kSome));
  for (const Kind kind : test::kAllKinds) {
    EXPECT_THROW(convert(odd, name_of(kind), "", console_), Failure);
  }
  EXPECT_EQ(convert(odd, "basic", root_.file("newer"), console_), Outcome::fine);
  EXPECT_EQ(content_of({Kind::basic, root_.path(), "newer"}), kSome);
}

// Also where root converts the cache of another user.
TEST_P(QvutilRewrite, ConvertMakesFilesLikeThoseOfTheSource) {
  constexpr uid_t kOther = 12345;
  const CacheFiles demo = stored(kSome);
  for (const std::string& file : demo.files()) {
    ASSERT_EQ(chmod(file.c_str(), 0640), 0);
    if (geteuid() == 0) {
      ASSERT_EQ(chown(file.c_str(), kOther, kOther), 0);
    }
  }
  for (const Kind kind : test::kAllKinds) {
    const CacheFiles copy{kind, root_.path(), std::string("as_") + name_of(kind)};
    EXPECT_EQ(convert(demo, name_of(kind), path_of(copy), console_), Outcome::fine);
    std::vector<std::string> files = copy.files();
    files.push_back(copy.lock_file());
    for (const std::string& file : files) {
      struct stat status {};
      ASSERT_EQ(stat(file.c_str(), &status), 0) << file;
      EXPECT_EQ(status.st_mode & 07777, 0640U) << file;
      EXPECT_EQ(status.st_uid, geteuid() == 0 ? kOther : geteuid()) << file;
      EXPECT_EQ(status.st_gid, geteuid() == 0 ? kOther : getegid()) << file;
    }
  }
}

TEST_P(QvutilRewrite, AMissingLockFileIsMadeLikeTheData) {
  const CacheFiles demo = stored(kSome);
  ASSERT_EQ(chmod(demo.main_file().c_str(), 0460), 0);
  ASSERT_EQ(unlink(demo.lock_file().c_str()), 0);
  EXPECT_EQ(rm(demo, {"b"}, console_), Outcome::fine);
  struct stat status {};
  ASSERT_EQ(stat(demo.lock_file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0660U);
}

TEST_P(QvutilRewrite, ConvertTakesWhatIsWholeOfADamagedCache) {
  const CacheFiles demo = stored(kSome);
  std::string bytes = read_file(demo.main_file());
  bytes[demo.kind == Kind::indexed ? 64 : 8] ^= 1;
  write_file(demo.main_file(), bytes);
  test::HeardConsole console;
  EXPECT_EQ(convert(demo, "basic", root_.path() + "/copy", console), Outcome::found);
  EXPECT_EQ(content_of({Kind::basic, root_.path(), "copy"}),
            (Content{{"aa", {"1"}}, {"ccc", kSome.at("ccc")}}));
  EXPECT_NE(console.err().find("1 damaged place"), std::string::npos) << console.err();
}

TEST(QvutilConvertLines, KeepsTheFirstOfARepeatedKey) {
  const test::TempDir root;
  const CacheFiles copy{Kind::lazy_lookup, root.path(), "copy"};
  write_file(root.file("lines"),
             "{\"key\":\"k\",\"atoms\":[\"1\"]}\n\n"
             "{\"atoms\":[{\"hex\":\"00FF\"}],\"key\":{\"hex\":\"6b\"}}\n");
  test::HeardConsole console;
  EXPECT_EQ(convert_lines(root.file("lines"), "lazy_lookup", path_of(copy), console),
            Outcome::fine);
  EXPECT_EQ(content_of(copy), (Content{{"k", {"1"}}}));
  EXPECT_EQ(console.out(), "copy (lazy_lookup): 1 entry; left out 1 repeated key\n");
}

TEST(QvutilConvertLines, NamesTheLineThatIsNoEntry) {
  const test::TempDir root;
  const CacheFiles copy{Kind::basic, root.path(), "copy"};
  const std::string nested(100000, '[');
  for (const std::string& line :
       {std::string("x"), std::string("{}"), std::string("{\"key\":\"k\",\"atoms\":[]}"),
        std::string("{\"key\":\"\",\"atoms\":[\"1\"]}"),
        std::string("{\"key\":\"k\",\"atoms\":[\"\"]}"),
        std::string("{\"key\":\"k\",\"atoms\":[1]}"),
        std::string("{\"key\":{\"hex\":\"0\"},\"atoms\":[\"1\"]}"),
        "{\"key\":\"k\",\"atoms\":" + nested + std::string(100000, ']') + "}"}) {
    write_file(root.file("lines"), "{\"key\":\"a\",\"atoms\":[\"1\"]}\n" + line + "\n");
    test::HeardConsole console;
    try {
      convert_lines(root.file("lines"), "basic", path_of(copy), console);
      ADD_FAILURE() << line.substr(0, 100);
    } catch (const Failure& failure) {
      EXPECT_NE(std::string(failure.what()).find("lines, line 2: "), std::string::npos)
          << failure.what();
    }
    EXPECT_FALSE(test::exists(copy.main_file()));
  }
}

TEST(QvutilConvertLines, NeedsANameAndAFile) {
  test::HeardConsole console;
  EXPECT_THROW(convert_lines("/nonexistent", "basic", "", console), Failure);
  EXPECT_THROW(convert_lines("/nonexistent", "basic", "/nonexistent/root/demo", console), Failure);
  const test::TempDir root;
  EXPECT_THROW(convert_lines("/nonexistent", "basic", root.file("demo"), console), Failure);
  EXPECT_EQ(test::names_in(root.path()), std::vector<std::string>());
}

// As on a full disk.
TEST(QvutilConvertIndexed, SaysNothingWrongIfTheIndexCantBeMade) {
  const test::TempDir root;
  const CacheFiles demo{Kind::basic, root.path(), "demo"};
  ASSERT_TRUE(test::store_all(demo, kSome));
  const pid_t child = test::in_child([&] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit page{4096, 4096};
    setrlimit(RLIMIT_FSIZE, &page);
    test::HeardConsole console;
    try {
      convert(demo, "indexed", "", console);
    } catch (const Failure& failure) {
      return std::string(failure.what()).find("dat_demo; the library's log says why") ==
                     std::string::npos
                 ? 2
                 : 0;
    }
    return 1;
  });
  EXPECT_EQ(test::wait_for(child), 0);
}

TEST(QvutilConvertRemote, FailsWithoutServers) {
  const test::TempDir root;
  const CacheFiles demo{Kind::basic, root.path(), "demo"};
  ASSERT_TRUE(test::store_all(demo, kSome));
  test::HeardConsole console;
  EXPECT_THROW(convert(demo, "remote", "", console), Failure);
}

// --- the program ---

test::Ran run(const test::Arguments& arguments, const std::string& root) {
  return test::run_program(QV_BINARY_DIR "/bin/qvutil", arguments, {{"QV_CACHE_STORE_ROOT", root}});
}

TEST(QvutilRewriteProgram, TakesItsOptions) {
  const test::TempDir root;
  ASSERT_TRUE(test::store_all({Kind::basic, root.path(), "demo"}, kSome));
  EXPECT_TRUE(run({"repair", "demo", "--dry-run"}, root.path()).exited_with(0));
  EXPECT_TRUE(run({"rm", "demo", "b", "none"}, root.path()).exited_with(1));
  EXPECT_TRUE(run({"compact", "demo", "--kind", "basic"}, root.path()).exited_with(0));
  EXPECT_TRUE(run({"convert", "demo", "--to", "indexed"}, root.path()).exited_with(0));
  const test::Ran ambiguous = run({"compact", "demo"}, root.path());
  EXPECT_TRUE(ambiguous.exited_with(2)) << ambiguous.out;
  const test::Ran lines =
      run({"convert", "demo", "--kind", "indexed", "--to", "jsonl"}, root.path());
  EXPECT_EQ(lines.out, "{\"key\":\"aa\",\"atoms\":[\"1\"]}\n{\"key\":\"ccc\",\"atoms\":[\"" +
                           std::string(300, 'x') + "\"]}\n");
}

TEST(QvutilRewriteProgram, LeavesNoKeysBehindWhenNobodyReadsItsLines) {
  const test::TempDir root;
  const test::TempDir temporary;
  const CacheFiles demo{Kind::basic, root.path(), "demo"};
  Content many;
  for (int i = 0; i < 70000; ++i) {
    many["key " + std::to_string(i)] = {"v"};
  }
  ASSERT_TRUE(test::store_all(demo, many));
  const test::Ran ran =
      test::run_program("/bin/sh",
                        {"-c", "{ " QV_BINARY_DIR "/bin/qvutil convert " + path_of(demo) +
                                   " --to jsonl; echo $? >&2; } | { head -n 55000 > /dev/null; }"},
                        {{"TMPDIR", temporary.path()}, {"PATH", "/usr/bin:/bin"}});
  EXPECT_EQ(ran.err, "141\n");  // quietly, as other filters are
  EXPECT_EQ(test::names_in(temporary.path()), std::vector<std::string>());
}

TEST(QvutilRewriteProgram, SaysWhyItCant) {
  const test::TempDir root;
  for (const test::Arguments& arguments :
       std::vector<test::Arguments>{{"repair", "none"},
                                    {"rm", "demo"},
                                    {"rm", "none", "key"},
                                    {"convert", "demo"},
                                    {"convert", "demo", "--to", "paper"},
                                    {"convert", "demo", "other", "--to", "basic"},
                                    {"convert", "demo", "--from", "remote", "--to", "basic"}}) {
    const test::Ran ran = run(arguments, root.path());
    EXPECT_TRUE(ran.exited_with(2)) << ran.out;
    EXPECT_NE(ran.err, "");
  }
}

// --- the set of keys ---

TEST(QvutilSeenKeys, KnowsKeysThatItHasMovedToDisk) {
  const test::TempDir root;
  {
    quorvane::tool::SeenKeys seen(root.path());
    for (int pass = 0; pass < 2; ++pass) {
      for (int i = 0; i < 70000; ++i) {
        ASSERT_EQ(seen.add("key " + std::to_string(i)), pass == 0) << i;
      }
    }
    EXPECT_EQ(test::names_in(root.path()).size(), 1U);
  }
  EXPECT_EQ(test::names_in(root.path()).size(), 0U);
}

}  // namespace
