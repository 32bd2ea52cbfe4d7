// Visits every state of an indexed store's files that a kill can leave.
#ifndef TESTS_INDEXED_CRASH_TEST_KILL_STATES_H_
#define TESTS_INDEXED_CRASH_TEST_KILL_STATES_H_

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <limits>
#include <map>
#include <new>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "indexed_crash_test/checks.h"
#include "support/file_changes.h"
#include "support/lock_probe.h"
#include "support/processes.h"

namespace indexed_crash_test {

// The index belongs to the data file of this name.
inline bool belongs_to(const DirState& state, const IndexPage& page, const std::string& name) {
  std::uint64_t identity = 0;
  const std::string& data = state.bytes(name);
  if (data.size() < quorvane::cache::indexed::kFirstEntry) {
    return false;
  }
  data.copy(reinterpret_cast<char*>(&identity), sizeof(identity), sizeof(identity));
  return page.identity == identity && page.inode == state.names.at(name);
}

// The states that one operation, or all recoveries, have gone through.
struct Tally {
  int states = 0;
  int without_header = 0;  // in the data file
  int without_index = 0;   // beside a data file that has a header
  int tails = 0;           // bytes behind what is covered
  int unindexed = 0;       // covered entries without slots
  int moving = 0;          // the mark of an index that is still the present one
  int replaced = 0;        // an index that another has replaced
  int begun = 0;           // a new index that is not in place yet
  int copied = 0;          // a new data file that is not in place yet
  int half_renamed = 0;    // the same, when its index is

  void count(const DirState& start, const DirState& state) {
    const std::string& data = state.bytes("dat_maps");
    const auto page = page_of(state.bytes("idx_maps"));
    const auto old = start.names.find("idx_maps");
    ++states;
    without_header += state.has("dat_maps") && data.size() < 64 ? 1 : 0;
    without_index += data.size() >= 64 && !state.has("idx_maps") ? 1 : 0;
    tails += belongs_to(state, page, "dat_maps") && data.size() > page.covered ? 1 : 0;
    unindexed += page.indexed < page.covered ? 1 : 0;
    moving += page.moving != 0 ? 1 : 0;
    replaced += old != start.names.end() && state.names.at("idx_maps") != old->second ? 1 : 0;
    begun += state.has("new_maps") || state.has("newidx_maps") ? 1 : 0;
    copied += state.has("newdat_maps") ? 1 : 0;
    half_renamed += belongs_to(state, page, "newdat_maps") ? 1 : 0;
  }

  void print() const {
    std::printf("%d %d %d %d %d %d %d %d %d %d\n", states, without_header, without_index, tails,
                unindexed, moving, replaced, begun, copied, half_renamed);
  }
};

// Of how many states one is recovered from. Under a sanitizer, a process takes many times as
// long to start.
#ifdef QV_SANITIZED
constexpr std::size_t kStride = 12;
#else
constexpr std::size_t kStride = 1;
#endif

// Runs one operation, and checks each state that it goes through; then recovers from each of
// them in the same way.
class KillStates {
 public:
  // The store has `stored`, and a process keeps it open.
  explicit KillStates(const EntryMap& stored)
      : KillStates(stored, quorvane::cache::indexed::kNoLimit, stored.size()) {}

  // Each append keeps both files below `limit`. A clean keeps `kept` entries or more.
  KillStates(const EntryMap& stored, std::uint64_t limit, std::size_t kept)
      : stored_(stored), limit_(limit), kept_(kept) {
    if (!stored.empty()) {
      const auto store = make_engine();
      require(store->open() && store->store(stored), "the store can't be made");
    }
    before_ = start_ = states_.take();
  }

  // Lets the operation begin in another state than the one that the process with the open
  // store has seen.
  void begin_in(const DirState& state) { start_ = state; }
  void begin_now() { start_ = states_.take(); }

  // Lets another process store these during the copy of a clean.
  void store_meanwhile(const EntryMap& entries) { meanwhile_ = entries; }

  // The states that an append of `added` goes through, the first and the last included.
  std::vector<DirState> states_of_append(const EntryMap& added) {
    return trace(start_, append_of(added));
  }

  int check_append(const EntryMap& added) { return check(append_of(added), added); }
  int check_opening() {
    return check([](Engine&) { return true; }, {});
  }
  int check_clean() {
    return check([this](Engine& store) { return store.clean(limit_); }, {});
  }

