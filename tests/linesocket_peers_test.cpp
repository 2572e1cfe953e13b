// Line sockets and programs that nobody here wrote: a key-value server as the peer of line clients, netcat and socat
// at either end.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "network/asocket.h"
#include "support/line_probe.h"
#include "support/network_fixture.h"
#include "support/real_server.h"

using namespace oskernel_test;

namespace {

using Lines = std::vector<std::string>;

/// With the kernel's own trigger task: lines come on its thread.
class LinePeers : public NetworkTest {
 protected:
  void SetUp() override {
    NetworkTest::SetUp();
    AsyncSocket::SetPrimaryAddress(INADDR_LOOPBACK);
  }
  void TearDown() override {
    while (!lines_.empty()) retire(*lines_.back());
    NetworkTest::TearDown();
  }
  /// A line of the test's own, until its end or until it is retired.
  ProbeLine& make_line(int max_line) {
    lines_.push_back(std::make_unique<ProbeLine>(max_line));
    return *lines_.back();
  }
  /// Ends a line while the dispatcher runs: no call of the dispatcher may meet a destructor.
  void retire(ProbeLine& line) {
    line.let_socket_go();
    std::erase_if(lines_, [&line](const auto& each) { return each.get() == &line; });
  }
  static bool has_lines(const ProbeLine& line, std::size_t count) {
    return wait_until([&] { return line.lines().size() >= count; }, kPatienceMs);
  }
  static bool connected(const ProbeLine& line) {
    return wait_until([&] { return line.connects() == 1; }, kPatienceMs);
  }
  static bool disconnected(const ProbeLine& line) {
    return wait_until([&] { return line.disconnects() == 1; }, kPatienceMs);
  }
  static void send(LineSocket& line, std::string text) { line.Send(text.data()); }

 private:
  std::vector<std::unique_ptr<ProbeLine>> lines_;
};

// ---- A key-value server ------------------------------------------------------------------------------------------

/// A `redis-server` of this test's own; commands are lines, answers are lines.
class LinesToAServer : public LinePeers {
 protected:
  static constexpr int kMostLines = 20;

