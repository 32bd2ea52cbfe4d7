// A server that plays a script: it answers what no real server would.
//
//   test::ScriptedServer server(test::answers({{"GET a", test::bulk("1")}}));
//   connect_to(server.address());
//
// A child of fork must leave the object alone (_exit does).
#ifndef TESTS_SUPPORT_SCRIPTED_SERVER_H_
#define TESTS_SUPPORT_SCRIPTED_SERVER_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace test {

struct Answer {
  Answer(std::string all_bytes = "") : bytes(std::move(all_bytes)) {}
  Answer(const char* all_bytes) : bytes(all_bytes) {}

  Answer& cut_after(std::size_t size) {  // the server closes after so many of the bytes
    bytes.resize(size < bytes.size() ? size : bytes.size());
    closes = true;
    return *this;
  }
  Answer& dribbled(std::chrono::milliseconds each_byte) {
    pause = each_byte;
    return *this;
  }

  std::string bytes;  // none: silence
  bool closes = false;
  std::chrono::milliseconds pause{0};  // after every byte of this and the later answers
};

using Words = std::vector<std::string>;
using Script = std::function<Answer(const Words& command)>;

// A script: the answer of a command, its words joined by spaces. "*" answers all others, which
// otherwise get "-ERR unscripted\r\n".
Script answers(std::map<std::string, Answer> by_command);

std::string bulk(const std::string& text);
inline std::string nil() { return "$-1\r\n"; }
inline std::string ok() { return "+OK\r\n"; }

class ScriptedServer {
 public:
  // On a free port of 127.0.0.1, or on a Unix socket if there is a `path`. The script runs
  // in the server's thread.
  explicit ScriptedServer(Script script, const std::string& path = "");
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  const std::string& address() const { return address_; }  // "127.0.0.1:PORT" or the path
  std::uint16_t port() const { return port_; }

  void play(Script script);          // from now on
  void greet_with(Answer greeting);  // what new connections get unasked

  // Closes everything, as a kill does; start() listens at the same address again.
  void stop();
  void start();

  std::vector<Words> commands() const;                  // received so far, of all connections
  std::size_t count_of(const std::string& name) const;  // commands whose first word this is
  std::size_t connections() const;                      // accepted so far

 private:
  struct Link;

  void serve();
  void accept_one();
  void read_from(Link& link);
  void execute(Link& link);
  void send_to(Link& link);
  static void put(Link& link, const Answer& answer);
  int milliseconds_until_due() const;

  const std::string path_;
  std::string address_;
  std::uint16_t port_ = 0;
  int listener_ = -1;
  int wake_ = -1;
  std::thread thread_;
  std::list<Link> links_;  // the server's thread

  mutable std::mutex mutex_;
  Script script_;
  Answer greeting_;
  std::vector<Words> commands_;
  std::size_t connections_ = 0;
};

}  // namespace test

#endif  // TESTS_SUPPORT_SCRIPTED_SERVER_H_
