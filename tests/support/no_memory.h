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

}  // namespace test

// Not inlined: the compiler would see a new freed by free.
__attribute__((noinline)) void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return size >= test::no_memory_from ? nullptr : std::malloc(size);
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
