// The name cache with the system's own resolver, which asks a real name server in a network of its own.

#include <gtest/gtest.h>

#include <atomic>
#include <initializer_list>
#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "network/asocket.h"
#include "support/line_probe.h"
#include "support/net_namespace.h"
#include "support/network_fixture.h"
#include "support/watched_thread.h"

using namespace oskernel_test;

namespace {

constexpr ULONG ip(ULONG a, ULONG b, ULONG c, ULONG d) { return a << 24 | b << 16 | c << 8 | d; }

/// `dnsmasq` on 127.0.0.1, the only name server of this test.
class NameServer {
 public:
  struct Record {
    std::string name, address;
  };

  /// Each name, and what lies below it, has the address; an empty address is one that does not exist.
  NameServer(std::initializer_list<Record> records) : program_(command(records)) {
    EXPECT_TRUE(program_.wait_for_output("started"));
  }
  /// How often it has been asked for the name.
  int queries(const std::string& name) const {
    const std::string log = program_.output();
    const std::string query = "query[A] " + name + " from";
    int count = 0;
    for (std::size_t at = log.find(query); at != std::string::npos; at = log.find(query, at + 1)) ++count;
    return count;
  }
  void stop() { program_.stop(); }

 private:
  static std::vector<std::string> command(std::initializer_list<Record> records) {
    std::vector<std::string> words = {"dnsmasq",
                                      "--no-daemon",
                                      "--no-resolv",
                                      "--no-hosts",
                                      "--port=53",
                                      "--listen-address=127.0.0.1",
                                      "--conf-file=/dev/null",
                                      "--log-queries"};
    for (const Record& record : records) {
      words.push_back("--address=/" + record.name + "/" + record.address);
    }
    return words;
  }

  Process program_;
};

class RealResolver : public NetworkTest {
 protected:
  static void use_name_server(const char* options) {
    use_resolv_conf(std::string("nameserver 127.0.0.1\noptions ") + options + "\n");
    replace_file("/etc/nsswitch.conf", "hosts: dns\n");
  }
  static bool becomes(const std::string& name, ULONG address) {
    return wait_until([&] { return DNSEntry::Lookup(name.c_str(), nullptr) == address; }, kPatienceMs);
  }
  static int entries() {
    EnterCriticalSection(&DNSEntry::cs);
    const int count = DNSEntry::entries.Size();
    LeaveCriticalSection(&DNSEntry::cs);
    return count;
  }
};

TEST_F(RealResolver, ResolvesNamesInTheBackgroundAndOnce) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  use_name_server("timeout:5 attempts:3");
  const NameServer server{{"host.example", "10.1.2.3"}, {"other.example", "10.1.2.4"}};
  EXPECT_EQ(DNSEntry::Lookup("host.example", nullptr), 0u);
  EXPECT_TRUE(becomes("host.example", ip(10, 1, 2, 3)));
  EXPECT_TRUE(becomes("other.example", ip(10, 1, 2, 4)));
  for (int i = 0; i < 100; ++i) EXPECT_EQ(DNSEntry::Lookup("Host.EXAMPLE", nullptr), ip(10, 1, 2, 3));
  EXPECT_EQ(server.queries("host.example"), 1);
  EXPECT_EQ(SockAddr("host.example", 80).Address(), ip(10, 1, 2, 3));
  SockAddr address;
  address.Set("  other.example", 81);
  EXPECT_EQ(address.Address(), ip(10, 1, 2, 4));
}

TEST_F(RealResolver, ASocketConnectsToTheHostThatTheServerNames) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  use_name_server("timeout:5 attempts:3");
  Namespace::own().add_address("lo", "10.1.2.3/32");
  const NameServer server{{"host.example", "10.1.2.3"}};
  const OwnedSocket listener = indirect_socket();
  ASSERT_EQ(listener->Create(SOCK_STREAM, 0, ip(10, 1, 2, 3), false), 0);
  const UWORD port = listener->LocalPort();
  std::atomic<int> accepted{0};
  const auto accept = [](OSObj* count, ADDR socket, ULONG) {
    ++*reinterpret_cast<std::atomic<int>*>(count);
    static_cast<AsyncSocket*>(socket)->Free();
  };
  ASSERT_EQ(listener->Listen(accept, &accepted), 0);
  for (const bool indirect : {true, false}) {
    RecordingLayer layer;
    const OwnedSocket socket(new AsyncSocket(indirect));
    ASSERT_EQ(socket->Create(SOCK_STREAM, 0, 0, false), 0);
    socket->Bind(&layer);
    EXPECT_EQ(socket->Connect("host.example", port), 0);
    ASSERT_TRUE(layer.wait_for_connect());
    EXPECT_EQ(socket->RemoteIP_h(), ip(10, 1, 2, 3));
    EXPECT_EQ(socket->RemotePort(), port);
    ASSERT_TRUE(layer.wait_for_disconnect());
  }
  EXPECT_EQ(accepted, 2);
  EXPECT_EQ(server.queries("host.example"), 1);
}

TEST_F(RealResolver, ANameThatDoesNotExistIsReportedAndForgotten) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  use_name_server("timeout:5 attempts:3");
  const NameServer server{{"nobody.example", ""}};
  for (int attempt = 1; attempt <= 3; ++attempt) {
    RecordingLayer layer;
    const OwnedSocket socket = indirect_socket();
    ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    socket->Bind(&layer);
    EXPECT_EQ(socket->Connect("nobody.example", 80), 0);
    ASSERT_TRUE(layer.wait_for(1));
    EXPECT_EQ(layer.story(), std::vector<std::string>{"disconnect(4,0)"});
    EXPECT_EQ(console.count("AsyncSocket::DNSResult - couldn't resolve host nobody.example"), attempt);
    EXPECT_TRUE(wait_until([] { return entries() == 0; }));
    EXPECT_EQ(server.queries("nobody.example"), attempt) << "failures are not kept";
  }
}

