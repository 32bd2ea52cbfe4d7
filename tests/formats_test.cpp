// docs/formats.md shows real bytes: the library writes the files of its hexdump blocks, and
// the tests compare them.
#include <gtest/gtest.h>
#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <quorvane/log.h>
#include <quorvane/module.h>
#include <quorvane/pidset.h>
#include <quorvane/stats.h>
#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "support/hexdump.h"
#include "support/library_path.h"
#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace {

using quorvane::util::RoBuffer;
using test::hexdump;
using test::Ran;

std::string replaced(const std::string& text, const std::string& pattern, const std::string& by) {
  return std::regex_replace(text, std::regex(pattern), by);
}

RoBuffer bytes(const std::string& text) { return RoBuffer::copy(text.data(), text.size()); }

SCENARIO(fill_store) {
  using namespace quorvane::cache;
  const StoreKind kind = arguments.at(0) == "basic"     ? StoreKind::basic
                         : arguments.at(0) == "indexed" ? StoreKind::indexed
                                                        : StoreKind::lazy_lookup;
  Cache cache("demo", make_file_store(kind, "demo"), false);
  cache.add_value(bytes("key"), {bytes("ab"), bytes("c")});
  cache.add_value(bytes("k"), {bytes("v")});
  return cache.is_valid() ? 0 : 1;
}

SCENARIO(open_lazy_store) {
  quorvane::cache::make_file_store(quorvane::cache::StoreKind::lazy_lookup, "demo");
  return 0;
}

SCENARIO(log_one_record) {
  static const quorvane::Module module("docs/formats");
  QV_LOG(module, WARN, "disk %d %% full", 93);
  return 0;
}

SCENARIO(report_statistics) {
  static const quorvane::Module module("disk/cache");
  static const std::int64_t depth = -7;
  static const double load = 0.5;
  qv_stats_counter_inc(qv_stats_create_counter(module.get(), "reads"), 3);
  qv_stats_create_gauge_int64(module.get(), "depth", &depth);
  qv_stats_create_gauge_double(module.get(), "load", &load);
  qv_stats_hist_insert(qv_stats_create_histogram(module.get(), "wait"), 2.0, 4);
  return 0;
}

class FormatsDocument : public testing::Test {
 protected:
  Ran fill_store(const std::string& kind) const {
    return test::run_scenario("fill_store", {{"QV_CACHE_STORE_ROOT", dir_.path()}}, {kind});
  }

  test::TempDir dir_;
};

TEST_F(FormatsDocument, ShowsTheBytesOfABasicStore) {
  ASSERT_TRUE(fill_store("basic").exited_with(0));
  EXPECT_EQ(test::documented_hexdump("store"), hexdump(test::read_file(dir_.file("demo"))));
}

TEST_F(FormatsDocument, ShowsTheBytesOfBothFilesOfALazyStore) {
  ASSERT_TRUE(fill_store("lazy_lookup").exited_with(0));
  EXPECT_EQ(test::documented_hexdump("keys"), hexdump(test::read_file(dir_.file("key_demo"))));
  EXPECT_EQ(test::documented_hexdump("values"), hexdump(test::read_file(dir_.file("val_demo"))));
}

// Puts bytes of the page in the place of those that differ from one store to the next.
void put(std::string& bytes, std::size_t offset, const std::string& by) {
  bytes.replace(offset, by.size(), by);
}

const std::string kIdentity = "\x1d\xe0\x7a\x4c\x91\x3b\x58\xf6";

TEST_F(FormatsDocument, ShowsTheBytesOfAnIndexedStoresData) {
  ASSERT_TRUE(fill_store("indexed").exited_with(0));
  std::string data = test::read_file(dir_.file("dat_demo"));
  put(data, 8, kIdentity);
  EXPECT_EQ(test::documented_hexdump("data"), hexdump(data));
}

// The 16 bytes of each row that has a slot in use.
std::string hexdump_of_slots(const std::string& index) {
  std::string dump;
  for (std::size_t row = 4096; row < index.size(); row += 16) {
    const std::string slots = index.substr(row, 16);
    dump += slots.find_first_not_of('\0') == std::string::npos ? "" : hexdump(slots, row);
  }
  return dump;
}

