// Where a server listens.
#ifndef QUORVANE_REMOTE_SRC_ADDRESS_H_
#define QUORVANE_REMOTE_SRC_ADDRESS_H_

#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane {
namespace remote {

// A numeric IP address with a port, or the path of a Unix socket. Names are never resolved:
// that may take as long as it likes.
struct Address {
  std::string text;  // as records show it: "127.0.0.1:6379", "[::1]:6379" or a path
  std::string host;  // the numeric address alone; empty for a Unix socket
  sockaddr_storage socket{};
  socklen_t size = 0;

  bool is_unix() const { return socket.ss_family == AF_UNIX; }
  bool operator==(const Address& other) const { return text == other.text; }

  // Reads "ADDRESS:PORT", "[ADDRESS]:PORT" or an absolute path.
  static std::optional<Address> parse(std::string_view text);
  // Of a reply that gives both apart. "" as a host means that of `asked`, who was asked; there
  // is none when that one was reached through a Unix socket.
  static std::optional<Address> of(std::string_view host, std::uint16_t port, const Address& asked);
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_ADDRESS_H_
