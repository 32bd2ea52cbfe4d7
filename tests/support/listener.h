// A Unix socket whose connections a test serves itself.
#ifndef TESTS_SUPPORT_LISTENER_H_
#define TESTS_SUPPORT_LISTENER_H_

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

namespace test {

class Listener {
 public:
  explicit Listener(const std::string& path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un at{};
    at.sun_family = AF_UNIX;
    path.copy(at.sun_path, sizeof(at.sun_path) - 1);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&at), sizeof(at)) != 0 || listen(fd_, 100) != 0) {
      throw std::runtime_error("can't listen at " + path);
    }
  }
  ~Listener() { close(fd_); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // Waits for a connection. The caller closes the descriptor.
  int take() const { return accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC); }

 private:
  const int fd_;
};

// Receives until `size` bytes have come or the other side has closed.
inline std::string receive_from(int fd, std::size_t size) {
  std::string bytes(size, '\0');
  const ssize_t received = recv(fd, bytes.data(), size, MSG_WAITALL);
  bytes.resize(received > 0 ? static_cast<std::size_t>(received) : 0);
  return bytes;
}

inline bool send_to(int fd, const std::string& bytes) {
  return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

}  // namespace test

#endif  // TESTS_SUPPORT_LISTENER_H_
