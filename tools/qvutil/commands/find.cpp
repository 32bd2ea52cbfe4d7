#include "qvutil/commands/find.h"

#include <limits>

#include "qvutil/output/json.h"
#include "qvutil/output/text.h"
#include "qvutil/output/written.h"
#include "qvutil/store/each_entry.h"

namespace quorvane::tool {
namespace {

// Columns for what is printed while it is found.
std::string right(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

void print(Console& console, const Entry& entry, bool as_hex) {
  if (console.json()) {
    print_json(console, {{"key", as_hex ? Json{{"hex", hex(entry.key)}} : json_of_bytes(entry.key)},
                         {"key_size", entry.key.size()},
                         {"value_size", value_size(entry)},
                         {"atoms", entry.atoms.size()}});
    return;
  }
  console.out() << right(size_text(value_size(entry)), 7) << "  "
                << right(grouped(entry.atoms.size()), 5) << "  "
                << (as_hex ? hex(entry.key) : shown(entry.key)) << '\n';
}

}  // namespace

Outcome find(Console& console, const FindOptions& options) {
  const std::string prefix = options.hex ? bytes_of_hex(options.prefix) : options.prefix;
  const std::uint64_t least = options.min_size.value_or(0);
  const std::uint64_t most = options.max_size.value_or(std::numeric_limits<std::uint64_t>::max());
  std::uint64_t count = 0;
  const auto use = [&](const Entry& entry) {
    const std::uint64_t size = value_size(entry);
    if (entry.key.substr(0, prefix.size()) != prefix || size < least || size > most) {
      return true;
    }
    if (count == 0 && !console.json()) {
      console.out() << console.paint(Colour::bold, "  VALUE  ATOMS  KEY") << '\n';
    }
    print(console, entry, options.hex);
    expect_written(console);
    return ++count != options.limit;
  };
  const Outcome outcome =
      each_entry(console, find_cache(options.cache, kind_named(options.kind)), "searching", use);
  if (count == 0) {
    console.err() << "There is no such key in " << shown(options.cache) << ".\n";
    return Outcome::found;
  }
  return outcome;
}

}  // namespace quorvane::tool
