#include "src/tls_context.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <sys/stat.h>

#include <cerrno>
#include <mutex>
#include <system_error>

#include "src/guarded_mutex.h"
#include "src/socket_bio.h"

namespace quorvane {
namespace remote {
namespace {

// A key with a passphrase can't be used: OpenSSL would ask for it at the terminal.
int no_passphrase(char*, int, int, void*) { return 0; }

std::string reason() {
  const char* const text = ERR_reason_error_string(ERR_peek_last_error());
  ERR_clear_error();
  return text != nullptr ? text : "it can't be used";
}

// To open a FIFO would wait for a writer, with a mutex held that forks wait for.
bool is_file(const std::string& path, std::string& error) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    error = path + ": " + std::generic_category().message(errno);
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    error = path + ": not a regular file";
    return false;
  }
  return true;
}

}  // namespace

std::unique_ptr<TlsContext> TlsContext::make(const std::string& ca_file,
                                             const std::string& cert_file,
                                             const std::string& key_file, std::string& error) {
  for (const std::string* path : {&ca_file, &cert_file, &key_file}) {
    if (!path->empty() && !is_file(*path, error)) {
      return nullptr;
    }
  }
  GuardedMutex mutex;  // OpenSSL has locks of its own, which a child mustn't inherit locked
  const fork_guard::Lock lock(mutex.get());
  // A store that outlives main() flushes when OpenSSL would already have been cleaned up.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  ERR_clear_error();
  std::unique_ptr<TlsContext> made(new TlsContext());
  if (made->get() == nullptr || made->method() == nullptr) {
    error = "TLS: " + reason();
    return nullptr;
  }
  return made->use(ca_file, cert_file, key_file, error) ? std::move(made) : nullptr;
}

TlsContext::TlsContext()
    : context_(SSL_CTX_new(TLS_client_method())), method_(make_socket_bio_method()) {
  if (context_ == nullptr) {
    return;
  }
  SSL_CTX* const context = context_.get();
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_default_passwd_cb(context, &no_passphrase);
  // Replies tell their size themselves, so a close without a farewell can't cut one unnoticed.
  SSL_CTX_set_options(context, SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_CTX_set_read_ahead(context, 1);  // one recv a record, not two
}

bool TlsContext::use(const std::string& ca_file, const std::string& cert_file,
                     const std::string& key_file, std::string& error) {
  SSL_CTX* const context = context_.get();
  if (SSL_CTX_load_verify_locations(context, ca_file.c_str(), nullptr) != 1) {
    error = ca_file + ": " + reason();
    return false;
  }
  if (!cert_file.empty() && SSL_CTX_use_certificate_chain_file(context, cert_file.c_str()) != 1) {
    error = cert_file + ": " + reason();
    return false;
  }
  if (!key_file.empty() &&
      SSL_CTX_use_PrivateKey_file(context, key_file.c_str(), SSL_FILETYPE_PEM) != 1) {
    error = key_file + ": " + reason();
    return false;
  }
  return true;
}

}  // namespace remote
}  // namespace quorvane
