// The sessions in "A damaged store" and "A full disk" of docs/guide.md print what the page shows.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "support/scenario.h"
#include "support/temp_dir.h"

namespace test {
namespace {

constexpr const char* kOpening = "```console\n";

// The lines of all console blocks of a section.
std::string session_in(const std::string& heading) {
  const std::string guide = read_file(QV_SOURCE_DIR "/docs/guide.md");
  const std::size_t begin = guide.find("### " + heading + "\n");
  const std::string section = guide.substr(begin, guide.find("\n### ", begin) - begin);
  std::string lines;
  for (std::size_t at = section.find(kOpening); at != std::string::npos;
       at = section.find(kOpening, at)) {
    at += std::string(kOpening).size();
    lines += section.substr(at, section.find("```\n", at) - at);
  }
  return lines;
}

// The commands of a session, each after itself.
std::string script_of(const std::string& session) {
  std::string script = "qvutil() { '" QV_BINARY_DIR "/bin/qvutil' \"$@\"; }\n";
  std::istringstream lines(session);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("$ ", 0) == 0) {
      script += "cat <<'END'\n" + line + "\nEND\n" + line.substr(2) + "\n";
    }
  }
  return script;
}

class GuideToMending : public ::testing::TestWithParam<const char*> {};
INSTANTIATE_TEST_SUITE_P(Sections, GuideToMending,
                         ::testing::Values("A damaged store", "A full disk"));

TEST_P(GuideToMending, ShowsWhatTheToolPrints) {
  const TempDir dir;
  const std::string session = session_in(GetParam());
  ASSERT_NE(session.find("$ qvutil "), std::string::npos);
  const std::string script = "cd '" + dir.path() + "'; exec 2>&1\n" + script_of(session);
  EXPECT_EQ(run_program("/bin/sh", {"-c", script}).out, session);
}

}  // namespace
}  // namespace test
