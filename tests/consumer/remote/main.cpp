#include <quorvane/cache.h>
#include <quorvane/remote_store.h>

#include <cstdio>

int main() {
  using namespace quorvane;
  const cache::Cache cache("consumer", cache::make_remote_store("consumer"), false);
  std::puts(cache.is_valid() ? "a store" : "no store");
}
