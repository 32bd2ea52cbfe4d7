// What an error of a server means for the requests to come.
#ifndef QUORVANE_REMOTE_SRC_REPLY_CLASS_H_
#define QUORVANE_REMOTE_SRC_REPLY_CLASS_H_

#include <string>

#include "src/reply.h"

namespace quorvane {
namespace remote {

// The server is of no use for now: LOADING, CLUSTERDOWN and their like.
bool means_failure(const redisReply& reply);
// The server wants other credentials.
bool means_refusal(const redisReply& reply);
// The server takes no additions: OOM, NOPERM, READONLY and their like.
bool means_no_writing(const redisReply& reply);

// What a record may say of an error: its first word, since the rest may quote a command.
std::string code_of(const redisReply& reply);

}  // namespace remote
}  // namespace quorvane

#endif  // QUORVANE_REMOTE_SRC_REPLY_CLASS_H_
