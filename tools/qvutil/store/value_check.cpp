#include "qvutil/store/value_check.h"

#include "qvutil/store/format.h"

namespace quorvane::tool {

void ValueCheck::entry(const Entry& entry) {
  visitor_.entry(entry);
  const auto first = static_cast<std::uint64_t>(entry.atoms.front().data() - values_.data());
  const std::uint64_t offset = first - sizeof(format::kMagic);
  std::uint64_t end = first;
  for (const std::string_view atom : entry.atoms) {
    end += atom.size();
  }
  if (format::number_at<std::uint32_t>(values_, offset) != format::kMagic) {
    visitor_.place({name_, offset, end - offset,
                    "no value begins here, but the entry at offset " +
                        std::to_string(entry.offset) + " of the key file leads here",
                    false});
  }
  tell_gap(offset);
  if (offset < next_) {
    visitor_.place({name_, offset, end - offset, "several keys lead to the same bytes", false});
  }
  next_ = end > next_ ? end : next_;
}

// The gap behind a damaged entry of the key file is what its value was.
void ValueCheck::place(const Place& place) { visitor_.place(place); }

void ValueCheck::finish() { tell_gap(values_.size()); }

void ValueCheck::tell_gap(std::uint64_t end) {
  if (end > next_) {
    visitor_.place({name_, next_, end - next_, "no key leads here", false});
  }
}

}  // namespace quorvane::tool
