// Has allocations fail. Replaces operator new in the whole program: for one source
// file of it.
#ifndef TESTS_SUPPORT_NO_MEMORY_H_
#define TESTS_SUPPORT_NO_MEMORY_H_

#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>

namespace test {

constexpr std::size_t kEnoughMemory = std::numeric_limits<std::size_t>::max();

// From so many bytes on, this thread's allocations fail.
inline thread_local std::size_t no_memory_from = kEnoughMemory;

// What becomes of the allocations after the one that fails.
enum class Afterwards { succeed, fail };

// Has one allocation of this thread fail, or that and all later ones. One object at a
// time in a thread.
class FailingAllocation {
 public:
  // Fails after so many successes.
  explicit FailingAllocation(std::size_t successes, Afterwards afterwards = Afterwards::succeed) {
    t_left = successes;
    t_fails_on = afterwards == Afterwards::fail;
    t_has_failed = false;
  }
  ~FailingAllocation() { end(); }
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;

  // From now on there is memory. Whether an allocation failed.
  static bool end() {
    t_left = kEnoughMemory;
    return t_has_failed;
  }

  static bool fails_now() {
    if (t_left == kEnoughMemory) {
      return false;
    }
    if (t_left > 0) {
      --t_left;
      return false;
    }
    const bool fails = t_fails_on || !t_has_failed;
    t_has_failed = true;
    return fails;
  }

 private:
  static inline thread_local std::size_t t_left = kEnoughMemory;
  static inline thread_local bool t_fails_on = false;
  static inline thread_local bool t_has_failed = false;
};

}  // namespace test

// Not inlined: the compiler would see a new freed by free.
__attribute__((noinline)) void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (size >= test::no_memory_from || test::FailingAllocation::fails_now()) {
    return nullptr;
  }
  return std::malloc(size);
}

__attribute__((noinline)) void* operator new(std::size_t size) {
  void* const memory = operator new(size, std::nothrow);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

__attribute__((noinline)) void operator delete(void* memory) noexcept { std::free(memory); }
__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

#endif  // TESTS_SUPPORT_NO_MEMORY_H_
