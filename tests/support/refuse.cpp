#include "support/refuse.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace test {
namespace {

void (*g_meanwhile)() = nullptr;

// The filter's error comes as the signal's.
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

void install(long number, std::uint32_t answer, std::optional<When> when) {
  const auto load = [](std::size_t offset) {
    return sock_filter{BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<std::uint32_t>(offset)};
  };
  const auto jump = [](std::uint32_t value, unsigned char yes, unsigned char no) {
    return sock_filter{BPF_JMP | BPF_JEQ | BPF_K, yes, no, value};
  };
  const auto give = [](std::uint32_t value) { return sock_filter{BPF_RET | BPF_K, 0, 0, value}; };

  std::vector<sock_filter> program{load(offsetof(seccomp_data, nr))};
  if (when) {
    program.push_back(jump(static_cast<std::uint32_t>(number), 0, 3));
    program.push_back(
        load(offsetof(seccomp_data, args) + 8 * static_cast<std::size_t>(when->index)));
    program.push_back(when->negate ? jump(when->value, 1, 0) : jump(when->value, 0, 1));
  } else {
    program.push_back(jump(static_cast<std::uint32_t>(number), 0, 1));
  }
  program.push_back(give(answer));
  program.push_back(give(SECCOMP_RET_ALLOW));

  const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_TSYNC, &filter) != 0) {
    std::perror("seccomp");
    std::abort();
  }
}

}  // namespace

void refuse(long number, int error, std::optional<When> when) {
  install(number, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error), when);
}

void refuse_after(long number, int error, When when, void (*meanwhile)()) {
  g_meanwhile = meanwhile;
  struct sigaction action {};
  action.sa_sigaction = &run_and_fail;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGSYS, &action, nullptr);
  install(number, SECCOMP_RET_TRAP | static_cast<std::uint32_t>(error), when);
}

}  // namespace test
