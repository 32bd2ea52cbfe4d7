// A program without a tracer that releases ranges of a pool in both ways.
#include <quorvane/circular_buffer_pool.h>
#include <unistd.h>

#include <cstdio>

int main() {
  quorvane::util::CircularBufferPool pool(static_cast<unsigned long>(getpagesize()));
  auto oldest = pool.allocate(100, nullptr);
  oldest.set_pool_release_is_free(true);
  const auto newest = pool.allocate(10, nullptr);
  std::printf("used\n");
  return 0;
}
