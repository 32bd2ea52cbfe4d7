// Replies that are cut, too large, malformed or too many.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "src/connection.h"
#include "support/remote_client.h"
#include "support/scripted_server.h"

using quorvane::remote::Connection;
using test::ask;
using test::bulk;
using test::connect_to;

namespace {

constexpr char kBeyond[] = "failed: a reply beyond the limit";
constexpr char kMalformed[] = "failed: a malformed reply";
constexpr char kSurplus[] = "failed: more replies than commands";

// The most address space that this process has had.
std::size_t peak_kib() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word == "VmPeak:") {
      std::size_t kib = 0;
      status >> kib;
      return kib;
    }
  }
  return 0;
}

std::string reply_of(const std::string& bytes, std::size_t limit = test::kReplyLimit) {
  test::ScriptedServer server(test::answers({{"GET a", bytes}}));
  return ask(*connect_to(server.address(), limit), {"GET", "a"});
}

TEST(ReplyLimit, FailsAtACloseAfterEachByte) {
  const std::string whole = "*4\r\n$5\r\nvalue\r\n*2\r\n:12\r\n$-1\r\n+OK\r\n-ERR a\r\n";
  test::ScriptedServer server(test::answers({}));
  for (std::size_t size = 0; size < whole.size(); ++size) {
    server.play(test::answers({{"GET a", test::Answer(whole).cut_after(size)}}));
    EXPECT_EQ(ask(*connect_to(server.address()), {"GET", "a"}),
              "failed: the server closed the connection")
        << size;
  }
  server.play(test::answers({{"GET a", test::Answer(whole).cut_after(whole.size())}}));
  EXPECT_EQ(ask(*connect_to(server.address()), {"GET", "a"}), "[value [:12 (nil)] +OK -ERR a]");
}

TEST(ReplyLimit, CountsTheBytesOfAString) {
  EXPECT_EQ(reply_of(bulk("0123456789"), 10), "0123456789");
  EXPECT_EQ(reply_of("*1\r\n" + bulk("0123456789"), 56 + 10), "[0123456789]");
  EXPECT_EQ(reply_of("*1\r\n" + bulk("0123456789"), 56 + 9), kBeyond);
}

