// The machine's MAC address: which interface gives it, and what its first look-up decides.

#include <gtest/gtest.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
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

using Mac = std::array<UBYTE, 6>;
constexpr Mac kNone = {0, 0, 0, 0, 0, 0};
constexpr Mac kUntouched = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
constexpr Mac mac_number(UBYTE n) { return {0x02, 0x10, 0x20, 0x30, 0x40, n}; }

/// An interface as a made-up system describes it.
struct Interface {
  std::string name;
  Mac mac = kNone;
  short flags = IFF_UP | IFF_BROADCAST;
  bool has_address = true;  ///< only these are in the system's list
  int mac_error = 0;
  int flags_error = 0;
};

/// A system with these interfaces, for the calls of this thread.
class MadeUpSystem {
 public:
  explicit MadeUpSystem(std::vector<Interface> interfaces) : interfaces_(std::move(interfaces)) {
    calls.answer([this](const SystemCall& call, int* result) { return answer(call, result); });
  }

  SocketCalls calls;

 private:
  bool answer(const SystemCall& call, int* result) {
    if (call.name != SystemCall::kIoctl) return false;
    if (call.request == SIOCGIFCONF) {
      list(static_cast<ifconf*>(call.argument));
      return true;
    }
    auto* request = static_cast<ifreq*>(call.argument);
    const auto found = std::find_if(interfaces_.begin(), interfaces_.end(), [&](const Interface& interface) {
      return interface.name == call.interface;
    });
    if (call.request == SIOCGIFHWADDR) {
      const int error = found == interfaces_.end() ? ENODEV : found->mac_error;
      *result = -error;
      if (error != 0) return true;
      request->ifr_hwaddr.sa_family = ARPHRD_ETHER;
      std::memcpy(request->ifr_hwaddr.sa_data, found->mac.data(), found->mac.size());
      return true;
    }
    if (call.request == SIOCGIFFLAGS) {
      const int error = found == interfaces_.end() ? ENODEV : found->flags_error;
      *result = -error;
      if (error == 0) request->ifr_flags = found->flags;
      return true;
    }
    return false;
  }

  /// As the system does it: as many whole entries as fit, or with no area the room that all of them need.
  void list(ifconf* area) const {
    std::size_t used = 0;
    const std::size_t room = area->ifc_buf == nullptr ? SIZE_MAX : static_cast<std::size_t>(area->ifc_len);
    for (const Interface& interface : interfaces_) {
      if (!interface.has_address || room - used < sizeof(ifreq)) continue;
      if (area->ifc_buf != nullptr) {
        ifreq entry = {};
        std::memcpy(entry.ifr_name, interface.name.data(), interface.name.size());
        entry.ifr_addr.sa_family = AF_INET;
        std::memcpy(area->ifc_buf + used, &entry, sizeof entry);
      }
      used += sizeof(ifreq);
    }
    area->ifc_len = static_cast<int>(used);
  }

  std::vector<Interface> interfaces_;
};

struct Result {
  bool found;
  Mac mac;
  bool operator==(const Result&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Result& result) {
  out << (result.found ? "found " : "not found ");
  for (const UBYTE byte : result.mac) out << text_of("%02x:", byte);
  return out;
}

Result look_up(bool skipeth1 = false) {
  Result result = {false, kUntouched};
  result.found = AsyncSocket::LookupInterfaceMac(result.mac.data(), skipeth1);
  return result;
}

class SocketMac : public NetworkTest {
 protected:
  void TearDown() override {
    AsyncSocket::real_hardware = false;
    NetworkTest::TearDown();
  }

