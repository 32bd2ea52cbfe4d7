// One server, as a store sees it.
#ifndef QUORVANE_REMOTE_SRC_NODE_H_
#define QUORVANE_REMOTE_SRC_NODE_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "src/address.h"
#include "src/breaker.h"
#include "src/connection.h"
#include "src/descriptor.h"

namespace quorvane {
namespace remote {

class TlsContext;

// A connection, and what a child of fork needs to close its copy of the descriptor.
struct Link {
  std::unique_ptr<Connection> connection;
  int fd = -1;
  descriptor::FileId socket;
  std::uint64_t generation = 0;  // of the process that opened it
};

// A server's breaker and connections. Any thread; a child of fork calls drop_inherited first.
class Node {
 public:
  using Links = std::list<Link>;

  // All nodes of a store share `mutex`, which is guarded; it and `tls` outlive them.
  Node(const Address& address, const TlsContext* tls, std::mutex& mutex);
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  const Address& address() const { return address_; }

  // Whether to ask the server. If so, the caller then calls one of the next four functions; if
  // not, that many look-ups count as skipped.
  bool may_try(std::size_t lookups);
  void succeeded();
  void failed(const std::string& why);
  void refused(const std::string& why);  // no credentials, or the server doesn't accept them
  void forget_try();                     // nothing was asked

  // Failures since the last success.
  unsigned failures() const;

  // An idle connection that can be used, or `none()`.
  Links::iterator take();
  // Begins to connect. `none()` and why if that fails at once. May throw std::bad_alloc.
  Links::iterator open(std::size_t reply_limit, std::string& error);
  Links::iterator none() { return used_.end(); }

  // Keeps a connection that can be used again, unless enough are idle, and closes any other.
  void give_back(Links::iterator link);

  // In a child: closes what the parent has opened. The caller holds the mutex.
  // Moves the idle ones to `inherited`: their own mutexes must not be touched under this one.
  void drop_inherited(Links& inherited) noexcept;
  // Whether a connection is in use. The caller holds the mutex.
  bool is_in_use() const { return !used_.empty(); }

 private:
  void discard(Links::iterator link);

  const Address address_;
  const TlsContext* const tls_;
  std::mutex& mutex_;
  Breaker breaker_;
  unsigned failures_ = 0;
  std::uint64_t skipped_ = 0;  // look-ups, since the breaker opened
  bool is_refusal_reported_ = false;
  Links idle_;
  Links used_;
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_NODE_H_
