// A blocking client and the machine's own resolver, in a namespace where the test writes the list of hosts.

#include <memory>
#include <string>
#include <vector>

#include "support/blocking_fixture.h"
#include "support/net_namespace.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;

class BlockingSocketNames : public BlockingTest {};

TEST_F(BlockingSocketNames, TheHostsOfficialNameAliasesAndAddressesAreKept) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  replace_file("/etc/hosts", "127.0.0.1 gate.works gate door.works\n127.0.0.2 other.works\n");
  replace_file("/etc/nsswitch.conf", "hosts: files\n");
  PeerListener listener;
  std::string host = "gate";
  Socket socket(Socket::TCP_CLIENT, host.data(), listener.port());
  ASSERT_EQ(socket.state, Socket::CONNECTED);
  EXPECT_EQ(socket.RemoteIP_h(), kLoopback);
  // The resolver's one answer goes to the next who asks.
  std::string next = "other.works";
  Socket other(Socket::UDP, next.data(), 7);
  EXPECT_EQ(other.RemoteIP_h(), 0x7F000002U);
  EXPECT_STREQ(other.RemoteHostname(), "other.works");
  EXPECT_STREQ(socket.RemoteHostname(), "gate.works")
      << "the name of the entry, not the one that was asked for";
  std::vector<std::string> aliases;
  for (char** alias = socket.rmthostent.h_aliases; *alias != nullptr; ++alias) aliases.emplace_back(*alias);
  EXPECT_THAT(aliases, ElementsAre("gate", "door.works"));
  EXPECT_EQ(socket.rmthostent.h_addrtype, AF_INET);
  EXPECT_EQ(socket.rmthostent.h_length, 4);
  EXPECT_THAT(addresses_of(socket.rmthostent), ElementsAre(kLoopback));
  ASSERT_NE(socket.phostent, nullptr);
  EXPECT_STREQ(socket.phostent->h_name, "gate.works");
  PeerStream peer = listener.accept();
  peer.close();
}

TEST_F(BlockingSocketNames, ANameThatIsNotInTheListIsReported) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  replace_file("/etc/hosts", "127.0.0.1 gate.works\n");
  replace_file("/etc/nsswitch.conf", "hosts: files\n");
  std::string host = "nobody.works";
  Socket socket(Socket::TCP_CLIENT, host.data(), 7);
  EXPECT_EQ(socket.s, -1);
  EXPECT_THAT(said(), ElementsAre("Socket: couldn't resolve host nobody.works"));
}

}  // namespace
}  // namespace oskernel_test
