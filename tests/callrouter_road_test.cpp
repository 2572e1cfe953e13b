// The parts of the road inside one process: window, layers, output. The whole of it is run by
// callrouter_program_test.cpp.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "examples/callrouter/answer.h"
#include "examples/callrouter/format.h"
#include "examples/callrouter/output.h"
#include "examples/callrouter/plan.h"
#include "examples/callrouter/router.h"
#include "examples/callrouter/window.h"
#include "kernel/buffer.h"
#include "tests/support/kernel_fixture.h"

namespace callrouter {
namespace {

using oskernel_test::wait_until;

class RoadTest : public oskernel_test::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    cfg = road_config();
    plan_.add("44", "United Kingdom", "gw", 1);
    Start();
  }

  static OSBuf* line(Window& window, const std::string& text) {
    OSBuf* buf = window.alloc(text.data(), static_cast<int>(text.size()));
    EXPECT_NE(buf, nullptr);
    push_mark(buf, {12, 3, 0});
    return buf;
  }

  Plan plan_;
};

// What a layer below the router sees.
class CatchLayer : public OSIO {
 public:
  OSIORetCode DataIndication(OSBuf* buf) override {
    answers.push_back(pull_answer(buf));
    marks.push_back(peek_mark(buf));
    texts.emplace_back(peek_text(buf));
    buf->Free();
    return Blocked;
  }
  OSIORetCode Service(OSIOParam* param) override {
    services.push_back(param->Type());
    return Success;
  }

  std::vector<Answer> answers;
  std::vector<LineMark> marks;
  std::vector<std::string> texts;
  std::vector<int> services;
};

TEST_F(RoadTest, RouterAnswersThroughItsPartnerAndKeepsTheLine) {
  Window window;
  RouterLayer router(plan_);
  CatchLayer below;
  router.Bind(&below);
  EXPECT_EQ(router.DataIndication(line(window, "+44 20")), Blocked);
  EXPECT_EQ(router.DataIndication(line(window, "x")), Blocked);
  ASSERT_EQ(below.answers.size(), 2u);
  EXPECT_EQ(below.answers[0].row->destination, "United Kingdom");
  EXPECT_EQ(below.answers[0].number.view(), "4420");
  EXPECT_TRUE(below.answers[1].malformed());
  EXPECT_EQ(below.marks[0].line, 12u);
  EXPECT_EQ(below.marks[0].source, 3u);
  EXPECT_EQ(below.texts, (std::vector<std::string>{"+44 20", "x"}));
  EndOfBatch end;
  EXPECT_EQ(router.Service(&end), Success);
  EXPECT_EQ(below.services, std::vector<int>{EndOfBatch::kType});
  EXPECT_EQ(window.in_flight(), 0);
}

TEST_F(RoadTest, RouterWithoutPartnerLosesNoBuffer) {
  Window window;
  RouterLayer router(plan_);
  EXPECT_EQ(router.DataIndication(line(window, "+44 20")), NotSupported);
  EXPECT_EQ(window.in_flight(), 0);
}

TEST_F(RoadTest, CutLineIsMalformedThoughItsBeginningIsANumber) {
  Window window;
  RouterLayer router(plan_);
  CatchLayer below;
  router.Bind(&below);
  OSBuf* buf = window.alloc("4420", 4);
  push_mark(buf, {1, 0, 1});
  router.DataIndication(buf);
  EXPECT_EQ(below.answers[0].number.error, NumberError::kLineTooLong);
}

TEST_F(RoadTest, TracedBufferIsReportedOnTheConsole) {
  Window window;
  RouterLayer router(plan_);
  router.DataIndication(line(window, "+44 20"));
  EXPECT_EQ(console.count("router: line 12"), 0);
  OSBuf* buf = line(window, "+44 20");
  buf->trace = 1;
  router.DataIndication(buf);
  EXPECT_EQ(console.count("router: line 12 of input 4: United Kingdom, gateway gw"), 1);
}

TEST_F(RoadTest, WindowIsUsedUpBeforeThePoolIs) {
  Window window;
  for (const int len : {10, 300, Window::max_text()}) {
    const std::string text(static_cast<std::size_t>(len), '1');
    std::vector<OSBuf*> taken;
    while (OSBuf* buf = window.alloc(text.data(), len)) {
      EXPECT_EQ(buf->length, len);
      taken.push_back(buf);
    }
    EXPECT_GE(taken.size(), 16u);
    EXPECT_EQ(window.in_flight(), static_cast<int>(taken.size()));
    for (OSBuf* buf : taken) buf->Free();
    EXPECT_EQ(window.in_flight(), 0);
  }
  for (int i = 1; i < 4; ++i) EXPECT_GE(OSBuf::min_count[i], 1) << "class " << i;
  EXPECT_TRUE(console.fatals().empty());
}

TEST_F(RoadTest, WaitForRoomEndsWhenHalfIsFree) {
  Window window;
  std::vector<OSBuf*> taken;
  while (OSBuf* buf = window.alloc("1", 1)) taken.push_back(buf);
  const std::size_t half = taken.size() / 2;
  std::atomic<bool> room{false};
  std::thread reader([&] {
    window.wait_for_room();
    room = true;
  });
  while (taken.size() > half + 1) {
    taken.back()->Free();
    taken.pop_back();
  }
  EXPECT_FALSE(room);
  taken.back()->Free();
  taken.pop_back();
  EXPECT_TRUE(wait_until([&] { return room.load(); }));
  reader.join();
  for (OSBuf* buf : taken) buf->Free();
}

