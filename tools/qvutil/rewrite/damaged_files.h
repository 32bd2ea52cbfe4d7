// Damaged files, which a repair keeps under other names.
#ifndef TOOLS_QVUTIL_REWRITE_DAMAGED_FILES_H_
#define TOOLS_QVUTIL_REWRITE_DAMAGED_FILES_H_

#include <string>

namespace quorvane::tool {

// Gives a file a second name in its directory, which it keeps when another file takes its first
// one: NAME.damaged, or NAME.damaged.2 and so on if that is another file. Returns the name
// without directories; "" if the file isn't there. Throws Failure if the name can't be given.
std::string keep_as_damaged(const std::string& path);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_REWRITE_DAMAGED_FILES_H_
