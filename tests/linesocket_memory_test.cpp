// Line sockets when memory runs out: for the line, for what is formatted, for the buffers of what is sent.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "network/asocket.h"
#include "support/buffer_drought.h"
#include "support/failing_heap.h"
#include "support/line_probe.h"
#include "support/network_fixture.h"

using namespace oskernel_test;

namespace {

using Lines = std::vector<std::string>;

class LineMemory : public QuietNetworkTest {
 protected:
  void SetUp() override {
    QuietNetworkTest::SetUp();
    AsyncSocket::SetPrimaryAddress(INADDR_LOOPBACK);
  }
  void TearDown() override {
    LineSocket::max_line_bytes = ceiling_at_first_;
    QuietNetworkTest::TearDown();
  }
  static void receive(LineSocket& line, const std::string& bytes) {
    EXPECT_EQ(line.DataIndication(buffer_of(bytes)), Success);
  }
  static PeerStream connect(LineSocket& line, PeerListener& listener) {
    line.Connect("127.0.0.1", listener.port());
    return listener.accept();
  }
  static std::string text_of(std::size_t bytes) {
    std::string text;
    while (text.size() < bytes) text += static_cast<char>('a' + text.size() % 26);
    return text;
  }

  static std::unique_ptr<ProbeLine> line_without_storage(int announced) {
    auto line = std::unique_ptr<ProbeLine>();
    {
      const FailingHeap failing(static_cast<std::size_t>(announced));
      line = std::make_unique<ProbeLine>(announced);
    }
    EXPECT_EQ(line->line, nullptr);
    return line;
  }

 private:
  const int ceiling_at_first_ = LineSocket::max_line_bytes;
};

TEST_F(LineMemory, WithoutAnyAtFirstALineIsCollectedAllTheSame) {
  for (const Lines& bytes : {Lines{"hello\rworld\r"}, Lines{"\r", "hello\r"}, Lines{"h", "ello\r"}}) {
    constexpr int kAnnounced = 5000;
    const auto line = line_without_storage(kAnnounced);
    EXPECT_EQ(line->maxlinelen, kAnnounced);
    for (const std::string& piece : bytes) receive(*line, piece);
    EXPECT_EQ(line->lines().back(), bytes.size() == 1 ? "world" : "hello");
  }
}

TEST_F(LineMemory, ALineThatFindsNoneShutsTheConnectionDown) {
  PeerListener listener;
  ProbeLine line(80);
  PeerStream peer = connect(line, listener);
  ASSERT_TRUE(dispatch_until([&] { return line.connects() == 1; }));
  console.clear();
  {
    const std::string that_fits = text_of(639);
    const FailingHeap failing(1000);
    receive(line, "fine\r" + that_fits);
    EXPECT_EQ(line.linelen, 639) << "storage of 640 bytes could be had";
    EXPECT_EQ(console.text(), "");
    receive(line, "x and more\r");
    receive(line, "and more\r");
  }
  EXPECT_EQ(console.calls(),
            Lines{std::to_string(line.socket->s) +
                  " LineSocket::DataIndication - line of more than 640 bytes, connection shut down"});
  EXPECT_EQ(line.lines(), Lines{"fine"});
  ASSERT_TRUE(dispatch_until([&] { return line.disconnects() == 1; }));
  EXPECT_TRUE(peer.ended());
}

TEST_F(LineMemory, AnEmptyLineThatFindsNoneShutsTheConnectionDown) {
  PeerListener listener;
  const auto line = line_without_storage(5000);
  PeerStream peer = connect(*line, listener);
  ASSERT_TRUE(dispatch_until([&] { return line->connects() == 1; }));
  OSBuf* const end_of_line = buffer_of("\r");
  {
    const FailingHeap failing(1, 0, 1);
    line->DataIndication(end_of_line);
  }
  EXPECT_EQ(line->lines(), Lines{});
  ASSERT_TRUE(dispatch_until([&] { return line->disconnects() == 1; }));
  EXPECT_TRUE(peer.ended());
}

TEST_F(LineMemory, StorageStaysBelowTheCeiling) {
  constexpr int kCeiling = 100000;  // no multiple of what a line begins with
  LineSocket::max_line_bytes = kCeiling;
  ProbeLine line(80);
  const std::string longest = text_of(kCeiling - 1);
  {
    const FailingHeap failing(kCeiling + 1);
    for (std::size_t at = 0; at < longest.size(); at += 1000) receive(line, longest.substr(at, 1000));
  }
  receive(line, "\r");
  ASSERT_EQ(line.lines().size(), 1u);
  EXPECT_TRUE(line.lines()[0] == longest);
}

TEST_F(LineMemory, AFormattedTextThatFindsNoneIsReportedAndNotSent) {
  PeerListener listener;
  ProbeLine line(80);
  PeerStream peer = connect(line, listener);
  ASSERT_TRUE(dispatch_until([&] { return line.connects() == 1; }));
  console.clear();
  char format[] = "%s\r\n";
  const std::string texts[] = {text_of(600), text_of(500), text_of(517)};
  {
    const FailingHeap failing(600);
    for (const std::string& text : texts) line.SendF(format, text.c_str());  // up to 519 characters need none
  }
  EXPECT_EQ(console.calls(),
            Lines{std::to_string(line.socket->s) + " LineSocket::SendF - no memory for 602 bytes"});
  EXPECT_EQ(peer.receive(502 + 519), texts[1] + "\r\n" + texts[2] + "\r\n");
}

TEST_F(LineMemory, ATextThatFindsNoBufferIsReportedAndTheLineWorksOn) {
  PeerListener listener;
  ProbeLine line(80);
  PeerStream peer = connect(line, listener);
  ASSERT_TRUE(dispatch_until([&] { return line.connects() == 1; }));
  console.clear();
  std::string text = text_of(2000);
  {
    const BufferDrought drought(cfg);
    line.Send(text.data());
  }
  EXPECT_EQ(console.fatals(), Lines{"OSBuffer::Alloc Out Of Buffers 1600"});
  console.clear();
  line.Send(text.data());
  EXPECT_EQ(peer.receive(2000), text);
}

}  // namespace
