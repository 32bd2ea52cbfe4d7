// One connection to one server, and the commands under way on it.
#ifndef QUORVANE_REMOTE_SRC_CONNECTION_H_
#define QUORVANE_REMOTE_SRC_CONNECTION_H_

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "src/address.h"
#include "src/deadline.h"
#include "src/reply.h"
#include "src/reply_guard.h"
#include "src/stream.h"

namespace quorvane {
namespace remote {

// Sends commands in one piece (a pipeline) and collects their replies in order. Nothing here
// waits; run() does. One thread at a time.
// Once it has failed, was given up with replies missing, or got more replies than commands, it
// can't be used again.
class Connection {
 public:
  // `reply_limit`: the most bytes that the strings of a reply may have together; an element of an
  // array counts 56 more. No memory is allocated for a larger reply. If it is a string, nil takes
  // its place; any other fails the connection. May throw std::bad_alloc.
  Connection(std::unique_ptr<Stream> stream, std::size_t reply_limit);

  // For the commands to come. None may be without its reply.
  void set_reply_limit(std::size_t limit) { guard_.set_limit(limit); }

  // Adds a command; the words are binary. May throw std::bad_alloc; the connection then
  // can't be used again.
  void add(const std::vector<std::string_view>& words);

  // What poll(2) should wait for; 0 when there is nothing to wait for: is_done() or has_failed().
  short events() const;
  // Sends and receives what is possible. Called when poll reports something, when has_more(), and
  // first of all.
  void advance() noexcept;
  // Whether advance() has left bytes that poll may not report, since a server that sends without
  // end mustn't hold it for ever.
  bool has_more() const { return has_more_ && events() != 0; }

  // All commands have their replies. Takes them; the connection is ready for more commands.
  // Of a connection that has failed, takes the replies that came before.
  bool is_done() const { return !has_failed_ && missing_ == 0; }
  std::vector<Reply> take_replies();

  bool has_failed() const { return has_failed_; }
  const std::string& error() const { return error_; }  // never holds a key, value or password
  void fail(const char* why) noexcept;

  // The deadline has passed.
  void fail_late() noexcept;
  bool is_late() const { return is_late_; }

  // Whether an idle connection can be used for more: nothing is missing, nothing came unasked,
  // the server hasn't closed, the descriptor is still that of this connection.
  bool is_reusable();
  // Whether a reply was too large and is still arriving. Such a connection isn't reusable.
  bool is_skipping() const { return guard_.is_skipping(); }

  int fd() const { return stream_->fd(); }

 private:
  struct FreeReader {
    void operator()(redisReader* reader) const { redisReaderFree(reader); }
  };

  bool has_unsent() const { return sent_ < commands_.size(); }
  bool connect();
  void send();
  void receive();
  void take(std::string_view bytes);
  void read(std::string_view bytes, std::size_t new_replies);
  void fail_with_stream() noexcept;

  std::unique_ptr<Stream> stream_;
  std::unique_ptr<redisReader, FreeReader> reader_;
  ReplyGuard guard_;
  std::string commands_;
  std::size_t sent_ = 0;     // bytes of `commands_`
  std::size_t missing_ = 0;  // replies
  std::vector<Reply> replies_;
  Stream::Io connects_ = Stream::Io::wants_write;
  Stream::Io sends_ = Stream::Io::wants_write;
  Stream::Io receives_ = Stream::Io::wants_read;
  bool has_more_ = false;
  bool has_failed_ = false;
  bool is_late_ = false;
  std::string error_;
};

// Drives the connections until each is done or has failed. Those that are not when the deadline
// passes fail with the text "no reply within the time limit". EINTR doesn't end or
// lengthen the wait. Uses poll(2): a program may have more descriptors than select(2) takes. May
// throw std::bad_alloc; the connections that miss replies then can't be used again.
void run(const std::vector<Connection*>& connections, const Deadline& deadline);

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_CONNECTION_H_
