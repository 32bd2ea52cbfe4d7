// What bash offers behind `qvutil`.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/lines.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;

// What is offered for the last word of a command line.
std::vector<std::string> offered(std::vector<std::string> words,
                                 const std::string& root = "/none") {
  words.insert(words.begin(), QV_BINARY_DIR "/bin/qvutil");
  const std::string script =
      ". " QV_SOURCE_DIR
      "/tools/qvutil/completion.bash; COMP_WORDS=(\"$@\"); "
      "COMP_CWORD=$(($# - 1)); _qvutil; [ ${#COMPREPLY[@]} = 0 ] || printf '%s\\n' "
      "\"${COMPREPLY[@]}\"";
  test::Arguments arguments{"-c", script, "bash"};
  arguments.insert(arguments.end(), words.begin(), words.end());
  const test::Ran ran =
      test::run_program("/bin/bash", arguments,
                        {{"QV_CACHE_STORE_ROOT", root}, {"PATH", "/usr/local/bin:/usr/bin:/bin"}});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  EXPECT_EQ(ran.err, "");
  return test::lines_of(ran.out);
}

TEST(Completion, OffersTheCommandsThatTheHelpLists) {
  EXPECT_THAT(offered({""}), IsSupersetOf({"help", "ls", "repair", "stats", "verify"}));
  EXPECT_THAT(offered({"ver"}), ElementsAre("verify"));
  EXPECT_THAT(offered({"xyz"}), IsEmpty());
}

TEST(Completion, OffersTheOptionsOfTheCommand) {
  EXPECT_THAT(offered({"repair", "-"}), IsSupersetOf({"--dry-run", "--help", "--json", "--kind"}));
  EXPECT_THAT(offered({"repair", "--dry"}), ElementsAre("--dry-run"));
  EXPECT_THAT(offered({"pids", "-"}), Not(Contains("--dry-run")));
}

TEST(Completion, OffersTheKinds) {
  EXPECT_THAT(offered({"show", "--kind", ""}), ElementsAre("basic", "indexed", "lazy_lookup"));
}

TEST(Completion, OffersTheCachesOfTheRootOnce) {
  const test::TempDir root;
  for (const char* name : {"dat_a", "idx_a", "key_b", "val_b", "plain", "with blank", "lock_a",
                           "lock", "new_a", "plain.damaged"}) {
    test::write_file(root.file(name), "");
  }
  EXPECT_THAT(offered({"show", ""}, root.path()), ElementsAre("a", "b", "plain", "with\\ blank"));
  EXPECT_THAT(offered({"rm", "a", "p"}, root.path()), ElementsAre("plain"));
  EXPECT_THAT(offered({"log", ""}, root.path()), IsEmpty());
}

TEST(Completion, OffersNothingWithoutARoot) { EXPECT_THAT(offered({"show", ""}, ""), IsEmpty()); }

}  // namespace
