#include "qvutil/commands/verify.h"

#include <algorithm>

#include "qvutil/output/json.h"
#include "qvutil/output/text.h"
#include "qvutil/store/each_entry.h"
#include "qvutil/store/value_reader.h"

namespace quorvane::tool {
namespace {

class Verifier : public Visitor {
 public:
  Verifier(Console& console, const CacheFiles& files) : console_(console), files_(files) {}

  void entry(const Entry& entry) override { reader_.read(entry); }

  void place(const Place& place) override {
    ++(place.is_damage ? damaged : odd);
    if (console_.json()) {
      print_json(console_, {{"cache", json_of_bytes(files_.name)},
                            {"kind", name_of(files_.kind)},
                            {"file", json_of_bytes(place.file)},
                            {"offset", place.offset},
                            {"size", place.size},
                            {"reason", place.reason},
                            {"damage", place.is_damage}});
      return;
    }
    console_.out() << (place.is_damage ? console_.paint(Colour::red, "damage") + "  "
                                       : console_.paint(Colour::yellow, "odd") + "     ")
                   << shown(place.file) << " at " << place.offset << ", " << size_text(place.size)
                   << ": " << shown(place.reason) << '\n';
  }

  std::uint64_t damaged = 0;
  std::uint64_t odd = 0;

 private:
  Console& console_;
  const CacheFiles& files_;
  ValueReader reader_;
};

std::string places_text(std::uint64_t count, const char* what) {
  return grouped(count) + " " + what + (count == 1 ? " place" : " places");
}

void print_result(Console& console, const CacheFiles& files, const Scanned& scanned,
                  const Verifier& verifier) {
  if (console.json()) {
    print_json(console, {{"cache", json_of_bytes(files.name)},
                         {"kind", name_of(files.kind)},
                         {"entries", scanned.entries},
                         {"bytes", scanned.bytes},
                         {"damaged", verifier.damaged},
                         {"odd", verifier.odd}});
    return;
  }
  const bool is_damaged = verifier.damaged != 0;
  console.out() << shown(files.name) << " (" << name_of(files.kind) << "): "
                << console.paint(is_damaged ? Colour::red : Colour::green,
                                 is_damaged ? "damaged" : "whole")
                << ", " << grouped(scanned.entries) << " whole "
                << (scanned.entries == 1 ? "entry" : "entries") << ", " << size_text(scanned.bytes)
                << (is_damaged ? ", " + places_text(verifier.damaged, "damaged") : "")
                << (verifier.odd != 0 ? ", " + places_text(verifier.odd, "odd") : "") << '\n';
}

Outcome verify_one(Console& console, const CacheFiles& files) {
  Verifier verifier(console, files);
  Scanned scanned;
  {
    Progress progress(console, "verifying " + shown(files.name), bytes_to_scan(files));
    scanned = scan_places(console, files, verifier, progress);
  }
  print_result(console, files, scanned, verifier);
  return verifier.damaged == 0 ? Outcome::fine : Outcome::found;
}

// Another cache may be whole although this one can't be found or read.
template <typename Find>
Outcome verify_if_possible(Console& console, const Find& find) {
  try {
    return verify_one(console, find());
  } catch (const Failure& failure) {
    console.err() << "qvutil verify: " << failure.what() << '\n';
    return Outcome::failed;
  }
}

Outcome verify_root(Console& console, const std::string& root) {
  const std::vector<CacheFiles> all = caches_of(root);
  if (all.empty()) {
    console.err() << "There are no caches in " << shown(root) << ".\n";
  }
  Outcome outcome = Outcome::fine;
  for (const CacheFiles& files : all) {
    outcome = std::max(outcome, verify_if_possible(console, [&] { return files; }));
  }
  return outcome;
}

}  // namespace

Outcome verify(Console& console, const VerifyOptions& options) {
  if (!options.root && options.caches.empty()) {
    throw Failure("say which caches, or --root");
  }
  Outcome outcome =
      options.root ? verify_root(console, root_or_default(*options.root)) : Outcome::fine;
  for (const std::string& cache : options.caches) {
    outcome = std::max(outcome, verify_if_possible(console, [&] {
                         return find_cache(cache, kind_named(options.kind));
                       }));
  }
  return outcome;
}

}  // namespace quorvane::tool
