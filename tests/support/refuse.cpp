#include "support/refuse.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace test {
namespace {

void (*g_meanwhile)() = nullptr;

// The filter passes its error in the signal's si_errno.
void run_and_fail(int, siginfo_t* info, void* context) {
  const int error = info->si_errno;
  g_meanwhile();
  auto& registers = static_cast<ucontext_t*>(context)->uc_mcontext;
#if defined(__x86_64__)
  registers.gregs[REG_RAX] = -error;
#elif defined(__aarch64__)
  registers.regs[0] = static_cast<unsigned long long>(-error);
#endif
}

void install(long number, std::uint32_t answer, const std::vector<When>& conditions) {
  std::vector<sock_filter> program;
  const std::size_t allow = 3 + 2 * conditions.size();
  const auto add = [&](int code, std::size_t operand, unsigned char yes, unsigned char no) {
    program.push_back(
        {static_cast<std::uint16_t>(code), yes, no, static_cast<std::uint32_t>(operand)});
  };
  // Falls through to the next instruction, or jumps to the instruction that allows the call.
  const auto go_on_if = [&](std::uint32_t value, bool negate) {
    const auto away = static_cast<unsigned char>(allow - program.size() - 1);
    add(BPF_JMP | BPF_JEQ | BPF_K, value, negate ? away : 0, negate ? 0 : away);
  };

  add(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr), 0, 0);
  go_on_if(static_cast<std::uint32_t>(number), false);
  for (const When& when : conditions) {
    add(BPF_LD | BPF_W | BPF_ABS,
        offsetof(seccomp_data, args) + 8 * static_cast<std::size_t>(when.index), 0, 0);
    go_on_if(when.value, when.negate);
  }
  add(BPF_RET | BPF_K, answer, 0, 0);
  add(BPF_RET | BPF_K, SECCOMP_RET_ALLOW, 0, 0);

  const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_TSYNC, &filter) != 0) {
    std::perror("seccomp");
    std::abort();
  }
}

}  // namespace

void refuse(long number, int error, std::optional<When> when, std::optional<When> also) {
  std::vector<When> conditions;
  for (const std::optional<When>& condition : {when, also}) {
    if (condition) {
      conditions.push_back(*condition);
    }
  }
  install(number, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error), conditions);
}

void refuse_after(long number, int error, When when, void (*meanwhile)()) {
  g_meanwhile = meanwhile;
  struct sigaction action {};
  action.sa_sigaction = &run_and_fail;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGSYS, &action, nullptr);
  install(number, SECCOMP_RET_TRAP | static_cast<std::uint32_t>(error), {when});
}

std::uint32_t next_descriptor(int skipped) {
  std::vector<int> opened;
  for (int i = 0; i <= skipped; ++i) {
    opened.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
  }
  const auto last = static_cast<std::uint32_t>(opened.back());
  for (const int fd : opened) {
    close(fd);
  }
  return last;
}

void refuse_writes_to_the_next_file(int skipped) {
  const When to_it{0, next_descriptor(skipped)};
  refuse(SYS_write, ENOSPC, to_it);
  refuse(SYS_writev, ENOSPC, to_it);
}

}  // namespace test
