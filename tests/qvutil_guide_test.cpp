// The shell sessions of the guide's "Operate it", run as they stand there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cctype>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/console_block.h"
#include "support/temp_dir.h"

namespace {

using test::Stage;

// Fills the directory in which the commands of an incident run, and starts its processes.
using Prepare = std::function<Stage(const std::string& directory)>;

// By the heading of the incident.
const std::map<std::string, Prepare>& incidents() {
  static const std::map<std::string, Prepare> all{};
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

class Incident : public testing::TestWithParam<std::string> {};

// The sessions of an incident run one after the other in one directory.
TEST_P(Incident, PrintsWhatTheGuideShows) {
  const test::TempDir dir;
  const Stage stage = incidents().at(GetParam())(dir.path());
  for (const std::string& block : blocks_of(GetParam())) {
    const std::string printed = test::as_shown(test::run_block(block, dir.path()), stage);
    EXPECT_EQ(test::normalised(printed), test::normalised(block)) << printed;
  }
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(Incident);
INSTANTIATE_TEST_SUITE_P(Guide, Incident, testing::ValuesIn(headings()), test_name);

}  // namespace
