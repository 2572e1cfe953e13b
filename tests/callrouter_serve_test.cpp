// The router on the network: requests in both framings, peers that misbehave, and the end.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/callrouter_served.h"

namespace callrouter_test {
namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using Texts = std::vector<std::string>;

// ---- requests and answers

TEST(CallrouterServe, AnswersLinesWhateverTheyEndIn) {
  const Served router;
  PeerStream peer = router.lines();
  EXPECT_EQ(answer(peer, "+44 20 7946 0123\n"), kLondon);
  EXPECT_EQ(answer(peer, "0044 (0)20 7946-0123\r\n"), kLondon);
  EXPECT_EQ(answer(peer, "1 (242) 555-0107\r"), kNassau);
  EXPECT_EQ(answer(peer, std::string("+44 20 7946 0123\r\0", 18)), kLondon);
}

TEST(CallrouterServe, AnswersPackets) {
  const Served router;
  PeerStream peer = router.packets();
  ASSERT_TRUE(peer.send_all(packet("+44 20 7946 0123")));
  EXPECT_EQ(next_packet(peer), kLondon);
  ASSERT_TRUE(peer.send_all(packet("1 (242) 555-0107\r\n")));
  EXPECT_EQ(next_packet(peer), kNassau);
}

TEST(CallrouterServe, MalformedAndUnroutableRequestsAreAnsweredWithTheReason) {
  const Served router;
  PeerStream lines = router.lines(), packets = router.packets();
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"1-800-FLOWERS", "1-800-FLOWERS      malformed: unexpected 'F' at column 7"},
      {"+", "+                  malformed: no digits"},
      {" ", "                   malformed: empty line"},
      {"1234567890123456", "1234567890123456   malformed: 16 digits, the most is 15"},
      {"4\xFF", "4\\xFF              malformed: unexpected byte 0xFF at column 2"},
      {"+9991", "+9991              unroutable: no prefix of the plan matches"},
  };
  for (const auto& [request, right] : rows) {
    EXPECT_EQ(answer(lines, request + "\r\n"), right);
    ASSERT_TRUE(packets.send_all(packet(request)));
    EXPECT_EQ(next_packet(packets), right);
  }
  EXPECT_EQ(answer(lines, "\r\n"), rows[2].second);
}

TEST(CallrouterServe, RequestThatIsTooLongIsAnsweredAndTheNextOneIsUnderstood) {
  const Served router;
  PeerStream lines = router.lines(), packets = router.packets();
  for (const std::size_t length : {1676u, 1700u, 5000u, 60000u}) {
    EXPECT_THAT(answer(lines, std::string(length, '4') + "\n"), EndsWith("...  malformed: line too long"))
        << length;
    EXPECT_EQ(answer(lines, "+44 20 7946 0123\n"), kLondon);
    ASSERT_TRUE(packets.send_all(packet(std::string(length, '4')) + packet("+44 20 7946 0123")));
    EXPECT_THAT(next_packet(packets), HasSubstr("malformed: line too long")) << length;
    EXPECT_EQ(next_packet(packets), kLondon);
  }
  EXPECT_THAT(answer(lines, std::string(1675, '4') + "\n"),
              HasSubstr("malformed: 1675 digits, the most is 15"));
}

TEST(CallrouterServe, SegmentsDoNotMatter) {
  const Served router;
  PeerStream lines = router.lines(), packets = router.packets();
  for (const char c : std::string("+44 20 7946 0123\r\n1 242 555 0107\r")) {
    ASSERT_TRUE(lines.send_all({&c, 1}));
  }
  EXPECT_EQ(answers(lines, 2), (Texts{kLondon, kNassau}));
  for (const char c : packet("+44 20 7946 0123") + packet("1 242 555 0107"))
    ASSERT_TRUE(packets.send_all({&c, 1}));
  EXPECT_EQ(next_packet(packets), kLondon);
  EXPECT_EQ(next_packet(packets), kNassau);
}

