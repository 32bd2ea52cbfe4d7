// An encrypted connection.
#ifndef QUORVANE_REMOTE_SRC_TLS_STREAM_H_
#define QUORVANE_REMOTE_SRC_TLS_STREAM_H_

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <utility>

#include "src/guarded_mutex.h"
#include "src/socket_stream.h"
#include "src/stream.h"
#include "src/tls_context.h"

namespace quorvane {
namespace remote {

// TLS over a socket. It says no farewell when it ends: that would wait, and a child of fork would
// speak for its parent.
class TlsStream final : public Stream {
 public:
  // Null with errno. May throw std::bad_alloc.
  static std::unique_ptr<Stream> make(std::unique_ptr<SocketStream> socket, const Address& address,
                                      const TlsContext& context);

  ~TlsStream() override;

  int fd() const override { return socket_->fd(); }
  Io connect() override;
  Io send(const char* data, std::size_t size, std::size_t& sent) override;
  Io receive(char* data, std::size_t size, std::size_t& received) override;
  bool has_pending() const override { return SSL_has_pending(ssl_) == 1; }
  bool is_quiet() override;
  std::string error() const override;

 private:
  explicit TlsStream(std::unique_ptr<SocketStream> socket) : socket_(std::move(socket)) {}
  bool prepare(const Address& address, const TlsContext& context);
  Io result_of(int result);
  void keep_reason();

  // OpenSSL takes locks of its own, which a child mustn't inherit locked. So a fork waits while a
  // stream is inside OpenSSL.
  GuardedMutex mutex_;
  std::unique_ptr<SocketStream> socket_;
  SSL* ssl_ = nullptr;
  bool is_connected_ = false;  // the socket, not yet TLS
  const char* why_ = nullptr;  // null: the socket knows
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_TLS_STREAM_H_
