// Entries as JSON lines: {"key":"k","atoms":["v"]}. Bytes that are not UTF-8 are {"hex":"00ff"}.
#ifndef TOOLS_QVUTIL_REWRITE_JSON_LINES_H_
#define TOOLS_QVUTIL_REWRITE_JSON_LINES_H_

#include <cstdint>
#include <istream>
#include <string>

#include "qvutil/output/console.h"
#include "qvutil/rewrite/entry_writer.h"
#include "qvutil/rewrite/seen_keys.h"

namespace quorvane::tool {

// Prints them. What it needs to tell many repeated keys is in the directory for temporary files: it
// may not be allowed to write to the root of the source.
class JsonLinesWriter : public EntryWriter {
 public:
  explicit JsonLinesWriter(Console& console);

  bool add(std::string_view key, const Atoms& atoms) override;
  void finish() override {}

 private:
  Console& console_;
  SeenKeys seen_;
};

struct JsonLinesRead {
  std::uint64_t entries = 0;   // that the writer took
  std::uint64_t repeated = 0;  // and that it left out
};

// Reads them to the end of a file, which has the name `name` in messages. Skips empty lines.
// Throws Failure for any other line that isn't an entry.
void read_json_lines(std::istream& lines, const std::string& name, EntryWriter& writer,
                     JsonLinesRead& read);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_JSON_LINES_H_
