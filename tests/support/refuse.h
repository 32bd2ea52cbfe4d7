// Makes the kernel refuse a system call, for the rest of this process and its
// children: call it in a scenario.
#ifndef TESTS_SUPPORT_REFUSE_H_
#define TESTS_SUPPORT_REFUSE_H_

#include <cstdint>
#include <optional>

namespace test {

// Only calls whose argument `index` (0 to 5) equals `value` in its low 32 bits;
// with `negate`, only those where it differs.
struct When {
  int index;
  std::uint32_t value;
  bool negate = false;
};

// From now on system call `number` (SYS_flock, ...) fails with `error`, when both
// conditions hold.
void refuse(long number, int error, std::optional<When> when = std::nullopt,
            std::optional<When> also = std::nullopt);

// The same, but the thread that makes the call first runs `meanwhile`, in a signal
// handler. For one kind of call in a process.
void refuse_after(long number, int error, When when, void (*meanwhile)());

// The descriptor that will be given out after `skipped` others.
std::uint32_t next_descriptor(int skipped = 0);

// Refuses every write to the file that is opened after `skipped` others, while the log
// goes on.
void refuse_writes_to_the_next_file(int skipped = 0);

}  // namespace test

#endif  // TESTS_SUPPORT_REFUSE_H_
