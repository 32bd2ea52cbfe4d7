#include "qvutil/store/each_entry.h"

#include <sys/stat.h>

#include "qvutil/output/text.h"

namespace quorvane::tool {
namespace {

// Ends a scan.
struct Enough {};

class User : public Visitor {
 public:
  explicit User(const std::function<bool(const Entry&)>& use) : use_(use) {}

  void entry(const Entry& entry) override {
    if (!use_(entry)) {
      throw Enough();
    }
  }
  void place(const Place& place) override { damaged += place.is_damage ? 1 : 0; }

  std::uint64_t damaged = 0;

 private:
  const std::function<bool(const Entry&)>& use_;
};

}  // namespace

Outcome each_entry(Console& console, const CacheFiles& files, const std::string& verb,
                   const std::function<bool(const Entry&)>& use) {
  User user(use);
  try {
    Progress progress(console, verb + " " + shown(files.name), bytes_to_scan(files));
    scan(console, files, user, progress);
  } catch (const Enough&) {
    return Outcome::fine;
  }
  if (user.damaged == 0) {
    return Outcome::fine;
  }
  console.err() << "The cache is damaged in " << grouped(user.damaged)
                << (user.damaged == 1 ? " place, which was" : " places, which were")
                << " passed over; `qvutil verify` says where.\n";
  return Outcome::found;
}

std::uint64_t value_size(const Entry& entry) {
  std::uint64_t size = 0;
  for (const std::string_view atom : entry.atoms) {
    size += atom.size();
  }
  return size;
}

std::uint64_t bytes_to_scan(const CacheFiles& files) {
  struct stat status {};
  return stat(files.main_file().c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size)
                                                       : 0;
}

}  // namespace quorvane::tool
