// Caches on a real server in children of fork and in many threads.
#include <quorvane/cache.h>
#include <quorvane/remote_store.h>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/certificates.h"
#include "support/descriptors.h"
#include "support/listener.h"
#include "support/lock_probe.h"
#include "support/processes.h"
#include "support/redis_servers.h"
#include "support/remote_cache.h"
#include "support/temp_dir.h"
#include "support/thread_state.h"
#include "support/threads.h"

namespace {

using quorvane::cache::Cache;
using test::add;
using test::add_numbered;
using test::Authority;
using test::get;
using test::in_child;
using test::look_up;
using test::LookedUp;
using test::numbered_keys;
using test::open_remote;
using test::patient;
using test::prefetch;
using test::RedisServer;
using test::RemoteSettings;
using test::run_threads;
using test::Signpost;
using test::wait_for;

constexpr unsigned kHangSeconds = 100;
#ifdef QV_SANITIZED
constexpr std::size_t kEntries = 5000;
#else
constexpr std::size_t kEntries = 50000;
#endif

void fill(std::size_t entries) {
  const auto writer = open_remote();
  add_numbered(*writer, 0, entries);
  ASSERT_TRUE(writer->flush());
}

// Look-ups of a parent and its child at the same time, after the parent has connected. They are
// for different keys, so that an answer that goes to the wrong side can't be right.
void expect_no_mix_up(std::size_t entries) {
  fill(entries);
  const auto cache = open_remote();
  EXPECT_EQ(get(*cache, "to connect"), std::nullopt);
  const std::size_t half = entries / 2;
  Signpost start;
  const pid_t child = in_child([&] {
    alarm(kHangSeconds);
    start.pass();
    const std::size_t right = look_up(*cache, half, entries).right + look_up(*cache, 0, half).right;
    return right == entries ? 0 : 1;
  });
  start.await();
  const LookedUp sum = look_up(*cache, 0, entries);
  EXPECT_EQ(sum.wrong, 0U);
  EXPECT_EQ(sum.missing, 0U);
  EXPECT_EQ(wait_for(child), 0);
}

TEST(RemoteFork, BothSidesFindTheirOwnAnswers) {
  const RedisServer server;
  const RemoteSettings settings(patient(server.address()));
  expect_no_mix_up(kEntries);
}

bool is_waiting(pid_t process) {
  const std::string stat = test::read_file("/proc/" + std::to_string(process) + "/stat");
  return stat.find(") S ") != std::string::npos;
}

// The server answers only when both sides wait for it.
TEST(RemoteFork, AnswersThatComeAtTheSameMomentReachTheRightSides) {
  RedisServer server;
  const RemoteSettings settings(patient(server.address()));
  fill(20);
  for (std::size_t i = 0; i < 20; i += 2) {
    const auto cache = open_remote();
    EXPECT_EQ(get(*cache, "to connect"), std::nullopt);
    server.stop();
    Signpost about_to_wait;
    const pid_t child = in_child([&] {
      alarm(kHangSeconds);
      about_to_wait.pass();
      return look_up(*cache, i, i + 1).right == 1 ? 0 : 1;
    });
    std::size_t right = 0;
    test::Watched parent([&] { right = look_up(*cache, i + 1, i + 2).right; });
    about_to_wait.await();
    parent.settle();
    EXPECT_TRUE(test::eventually([&] { return is_waiting(child); }));
    server.resume();
    parent.join();
    EXPECT_EQ(right, 1U);
    EXPECT_EQ(wait_for(child), 0);
  }
}

RedisServer::Words tls_options(const Authority& authority) {
  return {"--tls-cert-file",    authority.certificate("server"),
          "--tls-key-file",     authority.key("server"),
          "--tls-ca-cert-file", authority.file(),
          "--tls-auth-clients", "no"};
}

TEST(RemoteFork, BothSidesFindTheirOwnAnswersOverTls) {
  const Authority authority;
  authority.sign("server", "127.0.0.1");
  const RedisServer server(RedisServer::Port::tls, tls_options(authority));
  test::RemoteVariables values = patient(server.address());
  values["_CA_FILE"] = authority.file();
  const RemoteSettings settings(values);
  expect_no_mix_up(kEntries / 10);
}

int connected_to(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  at.sin_port = htons(static_cast<std::uint16_t>(port));
  EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&at), sizeof(at)), 0);
  return fd;
}

// Passes bytes on between a client and the server at the port until one of them closes.
void pass_on(int client, int port) {
  const int server = connected_to(port);
  pollfd sides[] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
  for (bool is_open = true; is_open && poll(sides, 2, -1) > 0;) {
    for (const int from : {0, 1}) {
      char bytes[4096];
      if (is_open && sides[from].revents != 0) {
        const ssize_t size = recv(sides[from].fd, bytes, sizeof(bytes), 0);
        is_open = size > 0 && test::send_to(sides[1 - from].fd,
                                            std::string(bytes, static_cast<std::size_t>(size)));
      }
    }
  }
  close(client);
  close(server);
}

