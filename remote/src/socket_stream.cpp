#include "src/socket_stream.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "src/process_generation.h"

namespace quorvane {
namespace remote {
namespace {

bool would_block(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

const sockaddr* generic(const sockaddr_storage& socket) {
  return reinterpret_cast<const sockaddr*>(&socket);
}

}  // namespace

std::unique_ptr<SocketStream> SocketStream::open(const Address& address) {
  std::unique_ptr<SocketStream> stream(new SocketStream(address));
  if (!stream->make_socket() || stream->begin_to_connect() == Io::failed) {
    const int error = errno;
    stream.reset();
    errno = error;
    return nullptr;
  }
  return stream;
}

SocketStream::SocketStream(const Address& address)
    : address_(address), generation_(process_generation()) {}

// The parent also shuts the connection down: a child of fork that has a copy would keep it open
// at the server.
SocketStream::~SocketStream() {
  if (!descriptor::is_open_on(fd_, id_)) {
    return;
  }
  if (generation_ == process_generation()) {
    shutdown(fd_, SHUT_RDWR);
  }
  close(fd_);
}

bool SocketStream::make_socket() {
  const int family = address_.socket.ss_family;
  fd_ = descriptor::move_off_standard(socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0),
                                      O_CLOEXEC);
  struct stat status;
  if (fd_ < 0 || fstat(fd_, &status) != 0) {
    return false;
  }
  id_ = descriptor::id_of(status);
  if (!address_.is_unix()) {
    const int on = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  }
  return true;
}

// connect(2) called again tells how the connecting goes.
Stream::Io SocketStream::begin_to_connect() {
  if (::connect(fd_, generic(address_.socket), address_.size) == 0 || errno == EISCONN) {
    if (is_connected_to_itself()) {
      return failed_with(ECONNREFUSED);
    }
    is_connected_ = true;
    return Io::done;
  }
  const bool goes_on = errno == EINPROGRESS || errno == EALREADY || errno == EINTR;
  return goes_on ? Io::wants_write : failed_with(errno);
}

Stream::Io SocketStream::connect() { return is_connected_ ? Io::done : begin_to_connect(); }

// The kernel may choose the server's port for this end when nobody listens there; the connection
// then works, answers every command with that command, and keeps the server from starting.
bool SocketStream::is_connected_to_itself() const {
  sockaddr_storage own{};
  socklen_t size = sizeof(own);
  return !address_.is_unix() && getsockname(fd_, reinterpret_cast<sockaddr*>(&own), &size) == 0 &&
         size == address_.size && std::memcmp(&own, &address_.socket, size) == 0;
}

Stream::Io SocketStream::send(const char* data, std::size_t size, std::size_t& sent) {
  ssize_t done;
  do {
    done = ::send(fd_, data, size, MSG_NOSIGNAL);
  } while (done < 0 && errno == EINTR);
  if (done < 0) {
    sent = 0;
    return would_block(errno) ? Io::wants_write : failed_with(errno);
  }
  sent = static_cast<std::size_t>(done);
  return Io::done;
}

Stream::Io SocketStream::receive(char* data, std::size_t size, std::size_t& received) {
  ssize_t done;
  do {
    done = recv(fd_, data, size, 0);
  } while (done < 0 && errno == EINTR);
  if (done < 0) {
    received = 0;
    return would_block(errno) ? Io::wants_read : failed_with(errno);
  }
  received = static_cast<std::size_t>(done);
  return Io::done;
}

bool SocketStream::is_own() const {
  return generation_ == process_generation() && descriptor::is_open_on(fd_, id_);
}

bool SocketStream::is_quiet() {
  char byte;
  return is_own() && recv(fd_, &byte, 1, MSG_PEEK) < 0 && would_block(errno);
}

std::string SocketStream::error() const { return std::strerror(error_); }

Stream::Io SocketStream::failed_with(int error) {
  error_ = error;
  errno = error;
  return Io::failed;
}

}  // namespace remote
}  // namespace quorvane
