// Encrypted connections, and servers that mustn't be trusted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>

#include "src/tls_context.h"
#include "support/listener.h"
#include "support/remote_client.h"
#include "support/scenario.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/tls_server.h"

using namespace std::chrono_literals;
using quorvane::remote::Deadline;
using quorvane::remote::TlsContext;
using test::ask;
using test::connect_to;

namespace {

class Tls : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = std::make_unique<test::TempDir>();
    const std::string& path = dir_->path();
    test::make_authority(path, "ca");
    test::make_authority(path, "other_ca");
    test::make_certificate(path, "good", "ca", "127.0.0.1");
    test::make_certificate(path, "elsewhere", "ca", "127.0.0.2");
    test::make_certificate(path, "expired", "ca", "127.0.0.1", -1);
    test::make_certificate(path, "client", "ca", "");
  }
  static void TearDownTestSuite() { dir_.reset(); }

  static std::string file(const std::string& name) { return dir_->file(name); }

  // A context that trusts `authority`.
  static std::unique_ptr<TlsContext> trusting(const std::string& authority,
                                              const std::string& client = "") {
    std::string error;
    auto context =
        TlsContext::make(file(authority + ".crt"), client.empty() ? "" : file(client + ".crt"),
                         client.empty() ? "" : file(client + ".key"), error);
    EXPECT_EQ(error, "");
    return context;
  }

  // What a client that trusts `authority` gets from a server with this certificate.
  static std::string answer_of(const std::string& certificate, const std::string& authority) {
    const test::TlsServer server(dir_->path(), certificate);
    const auto context = trusting(authority);
    return ask(*connect_to(server.address(), test::kReplyLimit, context.get()), {"PING"});
  }

  // Why no context can be made of these files.
  static std::string refusal(const std::string& ca, const std::string& cert,
                             const std::string& key) {
    std::string error;
    EXPECT_EQ(TlsContext::make(ca, cert, key, error), nullptr);
    return error;
  }

  static std::unique_ptr<test::TempDir> dir_;
};

std::unique_ptr<test::TempDir> Tls::dir_;

TEST_F(Tls, TrustsTheServerOfItsAuthority) { EXPECT_EQ(answer_of("good", "ca"), "+OK"); }

TEST_F(Tls, RefusesAServerOfAnotherAuthority) {
  EXPECT_EQ(answer_of("good", "other_ca"), "failed: TLS: unable to get local issuer certificate");
}

TEST_F(Tls, RefusesACertificateOfAnotherAddress) {
  EXPECT_EQ(answer_of("elsewhere", "ca"), "failed: TLS: IP address mismatch");
}

TEST_F(Tls, RefusesACertificateThatHasExpired) {
  EXPECT_EQ(answer_of("expired", "ca"), "failed: TLS: certificate has expired");
}

TEST_F(Tls, RefusesTheCertificateOfAClient) {
  EXPECT_THAT(answer_of("client", "ca"), testing::StartsWith("failed: TLS: "));
}

TEST_F(Tls, RefusesAPlainServer) {
  test::ScriptedServer server(test::answers({{"*", test::ok()}}));
  const auto context = trusting("ca");
  EXPECT_EQ(ask(*connect_to(server.address(), test::kReplyLimit, context.get()), {"PING"}),
            "failed: TLS: wrong version number");
}

TEST_F(Tls, EndsAtTheDeadlineWhenAServerStopsInTheHandshake) {
  const test::TempDir dir;
  const test::Listener listener(dir.file("socket"));
  const auto context = trusting("ca");
  const auto connection = connect_to(dir.file("socket"), test::kReplyLimit, context.get());
  const int server = listener.take();
  ASSERT_TRUE(test::send_to(server, std::string("\x16\x03\x03\x01\x00\x02", 6)));
  EXPECT_EQ(ask(*connection, {"PING"}, Deadline(50ms)), "failed: no reply within the time limit");
  close(server);
}

TEST_F(Tls, CarriesMoreThanARecordInBothDirections) {
  const std::string value(1'000'000, 'v');
  const test::TlsServer server(dir_->path(), "good", "", test::bulk(value));
  const auto context = trusting("ca");
  const auto connection = connect_to(server.address(), test::kReplyLimit, context.get());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(ask(*connection, {value}), value);
  }
}

// OpenSSL's own way of sending would raise the signal.
TEST_F(Tls, DoesNotRaiseSigpipe) {
  EXPECT_TRUE(
      test::run_scenario("sends_to_a_closed_tls_peer", {}, {file("ca.crt")}).exited_with(0));
}

SCENARIO(sends_to_a_closed_tls_peer) {
  signal(SIGPIPE, SIG_DFL);
  std::string error;
  const auto context = TlsContext::make(arguments.front(), "", "", error);
  const test::TempDir dir;
  const test::Listener listener(dir.file("socket"));
  const auto connection = connect_to(dir.file("socket"), test::kReplyLimit, context.get());
  close(listener.take());
  return testing::Matches(testing::StartsWith("failed: "))(ask(*connection, {"PING"})) ? 0 : 1;
}

TEST_F(Tls, ShowsItsOwnCertificate) {
  const test::TlsServer server(dir_->path(), "good", "ca");
  const auto context = trusting("ca", "client");
  EXPECT_EQ(ask(*connect_to(server.address(), test::kReplyLimit, context.get()), {"PING"}), "+OK");
}

TEST_F(Tls, SaysThatTheServerDemandsACertificate) {
  const test::TlsServer server(dir_->path(), "good", "ca");
  const auto context = trusting("ca");
  EXPECT_EQ(ask(*connect_to(server.address(), test::kReplyLimit, context.get()), {"PING"}),
            "failed: TLS: tlsv13 alert certificate required");
}

TEST_F(Tls, CanBeUsedAgainAfterItsReplies) {
  const test::TlsServer server(dir_->path(), "good");
  const auto context = trusting("ca");
  const auto connection = connect_to(server.address(), test::kReplyLimit, context.get());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(ask(*connection, {"PING"}), "+OK");
    EXPECT_TRUE(connection->is_reusable());
  }
}

TEST_F(Tls, NamesTheFileThatItCannotUse) {
  const std::string text = file("text");
  test::write_file(text, "no certificate\n");
  EXPECT_THAT(refusal(file("none"), "", ""), testing::StartsWith(file("none") + ": "));
  EXPECT_THAT(refusal(text, "", ""), testing::StartsWith(text + ": "));
  EXPECT_THAT(refusal(file("ca.crt"), text, file("client.key")), testing::StartsWith(text + ": "));
  EXPECT_THAT(refusal(file("ca.crt"), file("client.crt"), text), testing::StartsWith(text + ": "));
  const std::string fifo = file("fifo");  // has no writer
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(refusal(fifo, "", ""), fifo + ": not a regular file");
  EXPECT_EQ(refusal(file("ca.crt"), fifo, file("client.key")), fifo + ": not a regular file");
  EXPECT_EQ(refusal(file("ca.crt"), file("client.crt"), fifo), fifo + ": not a regular file");
  EXPECT_EQ(refusal(file("ca.crt"), file("client.crt"), file("good.key")),
            file("good.key") + ": key values mismatch");
}

}  // namespace
