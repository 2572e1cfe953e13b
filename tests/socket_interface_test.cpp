// The machine's own addresses: which one leads to a destination, which ones are its own, and its MAC address.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "network/asocket.h"
#include "support/net_namespace.h"
#include "support/network_fixture.h"
#include "support/socket_calls.h"
#include "support/socket_probe.h"
#include "support/watched_thread.h"

namespace oskernel_test {
namespace {

constexpr ULONG kAnywhere = 0xFFFFFFFF;
constexpr ULONG kPublic = 0xC6336407;  // 198.51.100.7
constexpr ULONG kLeft = 0x0A090001;    // 10.9.0.1
constexpr ULONG kRight = 0x0A090101;   // 10.9.1.1

ULONG address_of(const char* text) { return ntohl(inet_addr(text)); }

/// What `body` writes to standard error.
template <class Body>
std::string standard_error_of(Body body) {
  testing::internal::CaptureStderr();
  body();
  return testing::internal::GetCapturedStderr();
}

/// What these look-ups go by is set by the tests and back to the beginning afterwards.
class SocketInterface : public NetworkTest {
 protected:
  void TearDown() override {
    AsyncSocket::SetPrimaryInterfaces(nullptr);
    AsyncSocket::modulePublicIPAddress.Set(ULONG{0}, 0);
    AsyncSocket::real_hardware = false;
    SockAddr::SetPrivateNetwork(0, 0);
    NetworkTest::TearDown();
  }

  /// The layer's start asks for the MAC address, and that decides what machine it is; after it, a test may.
  static void count_as_hardware(bool real = true) {
    AsyncSocket::Init();
    AsyncSocket::real_hardware = real;
  }
  static void set_public_address() { AsyncSocket::modulePublicIPAddress.Set(kPublic, 0); }
};

/// Two interfaces: 10.9.0.1/24, which broadcasts go by, and 10.9.1.1/24.
struct Site {
  Namespace here = Namespace::own();
  Namespace there = Namespace::fresh();

  explicit Site(const char* left = "left", const char* right = "right") {
    join(here, left, there, "far-left");
    join(here, right, there, "far-right");
    here.add_address(left, "10.9.0.1/24");
    here.add_address(right, "10.9.1.1/24");
    here.add_route("default via 10.9.0.2");
  }
};

// ---- LookupIface -------------------------------------------------------------------------------------------------

TEST_F(SocketInterface, LookupStartsTheNetworkingLayer) {
  IN_FRESH_PROCESS({
    EXPECT_FALSE(AsyncSocket::AsyncInitDone);
    AsyncSocket::SetPrimaryAddress(kLeft);
    EXPECT_EQ(AsyncSocket::LookupIface(kAnywhere), kLeft);
    EXPECT_TRUE(AsyncSocket::AsyncInitDone);
  });
}

TEST_F(SocketInterface, ThePrimaryAddressLeadsEverywhere) {
  AsyncSocket::SetPrimaryAddress(kRight);
  set_public_address();
  for (const bool real : {false, true}) {
    count_as_hardware(real);
    SocketCalls calls;
    for (const char* to : {"0.0.0.0", "127.0.0.1", "10.9.0.9", "8.8.8.8", "255.255.255.255"}) {
      EXPECT_EQ(AsyncSocket::LookupIface(address_of(to)), kRight) << to;
    }
    EXPECT_EQ(calls.count(SystemCall::kSocket), 0u);
  }
}

TEST_F(SocketInterface, ThePublicAddressLeadsToWhatIsNotPrivate) {
  set_public_address();
  AsyncSocket::Init();
  SocketCalls calls;
  for (const char* to :
       {"8.8.8.8", "172.15.255.255", "172.32.0.0", "9.255.255.255", "11.0.0.0", "192.167.255.255",
        "192.169.0.0", "127.0.0.1", "0.0.0.0", "225.1.2.3", "255.255.255.254"}) {
    EXPECT_EQ(AsyncSocket::LookupIface(address_of(to)), kPublic) << to;
  }
  EXPECT_EQ(calls.count(SystemCall::kSocket), 0u);
}

TEST_F(SocketInterface, ThePublicAddressDoesNotLeadToPrivateOnesNorAnywhere) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  set_public_address();
  for (const char* to : {"10.0.0.0", "10.255.255.255", "172.16.0.0", "172.31.255.255", "192.168.0.0",
                         "192.168.255.255", "255.255.255.255"}) {
    EXPECT_EQ(AsyncSocket::LookupIface(address_of(to)), kLeft) << to;
  }
}

TEST_F(SocketInterface, TheSitesOwnPrivateNetworkDoesNotCountHere) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  set_public_address();
  SockAddr::SetPrivateNetwork(address_of("8.8.8.0"), address_of("255.255.255.0"));
  EXPECT_EQ(AsyncSocket::LookupIface(address_of("8.8.8.8")), kPublic);
  EXPECT_EQ(AsyncSocket::LookupIface(address_of("10.20.30.40")), kLeft);
}