TEST(CallrouterServe, PipelinedRequestsAreAnsweredInTheirOrder) {
  constexpr int kRequests = 20000;
  const Served router;
  PeerStream lines = router.lines(), packets = router.packets();
  for (PeerStream* peer : {&lines, &packets}) {
    std::string requests;
    for (int i = 0; i < kRequests; ++i) {
      const std::string number = "+44" + std::to_string(1000000 + i);
      requests += peer == &lines ? number + "\n" : packet(number);
    }
    std::thread sender([&] { EXPECT_TRUE(peer->send_all(requests)); });
    int wrong = 0;
    std::string text;
    for (int i = 0; i < kRequests; ++i) {
      std::string one;
      if (peer == &packets) {
        one = next_packet(*peer);
      } else {
        while (text.find("\r\n") == std::string::npos && peer->receive_some(&text, 65536)) {
        }
        one = text.substr(0, text.find("\r\n"));
        text.erase(0, one.size() + 2);
      }
      if (!one.starts_with("+44" + std::to_string(1000000 + i) + " ") && ++wrong < 5)
        ADD_FAILURE() << i << ": " << one;
      if (one.empty() || one == "(none)") break;
    }
    sender.join();
  }
}

TEST(CallrouterServe, PeerThatEndsItsOwnSendingGetsItsAnswersFirst) {
  const Served router;
  PeerStream lines = router.lines();
  ASSERT_TRUE(lines.send_all("+44 20 7946 0123\n1 242 555 0107"));  // no end: the connection's is one
  lines.half_close();
  EXPECT_EQ(lines.receive_to_end(), std::string(kLondon) + "\r\n" + kNassau + "\r\n");
  PeerStream packets = router.packets();
  ASSERT_TRUE(packets.send_all(packet("+44 20 7946 0123") + packet("1 242 555 0107")));
  packets.half_close();
  EXPECT_EQ(packets.receive_to_end(), packet(kLondon) + packet(kNassau));
}

TEST(CallrouterServe, AnotherPlanIsServed) {
  const std::string plan =
      (std::filesystem::temp_directory_path() / ("plan_" + std::to_string(getpid()))).string();
  std::ofstream(plan) << "020,London,gw-london\n";
  Served router({"--plan", plan});
  PeerStream peer = router.lines();
  EXPECT_EQ(answer(peer, "020 7946 0123\n"),
            "02079460123        020      London                                  gw-london");
  std::filesystem::remove(plan);
}

// ---- ports

TEST(CallrouterServe, OnlyThePortsThatAreNamedAreServed) {
  {
    const Served router({"--line", "0"});
    EXPECT_NE(router.line, 0);
    EXPECT_EQ(router.tpkt, 0);
  }
  {
    const Served router({"--tpkt", "0"});
    EXPECT_NE(router.tpkt, 0);
    EXPECT_EQ(router.line, 0);
  }
  const oskernel_test::RefusingPort port;  // held, so that nobody else takes it meanwhile
  const Served router({"--tpkt", std::to_string(port.port()), "--line", "0"});
  EXPECT_EQ(router.tpkt, port.port());
}

TEST(CallrouterServe, PortThatIsTakenIsNamed) {
  const oskernel_test::PeerListener other;
  const std::string port = std::to_string(other.port());
  const Outcome run = run_program({"--serve", "--line", port});
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "callrouter: cannot serve lines on 127.0.0.1:" + port + ": Address already in use\n");
  const Outcome second = run_program({"--serve", "--line", "0", "--tpkt", port});
  EXPECT_EQ(second.exit_code, 2);
  EXPECT_EQ(second.err, "callrouter: cannot serve tpkt on 127.0.0.1:" + port + ": Address already in use\n");
}

TEST(CallrouterServe, AddressThatIsNotOursIsNamed) {
  const Outcome run = run_program({"--serve", "--bind", "192.0.2.1"});
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_THAT(run.err, AllOf(StartsWith("callrouter: cannot serve tpkt on 192.0.2.1:0: "), EndsWith("\n")));
}

TEST(CallrouterServe, MistakesOnTheCommandLineAreExplained) {
  const std::vector<Texts> mistakes = {{"--line", "5"},
                                       {"--serve", "--line", "65536"},
                                       {"--serve", "--tpkt", "-1"},
                                       {"--serve", "FILE"},
                                       {"--serve", "--json"},
                                       {"--serve", "--csv"},
                                       {"--serve", "--idle", "0"},
                                       {"--serve", "--connections", "0"},
                                       {"--serve", "--bind", ""},
                                       {"--bind", "127.0.0.1"}};
  for (const Texts& mistake : mistakes) {
    const Outcome run = run_program(mistake);
    EXPECT_EQ(run.exit_code, 2) << mistake.back();
    EXPECT_EQ(run.out, "");
    EXPECT_THAT(run.err, AllOf(StartsWith("callrouter: "), EndsWith("\nTry callrouter --help\n")));
  }
}

// ---- peers that misbehave

