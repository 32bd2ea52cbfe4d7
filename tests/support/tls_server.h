// A TLS server, and certificates for it, made with the openssl program.
#ifndef TESTS_SUPPORT_TLS_SERVER_H_
#define TESTS_SUPPORT_TLS_SERVER_H_

#include <openssl/ssl.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

namespace test {

// An authority's certificate DIRECTORY/NAME.crt, with its key NAME.key.
void make_authority(const std::string& directory, const std::string& name);

// A certificate that the authority signed, valid for `days` days (may be negative: it has
// expired) for a server at the IP address, or of a client if that is empty.
void make_certificate(const std::string& directory, const std::string& name,
                      const std::string& authority, const std::string& address, int days = 100);

// Gives one answer whenever what it has received ends with a line, one connection after the other.
class TlsServer {
 public:
  // The files are DIRECTORY/NAME.crt and .key. With `client_authority`, clients need a certificate
  // of that one.
  TlsServer(const std::string& directory, const std::string& name,
            const std::string& client_authority = "", std::string answer = "+OK\r\n");
  ~TlsServer();
  TlsServer(const TlsServer&) = delete;
  TlsServer& operator=(const TlsServer&) = delete;

  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

 private:
  void serve();
  void serve(int fd);

  struct Free {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  };
  std::unique_ptr<SSL_CTX, Free> context_;
  const std::string answer_;
  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::atomic<bool> ends_{false};
  std::thread thread_;
};

}  // namespace test

#endif  // TESTS_SUPPORT_TLS_SERVER_H_
