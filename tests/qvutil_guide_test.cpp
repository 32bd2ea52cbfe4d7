// The shell sessions of the guide's "Operate it", run as they stand there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/console_block.h"
#include "support/lines.h"
#include "support/lock_probe.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace {

using test::Stage;

// Fills the directory in which the commands of an incident run, and starts its processes. It is
// called once for each incident.
using Prepare = std::function<Stage(const std::string& directory)>;

constexpr const char* kPrograms = QV_BINARY_DIR "/bin/guide/";

// With `entries` of which the key "/src/1.c" is one.
void make_sizes(const std::string& root, quorvane::cache::StoreKind kind, int entries) {
  std::filesystem::create_directory(root);
  quorvane::cache::StoreOptions options;
  options.kind = kind;
  options.name = "sizes";
  options.root = root;
  quorvane::cache::Cache cache("sizes", quorvane::cache::make_store(options), false);
  for (int i = 0; i < entries; ++i) {
    cache.add_value(test::buffer("/src/" + std::to_string(i) + ".c"), test::buffers({"221"}));
  }
}

void link_program(const std::string& directory, const std::string& program) {
  std::filesystem::create_symlink(kPrograms + program, directory + "/" + program);
}

// Starts a program in `directory` that has a pid file in run/, logs into PROGRAM.log, and prints
// into `out`.
pid_t start(const std::string& directory, const std::string& program, const std::string& argument,
            int out) {
  return test::in_child([&] {
    if (chdir(directory.c_str()) != 0 || dup2(out, STDOUT_FILENO) < 0) {
      return 1;
    }
    setenv("QV_CACHE_STORE_ROOT", "cache", 1);
    setenv("QV_LOG_FILE", (program + ".log").c_str(), 1);
    setenv("QV_PIDFILE_ROOT", "run/", 1);
    execl((kPrograms + program).c_str(), program.c_str(), argument.c_str(), nullptr);
    return 1;
  });
}

// The library says for whom it waits after five seconds.
void await_record(const std::string& log) {
  while (test::read_file(log).find("Waiting for") == std::string::npos) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

Stage hold_lock(const std::string& directory) {
  make_sizes(directory + "/cache", quorvane::cache::StoreKind::basic, 1000);
  std::filesystem::create_directory(directory + "/run");
  test::Pipe out;
  Stage stage;
  stage.children.push_back(start(directory, "builder", "cache/lock_sizes", out.ends[1]));
  char locked = 0;
  EXPECT_EQ(read(out.ends[0], &locked, 1), 1);
  stage.children.push_back(start(directory, "reader", "basic", out.ends[1]));
  await_record(directory + "/reader.log");
  stage.shown_as = {{std::to_string(stage.children[0]), "4711"},
                    {std::to_string(stage.children[1]), "4712"}};
  return stage;
}

Stage lose_index(const std::string& directory) {
  make_sizes(directory + "/cache", quorvane::cache::StoreKind::indexed, 10'000);
  std::filesystem::remove(directory + "/cache/idx_sizes");
  link_program(directory, "reader");
  return {};
}

void make_older(const std::string& directory, std::time_t seconds) {
  const timespec then{std::time(nullptr) - seconds, 0};
  const timespec times[2] = {then, then};
  for (const std::string& name : test::names_in(directory)) {
    EXPECT_EQ(utimensat(AT_FDCWD, (directory + "/" + name).c_str(), times, 0), 0);
  }
}

void store(const std::string& root, quorvane::cache::StoreKind kind, const std::string& name,
           const std::vector<test::Entry>& entries) {
  quorvane::cache::StoreOptions options;
  options.kind = kind;
  options.root = root;
  options.name = name;
  const auto made = quorvane::cache::make_store(options);
  quorvane::cache::EntryMap loaded;
  EXPECT_TRUE(made->try_load(loaded) && made->try_store_diff(test::entry_map(entries)));
}

Stage use_old_keys(const std::string& directory) {
  const std::string root = directory + "/cache";
  std::filesystem::create_directory(root);
  store(root, quorvane::cache::StoreKind::indexed, "kernels",
        {{"v1/add", {std::string(900, 'a'), "gfx9"}},
         {"v1/conv2d", {std::string(48000, 'c'), "gfx9"}},
         {"v1/mul", {std::string(1100, 'm'), "gfx9"}}});
  store(root, quorvane::cache::StoreKind::basic, "images",
        {{"logo", {std::string(5000 - 40, 'i')}}});
  make_older(root, 3 * 86400);
  return {};
}

Stage begin_empty(const std::string&) { return {}; }

// By the heading of the incident.
const std::map<std::string, Prepare>& incidents() {
  static const std::map<std::string, Prepare> all{{"A cache that gives no hits", &use_old_keys},
                                                  {"A damaged store", &begin_empty},
                                                  {"A full disk", &begin_empty},
                                                  {"A process that holds a lock", &hold_lock},
                                                  {"A slow start", &lose_index}};
  return all;
}

const std::string& guide() {
  static const std::string text =
      test::section_of(test::read_file(QV_SOURCE_DIR "/docs/guide.md"), "## Operate it");
  return text;
}

std::vector<std::string> blocks_of(const std::string& incident) {
  return test::console_blocks(test::section_of(guide(), "### " + incident));
}

TEST(GuideOfOperation, HasNoSessionThatNoTestRuns) {
  std::size_t run = 0;
  for (const auto& [incident, prepare] : incidents()) {
    EXPECT_THAT(blocks_of(incident), testing::Not(testing::IsEmpty())) << incident;
    run += blocks_of(incident).size();
  }
  EXPECT_EQ(run, test::console_blocks(guide()).size());
}

std::vector<std::string> headings() {
  std::vector<std::string> all;
  for (const auto& [incident, prepare] : incidents()) {
    all.push_back(incident);
  }
  return all;
}

// "AProcessThatHoldsALock".
std::string test_name(const testing::TestParamInfo<std::string>& heading) {
  std::string name;
  bool begins_word = true;
  for (const char c : heading.param) {
    if (c != ' ') {
      name += begins_word ? static_cast<char>(std::toupper(c)) : c;
    }
    begins_word = c == ' ';
  }
  return name;
}

// The lines without what differs from run to run. The rows of a trace stand in the order of their
// times, so they are put in that of their names.
std::vector<std::string> comparable(const std::string& text) {
  std::vector<std::string> lines = test::lines_of(test::normalised(text));
  const auto is_row = [](const std::string& line) { return line.rfind("store_", 0) == 0; };
  auto first = std::find_if(lines.begin(), lines.end(), is_row);
  while (first != lines.end()) {
    const auto last = std::find_if_not(first, lines.end(), is_row);
    std::sort(first, last);
    first = std::find_if(last, lines.end(), is_row);
  }
  return lines;
}

class Incident : public testing::TestWithParam<std::string> {};

// The sessions of an incident are one: they run one after the other in one shell.
TEST_P(Incident, PrintsWhatTheGuideShows) {
  const test::TempDir dir;
  const Stage stage = incidents().at(GetParam())(dir.path());
  std::string session;
  for (const std::string& block : blocks_of(GetParam())) {
    session += block;
  }
  const std::string printed = test::as_shown(test::run_block(session, dir.path()), stage);
  EXPECT_EQ(comparable(printed), comparable(session)) << printed;
}

INSTANTIATE_TEST_SUITE_P(Guide, Incident, testing::ValuesIn(headings()), test_name);

}  // namespace
