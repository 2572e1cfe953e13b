// Answers that come before a DnsLookup has been constructed: told once, behind its constructor, without a time-out.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/acts_at_a_line.h"
#include "support/dns_lookup_fixture.h"
#include "support/failing_new.h"
#include "support/watched_thread.h"

using namespace oskernel_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr ULONG kAddr = ip(192, 168, 0, 1);
/// How long the other threads get, while a constructor stands still, to do what they must not do.
constexpr int kTemptationMs = 60;

/// Whether a lookup is deleted by its callback or stays.
class DnsRace : public RunningLookups, public testing::WithParamInterface<bool> {
 protected:
  bool deletes() const { return GetParam(); }
  void SetUp() override {
    RunningLookups::SetUp();
    FakeResolver::know("ns.test", ip(10, 9, 8, 7));
    if (deletes()) asker_.set_hook([](DnsLookup* lookup, ULONG) { delete lookup; });
  }
  void TearDown() override {
    server_.stop();
    RunningLookups::TearDown();
  }
  /// Lets the name cache know the name.
  static void resolve(const char* name) {
    DNSEntry::Lookup(name, nullptr);
    ASSERT_TRUE(wait_until([name] { return DNSEntry::Lookup(name, nullptr) != 0; }, kPatienceMs));
  }
  /// Waits for the first answer that is told, and looks that there is no other callback. The lookup is deleted if it is
  /// still there.
  void expect_one_answer(DnsLookup* lookup) {
    ASSERT_TRUE(asker_.wait_for(1));
    if (!deletes()) {
      EXPECT_EQ(first_address(*lookup), kAddr);
      EXPECT_EQ(lookup->timer.State(), OS_T_INACTIVE) << "a time-out would follow";
      delete lookup;
    }
    EXPECT_THAT(asker_.values(), ElementsAre(0u));
    asker_.clear();
  }

  NameServer server_;
};

INSTANTIATE_TEST_SUITE_P(Callback, DnsRace, testing::Bool(), [](const testing::TestParamInfo<bool>& way) {
  return std::string(way.param ? "Deletes" : "Keeps");
});

// ---- Between sending and arming ----------------------------------------------------------------------------------

TEST_P(DnsRace, AnAnswerThatComesBeforeTheTimeRunsIsToldOnceBehindTheConstructor) {
  resolve("ns.test");
  for (const char* server : {"10.53.53.53", "ns.test", "10.53.53.53"}) {
    SCOPED_TRACE(server);
    std::atomic<int> told_inside{0};
    server_.watch_after([&](const SentDatagram& sent) {
      server_.send_to(local_port_of(sent.fd), address_answer("host.test", kAddr));
      wait_until([this] { return asker_.count() > 0; }, kTemptationMs);
      told_inside += static_cast<int>(asker_.count());
    });
    DnsLookup* const lookup = ask_and_let_go(asker_, "host.test", T_A, server);
    server_.watch_after(nullptr);
    EXPECT_EQ(told_inside, 0) << "a callback may delete what is still being constructed";
    expect_one_answer(lookup);
  }
}

TEST_P(DnsRace, ManyAnswersThatComeBeforeTheTimeRunsAreToldBehindTheConstructor) {
  std::atomic<int> told_inside{0};
  server_.watch_after([&](const SentDatagram& sent) {
    for (int i = 0; i < 20; ++i) server_.send_to(local_port_of(sent.fd), address_answer("host.test", kAddr));
    wait_until([this] { return asker_.count() > 0; }, kTemptationMs);
    told_inside += static_cast<int>(asker_.count());
  });
  DnsLookup* const lookup = ask_and_let_go(asker_, "host.test", T_A, "10.53.53.53");
  EXPECT_EQ(told_inside, 0);
  if (deletes()) {
    ASSERT_TRUE(asker_.wait_for(1));
    ComeRound round;
    ASSERT_TRUE(round.pass());
    EXPECT_THAT(asker_.values(), ElementsAre(0u));
    return;
  }
  ASSERT_TRUE(asker_.wait_for(20));
  EXPECT_EQ(asker_.count(0), 20u);
  EXPECT_EQ(asker_.count(), 20u);
  EXPECT_EQ(lookup->timer.State(), OS_T_INACTIVE);
  delete lookup;
}

// ---- Before sending ----------------------------------------------------------------------------------------------

/// Everything a lookup prints while it is constructed, once it has a socket: at each of these lines somebody may know
/// its port and send something.
const char* const kLines[] = {
    "AsyncSocket::StartTask - waking monitor thread", "DNSEntry::Lookup - 'ns.test'",
    "AsyncSocket::DNSResult - address for",           "Buf: buf ",
    "AsyncSocket::DataIndication - Sending",
};

