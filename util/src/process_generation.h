// Tells a child of fork from its parent, without a system call.
#ifndef QUORVANE_SRC_PROCESS_GENERATION_H_
#define QUORVANE_SRC_PROCESS_GENERATION_H_

#include <cstdint>

namespace quorvane {

// A number, never 0, that stays the same as long as this process lives and
// differs from that of every process it descends from, however it was forked
// (raw clone included). What is kept per process is kept beside this number and
// thrown away when it changes. One load. Any thread.
std::uint64_t process_generation();

}  // namespace quorvane

#endif  // QUORVANE_SRC_PROCESS_GENERATION_H_