TEST_F(SocketInterface, OnTheAppliancesHardwareTheFirstKnownInterfaceLeadsEverywhere) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Namespace here = Namespace::own();
  join(here, "eth0", here, "spare0");
  count_as_hardware();
  EXPECT_EQ(AsyncSocket::LookupIface(kAnywhere), 0u) << "no interface has an address";
  // Each one that comes stands before the ones that are there.
  int net = 1;
  for (const char* name : {"eth0", "eth1", "bond0", "ppp0", "ppp1", "wan"}) {
    if (std::string(name) != "eth0") {
      join(here, name, here, std::string("far-") + name);
      EXPECT_EQ(AsyncSocket::LookupIface(kAnywhere),
                address_of(("10.8." + std::to_string(net - 1) + ".1").c_str()))
          << name << " has no address yet";
    }
    here.add_address(name, "10.8." + std::to_string(net) + ".1/24");
    static char primary[] = "wan";
    if (std::string(name) == primary) AsyncSocket::SetPrimaryInterfaces(primary);
    const ULONG expected = address_of(("10.8." + std::to_string(net) + ".1").c_str());
    for (const char* to : {"255.255.255.255", "0.0.0.0", "127.0.0.1", "10.8.1.77", "8.8.8.8"}) {
      EXPECT_EQ(AsyncSocket::LookupIface(address_of(to)), expected) << name << " to " << to;
    }
    ++net;
  }
  here.link_down("wan");
  EXPECT_EQ(AsyncSocket::LookupIface(kAnywhere), address_of("10.8.6.1"))
      << "its address counts, not its state";
}

TEST_F(SocketInterface, OnTheAppliancesHardwareTheNamesAreAskedInOrder) {
  let_the_layer_start();
  count_as_hardware();
  SocketCalls calls;
  calls.fail_request(SIOCGIFADDR, ENODEV);
  const int before = open_descriptors();
  EXPECT_EQ(AsyncSocket::LookupIface(kAnywhere), 0u);
  EXPECT_EQ(calls.asked(SIOCGIFADDR), (Texts{"ppp1", "ppp0", "bond0", "eth1", "eth0"}));
  char primary[] = "wan0";
  AsyncSocket::SetPrimaryInterfaces(primary);
  SocketCalls more;
  more.fail_request(SIOCGIFADDR, ENODEV);
  EXPECT_EQ(AsyncSocket::LookupIface(kAnywhere), 0u);
  EXPECT_EQ(more.asked(SIOCGIFADDR), (Texts{"wan0", "ppp1", "ppp0", "bond0", "eth1", "eth0"}));
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(SocketInterface, ElsewhereTheRouteLeads) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site;
  site.here.add_route("203.0.113.0/24 via 10.9.1.2");
  let_the_layer_start();
  const int before = open_descriptors();
  const struct {
    const char* to;
    ULONG from;
  } rows[] = {
      {"10.9.0.77", kLeft},   {"10.9.1.77", kRight},          {"203.0.113.5", kRight},
      {"8.8.8.8", kLeft},     {"255.255.255.255", kLeft},     {"0.0.0.0", kLeft},
      {"127.0.0.1", kLeft},   {"127.0.0.2", INADDR_LOOPBACK}, {"10.9.1.1", kRight},
      {"10.9.1.255", kRight},
  };
  for (const auto& row : rows) EXPECT_EQ(AsyncSocket::LookupIface(address_of(row.to)), row.from) << row.to;
  // The broadcast's route moves, and with it the answer for no destination.
  site.here.add_route("255.255.255.255/32 dev right");
  for (const char* to : {"255.255.255.255", "0.0.0.0", "127.0.0.1"}) {
    EXPECT_EQ(AsyncSocket::LookupIface(address_of(to)), kRight) << to;
  }
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(SocketInterface, ElsewhereItAsksByConnectingADatagramSocketToPort4000) {
  AsyncSocket::Init();
  const struct {
    const char* to;
    const char* asked;
  } rows[] = {{"127.0.0.5", "127.0.0.5"},
              {"0.0.0.0", "255.255.255.255"},
              {"127.0.0.1", "255.255.255.255"},
              {"255.255.255.255", "255.255.255.255"}};
  for (const auto& row : rows) {
    SocketCalls calls;
    // The answer does not matter here, and a machine without routes has none.
    standard_error_of([&] { AsyncSocket::LookupIface(address_of(row.to)); });
    ASSERT_EQ(calls.count(SystemCall::kSocket), 1u);
    EXPECT_EQ(calls.calls(SystemCall::kSocket).front().type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK), SOCK_DGRAM);
    EXPECT_EQ(calls.option(SOL_SOCKET, SO_BROADCAST).number(), 1);
    ASSERT_EQ(calls.count(SystemCall::kBind), 1u);
    EXPECT_EQ(calls.calls(SystemCall::kBind).front().address.sin_addr.s_addr, 0u);
    EXPECT_EQ(calls.calls(SystemCall::kBind).front().address.sin_port, 0);
    ASSERT_EQ(calls.count(SystemCall::kConnect), 1u);
    const sockaddr_in asked = calls.calls(SystemCall::kConnect).front().address;
    EXPECT_EQ(ntohl(asked.sin_addr.s_addr), address_of(row.asked)) << row.to;
    EXPECT_EQ(ntohs(asked.sin_port), 4000);
  }
}

