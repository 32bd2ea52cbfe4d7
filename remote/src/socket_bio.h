// How OpenSSL sends and receives.
#ifndef QUORVANE_REMOTE_SRC_SOCKET_BIO_H_
#define QUORVANE_REMOTE_SRC_SOCKET_BIO_H_

#include <openssl/bio.h>

namespace quorvane {
namespace remote {

// A method for a BIO whose data is a SocketStream. OpenSSL's own method for sockets would raise
// SIGPIPE. Null when there is no memory; the caller owns it.
BIO_METHOD* make_socket_bio_method();

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_SOCKET_BIO_H_
