// A Redis server of this process, for benchmarks.
#ifndef BENCH_REDIS_SERVER_H_
#define BENCH_REDIS_SERVER_H_

#include <arpa/inet.h>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "store_fixture.h"

namespace bench {

// On a free port of 127.0.0.1, without persistence. Ends with the object, or with the process.
class RedisServer {
 public:
  // `in_cluster`: as a node, which has no slots yet.
  explicit RedisServer(bool in_cluster = false)
      : port_(free_port()), bus_port_(in_cluster ? free_port() : 0), child_(fork()) {
    if (child_ == 0) {
      become_server();
    }
    while ((peer_ = redisConnect("127.0.0.1", port_)) == nullptr || peer_->err != 0) {
      redisFree(peer_);
      usleep(10'000);
    }
  }
  ~RedisServer() {
    redisFree(peer_);
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
  }
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  std::string address() const { return "127.0.0.1:" + std::to_string(port_); }
  int port() const { return port_; }
  int bus_port() const { return bus_port_; }
  redisContext* peer() const { return peer_; }  // a connection by hiredis itself

 private:
  static int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      std::abort();
    }
    close(fd);
    return ntohs(address.sin_port);
  }

  [[noreturn]] void become_server() const {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, STDOUT_FILENO);
    const std::string port = std::to_string(port_);
    const std::string bus_port = std::to_string(bus_port_);
    const std::string nodes = "nodes-" + port + ".conf";
    execlp("redis-server", "redis-server", "--port", port.c_str(), "--bind", "127.0.0.1", "--dir",
           root().c_str(), "--save", "", "--appendonly", "no", "--cluster-enabled",
           bus_port_ != 0 ? "yes" : "no", "--cluster-port", bus_port.c_str(),
           "--cluster-config-file", nodes.c_str(), nullptr);
    _exit(127);
  }

  const int port_;
  const int bus_port_;
  const pid_t child_;
  redisContext* peer_ = nullptr;
};

}  // namespace bench

#endif  // BENCH_REDIS_SERVER_H_
