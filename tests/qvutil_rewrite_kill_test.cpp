#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <exception>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "qvutil/commands/compact.h"
#include "qvutil/commands/convert.h"
#include "qvutil/commands/repair.h"
#include "qvutil/commands/rm.h"
#include "support/processes.h"
#include "support/refuse_nth.h"
#include "support/tool_caches.h"
#include "support/tracee.h"

namespace {

using quorvane::tool::CacheFiles;
using quorvane::tool::Kind;
using quorvane::tool::Outcome;
using test::Content;
using test::content_of;
using test::read_file;
using test::write_file;

const Content kSome{{"b", {"2", "3"}}, {"aa", {"1"}}, {"ccc", {std::string(300, 'x')}}};
const Content kWithoutB{{"aa", {"1"}}, {"ccc", {std::string(300, 'x')}}};
const Content kOther{{"k", {"v"}}, {"kk", {"vv", "w"}}};

// Of how many steps one is looked at. Under a sanitizer, each takes many times as long.
#ifdef QV_SANITIZED
constexpr int kStride = 7;
#else
constexpr int kStride = 1;
#endif

enum class Command { rm, compact, repair, convert };

std::string path_of(const CacheFiles& cache) { return cache.root + "/" + cache.name; }

void damage_first_entry(const CacheFiles& cache) {
  std::string bytes = read_file(cache.main_file());
  bytes[cache.kind == Kind::indexed ? 64 : 8] ^= 1;
  write_file(cache.main_file(), bytes);
  unlink(cache.path("idx_").c_str());
}

void repeat_entries(const CacheFiles& cache) {
  const std::string bytes = read_file(cache.main_file());
  write_file(cache.main_file(), bytes + bytes.substr(cache.kind == Kind::indexed ? 64 : 8));
  unlink(cache.path("idx_").c_str());
}

// Values that no key leads to: a repeated key would be damage.
void add_dead_values(const CacheFiles& cache) {
  write_file(cache.path("val_"), read_file(cache.path("val_")) + std::string(5000, 'x'));
}

// A cache, a command that changes it, and what the cache may hold before and after.
struct Case {
  Command command;
  CacheFiles cache;

  void prepare() const {
    test::store_all(cache, command == Command::convert ? kOther : kSome);
    if (command == Command::convert) {
      test::store_all(source(), kSome);
    } else if (command == Command::repair) {
      damage_first_entry(cache);
    } else if (command == Command::compact) {
      cache.kind == Kind::lazy_lookup ? add_dead_values(cache) : repeat_entries(cache);
    }
  }

  Outcome run() const {
    namespace tool = quorvane::tool;
    test::HeardConsole console;
    switch (command) {
      case Command::rm:
        return tool::rm(console.get(), {path_of(cache), tool::name_of(cache.kind), {"b"}, false});
      case Command::compact:
        return tool::compact(console.get(), {path_of(cache), tool::name_of(cache.kind)});
      case Command::repair:
        return tool::repair(console.get(), {path_of(cache), tool::name_of(cache.kind), false});
      case Command::convert:
        break;
    }
    return tool::convert(
        console.get(),
        {{path_of(source())}, false, "basic", tool::name_of(cache.kind), path_of(cache), true});
  }

  // As the program's exit status.
  int status() const {
    try {
      return static_cast<int>(run());
    } catch (const std::exception&) {
      return static_cast<int>(Outcome::failed);
    }
  }

  std::optional<Content> before() const {
    if (command == Command::repair) {
      return std::nullopt;
    }
    return command == Command::convert ? kOther : kSome;
  }
  Content after() const {
    return command == Command::rm || command == Command::repair ? kWithoutB : kSome;
  }

