#include "common/socket_address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <string>

namespace vantu {
namespace {

struct AddressCase {
  const char* ip;
  uint16_t port;
  bool v6;
  const char* shown;  // toString()
  const char* bare;   // ip()
};

const AddressCase kAddresses[] = {
    {"127.0.0.1", 8080, false, "127.0.0.1:8080", "127.0.0.1"},
    {"0.0.0.0", 0, false, "0.0.0.0:0", "0.0.0.0"},
    {"255.255.255.255", 65535, false, "255.255.255.255:65535", "255.255.255.255"},
    {"::1", 443, true, "[::1]:443", "::1"},
    {"[::1]", 1, true, "[::1]:1", "::1"},
    {"2001:db8:85a3::8a2e:370:7334", 65535, true, "[2001:db8:85a3::8a2e:370:7334]:65535",
     "2001:db8:85a3::8a2e:370:7334"},
    {"::ffff:192.0.2.7", 80, true, "[::ffff:192.0.2.7]:80", "::ffff:192.0.2.7"},
};

// Every address keeps its family, all of its bytes and its port, whether made
// from text or from what the kernel reports, and the kernel takes it back.
TEST(SocketAddressTest, KeepsEveryFamilyAddressAndPort) {
  for (const AddressCase& test : kAddresses) {
    SCOPED_TRACE(test.shown);
    SocketAddress address(test.ip, test.port);
    ASSERT_TRUE(address.isValid());
    EXPECT_EQ(test.v6, address.isIPv6());
    EXPECT_EQ(test.port, address.port());
    EXPECT_EQ(test.bare, address.ip());
    EXPECT_EQ(test.shown, address.toString());
    EXPECT_EQ(test.v6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in),
              static_cast<size_t>(address.length()));
    EXPECT_EQ(test.v6 ? AF_INET6 : AF_INET, address.sockaddr()->sa_family);

    // The same address as the kernel would report it, through a
    // sockaddr_storage with garbage beyond it.
    sockaddr_storage storage;
    memset(&storage, 0xa5, sizeof(storage));
    memcpy(&storage, address.sockaddr(), address.length());
    SocketAddress reported =
        SocketAddress::fromSockaddr(reinterpret_cast<sockaddr*>(&storage), sizeof(storage));
    EXPECT_TRUE(reported == address);
    EXPECT_EQ(test.shown, reported.toString());

    // A copy is the same address; one differing only in the port is not.
    SocketAddress copy = reported;
    EXPECT_EQ(address, copy);
    EXPECT_NE(address, SocketAddress(test.ip, static_cast<uint16_t>(test.port + 1)));
  }
  // IPv6 addresses that differ only in their last byte differ.
  EXPECT_NE(SocketAddress("2001:db8::1", 80), SocketAddress("2001:db8::2", 80));
  // The v4-mapped form and the plain IPv4 address are different addresses.
  EXPECT_NE(SocketAddress("::ffff:192.0.2.7", 80), SocketAddress("192.0.2.7", 80));
}

TEST(SocketAddressTest, RefusesWhatIsNotANumericAddress) {
  const std::string kBad[] = {
      "", "localhost", "[127.0.0.1", "::1]", "[]", " ::1", std::string("127.0.0.1\0x", 11)};
  for (const std::string& text : kBad) {
    SCOPED_TRACE(text);
    SocketAddress address(text, 80);
    EXPECT_FALSE(address.isValid());
    EXPECT_FALSE(address.isIPv6());
    EXPECT_EQ(0u, address.length());
    EXPECT_EQ(0, address.port());
    EXPECT_EQ("", address.ip());
    EXPECT_EQ("<invalid>", address.toString());
    EXPECT_EQ(SocketAddress(), address);
  }
  // What the kernel reports in another family, or cut short, is not valid either.
  sockaddr_in6 v6 = {};
  v6.sin6_family = AF_INET6;
  EXPECT_FALSE(
      SocketAddress::fromSockaddr(reinterpret_cast<sockaddr*>(&v6), sizeof(sockaddr_in)).isValid());
  sockaddr unix_family = {};
  unix_family.sa_family = AF_UNIX;
  EXPECT_FALSE(SocketAddress::fromSockaddr(&unix_family, sizeof(unix_family)).isValid());
  EXPECT_FALSE(SocketAddress::fromSockaddr(nullptr, 0).isValid());
}

}  // namespace
}  // namespace vantu
