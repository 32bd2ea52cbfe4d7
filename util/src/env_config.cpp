#include <quorvane/env_config.h>
#include <quorvane/module.h>

#include <strings.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

// The variable's value; null when there is nothing to convert.
const char* value_of(const char* name) {
  const char* value = secure_getenv(name);
  return value == nullptr || *value == '\0' ? nullptr : value;
}

void warn(const char* type, const char* name, const char* value) {
  QV_LOG(quorvane::module::Module::get_internal(), WARN,
         "Unexpected value for %s environment variable \"%s\": \"%s\"", type, name, value);
}

// Doesn't clear errno first: with a stale ERANGE every value is refused.
// Kept: docs/compatibility.md
template <typename Number>
bool convert(Number (*read)(const char*, char**, int), const char* value, Number& out) {
  char* end = nullptr;
  const Number number = read(value, &end, 10);
  if (errno == ERANGE || end == value || *end != '\0') {
    return false;
  }
  out = number;
  return true;
}

}  // namespace

bool qv_env_config_get_bool(const char* name, bool default_value) {
  const char* value = value_of(name);
  if (value == nullptr) {
    return default_value;
  }
  if (std::strcmp(value, "1") == 0 || strcasecmp(value, "true") == 0) {
    return true;
  }
  if (std::strcmp(value, "0") == 0 || strcasecmp(value, "false") == 0) {
    return false;
  }
  warn("boolean", name, value);
  return default_value;
}

int qv_env_config_get_int(const char* name, int default_value) {
  const char* value = value_of(name);
  if (value == nullptr) {
    return default_value;
  }
  long number = 0;
  if (!convert(&strtol, value, number)) {
    warn("integer", name, value);
    return default_value;
  }
  // The low 32 bits.
  // Kept: docs/compatibility.md
  return static_cast<int>(number);
}

uint64_t qv_env_config_get_uint64(const char* name, uint64_t default_value) {
  const char* value = value_of(name);
  if (value == nullptr) {
    return default_value;
  }
  unsigned long long number = 0;
  // Takes negative numbers, and its record says "integer" too.
  // Kept: docs/compatibility.md
  if (!convert(&strtoull, value, number)) {
    warn("integer", name, value);
    return default_value;
  }
  return number;
}
