// What the environment says about the servers.
#ifndef QUORVANE_REMOTE_SRC_SETTINGS_H_
#define QUORVANE_REMOTE_SRC_SETTINGS_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "src/address.h"

namespace quorvane {
namespace remote {

struct Settings {
  std::vector<Address> servers;  // empty: there is no remote store
  std::string name_space;
  std::string user;           // empty: the default user
  std::string password_file;  // read at each connection, so that a password can change
  std::chrono::milliseconds connect_timeout{100};
  std::chrono::milliseconds timeout{250};            // of a whole look-up or chunk
  std::chrono::milliseconds store_timeout{2000};     // of all storing at destruction
  std::uint64_t max_value = std::uint64_t{1} << 20;  // bytes
  std::uint64_t ttl = 0;                             // seconds; 0: no expiry
  bool read_only = false;
  std::string ca_file;  // TLS if it is set
  std::string cert_file;
  std::string key_file;

  // Reads the variables QV_CACHE_REMOTE*; only the first one if that is unset or empty, and none
  // in a set-user-id program. Nothing, after an ERROR record that names the variable, when one of
  // them is wrong in a way that no default mends (an address that can't be read, a
  // certificate without its key). Numbers that are malformed or out of range get the default and a
  // WARN record. May throw std::bad_alloc.
  static std::optional<Settings> from_environment();
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_SETTINGS_H_
