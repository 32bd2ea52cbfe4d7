// What the tests of PID sets share: handles that close themselves, and a set in a file.
#ifndef TESTS_PIDSET_TEST_FIXTURE_H_
#define TESTS_PIDSET_TEST_FIXTURE_H_

#include <gtest/gtest.h>
#include <quorvane/pidset.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "support/scenario.h"
#include "support/store_bytes.h"
#include "support/temp_dir.h"

namespace pidset_test {

using Ids = std::vector<std::int32_t>;

constexpr std::int32_t kLeast = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kGreatest = std::numeric_limits<std::int32_t>::max();

inline std::size_t page_size() { return static_cast<std::size_t>(getpagesize()); }
inline std::size_t capacity() { return (page_size() - 8) / 4; }

struct Closer {
  void operator()(qv_pidset_t* set) const { qv_pidset_close(set); }
};
using Set = std::unique_ptr<qv_pidset_t, Closer>;

inline Set open_set(const std::string& path) { return Set(qv_pidset_open(path.c_str())); }

// The page of a set whose count is `count` and whose ids are these, including those beyond
// the count.
inline std::string page_bytes(std::uint64_t count, const Ids& ids) {
  std::string bytes = test::le64(count);
  for (const std::int32_t id : ids) {
    bytes += test::le32(static_cast<std::uint32_t>(id));
  }
  bytes.resize(page_size());
  return bytes;
}
inline std::string page_bytes(const Ids& ids) { return page_bytes(ids.size(), ids); }

// 10, 20, 30 and so on.
inline Ids counted_ids(std::size_t count) {
  Ids ids;
  for (std::size_t i = 0; i < count; ++i) {
    ids.push_back(static_cast<std::int32_t>(i + 1) * 10);
  }
  return ids;
}

class PidSet : public testing::Test {
 protected:
  PidSet() { test::write_file(path_, ""); }

  // A set whose page holds these ids, in this order.
  Set set_of(const Ids& ids) {
    test::write_file(path_, page_bytes(ids));
    return open_set(path_);
  }
  std::string bytes() const { return test::read_file(path_); }
  test::Ran run(const std::string& scenario, test::Arguments more = {}) const {
    more.insert(more.begin(), path_);
    return test::run_scenario(scenario, {}, more);
  }

  test::TempDir dir_;
  std::string path_ = dir_.file("pids");
};

}  // namespace pidset_test

#endif  // TESTS_PIDSET_TEST_FIXTURE_H_
