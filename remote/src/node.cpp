#include "src/node.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "src/fork_guard.h"
#include "src/process_generation.h"
#include "src/records.h"
#include "src/stream.h"

namespace quorvane {
namespace remote {
namespace {

constexpr std::size_t kMostIdle = 2;

std::string text_of_errno() { return std::generic_category().message(errno); }

descriptor::FileId file_of(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 ? descriptor::id_of(status) : descriptor::FileId{};
}

}  // namespace

Node::Node(const Address& address, const TlsContext* tls, std::mutex& mutex)
    : address_(address), tls_(tls), mutex_(mutex) {}

// --- the breaker ---

bool Node::may_try(std::size_t lookups) {
  const fork_guard::Lock lock(mutex_);
  if (breaker_.may_try(Breaker::Clock::now())) {
    return true;
  }
  skipped_ += lookups;
  return false;
}

void Node::succeeded() {
  std::uint64_t skipped = 0;
  {
    const fork_guard::Lock lock(mutex_);
    failures_ = 0;
    is_refusal_reported_ = false;
    if (breaker_.succeeded() != Breaker::Change::closed) {
      return;
    }
    skipped = std::exchange(skipped_, 0);
  }
  QV_LOG(g_module, INFO, "Cache server %s answers again, %lu look-ups were skipped",
         address_.text.c_str(), skipped);
}

void Node::failed(const std::string& why) {
  {
    const fork_guard::Lock lock(mutex_);
    ++failures_;
    if (breaker_.failed(Breaker::Clock::now()) != Breaker::Change::opened) {
      return;
    }
  }
  QV_LOG(g_module, WARN, "Cache server %s isn't asked for a while: %s", address_.text.c_str(),
         why.c_str());
}

void Node::refused(const std::string& why) {
  {
    const fork_guard::Lock lock(mutex_);
    ++failures_;
    breaker_.refused(Breaker::Clock::now());
    if (std::exchange(is_refusal_reported_, true)) {
      return;
    }
  }
  QV_LOG(g_module, ERROR, "Cache server %s isn't asked for a while: %s", address_.text.c_str(),
         why.c_str());
}

void Node::forget_try() {
  const fork_guard::Lock lock(mutex_);
  breaker_.forget_try();
}

unsigned Node::failures() const {
  const fork_guard::Lock lock(mutex_);
  return failures_;
}

// --- the connections ---

Node::Links::iterator Node::take() {
  for (;;) {
    Links::iterator link;
    {
      const fork_guard::Lock lock(mutex_);
      if (idle_.empty()) {
        return none();
      }
      link = idle_.begin();
      used_.splice(used_.begin(), idle_, link);
    }
    if (link->connection->is_reusable()) {
      return link;
    }
    discard(link);
  }
}

Node::Links::iterator Node::open(std::size_t reply_limit, std::string& error) {
  Links opened(1);
  const Links::iterator opened_link = opened.begin();
  Link& link = *opened_link;
  const auto connect = [&] {
    link.connection.reset();  // of the previous attempt, which a fork came between
    std::unique_ptr<Stream> stream = open_stream(address_, tls_);
    if (stream == nullptr) {
      return -1;
    }
    link.connection = std::make_unique<Connection>(std::move(stream), reply_limit);
    return link.connection->fd();
  };
  const auto keep = [&](int fd) {
    if (fd >= 0) {
      link.fd = fd;
      link.socket = file_of(fd);
      link.generation = process_generation();
      used_.splice(used_.begin(), opened);
    }
  };
  if (!fork_guard::open_unshared(mutex_, connect, keep)) {
    error = text_of_errno();
    return none();
  }
  return opened_link;
}

// take() looks whether it can still be used.
void Node::give_back(Links::iterator link) {
  if (link->connection->is_done() && !link->connection->is_skipping()) {
    const fork_guard::Lock lock(mutex_);
    if (idle_.size() < kMostIdle) {
      idle_.splice(idle_.begin(), used_, link);
      return;
    }
  }
  discard(link);
}

// Closes first: a child that is forked in between must find the descriptor closed or listed.
void Node::discard(Links::iterator link) {
  link->connection.reset();
  Links gone;
  const fork_guard::Lock lock(mutex_);
  gone.splice(gone.begin(), used_, link);
}

// The thread that used a connection may have been changing it during the fork, so its memory is
// left alone.
void Node::drop_inherited(Links& inherited) noexcept {
  for (Link& link : used_) {
    static_cast<void>(link.connection.release());
  }
  for (Links* links : {&used_, &idle_}) {
    for (const Link& link : *links) {
      if (descriptor::is_open_on(link.fd, link.socket)) {
        close(link.fd);
      }
    }
  }
  used_.clear();
  inherited.splice(inherited.end(), idle_);
  breaker_.forget_try();
}

}  // namespace remote
}  // namespace quorvane