  void SetUp() override {
    // Up to ten buffers for each line hold answers that the dispatcher has not come to; the rest is for sending.
    cfg.buf_qty[3] += 10 * kMostLines;
    LinePeers::SetUp();
  }
  static RealServer server() {
    return RealServer([](const std::string& port) {
      return std::vector<std::string>{"redis-server", "--port", port,     "--save",   "",
                                      "--daemonize",  "no",     "--bind", "127.0.0.1"};
    });
  }
  /// The answers to what is sent, so many lines.
  Lines ask(ProbeLine& line, const std::string& commands, std::size_t answers) {
    const std::size_t before = line.lines().size();
    send(line, commands);
    EXPECT_TRUE(has_lines(line, before + answers)) << commands;
    const Lines all = line.lines();
    return Lines(all.begin() + static_cast<long>(std::min(before, all.size())), all.end());
  }
};

TEST_F(LinesToAServer, AreAnswered) {
  RealServer redis = server();
  ProbeLine& line = make_line(80);
  line.Connect("127.0.0.1", redis.port());
  ASSERT_TRUE(connected(line));
  EXPECT_EQ(ask(line, "PING\r\n", 1), Lines{"+PONG"});
  EXPECT_EQ(ask(line, "SET greeting hello\r\n", 1), Lines{"+OK"});
  EXPECT_EQ(ask(line, "GET greeting\r\n", 2), (Lines{"$5", "hello"}));
  EXPECT_EQ(ask(line, "GET nothing\r\n", 1), Lines{"$-1"});
  EXPECT_EQ(ask(line, "DEL greeting nothing\r\n", 1), Lines{":1"});
  EXPECT_THAT(ask(line, "NONSENSE\r\n", 1),
              ::testing::ElementsAre(::testing::StartsWith("-ERR unknown command")));
  EXPECT_EQ(ask(line, "RPUSH list a b c\r\nLRANGE list 0 -1\r\n", 8),
            (Lines{":3", "*3", "$1", "a", "$1", "b", "$1", "c"}));
  EXPECT_EQ(ask(line, "SET empty \"\"\r\nGET empty\r\n", 3), (Lines{"+OK", "$0", ""}));
}

TEST_F(LinesToAServer, AreSentBeforeTheConnectionIsUp) {
  RealServer redis = server();
  ProbeLine& line = make_line(80);
  send(line, "SET a 1\r\n");
  line.Connect("127.0.0.1", redis.port());
  send(line, "INCR a\r\n");
  ASSERT_TRUE(has_lines(line, 2));
  EXPECT_EQ(line.lines(), (Lines{"+OK", ":2"}));
}

TEST_F(LinesToAServer, GoThereByAHostsName) {
  RealServer redis = server();
  ProbeLine& line = make_line(80);
  line.Connect("localhost", redis.port());
  ASSERT_TRUE(connected(line));
  EXPECT_EQ(ask(line, "PING\r\n", 1), Lines{"+PONG"});
}

TEST_F(LinesToAServer, ComeBackInOrderHoweverManyThereAre) {
  RealServer redis = server();
  ProbeLine& line = make_line(80);
  line.Connect("127.0.0.1", redis.port());
  ASSERT_TRUE(connected(line));
  constexpr int kCommands = 5000;
  char format[] = "INCRBY counter %d\r\n";
  Lines expected;
  long sum = 0;
  for (int i = 1; i <= kCommands; ++i) {
    line.SendF(format, i);
    expected.push_back(":" + std::to_string(sum += i));
  }
  ASSERT_TRUE(has_lines(line, kCommands));
  EXPECT_EQ(line.lines(), expected);
}

TEST_F(LinesToAServer, OfManyConnectionsDoNotMix) {
  RealServer redis = server();
  constexpr int kLines = kMostLines, kEach = 100;
  std::vector<ProbeLine*> lines;
  for (int i = 0; i < kLines; ++i) {
    lines.push_back(&make_line(80));
    lines.back()->Connect("127.0.0.1", redis.port());
  }
  for (ProbeLine* line : lines) ASSERT_TRUE(connected(*line));
  char format[] = "ECHO %d-%d\r\n";
  for (int n = 0; n < kEach; ++n) {
    for (int i = 0; i < kLines; ++i) lines[static_cast<std::size_t>(i)]->SendF(format, i, n);
  }
  for (int i = 0; i < kLines; ++i) {
    const ProbeLine& line = *lines[static_cast<std::size_t>(i)];
    ASSERT_TRUE(has_lines(line, 2 * kEach));
    Lines expected;
    for (int n = 0; n < kEach; ++n) {
      const std::string text = std::to_string(i) + "-" + std::to_string(n);
      expected.push_back("$" + std::to_string(text.size()));
      expected.push_back(text);
    }
    EXPECT_EQ(line.lines(), expected);
  }
}

TEST_F(LinesToAServer, LongerThanAnnouncedComeWhole) {
  RealServer redis = server();
  ProbeLine& line = make_line(80);
  line.Connect("127.0.0.1", redis.port());
  ASSERT_TRUE(connected(line));
  std::string value;
  while (value.size() < 30000) value += static_cast<char>('a' + value.size() % 26);
  EXPECT_EQ(ask(line, "SET long " + value + "\r\n", 1), Lines{"+OK"});
  EXPECT_EQ(ask(line, "GET long\r\n", 2), (Lines{"$30000", value}));
  EXPECT_EQ(ask(line, "APPEND long " + value + "\r\n", 1), Lines{":60000"});
  EXPECT_EQ(ask(line, "GET long\r\n", 2), (Lines{"$60000", value + value}));
}

TEST_F(LinesToAServer, LoseBytesOfOneHundredAndTwentyEightAndMore) {
  RealServer redis = server();
  ProbeLine& line = make_line(80);
  line.Connect("127.0.0.1", redis.port());
  ASSERT_TRUE(connected(line));
  EXPECT_EQ(ask(line, "SET name \"caf\xC3\xA9 \\x80\\xff!\"\r\nGET name\r\n", 3),
            (Lines{"+OK", "$9", "caf !"}));
}

TEST_F(LinesToAServer, ComeWithoutBeingAskedForFromAChannel) {
  RealServer redis = server();
  ProbeLine &listener = make_line(80), &speaker = make_line(80);
  listener.Connect("127.0.0.1", redis.port());
  speaker.Connect("127.0.0.1", redis.port());
  ASSERT_TRUE(connected(listener));
  ASSERT_TRUE(connected(speaker));
  EXPECT_EQ(ask(listener, "SUBSCRIBE news\r\n", 6), (Lines{"*3", "$9", "subscribe", "$4", "news", ":1"}));
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(ask(speaker, "PUBLISH news item" + std::to_string(i) + "\r\n", 1), Lines{":1"});
  }
  ASSERT_TRUE(has_lines(listener, 6 + 50 * 7));
  EXPECT_EQ(listener.lines().back(), "item49");
}

