#include "src/exchange.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "src/password_file.h"
#include "src/process_generation.h"
#include "src/reply_class.h"

namespace quorvane {
namespace remote {

Exchange::Exchange(std::shared_ptr<Node> node, bool proves, std::size_t reply_limit)
    : node_(std::move(node)), proves_(proves), reply_limit_(reply_limit), link_(node_->none()) {}

Exchange::~Exchange() {
  if (link_ != node_->none()) {
    node_->give_back(link_);
  }
  if (!is_reported_) {
    node_->forget_try();
  }
}

void Exchange::connect(const std::vector<Exchange*>& exchanges, const Settings& settings,
                       const Deadline& deadline) {
  std::vector<Exchange*> opened;
  for (Exchange* exchange : exchanges) {
    exchange->link_ = exchange->node_->take();
    if (exchange->link_ != exchange->node_->none()) {
      exchange->link_->connection->set_reply_limit(exchange->reply_limit_);
    } else if (exchange->open(settings)) {
      opened.push_back(exchange);
    }
  }
  if (opened.empty()) {
    return;
  }
  run_all(opened, deadline.at_most(settings.connect_timeout));
  for (Exchange* exchange : opened) {
    exchange->take_greeting();
  }
}

bool Exchange::open(const Settings& settings) {
  std::string error;
  link_ = node_->open(reply_limit_, error);
  if (link_ == node_->none()) {
    fail(error);
    return false;
  }
  greet(settings);
  return !has_failed();
}

// The answer shows that the server accepts connections and credentials, within the time limit for
// connecting.
void Exchange::greet(const Settings& settings) {
  if (settings.password_file.empty()) {
    link_->connection->add({"PING"});
    return;
  }
  std::string error;
  const std::optional<std::string> password = read_password(settings.password_file, error);
  if (!password.has_value()) {
    refuse(error);
    return;
  }
  sent_password_ = true;
  if (settings.user.empty()) {
    link_->connection->add({"AUTH", *password});
  } else {
    link_->connection->add({"AUTH", settings.user, *password});
  }
}

// A user who may not send PING may still send the rest.
void Exchange::take_greeting() {
  if (link_->connection->has_failed()) {
    fail(link_->connection->error());
    return;
  }
  const std::vector<Reply> replies = link_->connection->take_replies();
  const redisReply& reply = *replies.front();
  if (means_failure(reply)) {
    fail(code_of(reply));
  } else if (means_refusal(reply) || (is_error(reply) && sent_password_)) {
    refuse("it refuses the credentials, " + code_of(reply));
  }
}

void Exchange::add(const std::vector<std::string_view>& words) {
  if (!has_failed()) {
    link_->connection->add(words);
  }
}

void Exchange::finish(const std::vector<Exchange*>& exchanges, const Deadline& deadline) {
  std::vector<Exchange*> asked;
  std::copy_if(exchanges.begin(), exchanges.end(), std::back_inserter(asked),
               [](const Exchange* exchange) { return !exchange->has_failed(); });
  run_all(asked, deadline);
  for (Exchange* exchange : asked) {
    exchange->take_replies();
  }
}

void Exchange::run_all(const std::vector<Exchange*>& exchanges, const Deadline& deadline) {
  std::vector<Connection*> connections;
  connections.reserve(exchanges.size());
  for (Exchange* exchange : exchanges) {
    connections.push_back(exchange->link_->connection.get());
  }
  run(connections, deadline);
}

// A child that was forked in the middle of this has read a part of its parent's replies.
void Exchange::take_replies() {
  if (link_->generation != process_generation()) {
    fail("the process was forked");
    return;
  }
  replies_ = link_->connection->take_replies();
  if (link_->connection->is_late() && !replies_.empty()) {
    end_with(link_->connection->error());  // it answers, but the network or the limit is too small
    is_reported_ = false;
    return;
  }
  if (link_->connection->has_failed()) {
    fail(link_->connection->error());
    return;
  }
  const auto refusal = std::find_if(replies_.begin(), replies_.end(),
                                    [](const Reply& reply) { return means_refusal(*reply); });
  if (refusal != replies_.end()) {
    refuse("it refuses the credentials, " + code_of(**refusal));
  } else if (std::all_of(replies_.begin(), replies_.end(),
                         [](const Reply& reply) { return means_failure(*reply); })) {
    fail(code_of(*replies_.front()));
  } else if (proves_) {
    is_reported_ = true;
    node_->succeeded();
  }
}

void Exchange::fail(const std::string& why) {
  end_with(why);
  node_->failed(error_);
}

void Exchange::refuse(const std::string& why) {
  end_with(why);
  node_->refused(error_);
}

// The connection isn't used again: the server may be about to close it, or never have accepted
// the credentials.
void Exchange::end_with(const std::string& why) {
  error_ = why.empty() ? "no memory" : why;
  is_reported_ = true;
  if (link_ != node_->none()) {
    link_->connection->fail("");
  }
}

}  // namespace remote
}  // namespace quorvane
