// What caches on indexed stores report of themselves: statistics and records.
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/indexed_cache.h"
#include "support/library_path.h"
#include "support/lock_probe.h"
#include "support/processes.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using quorvane::cache::Cache;
using quorvane::cache::make_store;
using quorvane::cache::StoreKind;
using quorvane::cache::StoreOptions;
using test::add;
using test::get;
using test::indexed_options;
using test::open_cache;
using test::Ran;
using test::run_scenario;
using test::TempDir;
using testing::HasSubstr;
using testing::Not;
using Messages = std::vector<std::string>;

// --- statistics ---

// What a scenario reports at its end, from `from` on.
class IndexedStatistics : public testing::Test {
 protected:
  std::string report_of(const std::string& scenario, const std::string& from,
                        const test::Arguments& more = {}) const {
    test::Arguments arguments{root_.path()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const Ran ran = run_scenario(scenario,
                                 {{"QV_STATS_REPORT_FILE", reports_.file("report")},
                                  {"LD_LIBRARY_PATH", test::kLibraryPath}},
                                 arguments);
    EXPECT_TRUE(ran.exited_with(0)) << ran.status;
    const std::string report = test::read_file(reports_.file("report"));
    const std::size_t at = report.find(from);
    return at == std::string::npos ? "nothing from " + from + " on in " + report
                                   : report.substr(at);
  }

  TempDir root_;
  TempDir reports_;
};

std::unique_ptr<Cache> open_named(const std::string& root, const std::string& name) {
  StoreOptions options = indexed_options(root);
  options.name = name;
  return open_cache(options);
}

SCENARIO(count_in_two_caches) {
  const auto maps = open_named(arguments.at(0), "maps");
  const auto other = open_named(arguments.at(0), "other");
  for (const char* key : {"a", "b", "c"}) {
    add(*maps, key, "1");
  }
  maps->flush();
  get(*maps, "a");
  get(*maps, "missing");
  get(*maps, "missing");
  get(*other, "a");
  return 0;
}

TEST_F(IndexedStatistics, AreKeptForEachName) {
  const std::string report = report_of("count_in_two_caches", "\"cache\":{\"maps\":");
  const auto bytes = [this](const std::string& name) {
    return std::to_string(std::filesystem::file_size(root_.file("dat_" + name)) +
                          std::filesystem::file_size(root_.file("idx_" + name)));
  };
  EXPECT_THAT(report, testing::StartsWith("\"cache\":{\"maps\":{\"bytes\":" + bytes("maps") +
                                          ",\"dropped\":0,\"entries\":3,\"hits\":1,\"kept\":0,"));
  EXPECT_THAT(report, HasSubstr("\"other\":{\"bytes\":" + bytes("other") +
                                ",\"dropped\":0,\"entries\":0,\"hits\":0,\"kept\":0,"));
  EXPECT_THAT(report, HasSubstr("\"misses\":2,\"open_us\":{\"count\":1,"));
  EXPECT_THAT(report, HasSubstr("\"misses\":1,\"open_us\":{\"count\":1,"));
}

constexpr std::uint64_t kLimit = 50'000;

SCENARIO(clean_a_limited_store) {
  StoreOptions options = indexed_options(arguments.at(0), 10);
  options.size_limit = kLimit;
  const auto cache = open_cache(options);
  for (std::size_t i = 0; i < 500; ++i) {
    add(*cache, test::numbered("key", i), std::string(300, 'v'));
  }
  return 0;
}

// The number that follows `name` in a report.
std::uint64_t number_after(const std::string& report, const std::string& name) {
  const std::size_t at = report.find("\"" + name + "\":");
  return at == std::string::npos ? 0 : std::stoull(report.substr(at + name.size() + 3));
}

TEST_F(IndexedStatistics, CountWhatCleansKeepAndDropAndTheWaitsForTheLock) {
  const std::string report = report_of("clean_a_limited_store", "\"cache\":{\"maps\":");
  const std::uint64_t entries = test::indexed_entries(root_.path()).size();
  EXPECT_GT(number_after(report, "kept"), 0U);
  EXPECT_EQ(number_after(report, "dropped"), 500 - entries);
  EXPECT_EQ(number_after(report, "entries"), entries);
  EXPECT_LE(number_after(report, "bytes"), kLimit);
  // The files are created, and then there is a flush for each ten additions.
  EXPECT_EQ(number_after(report, "lock_wait_us\":{\"count"), 51U);
}

// An addition asks the store, but is neither a hit nor a miss.
SCENARIO(add_only) {
  const auto cache = open_cache(arguments.at(0));
  add(*cache, "a", "1");
  add(*cache, "a", "2");
  const auto key = test::buffer("b");
  cache->prefetch(&key, 1);
  return cache->size() == 1 ? 0 : 1;
}

TEST_F(IndexedStatistics, DoNotCountAdditionsAsLookUps) {
  EXPECT_THAT(report_of("add_only", "\"maps\":"),
              testing::AllOf(HasSubstr("\"hits\":0,"), HasSubstr("\"misses\":0,")));
}

SCENARIO(count_in_an_older_kind) {
  for (const StoreKind kind : {StoreKind::basic, StoreKind::lazy_lookup}) {
    StoreOptions options = indexed_options(arguments.at(0));
    options.kind = kind;
    const auto cache = open_cache(options);
    add(*cache, "a", "1");
    get(*cache, "a");
    get(*cache, "missing");
  }
  return 0;
}

TEST_F(IndexedStatistics, AreNotThoseOfTheOlderKinds) {
  EXPECT_THAT(
      report_of("count_in_an_older_kind", "\"log\":"),
      testing::MatchesRegex("\"log\":\\{\"@process\":\\{[^}]*\\},\"util\":\\{\"src\":\\{\"cache\":"
                            "\\{\"cache_hits\":2,\"cache_misses\":2\\}\\}\\}\\}\\}\n"));
}

SCENARIO(count_under_a_name) {
  const auto cache = open_named(arguments.at(0), arguments.at(1));
  get(*cache, "missing");
  return cache->is_valid() ? 0 : 1;
}

TEST_F(IndexedStatistics, QuoteTheCharactersOfAName) {
  EXPECT_THAT(report_of("count_under_a_name", "\"cache\":{", {"a \"b\""}),
              testing::StartsWith("\"cache\":{\"a \\\"b\\\"\":{\"bytes\":"));
}

// --- records ---

SCENARIO(miss_keys) {
  const auto cache = open_cache(arguments.at(0));
  get(*cache, std::string("\0\n\xff", 3));
  get(*cache, std::string(32, 'x'));
  get(*cache, std::string(31, 'x').append("yz"));
  get(*cache, "");
  add(*cache, "added", "1");
  get(*cache, "added");
  return 0;
}

std::string repeated(const std::string& text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) {
    all += text;
  }
  return all;
}

const std::string kMiss = "DEBUG Miss in maps cache: ";

// The records of misses.
Messages misses_at(const std::string& level) {
  const TempDir root;
  Messages misses = run_scenario("miss_keys", {{"QV_LOG_LEVEL", level}}, {root.path()}).messages();
  misses.erase(
      std::remove_if(misses.begin(), misses.end(),
                     [](const std::string& message) { return message.rfind(kMiss, 0) != 0; }),
      misses.end());
  return misses;
}

TEST(IndexedRecords, GiveTheFirst32BytesOfAKeyThatIsMissed) {
  EXPECT_EQ(misses_at("DEBUG"), (Messages{kMiss + "000aff", kMiss + repeated("78", 32),
                                          kMiss + repeated("78", 31) + "79", kMiss}));
}

TEST(IndexedRecords, OfMissesAreForDebuggingOnly) { EXPECT_EQ(misses_at("TRACE"), Messages{}); }

}  // namespace
