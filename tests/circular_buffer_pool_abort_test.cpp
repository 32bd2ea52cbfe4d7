// What makes a pool abort, and the record that it logs first.
#include <quorvane/circular_buffer_pool.h>

#include <gtest/gtest.h>
#include <quorvane/module.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "circular_buffer_pool_test/fixture.h"
#include "support/lines.h"
#include "support/refuse.h"
#include "support/scenario.h"

namespace {

using pool_test::CircularBufferPool;
using pool_test::page;
using pool_test::RwBuffer;
using Messages = std::vector<std::string>;

void print_line(const void* pointer) {
  std::printf("%p\n", pointer);
  std::fflush(stdout);
}

SCENARIO(build_a_pool) {
  const CircularBufferPool pool(std::stoul(arguments.at(0)));
  return 0;
}

TEST(CircularBufferPoolDeath, AbortsOnASizeThatIsNoMultipleOfThePageSize) {
  for (const unsigned long size : {page() + 64, page() - 1, 1ul}) {
    const auto ran = test::run_scenario("build_a_pool", {}, {std::to_string(size)});
    EXPECT_TRUE(ran.aborted());
    EXPECT_EQ(ran.messages(), Messages{"ERROR Buffer pool must be a multiple of page size"});
  }
}

TEST(CircularBufferPoolDeath, AbortsOnAnEmptyPool) {
  const auto ran = test::run_scenario("build_a_pool", {}, {"0"});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(), Messages{"ERROR mmap failed: Invalid argument"});
}

TEST(CircularBufferPoolDeath, AbortsOnASizeWhoseDoubleWrapsAround) {
  const auto ran = test::run_scenario("build_a_pool", {}, {std::to_string(std::uint64_t{1} << 63)});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(), Messages{"ERROR ftruncate failed: Invalid argument"});
}

SCENARIO(build_a_pool_without_memfd) {
  test::refuse(SYS_memfd_create, EMFILE);
  const CircularBufferPool pool(page());
  return 0;
}

SCENARIO(build_a_pool_without_ftruncate) {
  test::refuse(SYS_ftruncate, ENOSPC);
  const CircularBufferPool pool(page());
  return 0;
}

SCENARIO(build_a_pool_without_file_mappings) {
  test::refuse(SYS_mmap, ENOMEM, test::When{4, static_cast<std::uint32_t>(-1), true});
  const CircularBufferPool pool(page());
  return 0;
}

SCENARIO(build_a_pool_without_reservation) {
  test::refuse(SYS_mmap, ENOMEM, test::When{2, PROT_NONE});
  const CircularBufferPool pool(page());
  return 0;
}

TEST(CircularBufferPoolDeath, AbortsWhenTheKernelRefusesTheMemory) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"build_a_pool_without_memfd", "ERROR memfd_create failed: Too many open files"},
      {"build_a_pool_without_ftruncate", "ERROR ftruncate failed: No space left on device"},
      {"build_a_pool_without_file_mappings", "ERROR mmap failed: Cannot allocate memory"}};
  for (const auto& [scenario, record] : cases) {
    const auto ran = test::run_scenario(scenario);
    EXPECT_TRUE(ran.aborted()) << scenario;
    EXPECT_EQ(ran.messages(), Messages{record});
  }
}

TEST(CircularBufferPoolDeath, AbortsWhenItsAddressSpaceWasNotReserved) {
  const auto ran = test::run_scenario("build_a_pool_without_reservation");
  EXPECT_TRUE(ran.aborted());
  // The kernel decides which error an impossible fixed address gives.
  ASSERT_EQ(ran.records.size(), 1u);
  EXPECT_EQ(ran.messages()[0].rfind("ERROR mmap failed: ", 0), 0u) << ran.messages()[0];
}

SCENARIO(allocate_too_much) {
  CircularBufferPool pool(page());
  const RwBuffer whole = pool.allocate(page(), nullptr);
  pool.allocate(std::stoul(arguments.at(0)), nullptr);
  return 0;
}

