// The session in "A cache that gives no hits" of docs/guide.md prints what the page shows.
#include <fcntl.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <sys/stat.h>
#include <time.h>

#include <string>
#include <vector>

#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace test {
namespace {

constexpr const char* kSection = "### A cache that gives no hits\n";
constexpr const char* kOpening = "```console\n";

// The lines of all console blocks of the section.
std::string session() {
  const std::string guide = read_file(QV_SOURCE_DIR "/docs/guide.md");
  const std::size_t begin = guide.find(kSection);
  const std::string section = guide.substr(begin, guide.find("\n### ", begin) - begin);
  std::string lines;
  for (std::size_t at = section.find(kOpening); at != std::string::npos;
       at = section.find(kOpening, at)) {
    at += std::string(kOpening).size();
    lines += section.substr(at, section.find("```\n", at) - at);
  }
  return lines;
}

bool store(const std::string& root, quorvane::cache::StoreKind kind, const std::string& name,
           const std::vector<Entry>& entries) {
  static auto& no_limit = *new quorvane::cache::CleanupController(0);
  quorvane::cache::StoreOptions options;
  options.kind = kind;
  options.root = root;
  options.name = name;
  options.controller = &no_limit;
  const auto made = quorvane::cache::make_store(options);
  quorvane::cache::EntryMap loaded;
  return made->try_load(loaded) && made->try_store_diff(entry_map(entries));
}

void make_three_days_old(const std::string& directory) {
  const timespec then{time(nullptr) - 3 * 86400, 0};
  const timespec times[2] = {then, then};
  for (const std::string& name : names_in(directory)) {
    ASSERT_EQ(utimensat(AT_FDCWD, (directory + "/" + name).c_str(), times, 0), 0);
  }
}

TEST(GuideToACacheThatGivesNoHits, ShowsWhatTheToolPrints) {
  const TempDir dir;
  const std::string root = dir.file("cache");
  ASSERT_EQ(mkdir(root.c_str(), 0700), 0);
  ASSERT_TRUE(store(root, quorvane::cache::StoreKind::indexed, "kernels",
                    {{"v1/add", {std::string(900, 'a'), "gfx9"}},
                     {"v1/conv2d", {std::string(48000, 'c'), "gfx9"}},
                     {"v1/mul", {std::string(1100, 'm'), "gfx9"}}}));
  ASSERT_TRUE(store(root, quorvane::cache::StoreKind::basic, "images",
                    {{"logo", {std::string(5000 - 40, 'i')}}}));
  make_three_days_old(root);

  const std::string expected = session();
  std::string script =
      "cd '" + dir.path() + "'; exec 2>&1\nqvutil() { '" QV_BINARY_DIR "/bin/qvutil' \"$@\"; }\n";
  std::size_t commands = 0;
  for (std::size_t at = 0; at < expected.size(); at = expected.find('\n', at) + 1) {
    if (expected.compare(at, 2, "$ ") == 0) {
      const std::string command = expected.substr(at + 2, expected.find('\n', at) - at - 2);
      // The shell's prompt stands at the beginning of a line.
      script += "echo '$ " + command + "'\n" + command + " | sed '$a\\'\n";
      ++commands;
    }
  }
  EXPECT_EQ(commands, 5u);
  EXPECT_EQ(run_program("/bin/sh", {"-c", script}).out, expected);
}

}  // namespace
}  // namespace test
