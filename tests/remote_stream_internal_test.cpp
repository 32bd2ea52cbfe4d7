// What a stream does to the process around it: descriptors, signals, children of fork.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "src/connection.h"
#include "support/listener.h"
#include "support/processes.h"
#include "support/remote_client.h"
#include "support/scenario.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"

using quorvane::remote::Address;
using quorvane::remote::Connection;
using test::ask;
using test::bulk;
using test::connect_to;

namespace {

// A connection that has worked, and the server's end of it.
struct Connected {
  explicit Connected(const test::Listener& listener, const std::string& path)
      : connection(connect_to(path)), server(listener.take()) {
    test::send_to(server, "+OK\r\n");
    EXPECT_EQ(ask(*connection, {"PING"}), "+OK");
    test::receive_from(server, std::string("*1\r\n$4\r\nPING\r\n").size());
  }
  ~Connected() { close(server); }

  std::unique_ptr<Connection> connection;
  const int server;
};

TEST(Stream, HasADescriptorThatProgramsWithoutStandardDescriptorsCannotTake) {
  EXPECT_TRUE(test::run_scenario("without_standard_descriptors").exited_with(0));
}

SCENARIO(without_standard_descriptors) {
  const test::TempDir dir;
  const test::Listener listener(dir.file("socket"));
  close(STDIN_FILENO);
  close(STDOUT_FILENO);
  const auto connection = connect_to(dir.file("socket"));
  const bool leaves_them_free =
      fcntl(STDIN_FILENO, F_GETFD) < 0 && fcntl(STDOUT_FILENO, F_GETFD) < 0;
  return connection->fd() > STDERR_FILENO && leaves_them_free &&
                 (fcntl(connection->fd(), F_GETFD) & FD_CLOEXEC) != 0
             ? 0
             : 1;
}

TEST(Stream, LeavesSigpipeAloneAndDoesNotRaiseIt) {
  EXPECT_TRUE(test::run_scenario("sends_to_a_closed_peer").exited_with(0));
}

SCENARIO(sends_to_a_closed_peer) {
  signal(SIGPIPE, SIG_DFL);
  const test::TempDir dir;
  const test::Listener listener(dir.file("socket"));
  const auto connection = connect_to(dir.file("socket"));
  close(listener.take());
  const std::string answer = ask(*connection, {"SET", "a", std::string(1'000'000, 'v')});
  struct sigaction now;
  sigaction(SIGPIPE, nullptr, &now);
  return answer == "failed: the server closed the connection" && now.sa_handler == SIG_DFL ? 0 : 1;
}

TEST(Stream, IsNotUsedAgainWhenTheProgramOpenedAnotherFileUnderItsNumber) {
  const test::TempDir dir;
  const test::Listener listener(dir.file("socket"));
  Connected idle(listener, dir.file("socket"));
  const int fd = idle.connection->fd();
  EXPECT_TRUE(idle.connection->is_reusable());
  int pair[2];  // as quiet as the connection
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
  ASSERT_EQ(dup2(pair[0], fd), fd);
  EXPECT_FALSE(idle.connection->is_reusable());

  idle.connection.reset();
  EXPECT_TRUE(test::send_to(fd, "still open"));
  EXPECT_EQ(test::receive_from(pair[1], 10), "still open");
  for (const int open : {fd, pair[0], pair[1]}) {
    close(open);
  }
}

TEST(Stream, IsNotUsedAgainByAChildOfFork) {
  const test::TempDir dir;
  const test::Listener listener(dir.file("socket"));
  const Connected idle(listener, dir.file("socket"));
  EXPECT_EQ(test::wait_for(test::in_child([&] { return idle.connection->is_reusable() ? 1 : 0; })),
            0);
  EXPECT_TRUE(idle.connection->is_reusable());
}

TEST(Stream, SaysNothingToTheServerWhenAChildDestroysItsCopy) {
  const test::TempDir dir;
  const test::Listener listener(dir.file("socket"));
  Connected idle(listener, dir.file("socket"));
  EXPECT_EQ(test::wait_for(test::in_child([&] {
              idle.connection.reset();
              return 0;
            })),
            0);
  ASSERT_TRUE(test::send_to(idle.server, bulk("1")));
  EXPECT_EQ(ask(*idle.connection, {"GET", "a"}), "1");
}

TEST(Stream, EndsAtTheServerAlthoughAChildHasACopy) {
  const test::TempDir dir;
  const test::Listener listener(dir.file("socket"));
  Connected idle(listener, dir.file("socket"));
  const pid_t child = test::in_child([] {
    alarm(60);
    return pause();
  });
  idle.connection.reset();
  char byte;
  EXPECT_EQ(recv(idle.server, &byte, 1, 0), 0);  // waits until the connection has ended
  kill(child, SIGKILL);
  test::wait_for(child);
}

TEST(Stream, EndsWhenTheProgramClosedItsDescriptor) {
  const test::TempDir dir;
  const test::Listener listener(dir.file("socket"));
  Connected idle(listener, dir.file("socket"));
  close(idle.connection->fd());
  EXPECT_FALSE(idle.connection->is_reusable());
  EXPECT_EQ(ask(*idle.connection, {"GET", "a"}), "failed: Bad file descriptor");
}

TEST(Stream, SaysWhyItCannotBeOpened) {
  const test::TempDir dir;
  errno = 0;
  EXPECT_EQ(open_stream(*Address::parse(dir.file("none")), nullptr), nullptr);
  EXPECT_EQ(errno, ENOENT);
}

// A port where nobody listens, of those that the kernel gives to connecting sockets: it gives them
// the even ones first.
std::uint16_t unused_even_port() {
  for (std::uint16_t port = 60998;; port = static_cast<std::uint16_t>(port - 2)) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(port);
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool is_free = bind(probe, reinterpret_cast<sockaddr*>(&at), sizeof(at)) == 0;
    close(probe);
    if (is_free) {
      return port;
    }
  }
}

// The kernel takes the ports in turn for this end: at some time that of the server.
TEST(Stream, NeverConnectsToItself) {
  constexpr int kConnections = 20'000;
  const std::string address = "127.0.0.1:" + std::to_string(unused_even_port());
  int refused = 0;
  for (int i = 0; i < kConnections; ++i) {
    refused += ask(*connect_to(address), {"PING"}) == "failed: Connection refused" ? 1 : 0;
  }
  EXPECT_EQ(refused, kConnections);
}

}  // namespace
