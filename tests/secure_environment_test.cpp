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
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/processes.h"
#include "support/scenario.h"
#include "support/temp_dir.h"

namespace {

using quorvane::logging::get_singleton_outlet;
using test::Ran;
using testing::ElementsAre;
using testing::IsEmpty;

// A group other than this process's. Root may give a file to any group, others only to their own.
gid_t another_group() {
  if (geteuid() == 0) {
    return getegid() == 65534 ? 65533 : 65534;
  }
  std::vector<gid_t> groups(static_cast<std::size_t>(getgroups(0, nullptr)));
  getgroups(static_cast<int>(groups.size()), groups.data());
  for (const gid_t group : groups) {
    if (group != getegid()) {
      return group;
    }
  }
  throw std::runtime_error("needs root or a second group to make a set-group-id program");
}

bool honours_set_id(const std::string& directory) {
  struct statvfs status {};
  return statvfs(directory.c_str(), &status) == 0 && access(directory.c_str(), W_OK) == 0 &&
         (status.f_flag & (ST_NOSUID | ST_NOEXEC)) == 0;
}

// A copy of this program that the kernel starts in secure mode, as it does set-user-id
// programs. It is set-group-id and keeps its user, so that it can still read this tree.
class SecureProgram {
 public:
  SecureProgram() {
    std::filesystem::copy_file("/proc/self/exe", path_);
    if (chown(path_.c_str(), static_cast<uid_t>(-1), another_group()) != 0 ||
        chmod(path_.c_str(), 02755) != 0) {
      throw std::runtime_error("no set-group-id program at " + path_);
    }
  }
  ~SecureProgram() { unlink(path_.c_str()); }
  SecureProgram(const SecureProgram&) = delete;
  SecureProgram& operator=(const SecureProgram&) = delete;

  const std::string& path() const { return path_; }

 private:
  // Temporary directories are often mounted nosuid.
  static std::string directory() {
    for (const std::string& candidate :
         {std::filesystem::temp_directory_path().string(), std::string(QV_BINARY_DIR)}) {
      if (honours_set_id(candidate)) {
        return candidate;
      }
    }
    throw std::runtime_error("no directory in which set-group-id programs work");
  }

  std::string path_ = directory() + "/qv_secure_environment_test." + std::to_string(getpid());
};

class SecureEnvironment : public testing::Test {
 protected:
  // Sets every variable through which a caller could choose a file or a setting.
  Ran run(const std::string& scenario) const {
    const SecureProgram program;
    const Ran ran = test::run_program(program.path(), {"--scenario", scenario},
                                      {{"QV_LOG_FILE", dir_.file("log")},
                                       {"QV_LOG_FILE_Global", dir_.file("global")},
                                       {"QV_LOG_LEVEL", "DEBUG"},
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
