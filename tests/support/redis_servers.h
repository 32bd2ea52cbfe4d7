// Redis servers for tests: single ones and clusters. All end with the test.
#ifndef TESTS_SUPPORT_REDIS_SERVERS_H_
#define TESTS_SUPPORT_REDIS_SERVERS_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/temp_dir.h"

struct redisContext;

namespace test {

// Asks again and again until `condition` holds. False when it still doesn't after a minute.
bool eventually(const std::function<bool()>& condition);

// A server in a directory of its own, without persistence unless the options say otherwise.
// Start and restart it in the main thread: the kernel kills it when the thread that
// started it ends. Commands go through a Unix socket, on one connection that stays open.
// What goes wrong throws std::runtime_error with the end of the server's log.
class RedisServer {
 public:
  using Words = std::vector<std::string>;
  enum class Port { none, plain, tls };

  // Starts it, on a free port or only on its socket. `options` are those of its command line.
  explicit RedisServer(Port port = Port::none, Words options = {});
  ~RedisServer();
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  // As QV_CACHE_REMOTE has it.
  std::string address() const;
  std::string socket() const { return dir_.file("socket"); }
  int port() const { return port_; }
  const std::string& directory() const { return dir_.path(); }
  pid_t pid() const { return pid_; }

  void kill();   // by SIGKILL; returns when it is gone
  void start();  // after kill(); returns when it answers
  // The same, but returns while it still reads its data. `more` options are for this time only.
  void start_loading(const Words& more);
  void stop();  // by SIGSTOP; returns when it has stopped
  void resume();

  // The reply as text: "(nil)", an error's words, a line for each element of an array.
  std::string command(const Words& words);
  // For commands that reply with a number.
  std::uint64_t number(const Words& words);
  // The value of a field of INFO; "" if there is none.
  std::string info(const std::string& field);
  // How often it has executed a command since CONFIG RESETSTAT.
  std::uint64_t calls(const std::string& command_name);

 private:
  void choose_port();
  Words command_line(const Words& more) const;
  bool try_launch(const Words& more);
  bool try_connect();
  bool has_ended();
  [[noreturn]] void fail(const std::string& what) const;

  const TempDir dir_;
  const Port kind_;
  const Words options_;
  int port_ = 0;
  pid_t pid_ = -1;
  redisContext* admin_ = nullptr;
};

// Masters that have all slots, in equal shares, and as many replicas of each as told.
class RedisCluster {
 public:
  explicit RedisCluster(std::size_t masters, std::size_t replicas = 0,
                        const RedisServer::Words& options = {});

  std::size_t size() const { return nodes_.size(); }
  // The masters come first, then a replica of each, then a second one of each.
  RedisServer& node(std::size_t index) { return *nodes_.at(index); }
  // Of all nodes, as QV_CACHE_REMOTE has it.
  std::string addresses() const;

  // Whether the node finds that all nodes are there and all slots are served.
  bool is_whole(std::size_t index);
  // Whether it finds that the cluster can't be used.
  bool is_down(std::size_t index);
  const std::string& id(std::size_t index) const { return ids_.at(index); }
  // Entries on all masters.
  std::uint64_t entries();

  // Moves a slot with its keys between two masters.
  void move_slot(unsigned slot, std::size_t from, std::size_t to);

 private:
  void meet();
  void add_slots();
  void replicate();

  const std::size_t masters_;
  std::vector<std::unique_ptr<RedisServer>> nodes_;
  std::vector<std::string> ids_;
};

}  // namespace test

#endif  // TESTS_SUPPORT_REDIS_SERVERS_H_