 private:
  static constexpr unsigned kHangSeconds = 100;

  using Operation = std::function<bool(Engine& store)>;

  struct Verdict {
    std::string problem;
    Keys found;  // by the first process that looks
  };

  Operation append_of(const EntryMap& added) const {
    return [this, added](Engine& store) { return store.store(added, limit_); };
  }

  // Opens the store, and lets it perform the operation that stores `added`. Prints the tally of
  // this, the tally of the recoveries, and the number of problems.
  int check(const Operation& operation, const EntryMap& added) {
    retried_ = added + entries("retried", 1, 20);
    const std::vector<DirState> reached = trace(start_, operation);
    const std::size_t stored_meanwhile = meanwhile_from_;
    Tally first;
    Tally second;
    for (std::size_t at = 0; at < reached.size(); ++at) {
      first.count(start_, reached[at]);
      check_state(start_, reached[at], at < stored_meanwhile ? EntryMap() : meanwhile_);
    }
    check_found(reached.back(), added + meanwhile_);
    for (std::size_t at = 0; at < reached.size(); at += kStride) {
      recover(reached[at], at < stored_meanwhile ? EntryMap() : meanwhile_, second);
    }
    first.print();
    second.print();
    std::printf("%d problems\n", problems_);
    std::fprintf(stderr, "%zu different states\n", verdicts_.size());
    return 0;
  }

  void recover(const DirState& state, const EntryMap& must, Tally& tally) {
    const Keys found = verdicts_.at(signature(state)).found;
    const std::vector<DirState> reached = trace(state, append_of(retried_));
    for (const DirState& next : reached) {
      tally.count(state, next);
      check_state(state, next, must);
      if (limit_ == quorvane::cache::indexed::kNoLimit) {
        check_kept(next, found);
      }
    }
    check_found(reached.back(), retried_ + must);
  }

  // The same for states that no process can tell apart: identities and inodes only say which
  // index belongs to which data file.
  std::string signature(const DirState& state) const {
    std::string text;
    for (const auto& [name, inode] : state.names) {
      text += name + " " + description(state, inode, name.find("dat") == std::string::npos);
    }
    for (const auto& [name, inode] : before_.names) {
      const auto present = state.names.find(name);
      if (present == state.names.end() || present->second != inode) {
        text +=
            "old " + name + " " + description(state, inode, name.find("dat") == std::string::npos);
      }
    }
    return text;
  }

  static std::string description(const DirState& state, ino_t inode, bool is_index) {
    const std::string& bytes = *state.files.at(inode);
    if (bytes.size() < quorvane::cache::indexed::kFirstEntry) {
      return std::to_string(bytes.size()) + " ";
    }
    std::string_view compared(bytes);
    compared.remove_prefix(is_index ? offsetof(IndexPage, covered) : 2 * sizeof(std::uint64_t));
    std::string text = std::to_string(std::hash<std::string_view>()(compared)) + " ";
    for (const char* name : {"dat_maps", "newdat_maps"}) {
      text += is_index && belongs_to(state, page_of(bytes), name) ? name + std::string(" ") : "";
    }
    return text;
  }

  // What a child tells.
  struct Report {
    std::array<char, 200> problem;
    std::array<char, 30'000> found;
  };

  // Opens the store in `from` and performs the operation. Returns the states, no two in a row
  // the same.
  std::vector<DirState> trace(const DirState& from, const Operation& operation) {
    states_.restore(from);
    meanwhile_from_ = std::numeric_limits<std::size_t>::max();
    std::vector<DirState> reached{from};
    const auto body = [&operation] {
      const auto store = make_engine();
      return store->open() && operation(*store) ? 0 : 1;
    };
    const auto visit = [&](test::Change change) {
      add(reached, states_.take(), change == test::Change::by_call);
      if (is_copying(reached.back()) && &from == &start_) {
        store_meanwhile();
        meanwhile_from_ = reached.size();
        add(reached, states_.take(), false);
      }
    };
    if (test::at_each_change(body, visit) != 0) {
      complain(from, "the operation itself fails");
    }
    return reached;
  }

  static void add(std::vector<DirState>& reached, DirState state, bool by_call) {
    if (state == reached.back()) {
      return;
    }
    if (by_call) {
      for (DirState& torn : test::torn_writes(reached.back(), state)) {
        reached.push_back(std::move(torn));
      }
    }
    reached.push_back(std::move(state));
  }

