// The program of the guide's incidents that looks something up: reader basic|indexed. Its cache is
// "sizes", under the root of the environment.
#include <quorvane/cache.h>
#include <quorvane/file_store.h>

#include <cstdio>
#include <string>

namespace {

using quorvane::cache::StoreKind;

quorvane::util::RoBuffer bytes(const std::string& text) {
  return quorvane::util::RoBuffer::view(text.data(), text.size());
}

}  // namespace

int main(int argc, char** argv) {
  const bool is_basic = argc > 1 && std::string(argv[1]) == "basic";
  quorvane::cache::Cache sizes(
      "sizes",
      quorvane::cache::make_file_store(is_basic ? StoreKind::basic : StoreKind::indexed, "sizes"),
      false);
  const std::string key = "/src/1.c";
  const auto* const value = sizes.get_value(bytes(key));
  std::printf("%s: %zu atoms\n", key.c_str(), value == nullptr ? 0 : value->size());
}