// A thread of the parent waits for the server's part of the handshake all the time.
TEST(RemoteFork, AChildThatIsForkedDuringAHandshakeLooksUpOnItsOwn) {
  const Authority authority;
  authority.sign("server", "127.0.0.1");
  const RedisServer server(RedisServer::Port::tls, tls_options(authority));
  test::RemoteVariables values = patient(server.address());
  values["_CA_FILE"] = authority.file();
  const RemoteSettings direct(values);
  fill(2);
  const test::TempDir dir;
  const test::Listener gate(dir.file("gate"));
  const RemoteSettings through_the_gate({{"", dir.file("gate")}});
  const int before = test::open_descriptors();
  auto cache = open_remote();
  LookedUp of_parent;
  std::thread waiting([&] { of_parent = look_up(*cache, 0, 1); });
  const int held = gate.take();
  char byte;
  ASSERT_EQ(recv(held, &byte, 1, MSG_PEEK), 1);  // it has begun
  const pid_t child = in_child([&] {
    alarm(kHangSeconds);
    const int inherited = test::open_descriptors();
    const bool found = look_up(*cache, 1, 2).right == 1;
    // One was closed, one opened.
    return found && test::open_descriptors() == inherited ? 0 : 1;
  });
  pass_on(gate.take(), server.port());
  EXPECT_EQ(wait_for(child), 0);
  std::thread passing([&] { pass_on(held, server.port()); });
  waiting.join();
  EXPECT_EQ(of_parent.right, 1U);
  cache.reset();
  passing.join();
  EXPECT_EQ(test::open_descriptors(), before);
}

TEST(RemoteFork, AChildThatEndsLeavesItsParentsConnectionOpen) {
  RedisServer server;
  const RemoteSettings settings(patient(server.address()));
  fill(10);
  const auto cache = open_remote();
  EXPECT_EQ(get(*cache, "to connect"), std::nullopt);
  const std::string before = server.info("total_connections_received");
  EXPECT_EQ(wait_for(in_child([&] {
              auto copy = std::unique_ptr<Cache>(cache.get());
              copy.reset();
              return 0;
            })),
            0);
  EXPECT_EQ(look_up(*cache, 0, 10).right, 10U);
  EXPECT_EQ(server.info("total_connections_received"), before);
}

TEST(RemoteFork, WhatBothSidesAddedIsStoredByBoth) {
  const RedisServer server;
  const RemoteSettings settings(patient(server.address()));
  const auto cache = open_remote();
  EXPECT_EQ(get(*cache, "to connect"), std::nullopt);
  add_numbered(*cache, 0, 10);
  const pid_t child = in_child([&] {
    alarm(kHangSeconds);
    return add(*cache, "child", "1") && cache->flush() ? 0 : 1;
  });
  EXPECT_TRUE(add(*cache, "parent", "2"));
  EXPECT_TRUE(cache->flush());
  EXPECT_EQ(wait_for(child), 0);
  const auto reader = open_remote();
  EXPECT_EQ(look_up(*reader, 0, 10).right, 10U);
  EXPECT_EQ(get(*reader, "child"), "1");
  EXPECT_EQ(get(*reader, "parent"), "2");
}

TEST(RemoteThreads, SixtyFourOfThemLookUpPrefetchAddAndFlush) {
  constexpr std::size_t kThreads = 64;
  constexpr std::size_t kEach = 200;
  const RedisServer server;
  const RemoteSettings settings(patient(server.address()));
  fill(kEntries / 10);
  const auto cache = open_remote();
  std::atomic<std::size_t> right = 0;
  run_threads(kThreads, [&](int index) {
    const std::size_t first = kEntries + static_cast<std::size_t>(index) * kEach;
    add_numbered(*cache, first, first + kEach);
    EXPECT_TRUE(cache->flush());
    if (index % 8 == 0) {
      prefetch(*cache, numbered_keys(0, kEntries / 10));
    }
    right += look_up(*cache, 0, kEntries / 10).right;
    const auto own = open_remote();
    EXPECT_EQ(look_up(*own, first, first + kEach).right, kEach);
  });
  EXPECT_EQ(right, kThreads * (kEntries / 10));
}

#ifndef QV_SANITIZED  // whose allocators a fork may catch locked
TEST(RemoteThreads, ChildrenThatAreForkedWhileThreadsLookUpFindEverything) {
  constexpr std::size_t kChildren = 20;
  constexpr std::size_t kLookedUp = 500;
  const RedisServer server;
  const RemoteSettings settings(patient(server.address()));
  fill(kEntries);
  const auto cache = open_remote();
  std::atomic<bool> is_over = false;
  std::atomic<std::size_t> lost = 0;
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      while (!is_over) {
        const auto own = open_remote();
        lost += kLookedUp - look_up(*own, 0, kLookedUp).right;
        lost += kLookedUp - look_up(*cache, 0, kLookedUp).right;
      }
    });
  }
  for (std::size_t i = 0; i < kChildren; ++i) {
    EXPECT_EQ(wait_for(in_child([&] {
                alarm(kHangSeconds);
                return look_up(*cache, kEntries - kLookedUp, kEntries).right == kLookedUp ? 0 : 1;
              })),
              0);
  }
  is_over = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(lost, 0U);
}
#endif

}  // namespace
