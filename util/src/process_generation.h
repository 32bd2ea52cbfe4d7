// Tells a child of fork from its parent, without a system call.
#ifndef QUORVANE_SRC_PROCESS_GENERATION_H_
#define QUORVANE_SRC_PROCESS_GENERATION_H_

#include <cstdint>

namespace quorvane {

// A number, never 0, that stays the same as long as this process lives and differs from
// those of all its ancestors, however it was forked (raw clone included). Keep this number
// with every state that belongs to one process, and discard the state when the number
// changes. Costs one load. Any thread.
std::uint64_t process_generation();

}  // namespace quorvane

#endif  // QUORVANE_SRC_PROCESS_GENERATION_H_