  CacheFiles source() const { return {Kind::basic, cache.root, "source"}; }
};

// Calls that change a directory or a file.
bool changes_files(std::uint64_t call) {
  static constexpr std::uint64_t kCalls[] = {
      SYS_pwrite64, SYS_ftruncate, SYS_truncate, SYS_renameat2, SYS_linkat, SYS_unlinkat,
      SYS_mkdirat,  SYS_openat,
#ifdef SYS_rename
      SYS_rename,   SYS_link,      SYS_unlink,   SYS_mkdir,     SYS_rmdir,  SYS_open,
#endif
      SYS_renameat, SYS_fchmod};
  return std::find(std::begin(kCalls), std::end(kCalls), call) != std::end(kCalls);
}

// Runs a function in a child, which is killed before the change that follows `allowed` others.
// False if it makes fewer.
bool kill_before_change(int allowed, const std::function<void()>& body) {
  test::Tracee child(body);
  for (int signal = 0; (signal = child.resume(PTRACE_SYSCALL)) != 0;) {
    __ptrace_syscall_info call{};
    ptrace(PTRACE_GET_SYSCALL_INFO, child.pid(), sizeof(call), &call);
    if (signal == test::Tracee::kAtCall && call.op == PTRACE_SYSCALL_INFO_ENTRY &&
        changes_files(call.entry.nr) && allowed-- == 0) {
      child.kill();
      return true;
    }
  }
  return false;
}

class QvutilRewriteKilled : public ::testing::TestWithParam<std::tuple<Command, Kind>> {
 protected:
  static void SetUpTestSuite() { test::sync_nothing(); }

  static Case case_in(const std::string& root) {
    return {std::get<0>(GetParam()), {std::get<1>(GetParam()), root, "demo"}};
  }

  static void expect_old_or_new(const Case& checked) {
    const auto content = content_of(checked.cache);
    // The library finds no damage in an entry of an indexed cache until somebody asks for it.
    EXPECT_TRUE(content == checked.before() || content == checked.after());
  }

  // A second run finishes what the first one began, and removes what it left.
  static void expect_finished_by_second(const Case& checked,
                                        const std::vector<std::string>& names) {
    const int status = checked.status();
    const bool was_done = checked.command == Command::rm && status == 1;
    EXPECT_TRUE(status == 0 || was_done) << status;
    EXPECT_EQ(content_of(checked.cache), checked.after());
    EXPECT_EQ(test::names_in(checked.cache.root), names);
  }

  // The names after a run that nothing disturbs.
  static std::vector<std::string> names_after() {
    const test::TempDir root;
    const Case undisturbed = case_in(root.path());
    undisturbed.prepare();
    EXPECT_EQ(undisturbed.status(), 0);
    EXPECT_EQ(content_of(undisturbed.cache), undisturbed.after());
    return test::names_in(root.path());
  }
};
INSTANTIATE_TEST_SUITE_P(All, QvutilRewriteKilled,
                         ::testing::Combine(::testing::Values(Command::rm, Command::compact,
                                                              Command::repair, Command::convert),
                                            ::testing::ValuesIn(test::kAllKinds)));

TEST_P(QvutilRewriteKilled, LeavesTheOldCacheOrTheNewOneAtEveryStep) {
  const std::vector<std::string> names = names_after();
  int kills = 0;
  for (bool is_killed = true; is_killed && !HasFailure(); kills += kStride) {
    SCOPED_TRACE(kills);
    const test::TempDir root;
    const Case killed = case_in(root.path());
    killed.prepare();
    is_killed = kill_before_change(kills, [&] { killed.run(); });
    expect_old_or_new(killed);
    expect_finished_by_second(killed, names);
  }
  EXPECT_GT(kills, 10);
}

// The other commands write and rename as these two do.
class QvutilRewriteRefused : public QvutilRewriteKilled {};
INSTANTIATE_TEST_SUITE_P(All, QvutilRewriteRefused,
                         ::testing::Combine(::testing::Values(Command::rm, Command::repair),
                                            ::testing::ValuesIn(test::kAllKinds)));

TEST_P(QvutilRewriteRefused, LeavesTheOldCacheOrTheNewOneWhenTheDiskIsFull) {
  const std::vector<std::string> names = names_after();
  int refusals = 0;
  for (bool is_refused = true; is_refused && !HasFailure(); refusals += kStride) {
    SCOPED_TRACE(refusals);
    const test::TempDir root;
    const Case refused = case_in(root.path());
    refused.prepare();
    const test::Refused ran = test::in_child_with_a_refusal(
        refusals, ENOSPC, [] { return 0; }, [&](int) { return refused.status(); });
    is_refused = ran.call != test::kNoCall;
    EXPECT_TRUE(ran.status == 0 || ran.status == 2) << ran.status << " by call " << ran.call;
    if (ran.status == 0) {
      EXPECT_EQ(content_of(refused.cache), refused.after()) << ran.call;
    } else {
      expect_old_or_new(refused);
    }
    expect_finished_by_second(refused, names);
  }
  EXPECT_GT(refusals, 10);
}

class QvutilRewriteLive : public ::testing::TestWithParam<Kind> {
 protected:
  const test::TempDir root_;
  const CacheFiles cache_{GetParam(), root_.path(), "demo"};
};
INSTANTIATE_TEST_SUITE_P(Kinds, QvutilRewriteLive, ::testing::ValuesIn(test::kAllKinds),
                         test::kind_name);

TEST_P(QvutilRewriteLive, KeepsTheOldFilesIfTheNewOnesAreTooLarge) {
  Content large{{"b", {"1"}}};
  for (int i = 0; i < 10; ++i) {
    large["key " + std::to_string(i)] = {std::string(100000, static_cast<char>('a' + i))};
  }
  ASSERT_TRUE(test::store_all(cache_, large));
  const std::vector<std::string> names = test::names_in(root_.path());
  const pid_t child = test::in_child([&] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit file{500000, 500000};
    setrlimit(RLIMIT_FSIZE, &file);
    return Case{Command::rm, cache_}.status();
  });
  EXPECT_EQ(test::wait_for(child), 2);
  EXPECT_EQ(content_of(cache_), large);
  EXPECT_EQ(test::names_in(root_.path()), names);
}