TEST_F(LinesToAServer, EndWithTheConnection) {
  RealServer redis = server();
  ProbeLine& line = make_line(80);
  line.Connect("127.0.0.1", redis.port());
  ASSERT_TRUE(connected(line));
  EXPECT_EQ(ask(line, "QUIT\r\n", 1), Lines{"+OK"});
  ASSERT_TRUE(disconnected(line));
  EXPECT_EQ(line.last_reason(), Normal);
  EXPECT_EQ(line.last_code(), 0);
}

TEST_F(LinesToAServer, EndWithTheServer) {
  RealServer redis = server();
  std::vector<ProbeLine*> lines;
  for (int i = 0; i < 5; ++i) {
    lines.push_back(&make_line(80));
    lines.back()->Connect("127.0.0.1", redis.port());
    ASSERT_TRUE(connected(*lines.back()));
  }
  redis.program().stop();
  for (ProbeLine* line : lines) ASSERT_TRUE(disconnected(*line));
  EXPECT_EQ(lines[0]->Send(buffer_of("PING\r\n")), NoConnection);
}

TEST_F(LinesToAServer, MayBeTheLastThingALineSocketHears) {
  RealServer redis = server();
  int deleted = 0;
  std::mutex mutex;
  auto* line = new ProbeLine(80, &deleted);
  Gate gone;
  line->set_hook([&, line](char*) {
    const std::lock_guard<std::mutex> lock(mutex);
    line->done = true;
    gone.open();
  });
  line->Connect("127.0.0.1", redis.port());
  send(*line, "PING\r\n");
  ASSERT_TRUE(gone.wait());
  ProbeLine& other = make_line(80);
  other.Connect("127.0.0.1", redis.port());
  ASSERT_TRUE(connected(other));
  EXPECT_TRUE(wait_until([&] {
    // "connected_clients:1": the server has seen the other one's end.
    const std::size_t before = other.lines().size();
    send(other, "INFO clients\r\n");
    const bool answered = wait_until([&] {
      const Lines all = other.lines();
      return std::any_of(all.begin() + static_cast<long>(before), all.end(),
                         [](const std::string& each) { return each.starts_with("connected_clients:"); });
    });
    const Lines all = other.lines();
    return answered && std::count(all.begin(), all.end(), "connected_clients:1") != 0;
  }));
  EXPECT_EQ(deleted, 1);
}

// ---- Clients of a line listener ----------------------------------------------------------------------------------

/// A line socket around a connection that was accepted. Answers each line; "quit" ends it.
class ServedLine : public LineSocket {
 public:
  ServedLine(AsyncSocket* accepted, std::mutex* mutex, Lines* heard, int* ended)
      : LineSocket(80), mutex_(mutex), heard_(heard), ended_(ended) {
    socket->Free();
    socket = accepted;
    socket->Bind(this);
    socket->ConnectAck();
  }
  ~ServedLine() override {
    const std::lock_guard<std::mutex> lock(*mutex_);
    ++*ended_;
  }
  void Receive(char* text) override {
    {
      const std::lock_guard<std::mutex> lock(*mutex_);
      heard_->emplace_back(text);
    }
    if (std::string(text) == "quit") {
      done = true;
      return;
    }
    char format[] = "you said %s\r\n";
    SendF(format, text);
  }
  OSIORetCode DisconnectIndication(OSIOReason, int) override {
    delete this;
    return Success;
  }

