// Makes the kernel refuse a system call for the rest of this process's life, and in its
// children. Call these functions in a scenario.
#ifndef TESTS_SUPPORT_REFUSE_H_
#define TESTS_SUPPORT_REFUSE_H_

#include <cstdint>
#include <optional>

namespace test {

// Selects calls whose argument `index` (0 to 5) equals `value` in its low 32 bits, or
// differs from it with `negate`.
struct When {
  int index;
  std::uint32_t value;
  bool negate = false;
};

// From now on system call `number` (SYS_flock, ...) fails with `error` if both conditions
// hold.
void refuse(long number, int error, std::optional<When> when = std::nullopt,
            std::optional<When> also = std::nullopt);

// The same, but the calling thread first runs `meanwhile` in a signal handler. A process
// can use this function for one system call only.
void refuse_after(long number, int error, When when, void (*meanwhile)());

// The descriptor that the next file gets, after `skipped` others.
std::uint32_t next_descriptor(int skipped = 0);

// Refuses every write to the file that is opened next, after `skipped` others. The log
// still gets its records.
void refuse_writes_to_the_next_file(int skipped = 0);

}  // namespace test

#endif  // TESTS_SUPPORT_REFUSE_H_