// Stores `count` keys, each with a store of its own, or all with one. Reports those that are
// stored. One of its own stores nothing if the files are replaced meanwhile; then the next one
// does.
int store_keys(const CacheFiles& cache, const std::string& prefix, int count, bool opens_once,
               int report) {
  std::unique_ptr<quorvane::cache::Store> store;
  const auto open_store = [&] {
    store = test::store_of(cache);
    quorvane::cache::EntryMap loaded;
    store->try_load(loaded);
  };
  open_store();
  for (int i = 0; i < count; ++i) {
    const std::string key = prefix + std::to_string(i);
    const auto entries = test::entry_map({{key, {"value of " + key}}});
    bool is_stored = false;
    do {
      if (!opens_once) {
        open_store();
      }
      is_stored = store->try_store_diff(entries);
    } while (!is_stored && !opens_once);
    const std::string line = key + "\n";
    if (is_stored && write(report, line.data(), line.size()) < 0) {
      return 1;
    }
  }
  return 0;
}

std::vector<std::string> lines_of(int fd) {
  std::vector<std::string> lines(1);
  for (char byte = 0; read(fd, &byte, 1) == 1;) {
    if (byte == '\n') {
      lines.emplace_back();
    } else {
      lines.back() += byte;
    }
  }
  lines.pop_back();
  return lines;
}

TEST_P(QvutilRewriteLive, LosesNothingThatOtherProcessesStoreMeanwhile) {
  Content seeds;
  for (int i = 0; i < 30; ++i) {
    seeds["seed " + std::to_string(i)] = {"old"};
  }
  ASSERT_TRUE(test::store_all(cache_, seeds));
  int report[2];
  ASSERT_EQ(pipe(report), 0);
  std::vector<pid_t> children;
  for (const bool opens_once : {false, true}) {
    children.push_back(test::in_child([&] {
      return store_keys(cache_, opens_once ? "one " : "many ", 100, opens_once, report[1]);
    }));
  }
  close(report[1]);
  for (int i = 0; i < 30; ++i) {
    test::HeardConsole console;
    EXPECT_EQ(quorvane::tool::rm(
                  console.get(),
                  {path_of(cache_), name_of(cache_.kind), {"seed " + std::to_string(i)}, false}),
              Outcome::fine);
    quorvane::tool::compact(console.get(), {path_of(cache_), name_of(cache_.kind)});
  }
  const std::vector<std::string> stored = lines_of(report[0]);
  close(report[0]);
  for (const pid_t child : children) {
    EXPECT_EQ(test::wait_for(child), 0);
  }
  const auto content = content_of(cache_);
  ASSERT_TRUE(content.has_value());
  EXPECT_EQ(content->size(), stored.size());
  EXPECT_GE(stored.size(), 100U);
  for (const std::string& key : stored) {
    EXPECT_EQ(content->count(key), 1U) << key;
  }
}

}  // namespace
