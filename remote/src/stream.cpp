#include "src/stream.h"

#include <utility>

#include "src/socket_stream.h"
#include "src/tls_stream.h"

namespace quorvane {
namespace remote {

std::unique_ptr<Stream> open_stream(const Address& address, const TlsContext* tls) {
  std::unique_ptr<SocketStream> socket = SocketStream::open(address);
  if (socket == nullptr || tls == nullptr) {
    return socket;
  }
  return TlsStream::make(std::move(socket), address, *tls);
}

}  // namespace remote
}  // namespace quorvane
