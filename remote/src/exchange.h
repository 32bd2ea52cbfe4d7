// One pipeline with one server.
#ifndef QUORVANE_REMOTE_SRC_EXCHANGE_H_
#define QUORVANE_REMOTE_SRC_EXCHANGE_H_

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "src/deadline.h"
#include "src/node.h"
#include "src/reply.h"
#include "src/settings.h"

namespace quorvane {
namespace remote {

// Connects, asks, and tells the node's breaker how it went. Made after Node::may_try has allowed
// it. The steps are functions over many exchanges, since all servers are asked at once.
class Exchange {
 public:
  // `proves`: whether an answer proves that the server is of use for look-ups. `reply_limit`: see
  // Connection.
  Exchange(std::shared_ptr<Node> node, bool proves, std::size_t reply_limit);
  ~Exchange();  // gives the connection back
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  Node& node() const { return *node_; }

  // First: every exchange gets a connection that is ready for commands, or fails. May throw
  // std::bad_alloc.
  static void connect(const std::vector<Exchange*>& exchanges, const Settings& settings,
                      const Deadline& deadline);
  // Then: adds a command, unless it has failed.
  void add(const std::vector<std::string_view>& words);
  // Last: all have their replies, or fail.
  static void finish(const std::vector<Exchange*>& exchanges, const Deadline& deadline);

  // A reply to each command, in order; if it has failed, to the first ones or to none.
  std::vector<Reply>& replies() { return replies_; }
  bool has_failed() const { return !error_.empty(); }
  const std::string& error() const { return error_; }

 private:
  bool open(const Settings& settings);
  void greet(const Settings& settings);
  void take_greeting();
  void take_replies();
  void fail(const std::string& why);
  void refuse(const std::string& why);
  void end_with(const std::string& why);
  static void run_all(const std::vector<Exchange*>& exchanges, const Deadline& deadline);

  const std::shared_ptr<Node> node_;
  const bool proves_;
  const std::size_t reply_limit_;
  Node::Links::iterator link_;
  std::vector<Reply> replies_;
  std::string error_;
  bool sent_password_ = false;
  bool is_reported_ = false;  // to the node
};

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_EXCHANGE_H_
