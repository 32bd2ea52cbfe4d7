#include "support/scripted_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>

namespace test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFlags = SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC;

void demand(bool works, const char* what) {
  if (!works) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
  }
}

int listen_at(const std::string& path) {
  const int fd = socket(AF_UNIX, kFlags, 0);
  sockaddr_un at{};
  at.sun_family = AF_UNIX;
  demand(path.size() < sizeof(at.sun_path), "the path is too long");
  path.copy(at.sun_path, path.size());
  unlink(path.c_str());
  demand(bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof(at)) == 0, "bind");
  demand(listen(fd, 511) == 0, "listen");
  return fd;
}

int listen_at(std::uint16_t& port) {
  const int fd = socket(AF_INET, kFlags, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_port = htons(port);
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(at);
  demand(bind(fd, reinterpret_cast<sockaddr*>(&at), size) == 0, "bind");
  demand(listen(fd, 511) == 0, "listen");
  demand(getsockname(fd, reinterpret_cast<sockaddr*>(&at), &size) == 0, "getsockname");
  port = ntohs(at.sin_port);
  return fd;
}

// The number in a line "*3\r\n" at `at`, which then is after the line.
std::optional<std::size_t> header(const std::string& bytes, char type, std::size_t& at) {
  const std::size_t end = bytes.find("\r\n", at);
  if (end == bytes.npos || bytes[at] != type) {
    return std::nullopt;
  }
  const std::size_t number = std::strtoul(bytes.c_str() + at + 1, nullptr, 10);
  at = end + 2;
  return number;
}

// Takes the command at `at` if it is whole; `at` then is after it.
std::optional<Words> next_command(const std::string& bytes, std::size_t& at) {
  std::size_t position = at;
  const std::optional<std::size_t> count = header(bytes, '*', position);
  Words words;
  for (std::size_t i = 0; count && i < *count; ++i) {
    const std::optional<std::size_t> size = header(bytes, '$', position);
    if (!size || position + *size + 2 > bytes.size()) {
      return std::nullopt;
    }
    words.push_back(bytes.substr(position, *size));
    position += *size + 2;
  }
  if (!count) {
    return std::nullopt;
  }
  at = position;
  return words;
}

std::string joined(const Words& words) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : " ") + word;
  }
  return text;
}

}  // namespace

Script answers(std::map<std::string, Answer> by_command) {
  return [by_command = std::move(by_command)](const Words& command) {
    auto found = by_command.find(joined(command));
    if (found == by_command.end()) {
      found = by_command.find("*");
    }
    return found != by_command.end() ? found->second : Answer("-ERR unscripted\r\n");
  };
}

std::string bulk(const std::string& text) {
  return "$" + std::to_string(text.size()) + "\r\n" + text + "\r\n";
}

// One connection.
struct ScriptedServer::Link {
  int fd;
  std::string in;
  std::string out;
  std::chrono::milliseconds pause{0};
  Clock::time_point due{};
  bool closes = false;
  bool ended = false;

  bool is_due() const { return !out.empty() && (pause.count() == 0 || Clock::now() >= due); }
};

ScriptedServer::ScriptedServer(Script script, const std::string& path)
    : path_(path), script_(std::move(script)) {
  start();
}

ScriptedServer::~ScriptedServer() { stop(); }

void ScriptedServer::play(Script script) {
  const std::lock_guard lock(mutex_);
  script_ = std::move(script);
}

void ScriptedServer::greet_with(Answer greeting) {
  const std::lock_guard lock(mutex_);
  greeting_ = std::move(greeting);
}

void ScriptedServer::start() {
  listener_ = path_.empty() ? listen_at(port_) : listen_at(path_);
  address_ = path_.empty() ? "127.0.0.1:" + std::to_string(port_) : path_;
  wake_ = eventfd(0, EFD_CLOEXEC);
  demand(wake_ >= 0, "eventfd");
  thread_ = std::thread([this] { serve(); });
}

