#include "support/file_changes.h"

#include <elf.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "support/tracee.h"

namespace test {
namespace {

using Registers = user_regs_struct;

// Makes the child perform a system call with the instruction that ends at `behind`.
void prepare_call(Registers& registers, std::uint64_t behind, long number,
                  const std::uint64_t (&arguments)[3]) {
#if defined(__x86_64__)
  registers.rip = behind - 2;
  registers.rax = static_cast<std::uint64_t>(number);
  registers.orig_rax = ~std::uint64_t{0};  // the interrupted call is not started again
  registers.rdi = arguments[0];
  registers.rsi = arguments[1];
  registers.rdx = arguments[2];
#elif defined(__aarch64__)
  registers.pc = behind - 4;
  registers.regs[8] = static_cast<std::uint64_t>(number);
  std::copy(arguments, arguments + 3, registers.regs);
#endif
}

class Tracer {
 public:
  Tracer(const std::function<int()>& body, const std::function<void(Change)>& visit)
      : child_([&body] { _exit(body()); }), visit_(visit) {}

  int run() {
    for (int signal = 0; (signal = child_.resume(PTRACE_SYSCALL, signal)) != 0;) {
      if (signal == Tracee::kAtCall) {
        stop_at_call();
        signal = 0;
      } else if (const Range* range = signal == SIGSEGV ? range_of_fault() : nullptr) {
        let_store(*range);
        signal = 0;
      }
    }
    return WIFEXITED(child_.status()) ? WEXITSTATUS(child_.status()) : -1;
  }

 private:
  struct Range {
    std::uint64_t begin;
    std::uint64_t size;
  };

  void stop_at_call() {
    __ptrace_syscall_info info{};
    ptrace(PTRACE_GET_SYSCALL_INFO, child_.pid(), sizeof(info), &info);
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
      call_ = info;
    } else if (info.op == PTRACE_SYSCALL_INFO_EXIT) {
      if (info.exit.is_error == 0) {
        behind_call_ = info.instruction_pointer;
        follow_mappings(static_cast<std::uint64_t>(info.exit.rval));
      }
      visit_(Change::by_call);
    }
  }

  // Keeps a list of the mapped files that the child can store into, and makes them read-only:
  // each store then stops the child.
  void follow_mappings(std::uint64_t result) {
    const auto& arguments = call_.entry.args;
    if (call_.entry.nr == SYS_munmap || call_.entry.nr == SYS_mmap) {
      const std::uint64_t begin = call_.entry.nr == SYS_mmap ? result : arguments[0];
      std::erase_if(ranges_, [&](const Range& range) { return range.begin == begin; });
    }
    if (call_.entry.nr == SYS_mmap && static_cast<int>(arguments[4]) >= 0 &&
        (arguments[3] & MAP_SHARED) != 0 && (arguments[2] & PROT_WRITE) != 0) {
      ranges_.push_back({result, arguments[1]});
      protect(ranges_.back(), PROT_READ);
    }
  }

  const Range* range_of_fault() const {
    siginfo_t info{};
    ptrace(PTRACE_GETSIGINFO, child_.pid(), nullptr, &info);
    const auto address = reinterpret_cast<std::uint64_t>(info.si_addr);
    const auto found = std::find_if(ranges_.begin(), ranges_.end(), [address](const Range& range) {
      return address - range.begin < range.size;
    });
    return found == ranges_.end() ? nullptr : &*found;
  }

  void let_store(const Range& range) {
    protect(range, PROT_READ | PROT_WRITE);
    child_.resume(PTRACE_SINGLESTEP);
    visit_(Change::by_store);
    protect(range, PROT_READ);
  }

  void protect(const Range& range, std::uint64_t protection) {
    Registers old{};
    iovec registers{&old, sizeof(old)};
    ptrace(PTRACE_GETREGSET, child_.pid(), NT_PRSTATUS, &registers);
    Registers changed = old;
    prepare_call(changed, behind_call_, SYS_mprotect, {range.begin, range.size, protection});
    registers.iov_base = &changed;
    ptrace(PTRACE_SETREGSET, child_.pid(), NT_PRSTATUS, &registers);
    child_.resume(PTRACE_SYSCALL);  // to the entry of the call
    child_.resume(PTRACE_SYSCALL);  // to its exit
    registers.iov_base = &old;
    ptrace(PTRACE_SETREGSET, child_.pid(), NT_PRSTATUS, &registers);
  }

  Tracee child_;
  const std::function<void(Change)>& visit_;
  __ptrace_syscall_info call_{};   // that the child is in
  std::uint64_t behind_call_ = 0;  // the instruction behind some system call
  std::vector<Range> ranges_;
};

}  // namespace

int at_each_change(const std::function<int()>& body, const std::function<void(Change)>& visit) {
  return Tracer(body, visit).run();
}

}  // namespace test
