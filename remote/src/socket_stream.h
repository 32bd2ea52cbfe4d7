// A plain connection.
#ifndef QUORVANE_REMOTE_SRC_SOCKET_STREAM_H_
#define QUORVANE_REMOTE_SRC_SOCKET_STREAM_H_

#include <cstdint>
#include <memory>
#include <string>

#include "src/descriptor.h"
#include "src/stream.h"

namespace quorvane {
namespace remote {

class SocketStream final : public Stream {
 public:
  // Begins to connect. Null with errno. May throw std::bad_alloc.
  static std::unique_ptr<SocketStream> open(const Address& address);

  ~SocketStream() override;

  int fd() const override { return fd_; }
  Io connect() override;
  Io send(const char* data, std::size_t size, std::size_t& sent) override;
  Io receive(char* data, std::size_t size, std::size_t& received) override;
  bool has_pending() const override { return false; }
  bool is_quiet() override;
  std::string error() const override;

  // Whether the descriptor is still that of this socket, and this process made it.
  bool is_own() const;

 private:
  explicit SocketStream(const Address& address);
  bool make_socket();
  Io begin_to_connect();
  bool is_connected_to_itself() const;
  Io failed_with(int error);

  const Address address_;
  const std::uint64_t generation_;
  int fd_ = -1;
  descriptor::FileId id_;
  int error_ = 0;
  bool is_connected_ = false;
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_SOCKET_STREAM_H_