  /// Whatever comes now is not the process' first look-up.
  static void have_looked_up_before() { look_up(); }
  static void be_hardware() {
    have_looked_up_before();
    AsyncSocket::real_hardware = true;
  }
};

const Interface kLo = {"lo", kNone, IFF_UP | IFF_LOOPBACK};

// ---- The first look-up -------------------------------------------------------------------------------------------

TEST_F(SocketMac, TheFirstLookUpTakesEth0s) {
  IN_FRESH_PROCESS({
    const MadeUpSystem system({{"eth0", mac_number(1), IFF_BROADCAST}});
    EXPECT_EQ(look_up(), (Result{true, mac_number(1)})) << "though it is down";
    EXPECT_EQ(look_up(), (Result{false, kUntouched})) << "asked once: no interface is up";
  });
}

TEST_F(SocketMac, AnInterfaceThatIsUpComesAfterTheFirstLookUpsEth0AndOverwritesIt) {
  IN_FRESH_PROCESS({
    const MadeUpSystem system({{"eth0", mac_number(1), IFF_BROADCAST}, {"wan", mac_number(2)}});
    EXPECT_EQ(look_up(), (Result{true, mac_number(2)}));
  });
}

TEST_F(SocketMac, TheFirstLookUpPassesOverAnEth0OfZeros) {
  IN_FRESH_PROCESS({
    const MadeUpSystem system({{"eth0", kNone, IFF_BROADCAST}});
    EXPECT_EQ(look_up(), (Result{false, kUntouched}));
  });
}

TEST_F(SocketMac, TheFirstLookUpDoesWithoutEth0) {
  IN_FRESH_PROCESS({
    const MadeUpSystem system({kLo, {"wan", mac_number(3)}});
    EXPECT_EQ(look_up(), (Result{true, mac_number(3)}));
  });
}

TEST_F(SocketMac, TheFirstLookUpMakesNoMachineTheAppliancesOwnWhenNoMakersNumberIsConfigured) {
  IN_FRESH_PROCESS({
    const Mac mac = {0x00, 0x00, 0x00, 0x01, 0x02, 0x03};
    const MadeUpSystem system({{"eth0", mac, IFF_BROADCAST}});
    EXPECT_EQ(look_up(), (Result{true, mac})) << "not all of it is zero";
    EXPECT_FALSE(AsyncSocket::real_hardware);
  });
  IN_FRESH_PROCESS({
    const MadeUpSystem system({{"eth0", {0xFF, 0xFF, 0xFF, 0x01, 0x02, 0x03}}});
    look_up();
    EXPECT_FALSE(AsyncSocket::real_hardware);
  });
}

TEST_F(SocketMac, TheStartOfTheNetworkingLayerIsTheFirstLookUp) {
  IN_FRESH_PROCESS({
    const MadeUpSystem system({{"eth0", mac_number(1), IFF_BROADCAST}});
    AsyncSocket::Init();
    EXPECT_EQ(look_up(), (Result{false, kUntouched}));
  });
}

TEST_F(SocketMac, ALookUpWithoutADescriptorIsNotYetTheFirst) {
  IN_FRESH_PROCESS({
    {
      SocketCalls calls;
      calls.fail(SystemCall::kSocket, EMFILE);
      EXPECT_EQ(look_up(), (Result{false, kUntouched}));
    }
    const MadeUpSystem system({{"eth0", mac_number(1), IFF_BROADCAST}});
    EXPECT_EQ(look_up(), (Result{true, mac_number(1)}));
  });
}

TEST_F(SocketMac, OnlyTheFirstLookUpAsksEth0OutOfTurn) {
  IN_FRESH_PROCESS({
    const MadeUpSystem system({{"eth0", mac_number(1), IFF_BROADCAST, false}});
    look_up();
    EXPECT_EQ(system.calls.asked(SIOCGIFHWADDR), Texts{"eth0"});
    look_up();
    EXPECT_EQ(system.calls.asked(SIOCGIFHWADDR), Texts{"eth0"});
  });
}

// ---- Any machine -------------------------------------------------------------------------------------------------

TEST_F(SocketMac, ElsewhereTheFirstListedInterfaceThatIsUpGivesIt) {
  have_looked_up_before();
  const MadeUpSystem system(
      {kLo, {"down", mac_number(1), IFF_BROADCAST}, {"b", mac_number(2)}, {"a", mac_number(3)}});
  EXPECT_EQ(look_up(), (Result{true, mac_number(2)}));
  EXPECT_EQ(look_up(true), (Result{true, mac_number(2)}))
      << "what is skipped on the hardware does not matter";
  EXPECT_EQ(console.text(), "");
}

TEST_F(SocketMac, ElsewhereAnInterfaceThatHidesItIsPassedOver) {
  have_looked_up_before();
  const MadeUpSystem system({{"tun0", mac_number(1), IFF_UP, true, ENOTSUP}, {"wan", mac_number(2)}});
  EXPECT_EQ(look_up(), (Result{true, mac_number(2)}));
}

TEST_F(SocketMac, ElsewhereAMacOfZerosIsOneLikeOthers) {
  have_looked_up_before();
  const MadeUpSystem system({{"zero", kNone}, {"wan", mac_number(2)}});
  EXPECT_EQ(look_up(), (Result{true, kNone}));
}

TEST_F(SocketMac, ElsewhereThereIsNoneWithoutAnInterfaceThatIsUp) {
  have_looked_up_before();
  const MadeUpSystem system(
      {kLo, {"down", mac_number(1), IFF_BROADCAST}, {"bare", mac_number(2), IFF_UP, false}});
  EXPECT_EQ(look_up(), (Result{false, kUntouched}));
  const MadeUpSystem empty({});
  EXPECT_EQ(look_up(), (Result{false, kUntouched}));
}

TEST_F(SocketMac, ElsewhereAListThatCannotBeHadIsReported) {
  have_looked_up_before();
  console.clear();
  SocketCalls calls;
  calls.fail_request(SIOCGIFCONF, ENOBUFS);
  EXPECT_EQ(look_up(), (Result{false, kUntouched}));
  EXPECT_EQ(console.calls(), Texts{text_of("ioctl SIOCGIFCONF error %d", ENOBUFS)});
}

TEST_F(SocketMac, ElsewhereAnInterfaceWhoseFlagsCannotBeHadIsReportedAndPassedOver) {
  have_looked_up_before();
  console.clear();
  const MadeUpSystem system({{"gone", mac_number(1), IFF_UP, true, 0, ENODEV}, {"wan", mac_number(2)}});
  EXPECT_EQ(look_up(), (Result{true, mac_number(2)}));
  EXPECT_EQ(console.calls(), Texts{text_of("ioctl SIOCGIFFLAGS error %d", ENODEV)});
}

TEST_F(SocketMac, ElsewhereAllInterfacesAreLookedAtHoweverManyThereAre) {
  have_looked_up_before();
  for (const int before : {0, 20, 24, 25, 26, 63, 64, 65, 600}) {
    std::vector<Interface> interfaces;
    for (int i = 0; i < before; ++i) {
      interfaces.push_back({"down" + std::to_string(i), mac_number(1), IFF_BROADCAST});
    }
    interfaces.push_back({"last", mac_number(7)});
    const MadeUpSystem system(interfaces);
    EXPECT_EQ(look_up(), (Result{true, mac_number(7)})) << before << " interfaces before it";
  }
}

TEST_F(SocketMac, ElsewhereTheListIsAskedForInOneKilobyteFirst) {
  have_looked_up_before();
  std::vector<int> areas;
  SocketCalls calls;
  calls.answer([&areas](const SystemCall& call, int* result) {
    if (call.name != SystemCall::kIoctl || call.request != SIOCGIFCONF) return false;
    auto* const area = static_cast<ifconf*>(call.argument);
    areas.push_back(area->ifc_len);
    area->ifc_len = 0;
    *result = 0;
    return true;
  });
  EXPECT_EQ(look_up(), (Result{false, kUntouched}));
  // Whole entries: 32 of 32 bytes, or 25 of 40 where pointers have 64 bits.
  constexpr std::size_t kWholeEntries = 1024 / sizeof(ifreq);
  EXPECT_EQ(areas, std::vector<int>{static_cast<int>(kWholeEntries * sizeof(ifreq))});
}

TEST_F(SocketMac, AnAddressIsSixBytesAndNothingBehindThemIsWritten) {
  have_looked_up_before();
  for (const bool real : {false, true}) {
    AsyncSocket::real_hardware = real;
    const MadeUpSystem system({{"eth0", mac_number(1)}});
    std::array<UBYTE, 14> room;  // what the system answers with has 14
    room.fill(0xEE);
    EXPECT_TRUE(AsyncSocket::LookupInterfaceMac(room.data(), false));
    EXPECT_TRUE(std::equal(room.begin(), room.begin() + 6, mac_number(1).begin()));
    EXPECT_EQ(std::count(room.begin() + 6, room.end(), 0xEE), 8);
  }
}

TEST_F(SocketMac, ElsewhereRealInterfacesAreLookedAt) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  // More than a kilobyte of descriptions, and all but the last are down.
  const Namespace here = Namespace::own();
  here.run({"sh", "-ec",
            "for i in $(seq 40); do"
            "  ip link add a$i type veth peer name b$i;"
            "  ip addr add 10.7.$i.1/24 dev a$i;"
            "done;"
            "ip link set a40 down; ip link set a40 address 02:10:20:30:40:28; ip link set b40 up"});
  let_the_layer_start();
  const int before = open_descriptors();
  EXPECT_EQ(look_up(), (Result{false, kUntouched})) << "none is up";
  here.link_up("a40");
  EXPECT_EQ(look_up(), (Result{true, mac_number(40)}));
  here.set_mac("a3", "02:10:20:30:40:03");
  here.link_up("a3");
  EXPECT_EQ(look_up(), (Result{true, mac_number(3)})) << "the first that is listed";
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(console.text(), "");
}

