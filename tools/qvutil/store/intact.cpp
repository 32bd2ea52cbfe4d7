#include "qvutil/store/intact.h"

#include <array>
#include <functional>
#include <future>
#include <latch>
#include <new>
#include <string_view>
#include <system_error>

#include "qvutil/store/basic_part.h"
#include "qvutil/store/format.h"
#include "qvutil/store/headers.h"
#include "qvutil/store/index_check.h"
#include "qvutil/store/indexed_scan.h"
#include "qvutil/store/record_formats.h"

namespace quorvane::tool {
namespace {

constexpr std::uint64_t kWorthAThread = std::uint64_t{4} << 20;

// Ends the search: an ordinary scan has to tell.
struct NotIntact {};

// Expects that no place is visited.
class NoPlace : public Visitor {
 public:
  void entry(const Entry&) override {}
  void place(const Place&) override { throw NotIntact{}; }
};

// Runs both, the second one in a thread of its own.
void run_both(const std::function<void()>& first, const std::function<void()>& second) {
  std::future<void> other = std::async(std::launch::async, second);
  first();
  other.get();
}

// Counts a latch down at the end of its scope. An exception may end that, and the other thread
// waits.
class Arrival {
 public:
  explicit Arrival(std::latch& latch) : latch_(latch) {}
  ~Arrival() { latch_.count_down(); }
  Arrival(const Arrival&) = delete;
  Arrival& operator=(const Arrival&) = delete;

 private:
  std::latch& latch_;
};

std::uint64_t entries_of_basic(Console& console, OpenedCache& cache, Progress& progress) {
  MappedFile& file = *cache.main;
  const std::string_view bytes = file.bytes();
  NoPlace no_place;
  check_header(file, format::kMagic, format::kBasicVersion, format::kHeaderSize, no_place);
  const BasicFormat format(bytes);
  const std::uint64_t middle = RecordWalk("", format, no_place).entry_from(bytes.size() / 2);
  BasicPart first(file, format::kHeaderSize, middle, RepeatedKeys::kMost / 2);
  BasicPart second(file, middle, bytes.size(), RepeatedKeys::kMost / 2);
  Progress none = Progress::none(console);
  std::array<bool, 2> is_whole{};
  std::array<bool, 2> differ{};
  std::latch both(2);  // cheaper than another two threads for the keys
  const auto check = [&](std::size_t own, BasicPart& part, Progress& shown) {
    {
      const Arrival arrival(both);
      is_whole[own] = part.is_whole(shown);
    }
    both.wait();
    constexpr std::size_t kHalf = RepeatedKeys::kLists / 2;
    differ[own] =
        is_whole[0] && is_whole[1] &&
        RepeatedKeys::all_differ(first.keys(), second.keys(), own * kHalf, (own + 1) * kHalf);
  };
  run_both([&] { check(0, first, progress); }, [&] { check(1, second, none); });
  if (!differ[0] || !differ[1]) {
    throw NotIntact{};
  }
  return first.entries() + second.entries();
}

std::uint64_t entries_of_indexed(Console& console, OpenedCache& cache, Progress& progress) {
  MappedFile& file = *cache.main;
  const std::string_view bytes = file.bytes();
  NoPlace no_place;
  check_data_header(file, no_place);
  IndexView& index = *cache.index;
  if (!index.fits()) {
    throw NotIntact{};
  }
  index.map();
  const std::uint64_t middle =
      IndexedScan("", bytes, index.covered(), no_place).entry_from(bytes.size() / 2);
  IndexCheck first(index, file.name(), bytes, no_place);
  IndexCheck second(index, file.name(), bytes, no_place);
  std::array<std::uint64_t, 2> entries{};
  Progress none = Progress::none(console);
  run_both(
      [&] {
        entries[0] = IndexedScan("", bytes.substr(0, middle), index.covered(), first)
                         .run(format::kDataHeaderSize, progress);
      },
      [&] { entries[1] = IndexedScan("", bytes, index.covered(), second).run(middle, none); });
  first.add(second);
  first.finish();
  return entries[0] + entries[1];
}

std::optional<std::uint64_t> entries_of(Console& console, OpenedCache& cache,
                                        Progress& progress) try {
  return cache.kind == Kind::basic ? entries_of_basic(console, cache, progress)
                                   : entries_of_indexed(console, cache, progress);
} catch (const NotIntact&) {
  return std::nullopt;
} catch (const std::bad_alloc&) {
  return std::nullopt;
} catch (const std::system_error&) {  // no thread can be had
  return std::nullopt;
}

}  // namespace

std::optional<std::uint64_t> entries_if_intact(Console& console, OpenedCache& cache,
                                               Progress& progress) {
  if (cache.kind == Kind::lazy_lookup || !cache.places.empty() || !cache.main ||
      cache.main->size() < kWorthAThread) {
    return std::nullopt;
  }
  progress.stand_for(2);
  const auto entries = entries_of(console, cache, progress);
  progress.stand_for(1);
  return entries;
}

}  // namespace quorvane::tool