TEST(CallrouterServe, BrokenFrameEndsThatConnectionAlone) {
  const Served router;
  PeerStream good = router.packets(), lines = router.lines();
  for (const std::string& broken : {std::string("\x16\x03\x01\x02"), std::string("\x03\x00\x00\x03", 4),
                                    std::string("GET / HTTP/1.0\r\n\r\n")}) {
    PeerStream bad = router.packets();
    ASSERT_TRUE(bad.send_all(broken));
    EXPECT_TRUE(bad.ended());
    ASSERT_TRUE(good.send_all(packet("+44 20 7946 0123")));
    EXPECT_EQ(next_packet(good), kLondon);
    EXPECT_EQ(answer(lines, "1 242 555 0107\n"), kNassau);
  }
}

TEST(CallrouterServe, PeersThatResetDisturbNobody) {
  const Served router;
  PeerStream good = router.lines();
  for (int i = 0; i < 50; ++i) {
    PeerStream lines = router.lines(), packets = router.packets();
    ASSERT_TRUE(lines.send_all("+44 20 7946 0123\n+44 20"));
    ASSERT_TRUE(packets.send_all(packet("+44 20 7946 0123") + "\x03"));
    lines.reset();
    packets.reset();
    EXPECT_EQ(answer(good, "1 242 555 0107\n"), kNassau);
  }
}