TEST_F(SocketMac, TheFirstLookUpReadsARealEth0) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Namespace here = Namespace::own();
  join(here, "eth0", here, "far");
  here.set_mac("eth0", "02:10:20:30:40:11");
  EXPECT_EQ(look_up(), (Result{true, mac_number(0x11)})) << "it has no address and is not listed";
  EXPECT_EQ(look_up(), (Result{false, kUntouched}));
  EXPECT_FALSE(AsyncSocket::real_hardware);
}

// ---- The appliance's hardware ------------------------------------------------------------------------------------

TEST_F(SocketMac, OnTheHardwareEth1sComesBeforeEth0s) {
  be_hardware();
  const MadeUpSystem system(
      {{"wan", mac_number(9)}, {"eth0", mac_number(1)}, {"eth1", mac_number(2), IFF_BROADCAST}});
  EXPECT_EQ(look_up(), (Result{true, mac_number(2)})) << "though it is down";
  EXPECT_EQ(system.calls.asked(SIOCGIFHWADDR), Texts{"eth1"});
}

TEST_F(SocketMac, OnTheHardwareEth1IsSkippedWhenTheCallerSaysSo) {
  be_hardware();
  const MadeUpSystem system({{"eth0", mac_number(1), IFF_BROADCAST}, {"eth1", mac_number(2)}});
  EXPECT_EQ(look_up(true), (Result{true, mac_number(1)}));
  EXPECT_EQ(system.calls.asked(SIOCGIFHWADDR), Texts{"eth0"});
}