TEST_P(DnsRace, ADatagramThatComesBeforeTheQuestionIsTheAnswer) {
  for (const char* text : kLines) {
    SCOPED_TRACE(text);
    AsyncSocket::Cleanup();  // its threads print
    std::atomic<int> told_inside{0};
    ActsOnceAtALine console_line(text, [&] {
      std::vector<AsyncSocket*> live = live_sockets();
      server_.send_to(local_port_of(now_of(live.back()->s)), address_answer("host.test", kAddr));
      wait_until([this] { return asker_.count() > 0; }, kTemptationMs);
      told_inside += static_cast<int>(asker_.count());
    });
    resolve("ns.test");
    const Tracing tracing(2);
    std::atomic_ref<int>(DNSEntry::trace).store(2);
    DnsLookup* const lookup = ask_and_let_go(asker_, "host.test", T_A, "ns.test");
    EXPECT_TRUE(console_line.has_acted());
    EXPECT_EQ(told_inside, 0) << "a callback may delete what is still being constructed";
    expect_one_answer(lookup);
    std::atomic_ref<int>(DNSEntry::trace).store(0);
    AsyncSocket::Cleanup();
  }
}

/// Hands an answer to the lookup that is being constructed, at the last line that it prints. The answer waits there.
class EarlyAnswer {
 public:
  /// Runs when the answer waits, before the constructor goes on.
  using Then = std::function<void()>;

  explicit EarlyAnswer(Then then = [] {})
      : line_("Buf: buf ", [this, then] {
          auto* const lookup = static_cast<DnsLookup*>(live_sockets().back()->Partner());
          EXPECT_EQ(lookup->timer.State(), OS_T_INACTIVE);
          EXPECT_EQ(lookup->timer.duration, 0u);
          OSBuf* const buf = dns_buffer(address_answer("host.test", kAddr));
          giver_ = std::make_unique<WatchedThread>([this, lookup, buf] {
            OSIO* const layer = lookup;
            result_ = layer->DatagramIndication(buf, nullptr, nullptr);
          });
          EXPECT_TRUE(giver_->blocked());
          then();
        }) {}

  /// What has become of it, when it has been taken.
  OSIORetCode result() {
    if (giver_ == nullptr || !giver_->finished_within(kPatienceMs)) return NotSupported;
    return result_;
  }

 private:
  std::atomic<OSIORetCode> result_{NotSupported};
  ActsOnceAtALine line_;
  std::unique_ptr<WatchedThread> giver_;  // its end comes first: it prints
};

TEST_P(DnsRace, TheTimeDoesNotRunWhenAnAnswerWaitsForTheEndOfTheConstructor) {
  AsyncSocket::Cleanup();  // its threads print
  std::atomic<bool> ever_ran{false};
  asker_.set_hook([&](DnsLookup* lookup, ULONG) {
    ever_ran = lookup->timer.duration != 0 || lookup->timer.State() != OS_T_INACTIVE;
    if (deletes()) delete lookup;
  });
  {
    EarlyAnswer early([this] { EXPECT_EQ(asker_.count(), 0u); });
    DnsLookup* const lookup = ask_and_let_go(asker_, "host.test", T_A, "10.53.53.53");
    EXPECT_EQ(early.result(), Success);
    expect_one_answer(lookup);
    AsyncSocket::Cleanup();
  }
  EXPECT_FALSE(ever_ran) << "it is not even started";
  EXPECT_TRUE(wait_until([] { return PoolState::now().buffers_out == 0; }, kPatienceMs));
}

TEST_P(DnsRace, TheTimeRunsWhenTheAnswerThatWaitedFindsNoMemory) {
  AsyncSocket::Cleanup();
  {
    EarlyAnswer early([] { FailingNew::fail_at_least(sizeof(DnsMessage)); });
    const OwnedLookup lookup = ask(asker_, "host.test");
    EXPECT_EQ(early.result(), Success);
    FailingNew::reset();
    EXPECT_EQ(lookup->timer.State(), OS_T_WAIT);
    EXPECT_EQ(lookup->timer.duration, kAnswerWaitMs);
    EXPECT_EQ(lookup->response, nullptr);
    EXPECT_EQ(asker_.count(), 0u);
  }
  AsyncSocket::Cleanup();
  EXPECT_EQ(PoolState::now().buffers_out, 0);
}

// ---- The name cache beside it ------------------------------------------------------------------------------------