  // The cleaner lets others have the store lock.
  bool is_copying(const DirState& state) const {
    return !meanwhile_.empty() && meanwhile_from_ == std::numeric_limits<std::size_t>::max() &&
           state.has("newdat_maps") && !test::is_locked(test::root_file("lock_maps"));
  }

  void store_meanwhile() {
    const pid_t child = test::in_child([this] {
      const auto store = make_engine();
      return store->open() && store->store(meanwhile_) ? 0 : 1;
    });
    require(test::wait_for(child) == 0, "nothing can be stored during a clean");
  }

  void check_state(const DirState& start, const DirState& state, const EntryMap& must) {
    const auto [known, is_new] = verdicts_.try_emplace(signature(state));
    Verdict& verdict = known->second;
    if (is_new) {
      verdict = examine(state);
    }
    if (!verdict.problem.empty()) {
      complain(state, verdict.problem);
    } else if (is_replaced_without_mark(start, state)) {
      complain(state, "the old index doesn't say that another has replaced it");
    }
    check_found(state, must);
  }

  void check_found(const DirState& state, const EntryMap& must) {
    Keys names;
    for (const auto& entry : must) {
      names.insert(test::bytes_of(entry.first));
    }
    check_kept(state, names);
  }

  void check_kept(const DirState& state, const Keys& names) {
    const Keys& found = verdicts_.at(signature(state)).found;
    if (!std::includes(found.begin(), found.end(), names.begin(), names.end())) {
      complain(state, "what was stored or found before is lost");
    }
  }

  static bool is_replaced_without_mark(const DirState& start, const DirState& state) {
    const auto old = start.names.find("idx_maps");
    return old != start.names.end() && state.names.at("idx_maps") != old->second &&
           page_of(*state.files.at(old->second)).moving == 0;
  }

  Verdict examine(const DirState& state) {
    auto* const report = new (report_) Report{};
    const pid_t child = test::in_child([&] {
      alarm(kHangSeconds);
      try {
        examine(state, *report);
        return 0;
      } catch (const std::exception& failure) {
        std::snprintf(report->problem.data(), report->problem.size(), "%s", failure.what());
        return 1;
      }
    });
    const int result = test::wait_for(child);
    Verdict verdict{report->problem.data(), {}};
    if (verdict.problem.empty() && result != 0) {
      verdict.problem = "a process ends with " + std::to_string(result);
    }
    std::istringstream names(report->found.data());
    for (std::string name; names >> name;) {
      verdict.found.insert(name);
    }
    return verdict;
  }

  // In a child.
  void examine(const DirState& state, Report& report) {
    const Content before(stored_, kept_, retried_ + meanwhile_);
    states_.restore(state);
    Content content = before;
    open_store(content, false);
    std::string names;
    for (const std::string& name : content.found()) {
      names += name + " ";
    }
    require(names.size() < report.found.size(), "there are too many keys");
    std::copy(names.begin(), names.end(), report.found.begin());

    const auto reader = make_engine();
    if (!stored_.empty()) {
      states_.restore(before_);
      require(reader->open(), "it doesn't open before the kill");
    }
    states_.restore(state);
    content = before;
    use(content, stored_.empty() ? nullptr : reader.get());

    states_.restore(state);
    content = before;
    rebuild(content);
  }

  void complain(const DirState& state, const std::string& problem) {
    ++problems_;
    const auto page = page_of(state.bytes("idx_maps"));
    std::fprintf(stderr, "%s: covered %lu, indexed %lu, entries %lu, moving %lu;", problem.c_str(),
                 page.covered, page.indexed, page.entries, page.moving);
    for (const auto& [name, inode] : state.names) {
      std::fprintf(stderr, " %s has %zu bytes", name.c_str(), state.files.at(inode)->size());
    }
    std::fprintf(stderr, "\n");
  }

  const EntryMap stored_;
  const std::uint64_t limit_;
  const std::size_t kept_;
  EntryMap meanwhile_;
  std::size_t meanwhile_from_ = 0;  // from which state on these must be there
  EntryMap retried_;                // by the process that recovers
  test::DirStates states_{test::root_path()};
  DirState before_;  // when the process with the open store looked
  DirState start_;
  std::map<std::string, Verdict> verdicts_;
  int problems_ = 0;
  void* const report_ =
      mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
};

}  // namespace indexed_crash_test

#endif  // TESTS_INDEXED_CRASH_TEST_KILL_STATES_H_
