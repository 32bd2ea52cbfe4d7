#include "src/socket_bio.h"

#include <cstddef>

#include "src/socket_stream.h"

namespace quorvane {
namespace remote {
namespace {

SocketStream& socket_of(BIO* bio) { return *static_cast<SocketStream*>(BIO_get_data(bio)); }

// What OpenSSL expects of a BIO's function.
int result_of_bio(BIO* bio, Stream::Io io) {
  BIO_clear_retry_flags(bio);
  if (io == Stream::Io::wants_read) {
    BIO_set_retry_read(bio);
  } else if (io == Stream::Io::wants_write) {
    BIO_set_retry_write(bio);
  }
  return io == Stream::Io::done ? 1 : 0;
}

int write_bio(BIO* bio, const char* data, std::size_t size, std::size_t* sent) {
  return result_of_bio(bio, socket_of(bio).send(data, size, *sent));
}

int read_bio(BIO* bio, char* data, std::size_t size, std::size_t* received) {
  const Stream::Io io = socket_of(bio).receive(data, size, *received);
  const int result = result_of_bio(bio, io);
  if (io == Stream::Io::done && *received == 0) {
    BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
    return 0;
  }
  return result;
}

long control_bio(BIO* bio, int command, long, void*) {
  switch (command) {
    case BIO_CTRL_FLUSH:
      return 1;
    case BIO_CTRL_EOF:
      return BIO_test_flags(bio, BIO_FLAGS_IN_EOF) != 0 ? 1 : 0;
    default:
      return 0;
  }
}

}  // namespace

BIO_METHOD* make_socket_bio_method() {
  BIO_METHOD* const method = BIO_meth_new(BIO_TYPE_SOURCE_SINK, "socket without SIGPIPE");
  if (method != nullptr) {
    BIO_meth_set_write_ex(method, &write_bio);
    BIO_meth_set_read_ex(method, &read_bio);
    BIO_meth_set_ctrl(method, &control_bio);
  }
  return method;
}

}  // namespace remote
}  // namespace quorvane