 private:
  std::mutex* mutex_;
  Lines* heard_;
  int* ended_;
};

class LineListener : public LinePeers {
 protected:
  void SetUp() override {
    LinePeers::SetUp();
    listener_ = indirect_socket();
    ASSERT_EQ(listener_->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    ASSERT_EQ(listener_->Listen(accept, this), 0);
    port_ = std::to_string(listener_->LocalPort());
  }
  void TearDown() override {
    EXPECT_TRUE(wait_until([this] { return ended() == accepted(); })) << "connections are left";
    listener_.reset();
    LinePeers::TearDown();
  }
  static void accept(OSObj* self, ADDR socket, ULONG) {
    auto* listener = reinterpret_cast<LineListener*>(self);
    {
      const std::lock_guard<std::mutex> lock(listener->mutex_);
      ++listener->accepted_;
    }
    new ServedLine(static_cast<AsyncSocket*>(socket), &listener->mutex_, &listener->heard_,
                   &listener->ended_);
  }
  Lines heard() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return heard_;
  }
  int accepted() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return accepted_;
  }
  int ended() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return ended_;
  }
  /// What a shell command that talks to this listener writes.
  static std::string run(const std::string& command) {
    Process shell({"sh", "-c", command});
    EXPECT_EQ(shell.wait(), 0) << command << "\n" << shell.output();
    return shell.output();
  }

  OwnedSocket listener_;
  std::string port_;
  std::mutex mutex_;
  Lines heard_;
  int accepted_ = 0;
  int ended_ = 0;
};

TEST_F(LineListener, TalksWithNetcat) {
  EXPECT_EQ(run("printf 'hello\\r\\nworld\\r\\nquit\\r\\n' | nc 127.0.0.1 " + port_),
            "you said hello\r\nyou said world\r\n");
  EXPECT_EQ(heard(), (Lines{"hello", "world", "quit"}));
}

TEST_F(LineListener, HearsEverythingBeforeNetcatsEnd) {
  std::string command = "for i in";
  Lines expected;
  for (int i = 0; i < 200; ++i) {
    command += " " + std::to_string(i);
    expected.push_back("line " + std::to_string(i));
  }
  // Says that nothing more is sent as soon as everything is.
  run(command + "; do printf 'line %d\\r\\n' $i; done | nc -N 127.0.0.1 " + port_);
  ASSERT_TRUE(wait_until([this] { return ended() == 1; }, kPatienceMs));
  EXPECT_EQ(heard(), expected);
}

TEST_F(LineListener, TalksWithSocat) {
  EXPECT_EQ(run("printf 'hello\\r\\nworld\\r\\nquit\\r\\n' | socat STDIO,ignoreeof TCP:127.0.0.1:" + port_),
            "you said hello\r\nyou said world\r\n");
  EXPECT_EQ(heard(), (Lines{"hello", "world", "quit"}));
}

TEST_F(LineListener, TalksWithSocatThatTranslatesLineEnds) {
  EXPECT_EQ(run("printf 'hello\\nworld\\nquit\\n' | socat STDIO,ignoreeof TCP:127.0.0.1:" + port_ + ",crnl"),
            "you said hello\nyou said world\n");
  EXPECT_EQ(heard(), (Lines{"hello", "world", "quit"}));
}

TEST_F(LineListener, TalksWithSocatThatSendsByteByByte) {
  EXPECT_EQ(run("printf 'hello\\r\\nworld\\r\\nquit\\r\\n' | socat -b 1 STDIO,ignoreeof TCP:127.0.0.1:" +
                port_ + ",nodelay"),
            "you said hello\r\nyou said world\r\n");
  EXPECT_EQ(heard(), (Lines{"hello", "world", "quit"}));
}

TEST_F(LineListener, LinesThatEndWithALineFeedAloneAreOne) {
  EXPECT_EQ(run("printf 'hel\\nlo\\n\\r\\nquit\\r' | nc 127.0.0.1 " + port_), "you said hello\r\n");
  EXPECT_EQ(heard(), (Lines{"hello", "quit"}));
}

