#include "src/address.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <charconv>
#include <cstddef>
#include <cstring>

namespace quorvane {
namespace remote {
namespace {

std::optional<std::uint16_t> port_of(std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc() || end != text.data() + text.size() || port == 0) {
    return std::nullopt;
  }
  return port;
}

std::optional<Address> ipv4(const std::string& host, std::uint16_t port) {
  sockaddr_in socket{};
  if (inet_pton(AF_INET, host.c_str(), &socket.sin_addr) != 1) {
    return std::nullopt;
  }
  socket.sin_family = AF_INET;
  socket.sin_port = htons(port);
  Address address;
  address.host = host;
  address.text = host + ":" + std::to_string(port);
  std::memcpy(&address.socket, &socket, sizeof(socket));
  address.size = sizeof(socket);
  return address;
}

// An IPv6 address has several spellings; `text` holds the one of inet_ntop.
std::optional<Address> ipv6(const std::string& host, std::uint16_t port) {
  sockaddr_in6 socket{};
  if (inet_pton(AF_INET6, host.c_str(), &socket.sin6_addr) != 1) {
    return std::nullopt;
  }
  socket.sin6_family = AF_INET6;
  socket.sin6_port = htons(port);
  char spelling[INET6_ADDRSTRLEN];
  Address address;
  address.host = inet_ntop(AF_INET6, &socket.sin6_addr, spelling, sizeof(spelling));
  address.text = "[" + address.host + "]:" + std::to_string(port);
  std::memcpy(&address.socket, &socket, sizeof(socket));
  address.size = sizeof(socket);
  return address;
}

std::optional<Address> unix_socket(std::string_view path) {
  sockaddr_un socket{};
  if (path.size() >= sizeof(socket.sun_path) || path.find('\0') != path.npos) {
    return std::nullopt;
  }
  socket.sun_family = AF_UNIX;
  path.copy(socket.sun_path, path.size());
  Address address;
  address.text = path;
  std::memcpy(&address.socket, &socket, sizeof(socket));
  address.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
  return address;
}

// inet_pton stops at a NUL, so a host that has one isn't numeric.
bool has_nul(std::string_view text) { return text.find('\0') != text.npos; }

}  // namespace

std::optional<Address> Address::parse(std::string_view text) {
  if (!text.empty() && text.front() == '/') {
    return unix_socket(text);
  }
  const std::size_t colon = text.rfind(':');
  if (colon == text.npos || has_nul(text)) {
    return std::nullopt;
  }
  const std::string_view host = text.substr(0, colon);
  const std::optional<std::uint16_t> port = port_of(text.substr(colon + 1));
  if (!port) {
    return std::nullopt;
  }
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    return ipv6(std::string(host.substr(1, host.size() - 2)), *port);
  }
  return ipv4(std::string(host), *port);
}

std::optional<Address> Address::of(std::string_view host, std::uint16_t port,
                                   const Address& asked) {
  if (port == 0 || has_nul(host)) {
    return std::nullopt;
  }
  const std::string numeric = host.empty() ? asked.host : std::string(host);
  const std::optional<Address> address = ipv4(numeric, port);
  return address ? address : ipv6(numeric, port);
}

}  // namespace remote
}  // namespace quorvane
