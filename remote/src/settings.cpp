#include "src/settings.h"

#include <quorvane/env_config.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <string_view>

#include "src/records.h"

namespace quorvane {
namespace remote {
namespace {

using std::chrono::milliseconds;

constexpr char kServers[] = "QV_CACHE_REMOTE";
constexpr char kUser[] = "QV_CACHE_REMOTE_USER";
constexpr char kPasswordFile[] = "QV_CACHE_REMOTE_PASSWORD_FILE";
constexpr char kCaFile[] = "QV_CACHE_REMOTE_CA_FILE";
constexpr char kCertFile[] = "QV_CACHE_REMOTE_CERT_FILE";
constexpr char kKeyFile[] = "QV_CACHE_REMOTE_KEY_FILE";

constexpr std::uint64_t kMostMilliseconds = 60'000;
constexpr std::uint64_t kMostStoreMilliseconds = 3'600'000;
constexpr std::uint64_t kMostValue = std::uint64_t{512} << 20;  // what a server takes by default
constexpr std::uint64_t kMostTtl = 3'153'600'000;               // 100 years

std::string text_of(const char* name) {
  const char* const text = secure_getenv(name);
  return text == nullptr ? "" : text;
}

std::uint64_t number_of(const char* name, std::uint64_t least, std::uint64_t most,
                        std::uint64_t otherwise) {
  errno = 0;  // the conversion takes an old ERANGE for its own
  const std::uint64_t number = qv_env_config_get_uint64(name, otherwise);
  if (number >= least && number <= most) {
    return number;
  }
  QV_LOG(g_module, WARN, "%s is not from %" PRIu64 " to %" PRIu64 ", so it is %" PRIu64, name,
         least, most, otherwise);
  return otherwise;
}

milliseconds time_of(const char* name, std::uint64_t most, milliseconds otherwise) {
  return milliseconds(number_of(name, 1, most, static_cast<std::uint64_t>(otherwise.count())));
}

// The record doesn't quote the text: someone may have put a password there.
bool read_servers(std::string_view list, std::vector<Address>& servers) {
  for (std::size_t begin = 0; begin <= list.size();) {
    const std::size_t end = std::min(list.find(',', begin), list.size());
    std::optional<Address> server = Address::parse(list.substr(begin, end - begin));
    if (!server) {
      QV_LOG(g_module, ERROR,
             "Server %zu in %s is neither a numeric ADDRESS:PORT nor the absolute path of a socket",
             servers.size() + 1, kServers);
      return false;
    }
    servers.push_back(std::move(*server));
    begin = end + 1;
  }
  return true;
}

bool needs(const char* name, const std::string& value, const char* other_name,
           const std::string& other) {
  if (value.empty() || !other.empty()) {
    return true;
  }
  QV_LOG(g_module, ERROR, "%s is set, but %s isn't", name, other_name);
  return false;
}

bool has_all_that_is_needed(const Settings& settings) {
  return needs(kUser, settings.user, kPasswordFile, settings.password_file) &&
         needs(kCertFile, settings.cert_file, kKeyFile, settings.key_file) &&
         needs(kKeyFile, settings.key_file, kCertFile, settings.cert_file) &&
         needs(kCertFile, settings.cert_file, kCaFile, settings.ca_file);
}

}  // namespace

std::optional<Settings> Settings::from_environment() {
  Settings settings;
  const std::string servers = text_of(kServers);
  if (servers.empty()) {
    return settings;
  }
  settings.name_space = text_of("QV_CACHE_REMOTE_NAMESPACE");
  settings.user = text_of(kUser);
  settings.password_file = text_of(kPasswordFile);
  settings.connect_timeout =
      time_of("QV_CACHE_REMOTE_CONNECT_TIMEOUT", kMostMilliseconds, settings.connect_timeout);
  settings.timeout = time_of("QV_CACHE_REMOTE_TIMEOUT", kMostMilliseconds, settings.timeout);
  settings.store_timeout =
      time_of("QV_CACHE_REMOTE_STORE_TIMEOUT", kMostStoreMilliseconds, settings.store_timeout);
  settings.max_value = number_of("QV_CACHE_REMOTE_MAX_VALUE", 1, kMostValue, settings.max_value);
  settings.ttl = number_of("QV_CACHE_REMOTE_TTL", 0, kMostTtl, settings.ttl);
  settings.read_only = qv_env_config_get_bool("QV_CACHE_REMOTE_READ_ONLY", settings.read_only);
  settings.ca_file = text_of(kCaFile);
  settings.cert_file = text_of(kCertFile);
  settings.key_file = text_of(kKeyFile);
  if (!read_servers(servers, settings.servers) || !has_all_that_is_needed(settings)) {
    return std::nullopt;
  }
  return settings;
}

}  // namespace remote
}  // namespace quorvane
