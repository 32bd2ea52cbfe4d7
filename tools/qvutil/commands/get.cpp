#include "qvutil/commands/get.h"

#include "qvutil/output/json.h"
#include "qvutil/output/text.h"
#include "qvutil/output/written.h"
#include "qvutil/store/find_entry.h"

namespace quorvane::tool {
namespace {

std::string_view chosen_atom(const Entry& entry, std::optional<std::uint64_t> atom) {
  const std::string count = grouped(entry.atoms.size());
  const std::string last = grouped(entry.atoms.size() - 1);
  if (!atom && entry.atoms.size() > 1) {
    throw Failure("the value has " + count + " atoms; choose one with --atom 0 to " + last);
  }
  if (atom.value_or(0) >= entry.atoms.size()) {
    throw Failure("the value has no atom " + grouped(*atom) + ", the last is " + last);
  }
  return entry.atoms[atom.value_or(0)];
}

// As they are, except that a terminal gets no control characters.
void print(Console& console, std::string_view bytes) {
  if (console.json()) {
    print_json(console, {{"value", json_of_bytes(bytes)}});
  } else if (console.style().columns != 0) {
    console.out() << shown(bytes) << '\n';
  } else {
    console.out() << bytes;
  }
  expect_written(console);
}

}  // namespace

Outcome get(Console& console, const GetOptions& options) {
  const std::string key = options.hex ? bytes_of_hex(options.key) : options.key;
  const bool is_found =
      find_entry(console, find_cache(options.cache, kind_named(options.kind)), key,
                 [&](const Entry& entry) { print(console, chosen_atom(entry, options.atom)); });
  if (!is_found) {
    console.err() << "There is no key " << (options.hex ? hex(key) : shown(key)) << " in "
                  << shown(options.cache) << ".\n";
  }
  return is_found ? Outcome::fine : Outcome::found;
}

}  // namespace quorvane::tool
