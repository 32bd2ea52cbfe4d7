/* A C program that uses the C interface: it must compile, link and work. */
#include <quorvane/env_config.h>
#include <quorvane/fault.h>
#include <quorvane/log.h>
#include <quorvane/module.h>
#include <quorvane/pid_file.h>
#include <quorvane/pidset.h>
#include <quorvane/small_utils.h>
#include <quorvane/stats.h>

static void logs_list(void* module, const char* format, ...) {
  va_list args;
  va_start(args, format);
  qv_logv_do(module, QV_LOG_LEVEL_INFO, 0, format, args);
  va_end(args);
}

static bool finds_bytes(void) {
  const char text[] = "abc";
  return qv_find_sequence(text, 3, "bc", 2) == text + 1;
}

/* Without a file there is no set. */
static bool opens_no_set(void) {
  return qv_pidset_open("") == NULL && qv_pidset_open_fd(-1) == NULL &&
         qv_pidset_max_pid_count() > 0;
}

int main(void) {
  void* module = qv_module_create();
  qv_module_route("test/c_program", module);
  qv_module_commit(module);
  if (qv_module_find("test/c_program") != module) {
    return 1;
  }
  QV_LOG(module, INFO, "value %d", qv_env_config_get_int("QV_TEST_VALUE", 0));
  QV_LOG(module, ALL, "never");
  logs_list(module, "%s", "list");
  qv_enable_stack_print_on_segfault();
  qv_remove_sigquit_pidfile();
  if (!finds_bytes() || !opens_no_set()) {
    return 1;
  }
  const bool expected = qv_fault_expect(module, 2, false, "expected %d", 1);
  return !expected && qv_env_config_get_bool("QV_TEST_UNSET", true) &&
                 qv_env_config_get_uint64("QV_TEST_UNSET", 7) == 7
             ? 0
             : 1;
}
