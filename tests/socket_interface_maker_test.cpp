// Whose hardware the machine is: the first three bytes of eth0's MAC address, in a build that knows its maker.

#define OSKERNEL_MAKER_OUI "0a:BC:2f"

// NOLINTNEXTLINE(bugprone-suspicious-include): what is built here takes the place of the library's.
#include "network/asocketX_iface.cpp"

#include <gtest/gtest.h>

#include <array>

#include "support/network_fixture.h"
#include "support/socket_calls.h"
#include "support/watched_thread.h"

OSConsole& diagnostics() { return *Console; }

/// The static members are meant to be there twice: here, and in the library, which uses these.
extern "C" __attribute__((visibility("default"), used)) const char* __asan_default_options();
const char* __asan_default_options() { return "detect_odr_violation=0"; }

namespace oskernel_test {
namespace {

using Mac = std::array<UBYTE, 6>;

class SocketMaker : public NetworkTest {
 protected:
  void TearDown() override {
    AsyncSocket::real_hardware = false;
    NetworkTest::TearDown();
  }

  /// From now on eth0 has this address, or the look-up of it fails.
  static void make_up_eth0(SocketCalls* calls, const Mac& mac, int error = 0) {
    calls->answer([mac, error](const SystemCall& call, int* result) {
      if (call.name != SystemCall::kIoctl || call.request != SIOCGIFHWADDR) return false;
      *result = call.interface == "eth0" ? -error : -ENODEV;
      std::memcpy(static_cast<ifreq*>(call.argument)->ifr_hwaddr.sa_data, mac.data(), mac.size());
      return true;
    });
  }
  static bool is_hardware_after_a_look_up() {
    UBYTE mac[6] = {0x0A, 0xBC, 0x2F};  // what the caller's memory holds does not count
    AsyncSocket::LookupInterfaceMac(mac, true);
    return AsyncSocket::real_hardware;
  }
};

TEST_F(SocketMaker, AMachineIsTheAppliancesOwnWhenEth0sFirstThreeBytesAreTheMakers) {
  const struct {
    Mac mac;
    int error;
    bool real;
  } rows[] = {{{0x0A, 0xBC, 0x2F, 1, 2, 3}, 0, true},  {{0x0A, 0xBC, 0x2F, 0, 0, 0}, 0, true},
              {{0x0A, 0xBC, 0x2E, 1, 2, 3}, 0, false}, {{0x0A, 0xBD, 0x2F, 1, 2, 3}, 0, false},
              {{0x0B, 0xBC, 0x2F, 1, 2, 3}, 0, false}, {{1, 2, 3, 0x0A, 0xBC, 0x2F}, 0, false},
              {{0, 0, 0, 0, 0, 0}, 0, false},          {{0x0A, 0xBC, 0x2F, 1, 2, 3}, ENODEV, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.mac));
    IN_FRESH_PROCESS({
      SocketCalls calls;
      make_up_eth0(&calls, row.mac, row.error);
      EXPECT_EQ(is_hardware_after_a_look_up(), row.real);
    });
  }
}

TEST_F(SocketMaker, OnlyTheFirstLookUpDecides) {
  IN_FRESH_PROCESS({
    SocketCalls calls;
    make_up_eth0(&calls, {1, 2, 3, 4, 5, 6});
    EXPECT_FALSE(is_hardware_after_a_look_up());
    SocketCalls later;
    make_up_eth0(&later, {0x0A, 0xBC, 0x2F, 1, 2, 3});
    EXPECT_FALSE(is_hardware_after_a_look_up());
  });
}

TEST_F(SocketMaker, TheStartOfTheNetworkingLayerDecides) {
  IN_FRESH_PROCESS({
    SocketCalls calls;
    make_up_eth0(&calls, {0x0A, 0xBC, 0x2F, 1, 2, 3});
    AsyncSocket::Init();
    EXPECT_TRUE(AsyncSocket::real_hardware);
  });
}

}  // namespace
}  // namespace oskernel_test
