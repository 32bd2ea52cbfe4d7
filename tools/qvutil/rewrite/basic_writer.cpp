#include "qvutil/rewrite/basic_writer.h"

#include "qvutil/store/format.h"

namespace quorvane::tool {

BasicWriter::BasicWriter(const CacheFiles& files) : file_(files.main_file()), seen_(files.root) {
  file_.number(format::kMagic);
  file_.number(format::kBasicVersion);
}

bool BasicWriter::add(std::string_view key, const Atoms& atoms) {
  if (!seen_.add(key)) {
    return false;
  }
  file_.number(format::kMagic);
  file_.number<std::uint64_t>(key.size());
  file_.write(key);
  file_.number<std::uint64_t>(atoms.size());
  for (const std::string_view atom : atoms) {
    file_.number<std::uint64_t>(atom.size());
    file_.write(atom);
  }
  return true;
}

}  // namespace quorvane::tool
