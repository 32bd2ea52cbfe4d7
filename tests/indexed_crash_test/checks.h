// What must be true of an indexed store after a kill.
#ifndef TESTS_INDEXED_CRASH_TEST_CHECKS_H_
#define TESTS_INDEXED_CRASH_TEST_CHECKS_H_

#include <quorvane/file_store.h>
#include <quorvane/store.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/cache/indexed/engine.h"
#include "src/cache/indexed/format.h"
#include "support/dir_states.h"
#include "support/store_bytes.h"
#include "support/store_root.h"
#include "support/temp_dir.h"

namespace indexed_crash_test {

using quorvane::cache::EntryMap;
using quorvane::cache::StoreFLock;
using quorvane::cache::indexed::Engine;
using quorvane::cache::indexed::IndexPage;
using quorvane::util::RoBuffer;
using test::DirState;

inline std::unique_ptr<Engine> make_engine() {
  return std::make_unique<Engine>(test::root_path(), "maps", std::make_shared<StoreFLock>("maps"));
}

// `count` entries whose values have `size` bytes.
inline EntryMap entries(const std::string& name, int count, std::size_t size) {
  EntryMap map;
  for (int number = 0; number < count; ++number) {
    const std::string key = name + std::to_string(number);
    std::string value = key;
    value.resize(size, '.');
    map.emplace(test::buffer(key), test::buffers({value, "second"}));
  }
  return map;
}

inline EntryMap operator+(EntryMap one, const EntryMap& two) {
  one.insert(two.begin(), two.end());
  return one;
}

inline IndexPage page_of(const std::string& index) {
  IndexPage page{};
  std::memcpy(&page, index.data(), std::min(index.size(), sizeof(page)));
  return page;
}

inline void require(bool condition, const std::string& otherwise) {
  if (!condition) {
    throw std::runtime_error(otherwise);
  }
}

inline bool is_same(const std::vector<RoBuffer>& one, const std::vector<RoBuffer>& two) {
  return std::equal(one.begin(), one.end(), two.begin(), two.end(),
                    [](const RoBuffer& a, const RoBuffer& b) {  // without copies of long values
                      return a.get_size() == b.get_size() &&
                             std::memcmp(a.get_buffer(), b.get_buffer(), a.get_size()) == 0;
                    });
}

using Keys = std::set<std::string>;

// The entries that a store may have, and those that it must have.
class Content {
 public:
  // `stored` were acknowledged, in this order. A clean keeps at least the last `kept` of them.
  Content(const EntryMap& stored, std::size_t kept, const EntryMap& possible)
      : all_(stored + possible), stored_(stored) {
    const auto dropped = static_cast<std::ptrdiff_t>(stored.size() - kept);
    acknowledged_.insert(std::next(stored.begin(), dropped), stored.end());
  }

  void acknowledge(const EntryMap& more) {
    acknowledged_ = acknowledged_ + more;
    all_ = all_ + more;
  }

  // Looks all entries up. Requires the acknowledged ones and those that were found before, and
  // that no value is wrong.
  void look_up(Engine& store) {
    for (const auto& [key, value] : all_) {
      const std::string name = test::bytes_of(key);
      std::vector<RoBuffer> found;
      if (store.find(key, found)) {
        require(is_same(found, value), name + " has a wrong value");
        found_.insert(name);
      } else {
        require(acknowledged_.count(key) == 0, name + " was acknowledged, and is lost");
        require(found_.count(name) == 0, name + " was found before, and is lost");
      }
    }
    require_newest();
  }

  // Requires that reading all entries gives those that look-ups find, and perhaps others that
  // the store may have. `exactly` those when nothing is left of a kill.
  void read(Engine& store, bool exactly) const {
    EntryMap read;
    require(store.read_all(read), "not all can be read");
    for (const auto& [key, value] : read) {
      const auto known = all_.find(key);
      require(known != all_.end(), test::bytes_of(key) + " was never stored");
      require(is_same(value, known->second), test::bytes_of(key) + " is read with a wrong value");
    }
    for (const std::string& name : found_) {
      require(read.count(test::buffer(name)) != 0, name + " is found, but not read");
    }
    if (exactly) {
      require(read.size() == found_.size(), "more is read than found");
      require(read.size() == store.entries(), "the number of entries is wrong");
    }
  }

  const Keys& found() const { return found_; }

 private:
  // What a clean drops is older than what it keeps.
  void require_newest() const {
    bool is_kept = false;
    for (const auto& entry : stored_) {
      const std::string name = test::bytes_of(entry.first);
      require(!is_kept || found_.count(name) != 0, name + " is dropped, and older ones are kept");
      is_kept = is_kept || found_.count(name) != 0;
    }
  }

  EntryMap all_;
  EntryMap stored_;
  EntryMap acknowledged_;
  Keys found_;
};

// Requires files in which nothing is left of a kill. An index that a killed process has begun may
// stay until the next one is made.
inline void require_tidy_files(bool may_have_new) {
  const auto page = page_of(test::read_file(test::root_file("idx_maps")));
  const auto size = std::filesystem::file_size(test::root_file("dat_maps"));
  require(page.covered == size, "the data file is longer than what is covered");
  require(page.indexed == size, "entries have no slots");
  require(page.moving == 0, "the index is marked as moving");
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(test::root_path())) {
    names.insert(entry.path().filename());
  }
  names.erase(may_have_new ? "new_maps" : "");
  require(names == std::set<std::string>{"dat_maps", "idx_maps", "lock_maps"},
          "there are other files");
}

inline std::unique_ptr<Engine> open_store(Content& content, bool exactly) {
  auto store = make_engine();
  require(store->open(), "it doesn't open");
  content.look_up(*store);
  content.read(*store, exactly);
  return store;
}

inline void store_more(Engine& store, Content& content, const std::string& name) {
  const EntryMap more = entries(name, 2, 30);
  require(store.store(more), "nothing can be stored");
  content.acknowledge(more);
  content.look_up(store);
}

inline void delete_index() {
  require(unlink(test::root_file("idx_maps").c_str()) == 0, "there is no index");
}

// Uses the store, deletes its index, and uses it again. `reader` has had it open since before
// the kill.
inline void use(Content& content, Engine* reader) {
  const auto store = open_store(content, false);
  if (reader != nullptr) {
    Content seen = content;
    seen.look_up(*reader);
  }
  store_more(*store, content, "more");
  open_store(content, true);
  require_tidy_files(true);
  if (reader != nullptr) {
    content.look_up(*reader);
    content.read(*reader, true);
  }
  delete_index();
  store_more(*open_store(content, true), content, "rebuilt");
  open_store(content, true);
  require_tidy_files(false);
}

// Deletes the index at once, and uses the store.
inline void rebuild(Content& content) {
  unlink(test::root_file("idx_maps").c_str());
  const auto store = open_store(content, true);
  store_more(*store, content, "more");
  open_store(content, true);
  require_tidy_files(false);
}

}  // namespace indexed_crash_test

#endif  // TESTS_INDEXED_CRASH_TEST_CHECKS_H_
