// Redis servers of this process, for benchmarks: a single one, or masters of a cluster.
#ifndef BENCH_REDIS_NODES_H_
#define BENCH_REDIS_NODES_H_

#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "redis_server.h"

namespace bench {

class RedisNodes {
 public:
  explicit RedisNodes(int count) {
    for (int i = 0; i < count; ++i) {
      nodes_.push_back(std::make_unique<RedisServer>(count > 1));
    }
    if (count > 1) {
      join();
    }
  }

  std::string addresses() const {
    std::string all;
    for (const auto& node : nodes_) {
      all += (all.empty() ? "" : ",") + node->address();
    }
    return all;
  }

  // The sum over all nodes of a field of INFO.
  double sum(const std::string& field) const {
    double all = 0;
    for (const auto& node : nodes_) {
      const std::string info = ask(*node, "INFO all");
      const std::size_t at = info.find("\n" + field + ":");
      all +=
          at == std::string::npos ? 0 : std::strtod(info.c_str() + at + field.size() + 2, nullptr);
    }
    return all;
  }

  // In seconds, of all nodes.
  double processor_time() const { return sum("used_cpu_user") + sum("used_cpu_sys"); }

  const RedisServer& first() const { return *nodes_.front(); }

 private:
  static std::string ask(const RedisServer& node, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    auto* const reply = static_cast<redisReply*>(redisvCommand(node.peer(), format, arguments));
    va_end(arguments);
    if (reply == nullptr || reply->type == REDIS_REPLY_ERROR) {
      std::abort();
    }
    std::string text = reply->str != nullptr ? std::string(reply->str, reply->len) : "";
    freeReplyObject(reply);
    return text;
  }

  void join() {
    const int count = static_cast<int>(nodes_.size());
    for (int i = 0; i < count; ++i) {
      const RedisServer& node = *nodes_[static_cast<std::size_t>(i)];
      ask(node, "CLUSTER ADDSLOTSRANGE %d %d", i * 16384 / count, (i + 1) * 16384 / count - 1);
      ask(node, "CLUSTER SET-CONFIG-EPOCH %d", i + 1);
      if (i > 0) {
        ask(first(), "CLUSTER MEET 127.0.0.1 %d %d", node.port(), node.bus_port());
      }
    }
    for (const auto& node : nodes_) {
      while (!is_whole(*node)) {
        usleep(10'000);
      }
    }
  }

  static bool is_whole(const RedisServer& node) {
    const std::string info = ask(node, "CLUSTER INFO");
    return info.find("cluster_state:ok") != std::string::npos &&
           info.find("cluster_slots_ok:16384") != std::string::npos;
  }

  std::vector<std::unique_ptr<RedisServer>> nodes_;
};

}  // namespace bench

#endif  // BENCH_REDIS_NODES_H_
