// Caches on a real server over TLS.
#include <quorvane/cache.h>
#include <quorvane/remote_store.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/certificates.h"
#include "support/redis_servers.h"
#include "support/remote_cache.h"

namespace {

using test::add;
using test::add_numbered;
using test::Authority;
using test::ends_soon;
using test::get;
using test::hasty;
using test::look_up;
using test::numbered_keys;
using test::open_remote;
using test::patient;
using test::prefetch;
using test::Ran;
using test::records_of_refusal;
using test::RedisServer;
using test::RemoteSettings;
using test::RemoteVariables;
using test::run_remote;
using test::without_lines;
using testing::Contains;
using Records = std::vector<std::string>;
using Port = RedisServer::Port;

const std::string kHere = "127.0.0.1";
const std::string kReset = "Connection reset by peer";

class RemoteTls : public testing::Test {
 protected:
  // Of a server with this certificate.
  RedisServer::Words options(const std::string& name, bool asks_clients = false) const {
    return {"--tls-cert-file",    authority_.certificate(name), "--tls-key-file",
            authority_.key(name), "--tls-ca-cert-file",         authority_.file(),
            "--tls-auth-clients", asks_clients ? "yes" : "no"};
  }

  // Of a client that trusts the authority.
  RemoteVariables trusting(const RedisServer& server) const {
    RemoteVariables variables = patient(server.address());
    variables["_CA_FILE"] = authority_.file();
    return variables;
  }

  const Authority authority_;
};

// A value comes there and back.
void expect_shared() {
  {
    const auto writer = open_remote();
    EXPECT_TRUE(add(*writer, "key", "value"));
    EXPECT_TRUE(writer->flush());
  }
  EXPECT_EQ(get(*open_remote(), "key"), "value");
}

SCENARIO(use_remote_cache) { return test::use_remote_cache(arguments); }

// Look-ups miss, nothing is stored, and a record says why: one of `reasons`, which may depend on
// who closes first.
void expect_refused(RedisServer& server, const RemoteVariables& variables,
                    const std::vector<std::string>& reasons) {
  Ran ran;
  EXPECT_TRUE(ends_soon([&] {
    ran = run_remote(variables, {"add=own", "lookups=1000", "get=own", "flush"}, "WARN");
  }));
  EXPECT_TRUE(ran.exited_with(0));
  EXPECT_EQ(ran.out, "1000 missing\nvalue of own\nflush 0\n");
  std::vector<Records> possible;
  for (const std::string& reason : reasons) {
    possible.push_back(records_of_refusal(
        {"WARN Cache server " + server.address() + " isn't asked for a while: " + reason}, 1, 1,
        "no server can be reached"));
  }
  EXPECT_THAT(possible, Contains(without_lines(ran.messages())));
  EXPECT_EQ(server.number({"DBSIZE"}), 0U);
}

TEST_F(RemoteTls, AServerThatTheAuthorityVouchesForIsUsed) {
  authority_.sign("server", kHere);
  const RedisServer server(Port::tls, options("server"));
  const RemoteSettings settings(trusting(server));
  expect_shared();
}

TEST_F(RemoteTls, ManyAndLargeEntriesComeThrough) {
  authority_.sign("server", kHere);
  const RedisServer server(Port::tls, options("server"));
  const RemoteSettings settings(trusting(server));
  const std::string large(1000000, 'v');
  const auto writer = open_remote();
  add_numbered(*writer, 0, 3000);
  EXPECT_TRUE(add(*writer, "large", large));
  EXPECT_TRUE(writer->flush());
  const auto cache = open_remote();
  prefetch(*cache, numbered_keys(0, 3000));
  EXPECT_EQ(look_up(*cache, 0, 3000).right, 3000U);
  EXPECT_EQ(get(*cache, "large"), large);
}

TEST_F(RemoteTls, AClientShowsItsCertificateToAServerThatAsksForIt) {
  authority_.sign("server", kHere);
  authority_.sign("client", "127.0.0.9");
  RedisServer server(Port::tls, options("server", true));
  auto settings = trusting(server);
  expect_refused(server, settings, {"TLS: tlsv13 alert certificate required", kReset});
  settings["_CERT_FILE"] = authority_.certificate("client");
  settings["_KEY_FILE"] = authority_.key("client");
  const RemoteSettings named(settings);
  expect_shared();
}

TEST_F(RemoteTls, AServerOfAnotherAuthorityIsRefused) {
  authority_.sign("server", kHere);
  RedisServer server(Port::tls, options("server"));
  const Authority other;
  auto settings = trusting(server);
  settings["_CA_FILE"] = other.file();
  expect_refused(server, settings, {"TLS: self-signed certificate in certificate chain"});
}

TEST_F(RemoteTls, ACertificateOfAnotherAddressIsRefused) {
  authority_.sign("elsewhere", "127.0.0.2");
  RedisServer server(Port::tls, options("elsewhere"));
  expect_refused(server, trusting(server), {"TLS: IP address mismatch"});
}

TEST_F(RemoteTls, AnExpiredCertificateIsRefused) {
  authority_.sign("expired", kHere, -1);
  RedisServer server(Port::tls, options("expired"));
  expect_refused(server, trusting(server), {"TLS: certificate has expired"});
}

TEST_F(RemoteTls, APlainServerIsRefused) {
  RedisServer server(Port::plain);
  // It waits for the end of what it takes for a line, or finds one in what is encrypted.
  RemoteVariables variables = hasty(server.address());
  variables["_CA_FILE"] = authority_.file();
  expect_refused(server, variables,
                 {"no reply within the time limit", "TLS: wrong version number"});
}

TEST_F(RemoteTls, ARefusedConnectionIsNotCalledAnErrorOfTls) {
  authority_.sign("server", kHere);
  RedisServer server(Port::tls, options("server"));
  server.kill();
  const Ran ran = run_remote(trusting(server), {"lookups=10"}, "WARN");
  EXPECT_THAT(ran.messages(), Contains("WARN Cache server " + server.address() +
                                       " isn't asked for a while: Connection refused"));
}

TEST_F(RemoteTls, AServerThatWantsTlsIsNotSpokenToInPlainText) {
  authority_.sign("server", kHere);
  RedisServer server(Port::tls, options("server"));
  expect_refused(server, patient(server.address()), {kReset, "the server closed the connection"});
}

}  // namespace
