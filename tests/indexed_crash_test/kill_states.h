// Visits every state of an indexed store's files that a kill can leave.
#ifndef TESTS_INDEXED_CRASH_TEST_KILL_STATES_H_
#define TESTS_INDEXED_CRASH_TEST_KILL_STATES_H_

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <functional>
#include <map>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "indexed_crash_test/checks.h"
#include "support/file_changes.h"
#include "support/processes.h"

namespace indexed_crash_test {

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

  void count(const DirState& start, const DirState& state) {
    const std::string& data = state.bytes("dat_maps");
    const auto page = page_of(state.bytes("idx_maps"));
    const auto old = start.names.find("idx_maps");
    ++states;
    without_header += state.has("dat_maps") && data.size() < 64 ? 1 : 0;
    without_index += data.size() >= 64 && !state.has("idx_maps") ? 1 : 0;
    tails += state.has("idx_maps") && data.size() > page.covered ? 1 : 0;
    unindexed += page.indexed < page.covered ? 1 : 0;
    moving += page.moving != 0 ? 1 : 0;
    replaced += old != start.names.end() && state.names.at("idx_maps") != old->second ? 1 : 0;
    begun += state.has("new_maps") ? 1 : 0;
  }

  void print() const {
    std::printf("%d %d %d %d %d %d %d %d\n", states, without_header, without_index, tails,
                unindexed, moving, replaced, begun);
  }
};

// Runs one operation, and checks each state that it goes through; then recovers from each of
// them in the same way.
class KillStates {
 public:
  // The store has `stored`, and a process keeps it open.
  explicit KillStates(const EntryMap& stored) : stored_(stored) {
    if (!stored.empty()) {
      const auto store = make_engine();
      require(store->open() && store->store(stored), "the store can't be made");
    }
    before_ = start_ = states_.take();
  }

  const DirState& start() const { return start_; }

  // Lets the operation begin in another state than the one that the process with the open
  // store has seen.
  void begin_in(const DirState& state) { start_ = state; }
  void begin_now() { start_ = states_.take(); }

  // The states that an append of `added` goes through, the first and the last included.
  std::vector<DirState> states_of_append(const EntryMap& added) { return trace(start_, added); }

  // Opens the store and appends `added`; if that is empty, only opens it. Prints the tally of
  // this, the tally of the recoveries, and the number of problems.
  int check_append(const EntryMap& added) {
    retried_ = added + entries("retried", 1, 20);
    const std::vector<DirState> reached = trace(start_, added);
    Tally first;
    Tally second;
    for (const DirState& state : reached) {
      first.count(start_, state);
      check(start_, state, {});
    }
    require_found(reached.back(), added);
    for (const DirState& state : reached) {
      const Keys must = verdicts_.at(signature(state)).found;
      const std::vector<DirState> recovered = trace(state, retried_);
      for (const DirState& next : recovered) {
        second.count(state, next);
        check(state, next, must);
      }
      require_found(recovered.back(), retried_);
    }
    first.print();
    second.print();
    std::printf("%d problems\n", problems_);
    std::fprintf(stderr, "%zu different states\n", verdicts_.size());
    return 0;
  }

 private:
  static constexpr unsigned kHangSeconds = 100;

  struct Verdict {
    std::string problem;
    Keys found;  // by the first process that looks
  };

  // The same for states that no process can tell apart. An inode matters where an index names
  // it, and the bytes of a file without a name where a process has it mapped.
  std::string signature(const DirState& state) const {
    const auto hash = [&state](ino_t inode) {
      return std::to_string(std::hash<std::string>()(*state.files.at(inode))) + " ";
    };
    std::string text;
    for (const auto& [name, inode] : state.names) {
      text += name + " " + (name.find("dat") == 0 ? std::to_string(inode) + " " : "") + hash(inode);
    }
    for (const auto& [name, inode] : before_.names) {
      const auto present = state.names.find(name);
      if (present == state.names.end() || present->second != inode) {
        text += "old " + name + " " + hash(inode);
      }
    }
    return text;
  }

  // What a child tells.
  struct Report {
    std::array<char, 200> problem;
    std::array<char, 30'000> found;
  };

  // Opens the store in `from` and appends. Returns the states, no two in a row the same.
  std::vector<DirState> trace(const DirState& from, const EntryMap& added) {
    states_.restore(from);
    std::vector<DirState> reached{from};
    const auto open_and_append = [&added] {
      const auto store = make_engine();
      return store->open() && (added.empty() || store->store(added)) ? 0 : 1;
    };
    const auto visit = [&](test::Change change) {
      DirState state = states_.take();
      if (state == reached.back()) {
        return;
      }
      if (change == test::Change::by_call) {
        for (DirState& torn : test::torn_writes(reached.back(), state)) {
          reached.push_back(std::move(torn));
        }
      }
      reached.push_back(std::move(state));
    };
    if (test::at_each_change(open_and_append, visit) != 0) {
      complain(from, "the operation itself fails");
    }
    return reached;
  }

  void check(const DirState& start, const DirState& state, const Keys& must) {
    const auto [known, is_new] = verdicts_.try_emplace(signature(state));
    Verdict& verdict = known->second;
    if (is_new) {
      verdict = examine(state);
    }
    if (!verdict.problem.empty()) {
      complain(state, verdict.problem);
    } else if (!std::includes(verdict.found.begin(), verdict.found.end(), must.begin(),
                              must.end())) {
      complain(state, "an entry was found before the recovery, and is lost");
    } else if (is_replaced_without_mark(start, state)) {
      complain(state, "the old index doesn't say that another has replaced it");
    }
  }

  static bool is_replaced_without_mark(const DirState& start, const DirState& state) {
    const auto old = start.names.find("idx_maps");
    return old != start.names.end() && state.names.at("idx_maps") != old->second &&
           page_of(*state.files.at(old->second)).moving == 0;
  }

  void require_found(const DirState& state, const EntryMap& added) {
    const Keys& found = verdicts_.at(signature(state)).found;
    for (const auto& entry : added) {
      if (found.count(test::bytes_of(entry.first)) == 0) {
        complain(state, test::bytes_of(entry.first) + " is stored, but not found");
        return;
      }
    }
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
    const Content before(stored_, retried_);
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
  EntryMap retried_;  // by the process that recovers
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
