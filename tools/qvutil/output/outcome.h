// How a command ends.
#ifndef TOOLS_QVUTIL_OUTPUT_OUTCOME_H_
#define TOOLS_QVUTIL_OUTPUT_OUTCOME_H_

#include <stdexcept>
#include <string>

namespace quorvane::tool {

// The exit status of the process.
enum class Outcome {
  fine = 0,
  found = 1,   // the command did its work and found something: damage, no such key, a dead process
  failed = 2,  // it couldn't do its work
};

// Ends a command as failed. The text is for the user: what couldn't be done, and why. It has no
// period at its end.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A Failure with the text of `error_number` (errno): "WHAT: No such file or directory".
Failure failure_of(const std::string& what, int error_number);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_OUTPUT_OUTCOME_H_