TEST_P(DnsRace, AServerThatIsFoundAtAnyMomentIsAskedOnce) {
  server_.answer_by([](const std::string&) { return address_answer("host.test", kAddr); });
  for (int i = 0; i < 150; ++i) {
    DNSEntry::Clear("ns.test");
    const std::size_t sent = server_.sent().size();
    DnsLookup* const lookup = ask_and_let_go(asker_, "host.test", T_A, "ns.test");
    expect_one_answer(lookup);
    ASSERT_EQ(server_.sent().size(), sent + 1);
    if (HasFailure()) break;
  }
  for (const SentDatagram& sent : server_.sent()) {
    EXPECT_TRUE(sent.to == SockAddr(ip(10, 9, 8, 7), kDnsPort));
  }
}

TEST_P(DnsRace, AServerThatIsFoundBeforeTheQuestionIsReadyIsAskedOnce) {
  server_.answer_by([](const std::string&) { return address_answer("host.test", kAddr); });
  FakeResolver::hold();
  {
    ActsOnceAtALine console_line("Buf: buf ", [this] {
      FakeResolver::release();
      wait_until([this] { return !server_.sent().empty() || asker_.count() > 0; }, kTemptationMs);
      EXPECT_EQ(asker_.count(), 0u);
    });
    DnsLookup* const lookup = ask_and_let_go(asker_, "host.test", T_A, "ns.test");
    EXPECT_TRUE(console_line.has_acted());
    expect_one_answer(lookup);
    AsyncSocket::Cleanup();
  }
  EXPECT_EQ(server_.sent().size(), 1u);
}

TEST_P(DnsRace, AFastServerNeverMakesATimeOut) {
  server_.answer_by([](const std::string&) { return address_answer("host.test", kAddr); });
  for (int i = 0; i < 300; ++i) {
    DnsLookup* const lookup = ask_and_let_go(asker_, "host.test", T_A, "10.53.53.53");
    expect_one_answer(lookup);
    if (HasFailure()) break;
  }
}

// ---- Sections ----------------------------------------------------------------------------------------------------

/// Notes how deep in a section the printing thread is at lines that contain a text.
class LevelsAtLines : public RecordingConsole {
 public:
  explicit LevelsAtLines(std::string text) : text_(std::move(text)), before_(Console) { Console = this; }
  ~LevelsAtLines() override { Console = before_; }
  LevelsAtLines(const LevelsAtLines&) = delete;
  LevelsAtLines& operator=(const LevelsAtLines&) = delete;

  void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
    if (std::string(format).find(text_) != std::string::npos) {
      const std::lock_guard<std::mutex> lock(mutex_);
      levels_.push_back(levels_inside(AsyncSocket::cs));
    }
    RecordingConsole::vPrint(format, arguments);
  }
  std::vector<int> levels() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return levels_;
  }

 private:
  const std::string text_;
  OSConsole* const before_;
  mutable std::mutex mutex_;
  std::vector<int> levels_;
};

class DnsSections : public RunningLookups {
 protected:
  NameServer server_;
};

TEST_F(DnsSections, TheSocketIsConnectedOutsideTheClassSection) {
  FakeResolver::know("ns.test", ip(10, 9, 8, 7));
  std::atomic_ref<int>(DNSEntry::trace).store(2);
  for (const char* server : {"ns.test", "255.255.255.255", ""}) {
    LevelsAtLines lines("DNSEntry::Lookup - '%s'");
    ask(asker_, "host.test", T_A, server).reset();
    EXPECT_THAT(lines.levels(), testing::Each(0)) << "the name cache's section comes before it";
    EXPECT_FALSE(lines.levels().empty());
    AsyncSocket::Cleanup();
  }
  std::atomic_ref<int>(DNSEntry::trace).store(0);
}

TEST_F(DnsSections, TheQuestionIsSentInsideTheClassSection) {
  const OwnedLookup lookup = ask(asker_, "host.test");
  ASSERT_EQ(server_.sent().size(), 1u);
  EXPECT_EQ(server_.last().thread, gettid());
  EXPECT_EQ(server_.last().class_levels, 1) << "an answer cannot be read before the time runs";
  EXPECT_EQ(server_.last().cache_levels, 0);
  EXPECT_EQ(levels_inside(AsyncSocket::cs), 0) << "and has been left";
}

TEST_F(DnsSections, CallbacksAreInsideNoSection) {
  std::atomic<int> levels{-1};
  asker_.set_hook([&levels](DnsLookup*, ULONG) {
    levels =
        levels_inside(AsyncSocket::cs) + levels_inside(DNSEntry::cs) + levels_inside(OS_CRITICAL_TRIGGER);
  });
  const OwnedLookup lookup = ask(asker_, "host.test");
  ASSERT_TRUE(server_.send_to(*lookup, address_answer("host.test", kAddr)));
  ASSERT_TRUE(asker_.wait_for(1));
  EXPECT_EQ(levels, 0);
}

}  // namespace
