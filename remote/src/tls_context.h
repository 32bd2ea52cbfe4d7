// What TLS connections of a store share.
#ifndef QUORVANE_REMOTE_SRC_TLS_CONTEXT_H_
#define QUORVANE_REMOTE_SRC_TLS_CONTEXT_H_

#include <openssl/bio.h>
#include <openssl/ssl.h>

#include <memory>
#include <string>

namespace quorvane {
namespace remote {

// The trusted authorities and the client's certificate. Any thread. It must outlive its streams.
class TlsContext {
 public:
  // Null when a file can't be read or used; `error` then names it and says why. `cert_file` and
  // `key_file` may be empty. May throw std::bad_alloc.
  static std::unique_ptr<TlsContext> make(const std::string& ca_file, const std::string& cert_file,
                                          const std::string& key_file, std::string& error);

  SSL_CTX* get() const { return context_.get(); }

  // Of the streams' BIOs.
  const BIO_METHOD* method() const { return method_.get(); }

 private:
  struct Free {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(BIO_METHOD* method) const { BIO_meth_free(method); }
  };

  TlsContext();
  bool use(const std::string& ca_file, const std::string& cert_file, const std::string& key_file,
           std::string& error);

  std::unique_ptr<SSL_CTX, Free> context_;
  std::unique_ptr<BIO_METHOD, Free> method_;
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_TLS_CONTEXT_H_