TEST_F(LineListener, TalksWithManyAtOnce) {
  constexpr int kClients = 12;
  std::vector<Process> clients;
  for (int i = 0; i < kClients; ++i) {
    const std::string number = std::to_string(i);
    clients.emplace_back(std::vector<std::string>{
        "sh", "-c",
        "printf 'one " + number + "\\r\\ntwo " + number + "\\r\\nquit\\r\\n' | nc 127.0.0.1 " + port_});
  }
  for (int i = 0; i < kClients; ++i) {
    Process& client = clients[static_cast<std::size_t>(i)];
    ASSERT_EQ(client.wait(), 0) << client.output();
    const std::string number = std::to_string(i);
    EXPECT_EQ(client.output(), "you said one " + number + "\r\nyou said two " + number + "\r\n");
  }
  EXPECT_EQ(heard().size(), 3u * kClients);
}

TEST_F(LineListener, SurvivesClientsThatAreKilled) {
  for (int i = 0; i < 3; ++i) {
    Process client({"sh", "-c", "printf 'begun' | nc 127.0.0.1 " + port_});
    ASSERT_TRUE(wait_until([&] { return accepted() == i + 1; }, kPatienceMs));
    client.stop();
    ASSERT_TRUE(wait_until([&] { return ended() == i + 1; }, kPatienceMs));
  }
  EXPECT_EQ(heard(), Lines{});
  EXPECT_EQ(run("printf 'still there\\r\\nquit\\r\\n' | nc 127.0.0.1 " + port_), "you said still there\r\n");
}

// ---- Line clients of listening peers -----------------------------------------------------------------------------

TEST_F(LinePeers, ANetcatThatListensIsHeardAndTold) {
  RealServer netcat([](const std::string& port) {
    return std::vector<std::string>{"sh", "-c", "printf 'hello\\r\\nworld\\r\\n' | nc -l 127.0.0.1 " + port};
  });
  ProbeLine& line = make_line(80);
  line.Connect("127.0.0.1", netcat.port());
  ASSERT_TRUE(has_lines(line, 2));
  EXPECT_EQ(line.lines(), (Lines{"hello", "world"}));
  char format[] = "%s and %s\r\n";
  line.SendF(format, "bye", "thanks");
  retire(line);
  EXPECT_EQ(netcat.program().wait(), 0);
  EXPECT_EQ(netcat.program().output(), "bye and thanks\r\n");
}

TEST_F(LinePeers, ASocatThatEchoesGivesEveryLineBack) {
  RealServer socat([](const std::string& port) {
    return std::vector<std::string>{"socat", "TCP4-LISTEN:" + port + ",bind=127.0.0.1,reuseaddr,fork",
                                    "EXEC:cat"};
  });
  ProbeLine* const lines[] = {&make_line(8), &make_line(80), &make_line(800)};
  for (ProbeLine* line : lines) {
    line->Connect("127.0.0.1", socat.port());
    ASSERT_TRUE(connected(*line));
  }
  Lines expected;
  for (std::size_t i = 0; i < 300; ++i) {
    std::string text = std::to_string(i) + ":";
    text.append(i * 7 % 1000, static_cast<char>('a' + i % 26));
    expected.push_back(text);
    for (ProbeLine* line : lines) send(*line, text + "\r\n");
  }
  for (ProbeLine* line : lines) {
    ASSERT_TRUE(has_lines(*line, expected.size()));
    EXPECT_EQ(line->lines(), expected);
  }
}

TEST_F(LinePeers, ASocatThatClosesAtOnceEndsTheLine) {
  RealServer socat([](const std::string& port) {
    return std::vector<std::string>{"socat", "TCP4-LISTEN:" + port + ",bind=127.0.0.1,reuseaddr,fork",
                                    "EXEC:true"};
  });
  for (int i = 0; i < 5; ++i) {
    ProbeLine& line = make_line(80);
    line.Connect("127.0.0.1", socat.port());
    ASSERT_TRUE(disconnected(line));
    EXPECT_EQ(line.lines(), Lines{});
  }
}

}  // namespace
