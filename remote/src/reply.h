// What a server answers.
#ifndef QUORVANE_REMOTE_SRC_REPLY_H_
#define QUORVANE_REMOTE_SRC_REPLY_H_

#include <hiredis/hiredis.h>

#include <memory>
#include <string_view>

namespace quorvane {
namespace remote {

struct FreeReply {
  void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using Reply = std::unique_ptr<redisReply, FreeReply>;

inline std::string_view text_of(const redisReply& reply) { return {reply.str, reply.len}; }
inline bool is_error(const redisReply& reply) { return reply.type == REDIS_REPLY_ERROR; }
inline bool is_error(const redisReply& reply, std::string_view begin) {
  return is_error(reply) && text_of(reply).substr(0, begin.size()) == begin;
}

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_REPLY_H_
