// Peers that nobody here wrote: nc and socat at the line port, tshark looking at the packets. Where one of them is
// not installed the test fails: ./test installs them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "tests/callrouter_served.h"
#include "tests/support/net_namespace.h"

namespace callrouter_test {
namespace {

using oskernel_test::Process;
using ::testing::HasSubstr;
using ::testing::Not;

Outcome run_peer(const char* program, std::vector<std::string> arguments, std::string_view input) {
  return run_program(std::move(arguments), input, program);
}

std::string two_answers() { return std::string(kLondon) + "\r\n" + kNassau + "\r\n"; }

TEST(CallrouterPeers, NcAsksAndEndsItsSending) {
  const Served router;
  for (const char* input : {"+44 20 7946 0123\n1 242 555 0107\n", "+44 20 7946 0123\r\n1 242 555 0107\r\n",
                            "+44 20 7946 0123\r1 242 555 0107", "+44 20 7946 0123\n1 242 555 0107"}) {
    const Outcome run = run_peer("nc", {"-N", "127.0.0.1", std::to_string(router.line)}, input);
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.out, two_answers());
  }
}

TEST(CallrouterPeers, NcSendsLineEndsOfATerminal) {
  const Served router;
  const Outcome run = run_peer("nc", {"-N", "-C", "127.0.0.1", std::to_string(router.line)},
                               "+44 20 7946 0123\n1 242 555 0107\n");
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.out, two_answers());
}

TEST(CallrouterPeers, NcIsAnsweredWhileItIsTyping) {
  const Served router;
  PipedChild nc({"127.0.0.1", std::to_string(router.line)}, "nc");
  Collector text(std::move(nc.out));
  for (const char* prefix : {"44", "45", "46"}) {
    write_all(nc.in.get(), std::string("+") + prefix + "20\n");
    EXPECT_TRUE(text.wait_for(std::string("+") + prefix + "20 "));
  }
  nc.child.send(SIGKILL);  // it would stay, and the collector with it
}

TEST(CallrouterPeers, NcThatOnlyStaysIsClosedWhenItIsIdle) {
  const Served router({"--idle", "0.3"});
  const Outcome run = run_peer("nc", {"-d", "127.0.0.1", std::to_string(router.line)}, "");
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.out, "error: no request for 0.3 s, closing\r\n");
}

TEST(CallrouterPeers, NcPipesALongList) {
  constexpr int kNumbers = kPlainBuild ? 200'000 : 10'000;
  const Served router;
  std::string input;
  for (int i = 0; i < kNumbers; ++i) input += "+44" + std::to_string(10'000'000 + i) + "\n";
  const Outcome run = run_peer("nc", {"-N", "127.0.0.1", std::to_string(router.line)}, input);
  EXPECT_EQ(run.exit_code, 0);
  std::size_t at = 0;
  int wrong = 0, count = 0;
  for (std::size_t end; (end = run.out.find("\r\n", at)) != std::string::npos; at = end + 2, ++count) {
    const std::string number = "+44" + std::to_string(10'000'000 + count) + " ";
    wrong += run.out.compare(at, number.size(), number) == 0 ? 0 : 1;
  }
  EXPECT_EQ(count, kNumbers);
  EXPECT_EQ(wrong, 0);
}

TEST(CallrouterPeers, SocatAsks) {
  const Served router;
  const std::string port = std::to_string(router.line);
  for (const char* crlf : {"", ",crlf"}) {
    const Outcome run = run_peer("socat", {"-t", "20", "-", "TCP4:127.0.0.1:" + port + crlf},
                                 "+44 20 7946 0123\n1 242 555 0107\n");
    EXPECT_EQ(run.exit_code, 0) << run.err;
    // With crlf, socat turns the router's line ends into its own.
    EXPECT_EQ(run.out, *crlf == '\0' ? two_answers() : std::string(kLondon) + "\n" + kNassau + "\n");
  }
}

// socat sends in small blocks and in both directions at once.
TEST(CallrouterPeers, SocatSendsInSmallBlocks) {
  const Served router;
  const Outcome run =
      run_peer("socat", {"-b", "3", "-t", "20", "-", "TCP4:127.0.0.1:" + std::to_string(router.line)},
               "+44 20 7946 0123\r\n1 242 555 0107\r\n");
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, two_answers());
}

// ---- tshark