TEST_F(SocketMac, OnTheHardwareEth0StepsInForAnEth1WithoutOne) {
  be_hardware();
  for (const int error : {0, EIO}) {
    const MadeUpSystem system({{"eth0", mac_number(1)}, {"eth1", kNone, IFF_UP, true, error}});
    EXPECT_EQ(look_up(), (Result{true, mac_number(1)}));
    EXPECT_EQ(system.calls.asked(SIOCGIFHWADDR), (Texts{"eth1", "eth0"}));
  }
}

TEST_F(SocketMac, OnTheHardwareThereIsNoneWhenEth0HasNoneEither) {
  be_hardware();
  const MadeUpSystem zeros({{"eth0", kNone}, {"wan", mac_number(9)}});
  EXPECT_EQ(look_up(), (Result{false, kUntouched})) << "other interfaces do not count";
}

TEST_F(SocketMac, OnTheHardwareThereIsNoneWithoutEth0) {
  be_hardware();
  const MadeUpSystem other({{"wan", mac_number(9)}});
  EXPECT_EQ(look_up(), (Result{false, kUntouched}));
  EXPECT_EQ(other.calls.count(SystemCall::kSocket), 1u);
}

TEST_F(SocketMac, OnTheHardwareAFirstLookUpKeepsWhatEth0GaveWhenTheLaterQuestionsFail) {
  IN_FRESH_PROCESS({
    // The machine is known as hardware before its first look-up; eth0 answers it once and then no more.
    AsyncSocket::real_hardware = true;
    MadeUpSystem system({});
    int asked = 0;
    SocketCalls calls;
    calls.answer([&asked](const SystemCall& call, int* result) {
      if (call.name != SystemCall::kIoctl || call.request != SIOCGIFHWADDR) return false;
      const bool answers = call.interface == "eth0";
      *result = answers ? 0 : -ENODEV;
      const Mac mac = asked++ == 0 ? mac_number(5) : kNone;
      std::memcpy(static_cast<ifreq*>(call.argument)->ifr_hwaddr.sa_data, mac.data(), mac.size());
      return true;
    });
    EXPECT_EQ(look_up(), (Result{true, mac_number(5)}));
  });
}

// ---- Descriptors -------------------------------------------------------------------------------------------------

TEST_F(SocketMac, LeavesNoDescriptorOpenOnAnyPath) {
  have_looked_up_before();
  const int before = open_descriptors();
  const std::vector<Interface> systems[] = {
      {},
      {{"wan", mac_number(1)}},
      {{"gone", mac_number(1), IFF_UP, true, 0, ENODEV}},
      {{"tun0", mac_number(1), IFF_UP, true, ENOTSUP}},
      {{"eth0", mac_number(1)}, {"eth1", mac_number(2)}},
      {{"eth0", mac_number(1)}, {"eth1", kNone}},
      {{"eth0", kNone}, {"eth1", kNone}},
  };
  for (const bool real : {false, true}) {
    AsyncSocket::real_hardware = real;
    for (const auto& interfaces : systems) {
      for (const bool skipeth1 : {false, true}) {
        const MadeUpSystem system(interfaces);
        look_up(skipeth1);
        EXPECT_EQ(open_descriptors(), before);
      }
    }
    SocketCalls calls;
    calls.fail(SystemCall::kIoctl, EIO);
    look_up();
    EXPECT_EQ(open_descriptors(), before);
  }
}

TEST_F(SocketMac, ThereIsNoneWithoutADescriptor) {
  have_looked_up_before();
  for (const bool real : {false, true}) {
    AsyncSocket::real_hardware = real;
    SocketCalls calls;
    calls.fail(SystemCall::kSocket, EMFILE);
    EXPECT_EQ(look_up(), (Result{false, kUntouched}));
  }
}

}  // namespace
}  // namespace oskernel_test
