// The threshold of the process's default controller, as QV_CACHE_STORE_SIZE gives it.
#include <gtest/gtest.h>
#include <quorvane/file_store.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "support/scenario.h"
#include "support/store_bytes.h"

using quorvane::cache::CleanableResource;
using quorvane::cache::FileStoreSkeleton;
using test::expectation;
using test::Ran;
using test::run_scenario;
using test::without_lines;
using Messages = std::vector<std::string>;

namespace {

class Resource : public CleanableResource {
 public:
  explicit Resource(std::uint64_t bytes) : usage_(bytes) {}
  std::uint64_t get_usage() override { return usage_; }
  void clean() override { usage_ = 0; }
  bool is_cleaned() const { return usage_ == 0; }

 private:
  std::uint64_t usage_;
};

bool is_cleaned_at(std::uint64_t bytes) {
  auto* const controller = FileStoreSkeleton::get_default_cleanup_controller();
  Resource resource(bytes);
  controller->process(controller->get_ticket(), resource);
  return resource.is_cleaned();
}

// INFO, so that the measurements are not logged.
Ran run(test::Environment environment, const std::string& bytes) {
  environment.insert({"QV_LOG_LEVEL", "INFO"});
  return run_scenario("process_two_sizes", environment, {bytes});
}

std::string set_to(const std::string& bytes) {
  return "INFO Cache store cleanup threshold set to " + bytes + " bytes";
}

std::string bad(const std::string& value) {
  return "WARN Bad value of QV_CACHE_STORE_SIZE: \"" + value + "\"";
}

const std::string kCleaned = "INFO Cache store cleaned.";
const std::string kUnlimited =
    "WARN Cache store cleanup threshold not set, cache can grow indefinitely";

}  // namespace

// Prints whether this many bytes are cleaned, and whether one more is.
SCENARIO(process_two_sizes) {
  const std::uint64_t bytes = std::stoull(arguments.at(0));
  std::printf("%d", is_cleaned_at(bytes));
  std::printf("%d", is_cleaned_at(bytes + 1));
  return 0;
}

TEST(StoreSize, IsTheThresholdOfTheDefaultController) {
  const Ran ran = run({{"QV_CACHE_STORE_SIZE", "10G"}}, "10737418240");
  EXPECT_EQ(ran.out, "01");
  EXPECT_EQ(ran.messages(), (Messages{set_to("10737418240"), kCleaned}));
}

TEST(StoreSize, OfDigitsAloneIsInBytes) {
  const Ran ran = run({{"QV_CACHE_STORE_SIZE", "4096"}}, "4096");
  EXPECT_EQ(ran.out, "01");
  EXPECT_EQ(ran.messages(), (Messages{set_to("4096"), kCleaned}));
}

TEST(StoreSize, WinsOverTheCleanupThresholdWhichIsNotRead) {
  for (const char* threshold : {"5", "nonsense", ""}) {
    const Ran ran = run(
        {{"QV_CACHE_STORE_SIZE", "1K"}, {"QV_CACHE_STORE_CLEANUP_THRESHOLD", threshold}}, "1024");
    EXPECT_EQ(ran.out, "01") << threshold;
    EXPECT_EQ(ran.messages(), (Messages{set_to("1024"), kCleaned}));
  }
}

TEST(StoreSize, OfZeroIsNoLimit) {
  const Ran ran =
      run({{"QV_CACHE_STORE_SIZE", "0"}, {"QV_CACHE_STORE_CLEANUP_THRESHOLD", "5"}}, "1000000");
  EXPECT_EQ(ran.out, "00");
  EXPECT_EQ(ran.messages(), Messages{set_to("0")});
}

TEST(StoreSize, ThatIsBadIsReportedAndTheCleanupThresholdCounts) {
  for (const char* value : {"", "10g", "-1", "1 G", "16777216T"}) {
    const Ran ran =
        run({{"QV_CACHE_STORE_SIZE", value}, {"QV_CACHE_STORE_CLEANUP_THRESHOLD", "5G"}}, "5");
    EXPECT_EQ(ran.out, "01") << value;
    EXPECT_EQ(ran.messages(), (Messages{bad(value), set_to("5"), kCleaned}));
  }
}

TEST(StoreSize, ThatIsBadWithoutACleanupThresholdIsNoLimit) {
  const Ran ran = run({{"QV_CACHE_STORE_SIZE", "much"}}, "1000000");
  EXPECT_EQ(ran.out, "00");
  EXPECT_EQ(without_lines(ran.messages()),
            (Messages{bad("much"), expectation("threshold_env"), kUnlimited}));
}

TEST(StoreSize, ThatIsUnsetIsNotReported) {
  const Ran ran = run({{"QV_CACHE_STORE_CLEANUP_THRESHOLD", "5"}}, "5");
  EXPECT_EQ(ran.out, "01");
  EXPECT_EQ(ran.messages(), (Messages{set_to("5"), kCleaned}));
}
