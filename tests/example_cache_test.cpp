// The examples of the cache in C and in Python, run as a user runs them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/documents.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using Arguments = std::vector<std::string>;

// A program, and the arguments that come before those of its user.
struct Example {
  std::string name;
  std::string path;
  Arguments first;
};

const Example kC{"c_cache", QV_BINARY_DIR "/bin/c_cache", {}};
const Example kPython{"python_cache",
                      "/usr/bin/env",
                      {"python3", QV_SOURCE_DIR "/examples/python_cache/python_cache.py",
                       "--library", QV_BINARY_DIR "/lib/libQVUtil.so"}};

std::vector<Example> examples() {
#ifdef QV_SANITIZED  // Python can't load a sanitized library
  return {kC};
#else
  return {kC, kPython};
#endif
}

test::Ran run_in(const std::string& root, const Example& example, const Arguments& words) {
  Arguments all = example.first;
  all.insert(all.end(), words.begin(), words.end());
  return test::run_program(example.path, all,
                           {{"QV_CACHE_STORE_ROOT", root},
                            {"QV_CACHE_STORE_SIZE", "0"},
                            {"PYTHONDONTWRITEBYTECODE", "1"}});
}

class CacheExample : public testing::TestWithParam<Example> {
 protected:
  test::Ran run(const Arguments& words) const { return run_in(root_.path(), GetParam(), words); }

  test::TempDir root_;
};

INSTANTIATE_TEST_SUITE_P(Languages, CacheExample, testing::ValuesIn(examples()),
                         [](const auto& example) { return example.param.name; });

TEST_P(CacheExample, FindsInASecondRunWhatItsPageShows) {
  const test::Ran first = run({"one", "two"});
  EXPECT_TRUE(first.exited_with(0));
  EXPECT_EQ(first.err, "");
  const test::Ran second = run({"two", "three"});
  EXPECT_TRUE(second.exited_with(0));
  EXPECT_EQ(second.err, "");
  const std::string page =
      test::read_file(QV_SOURCE_DIR "/examples/" + GetParam().name + "/README.md");
  EXPECT_EQ(second.out, test::fenced_block(page, "```text"));
  EXPECT_NE(second.out, "");
}

TEST_P(CacheExample, SaysWhyTheCacheCannotBeOpened) {
  const test::Ran ran = run_in(root_.file("none"), GetParam(), {"one"});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_EQ(ran.out, "");
  EXPECT_NE(ran.err.find("the root directory or the store isn't there\n"), std::string::npos)
      << ran.err;
}

TEST_P(CacheExample, SaysWhyAWordIsRefused) {
  const test::Ran ran = run({"one", ""});
  EXPECT_TRUE(ran.exited_with(1));
  EXPECT_NE(ran.err.find("an argument is wrong"), std::string::npos) << ran.err;
  EXPECT_EQ(run({"one"}).out.rfind("one cached", 0), 0u) << "but stores what came before";
}

TEST_P(CacheExample, SaysHowItIsUsed) {
  const test::Ran ran = run({});
  EXPECT_TRUE(ran.exited_with(2));
  EXPECT_EQ(ran.err.rfind("usage: " + GetParam().name, 0), 0u) << ran.err;
}

#ifndef QV_SANITIZED
TEST(CacheExamples, ShareTheirEntries) {
  const test::TempDir root;
  run_in(root.path(), kC, {"one"});
  EXPECT_EQ(run_in(root.path(), kPython, {"one", "two"}).out.rfind("one cached", 0), 0u);
  EXPECT_EQ(run_in(root.path(), kC, {"two"}).out.rfind("two cached", 0), 0u);
}
#endif

}  // namespace
