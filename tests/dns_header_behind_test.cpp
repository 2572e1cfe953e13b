// The same interface behind the system's resolver headers and the blocking sockets, which use some of its names too.

#include <arpa/nameser.h>
#include <netdb.h>
#include <resolv.h>

#include "network/socket.h"

// What a program compiled before it includes dns.h keeps its value.
static const int kTypeOfTheSystem = T_A;

#include "network/asocket.h"
#include "network/dns.h"

// And once more, as headers of larger programs do.
#include <arpa/nameser.h>
#include <arpa/nameser_compat.h>
#include <resolv.h>

#include <gtest/gtest.h>

#include <type_traits>

namespace oskernel_test {
namespace {

static_assert(std::is_same_v<decltype(T_A), Type> && std::is_same_v<decltype(T_SRV), Type> &&
              std::is_same_v<decltype(T_ALL), Type>);
static_assert(!std::is_same_v<Type, Socket::Type>);

TEST(DnsHeaderBehind, SystemHeadersInFrontOfItOfferTheirOtherNames) {
  Type t = T_A;
  EXPECT_EQ(t, kTypeOfTheSystem);
  t = T_MX;
  EXPECT_STREQ(GetTypeStr(t), "MX");
  EXPECT_EQ(static_cast<int>(T_AAAA), 28);
  EXPECT_EQ(static_cast<int>(C_IN), 1);
  EXPECT_EQ(static_cast<int>(ns_t_srv), static_cast<int>(T_SRV));
  EXPECT_EQ(PACKETSZ, 512);
  HEADER header = {};
  header.aa = 1;
  EXPECT_EQ(header.aa, 1U);
  int (*const parse)(const unsigned char*, int, ns_msg*) = ns_initparse;
  int (*const parse_record)(ns_msg*, ns_sect, int, ns_rr*) = ns_parserr;
  EXPECT_NE(parse, nullptr);
  EXPECT_NE(parse_record, nullptr);
}

// A program that has names of its own for its types and for what it does with them.
struct Asked {
  const char* name;
  Type type;
};

class OwnSocket : public Socket {
 public:
  using Socket::Socket;
  static Type kind() { return TCP_CLIENT; }
};

TEST(DnsHeaderBehind, TypesOfRecordsAndOfBlockingSocketsAreTwo) {
  const Asked asked[] = {{"example.test", T_SRV}, {"example.test", T_ALL}};
  EXPECT_EQ(asked[0].type, T_SRV);
  EXPECT_STREQ(GetTypeStr(asked[1].type), "*");
  static_assert(std::is_same_v<decltype(OwnSocket::kind()), Socket::Type>);
  EXPECT_EQ(OwnSocket::kind(), 1);
}

}  // namespace
}  // namespace oskernel_test
