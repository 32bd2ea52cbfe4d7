// Pipelines of commands, and the ways in which a server doesn't answer them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "src/connection.h"
#include "support/descriptors.h"
#include "support/interrupt.h"
#include "support/listener.h"
#include "support/no_memory.h"
#include "support/remote_client.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"

using namespace std::chrono_literals;
using quorvane::remote::Connection;
using quorvane::remote::Deadline;
using test::ask;
using test::bulk;
using test::connect_to;
using test::shown;
using testing::ElementsAre;

namespace {

constexpr char kTooLate[] = "no reply within the time limit";

TEST(Connection, SendsBinaryWordsAsTheyAre) {
  test::ScriptedServer server(test::answers({{"*", test::ok()}}));
  const std::string binary("\0\r\n$1\r\n\xff", 8);
  EXPECT_EQ(ask(*connect_to(server.address()), {"SET", binary, ""}), "+OK");
  EXPECT_THAT(server.commands(), ElementsAre(test::Words{"SET", binary, ""}));
}

TEST(Connection, GivesTheRepliesInTheOrderOfTheCommands) {
  test::ScriptedServer server(test::answers({{"GET a", bulk("1")},
                                             {"GET b", test::nil()},
                                             {"GET c", "-ERR no\r\n"},
                                             {"GET d", "*3\r\n:-5\r\n*0\r\n$-1\r\n"},
                                             {"GET e", bulk("")}}));
  const auto connection = connect_to(server.address());
  for (const char* const key : {"a", "b", "c", "d", "e"}) {
    connection->add({"GET", key});
  }
  run({connection.get()}, test::far_deadline());
  ASSERT_TRUE(connection->is_done()) << connection->error();
  EXPECT_THAT(shown(connection->take_replies()),
              ElementsAre("1", "(nil)", "-ERR no", "[:-5 [] (nil)]", ""));
}

TEST(Connection, WorksOverAUnixSocket) {
  const test::TempDir dir;
  test::ScriptedServer server(test::answers({{"GET a", bulk("1")}}), dir.file("socket"));
  EXPECT_EQ(ask(*connect_to(server.address()), {"GET", "a"}), "1");
}

TEST(Connection, CanBeUsedAgainAfterItsReplies) {
  test::ScriptedServer server(test::answers({{"GET a", bulk("1")}, {"GET b", bulk("2")}}));
  const auto connection = connect_to(server.address());
  EXPECT_EQ(ask(*connection, {"GET", "a"}), "1");
  EXPECT_TRUE(connection->is_reusable());
  EXPECT_EQ(ask(*connection, {"GET", "b"}), "2");
  EXPECT_EQ(server.connections(), 1U);
}

TEST(Connection, ReadsAReplyThatComesByteByByte) {
  test::ScriptedServer server(
      test::answers({{"GET a", test::Answer("*2\r\n$3\r\nabc\r\n+O\rK\r\n").dribbled(1ms)}}));
  EXPECT_EQ(ask(*connect_to(server.address()), {"GET", "a"}), "[abc +O\rK]");
}

TEST(Connection, PipelinesThousandsOfCommands) {
  test::ScriptedServer server([](const test::Words& command) { return bulk(command[1]); });
  const auto connection = connect_to(server.address());
  std::vector<std::string> keys;
  for (int i = 0; i < 10000; ++i) {
    keys.push_back(std::to_string(i) + std::string(300, 'k'));
    connection->add({"GET", keys.back()});
  }
  run({connection.get()}, test::far_deadline());
  EXPECT_EQ(shown(connection->take_replies()), keys);
}

// Such a server blocks while nobody takes its replies, and then takes no commands.
TEST(Connection, TakesRepliesWhileItSends) {
  constexpr int kCommands = 100;
  const std::string word(100'000, 'w');
  const test::TempDir dir;
  const test::Listener listener(dir.file("socket"));
  std::thread server([&] {
    const int fd = listener.take();
    const std::size_t size = bulk(word).size() + std::string("*1\r\n").size();
    for (int i = 0; i < kCommands && test::receive_from(fd, size).size() == size; ++i) {
      test::send_to(fd, bulk(word));
    }
    close(fd);
  });
  const auto connection = connect_to(dir.file("socket"));
  for (int i = 0; i < kCommands; ++i) {
    connection->add({word});
  }
  run({connection.get()}, test::far_deadline());
  EXPECT_EQ(connection->error(), "");
  EXPECT_TRUE(shown(connection->take_replies()) == std::vector<std::string>(kCommands, word));
  shutdown(connection->fd(), SHUT_RDWR);  // lets the server go
  server.join();
}

TEST(Connection, WaitsForTheRestOfAReply) {
  const test::TempDir dir;
  const test::Listener listener(dir.file("socket"));
  for (const std::size_t size :
       {std::size_t{10}, std::size_t{10'000'000}}) {  // sent at once, or not
    const auto connection = connect_to(dir.file("socket"));
    const int server = listener.take();
    connection->add({std::string(size, 'w')});
    connection->advance();
    EXPECT_TRUE((connection->events() & POLLIN) != 0);
    ASSERT_TRUE(test::send_to(server, "$5\r\nva"));
    connection->advance();
    EXPECT_EQ(connection->events(), size == 10 ? POLLIN : POLLIN | POLLOUT);
    close(server);
  }
}

TEST(Connection, EndsAtTheDeadlineWhileAServerDribbles) {
  test::ScriptedServer server(
      test::answers({{"GET a", test::Answer(bulk(std::string(1'000'000, 'v'))).dribbled(1ms)}}));
  EXPECT_EQ(ask(*connect_to(server.address()), {"GET", "a"}, Deadline(50ms)),
            std::string("failed: ") + kTooLate);
}

TEST(Connection, EndsAtTheDeadlineWhileAServerIsSilent) {
  test::ScriptedServer server(test::answers({{"GET a", ""}}));
  EXPECT_EQ(ask(*connect_to(server.address()), {"GET", "a"}, Deadline(20ms)),
            std::string("failed: ") + kTooLate);
}

TEST(Connection, EndsAtTheDeadlineWhileAServerReadsNothing) {
  const test::TempDir dir;
  const test::Listener listener(dir.file("socket"));
  EXPECT_EQ(ask(*connect_to(dir.file("socket")), {std::string(10'000'000, 'v')}, Deadline(20ms)),
            std::string("failed: ") + kTooLate);
}

// The process may have been stopped while the reply came.
TEST(Connection, TakesAReplyThatIsThereWhenTheDeadlineHasPassed) {
  const test::TempDir dir;
  const test::Listener listener(dir.file("socket"));
  const auto connection = connect_to(dir.file("socket"));
  const int server = listener.take();
  ASSERT_TRUE(test::send_to(server, "+OK\r\n"));
  EXPECT_EQ(ask(*connection, {"PING"}, Deadline(0ms)), "+OK");
  close(server);
}

TEST(Connection, FailsAloneWhenOthersGetTheirReplies) {
  test::ScriptedServer server(test::answers({{"GET a", bulk("1")}, {"GET b", ""}}));
  std::vector<std::unique_ptr<Connection>> connections;
  std::vector<Connection*> driven;
  for (int i = 0; i < 64; ++i) {
    connections.push_back(connect_to(server.address()));
    connections.back()->add({"GET", i == 7 ? "b" : "a"});
    driven.push_back(connections.back().get());
  }
  run(driven, Deadline(2s));
  for (std::size_t i = 0; i < 64; ++i) {
    EXPECT_EQ(connections[i]->error(), i == 7 ? kTooLate : "");
    EXPECT_EQ(connections[i]->is_done(), i != 7);
  }
}

TEST(Connection, NeitherEndsNorWaitsLongerWhenSignalsInterruptIt) {
  test::let_signals_interrupt();
  test::ScriptedServer server(
      test::answers({{"GET a", test::Answer(bulk("value")).dribbled(5ms)}, {"GET b", ""}}));
  const pid_t tid = gettid();
  std::atomic<bool> ends{false};
  std::thread storm([&] {
    while (!ends) {
      test::interrupt(tid);
    }
  });
  EXPECT_EQ(ask(*connect_to(server.address()), {"GET", "a"}), "value");
  EXPECT_EQ(ask(*connect_to(server.address()), {"GET", "b"}, Deadline(50ms)),
            std::string("failed: ") + kTooLate);
  ends = true;
  storm.join();
}

TEST(Connection, SaysThatNobodyListens) {
  std::string address;
  {
    const test::ScriptedServer server(test::answers({}));
    address = server.address();
  }
  const auto connection = connect_to(address);
  EXPECT_EQ(ask(*connection, {"PING"}), "failed: Connection refused");
  EXPECT_FALSE(connection->is_reusable());
}

TEST(Connection, GivesTheReplyOfAServerThatRefusesTheConnection) {
  const test::TempDir dir;
  const test::Listener listener(dir.file("socket"));
  const auto connection = connect_to(dir.file("socket"));
  const int server = listener.take();
  ASSERT_TRUE(test::send_to(server, "-ERR max number of clients reached\r\n"));
  close(server);  // sending now fails
  connection->add({"AUTH", "secret"});
  connection->add({"GET", "a"});
  run({connection.get()}, test::far_deadline());
  EXPECT_TRUE(connection->has_failed());
  EXPECT_THAT(shown(connection->take_replies()), ElementsAre("-ERR max number of clients reached"));
}

// The server would take the next command for the rest of this one.
TEST(Connection, FailsWhenTheReplyComesBeforeTheWholeCommand) {
  const test::TempDir dir;
  const test::Listener listener(dir.file("socket"));
  const auto connection = connect_to(dir.file("socket"));
  const int server = listener.take();
  ASSERT_TRUE(test::send_to(server, "+OK\r\n"));
  connection->add({std::string(10'000'000, 'v')});
  run({connection.get()}, test::far_deadline());
  connection->take_replies();
  EXPECT_EQ(connection->error(), "a reply came before its command");
  EXPECT_FALSE(connection->is_reusable());
  close(server);
}

TEST(Connection, ThatWasGivenUpCannotBeUsedAgain) {
  test::ScriptedServer server(test::answers({{"GET a", bulk("1")}}));
  const auto connection = connect_to(server.address());
  EXPECT_EQ(ask(*connection, {"GET", "a"}), "1");
  connection->add({"GET", "a"});
  EXPECT_FALSE(connection->is_reusable());
}

TEST(Connection, ThatNeverConnectedCannotBeUsedAgain) {
  const test::ScriptedServer server(test::answers({}));
  EXPECT_FALSE(connect_to(server.address())->is_reusable());
}

TEST(Connection, CannotBeUsedAgainWhenTheServerClosedItOrSentSomethingUnasked) {
  const test::TempDir dir;
  const test::Listener listener(dir.file("socket"));
  for (const std::string unasked : {"", "+OK\r\n", "+"}) {
    const auto connection = connect_to(dir.file("socket"));
    const int server = listener.take();
    ASSERT_TRUE(test::send_to(server, "+OK\r\n"));
    EXPECT_EQ(ask(*connection, {"PING"}), "+OK");
    EXPECT_TRUE(connection->is_reusable());
    ASSERT_TRUE(test::send_to(server, unasked));
    if (unasked.empty()) {
      close(server);
    }
    EXPECT_FALSE(connection->is_reusable()) << unasked;
    if (!unasked.empty()) {
      close(server);
    }
  }
}

TEST(Connection, LeaksNoDescriptorOverTenThousandFailures) {
  const test::TempDir dir;
  test::ScriptedServer server(test::answers({{"GET a", test::Answer(bulk("value")).cut_after(7)},
                                             {"GET b", "$9999999999\r\n"},
                                             {"GET c", "+OK\r\n+OK\r\n"}}),
                              dir.file("socket"));
  const int before = test::open_descriptors();
  for (int i = 0; i < 10'000; ++i) {
    const char* const key = i % 3 == 0 ? "a" : i % 3 == 1 ? "b" : "c";
    ASSERT_THAT(ask(*connect_to(server.address()), {"GET", key}), testing::StartsWith("failed"));
  }
  server.stop();
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(
        quorvane::remote::open_stream(*quorvane::remote::Address::parse(server.address()), nullptr),
        nullptr);
  }
  server.start();
  EXPECT_EQ(test::open_descriptors(), before);
}

TEST(Connection, SurvivesAnyAllocationThatFails) {
  test::ScriptedServer server(test::answers({{"GET a", bulk("1")}, {"*", ""}}));
  bool one_failed = true;
  for (std::size_t successes = 0; one_failed; ++successes) {
    ASSERT_LT(successes, 100U);
    const auto connection = connect_to(server.address());
    bool was_thrown = false;
    test::FailingAllocation failing(successes);
    try {
      connection->add({"GET", "a"});
      run({connection.get()}, test::far_deadline());
    } catch (const std::bad_alloc&) {
      was_thrown = true;
    }
    one_failed = test::FailingAllocation::end();
    EXPECT_EQ(connection->is_reusable(), !was_thrown && !connection->has_failed());
    EXPECT_EQ(was_thrown || connection->has_failed(), one_failed);
  }
}

}  // namespace
