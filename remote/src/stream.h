// A connection's bytes, plain or encrypted.
#ifndef QUORVANE_REMOTE_SRC_STREAM_H_
#define QUORVANE_REMOTE_SRC_STREAM_H_

#include <cstddef>
#include <memory>
#include <string>

#include "src/address.h"

namespace quorvane {
namespace remote {

class TlsContext;

// A connected, non-blocking stream socket. No operation waits, raises SIGPIPE, or touches the
// process's signal dispositions. One thread at a time.
// Fork-safety: a child may only destroy its copy, which says nothing to the server.
class Stream {
 public:
  enum class Io { done, wants_read, wants_write, failed };

  Stream() = default;
  virtual ~Stream() = default;  // closes the descriptor, if it is still that of this socket
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  virtual int fd() const = 0;

  // Ends the connecting, and the TLS handshake if there is one. Called again when poll(2)
  // reports what it wanted.
  virtual Io connect() = 0;

  // Sends or receives some bytes. `done` with 0 bytes received: the server has closed.
  virtual Io send(const char* data, std::size_t size, std::size_t& sent) = 0;
  virtual Io receive(char* data, std::size_t size, std::size_t& received) = 0;

  // Whether bytes have arrived that poll(2) doesn't report, since they wait for receive() here.
  virtual bool has_pending() const = 0;

  // Whether the server has neither closed nor sent anything unasked, so that an idle stream
  // can be used again. False in a child of fork, and when the program has closed the descriptor.
  virtual bool is_quiet() = 0;

  // Why the last operation failed. Never holds what was sent or received.
  virtual std::string error() const = 0;
};

// Begins to connect. With `tls`, which may be null, encrypts, and verifies the server's
// certificate and its address. Null with errno. May throw std::bad_alloc.
std::unique_ptr<Stream> open_stream(const Address& address, const TlsContext* tls);

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_STREAM_H_
