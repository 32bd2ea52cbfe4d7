#include "support/redis_servers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include "support/lines.h"
namespace test {
namespace {

using Words = RedisServer::Words;

constexpr auto kPatience = std::chrono::seconds(60);
constexpr auto kPause = std::chrono::milliseconds(2);
constexpr unsigned kSlots = 16384;
constexpr int kBusOffset = 10000;  // of a cluster node's second port
constexpr int kAttempts = 20;

std::vector<char*> pointers(Words& words) {
  std::vector<char*> result;
  for (std::string& word : words) {
    result.push_back(word.data());
  }
  result.push_back(nullptr);
  return result;
}

// In the child, so only calls that a signal handler may make, too.
[[noreturn]] void become(char* const* argv, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int null = open("/dev/null", O_RDWR);
  if (getppid() == parent && null >= 0) {
    for (int fd = 0; fd < 3; ++fd) {
      dup2(null, fd);
    }
    close_range(3, ~0U, 0);
    execvp(argv[0], argv);
  }
  _exit(127);
}

bool is_free(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int reuse = 1;  // as the server does, so that closed connections don't count
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
  const bool bound = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  close(fd);
  return bound;
}

void append_text(const redisReply& reply, std::string& text) {
  switch (reply.type) {
    case REDIS_REPLY_NIL:
      text += "(nil)";
      break;
    case REDIS_REPLY_INTEGER:
      text += std::to_string(reply.integer);
      break;
    case REDIS_REPLY_ARRAY:
      for (std::size_t i = 0; i < reply.elements; ++i) {
        text += i == 0 ? "" : "\n";
        append_text(*reply.element[i], text);
      }
      break;
    default:
      text.append(reply.str, reply.len);
  }
}

void await(const std::string& what, const std::function<bool()>& condition) {
  if (!eventually(condition)) {
    throw std::runtime_error("waited in vain for " + what);
  }
}

void expect_ok(RedisServer& server, const Words& words) {
  const std::string reply = server.command(words);
  if (reply != "OK") {
    throw std::runtime_error(words.at(0) + " " + words.at(1) + ": " + reply);
  }
}

}  // namespace

bool eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) {
      return false;
    }
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

// --- one server ---

RedisServer::RedisServer(Port port, Words options) : kind_(port), options_(std::move(options)) {
  for (int i = 0; i < kAttempts; ++i) {
    choose_port();
    // Another program may have taken the port meanwhile.
    if (try_launch({})) {
      return;
    }
  }
  fail("no redis-server can be started");
}

RedisServer::~RedisServer() { kill(); }

std::string RedisServer::address() const {
  return kind_ == Port::none ? socket() : "127.0.0.1:" + std::to_string(port_);
}

// Below the ports that the kernel gives to clients.
void RedisServer::choose_port() {
  if (kind_ == Port::none) {
    return;
  }
  std::random_device device;
  std::uniform_int_distribution<int> ports(10000, 22000);
  do {
    port_ = ports(device);
  } while (!is_free(port_) || !is_free(port_ + kBusOffset));
}

Words RedisServer::command_line(const Words& more) const {
  const std::string port = std::to_string(port_);
  Words words{"redis-server",
              "--bind",
              "127.0.0.1",
              "--port",
              kind_ == Port::tls ? "0" : port,
              "--unixsocket",
              socket(),
              "--dir",
              directory(),
              "--logfile",
              dir_.file("log"),
              "--daemonize",
              "no",
              "--save",
              "",
              "--repl-diskless-sync-delay",
              "0",
              "--enable-debug-command",
              "yes"};
  if (kind_ == Port::tls) {
    words.insert(words.end(), {"--tls-port", port});
  }
  words.insert(words.end(), options_.begin(), options_.end());
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

bool RedisServer::try_launch(const Words& more) {
  Words words = command_line(more);
  const std::vector<char*> argv = pointers(words);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    become(argv.data(), parent);
  }
  if (!eventually([this] { return has_ended() || try_connect(); })) {
    fail("it doesn't listen");
  }
  return admin_ != nullptr;
}

bool RedisServer::try_connect() {
  admin_ = redisConnectUnix(socket().c_str());
  if (admin_ != nullptr && admin_->err == 0) {
    const timeval patience{std::chrono::seconds(kPatience).count(), 0};
    redisSetTimeout(admin_, patience);
    return true;
  }
  redisFree(admin_);
  admin_ = nullptr;
  return false;
}

bool RedisServer::has_ended() {
  if (waitpid(pid_, nullptr, WNOHANG) != pid_) {
    return false;
  }
  pid_ = -1;
  return true;
}

void RedisServer::start() {
  start_loading({});
  if (!eventually([this] { return command({"PING"}) == "PONG"; })) {
    fail("it doesn't answer");
  }
}

void RedisServer::start_loading(const Words& more) {
  if (!try_launch(more)) {
    fail("it has ended");
  }
}

void RedisServer::kill() {
  if (admin_ != nullptr) {
    redisFree(admin_);
    admin_ = nullptr;
  }
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
}

void RedisServer::stop() {
  ::kill(pid_, SIGSTOP);
  int status = 0;
  if (waitpid(pid_, &status, WUNTRACED) != pid_ || !WIFSTOPPED(status)) {
    fail("it hasn't stopped");
  }
}

void RedisServer::resume() { ::kill(pid_, SIGCONT); }

