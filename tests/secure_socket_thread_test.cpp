// Secure blocking sockets on several threads at once, each on its own: what they share is made once.

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "support/secure_fixture.h"

namespace oskernel_test {
namespace {

class SecureSocketThreads : public SecureTest {};

TEST_F(SecureSocketThreads, SessionsBeginAndTalkOnManyThreads) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  files.of(TlsFiles::kServer);
  constexpr int kThreads = 4, kRounds = 5;
  std::atomic<int> answered{0};
  {
    std::vector<std::unique_ptr<WatchedThread>> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.push_back(std::make_unique<WatchedThread>([t, &answered] {
        for (int i = 0; i < kRounds; ++i) {
          Served served = served_connection({.version = kVersions[(t + i) % 2]});
          served.peer->send("ping");
          if (taken(served->RecWait(kPatienceMs)) == "ping") ++answered;
          served->DataIndication(buffer_of("pong"));
          EXPECT_EQ(served.peer->receive(4), "pong");
        }
      }));
    }
  }
  EXPECT_EQ(answered, kThreads * kRounds);
  EXPECT_TRUE(SecureSocket::initialized_ssl);
}

TEST_F(SecureSocketThreads, ClientsAndServersOfTheLibraryMeet) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  // The library's own server waits for its client, and the client for its server: a relay says the first word.
  SecureSocket listener(Socket::TCP_SERVER, 0, true, kLoopback);
  ByteRelay relay(listener.LocalPort(), {.portion = 100, .greeting = std::string(kHelloRequest)});
  std::unique_ptr<SecureSocket> client;
  WatchedThread connecting([&] { client = secure_client(relay.port()); });
  const std::unique_ptr<Socket> accepted(listener.Accept());
  ASSERT_NE(accepted, nullptr);
  accepted->ConnectAck();
  ASSERT_TRUE(connecting.finished_within(kPatienceMs));
  EXPECT_TRUE(accepted->Secure());
  ASSERT_TRUE(client->Secure());
  client->DataIndication(buffer_of("ping"));
  EXPECT_EQ(taken(accepted->RecWait(kPatienceMs)), "ping");
  accepted->DataIndication(buffer_of("pong"));
  UBYTE bytes[4];
  EXPECT_EQ(client->RecWait(bytes, 4), 0);
  EXPECT_EQ(std::string(bytes, bytes + 4), "pong");
}

TEST_F(SecureSocketThreads, BesideTheAsynchronousKindBothWork) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served before = served_connection();
  ASSERT_EQ(SSLInfo::Initialise(files.text(files.cert(TlsFiles::kServer)),
                                files.text(files.key(TlsFiles::kServer)), files.text(files.ca())),
            0);
  Served behind = served_connection();
  for (Served* each : {&before, &behind}) {
    each->peer->send("hello");
    EXPECT_EQ(taken((*each)->RecWait(kPatienceMs)), "hello");
  }
}

}  // namespace
}  // namespace oskernel_test