TEST(CircularBufferPoolDeath, AbortsOnARequestAboveTheRegionThoughItIsFull) {
  const auto ran = test::run_scenario("allocate_too_much", {}, {std::to_string(page() + 1)});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(),
            Messages{"ERROR CircularBufferPool::allocate cannot satisfy allocation request of " +
                     std::to_string(page() + 64) + " > MAX_SIZE (" + std::to_string(page()) + ")"});
}

TEST(CircularBufferPoolDeath, AbortsOnARequestThatRoundsUpToNothing) {
  const auto ran = test::run_scenario("allocate_too_much", {}, {std::to_string(UINT64_MAX)});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(),
            Messages{"ERROR CircularBufferPool::allocate cannot satisfy allocation request of 0 > "
                     "MAX_SIZE (" +
                     std::to_string(page()) + ")"});
}

SCENARIO(release_out_of_order) {
  CircularBufferPool pool(page());
  RwBuffer first = pool.allocate(100, nullptr);
  RwBuffer second = pool.allocate(10, nullptr);
  print_line(first.get_buffer());
  print_line(second.get_buffer());
  if (arguments.at(0) == "free") {
    pool.free(second.get_buffer(), 10, nullptr);
  } else {
    // With the second's size, so that the pool expects the second's start.
    pool.deallocate(first.get_buffer(), 10, nullptr);
  }
  return 0;
}

std::string wrong_order(const std::string& function, const std::string& expected,
                        const std::string& actual) {
  return "ERROR CircularBufferPool::" + function + " called in wrong order. Expected " + expected +
         ", actual " + actual + ".";
}

TEST(CircularBufferPoolDeath, AbortsWhenFreeSkipsTheOldest) {
  const auto ran = test::run_scenario("release_out_of_order", {}, {"free"});
  EXPECT_TRUE(ran.aborted());
  const std::vector<std::string> lent = test::lines_of(ran.out);
  EXPECT_EQ(ran.messages(), Messages{wrong_order("free", lent.at(0), lent.at(1))});
}

TEST(CircularBufferPoolDeath, AbortsWhenDeallocateSkipsTheNewest) {
  const auto ran = test::run_scenario("release_out_of_order", {}, {"deallocate"});
  EXPECT_TRUE(ran.aborted());
  const std::vector<std::string> lent = test::lines_of(ran.out);
  EXPECT_EQ(ran.messages(), Messages{wrong_order("deallocate", lent.at(1), lent.at(0))});
}

SCENARIO(build_a_bad_pool_at_the_modules_level) {
  auto* const module = static_cast<quorvane::module::Module*>(qv_module_find("util/buffer_pool"));
  module->level = static_cast<qv_log_level_t>(std::stoi(arguments.at(0)));
  const CircularBufferPool pool(1);
  return 0;
}

TEST(CircularBufferPoolDeath, LogsBeforeItAbortsWhenItsModuleStandsAtError) {
  const auto ran = test::run_scenario("build_a_bad_pool_at_the_modules_level", {}, {"1"});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(), Messages{"ERROR Buffer pool must be a multiple of page size"});
}

TEST(CircularBufferPoolDeath, AbortsWithoutARecordWhenItsModuleIsOff) {
  const auto ran = test::run_scenario("build_a_bad_pool_at_the_modules_level", {}, {"0"});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_EQ(ran.err, "");
}

TEST(CircularBufferPoolDeath, AbortsWithoutARecordWhenTheEnvironmentTurnsLoggingOff) {
  const auto ran = test::run_scenario("release_out_of_order", {{"QV_LOG_LEVEL", "OFF"}}, {"free"});
  EXPECT_TRUE(ran.aborted());
  EXPECT_EQ(ran.messages(), Messages{});
  EXPECT_EQ(ran.err, "");
}

}  // namespace
