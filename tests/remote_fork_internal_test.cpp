// The remote store in children of fork and in many threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/descriptors.h"
#include "support/processes.h"
#include "support/scripted_node.h"
#include "support/threads.h"

using quorvane::remote::RemoteStore;
using test::Answer;
using test::found;
using test::ScriptedNode;
using test::settings_of;
using test::Words;

namespace {

// Has every key; the value is the key on the servers.
std::optional<Answer> answer_with_the_key(const Words& command) {
  if (command[0] != "GET") {
    return std::nullopt;
  }
  return test::bulk(quorvane::remote::encode(command[1], test::buffers({"for", command[1]})));
}

// How many of these look-ups, each of a key of its own, don't find the right value.
int wrong_look_ups(RemoteStore& store, const std::string& begin, int count) {
  int wrong = 0;
  for (int i = 0; i < count; ++i) {
    const std::string key = begin + std::to_string(i);
    wrong += found(store, key) == "[for][" + test::on_servers(key) + "]" ? 0 : 1;
  }
  return wrong;
}

class RemoteFork : public testing::Test {
 protected:
  ScriptedNode node_{&answer_with_the_key};
  RemoteStore store_{test::kCacheName, settings_of({node_.address()})};
};

#ifdef QV_SANITIZED
constexpr int kLookUps = 1000;  // each takes many times as long
#else
constexpr int kLookUps = 5000;
#endif

}  // namespace

TEST_F(RemoteFork, GivesBothSidesTheirOwnConnections) {
  constexpr int kForks = 10;
  EXPECT_EQ(wrong_look_ups(store_, "first ", 1), 0);
  const std::size_t connections = node_.server().connections();
  for (int i = 0; i < kForks; ++i) {
    const std::string begin = std::to_string(i);
    const pid_t child = test::in_child(
        [&] { return wrong_look_ups(store_, begin + " child ", kLookUps) == 0 ? 0 : 1; });
    EXPECT_EQ(wrong_look_ups(store_, begin + " parent ", kLookUps), 0);
    EXPECT_EQ(test::wait_for(child), 0);
  }
  EXPECT_EQ(node_.server().connections(), connections + kForks);
}

#ifndef QV_SANITIZED  // whose allocators a fork may catch locked
TEST_F(RemoteFork, LetsAChildLookUpWhileThreadsOfItsParentDo) {
  std::atomic<bool> is_over{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; !is_over; ++i) {
        wrong += wrong_look_ups(store_, std::to_string(thread) + "/" + std::to_string(i) + "/", 5);
      }
    });
  }
  for (int i = 0; i < 100; ++i) {
    const pid_t child = test::in_child([&] {
      return wrong_look_ups(store_, "child " + std::to_string(i) + " ", 20) == 0 ? 0 : 1;
    });
    EXPECT_EQ(test::wait_for(child), 0);
  }
  is_over = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}
#endif

TEST_F(RemoteFork, ClosesInAChildWhatTheParentHasOpen) {
  EXPECT_EQ(wrong_look_ups(store_, "idle ", 1), 0);
  node_.answer_instead([](const Words& command) -> std::optional<Answer> {
    const bool is_unanswered = command[0] == "GET" && command[1] == test::on_servers("silence");
    return is_unanswered ? std::optional<Answer>(Answer()) : answer_with_the_key(command);
  });
  const std::size_t asked = node_.count_of("GET");
  std::thread in_use([&] { EXPECT_EQ(found(store_, "silence"), "none"); });
  while (node_.count_of("GET") == asked) {
    std::this_thread::yield();
  }
  EXPECT_EQ(wrong_look_ups(store_, "second ", 1), 0);  // opens another, which is now idle
  const pid_t child = test::in_child([&] {
    const int before = test::open_descriptors();
    const int wrong = wrong_look_ups(store_, "child ", 1);
    return wrong == 0 && test::open_descriptors() == before - 2 + 1 ? 0 : 1;
  });
  EXPECT_EQ(test::wait_for(child), 0);
  node_.server().stop();
  in_use.join();
}

TEST_F(RemoteFork, LetsAChildDestroyItsCopy) {
  auto store = std::make_unique<RemoteStore>(test::kCacheName, settings_of({node_.address()}));
  EXPECT_EQ(wrong_look_ups(*store, "before ", 1), 0);
  const pid_t child = test::in_child([&] {
    store.reset();
    return 0;
  });
  EXPECT_EQ(test::wait_for(child), 0);
  EXPECT_EQ(wrong_look_ups(*store, "after ", 1), 0);
  EXPECT_EQ(node_.server().connections(), 1u);
}

TEST_F(RemoteFork, ServesSixtyFourThreadsAndKeepsTwoConnections) {
  const int before = test::open_descriptors();
  std::atomic<int> wrong{0};
  test::run_threads(64, [&](int thread) {
    wrong += wrong_look_ups(store_, std::to_string(thread) + " ", 100);
    wrong += wrong_look_ups(store_, "shared ", 100);
  });
  EXPECT_EQ(wrong, 0);
  // The server, which is in this process, has as many, once it has heard of those that are closed.
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  while (test::open_descriptors() > before + 4 && std::chrono::steady_clock::now() < end) {
  }
  EXPECT_LE(test::open_descriptors(), before + 4);
}
