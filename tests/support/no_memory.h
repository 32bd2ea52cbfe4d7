// Makes allocations fail. Replaces operator new in the whole program: include it in one
// source file only.
#ifndef TESTS_SUPPORT_NO_MEMORY_H_
#define TESTS_SUPPORT_NO_MEMORY_H_

#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>
#include <utility>

namespace test {

constexpr std::size_t kEnoughMemory = std::numeric_limits<std::size_t>::max();

// This thread's allocations of this many bytes or more fail.
inline thread_local std::size_t no_memory_from = kEnoughMemory;

// Runs once, inside this thread's next allocation.
inline thread_local void (*during_allocation)() = nullptr;

// What the allocations after the failed one do.
enum class Afterwards { succeed, fail };

// Makes one allocation of this thread fail, or that one and all later ones. A thread may
// have one such object at a time.
class FailingAllocation {
 public:
  // The first `successes` allocations succeed.
  explicit FailingAllocation(std::size_t successes, Afterwards afterwards = Afterwards::succeed) {
    t_left = successes;
    t_fails_on = afterwards == Afterwards::fail;
    t_has_failed = false;
  }
  ~FailingAllocation() { end(); }
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;

  // Lets all further allocations succeed. Returns whether one has failed.
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

// Memory, or null where the allocation fails.
inline void* allocate(std::size_t size, std::size_t alignment) {
  if (auto* const hook = std::exchange(during_allocation, nullptr)) {
    hook();
  }
  if (size >= no_memory_from || FailingAllocation::fails_now()) {
    return nullptr;
  }
  const std::size_t whole = (size + alignment - 1) / alignment * alignment;
  return alignment > __STDCPP_DEFAULT_NEW_ALIGNMENT__ ? std::aligned_alloc(alignment, whole)
                                                      : std::malloc(size);
}

inline void* allocate_or_throw(std::size_t size, std::size_t alignment) {
  void* const memory = allocate(size, alignment);
  return memory != nullptr ? memory : throw std::bad_alloc();
}

}  // namespace test

// Not inlined: the compiler would warn that free releases memory from new.
__attribute__((noinline)) void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return test::allocate(size, __STDCPP_DEFAULT_NEW_ALIGNMENT__);
}
__attribute__((noinline)) void* operator new(std::size_t size) {
  return test::allocate_or_throw(size, __STDCPP_DEFAULT_NEW_ALIGNMENT__);
}
__attribute__((noinline)) void* operator new(std::size_t size, std::align_val_t alignment) {
  return test::allocate_or_throw(size, static_cast<std::size_t>(alignment));
}

__attribute__((noinline)) void operator delete(void* memory) noexcept { std::free(memory); }
__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, std::align_val_t) noexcept {
  std::free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, std::size_t,
                                               std::align_val_t) noexcept {
  std::free(memory);
}

#endif  // TESTS_SUPPORT_NO_MEMORY_H_