TEST_F(FormatsDocument, ShowsTheBytesOfAnIndexedStoresIndex) {
  using namespace std::string_literals;
  ASSERT_TRUE(fill_store("indexed").exited_with(0));
  std::string index = test::read_file(dir_.file("idx_demo"));
  ASSERT_EQ(index.size(), 4096u + 1024 * 8);
  EXPECT_EQ(index.substr(8, 8), test::read_file(dir_.file("dat_demo")).substr(8, 8));
  put(index, 8, kIdentity);
  struct stat data;
  ASSERT_EQ(stat(dir_.file("dat_demo").c_str(), &data), 0);
  EXPECT_EQ(index.substr(16, 16), test::le64(data.st_dev) + test::le64(data.st_ino));
  put(index, 16, "\x01\xfe\0\0\0\0\0\0\x27\x0b\x16\0\0\0\0\0"s);
  put(index, 32, "\x5e\xc1\x20\x9f\x84\x6a\x3d\xb7\xf2\x08\x71\xcc\x19\xae\x45\xd3");
  put(index, 56, "\x93\x2a\xe6\x0d\x7c\xb1\x54\x8f");
  EXPECT_EQ(test::documented_hexdump("index"), hexdump(index.substr(0, 96)));
  EXPECT_EQ(index.find_first_not_of('\0', 96), index.find_first_not_of('\0', 4096));
  EXPECT_EQ(test::documented_hexdump("slots"), hexdump_of_slots(index));
}

TEST_F(FormatsDocument, IsRightAboutTheNamesOfAnIndexedStoresFiles) {
  fill_store("indexed");
  EXPECT_EQ(test::names_in(dir_.path()),
            (std::vector<std::string>{"dat_demo", "idx_demo", "lock_demo"}));
}

TEST_F(FormatsDocument, IsRightThatALazyStoreHasItsFilesFromTheStart) {
  using namespace std::string_literals;
  ASSERT_TRUE(
      test::run_scenario("open_lazy_store", {{"QV_CACHE_STORE_ROOT", dir_.path()}}).exited_with(0));
  const std::string header = "\xa5\xc3\xa5\xc3\x02\0\0\0"s;
  EXPECT_EQ(test::read_file(dir_.file("key_demo")), header);
  EXPECT_EQ(test::read_file(dir_.file("val_demo")), header);
}

TEST_F(FormatsDocument, IsRightThatTheLockFileIsEmpty) {
  fill_store("basic");
  EXPECT_TRUE(test::exists(dir_.file("lock_demo")));
  EXPECT_EQ(test::read_file(dir_.file("lock_demo")), "");
}

TEST_F(FormatsDocument, ShowsTheBytesOfAProcessIdSet) {
  const std::string path = dir_.file("pids");
  test::write_file(path, "");
  qv_pidset_t* const set = qv_pidset_open(path.c_str());
  ASSERT_NE(set, nullptr);
  for (const std::int32_t id : {9, -1, 5}) {
    EXPECT_EQ(qv_pidset_add(set, id), 0);
  }
  EXPECT_EQ(qv_pidset_remove(set, 5), 0);
  qv_pidset_close(set);
  const std::string page = test::read_file(path);
  EXPECT_EQ(test::documented_hexdump("pids"), hexdump(page.substr(0, 20)));
  EXPECT_EQ(page.find_first_not_of('\0', 20), std::string::npos);
}

TEST_F(FormatsDocument, ShowsTheBytesOfALogRecord) {
  const Ran ran = test::run_scenario("log_one_record", {{"QV_LOG_LEVEL", "WARN"}});
  std::string record =
      replaced(ran.log, R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)", "2024-03-01T12:00:00.000042Z");
  record = replaced(record, R"(, \d+, \d+, ")", ", 1234, 1240, \"");
  EXPECT_EQ(test::documented_hexdump("log"), hexdump(record));
}

TEST_F(FormatsDocument, ShowsTheBytesOfAStatisticsReport) {
  const std::string file = dir_.file("reports");
  ASSERT_TRUE(test::run_scenario("report_statistics", {{"QV_STATS_REPORT_FILE", file},
                                                       {"LD_LIBRARY_PATH", test::kLibraryPath}})
                  .exited_with(0));
  const std::string report = replaced(
      test::read_file(file),
      R"(^\{"ts": \d+, "log":\{"@process":\{"pid":\d+,"program":"formats_test","start":\d+,)"
      R"("parent":\d+\})",
      R"({"ts": 1709294400, "log":{"@process":{"pid":1234,"program":"reader",)"
      R"("start":1709290800,"parent":1})");
  EXPECT_EQ(test::documented_hexdump("report"), hexdump(report));
}

}  // namespace
