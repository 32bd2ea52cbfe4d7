#include "qvutil/rewrite/copier.h"

namespace quorvane::tool {

void Copier::entry(const Entry& entry) {
  if (filter_ && !filter_(entry)) {
    return;
  }
  ++(writer_.add(entry.key, entry.atoms) ? copied_ : repeated_);
}

}  // namespace quorvane::tool