std::string RedisServer::command(const Words& words) {
  if (admin_ == nullptr) {
    fail("it isn't running");
  }
  std::vector<const char*> texts;
  std::vector<std::size_t> sizes;
  for (const std::string& word : words) {
    texts.push_back(word.data());
    sizes.push_back(word.size());
  }
  auto* const reply = static_cast<redisReply*>(
      redisCommandArgv(admin_, static_cast<int>(words.size()), texts.data(), sizes.data()));
  if (reply == nullptr) {
    fail(words.at(0) + ": " + admin_->errstr);
  }
  std::string text;
  append_text(*reply, text);
  freeReplyObject(reply);
  return text;
}

std::uint64_t RedisServer::number(const Words& words) { return std::stoull(command(words)); }

std::string RedisServer::info(const std::string& field) {
  std::istringstream lines(command({"INFO", "all"}));
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(field + ":", 0) == 0) {
      return line.substr(field.size() + 1, line.size() - field.size() - 2);  // and "\r"
    }
  }
  return "";
}

std::uint64_t RedisServer::calls(const std::string& command_name) {
  const std::string statistics = info("cmdstat_" + command_name);
  constexpr std::string_view kBegin = "calls=";
  return statistics.empty() ? 0 : std::stoull(statistics.substr(kBegin.size()));
}

void RedisServer::fail(const std::string& what) const {
  const std::string log = exists(dir_.file("log")) ? read_file(dir_.file("log")) : "no log";
  throw std::runtime_error("redis-server: " + what + "\n" +
                           log.substr(log.size() - std::min<std::size_t>(log.size(), 1000)));
}

// --- a cluster ---

RedisCluster::RedisCluster(std::size_t masters, std::size_t replicas, const Words& options)
    : masters_(masters) {
  Words all{"--cluster-enabled", "yes", "--cluster-node-timeout", "2000"};
  all.insert(all.end(), options.begin(), options.end());
  for (std::size_t i = 0; i < masters * (1 + replicas); ++i) {
    nodes_.push_back(std::make_unique<RedisServer>(RedisServer::Port::plain, all));
    ids_.push_back(node(i).command({"CLUSTER", "MYID"}));
  }
  add_slots();
  meet();
  replicate();
  for (std::size_t i = 0; i < size(); ++i) {
    await("a whole cluster", [this, i] { return is_whole(i); });
  }
}

std::string RedisCluster::addresses() const {
  std::string text;
  for (const auto& node : nodes_) {
    text += (text.empty() ? "" : ",") + node->address();
  }
  return text;
}

bool RedisCluster::is_whole(std::size_t index) {
  const std::string info = node(index).command({"CLUSTER", "INFO"});
  const auto has = [&](const std::string& line) {
    return info.find(line + "\r\n") != std::string::npos;
  };
  return has("cluster_state:ok") && has("cluster_slots_ok:" + std::to_string(kSlots)) &&
         has("cluster_known_nodes:" + std::to_string(size()));
}

bool RedisCluster::is_down(std::size_t index) {
  const std::string info = node(index).command({"CLUSTER", "INFO"});
  return info.find("cluster_state:fail\r\n") != std::string::npos;
}

std::uint64_t RedisCluster::entries() {
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < masters_; ++i) {
    sum += node(i).number({"DBSIZE"});
  }
  return sum;
}

void RedisCluster::add_slots() {
  for (std::size_t i = 0; i < masters_; ++i) {
    expect_ok(node(i), {"CLUSTER", "ADDSLOTSRANGE", std::to_string(i * kSlots / masters_),
                        std::to_string((i + 1) * kSlots / masters_ - 1)});
  }
}

void RedisCluster::meet() {
  for (std::size_t i = 0; i < size(); ++i) {
    expect_ok(node(i), {"CLUSTER", "SET-CONFIG-EPOCH", std::to_string(i + 1)});
  }
  for (std::size_t i = 1; i < size(); ++i) {
    expect_ok(node(0), {"CLUSTER", "MEET", "127.0.0.1", std::to_string(node(i).port())});
  }
}

void RedisCluster::replicate() {
  for (std::size_t i = masters_; i < size(); ++i) {
    const Words words{"CLUSTER", "REPLICATE", id(i % masters_)};
    await("a node that knows its master", [&] { return node(i).command(words) == "OK"; });
    await("a replica", [&] { return node(i).info("master_link_status") == "up"; });
  }
}

void RedisCluster::move_slot(unsigned slot, std::size_t from, std::size_t to) {
  const std::string number = std::to_string(slot);
  expect_ok(node(to), {"CLUSTER", "SETSLOT", number, "IMPORTING", id(from)});
  expect_ok(node(from), {"CLUSTER", "SETSLOT", number, "MIGRATING", id(to)});
  const std::string port = std::to_string(node(to).port());
  for (;;) {
    // The tests' keys have no newline.
    const Words keys = lines_of(node(from).command({"CLUSTER", "GETKEYSINSLOT", number, "20"}));
    if (keys.empty()) {
      break;
    }
    Words migrate{"MIGRATE", "127.0.0.1", port, "", "0", "60000", "KEYS"};
    migrate.insert(migrate.end(), keys.begin(), keys.end());
    expect_ok(node(from), migrate);
  }
  for (const std::size_t index : {to, from}) {
    expect_ok(node(index), {"CLUSTER", "SETSLOT", number, "NODE", id(to)});
  }
}

}  // namespace test
