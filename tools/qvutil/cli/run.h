// The command line: which command runs, with which options.
#ifndef TOOLS_QVUTIL_CLI_RUN_H_
#define TOOLS_QVUTIL_CLI_RUN_H_

namespace quorvane::tool {

// Runs the command that the arguments name, and returns the exit status of the process (see
// Outcome). Complaints go to standard error. Never throws.
int run(int argc, char** argv);

}  // namespace quorvane::tool

#endif  // TOOLS_QVUTIL_CLI_RUN_H_
