// Whether an index leads to the entries of its data.
#ifndef TOOLS_QVUTIL_STORE_INDEX_CHECK_H_
#define TOOLS_QVUTIL_STORE_INDEX_CHECK_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "qvutil/store/index_view.h"
#include "qvutil/store/scan.h"

namespace quorvane::tool {

// Passes on to a visitor what a scan of the data visits, and looks each entry up meanwhile.
class IndexCheck : public Visitor {
 public:
  // `data_name` is the file's.
  IndexCheck(const IndexView& index, std::string data_name, std::string_view data,
             Visitor& visitor);

  void entry(const Entry& entry) override;
  void place(const Place& place) override { visitor_.place(place); }

  // After the scans: takes over what a check of other entries of the same files has found.
  void add(IndexCheck& other);

  // After the scan: tells what is wrong with the index.
  void finish();

 private:
  struct Due {
    std::uint64_t hash = 0;
    std::uint64_t offset = 0;
    std::string_view key;
  };
  // That many slots are fetched from memory at a time.
  static constexpr std::size_t kAhead = 32;

  void look_up_rest();
  void look_up(const Due& due);
  void check_slots();
  void tell_wrong_slots();
  bool leads_to_entry(std::uint64_t slot);
  void tell_odd(std::uint64_t offset, std::uint64_t size, const std::string& reason);

  const IndexView& index_;
  const std::string data_name_;
  const std::string_view data_;
  Visitor& visitor_;
  std::array<Due, kAhead> due_;
  std::size_t due_count_ = 0;
  Entry other_;
  std::vector<Place> repeated_;
  std::uint64_t tries_left_;  // to follow slots that lead elsewhere
  std::uint64_t found_ = 0;   // slots that lead to their entry
  std::uint64_t missed_ = 0;  // entries that no slot leads to
  std::uint64_t first_missed_ = 0;
};

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_STORE_INDEX_CHECK_H_
