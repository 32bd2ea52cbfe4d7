#include "src/tls_stream.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509_vfy.h>

#include <cerrno>
#include <utility>

namespace quorvane {
namespace remote {

std::unique_ptr<Stream> TlsStream::make(std::unique_ptr<SocketStream> socket,
                                        const Address& address, const TlsContext& context) {
  std::unique_ptr<TlsStream> stream(new TlsStream(std::move(socket)));
  if (!stream->prepare(address, context)) {
    stream.reset();
    errno = ENOMEM;
    return nullptr;
  }
  return stream;
}

bool TlsStream::prepare(const Address& address, const TlsContext& context) {
  const fork_guard::Lock lock(mutex_.get());
  ssl_ = SSL_new(context.get());
  BIO* const bio = ssl_ != nullptr ? BIO_new(context.method()) : nullptr;
  if (bio == nullptr) {
    ERR_clear_error();
    return false;
  }
  BIO_set_data(bio, socket_.get());
  BIO_set_init(bio, 1);
  SSL_set_bio(ssl_, bio, bio);
  SSL_set_connect_state(ssl_);
  return address.host.empty() ||
         X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl_), address.host.c_str()) == 1;
}

TlsStream::~TlsStream() {
  const fork_guard::Lock lock(mutex_.get());
  SSL_free(ssl_);
}

Stream::Io TlsStream::connect() {
  if (!is_connected_) {
    const Io io = socket_->connect();
    if (io != Io::done) {
      return io;
    }
    is_connected_ = true;
  }
  const fork_guard::Lock lock(mutex_.get());
  ERR_clear_error();
  return result_of(SSL_do_handshake(ssl_));
}

Stream::Io TlsStream::send(const char* data, std::size_t size, std::size_t& sent) {
  const fork_guard::Lock lock(mutex_.get());
  ERR_clear_error();
  sent = 0;
  return result_of(SSL_write_ex(ssl_, data, size, &sent));
}

Stream::Io TlsStream::receive(char* data, std::size_t size, std::size_t& received) {
  const fork_guard::Lock lock(mutex_.get());
  ERR_clear_error();
  received = 0;
  return result_of(SSL_read_ex(ssl_, data, size, &received));
}

// A server may send session tickets at any time; SSL_peek_ex takes them.
bool TlsStream::is_quiet() {
  if (!socket_->is_own()) {
    return false;
  }
  const fork_guard::Lock lock(mutex_.get());
  ERR_clear_error();
  char byte;
  std::size_t received = 0;
  return result_of(SSL_peek_ex(ssl_, &byte, 1, &received)) == Io::wants_read;
}

// SSL_get_error looks at the thread's oldest error, so the caller has cleared them.
Stream::Io TlsStream::result_of(int result) {
  switch (SSL_get_error(ssl_, result)) {
    case SSL_ERROR_NONE:
    case SSL_ERROR_ZERO_RETURN:  // the server has closed
      return Io::done;
    case SSL_ERROR_WANT_READ:
      return Io::wants_read;
    case SSL_ERROR_WANT_WRITE:
      return Io::wants_write;
    default:
      keep_reason();
      return Io::failed;
  }
}

void TlsStream::keep_reason() {
  const long verified = SSL_get_verify_result(ssl_);
  if (verified != X509_V_OK) {
    why_ = X509_verify_cert_error_string(verified);
  } else {
    why_ = ERR_reason_error_string(ERR_peek_error());
  }
  ERR_clear_error();
}

std::string TlsStream::error() const {
  return why_ != nullptr ? std::string("TLS: ") + why_ : socket_->error();
}

}  // namespace remote
}  // namespace quorvane
