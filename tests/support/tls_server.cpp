#include "support/tls_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>
#include <vector>

#include "support/scenario.h"
#include "support/temp_dir.h"

namespace test {
namespace {

void openssl(const std::vector<std::string>& arguments) {
  const Ran ran = run_program("/usr/bin/openssl", arguments, {{"PATH", "/usr/bin:/bin"}});
  if (!ran.exited_with(0)) {
    throw std::runtime_error("openssl: " + ran.err);
  }
}

}  // namespace

void make_authority(const std::string& directory, const std::string& name) {
  const std::string file = directory + "/" + name;
  openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
           "-subj", "/CN=" + name, "-days", "100", "-keyout", file + ".key", "-out",
           file + ".crt"});
}

void make_certificate(const std::string& directory, const std::string& name,
                      const std::string& authority, const std::string& address, int days) {
  const std::string file = directory + "/" + name;
  const std::string signer = directory + "/" + authority;
  openssl({"req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj",
           "/CN=" + name, "-keyout", file + ".key", "-out", file + ".csr"});
  write_file(file + ".ext", address.empty() ? "extendedKeyUsage=clientAuth\n"
                                            : "subjectAltName=IP:" + address + "\n");
  openssl({"x509", "-req", "-in", file + ".csr", "-CA", signer + ".crt", "-CAkey", signer + ".key",
           "-set_serial", "7", "-days", std::to_string(days), "-extfile", file + ".ext", "-out",
           file + ".crt"});
}

TlsServer::TlsServer(const std::string& directory, const std::string& name,
                     const std::string& client_authority, std::string answer)
    : context_(SSL_CTX_new(TLS_server_method())),
      answer_(std::move(answer)),
      listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const std::string file = directory + "/" + name;
  SSL_CTX_use_certificate_chain_file(context_.get(), (file + ".crt").c_str());
  SSL_CTX_use_PrivateKey_file(context_.get(), (file + ".key").c_str(), SSL_FILETYPE_PEM);
  if (!client_authority.empty()) {
    const std::string trusted = directory + "/" + client_authority + ".crt";
    SSL_CTX_load_verify_locations(context_.get(), trusted.c_str(), nullptr);
    SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  }
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(at);
  if (bind(listener_, reinterpret_cast<sockaddr*>(&at), size) != 0 || listen(listener_, 100) != 0 ||
      getsockname(listener_, reinterpret_cast<sockaddr*>(&at), &size) != 0) {
    throw std::runtime_error("can't listen");
  }
  port_ = ntohs(at.sin_port);
  thread_ = std::thread([this] { serve(); });
}

TlsServer::~TlsServer() {
  ends_ = true;
  shutdown(listener_, SHUT_RDWR);  // accept(2) then fails
  thread_.join();
  close(listener_);
}

void TlsServer::serve() {
  sigset_t pipe;  // of this thread's own sending
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  while (!ends_) {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
      const int on = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
      serve(fd);
      close(fd);
    }
  }
}

void TlsServer::serve(int fd) {
  SSL* const ssl = SSL_new(context_.get());
  SSL_set_fd(ssl, fd);
  if (SSL_accept(ssl) == 1) {
    char bytes[16 * 1024];
    const int answer_size = static_cast<int>(answer_.size());
    int size;
    while ((size = SSL_read(ssl, bytes, sizeof(bytes))) > 0) {
      if (bytes[size - 1] == '\n' && SSL_write(ssl, answer_.data(), answer_size) <= 0) {
        break;
      }
    }
  }
  SSL_free(ssl);
}

}  // namespace test
