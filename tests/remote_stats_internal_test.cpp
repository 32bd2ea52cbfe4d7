// What remote stores count.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/library_path.h"
#include "support/scenario.h"
#include "support/scripted_node.h"
#include "support/temp_dir.h"

using quorvane::remote::RemoteStore;
using test::found;
using test::ScriptedNode;
using test::Words;
using testing::HasSubstr;

SCENARIO(look_up_on_servers) {
  RemoteStore store(test::kCacheName, test::settings_of({arguments.at(0)}));
  found(store, "a");
  found(store, "a");
  found(store, "absent");
  test::prefetch(store, {"a", "b", "absent too"});
  for (int i = 0; i < 8; ++i) {
    found(store, "cut");
  }
  return 0;
}

TEST(RemoteStatistics, CountLookUpsByWhatCameOfThem) {
  ScriptedNode node([](const Words& command) -> std::optional<test::Answer> {
    const bool is_cut = command[0] == "GET" && command[1] == test::on_servers("cut");
    return is_cut ? std::optional<test::Answer>(test::Answer("x").cut_after(0)) : std::nullopt;
  });
  node.put("a", {"1"});
  node.put("b", {"2"});
  const test::TempDir reports;
  const test::Ran ran = test::run_scenario(
      "look_up_on_servers",
      {{"QV_STATS_REPORT_FILE", reports.file("report")}, {"LD_LIBRARY_PATH", test::kLibraryPath}},
      {node.address()});
  EXPECT_TRUE(ran.exited_with(0)) << ran.err;
  const std::string report = test::read_file(reports.file("report"));
  EXPECT_THAT(report, HasSubstr("\"cache\":{\"remote\":{\"remote_errors\":3,\"remote_hits\":2,"
                                "\"remote_microseconds\":{\"count\":6,"));
  EXPECT_THAT(report, HasSubstr("\"remote_misses\":2,\"remote_skipped\":5"));
}