// Each of them sends what it can without reading a byte; the others are served meanwhile.
TEST(CallrouterServe, PeersThatPipelineWithoutReadingStallNobody) {
  constexpr std::size_t kPeers = 20;
  constexpr std::size_t kEach = 1'000'000;
  Served router;
  const std::string number = "+44 20 7946 0123\n", framed = packet("+44 20 7946 0123");
  std::vector<PeerStream> floods;
  for (std::size_t i = 0; i < kPeers; ++i) floods.push_back(i % 2 == 0 ? router.lines() : router.packets());
  for (PeerStream& flood : floods) {
    const int bytes = 64 * 1024;
    ::setsockopt(flood.fd(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    flood.set_receive_buffer(bytes);
  }
  std::vector<std::size_t> sent(kPeers, 0);
  PeerStream lines = router.lines(), packets = router.packets();
  // Until no flood goes on: everything between us and the router is full.
  for (int idle = 0; idle < 20;) {
    bool more = false;
    for (std::size_t i = 0; i < kPeers; ++i) {
      const std::string& request = i % 2 == 0 ? number : framed;
      while (sent[i] < kEach * request.size()) {
        const std::string_view rest = std::string_view(request).substr(sent[i] % request.size());
        const ssize_t went = ::send(floods[i].fd(), rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (went <= 0) break;
        sent[i] += static_cast<std::size_t>(went);
        more = true;
      }
    }
    EXPECT_EQ(answer(lines, "1 242 555 0107\n"), kNassau);
    ASSERT_TRUE(packets.send_all(packet("1 242 555 0107")));
    EXPECT_EQ(next_packet(packets), kNassau);
    idle = more ? 0 : idle + 1;
  }
  router.type("sockets\n");
  EXPECT_TRUE(router.shows("22 of 1,000 connections\n"));
  EXPECT_TRUE(router.shows("does not read its answers\n"));
  floods.clear();
  EXPECT_EQ(answer(lines, "1 242 555 0107\n"), kNassau);
  router.stops_cleanly();
}

TEST(CallrouterServe, PeerThatDoesNotReadAndEndsIsDroppedWhenItIsIdle) {
  Served router({"--idle", "1"});
  PeerStream peer = router.lines();
  peer.set_receive_buffer(4096);
  EXPECT_EQ(answer(peer, "1 242 555 0107\n"), kNassau);
  const std::string requests(400000, '\n');
  ::send(peer.fd(), requests.data(), requests.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  EXPECT_TRUE(wait_until(
      [&] {
        router.type("sockets\n");
        return router.shows("connections\n") && router.shown().ends_with("0 of 1,000 connections\n> ");
      },
      kLimitMs));
}

TEST(CallrouterServe, IdleConnectionsAreClosedAndBusyOnesAreNot) {
  const Served router({"--idle", "0.5"});
  PeerStream silent = router.lines(), half = router.packets(), busy = router.lines();
  ASSERT_TRUE(half.send_all("\x03"));
  std::atomic<bool> over{false};
  std::thread asking([&] {
    while (!over) EXPECT_EQ(answer(busy, "1 242 555 0107\n"), kNassau);
  });
  EXPECT_EQ(silent.receive_to_end(), "error: no request for 0.5 s, closing\r\n");
  EXPECT_EQ(half.receive_to_end(), packet("error: no request for 0.5 s, closing"));
  over = true;
  asking.join();
}

TEST(CallrouterServe, TooManyConnectionsAreToldSoAndThereIsRoomAgainWhenOneHasGone) {
  Served router({"--connections", "2"});
  PeerStream first = router.lines(), second = router.packets();
  EXPECT_EQ(answer(first, "1 242 555 0107\n"), kNassau);
  ASSERT_TRUE(second.send_all(packet("1 242 555 0107")));
  EXPECT_EQ(next_packet(second), kNassau);
  const std::string words = "error: the limit of 2 connections is reached; try again later";
  EXPECT_EQ(router.lines().receive_to_end(), words + "\r\n");
  EXPECT_EQ(router.packets().receive_to_end(), packet(words));
  second.close();
  EXPECT_TRUE(wait_until(
      [&] {
        PeerStream third = router.lines();
        return third.send_all("1 242 555 0107\n") && answers(third, 1) == Texts{kNassau};
      },
      kLimitMs));
  EXPECT_EQ(answer(first, "1 242 555 0107\n"), kNassau);
}

TEST(CallrouterServe, ConnectionsThatComeAndGoLeaveNothing) {
  Served router;
  const auto descriptors = [&] {
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(router.pid()) + "/fd");
    return std::distance(begin(all), end(all));
  };
  // Its threads open what they need when they begin; one that has served a peer has all of it.
  PeerStream first = router.lines();
  EXPECT_EQ(answer(first, "1 242 555 0107\n"), kNassau);
  const auto before = descriptors();
  for (int i = 0; i < 300; ++i) {
    PeerStream peer = i % 2 == 0 ? router.lines() : router.packets();
    if (i % 3 == 0) peer.send_all(i % 2 == 0 ? "44\n" : packet("44"));
    if (i % 15 == 0) peer.receive(10);
  }
  EXPECT_TRUE(wait_until([&] { return descriptors() == before; }, kLimitMs));
  router.stops_cleanly();
}

// ---- the operator, and the end

TEST(CallrouterServe, OperatorSeesConnectionsAndNames) {
  Served router;
  PeerStream lines = router.lines();
  // One after the other: the two ports accept independently of each other.
  EXPECT_EQ(answer(lines, "1 242 555 0107\n"), kNassau);
  PeerStream packets = router.packets();
  ASSERT_TRUE(packets.send_all(packet("1 242 555 0107")));
  EXPECT_EQ(next_packet(packets), kNassau);
  router.type("sockets\n");
  EXPECT_TRUE(router.shows("serving tpkt on port " + std::to_string(router.tpkt) + "\n"));
  EXPECT_TRUE(
      router.shows("serving lines on port " + std::to_string(router.line) + "\n2 of 1,000 connections\n"));
  EXPECT_TRUE(router.shows("1  lines  127.0.0.1:" + std::to_string(lines.local_port()) + " "));
  EXPECT_TRUE(router.shows("2  tpkt   127.0.0.1:" + std::to_string(packets.local_port()) + " "));
  router.type("names\n");
  EXPECT_TRUE(router.shows("no name is known\n"));
  router.type("resolve localhost\n");
  EXPECT_TRUE(wait_until(
      [&] {
        router.type("resolve localhost\n");
        return router.shown().find("localhost is 127.0.0.1\n") != std::string::npos;
      },
      kLimitMs));
  // The time to live runs from the delivery, a moment after it has been found.
  EXPECT_TRUE(wait_until(
      [&] {
        router.type("names\n");
        return router.shown().find("localhost                                127.0.0.1       for another ") !=
               std::string::npos;
      },
      kLimitMs));
  router.type("route 44\nstats\nquit\n");
  EXPECT_TRUE(router.shows("United Kingdom"));
  EXPECT_TRUE(router.shows("in the last second "));
  EXPECT_THAT(router.stops_cleanly(0), StartsWith("routed 2, unroutable 0, malformed 0: 2 numbers in "));
}

TEST(CallrouterServe, AddressMayBeAName) {
  Served router({"--bind", "localhost"});
  PeerStream lines = router.lines();
  EXPECT_EQ(answer(lines, "1 242 555 0107\n"), kNassau);
  router.type("names\n");
  EXPECT_TRUE(router.shows("localhost "));
}

TEST(CallrouterServe, SocketsAndNamesNeedTheNetwork) {
  const Outcome run = run_program({"--console"}, "sockets\nnames\nresolve localhost\n");
  EXPECT_EQ(run.exit_code, 0);
  std::size_t count = 0;
  for (std::size_t at = 0; (at = run.out.find("the network is not served", at)) != std::string::npos; ++at)
    ++count;
  EXPECT_EQ(count, 3u);
}

TEST(CallrouterServe, EndOfItsInputEndsNothing) {
  Served router({"--quiet"});
  router.close_input();
  PeerStream peer = router.lines();
  EXPECT_EQ(answer(peer, "1 242 555 0107\n"), kNassau);
  EXPECT_EQ(router.stops_cleanly(), "");
}

TEST(CallrouterServe, EndOfCommandsEndsNothing) {
  Served router({"--quiet"});
  router.type("route 44\n");
  EXPECT_TRUE(router.shows("United Kingdom"));
  router.close_input();
  PeerStream peer = router.lines();
  EXPECT_EQ(answer(peer, "1 242 555 0107\n"), kNassau);
  EXPECT_EQ(router.stops_cleanly(), "");
}

TEST(CallrouterServe, InputThatIsClosedOrEmptyEndsNothing) {
  const Descriptor null(open("/dev/null", O_RDWR | O_CLOEXEC));
  for (const int in : {-1, null.get()}) {
    Pipe out;
    Child child({"--serve", "--quiet"}, in, out.write.get(), null.get());
    out.write.reset();
    Collector text(std::move(out.read));
    EXPECT_TRUE(text.wait_for("serving lines on "));
    EXPECT_TRUE(text.wait_for("\n"));
    const std::string shown = text.so_far();
    PeerStream peer =
        PeerStream::connect_to(static_cast<UWORD>(std::stoi(shown.substr(shown.rfind(':') + 1))));
    EXPECT_EQ(answer(peer, "1 242 555 0107\n"), kNassau);
    child.send(SIGTERM);
    EXPECT_EQ(child.wait().exit_code, 0);
    EXPECT_EQ(text.all(), shown);
  }
}

class CallrouterServeSignal : public ::testing::TestWithParam<int> {};

TEST_P(CallrouterServeSignal, EndsItCleanlyWhateverTheConnectionsAreAt) {
  Served router;
  std::vector<PeerStream> peers;
  for (int i = 0; i < 30; ++i) {
    peers.push_back(i % 2 == 0 ? router.lines() : router.packets());
    if (i % 3 == 0) peers.back().send_all("\x03");
    if (i % 3 == 1) peers.back().send_all(i % 2 == 0 ? "44\n" : packet("44"));
  }
  // In full flow, too.
  std::atomic<bool> over{false};
  PeerStream busy = router.lines();
  std::thread flow([&] {
    const std::string requests(10000, '\n');
    while (!over)
      ::send(busy.fd(), requests.data(), requests.size(), MSG_DONTWAIT | MSG_NOSIGNAL), busy.receive_now();
  });
  PeerStream asking = router.lines();
  EXPECT_EQ(answer(asking, "1 242 555 0107\n"), kNassau);
  router.stops_cleanly(GetParam());
  over = true;
  flow.join();
  for (PeerStream& peer : peers) EXPECT_TRUE(peer.ended());
}

INSTANTIATE_TEST_SUITE_P(Signals, CallrouterServeSignal, ::testing::Values(SIGTERM, SIGINT, SIGHUP),
                         [](const auto& row) { return sigabbrev_np(row.param); });

// On a terminal of its own the operator has the console, and leaves with quit or control-D.
TEST(CallrouterServe, TerminalHasTheConsole) {
  for (const char* farewell : {"quit\r", "\x04"}) {
    int master = -1, slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    fcntl(master, F_SETFD, FD_CLOEXEC);
    Descriptor keyboard(fcntl(master, F_DUPFD_CLOEXEC, 0));
    Child child({"--serve"}, slave, slave, slave, true);
    close(slave);
    Collector screen{Descriptor(master)};
    EXPECT_TRUE(screen.wait_for("serving tpkt on 127.0.0.1:"));
    EXPECT_TRUE(screen.wait_for("serving lines on 127.0.0.1:"));
    EXPECT_TRUE(screen.wait_for("> "));
    write_all(keyboard.get(), "sockets\r");
    EXPECT_TRUE(screen.wait_for("0 of 1,000 connections\r\n> "));
    write_all(keyboard.get(), farewell);
    EXPECT_EQ(child.wait().exit_code, 0);
    EXPECT_THAT(screen.all(), Not(HasSubstr("left behind")));
  }
}

}  // namespace
}  // namespace callrouter_test
