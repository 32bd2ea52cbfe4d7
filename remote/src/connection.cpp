#include "src/connection.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <new>
#include <utility>

namespace quorvane {
namespace remote {
namespace {

constexpr std::size_t kReceivedAtOnce = 16'384;
constexpr int kMostReceives = 16;  // before other connections get their turn
constexpr std::size_t kKeptCapacity = 65'536;

void append_header(std::string& to, char type, std::size_t number) {
  char digits[24];
  char* const end = std::to_chars(digits, digits + sizeof(digits), number).ptr;
  to += type;
  to.append(digits, end);
  to += "\r\n";
}

// What to wait for when `io` has to go on; `usually`, unless the stream wants something else first.
short events_of(Stream::Io io, short usually) {
  switch (io) {
    case Stream::Io::wants_read:
      return POLLIN;
    case Stream::Io::wants_write:
      return POLLOUT;
    default:
      return usually;
  }
}

}  // namespace

Connection::Connection(std::unique_ptr<Stream> stream, std::size_t reply_limit)
    : stream_(std::move(stream)), reader_(redisReaderCreate()), guard_(reply_limit) {
  if (reader_ == nullptr) {
    throw std::bad_alloc();
  }
}

void Connection::add(const std::vector<std::string_view>& words) {
  try {
    if (replies_.size() + missing_ == replies_.capacity()) {
      replies_.reserve(2 * replies_.capacity() + 1);  // so that receive() needs no memory
    }
    append_header(commands_, '*', words.size());
    for (const std::string_view word : words) {
      append_header(commands_, '$', word.size());
      commands_ += word;
      commands_ += "\r\n";
    }
  } catch (const std::bad_alloc&) {
    fail("no memory");
    throw;
  }
  ++missing_;
}

short Connection::events() const {
  if (has_failed_ || missing_ == 0) {
    return 0;
  }
  if (connects_ != Stream::Io::done) {
    return events_of(connects_, POLLOUT);
  }
  // A server may stop reading while nobody takes its replies.
  const int sending = has_unsent() ? events_of(sends_, POLLOUT) : 0;
  return static_cast<short>(sending | events_of(receives_, POLLIN));
}

void Connection::advance() noexcept {
  if (has_failed_ || missing_ == 0 || !connect()) {
    return;
  }
  const bool had_unsent = has_unsent();
  if (had_unsent) {
    send();
  }
  // No reply can be there when the last command has only just been sent. One can be there when
  // sending fails: a server that refuses a connection says why, and closes.
  if (!had_unsent || has_unsent() || stream_->has_pending()) {
    receive();
  }
  if (sends_ == Stream::Io::failed && !has_failed_ && missing_ > 0) {
    fail_with_stream();
  }
}

bool Connection::connect() {
  if (connects_ != Stream::Io::done) {
    connects_ = stream_->connect();
    if (connects_ == Stream::Io::failed) {
      fail_with_stream();
    }
  }
  return connects_ == Stream::Io::done;
}

void Connection::send() {
  while (has_unsent()) {
    std::size_t sent = 0;
    sends_ = stream_->send(commands_.data() + sent_, commands_.size() - sent_, sent);
    if (sends_ != Stream::Io::done || sent == 0) {
      return;
    }
    sent_ += sent;
  }
}

void Connection::receive() {
  char bytes[kReceivedAtOnce];
  std::size_t received = sizeof(bytes);
  has_more_ = false;
  // poll(2) reports what is left after a partly filled buffer, but not what a TLS stream holds.
  for (int left = kMostReceives;
       !has_failed_ && missing_ > 0 && (received == sizeof(bytes) || stream_->has_pending());
       --left) {
    if (left == 0) {
      has_more_ = true;
      return;
    }
    receives_ = stream_->receive(bytes, sizeof(bytes), received);
    if (receives_ == Stream::Io::failed) {
      fail_with_stream();
    } else if (receives_ != Stream::Io::done) {
      return;
    } else if (received == 0) {
      fail("the server closed the connection");
    } else {
      take({bytes, received});
    }
  }
}

void Connection::take(std::string_view bytes) {
  while (!bytes.empty() && !has_failed_) {
    const bool was_skipping = guard_.is_skipping();
    const std::size_t ended = guard_.ended();
    const std::string_view followed = bytes.substr(0, guard_.follow(bytes));
    bytes.remove_prefix(followed.size());
    const std::size_t new_replies = guard_.ended() - ended;
    if (guard_.why() != nullptr) {
      fail(guard_.why());
    } else if (new_replies > missing_ || (new_replies == missing_ && guard_.is_within_reply())) {
      fail("more replies than commands");
    } else if (guard_.is_skipping() && !was_skipping) {
      read(followed, new_replies - 1);
      reader_.reset(redisReaderCreate());  // the old one waits for the string
      read("$-1\r\n", 1);
    } else if (!was_skipping) {
      read(followed, new_replies);
    }
  }
}

// `bytes` end so many replies.
void Connection::read(std::string_view bytes, std::size_t new_replies) {
  if (has_failed_) {
    return;
  }
  if (reader_ == nullptr ||
      redisReaderFeed(reader_.get(), bytes.data(), bytes.size()) != REDIS_OK) {
    fail("no memory");
    return;
  }
  for (std::size_t i = 0; i < new_replies; ++i) {
    void* reply = nullptr;
    if (redisReaderGetReply(reader_.get(), &reply) != REDIS_OK || reply == nullptr) {
      fail(reader_->err == REDIS_ERR_OOM ? "no memory" : "a malformed reply");
      return;
    }
    replies_.emplace_back(static_cast<redisReply*>(reply));
    --missing_;
  }
}

std::vector<Reply> Connection::take_replies() {
  if (has_unsent() && !has_failed_) {
    fail("a reply came before its command");  // the server would take the next one for its rest
  }
  std::vector<Reply> taken;
  taken.swap(replies_);
  commands_.clear();
  sent_ = 0;
  if (commands_.capacity() > kKeptCapacity) {
    commands_.shrink_to_fit();
  }
  return taken;
}

void Connection::fail(const char* why) noexcept {
  has_failed_ = true;
  try {
    error_ = why;
  } catch (const std::bad_alloc&) {
    error_.clear();
  }
}

void Connection::fail_late() noexcept {
  is_late_ = true;
  fail("no reply within the time limit");
}

void Connection::fail_with_stream() noexcept {
  has_failed_ = true;
  try {
    error_ = stream_->error();
  } catch (const std::bad_alloc&) {
    error_.clear();
  }
}

bool Connection::is_reusable() {
  return !has_failed_ && missing_ == 0 && !is_skipping() && connects_ == Stream::Io::done &&
         stream_->is_quiet();
}

namespace {

// Waits once, for what the connections want, and advances those that can be.
void wait_for_some(const std::vector<Connection*>& waiting, std::vector<pollfd>& polled,
                   const Deadline& deadline) {
  polled.clear();
  for (const Connection* const connection : waiting) {
    polled.push_back({connection->fd(), connection->events(), 0});
  }
  const int left = deadline.milliseconds_left();
  const bool has_more = std::any_of(waiting.begin(), waiting.end(),
                                    [](const Connection* one) { return one->has_more(); });
  const int ready = poll(polled.data(), polled.size(), has_more ? 0 : left);
  const char* const error = ready < 0 && errno != EINTR ? std::strerror(errno) : nullptr;
  for (std::size_t i = 0; i < waiting.size(); ++i) {
    if (waiting[i]->has_more() || (ready > 0 && polled[i].revents != 0)) {
      waiting[i]->advance();
    }
    if (error != nullptr) {
      waiting[i]->fail(error);
    } else if (left == 0 && waiting[i]->events() != 0) {
      waiting[i]->fail_late();  // even though some bytes may have come
    }
  }
}

}  // namespace

void run(const std::vector<Connection*>& connections, const Deadline& deadline) {
  std::vector<Connection*> waiting = connections;
  std::vector<pollfd> polled;
  polled.reserve(waiting.size());
  for (Connection* const connection : waiting) {
    connection->advance();
  }
  const auto has_ended = [](const Connection* connection) { return connection->events() == 0; };
  for (;;) {
    waiting.erase(std::remove_if(waiting.begin(), waiting.end(), has_ended), waiting.end());
    if (waiting.empty()) {
      return;
    }
    wait_for_some(waiting, polled, deadline);
  }
}

}  // namespace remote
}  // namespace quorvane
