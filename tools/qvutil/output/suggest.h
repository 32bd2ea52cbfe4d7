// What a user may have meant by a misspelt word.
#ifndef TOOLS_QVUTIL_OUTPUT_SUGGEST_H_
#define TOOLS_QVUTIL_OUTPUT_SUGGEST_H_

#include <string>
#include <vector>

namespace quorvane::tool {

// The candidate that the fewest changed, missing, surplus or swapped characters tell from
// `word`; empty if none is near.
std::string suggestion(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_OUTPUT_SUGGEST_H_
