#include <quorvane/cache.h>
#include <quorvane/file_store.h>
#include <quorvane/stats.h>
#include <quorvane/uuid.h>

#include <cstdio>

int main() {
  using namespace quorvane;
  cache::Cache cache("consumer", cache::make_file_store(cache::StoreKind::basic, "consumer"), true);
  const auto key = util::RoBuffer::copy("key", 3);
  const bool known = cache.get_value(key) != nullptr;
  cache.add_value(key, {util::RoBuffer::copy("value", 5)});
  std::printf("%s, identity of %zu characters, statistics %s\n", known ? "known" : "new",
              uuid_unparse(get_my_uuid()).size(),
              stats::get_singleton_module() != nullptr ? "on" : "off");
}
