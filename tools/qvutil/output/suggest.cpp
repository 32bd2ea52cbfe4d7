#include "qvutil/output/suggest.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

namespace quorvane::tool {
namespace {

// The distance of Damerau and Levenshtein, where no part is changed twice.
std::size_t distance(const std::string& a, const std::string& b) {
  std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) {
    for (std::size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        d[i][j] = i + j;
        continue;
      }
      const std::size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + change});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
      }
    }
  }
  return d[a.size()][b.size()];
}

}  // namespace

std::string suggestion(const std::string& word, const std::vector<std::string>& candidates) {
  std::string best;
  std::size_t least = std::min<std::size_t>(3, word.size() / 2 + 1);
  for (const std::string& candidate : candidates) {
    const std::size_t changes = distance(word, candidate);
    if (changes < least) {
      least = changes;
      best = candidate;
    }
  }
  return best;
}

}  // namespace quorvane::tool