class Directory {
 public:
  Directory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "callrouter_XXXXXX").string();
    EXPECT_NE(mkdtemp(pattern.data()), nullptr);
    path_ = pattern;
  }
  ~Directory() { std::filesystem::remove_all(path_); }
  std::string file(const char* name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// What tshark makes of a capture.
std::string dissected(const std::string& capture, UWORD port, std::vector<std::string> more) {
  std::vector<std::string> arguments = {"-n", "-r", capture, "-d",
                                        "tcp.port==" + std::to_string(port) + ",tpkt"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  // On standard error it warns of what concerns nobody here: that root runs it, for instance.
  const Outcome run = run_peer("tshark", arguments, "");
  EXPECT_EQ(run.exit_code, 0) << run.err;
  return run.out;
}

std::size_t count_of(const std::string& text, const std::string& what) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) ++count;
  return count;
}

TEST(CallrouterPeers, TsharkFindsNoMalformedPacket) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  constexpr std::size_t kCalls = 200;
  const Directory directory;
  const std::string capture = directory.file("capture.pcapng");
  const Served router;
  Process dumpcap(
      {"dumpcap", "-q", "-i", "lo", "-w", capture, "-f", "tcp port " + std::to_string(router.tpkt)});
  ASSERT_TRUE(dumpcap.wait_for_output("File: "));

  // Requests one at a time, many at once, byte by byte, and a long one.
  {
    PeerStream peer = router.packets();
    for (std::size_t i = 0; i < kCalls; ++i) {
      ASSERT_TRUE(peer.send_all(packet("+44 20 7946 0123")));
      ASSERT_EQ(next_packet(peer), kLondon);
    }
    std::string many;
    for (std::size_t i = 0; i < kCalls; ++i) many += packet("1 242 555 0107");
    ASSERT_TRUE(peer.send_all(many));
    for (std::size_t i = 0; i < kCalls; ++i) ASSERT_EQ(next_packet(peer), kNassau);
    for (const char c : packet("+44 20 7946 0123")) ASSERT_TRUE(peer.send_all({&c, 1}));
    ASSERT_EQ(next_packet(peer), kLondon);
    ASSERT_TRUE(peer.send_all(packet(std::string(30000, '4'))));
    EXPECT_THAT(next_packet(peer), HasSubstr("malformed: line too long"));
    peer.half_close();
    EXPECT_TRUE(peer.ended());
  }
  // And from our own client.
  const Outcome client = run_program({"--tpkt", "127.0.0.1", std::to_string(router.tpkt), "--load", "200",
                                      "--connections", "4", "--pipeline", "8"},
                                     "", CALLROUTE_PROGRAM);
  EXPECT_EQ(client.exit_code, 0) << client.err;
  const Outcome mark = run_program({"--tpkt", "127.0.0.1", std::to_string(router.tpkt), "+44 20 7946 0999"},
                                   "", CALLROUTE_PROGRAM);
  EXPECT_EQ(mark.exit_code, 0) << mark.err;

  // What has been captured reaches the file a moment later; the answer to this one last.
  const std::string filter = "tpkt && tcp.srcport == " + std::to_string(router.tpkt);
  ASSERT_TRUE(wait_until(
      [&] {
        std::ifstream file(capture, std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        return bytes.find("+442079460999") != std::string::npos;
      },
      kLimitMs));
  dumpcap.send(SIGINT);
  EXPECT_EQ(dumpcap.wait(), 0) << dumpcap.output();

  EXPECT_EQ(dissected(capture, router.tpkt, {"-Y", "_ws.malformed"}), "");
  EXPECT_EQ(dissected(capture, router.tpkt, {"-Y", "tpkt && tpkt.version != 3"}), "");
  // Every answer is a packet of its own: one line for each frame, its lengths separated by commas.
  const std::string lengths =
      dissected(capture, router.tpkt, {"-Y", filter, "-T", "fields", "-e", "tpkt.length"});
  EXPECT_EQ(count_of(lengths, "\n") + count_of(lengths, ","), 2 * kCalls + 2 + 200 + 1) << lengths;
  EXPECT_THAT(lengths, HasSubstr(std::to_string(std::string(kLondon).size() + 4)));
  const std::string requests = dissected(
      capture, router.tpkt,
      {"-Y", "tpkt && tcp.dstport == " + std::to_string(router.tpkt), "-T", "fields", "-e", "tpkt.length"});
  EXPECT_EQ(count_of(requests, "\n") + count_of(requests, ","), 2 * kCalls + 2 + 200 + 1) << requests;
}

}  // namespace
}  // namespace callrouter_test