TEST(ReplyLimit, CountsTheBytesOfLines) {
  EXPECT_EQ(reply_of("+01234567\r\n", 9), "+01234567");
  EXPECT_EQ(reply_of("+01234567\r\n", 8), kBeyond);
  EXPECT_EQ(reply_of("-" + std::string(100'000, 'e'), 50'000), kBeyond);  // without an end
}

TEST(ReplyLimit, CountsTheElementsOfArrays) {
  const std::string elements = "*3\r\n" + bulk("a") + "*1\r\n" + bulk("b") + bulk("c");
  EXPECT_EQ(reply_of(elements, 4 * 56 + 3), "[a [b] c]");
  EXPECT_EQ(reply_of(elements, 4 * 56 + 2), kBeyond);
}

TEST(ReplyLimit, CountsEachReplyAnew) {
  test::ScriptedServer server(test::answers({{"*", bulk("0123456789")}}));
  const auto connection = connect_to(server.address(), 10);
  for (int i = 0; i < 100; ++i) {
    connection->add({"GET", "a"});
  }
  run({connection.get()}, test::far_deadline());
  EXPECT_EQ(connection->take_replies().size(), 100U);
}

TEST(ReplyLimit, KeepsAnAnnouncementFromTakingMemory) {
  const std::size_t before = peak_kib();
  ASSERT_GT(before, 0U);
  for (const std::string bytes :
       {"$9999999999\r\n", "*1000000000\r\n", "*2147483647\r\n", "*3\r\n:1\r\n*1000000000\r\n",
        "*2\r\n*2\r\n*2\r\n*2\r\n*1000000000\r\n", "*9223372036854775807\r\n",
        "$9223372036854775807\r\n"}) {
    EXPECT_EQ(reply_of(bytes), kBeyond) << bytes;
  }
  // The least of them would take 8 GiB. The address space that threads reserve counts, too.
  EXPECT_LT(peak_kib() - before, 1024U * 1024);
}

// --- strings beyond the limit ---

// Sends `begin`, then so many letters, then `end`, in pieces of one size, without a copy of them.
class LongStream final : public quorvane::remote::Stream {
 public:
  LongStream(std::string begin, std::size_t letters, std::string end, std::size_t piece)
      : begin_(std::move(begin)), letters_(letters), end_(std::move(end)), piece_(piece) {}

  int fd() const override { return -1; }
  Io connect() override { return Io::done; }
  Io send(const char*, std::size_t size, std::size_t& sent) override {
    sent = size;
    return Io::done;
  }
  Io receive(char* data, std::size_t size, std::size_t& received) override {
    for (received = 0; received < std::min(piece_, size) && has_pending(); ++received, ++at_) {
      const bool is_letter = at_ >= begin_.size() && at_ - begin_.size() < letters_;
      data[received] = is_letter             ? 'x'
                       : at_ < begin_.size() ? begin_[at_]
                                             : end_[at_ - begin_.size() - letters_];
    }
    return received != 0 ? Io::done : Io::wants_read;
  }
  bool has_pending() const override { return at_ < begin_.size() + letters_ + end_.size(); }
  bool is_quiet() override { return true; }
  std::string error() const override { return "none"; }

 private:
  const std::string begin_;
  const std::size_t letters_;
  const std::string end_;
  const std::size_t piece_;
  std::size_t at_ = 0;
};

std::unique_ptr<Connection> receiving(std::string begin, std::size_t letters, std::string end,
                                      std::size_t piece, std::size_t commands) {
  auto connection = std::make_unique<Connection>(
      std::make_unique<LongStream>(std::move(begin), letters, std::move(end), piece), 10);
  for (std::size_t i = 0; i < commands; ++i) {
    connection->add({"GET", "a"});
  }
  do {
    connection->advance();
  } while (connection->has_more());
  return connection;
}

TEST(ReplyLimit, GivesNilForAStringBeyondIt) {
  EXPECT_EQ(reply_of(bulk("0123456789"), 9), "(nil)");
}

TEST(ReplyLimit, KeepsTheRepliesAroundAStringBeyondIt) {
  const std::string begin = bulk("1") + "$30\r\n";
  const std::string end = "\r\n" + bulk("2") + bulk("eleven char") + bulk("eleven char") + ":3\r\n";
  for (std::size_t piece = 1; piece < begin.size() + 30 + end.size(); ++piece) {
    const auto connection = receiving(begin, 30, end, piece, 6);
    ASSERT_TRUE(connection->is_done()) << piece << ": " << connection->error();
    EXPECT_THAT(test::shown(connection->take_replies()),
                testing::ElementsAre("1", "(nil)", "2", "(nil)", "(nil)", ":3"))
        << piece;
    EXPECT_TRUE(connection->is_reusable());
  }
}

TEST(ReplyLimit, DoesNotWaitForTheRestOfAStringBeyondIt) {
  const auto connection = receiving("$30\r\n", 29, "", 1000, 1);
  EXPECT_TRUE(connection->is_done());
  EXPECT_FALSE(connection->is_reusable());
}

TEST(ReplyLimit, ChecksTheEndOfAStringBeyondIt) {
  const auto connection = receiving("$30\r\n", 30, "x\n" + bulk("2"), 1000, 2);
  EXPECT_EQ("failed: " + connection->error(), kMalformed);
  EXPECT_THAT(test::shown(connection->take_replies()), testing::ElementsAre("(nil)"));
}

TEST(ReplyLimit, TakesNoMemoryForAStringBeyondIt) {
  constexpr std::size_t kLetters = std::size_t{64} << 20;
  const std::size_t before = peak_kib();
  const auto connection =
      receiving("$" + std::to_string(kLetters) + "\r\n", kLetters, "\r\n" + bulk("2"), 16'384, 2);
  EXPECT_THAT(test::shown(connection->take_replies()), testing::ElementsAre("(nil)", "2"));
  EXPECT_LT(peak_kib() - before, 10U * 1024);
}

// A server may send such a string as fast as it is received.
TEST(ReplyLimit, LetsOtherConnectionsHaveTheirTurnDuringAStringBeyondIt) {
  constexpr std::size_t kLetters = std::size_t{1} << 20;
  Connection connection(
      std::make_unique<LongStream>("$1048576\r\n", kLetters, "\r\n" + bulk("2"), 16'384), 10);
  connection.add({"GET", "a"});
  connection.add({"GET", "b"});
  connection.advance();
  EXPECT_TRUE(connection.has_more());
  EXPECT_FALSE(connection.is_done());
}

// --- what can't be read ---

TEST(ReplyLimit, RefusesWhatIsNoReply) {
  for (const std::string bytes :
       {"?",
        "\r\n",
        "%1\r\n",
        "$\r\n",
        "$-2\r\n",
        "$-\r\n",
        "$--1\r\n",
        "$1x\r\n",
        "$1\rx",
        "$ 1\r\n",
        "$99999999999999999999\r\n",
        "*-2\r\n",
        "*\r\n",
        "*1 \r\n",
        "$2\r\nabc\r\n",
        "$2\r\nab\rc",
        "$0\r\nx",
        ":\r\n",
        ":x\r\n",
        "$01\r\na\r\n",
        "*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n*1\r\n:1\r\n"}) {
    EXPECT_EQ(reply_of(bytes), kMalformed) << bytes;
  }
}

TEST(ReplyLimit, RefusesMoreRepliesThanCommands) {
  EXPECT_EQ(reply_of("+OK\r\n+OK\r\n"), kSurplus);
  EXPECT_EQ(reply_of("+OK\r\n+"), kSurplus);
  EXPECT_EQ(reply_of("*0\r\n$"), kSurplus);
}

}  // namespace