void ScriptedServer::stop() {
  if (!thread_.joinable()) {
    return;
  }
  const std::uint64_t one = 1;
  demand(write(wake_, &one, sizeof(one)) == sizeof(one), "write");
  thread_.join();
  for (const Link& link : links_) {
    close(link.fd);
  }
  links_.clear();
  close(listener_);
  close(wake_);
}

std::vector<Words> ScriptedServer::commands() const {
  const std::lock_guard lock(mutex_);
  return commands_;
}

std::size_t ScriptedServer::count_of(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(
      commands_.begin(), commands_.end(),
      [&](const Words& command) { return !command.empty() && command.front() == name; }));
}

std::size_t ScriptedServer::connections() const {
  const std::lock_guard lock(mutex_);
  return connections_;
}

void ScriptedServer::serve() {
  std::vector<pollfd> polled;
  for (;;) {
    polled = {{wake_, POLLIN, 0}, {listener_, POLLIN, 0}};
    for (const Link& link : links_) {
      const bool sends = link.is_due();
      polled.push_back({link.fd, static_cast<short>(POLLIN | (sends ? POLLOUT : 0)), 0});
    }
    if (poll(polled.data(), polled.size(), milliseconds_until_due()) < 0) {
      continue;  // EINTR
    }
    if (polled[0].revents != 0) {
      return;
    }
    auto events = polled.begin() + 2;
    for (Link& link : links_) {
      if ((events++)->revents != 0) {
        read_from(link);
      }
      send_to(link);
    }
    links_.remove_if([](const Link& link) { return link.ended && close(link.fd) == 0; });
    if (polled[1].revents != 0) {
      accept_one();
    }
  }
}

void ScriptedServer::accept_one() {
  const int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) {
    return;
  }
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  Link& link = links_.emplace_back();
  link.fd = fd;
  const std::lock_guard lock(mutex_);
  ++connections_;
  put(link, greeting_);
  send_to(link);
}

void ScriptedServer::read_from(Link& link) {
  char bytes[64 * 1024];
  const ssize_t size = recv(link.fd, bytes, sizeof(bytes), 0);
  if (size > 0) {
    link.in.append(bytes, static_cast<std::size_t>(size));
    execute(link);
  } else if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
    link.ended = true;
  }
}

void ScriptedServer::execute(Link& link) {
  std::size_t at = 0;
  while (const std::optional<Words> command = next_command(link.in, at)) {
    const std::lock_guard lock(mutex_);
    commands_.push_back(*command);
    if (!link.closes) {
      put(link, script_(*command));
    }
  }
  link.in.erase(0, at);
  if (!link.in.empty() && link.in.front() != '*') {  // no command; TLS, perhaps
    Answer refusal("-ERR Protocol error\r\n");
    refusal.closes = true;
    put(link, refusal);
  }
}

void ScriptedServer::put(Link& link, const Answer& answer) {
  link.out += answer.bytes;
  link.pause = std::max(link.pause, answer.pause);
  link.closes = answer.closes;
}

void ScriptedServer::send_to(Link& link) {
  if (link.is_due()) {
    const std::size_t size = link.pause.count() == 0 ? link.out.size() : 1;
    const ssize_t sent = send(link.fd, link.out.data(), size, MSG_NOSIGNAL);
    if (sent > 0) {
      link.out.erase(0, static_cast<std::size_t>(sent));
    } else if (errno != EAGAIN && errno != EINTR) {
      link.ended = true;
    }
    link.due = Clock::now() + link.pause;
  }
  link.ended = link.ended || (link.closes && link.out.empty());
}

int ScriptedServer::milliseconds_until_due() const {
  Clock::time_point first = Clock::time_point::max();
  for (const Link& link : links_) {
    if (!link.out.empty() && link.pause.count() != 0) {
      first = std::min(first, link.due);
    }
  }
  if (first == Clock::time_point::max()) {
    return -1;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(first - Clock::now());
  return std::max(0, static_cast<int>(left.count()));
}

}  // namespace test