// The reader and the freeing threads meet at every length of the queue; a lost wake-up would stop this for good.
TEST_F(RoadTest, NoWakeUpIsLostBetweenReaderAndFreeingThreads) {
  Window window;
  OSProtectedQueue queue;
  std::atomic<bool> done{false};
  const auto drain = [&] {
    while (!done) {
      if (OSBuf* buf = queue.FirstBufAndRemove()) buf->Free();
    }
  };
  std::thread first(drain), second(drain);
  for (int i = 0; i < 50000; ++i) {
    OSBuf* buf;
    while ((buf = window.alloc("1", 1)) == nullptr) window.wait_for_room();
    queue.Append(buf);
  }
  window.close();
  window.wait_until_empty();
  done = true;
  first.join();
  second.join();
  EXPECT_TRUE(console.fatals().empty());
}

// ---- output

class OutputTest : public RoadTest {
 protected:
  OutputTest() : formatter_(make_formatter(Format::kText)), sources_{"a", "b", "c", "d"} {}

  void SetUp() override {
    RoadTest::SetUp();
    signal(SIGPIPE, SIG_IGN);
    ASSERT_EQ(pipe2(pipe_, O_CLOEXEC), 0);
  }
  void TearDown() override {
    close_read_end();
    close(pipe_[1]);
    RoadTest::TearDown();
  }
  void close_read_end() {
    if (pipe_[0] >= 0) close(pipe_[0]);
    pipe_[0] = -1;
  }

  OSIORetCode put(OutputLayer& output, Window& window, const std::string& text) {
    RouterLayer router(plan_);
    router.Bind(&output);
    const OSIORetCode result = router.DataIndication(line(window, text));
    router.UnBind();
    return result;
  }

  const std::unique_ptr<Formatter> formatter_;
  const std::vector<std::string> sources_;
  Stats stats_;
  callrouter::Stop stop_;
  int pipe_[2] = {-1, -1};
};

TEST_F(OutputTest, AnswersAreHeldBackUntilTheBatchEnds) {
  Window window;
  OutputLayer output(pipe_[1], *formatter_, sources_, stats_, stop_);
  EXPECT_EQ(put(output, window, "+44 20"), Success);
  EXPECT_EQ(put(output, window, "+45 20"), Success);
  EXPECT_EQ(put(output, window, "x"), Success);
  fcntl(pipe_[0], F_SETFL, O_NONBLOCK);
  char text[1000];
  EXPECT_EQ(read(pipe_[0], text, sizeof text), -1);
  EndOfBatch end;
  EXPECT_EQ(output.Service(&end), Success);
  const ssize_t got = read(pipe_[0], text, sizeof text);
  ASSERT_GT(got, 0);
  EXPECT_EQ(std::string(text, static_cast<std::size_t>(got)),
            "+4420              44       United Kingdom                          gw\n"
            "+4520              unroutable: no prefix of the plan matches (d:12)\n"
            "x                  malformed: unexpected 'x' at column 1 (d:12)\n");
  EXPECT_EQ(stats_.routed, 1u);
  EXPECT_EQ(stats_.unroutable, 1u);
  EXPECT_EQ(stats_.malformed, 1u);
  EXPECT_EQ(window.in_flight(), 0);
}

TEST_F(OutputTest, OtherServicesAreDeclined) {
  class Other : public OSIOParam {
   public:
    int Type() override { return 99; }
  } other;
  OutputLayer output(pipe_[1], *formatter_, sources_, stats_, stop_);
  EXPECT_EQ(output.Service(&other), NotSupported);
}

TEST_F(OutputTest, ClosedPipeRequestsAStopAndLosesNoBuffer) {
  Window window;
  OutputLayer output(pipe_[1], *formatter_, sources_, stats_, stop_);
  close_read_end();
  EndOfBatch end;
  EXPECT_EQ(put(output, window, "+44 20"), Success);
  output.Service(&end);
  EXPECT_EQ(output.error(), EPIPE);
  EXPECT_EQ(stop_.reason(), callrouter::Stop::Reason::kOutputClosed);
  EXPECT_EQ(put(output, window, "+44 20"), NoConnection);
  EXPECT_EQ(window.in_flight(), 0);
  EXPECT_EQ(stats_.routed, 2u);
}

TEST_F(OutputTest, PeerThatTakesNothingIsGivenUpOnceAStopIsRequested) {
  Window window;
  OutputLayer output(pipe_[1], *formatter_, sources_, stats_, stop_);
  std::atomic<bool> written{false};
  std::thread router([&] {
    // Soon more than the pipe holds.
    while (output.error() == 0) put(output, window, "+44 20 7946 0123");
    written = true;
  });
  EXPECT_TRUE(wait_until([&] { return stats_.answered() > 500; }));
  EXPECT_FALSE(written);
  stop_.request(callrouter::Stop::Reason::kSignal);
  EXPECT_TRUE(wait_until([&] { return written.load(); }));
  router.join();
  EXPECT_EQ(output.error(), ETIMEDOUT);
  EXPECT_EQ(stop_.reason(), callrouter::Stop::Reason::kSignal);
}

TEST_F(OutputTest, StopKeepsItsFirstReasonAndIsReadableForGood) {
  stop_.request(callrouter::Stop::Reason::kSignal);
  stop_.request(callrouter::Stop::Reason::kOperator);
  EXPECT_EQ(stop_.reason(), callrouter::Stop::Reason::kSignal);
  for (int i = 0; i < 2; ++i) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(stop_.fd(), &set);
    timeval none{};
    EXPECT_EQ(select(stop_.fd() + 1, &set, nullptr, nullptr, &none), 1);
  }
}

}  // namespace
}  // namespace callrouter
