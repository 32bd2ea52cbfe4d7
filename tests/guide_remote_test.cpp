// The commands of docs/guide.md that run a cluster, and the program that two "machines" run on it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <regex>
#include <string>

#include "support/documents.h"
#include "support/lines.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using test::Ran;
using testing::Contains;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr int kNoPorts = 99;

std::string section(const std::string& text, const std::string& title) {
  const std::size_t begin = text.find("\n" + title + "\n");
  const std::size_t first = begin + title.size() + 2;
  return begin == std::string::npos ? "" : text.substr(first, text.find("\n## ", first) - first);
}

// Its ```sh blocks, one after the other. Before each comes `before`.
std::string commands_of(std::string text, const std::string& before) {
  const std::string fence = "```sh\n";
  std::string all;
  for (std::size_t at = 0; (at = text.find(fence)) != std::string::npos;) {
    text = text.substr(at);
    all += before + test::fenced_block(text, "```sh");
    text = text.substr(fence.size());
  }
  return all;
}

// Readers see it when a node can't have its port; the next commands would wait for ever.
const std::string kWaitForNodes = R"(
for port in $started; do
  until redis-cli --tls --cacert ca.crt -p $port ping >/dev/null 2>&1; do
    ! grep -q 'in use\|aborting' node-$port/log || exit 99
    sleep 0.02
  done
done
)";

class GuideOfServers : public testing::Test {
 protected:
  void SetUp() override {
    const std::string guide = test::read_file(QV_SOURCE_DIR "/docs/guide.md");
    const std::string sharing = section(guide, "## Share a cache between machines");
    const std::string servers = sharing.substr(sharing.find("\n### Servers\n"));
    commands_ = commands_of(servers.substr(0, servers.find("\n### When")), kWaitForNodes);
    ASSERT_THAT(commands_, HasSubstr("--cluster create"));
    records_ = servers.substr(servers.find("\n### When"));
    test::write_file(dir_.file("builds.cpp"), test::fenced_block(sharing, "```cpp"));
    const std::string compile =
        test::compile_command(dir_.file("builds.cpp"), dir_.file("builds"), "-lqvremote -pthread");
    ASSERT_EQ(std::system(compile.c_str()), 0) << compile;
    // The kernel kills the servers when the shell that runs the commands ends.
    std::filesystem::create_directory(dir_.file("bin"));
    write_program("redis-server", "exec setpriv --pdeathsig KILL /usr/bin/redis-server \"$@\"\n");
  }

  // Runs the commands, and then `more`, in a new directory, on ports of its own.
  Ran run(const std::string& more) {
    for (int attempt = 0;; ++attempt) {
      directory_ = dir_.file("try" + std::to_string(attempt));
      std::filesystem::create_directory(directory_);
      std::filesystem::copy(dir_.file("builds"), directory_ + "/builds");
      ports_ = std::to_string(std::uniform_int_distribution(2000, 3999)(random_));
      const std::string script =
          "set -eu\nstarted=\npids=\ntrap '[ -z \"$pids\" ] || kill -9 $pids; wait' EXIT\nPATH=" +
          dir_.file("bin") + ":$PATH\ncd " + directory_ + "\n" +
          std::regex_replace(commands_, std::regex("(redis-server [^\n]*&\n)"),
                             "$1started=\"$$started $$port\" pids=\"$$pids $$!\"\n") +
          more;
      test::write_file(dir_.file("script"),
                       std::regex_replace(script, std::regex(R"(\b700([123])\b)"), ports_ + "$1"));
      Ran ran = test::run_program("/bin/sh", {dir_.file("script")});
      if (!ran.exited_with(kNoPorts) || attempt == 9) {
        return ran;
      }
    }
  }

  std::vector<std::string> log_of(const std::string& machine) const {
    return test::level_and_message(
        test::parse_records(test::read_file(directory_ + "/" + machine + ".log")));
  }

  void write_program(const std::string& name, const std::string& text) const {
    const std::string path = dir_.file("bin/" + name);
    test::write_file(path, "#!/bin/sh\n" + text);
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
  }

  std::random_device random_;
  const test::TempDir dir_;
  std::string commands_;
  std::string records_;  // what the page says of them
  std::string directory_;
  std::string ports_;
};

std::vector<std::string> built(const std::string& out) {
  std::vector<std::string> lines;
  for (const std::string& line : test::lines_of(out)) {
    if (line.rfind("built", 0) == 0) {
      lines.push_back(line);
    }
  }
  return lines;
}

std::string shown_in_table(std::string record) {
  record = std::regex_replace(record, std::regex("^([A-Z]+) (.*)"), "| `$1` \"$2\" |");
  record = std::regex_replace(record, std::regex(R"(127\.0\.0\.1:\d+)"), "ADDRESS");
  return std::regex_replace(record, std::regex("2 of 2 additions to builds"),
                            "N of M additions to NAME");
}

// At the end, the third machine finds no server. Its files serve the second half of its run.
TEST_F(GuideOfServers, CommandsShareACacheOverTlsAndRecordsTellOfAnOutage) {
  const Ran ran = run(R"(
kill -9 $pids
pids=
mkdir machine3
QV_CACHE_STORE_ROOT=machine3 QV_LOG_FILE=machine3.log QV_CACHE_REMOTE_READ_ONLY=false ./builds
)");
  EXPECT_TRUE(ran.exited_with(0)) << ran.out << ran.err;
  EXPECT_THAT(built(ran.out),
              ElementsAre("built 2", "built 0", "built 0", "built 0", "built 2", "built 0"));
  const std::string connected =
      "INFO Connected to cache servers, nodes = 3, namespace = \"builds-v1\"";
  for (const char* machine : {"machine1", "machine2"}) {
    EXPECT_THAT(log_of(machine), Contains(connected));
    EXPECT_THAT(log_of(machine), Not(Contains(ContainsRegex("^(WARN|ERROR)"))));
  }
  for (const std::string& record :
       {"WARN Cache server 127.0.0.1:" + ports_ + "1 isn't asked for a while",
        std::string("WARN 2 of 2 additions to builds cache are not on the servers"),
        std::string("ERROR QV_FAULT_EXPECT: expectation (store_->try_store_diff(diff_map_)) "
                    "failed")}) {
    EXPECT_THAT(log_of("machine3"), Contains(StartsWith(record)));
    EXPECT_THAT(records_, HasSubstr(shown_in_table(record)));
  }
}

}  // namespace
