// Which texts are addresses of servers.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <cstring>

#include "src/address.h"

using quorvane::remote::Address;

namespace {

template <typename Socket>
Socket socket_of(const Address& address) {
  Socket socket;
  std::memcpy(&socket, &address.socket, sizeof(socket));
  return socket;
}

TEST(Address, ReadsAnIpv4AddressAndItsPort) {
  const auto address = Address::parse("127.0.0.1:6379");
  ASSERT_TRUE(address);
  EXPECT_EQ(address->text, "127.0.0.1:6379");
  EXPECT_EQ(address->host, "127.0.0.1");
  EXPECT_FALSE(address->is_unix());
  const auto socket = socket_of<sockaddr_in>(*address);
  EXPECT_EQ(socket.sin_family, AF_INET);
  EXPECT_EQ(ntohs(socket.sin_port), 6379);
  EXPECT_EQ(ntohl(socket.sin_addr.s_addr), INADDR_LOOPBACK);
  EXPECT_EQ(address->size, sizeof(sockaddr_in));
}

TEST(Address, ReadsAnIpv6AddressAndItsPort) {
  const auto address = Address::parse("[2001:db8::7]:65535");
  ASSERT_TRUE(address);
  EXPECT_EQ(address->text, "[2001:db8::7]:65535");
  EXPECT_EQ(address->host, "2001:db8::7");
  const auto socket = socket_of<sockaddr_in6>(*address);
  EXPECT_EQ(socket.sin6_family, AF_INET6);
  EXPECT_EQ(ntohs(socket.sin6_port), 65535);
  EXPECT_EQ(socket.sin6_addr.s6_addr[15], 7);
  EXPECT_EQ(address->size, sizeof(sockaddr_in6));
}

TEST(Address, SpellsAnAddressInOneWay) {
  const auto address = Address::parse("[2001:DB8:0:0:0:0:0:7]:06379");
  ASSERT_TRUE(address);
  EXPECT_EQ(*address, *Address::parse("[2001:db8::7]:6379"));
}

TEST(Address, ReadsThePathOfAUnixSocket) {
  const auto address = Address::parse("/run/a b:1");
  ASSERT_TRUE(address);
  EXPECT_EQ(address->text, "/run/a b:1");
  EXPECT_EQ(address->host, "");
  EXPECT_TRUE(address->is_unix());
  EXPECT_STREQ(socket_of<sockaddr_un>(*address).sun_path, "/run/a b:1");
}

TEST(Address, RefusesAPathThatASocketCannotHave) {
  const std::string longest = "/" + std::string(sizeof(sockaddr_un::sun_path) - 2, 'p');
  EXPECT_TRUE(Address::parse(longest));
  EXPECT_FALSE(Address::parse(longest + "p"));
  EXPECT_FALSE(Address::parse(std::string("/a\0b", 4)));
}

TEST(Address, RefusesEverythingElse) {
  for (const std::string text : {"",
                                 ":",
                                 "6379",
                                 "127.0.0.1",
                                 "127.0.0.1:",
                                 "127.0.0.1:0",
                                 "127.0.0.1:65536",
                                 "127.0.0.1:-1",
                                 "127.0.0.1:+1",
                                 "127.0.0.1: 1",
                                 "127.0.0.1:1 ",
                                 "127.0.0.1:6379x",
                                 "127.0.0:1",
                                 "127.0.0.256:1",
                                 " 127.0.0.1:1",
                                 "localhost:6379",
                                 "redis:6379",
                                 "::1:6379",
                                 "[::1]",
                                 "[::1]6379",
                                 "[]:1",
                                 "[:1",
                                 "[127.0.0.1]:1",
                                 "[::1%lo]:1",
                                 "relative/path",
                                 "*:6379",
                                 "99999999999999999999:1"}) {
    EXPECT_FALSE(Address::parse(text)) << text;
  }
  EXPECT_FALSE(Address::parse(std::string("127.0.0.1\0:1", 12)));
}

TEST(Address, JoinsTheHostAndThePortOfAReply) {
  const Address asked = *Address::parse("127.0.0.1:7000");
  EXPECT_EQ(Address::of("10.0.0.1", 7001, asked)->text, "10.0.0.1:7001");
  EXPECT_EQ(Address::of("::1", 7001, asked)->text, "[::1]:7001");
}

TEST(Address, TakesTheHostThatWasAskedWhenAReplyHasNone) {
  EXPECT_EQ(Address::of("", 7001, *Address::parse("127.0.0.1:7000"))->text, "127.0.0.1:7001");
  EXPECT_EQ(Address::of("", 7001, *Address::parse("[::1]:7000"))->text, "[::1]:7001");
  EXPECT_FALSE(Address::of("", 7001, *Address::parse("/run/socket")));
}

TEST(Address, RefusesAReplyWithAnotherHostOrPort) {
  const Address asked = *Address::parse("127.0.0.1:7000");
  for (const std::string host : {"?", "node-1", "[::1]", "/run/socket", "127.0.0.1:1"}) {
    EXPECT_FALSE(Address::of(host, 7001, asked)) << host;
  }
  EXPECT_FALSE(Address::of(std::string("127.0.0.1\0", 10), 7001, asked));
  EXPECT_FALSE(Address::of("127.0.0.1", 0, asked));
}

}  // namespace
