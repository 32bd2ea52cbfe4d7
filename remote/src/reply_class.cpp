#include "src/reply_class.h"

#include <algorithm>
#include <initializer_list>
#include <string_view>

namespace quorvane {
namespace remote {
namespace {

bool is_one_of(const redisReply& reply, std::initializer_list<std::string_view> begins) {
  return std::any_of(begins.begin(), begins.end(),
                     [&](std::string_view begin) { return is_error(reply, begin); });
}

bool is_code_letter(char letter) { return (letter >= 'A' && letter <= 'Z') || letter == '_'; }

}  // namespace

bool means_failure(const redisReply& reply) {
  return is_one_of(reply, {"LOADING", "CLUSTERDOWN", "MASTERDOWN", "TRYAGAIN", "BUSY ", "DENIED",
                           "ERR max number of clients"});
}

bool means_refusal(const redisReply& reply) {
  return is_one_of(reply, {"NOAUTH", "WRONGPASS", "ERR invalid password", "ERR AUTH"});
}

bool means_no_writing(const redisReply& reply) {
  return is_one_of(reply, {"OOM", "NOPERM", "READONLY", "MISCONF", "NOREPLICAS"});
}

std::string code_of(const redisReply& reply) {
  if (is_error(reply, "ERR max number of clients")) {
    return "it has too many clients";
  }
  const std::string_view text = text_of(reply);
  const auto* const end = std::find_if_not(text.begin(), text.end(), &is_code_letter);
  return "it answered " + std::string(text.begin(), end).substr(0, 20);
}

}  // namespace remote
}  // namespace quorvane
