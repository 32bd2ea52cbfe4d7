#include "qvutil/commands/show.h"

#include <string_view>

#include "qvutil/output/json.h"
#include "qvutil/output/text.h"
#include "qvutil/output/written.h"
#include "qvutil/store/each_entry.h"

namespace quorvane::tool {
namespace {

// Of a key or an atom, unless all is asked for.
constexpr std::size_t kShownBytes = 256;

std::string text_of(std::string_view bytes, const ShowOptions& options) {
  const bool is_cut = !options.full && bytes.size() > kShownBytes;
  const std::string_view part = is_cut ? bytes.substr(0, kShownBytes) : bytes;
  return (options.hex ? hex(part) : shown(part)) +
         (is_cut ? "... (" + grouped(bytes.size()) + " B)" : "");
}

Json json_of(std::string_view bytes, const ShowOptions& options) {
  return options.hex ? Json{{"hex", hex(bytes)}} : json_of_bytes(bytes);
}

void print(Console& console, const Entry& entry, const ShowOptions& options) {
  if (console.json()) {
    Json atoms = Json::array();
    for (const std::string_view atom : entry.atoms) {
      atoms.push_back(json_of(atom, options));
    }
    print_json(console, {{"key", json_of(entry.key, options)},
                         {"offset", entry.offset},
                         {"atoms", std::move(atoms)}});
    return;
  }
  console.out() << console.paint(Colour::bold, text_of(entry.key, options)) << '\n';
  for (const std::string_view atom : entry.atoms) {
    console.out() << "  " << size_text(atom.size()) << ": " << text_of(atom, options) << '\n';
  }
}

}  // namespace

Outcome show(Console& console, const ShowOptions& options) {
  std::uint64_t count = 0;
  return each_entry(console, find_cache(options.cache, kind_named(options.kind)), "reading",
                    [&](const Entry& entry) {
                      print(console, entry, options);
                      expect_written(console);
                      return ++count != options.limit;
                    });
}

}  // namespace quorvane::tool
