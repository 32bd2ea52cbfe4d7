// The caller of a set-user-id program chooses its environment, but must not choose which
// files the library opens with the program's privileges.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quorvane/binary_dumper.h>
#include <quorvane/cache.h>
#include <quorvane/env_config.h>
#include <quorvane/file_store.h>
#include <quorvane/module.h>
#include <quorvane/stats.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "support/processes.h"
#include "support/scenario.h"
#include "support/secure_program.h"
#include "support/temp_dir.h"

namespace {

using quorvane::logging::get_singleton_outlet;
using test::Ran;
using test::SecureProgram;
using testing::ElementsAre;
using testing::IsEmpty;

class SecureEnvironment : public testing::Test {
 protected:
  // Sets every variable through which a caller could choose a file or a setting.
  Ran run(const std::string& scenario) const {
    const SecureProgram program;
    const Ran ran = test::run_program(program.path(), {"--scenario", scenario},
                                      {{"QV_LOG_FILE", dir_.file("log")},
                                       {"QV_LOG_FILE_Global", dir_.file("global")},
                                       {"QV_LOG_LEVEL", "DEBUG"},
                                       {"QV_LOG_LEVELS", "test=ALL"},
                                       {"QV_LOG_SYNC", "1"},
                                       {"HOME", dir_.path()},
                                       {"QV_PIDFILE_ROOT", dir_.path() + "/"},
                                       {"QV_CACHE_STORE_ROOT", dir_.path()},
                                       {"QV_CACHE_STORE_SIZE", "nonsense"},
                                       {"QV_CACHE_STORE_CLEANUP_THRESHOLD", "5"},
                                       {"QV_STATS_REPORT_FILE", dir_.file("report")},
                                       {"QV_STATS_REPORT_PERIOD", "nonsense"},
                                       {"QV_TEST_VALUE", "nonsense"}});
    EXPECT_TRUE(ran.exited_with(0)) << ran.err;
    return ran;
  }

  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

  test::TempDir dir_;
};

// The status of a scenario that the kernel didn't start in secure mode.
constexpr int kNotSecure = 2;

bool is_secure() { return getauxval(AT_SECURE) != 0; }

// Sends the records to standard output from here on.
void show_records() {
  get_singleton_outlet()->fd = STDOUT_FILENO;
  static_cast<quorvane::module::Module*>(qv_module_find("util/src/cache"))->level =
      QV_LOG_LEVEL_INFO;
}

std::vector<std::string> messages(const Ran& ran) {
  return test::level_and_message(test::parse_records(ran.out));
}

SCENARIO(tells_its_log) {
  const auto& outlet = *get_singleton_outlet();
  std::cout << outlet.fd << " " << outlet.error_fd << " " << outlet.level << " "
            << quorvane::logging::get_default_log_path();
  return is_secure() ? 0 : kNotSecure;
}

TEST_F(SecureEnvironment, ChoosesNoLogFile) {
  EXPECT_EQ(run("tells_its_log").out, "-1 -1 0 ");
  EXPECT_THAT(files(), IsEmpty());
}

SCENARIO(tells_a_modules_level) {
  show_records();
  std::cout << quorvane::Module("test/secure")->level;
  return is_secure() ? 0 : kNotSecure;
}

TEST_F(SecureEnvironment, ChoosesNoLevelOfAModule) {
  EXPECT_EQ(run("tells_a_modules_level").out, "0");
}

SCENARIO(looks_for_pid_files) {
  const std::string root = std::string(getenv("QV_PIDFILE_ROOT")) + "qv.";
  const auto has_file = [&] { return test::exists(root + std::to_string(getpid())) ? 1 : 0; };
  const bool has_one = test::wait_for(test::in_child(has_file)) != 0 ||
                       test::exists(root + std::to_string(getpid()));
  return is_secure() ? (has_one ? 1 : 0) : kNotSecure;
}

TEST_F(SecureEnvironment, PlacesNoPidFileNorAChilds) {
  run("looks_for_pid_files");
  EXPECT_THAT(files(), IsEmpty());
}

SCENARIO(reads_settings) {
  show_records();
  std::cout << qv_env_config_get_bool("QV_TEST_VALUE", true)
            << qv_env_config_get_int("QV_TEST_VALUE", 2)
            << qv_env_config_get_uint64("QV_TEST_VALUE", 3);
  return is_secure() ? 0 : kNotSecure;
}

TEST_F(SecureEnvironment, GivesEverySettingItsDefault) {
  EXPECT_EQ(run("reads_settings").out, "123");
}

// The loader unsets TMPDIR for such a program, but the program may set it again.
SCENARIO(dumps) {
  setenv("TMPDIR", getenv("QV_CACHE_STORE_ROOT"), 1);
  const std::string prefix = "qv_secure_" + std::to_string(getpid()) + "_";
  quorvane::util::BinaryDumper dumper("it", prefix.c_str(), nullptr, nullptr, QV_LOG_LEVEL_INFO);
  dumper.dump("x", 1);
  const bool is_in_tmp = unlink(("/tmp/" + prefix + "0000.bin").c_str()) == 0;
  return is_secure() ? (is_in_tmp ? 0 : 1) : kNotSecure;
}

TEST_F(SecureEnvironment, ChoosesNoDirectoryForDumps) {
  run("dumps");
  EXPECT_THAT(files(), IsEmpty());
}

SCENARIO(opens_a_cache) {
  show_records();
  auto store = quorvane::cache::make_file_store(quorvane::cache::StoreKind::basic, "cache");
  const quorvane::cache::Cache cache("cache", std::move(store), false);
  return is_secure() ? 0 : kNotSecure;
}

SCENARIO(opens_a_cache_with_options) {
  show_records();
  quorvane::cache::StoreOptions options;
  options.name = "cache";
  const quorvane::cache::Cache cache("cache", quorvane::cache::make_store(options), false);
  return is_secure() ? 0 : kNotSecure;
}

TEST_F(SecureEnvironment, ChoosesNeitherRootNorThresholdOfCaches) {
  for (const char* scenario : {"opens_a_cache", "opens_a_cache_with_options"}) {
    const std::vector<std::string> logged = messages(run(scenario));
    EXPECT_THAT(logged,
                testing::Contains(
                    "WARN Cache store cleanup threshold not set, cache can grow indefinitely"));
    EXPECT_THAT(logged,
                testing::Contains("ERROR Caching enabled, but QV_CACHE_STORE_ROOT not set."));
    EXPECT_THAT(logged, testing::Not(testing::Contains(testing::HasSubstr("STORE_SIZE"))));
    EXPECT_THAT(files(), IsEmpty());
  }
}

SCENARIO(counts) {
  show_records();
  const quorvane::Module module("test/secure");
  const bool is_off = qv_stats_create_counter(module.get(), "counter") == QV_STATS_INVALID_HANDLE;
  return is_secure() ? (is_off ? 0 : 1) : kNotSecure;
}

TEST_F(SecureEnvironment, ChoosesNoReportFile) {
  EXPECT_THAT(messages(run("counts")), ElementsAre("INFO Statistics capture disabled."));
  EXPECT_THAT(files(), IsEmpty());
}

}  // namespace