TEST_F(SocketInterface, ElsewhereAFailureIsWrittenToStandardErrorAndLeavesNoDescriptor) {
  let_the_layer_start();
  const struct {
    SystemCall::Name call;
    const char* text;
  } rows[] = {{SystemCall::kBind, "AsyncSocket::LookupIface - bind error"},
              {SystemCall::kConnect, "AsyncSocket::LookupIface - conect error"},
              {SystemCall::kGetsockname, "AsyncSocket::LookupIface - getsockname error"}};
  for (const auto& row : rows) {
    const int before = open_descriptors();
    SocketCalls calls;
    calls.fail(row.call, EADDRINUSE);
    ULONG answer = 1;
    const std::string said =
        standard_error_of([&] { answer = AsyncSocket::LookupIface(address_of("127.0.0.2")); });
    EXPECT_EQ(said, text_of("%s %d\n", row.text, EADDRINUSE));
    EXPECT_EQ(answer, 0u);
    EXPECT_EQ(open_descriptors(), before);
  }
  EXPECT_EQ(console.text(), "") << "nothing of it on the console";
}

TEST_F(SocketInterface, ElsewhereWithoutARouteThereIsNoAnswer) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  AsyncSocket::Init();
  ULONG answer = 1;
  EXPECT_EQ(standard_error_of([&] { answer = AsyncSocket::LookupIface(kAnywhere); }),
            text_of("AsyncSocket::LookupIface - conect error %d\n", ENETUNREACH));
  EXPECT_EQ(answer, 0u);
}

TEST_F(SocketInterface, WithoutADescriptorThereIsNoAnswer) {
  for (const bool real : {false, true}) {
    count_as_hardware(real);
    SocketCalls calls;
    calls.fail(SystemCall::kSocket, EMFILE);
    ULONG answer = 1;
    BOOL own = TRUE;
    standard_error_of([&] {
      answer = AsyncSocket::LookupIface(kAnywhere);
      own = AsyncSocket::CheckForLocalIP(kLeft);
    });
    EXPECT_EQ(answer, 0u);
    EXPECT_FALSE(own);
  }
}

// ---- CheckForLocalIP ---------------------------------------------------------------------------------------------

TEST_F(SocketInterface, ThePrimaryAddressIsTheOnlyOwnOneWhenItIsSet) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site("eth0", "eth1");
  AsyncSocket::SetPrimaryAddress(kPublic);
  SocketCalls calls;
  EXPECT_TRUE(AsyncSocket::CheckForLocalIP(kPublic));
  EXPECT_FALSE(AsyncSocket::CheckForLocalIP(kLeft));
  EXPECT_FALSE(AsyncSocket::CheckForLocalIP(0));
  EXPECT_EQ(calls.count(SystemCall::kIoctl), 0u);
}

TEST_F(SocketInterface, TheAddressesOfTheKnownInterfacesAreOwnOnes) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Site site("eth0", "wan");
  const int before = open_descriptors();
  EXPECT_TRUE(AsyncSocket::CheckForLocalIP(kLeft)) << "eth0's";
  EXPECT_FALSE(AsyncSocket::CheckForLocalIP(kRight)) << "nobody has named wan";
  EXPECT_FALSE(AsyncSocket::CheckForLocalIP(INADDR_LOOPBACK)) << "nor the loopback interface";
  EXPECT_FALSE(AsyncSocket::CheckForLocalIP(0));
  char primary[] = "wan";
  AsyncSocket::SetPrimaryInterfaces(primary);
  EXPECT_TRUE(AsyncSocket::CheckForLocalIP(kRight));
  EXPECT_TRUE(AsyncSocket::CheckForLocalIP(kLeft));
  EXPECT_FALSE(AsyncSocket::CheckForLocalIP(address_of("10.9.0.2"))) << "the peer's";
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(SocketInterface, OwnAddressesAreLookedForInOrderUntilOneIsEqual) {
  char primary[] = "wan0";
  AsyncSocket::SetPrimaryInterfaces(primary);
  const int before = open_descriptors();
  {
    SocketCalls calls;
    calls.answer([](const SystemCall& call, int* result) {
      if (call.name != SystemCall::kIoctl || call.request != SIOCGIFADDR) return false;
      if (call.interface == "ppp0" || call.interface == "eth1") {
        SockAddr address(call.interface == "ppp0" ? kLeft : kRight, 0);
        std::memcpy(&static_cast<ifreq*>(call.argument)->ifr_addr, &address.sin, sizeof address.sin);
      } else {
        *result = -ENODEV;
      }
      return true;
    });
    EXPECT_TRUE(AsyncSocket::CheckForLocalIP(kRight));
    EXPECT_EQ(calls.asked(SIOCGIFADDR), (Texts{"wan0", "ppp1", "ppp0", "bond0", "eth1"}));
    EXPECT_FALSE(AsyncSocket::CheckForLocalIP(kPublic));
    EXPECT_EQ(calls.asked(SIOCGIFADDR).size(), 11u) << "to the end of the names";
  }
  EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
}  // namespace oskernel_test
