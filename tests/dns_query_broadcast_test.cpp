// A question to everybody on the local network, and their answers, in a network of its own with the system's resolver.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "support/dns_lookup_probe.h"
#include "support/net_namespace.h"
#include "support/socket_pairs.h"

using namespace oskernel_test;

namespace {

class DnsBroadcast : public NetworkTest {
 protected:
  Asker asker_;
};

/// A socket that hears broadcasts to port 53, of the namespace of the thread that makes it.
Descriptor name_server_socket() {
  Descriptor fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
  const sockaddr_in any = loopback_address(kDnsPort, "0.0.0.0");
  if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) {
    ADD_FAILURE() << "port 53 is taken: " << std::strerror(errno);
  }
  return fd;
}

/// Takes a question and answers it to whoever asks.
std::string answer_one(const Descriptor& server, ULONG addr) {
  if (!wait_readable(server.get())) return "(none)";
  char question[2000];
  sockaddr_in from = {};
  socklen_t length = sizeof from;
  const ssize_t got =
      ::recvfrom(server.get(), question, sizeof question, 0, reinterpret_cast<sockaddr*>(&from), &length);
  if (got < 0) return "(none)";
  const std::string answer = address_answer("host.test", addr);
  ::sendto(server.get(), answer.data(), answer.size(), 0, reinterpret_cast<const sockaddr*>(&from), length);
  return std::string(question, static_cast<std::size_t>(got));
}

TEST_F(DnsBroadcast, WithoutAServerTheLocalNetworkIsAsked) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Namespace here = Namespace::own(), there = Namespace::fresh();
  join(here, "left", there, "right");
  here.add_address("left", "10.9.0.1/24");
  there.add_address("right", "10.9.0.2/24");
  here.add_route("default dev left");
  Descriptor server;
  there.in([&server] { server = name_server_socket(); });

  for (const char* text :
       {static_cast<const char*>(nullptr), "", "255.255.255.255", "10.9.0.255", "10.9.0.2"}) {
    SCOPED_TRACE(text != nullptr ? text : "(null)");
    asker_.clear();
    const OwnedLookup lookup = ask(asker_, "host.test", T_A, text);
    EXPECT_EQ(answer_one(server, 0xC0A80001), question_bytes("host.test", T_A));
    ASSERT_TRUE(asker_.wait_for(1));
    EXPECT_EQ(asker_.all()[0].value, 0u);
    EXPECT_EQ(first_address(*lookup), 0xC0A80001u);
    EXPECT_EQ(lookup->socket->RemotePort(), kDnsPort);
  }
  EXPECT_EQ(console.count("AsyncSocket::DNSResult - address for 255.255.255.255 is 255.255.255.255"), 3);
}

TEST_F(DnsBroadcast, EverybodyWhoAnswersIsHeard) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  const Namespace here = Namespace::own(), there = Namespace::fresh();
  join(here, "left", there, "right");
  here.add_address("left", "10.9.0.1/24");
  there.add_address("right", "10.9.0.2/24");
  here.add_route("default dev left");
  Descriptor first, second;
  there.in([&first] { first = name_server_socket(); });
  std::mutex mutex;
  std::vector<ULONG> heard;
  asker_.set_hook([&](DnsLookup* lookup, ULONG) {
    const std::lock_guard<std::mutex> lock(mutex);
    heard.push_back(first_address(*lookup));
  });
  const OwnedLookup lookup = ask(asker_, "host.test", T_A, nullptr);
  EXPECT_EQ(answer_one(first, 0x0A000001), question_bytes("host.test", T_A));
  ASSERT_TRUE(asker_.wait_for(1));
  // The answer of another one, from another port.
  there.in([&] {
    second.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const std::string answer = address_answer("host.test", 0x0A000002);
    const sockaddr_in to = loopback_address(local_port_of(lookup->socket->s), "10.9.0.1");
    ::sendto(second.get(), answer.data(), answer.size(), 0, reinterpret_cast<const sockaddr*>(&to),
             sizeof to);
  });
  ASSERT_TRUE(asker_.wait_for(2));
  EXPECT_EQ(asker_.count(0), 2u);
  const std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(heard, (std::vector<ULONG>{0x0A000001, 0x0A000002}));
}

}  // namespace
