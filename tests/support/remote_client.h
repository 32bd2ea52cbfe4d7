// Connections of the remote store, for tests of what is below it.
#ifndef TESTS_SUPPORT_REMOTE_CLIENT_H_
#define TESTS_SUPPORT_REMOTE_CLIENT_H_

#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "src/address.h"
#include "src/connection.h"
#include "src/deadline.h"
#include "src/stream.h"

namespace test {

constexpr std::size_t kReplyLimit = 1 << 20;

// Longer than any test may take; what waits for it has hung.
inline quorvane::remote::Deadline far_deadline() {
  return quorvane::remote::Deadline(std::chrono::seconds(60));
}

inline std::unique_ptr<quorvane::remote::Connection> connect_to(
    const std::string& address, std::size_t reply_limit = kReplyLimit,
    const quorvane::remote::TlsContext* tls = nullptr) {
  auto stream = quorvane::remote::open_stream(*quorvane::remote::Address::parse(address), tls);
  if (stream == nullptr) {
    throw std::runtime_error(address + ": " + std::strerror(errno));
  }
  return std::make_unique<quorvane::remote::Connection>(std::move(stream), reply_limit);
}

// "1", "(nil)", "+OK", "-ERR no", ":3", "[1 (nil)]".
inline std::string shown(const redisReply& reply) {
  const std::string text(quorvane::remote::text_of(reply));
  switch (reply.type) {
    case REDIS_REPLY_STRING:
      return text;
    case REDIS_REPLY_STATUS:
      return "+" + text;
    case REDIS_REPLY_ERROR:
      return "-" + text;
    case REDIS_REPLY_INTEGER:
      return ":" + std::to_string(reply.integer);
    case REDIS_REPLY_NIL:
      return "(nil)";
    default:
      break;
  }
  std::string all;
  for (std::size_t i = 0; i < reply.elements; ++i) {
    all += (i == 0 ? "" : " ") + shown(*reply.element[i]);
  }
  return "[" + all + "]";
}

inline std::vector<std::string> shown(const std::vector<quorvane::remote::Reply>& replies) {
  std::vector<std::string> all;
  for (const quorvane::remote::Reply& reply : replies) {
    all.push_back(shown(*reply));
  }
  return all;
}

// Adds the command, runs, and shows the only reply, or "failed: " with the error.
inline std::string ask(quorvane::remote::Connection& connection,
                       const std::vector<std::string_view>& words,
                       const quorvane::remote::Deadline& deadline = far_deadline()) {
  connection.add(words);
  quorvane::remote::run({&connection}, deadline);
  if (connection.has_failed()) {
    return "failed: " + connection.error();
  }
  const std::vector<std::string> replies = shown(connection.take_replies());
  return replies.size() == 1 ? replies.front() : std::to_string(replies.size()) + " replies";
}

}  // namespace test

#endif  // TESTS_SUPPORT_REMOTE_CLIENT_H_
