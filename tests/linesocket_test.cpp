// The line socket: cutting a stream into lines, sending texts, and its life.

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "kernel/kernel.h"
#include "network/asocket.h"
#include "support/line_probe.h"
#include "support/network_fixture.h"
#include "support/seed.h"
#include "support/watched_thread.h"

using namespace oskernel_test;

namespace {

using Lines = std::vector<std::string>;

static_assert(std::is_base_of_v<OSIO, LineSocket>);
static_assert(std::is_same_v<decltype(LineSocket::socket), AsyncSocket*>);
static_assert(std::is_same_v<decltype(LineSocket::line), char*>);
static_assert(std::is_same_v<decltype(LineSocket::maxlinelen), int>);
static_assert(std::is_same_v<decltype(LineSocket::linelen), int>);
static_assert(std::is_same_v<decltype(LineSocket::done), bool>);

const int kCeilingAtFirst = LineSocket::max_line_bytes;

/// Keeps what it is given to send.
class CollectingSocket : public AsyncSocket {
 public:
  CollectingSocket() : AsyncSocket(true) {}
  OSIORetCode DataIndication(OSBuf* buf) override {
    sent.emplace_back(reinterpret_cast<const char*>(buf->data), buf->length);
    buf->Free();
    return answer;
  }
  OSIORetCode DataExpeditedIndication(OSBuf* buf) override {
    ADD_FAILURE() << "nothing that a line sends is urgent";
    buf->Free();
    return answer;
  }
  Lines sent;
  OSIORetCode answer = Success;
};

class Line : public QuietNetworkTest {
 protected:
  void SetUp() override {
    QuietNetworkTest::SetUp();
    AsyncSocket::SetPrimaryAddress(INADDR_LOOPBACK);
    LineSocket::max_line_bytes = kCeilingAtFirst;
  }
  void TearDown() override {
    LineSocket::max_line_bytes = kCeilingAtFirst;
    QuietNetworkTest::TearDown();
  }
  static void receive(LineSocket& line, const std::string& bytes) {
    EXPECT_EQ(line.DataIndication(buffer_of(bytes)), Success);
  }
  /// Gives the line another socket to send through.
  static CollectingSocket& collect(LineSocket& line) {
    auto* socket = new CollectingSocket;
    line.socket->Free();
    line.socket = socket;
    socket->Bind(&line);
    return *socket;
  }
  static char* text(std::string& value) { return value.data(); }
};

// ---- Construction ------------------------------------------------------------------------------------------------

TEST_F(Line, MakesASocketOfItsOwn) {
  ProbeLine line(80);
  EXPECT_FALSE(line.done);
  EXPECT_EQ(line.maxlinelen, 80);
  EXPECT_EQ(line.linelen, 0);
  EXPECT_STREQ(line.line, "");
  ASSERT_NE(line.socket, nullptr);
  EXPECT_TRUE(line.socket->indirect_socket);
  EXPECT_EQ(line.socket->Partner(), &line);
  EXPECT_EQ(line.Partner(), line.socket);
  EXPECT_NE(line.socket->s, -1);
  EXPECT_EQ(line.socket->type, SOCK_STREAM);
  EXPECT_EQ(line.socket->state, SSInitial);
  EXPECT_EQ(line.socket->loc_sin.Address(), static_cast<ULONG>(INADDR_LOOPBACK)) << "the primary address";
  EXPECT_NE(line.socket->LocalPort(), 0);
  EXPECT_FALSE(line.socket->listener);
}

TEST_F(Line, BaseAcceptsConnectionsEndsAndLinesWithoutDoingAnything) {
  LineSocket line(80);
  EXPECT_EQ(line.ConnectIndication(nullptr), Success);
  EXPECT_EQ(line.DisconnectIndication(Normal, 0), Success);
  EXPECT_EQ(line.DisconnectIndication(Failed, 111), Success);
  char some[] = "text";
  line.Receive(some);
  receive(line, "one\r\ntwo\r\n");
  EXPECT_EQ(line.linelen, 0);
  EXPECT_FALSE(line.done);
  EXPECT_NE(line.socket->s, -1);
}

// ---- Cutting -----------------------------------------------------------------------------------------------------

struct CutRow {
  const char* name;
  Lines buffers;
  Lines lines;
  int pending;
};

TEST_F(Line, IsWhatStandsBeforeACarriageReturn) {
  const CutRow rows[] = {
      {"two in one buffer", {"AB\r\nCD\r\n"}, {"AB", "CD"}, 0},
      {"one in two buffers", {"AB", "C\r"}, {"ABC"}, 0},
      {"a line feed is nothing", {"AB\nCD\r"}, {"ABCD"}, 0},
      {"a line feed ends nothing", {"AB\n", "CD\n"}, {}, 4},
      {"no end yet", {"AB"}, {}, 2},
      {"empty lines", {"\r\r\n\r"}, {"", "", ""}, 0},
      {"line feeds alone", {"\n\n\n"}, {}, 0},
      {"a line feed first", {"\nAB\r"}, {"AB"}, 0},
      {"end in a buffer of its own", {"AB", "\r", "\n", "CD", "\r"}, {"AB", "CD"}, 0},
      {"end across buffers", {"AB\r", "\nCD\r", "\n"}, {"AB", "CD"}, 0},
      {"some more behind", {"AB\r\nC", "D\r\nE"}, {"AB", "CD"}, 1},
      {"bytes of 128 and more",
       {"\x80"
        "A\xFF"
        "B\xC3\xA4\r\xFE"},
       {"AB"},
       0},
      {"nothing but such bytes", {"\x80\x90\xFF\r"}, {""}, 0},
      {"other control characters stay", {"\tA\x01\x7F\x0B\x0C B\r"}, {"\tA\x01\x7F\x0B\x0C B"}, 0},
      {"a line feed before its return", {"AB\n\rCD\n\r"}, {"AB", "CD"}, 0},
  };
  for (const CutRow& row : rows) {
    SCOPED_TRACE(row.name);
    ProbeLine line(80);
    for (const std::string& bytes : row.buffers) receive(line, bytes);
    EXPECT_EQ(line.lines(), row.lines);
    EXPECT_EQ(line.linelen, row.pending);
  }
}

TEST_F(Line, EveryByteIsAlwaysTreatedTheSame) {
  for (int c = 0; c < 256; ++c) {
    SCOPED_TRACE(c);
    ProbeLine line(80);
    std::string bytes = "A";
    bytes += static_cast<char>(c);
    bytes += "B\r";
    receive(line, bytes);
    Lines expected = {"AB"};
    if (c == 13) expected = {"A", "B"};
    if (c < 128 && c != 10 && c != 13) expected = {std::string("A") + static_cast<char>(c) + "B"};
    EXPECT_EQ(line.whole_lines(), expected);
  }
}

TEST_F(Line, AZeroByteIsCollectedLikeAnyOther) {
  ProbeLine line(80);
  receive(line, std::string("A\0B\r", 4));
  EXPECT_EQ(line.lines(), Lines{"A"}) << "a text that is read as far as its first zero";
  EXPECT_EQ(line.whole_lines(), (Lines{std::string("A\0B", 3)}));
}

TEST_F(Line, IsTheSameHoweverTheStreamIsCut) {
  const std::string stream = "first\r\n\r\nsecond line\rthird\n\r\xC3\xA4 fourth\r\n\n\rtail";
  const Lines expected = {"first", "", "second line", "third", " fourth", ""};
  for (std::size_t one = 0; one <= stream.size(); ++one) {
    for (std::size_t two = one; two <= stream.size(); two += 5) {
      ProbeLine line(80);
      for (const std::string& piece :
           {stream.substr(0, one), stream.substr(one, two - one), stream.substr(two)}) {
        if (!piece.empty()) receive(line, piece);
      }
      ASSERT_EQ(line.lines(), expected) << one << ", " << two;
      ASSERT_EQ(line.linelen, 4);
    }
  }
  ProbeLine line(80);
  for (const char c : stream) receive(line, std::string(1, c));
  EXPECT_EQ(line.lines(), expected);
}

TEST_F(Line, StandsInItsOwnStorageWhileItIsReceived) {
  ProbeLine line(80);
  std::vector<int> lengths;
  line.set_hook([&](char* text) {
    EXPECT_EQ(text, line.line);
    lengths.push_back(line.linelen);
    EXPECT_EQ(text[line.linelen], 0);
    text[0] = 'x';  // its receiver may change it
  });
  receive(line, "one\rthree\r");
  EXPECT_EQ(lengths, (std::vector<int>{3, 5}));
  EXPECT_EQ(line.linelen, 0);
}

TEST_F(Line, AnEmptyBufferIsFreedAndNothingElse) {
  ProbeLine line(80);
  receive(line, "AB");
  EXPECT_EQ(line.DataIndication(OSBuf::Alloc(10)), Success);
  EXPECT_EQ(line.linelen, 2);
  EXPECT_EQ(line.lines(), Lines{});
}

TEST_F(Line, FreesEveryBuffer) {
  const int before = PoolState::now().buffers_out;
  ProbeLine line(80);
  for (int i = 0; i < 500; ++i) receive(line, i % 2 == 0 ? "AB\r\n" : "AB");
  EXPECT_EQ(PoolState::now().buffers_out, before);
  EXPECT_EQ(line.lines().size(), 250u);
}

TEST_F(Line, AskingForMoreRoomThanTheyNeedHurtsNobody) {
  ProbeLine line(100000);
  EXPECT_EQ(line.maxlinelen, 100000);
  receive(line, "short\r");
  EXPECT_EQ(line.lines(), Lines{"short"});
}

// ---- Length ------------------------------------------------------------------------------------------------------

// Deliberate: the length is not compared with what the constructor was given; a longer line is delivered whole.
TEST_F(Line, LongerThanAnnouncedIsDeliveredWhole) {
  for (const int announced : {80, 5, 2, 1, 0}) {
    SCOPED_TRACE(announced);
    ProbeLine line(announced);
    for (const std::size_t length : {1u, 2u, 4u, 5u, 6u, 79u, 80u, 81u, 500u, 5000u, 1u}) {
      std::string sent;
      while (sent.size() < length) sent += static_cast<char>('a' + sent.size() % 26);
      for (std::size_t at = 0; at < sent.size(); at += 1000) receive(line, sent.substr(at, 1000));
      EXPECT_EQ(line.linelen, static_cast<int>(length));
      receive(line, "\r\n");
      ASSERT_EQ(line.lines().back(), sent);
      EXPECT_EQ(line.linelen, 0);
    }
    EXPECT_EQ(line.maxlinelen, announced);
  }
}

TEST_F(Line, MovesOnlyWhenItIsLongerThanAnnounced) {
  for (const int announced : {80, 2, 1}) {
    SCOPED_TRACE(announced);
    ProbeLine line(announced);
    const char* const storage = line.line;
    const std::string that_fits(static_cast<std::size_t>(announced) - 1, 'x');
    for (int i = 0; i < 3; ++i) {
      receive(line, that_fits);
      receive(line, "\r");
      EXPECT_EQ(line.line, storage);
    }
    receive(line, that_fits);
    EXPECT_EQ(line.line, storage);
    receive(line, "x");
    EXPECT_NE(line.line, storage);
    receive(line, "\r");
    EXPECT_EQ(line.lines(), (Lines{that_fits, that_fits, that_fits, that_fits + "x"}));
  }
}

TEST_F(Line, OfNegativeRoomStillWorks) {
  ProbeLine line(-5);
  receive(line, "hello\r");
  EXPECT_EQ(line.lines(), Lines{"hello"});
}

TEST_F(Line, MayBeAMebibyteLongUnlessAProgramSaysOtherwise) {
  EXPECT_EQ(kCeilingAtFirst, 1024 * 1024);
  ProbeLine line(80);
  console.clear();
  const std::string piece(1024, 'x');
  for (int i = 0; i < 1023; ++i) receive(line, piece);
  receive(line, piece.substr(0, 1023));  // with its terminating zero, just what is allowed
  EXPECT_EQ(line.linelen, 1024 * 1024 - 1);
  receive(line, "\rnext\r");
  ASSERT_EQ(line.lines().size(), 2u);
  EXPECT_EQ(line.lines()[0].size(), 1024u * 1024 - 1);
  EXPECT_EQ(line.lines()[1], "next");
  EXPECT_EQ(console.text(), "");
}

TEST_F(Line, OfJustTheCeilingIsDelivered) {
  LineSocket::max_line_bytes = 16;
  ProbeLine line(4);
  console.clear();
  receive(line, "123456789012345\rnext\r");
  EXPECT_EQ(line.lines(), (Lines{"123456789012345", "next"}));
  EXPECT_EQ(console.text(), "");
}

/// A line layer over a real connection, dispatched by the test.
class ConnectedLine : public Line {
 protected:
  void Connect(int announced) {
    line_ = std::make_unique<ProbeLine>(announced);
    line_->Connect(static_cast<ULONG>(INADDR_LOOPBACK), listener_.port());
    peer_ = listener_.accept();
    ASSERT_TRUE(peer_.is_open());
    ASSERT_TRUE(dispatch_until([this] { return line_->connects() == 1; }));
  }
  /// Another connection for the line, with a socket that begins anew.
  void connect_again(const std::function<void()>& connect) {
    line_->socket->Close();
    ASSERT_EQ(line_->socket->Create(SOCK_STREAM, 0, 0, false), 0);
    connect();
    peer_ = listener_.accept();
    ASSERT_TRUE(peer_.is_open());
  }
  void TearDown() override {
    line_.reset();
    peer_.close();
    Line::TearDown();
  }
  PeerListener listener_;
  PeerStream peer_;
  std::unique_ptr<ProbeLine> line_;
};

TEST_F(ConnectedLine, LongerThanTheCeilingShutsTheConnectionDown) {
  LineSocket::max_line_bytes = 16;
  Connect(4);
  console.clear();
  ASSERT_TRUE(peer_.send_all("fine\r\n1234567890123456\r\nmore\r\n"));
  ASSERT_TRUE(dispatch_until([this] { return line_->disconnects() == 1; }));
  EXPECT_EQ(line_->lines(), Lines{"fine"}) << "neither the long line nor anything behind it";
  EXPECT_EQ(console.calls(),
            Lines{std::to_string(line_->socket->s) +
                  " LineSocket::DataIndication - line of more than 16 bytes, connection shut down"});
  EXPECT_TRUE(peer_.ended());
}

TEST_F(ConnectedLine, ThatNeverEndsShutsTheConnectionDownBeforeItEatsTheMemory) {
  LineSocket::max_line_bytes = 100000;
  Connect(80);
  console.clear();
  const std::string flood(50000, 'x');
  for (int i = 0; i < 200; ++i) {
    if (!peer_.send_all(flood.substr(0, 20000), 10)) {
      os_check_triggers();
      if (line_->disconnects() != 0) break;
    }
  }
  ASSERT_TRUE(dispatch_until([this] { return line_->disconnects() == 1; }));
  EXPECT_EQ(line_->lines(), Lines{});
  EXPECT_LE(line_->linelen, 100000);
  EXPECT_EQ(console.count("x"), 0) << "the peer's bytes are not printed";
  EXPECT_NE(console.text(), "");
  EXPECT_TRUE(peer_.ended());
}

TEST_F(ConnectedLine, TheMessageAboutALongLineComesOnce) {
  LineSocket::max_line_bytes = 16;
  Connect(4);
  console.clear();
  receive(*line_, std::string(1000, 'a'));
  const std::string once = console.text();
  EXPECT_NE(once, "");
  receive(*line_, std::string(1000, 'a') + "\r");
  EXPECT_EQ(console.text(), once);
  EXPECT_EQ(line_->lines(), Lines{});
}

TEST_F(ConnectedLine, StaysPendingUntilTheNextConnectionBringsItsEnd) {
  Connect(80);
  ASSERT_TRUE(peer_.send_all("one\r\nbegun "));
  ASSERT_TRUE(dispatch_until([this] { return line_->linelen == 6; }));
  peer_.close();
  ASSERT_TRUE(dispatch_until([this] { return line_->disconnects() == 1; }));
  EXPECT_EQ(line_->last_reason(), Normal);
  connect_again([this] { line_->Connect(SockAddr(static_cast<ULONG>(INADDR_LOOPBACK), listener_.port())); });
  ASSERT_TRUE(peer_.send_all("and ended\r\ntwo\r\n"));
  ASSERT_TRUE(dispatch_until([this] { return line_->lines().size() == 3; }));
  EXPECT_EQ(line_->lines(), (Lines{"one", "begun and ended", "two"}));
}

/// Does not tell its base of connections, as it need not.
class SilentLine : public ProbeLine {
 public:
  using ProbeLine::ProbeLine;
  OSIORetCode ConnectIndication(OSIOAddress* /*address*/) override { return Success; }
};

TEST_F(ConnectedLine, AfterAnOverlongLineANewConnectionWorks) {
  LineSocket::max_line_bytes = 16;
  const UWORD port = listener_.port();
  struct Row {
    const char* name;
    bool silent;
    std::function<void()> connect;
  };
  const Row rows[] = {
      {"by number", true, [&] { line_->Connect(static_cast<ULONG>(INADDR_LOOPBACK), port); }},
      {"by address", true, [&] { line_->Connect(SockAddr(static_cast<ULONG>(INADDR_LOOPBACK), port)); }},
      {"by text", true, [&] { line_->Connect("127.0.0.1", port); }},
      {"through the socket", false, [&] { line_->socket->Connect("127.0.0.1", port); }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    line_ = row.silent ? std::make_unique<SilentLine>(4) : std::make_unique<ProbeLine>(4);
    line_->Connect("127.0.0.1", port);
    peer_ = listener_.accept();
    ASSERT_TRUE(peer_.is_open());
    ASSERT_TRUE(peer_.send_all("1234567890123456789\r\n"));
    ASSERT_TRUE(dispatch_until([this] { return line_->disconnects() == 1; }));
    connect_again(row.connect);
    ASSERT_TRUE(peer_.send_all("again\r\n"));
    ASSERT_TRUE(dispatch_until([this] { return line_->lines().size() == 1; }));
    EXPECT_EQ(line_->lines(), Lines{"again"});
  }
}

// ---- Connecting --------------------------------------------------------------------------------------------------

TEST_F(ConnectedLine, IsMadeByNumberByAddressAndByText) {
  const UWORD port = listener_.port();
  const std::function<void(LineSocket&)> ways[] = {
      [&](LineSocket& line) { line.Connect(static_cast<ULONG>(INADDR_LOOPBACK), port); },
      [&](LineSocket& line) { line.Connect(SockAddr(static_cast<ULONG>(INADDR_LOOPBACK), port)); },
      [&](LineSocket& line) { line.Connect("127.0.0.1", port); },
  };
  for (const auto& way : ways) {
    ProbeLine line(80);
    way(line);
    PeerStream peer = listener_.accept();
    ASSERT_TRUE(peer.is_open());
    ASSERT_TRUE(dispatch_until([&] { return line.connects() == 1; }));
    EXPECT_TRUE(line.socket->Connected());
    ASSERT_TRUE(peer.send_all("hello\r\n"));
    ASSERT_TRUE(dispatch_until([&] { return line.lines().size() == 1; }));
    EXPECT_EQ(line.lines(), Lines{"hello"});
  }
}

TEST_F(ConnectedLine, RefusalIsToldToTheLine) {
  RefusingPort nobody;
  ProbeLine line(80);
  line.Connect("127.0.0.1", nobody.port());
  ASSERT_TRUE(dispatch_until([&] { return line.disconnects() == 1; }));
  EXPECT_EQ(line.last_reason(), Failed);
  EXPECT_EQ(line.last_code(), ECONNREFUSED);
}

TEST_F(ConnectedLine, SpeaksBothWaysAtOnce) {
  Connect(80);
  line_->set_hook([this](char* text) { line_->SendF(const_cast<char*>("<%s>\r\n"), text); });
  std::string all, answers;
  Lines expected;
  for (int i = 0; i < 300; ++i) {
    expected.push_back("line " + std::to_string(i));
    all += expected.back() + "\r\n";
    answers += "<" + expected.back() + ">\r\n";
  }
  ASSERT_TRUE(peer_.send_all(all));
  ASSERT_TRUE(dispatch_until([&] { return line_->lines().size() == expected.size(); }));
  EXPECT_EQ(line_->lines(), expected);
  EXPECT_EQ(peer_.receive(answers.size()), answers);
}

TEST_F(ConnectedLine, WhatIsSentBeforeTheConnectionArrivesInOrder) {
  ProbeLine line(80);
  std::string first = "first\r\n", second(4000, 's');
  line.Send(text(first));
  line.Send(text(second));
  line.Connect(static_cast<ULONG>(INADDR_LOOPBACK), listener_.port());
  PeerStream peer = listener_.accept();
  ASSERT_TRUE(peer.is_open());
  EXPECT_EQ(peer.receive(first.size() + second.size()), first + second);
}

// ---- Sending -----------------------------------------------------------------------------------------------------

TEST_F(Line, TextsGoInPiecesOfSixteenHundredBytes) {
  const std::pair<std::size_t, std::vector<std::size_t>> rows[] = {
      {0, {}},
      {1, {1}},
      {1599, {1599}},
      {1600, {1600}},
      {1601, {1600, 1}},
      {3200, {1600, 1600}},
      {4000, {1600, 1600, 800}},
      {70000, std::vector<std::size_t>(43, 1600)},
  };
  for (const auto& [length, pieces] : rows) {
    SCOPED_TRACE(length);
    ProbeLine line(80);
    CollectingSocket& socket = collect(line);
    std::string sent;
    while (sent.size() < length) sent += static_cast<char>('A' + sent.size() % 61);
    std::string lent = sent;
    line.Send(text(lent));
    EXPECT_EQ(lent, sent) << "the caller's text is only read";
    std::string all;
    std::vector<std::size_t> sizes;
    for (const std::string& piece : socket.sent) {
      all += piece;
      sizes.push_back(piece.size());
    }
    EXPECT_EQ(all, sent);
    std::vector<std::size_t> expected = pieces;
    if (length == 70000) expected.push_back(70000 - 43 * 1600);
    EXPECT_EQ(sizes, expected);
  }
}

TEST_F(Line, TextsGoAsTheyAre) {
  ProbeLine line(80);
  CollectingSocket& socket = collect(line);
  std::string odd = "no end, %s %d, \r \n, \x80\xFF\t";
  line.Send(text(odd));
  EXPECT_EQ(socket.sent, Lines{odd});
}

TEST_F(Line, ABufferGoesToTheSocketWithItsAnswer) {
  ProbeLine line(80);
  CollectingSocket& socket = collect(line);
  EXPECT_EQ(line.Send(buffer_of("abc")), Success);
  socket.answer = NoConnection;
  EXPECT_EQ(line.Send(buffer_of("def")), NoConnection);
  socket.answer = Blocked;
  EXPECT_EQ(line.Send(buffer_of("ghi")), Blocked);
  EXPECT_EQ(socket.sent, (Lines{"abc", "def", "ghi"}));
}

TEST_F(Line, FormattedTextsHaveAnyLength) {
  ProbeLine line(80);
  CollectingSocket& socket = collect(line);
  char format[] = "%s|%d|%c\r\n";
  for (const std::size_t length : {0u, 1u, 500u, 510u, 511u, 512u, 513u, 519u, 520u, 521u, 1600u, 100000u}) {
    SCOPED_TRACE(length);
    socket.sent.clear();
    std::string filler;
    while (filler.size() < length) filler += static_cast<char>('a' + filler.size() % 26);
    line.SendF(format, filler.c_str(), -12, 'z');
    std::string all;
    for (const std::string& piece : socket.sent) all += piece;
    EXPECT_EQ(all, filler + "|-12|z\r\n");
  }
}

TEST_F(Line, AFormattedEmptyTextSendsNothing) {
  ProbeLine line(80);
  CollectingSocket& socket = collect(line);
  char format[] = "%s";
  line.SendF(format, "");
  EXPECT_EQ(socket.sent, Lines{});
}

/// Sees what its class sends.
class OverridingLine : public LineSocket {
 public:
  OverridingLine() : LineSocket(80) {}
  using LineSocket::Send;
  void Send(char* line_text) override { texts.emplace_back(line_text); }
  OSIORetCode Send(OSBuf* buf) override {
    ++buffers;
    buf->Free();
    return Success;
  }
  Lines texts;
  int buffers = 0;
};

TEST_F(Line, FormattedTextsGoThroughTheSubclass) {
  OverridingLine line;
  char format[] = "%s %d";
  line.SendF(format, "number", 7);
  char nothing[] = "%s";
  line.SendF(nothing, "");
  EXPECT_EQ(line.texts, (Lines{"number 7", ""}));
  EXPECT_EQ(line.buffers, 0);
}

TEST_F(Line, WhatCannotBeFormattedIsNotSent) {
  OverridingLine line;
  char format[] = "%ls";
  const wchar_t no_character[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
  line.SendF(format, no_character);
  EXPECT_EQ(line.texts, Lines{});
}

/// Counts buffers that are handed to Send(OSBuf*).
class BufferCountingLine : public LineSocket {
 public:
  BufferCountingLine() : LineSocket(80) {}
  using LineSocket::Send;
  OSIORetCode Send(OSBuf* buf) override {
    ++buffers;
    return LineSocket::Send(buf);
  }
  int buffers = 0;
};

TEST_F(Line, TextsGoToTheSocketAndNotThroughTheBufferForm) {
  BufferCountingLine line;
  CollectingSocket& socket = collect(line);
  std::string some(2000, 'x');
  line.Send(text(some));
  EXPECT_EQ(socket.sent.size(), 2u);
  EXPECT_EQ(line.buffers, 0);
}

/// Ends the calls from its socket before its own members go.
class EarlyFreeingLine : public ProbeLine {
 public:
  using ProbeLine::ProbeLine;
  ~EarlyFreeingLine() override {
    socket->Free();
    socket = nullptr;
  }
};

TEST_F(ConnectedLine, ADerivedClassMayFreeTheSocketFirst) {
  line_ = std::make_unique<EarlyFreeingLine>(80);
  line_->Connect("127.0.0.1", listener_.port());
  peer_ = listener_.accept();
  ASSERT_TRUE(peer_.is_open());
  line_.reset();
  EXPECT_TRUE(peer_.ended());
}

// ---- The end -----------------------------------------------------------------------------------------------------

TEST_F(Line, DeletesItselfBehindTheBufferInWhichItIsDone) {
  int deleted = 0;
  Lines lines;
  auto* line = new ProbeLine(80, &deleted);
  line->set_hook([&](char* text) {
    lines.emplace_back(text);
    if (lines.size() == 1) line->done = true;
    EXPECT_EQ(deleted, 0);
  });
  EXPECT_EQ(line->DataIndication(buffer_of("one\r\ntwo\r\nthree\r\nrest")), Success);
  EXPECT_EQ(deleted, 1);
  EXPECT_EQ(lines, (Lines{"one", "two", "three"})) << "lines in the same buffer come first";
}

TEST_F(Line, DoneFromOutsideCountsWithTheNextBuffer) {
  int deleted = 0;
  auto* line = new ProbeLine(80, &deleted);
  receive(*line, "one\r");
  line->done = true;
  EXPECT_EQ(deleted, 0);
  receive(*line, "no end");
  EXPECT_EQ(deleted, 1);
}

TEST_F(Line, DoneInABufferWithoutLinesIsEnough) {
  int deleted = 0;
  auto* line = new ProbeLine(80, &deleted);
  line->done = true;
  EXPECT_EQ(line->DataIndication(OSBuf::Alloc(10)), Success);
  EXPECT_EQ(deleted, 1);
}

TEST_F(ConnectedLine, DeletesItselfInsideItsSocketsDispatch) {
  int deleted = 0;
  Lines lines;
  auto* line = new ProbeLine(80, &deleted);
  line->set_hook([&](char* text) {
    lines.emplace_back(text);
    if (lines.back() == "bye") line->done = true;
  });
  line->Connect(static_cast<ULONG>(INADDR_LOOPBACK), listener_.port());
  PeerStream peer = listener_.accept();
  ASSERT_TRUE(peer.is_open());
  ASSERT_TRUE(peer.send_all("hello\r\nbye\r\nlast\r\n"));
  ASSERT_TRUE(dispatch_until([&] { return deleted == 1; }));
  EXPECT_TRUE(peer.ended());
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[0], "hello");
  EXPECT_EQ(lines[1], "bye");
  for (int i = 0; i < 5; ++i) os_check_triggers();
  EXPECT_EQ(deleted, 1);
}

TEST_F(ConnectedLine, DestroyedWhileDataWaitsIsNotCalledAgain) {
  Connect(80);
  ASSERT_TRUE(peer_.send_all("one\r\ntwo\r\n"));
  ASSERT_TRUE(wait_until([this] {
    EnterCriticalSection(&line_->socket->local_cs);
    const bool waiting = line_->socket->q.Size() > 0;
    LeaveCriticalSection(&line_->socket->local_cs);
    return waiting;
  }));
  line_.reset();
  for (int i = 0; i < 5; ++i) os_check_triggers();
  EXPECT_TRUE(peer_.ended());
}

TEST_F(ConnectedLine, ManyComeAndGo) {
  for (int i = 0; i < 50; ++i) {
    ProbeLine line(8);
    line.Connect("127.0.0.1", listener_.port());
    PeerStream peer = listener_.accept();
    ASSERT_TRUE(peer.is_open());
    if (i % 3 == 0) continue;  // gone again at once
    ASSERT_TRUE(peer.send_all("hello, longer than announced\r\n"));
    if (i % 3 == 1) {
      ASSERT_TRUE(dispatch_until([&] { return line.lines().size() == 1; }));
    }
  }
}

}  // namespace
