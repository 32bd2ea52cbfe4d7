#include <quorvane/env_config.h>
#include <quorvane/log.h>
#include <quorvane/module.h>
#include <quorvane/pidset.h>
#include <quorvane/stats.h>
#include <stdio.h>

int main(void) {
  void* module = qv_module_create();
  qv_module_route("consumer", module);
  qv_module_commit(module);
  QV_LOG(module, INFO, "from %s", "C");
  printf("%s\n",
         qv_stats_create_counter(module, "calls") == QV_STATS_INVALID_HANDLE ? "off" : "on");
  return 0;
}