TEST_F(RealResolver, AHostOfTheOtherFamilyAloneIsNotFound) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  use_name_server("timeout:5 attempts:3");
  const NameServer server{{"six.example", "2001:db8::1"}};
  RecordingLayer layer;
  const OwnedSocket socket = indirect_socket();
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  socket->Bind(&layer);
  socket->Connect("six.example", 80);
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_EQ(layer.story(), std::vector<std::string>{"disconnect(4,0)"});
}

TEST_F(RealResolver, OneOfSeveralAddressesIsTaken) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  use_name_server("timeout:5 attempts:3");
  const NameServer server{{"many.example", "10.0.0.1"}, {"many.example", "10.0.0.2"}};
  ULONG found = 0;
  ASSERT_TRUE(
      wait_until([&] { return (found = DNSEntry::Lookup("many.example", nullptr)) != 0; }, kPatienceMs));
  EXPECT_TRUE(found == ip(10, 0, 0, 1) || found == ip(10, 0, 0, 2)) << found;
}

TEST_F(RealResolver, AKnownAddressIsKeptWhenTheServerChangesItsMind) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  use_name_server("timeout:5 attempts:3");
  {
    const NameServer before{{"host.example", "10.1.2.3"}};
    ASSERT_TRUE(becomes("host.example", ip(10, 1, 2, 3)));
  }
  const NameServer after{{"host.example", "10.9.9.9"}};
  EXPECT_EQ(DNSEntry::Lookup("host.example", nullptr), ip(10, 1, 2, 3));
  EXPECT_EQ(after.queries("host.example"), 0);
  DNSEntry::Clear("host.example");
  EXPECT_TRUE(becomes("host.example", ip(10, 9, 9, 9)));
  EXPECT_EQ(after.queries("host.example"), 1);
}

TEST_F(RealResolver, ManyNamesAreResolvedOneAfterTheOther) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  use_name_server("timeout:5 attempts:3");
  const NameServer server{{"zone.example", "10.0.0.5"}, {"nothing.example", ""}};
  constexpr int kNames = 60;
  for (int i = 0; i < kNames; ++i) {
    DNSEntry::Lookup(("a" + std::to_string(i) + ".zone.example").c_str(), nullptr);
    DNSEntry::Lookup(("a" + std::to_string(i) + ".nothing.example").c_str(), nullptr);
  }
  for (int i = 0; i < kNames; ++i) {
    EXPECT_TRUE(becomes("a" + std::to_string(i) + ".zone.example", ip(10, 0, 0, 5)));
  }
  EXPECT_TRUE(wait_until([] { return entries() == kNames; }, kPatienceMs)) << entries();
}

TEST_F(RealResolver, NobodyToAskIsAFailure) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  use_name_server("timeout:1 attempts:1");
  RecordingLayer layer;
  const OwnedSocket socket = indirect_socket();
  ASSERT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  socket->Bind(&layer);
  socket->Connect("host.example", 80);
  ASSERT_TRUE(layer.wait_for(1));
  EXPECT_EQ(layer.story(), std::vector<std::string>{"disconnect(4,0)"});
}

/// A name server that hears and does not answer.
class SilentNameServer {
 public:
  SilentNameServer() : fd_(bound_socket(SOCK_DGRAM, 53)) { EXPECT_TRUE(fd_.is_open()); }
  bool is_asked() const { return wait_readable(fd_.get()); }

 private:
  Descriptor fd_;
};

TEST_F(RealResolver, NobodyWaitsForASlowServer) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  use_name_server("timeout:1 attempts:1");
  const SilentNameServer server;
  RecordingLayer waiting_layer;
  const OwnedSocket waiting = indirect_socket();
  ASSERT_EQ(waiting->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
  waiting->Bind(&waiting_layer);
  EXPECT_EQ(waiting->Connect("host.example", 80), 0);
  ASSERT_TRUE(server.is_asked());

  // Everybody else goes on meanwhile.
  PeerListener listener;
  ProbeLine line(80);
  line.Connect("127.0.0.1", listener.port());
  PeerStream peer = listener.accept();
  ASSERT_TRUE(peer.is_open());
  ASSERT_TRUE(peer.send_all("hello\r\n"));
  EXPECT_TRUE(wait_until([&] { return line.lines().size() == 1; }));
  EXPECT_EQ(DNSEntry::Lookup("another.example", nullptr), 0u);

  line.let_socket_go();

  ASSERT_TRUE(waiting_layer.wait_for(1));
  EXPECT_EQ(waiting_layer.story(), std::vector<std::string>{"disconnect(4,0)"});
}

TEST_F(RealResolver, TheLayerStopsWhenASlowServerLetsIt) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  use_name_server("timeout:1 attempts:1");
  const SilentNameServer server;
  DNSEntry::Lookup("host.example", nullptr);
  DNSEntry::Lookup("next.example", nullptr);
  ASSERT_TRUE(server.is_asked());
  {
    WatchedThread stopper([] { AsyncSocket::Cleanup(); });
    EXPECT_TRUE(stopper.finished_within(kPatienceMs));
  }
  EXPECT_EQ(DNSEntry::entries.Size(), 0);
  EXPECT_EQ(DNSEntry::thread, 0u);
}

}  // namespace
