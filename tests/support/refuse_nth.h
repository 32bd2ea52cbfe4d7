// Makes the kernel refuse one system call among all that an operation makes.
#ifndef TESTS_SUPPORT_REFUSE_NTH_H_
#define TESTS_SUPPORT_REFUSE_NTH_H_

#include <elf.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "support/processes.h"

namespace test {

// What a child did whose call was refused.
struct Refused {
  int status;          // as test::wait_for gives it
  std::uint64_t call;  // its number; kNoCall when the child made fewer calls
};

constexpr std::uint64_t kNoCall = ~std::uint64_t{0};

namespace refuse_nth_details {

// Calls that work on files or ask for memory or random numbers. Writes to the log aren't among
// them.
inline bool is_one_of_ours(std::uint64_t call) {
  static constexpr std::uint64_t kCalls[] = {
      SYS_openat,     SYS_pwrite64, SYS_pread64, SYS_read,   SYS_ftruncate, SYS_fstat,
      SYS_newfstatat, SYS_mmap,     SYS_madvise, SYS_munmap, SYS_getrandom, SYS_renameat2,
#ifdef SYS_rename
      SYS_rename,     SYS_unlink,   SYS_stat,    SYS_open,
#endif
      SYS_renameat,   SYS_unlinkat};
  return std::find(std::begin(kCalls), std::end(kCalls), call) != std::end(kCalls);
}

// A sanitizer's runtime would end the process that gets no memory.
inline bool is_of_a_sanitizer([[maybe_unused]] const __ptrace_syscall_info& call) {
#ifdef QV_SANITIZED
  const bool has_no_file = static_cast<int>(call.entry.args[4]) == -1;
  return call.entry.nr == SYS_madvise || call.entry.nr == SYS_munmap ||
         (call.entry.nr == SYS_mmap && has_no_file);
#else
  return false;
#endif
}

inline bool may_be_refused(const __ptrace_syscall_info& call) {
  return call.op == PTRACE_SYSCALL_INFO_ENTRY && is_one_of_ours(call.entry.nr) &&
         !is_of_a_sanitizer(call);
}

inline bool stops_at_call(pid_t child, int& status) {
  ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
  return waitpid(child, &status, 0) == child && WIFSTOPPED(status);
}

#if defined(__x86_64__)
inline void skip_call(pid_t child) {
  ptrace(PTRACE_POKEUSER, child, offsetof(user_regs_struct, orig_rax), -1L);
}
inline void set_result(pid_t child, long result) {
  ptrace(PTRACE_POKEUSER, child, offsetof(user_regs_struct, rax), result);
}
#elif defined(__aarch64__)
inline void skip_call(pid_t child) {
  int none = -1;
  iovec part{&none, sizeof(none)};
  ptrace(PTRACE_SETREGSET, child, NT_ARM_SYSTEM_CALL, &part);
}
inline void set_result(pid_t child, long result) {
  user_regs_struct registers;
  iovec part{&registers, sizeof(registers)};
  ptrace(PTRACE_GETREGSET, child, NT_PRSTATUS, &part);
  registers.regs[0] = static_cast<unsigned long long>(result);
  ptrace(PTRACE_SETREGSET, child, NT_PRSTATUS, &part);
}
#endif

}  // namespace refuse_nth_details

// Runs `prepare` and then `body` in a child, which exits with what `body` returns. The call of
// `body` that follows `allowed` others fails with `error`.
template <typename Prepare, typename Body>
Refused in_child_with_a_refusal(int allowed, int error, Prepare prepare, Body body) {
  namespace details = refuse_nth_details;
  const pid_t child = in_child([&] {
    auto prepared = prepare();
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    return body(prepared);
  });
  int status = 0;
  waitpid(child, &status, 0);
  ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD);
  while (details::stops_at_call(child, status)) {  // the entry of a call
    __ptrace_syscall_info call{};
    ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof(call), &call);
    const bool refuse = details::may_be_refused(call) && allowed-- == 0;
    if (refuse) {
      details::skip_call(child);
    }
    if (!details::stops_at_call(child, status)) {  // its end
      break;
    }
    if (refuse) {
      details::set_result(child, -error);
      ptrace(PTRACE_DETACH, child, nullptr, nullptr);
      return {wait_for(child), call.entry.nr};
    }
  }
  return {WIFEXITED(status) ? WEXITSTATUS(status) : kKilledBy + WTERMSIG(status), kNoCall};
}

}  // namespace test

#endif  // TESTS_SUPPORT_REFUSE_NTH_H_
