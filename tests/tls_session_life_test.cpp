// What a session owns and what becomes of it: a pool that is empty, a retry by hand, a second set-up, the end.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>

#include "kernel/task.h"
#include "support/link_drought.h"
#include "support/tls_session.h"

using namespace oskernel_test;
using testing::IsEmpty;

namespace {

/// A buffer that counts up when it is freed.
OSBuf* counted(const std::string& text, int* count) {
  OSBuf* const buf = buffer_of(text);
  buf->AddBufferCallback(OSCallback::Alloc(
      nullptr, [](OSObj* obj, ADDR, ULONG) { ++*reinterpret_cast<int*>(obj); },
      reinterpret_cast<OSObj*>(count), nullptr, 0));
  return buf;
}

class TlsLife : public TlsSessionTest {
 protected:
  void TearDown() override {
    FailingNew::reset();
    TlsSessionTest::TearDown();
  }
  void establish(TlsLink& link) {
    ASSERT_EQ(link.handshake(), 0);
    link.receive();
    console.clear();
  }
};

// ---- No link for the queue -----------------------------------------------------------------------------------

TEST_F(TlsLife, AWriteThatStallsAndCannotBeQueuedIsNoConnection) {
  TlsLink link(good_server());
  establish(link);
  // Not through the session: each buffer that goes home brings a link along.
  const std::string filling(1000, '.');
  while (::send(link.fd(), filling.data(), filling.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
  }
  int freed = 0;
  OSBuf* const buf = counted("refused", &freed);
  {
    const LinkDrought drought;
    EXPECT_EQ(link.session().DataIndication(buf), NoConnection);
  }
  expected_fatals = {kOutOfLinks};
  EXPECT_EQ(freed, 1);
  EXPECT_EQ(console.count("SSL_write: WANT_WRITE"), 1);
  EXPECT_EQ(link.waiting(), 0);
  EXPECT_NE(link.session().sendqtrigger.State(), OS_T_WAIT);
}

TEST_F(TlsLife, WhatCannotBeQueuedBehindAStalledWriteIsNoConnection) {
  TlsLink link(good_server());
  establish(link);
  const std::string given = link.stall();
  int freed = 0;
  OSBuf* const buf = counted("behind", &freed);
  {
    const LinkDrought drought;
    EXPECT_EQ(link.session().DataIndication(buf), NoConnection);
  }
  expected_fatals = {kOutOfLinks};
  EXPECT_EQ(freed, 1);
  EXPECT_EQ(link.waiting(), 1);
  std::string got;
  EXPECT_TRUE(wait_until(
      [&] {
        link.session().SendQTrigger();
        got += link.peer().read_now();
        return got.size() >= given.size();
      },
      kPatienceMs));
  EXPECT_TRUE(same_bytes(got, given));
}

// ---- The retry -----------------------------------------------------------------------------------------------

TEST_F(TlsLife, ARetryByHandSetsTheTimerWhileSomethingWaits) {
  TlsLink link(good_server());
  establish(link);
  link.stall();
  link.session().sendqtrigger.Cancel();
  ASSERT_NE(link.session().sendqtrigger.State(), OS_T_WAIT);
  link.session().SendQTrigger();
  EXPECT_EQ(link.session().sendqtrigger.State(), OS_T_WAIT);
  EXPECT_EQ(link.session().sendqtrigger.duration, 10U);
  link.session().sendqtrigger.Cancel();
  EXPECT_TRUE(wait_until(
      [&] {
        link.peer().read_now();
        link.session().SendQTrigger();
        return link.waiting() == 0;
      },
      kPatienceMs));
  link.session().sendqtrigger.Cancel();
  link.session().SendQTrigger();
  EXPECT_NE(link.session().sendqtrigger.State(), OS_T_WAIT);
}

TEST_F(TlsLife, ARetryThatNeedsAReadFirstWakesTheMonitorThread) {
  const struct {
    const char* name;
    void (*retry)(SSLInfo& session);
  } rows[] = {
      {"by hand", [](SSLInfo& session) { session.SendQTrigger(); }},
      {"by its timer",
       [](SSLInfo& session) {
         SSLInfo::_SendQTrigger(reinterpret_cast<OSObj*>(&session), nullptr, session.sendqtrigger.value);
       }},
  };
  TlsEnd::Wish wish = good_server(TLS1_2_VERSION);
  wish.renegotiates = true;
  AsyncSocket::Init();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    TlsLink link(wish);
    establish(link);
    MonitorBeat monitor;
    ASSERT_EQ(SSL_renegotiate(link.session().ssl), 1);
    EXPECT_EQ(link.send("once it is done"), Success);
    ASSERT_EQ(link.waiting(), 1);
    link.session().sendqtrigger.Cancel();
    ASSERT_TRUE(monitor.passes());
    put_into(AsyncSocket::trace, 1);
    ASSERT_TRUE(monitor.passes());
    const int woken = console.count("select woken by signal pipe");
    const int wanted = console.count("SSL_write: WANT_READ");
    row.retry(link.session());
    EXPECT_EQ(console.count("SSL_write: WANT_READ"), wanted + 1);
    EXPECT_TRUE(
        wait_until([&] { return console.count("select woken by signal pipe") > woken; }, kPatienceMs));
    put_into(AsyncSocket::trace, 0);
    std::string got;
    EXPECT_TRUE(wait_until(
        [&] {
          got += link.peer().read_now();
          link.receive();
          link.session().SendQTrigger();
          return got == "once it is done";
        },
        kPatienceMs));
  }
}

/// What a task has found that makes a session.
struct Found {
  OSTask* of_a_trigger = nullptr;
  OSTask* of_a_session = nullptr;
  Gate there;
};

class Maker : public OSTask {
 public:
  explicit Maker(Found* found) : OSTask(3, 0, nullptr, nullptr), found_(found) { LeaveCriticalSection(&cs); }
  void Main() override {
    {
      const OSTimerTrigger trigger(0, 1);
      found_->of_a_trigger = trigger.task;
      const SSLInfo session(-1, false);
      found_->of_a_session = session.sendqtrigger.task;
    }
    found_->there.open();
  }

 private:
  Found* found_;
};

TEST_F(TlsLife, TheTaskThatMakesASessionIsNotWokenByItsRetry) {
  Found found;
  new Maker(&found);  // its thread deletes it
  ASSERT_TRUE(found.there.wait());
  EXPECT_NE(found.of_a_trigger, nullptr) << "which it would be by any other trigger";
  EXPECT_EQ(found.of_a_session, nullptr);
}

// ---- What it owns --------------------------------------------------------------------------------------------

/// How many connections and contexts OpenSSL has freed. An index, once made, stays for good.
struct Ends {
  std::atomic<int> connections{0}, contexts{0};
};
Ends& ends() {
  static auto* const kept = new Ends;
  static const int indices =
      SSL_get_ex_new_index(0, nullptr, nullptr, nullptr,
                           [](void*, void*, CRYPTO_EX_DATA*, int, long, void*) { ++ends().connections; }) +
      SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr,
                               [](void*, void*, CRYPTO_EX_DATA*, int, long, void*) { ++ends().contexts; });
  EXPECT_GE(indices, 0);
  return *kept;
}

TEST_F(TlsLife, SetUpAgainItFreesWhatItHadAndBeginsAnew) {
  ends();
  for (const bool server : {false, true}) {
    Wire wire = Wire::local();
    const auto peer = [&] {
      return TlsEnd(server ? good_client(TLS1_2_VERSION) : good_server(TLS1_2_VERSION),
                    Descriptor(::dup(wire.far_end.get())));
    };
    TlsEnd first = peer(), second = peer();
    auto session = std::make_unique<SSLInfo>(wire.near_end.get(), server);
    const auto talk = [&](TlsEnd& other) {
      ASSERT_TRUE(wait_until(
          [&] {
            const int result = session->Handshake();
            EXPECT_LE(result, 0);
            other.step();
            return result >= 0;
          },
          kPatienceMs));
      EXPECT_EQ(session->DataIndication(buffer_of("hello")), Success);
      EXPECT_EQ(other.read(5), "hello");
    };
    std::string name = tls_files().subject(server ? TlsFiles::kClient : TlsFiles::kServer);
    ASSERT_EQ(session->Setup(0, name.data(), nullptr, nullptr, nullptr), 0);
    talk(first);
    const int connections = ends().connections, contexts = ends().contexts;
    EXPECT_EQ(session->Setup(0, name.data(), nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(ends().connections, connections + 1);
    EXPECT_EQ(ends().contexts, contexts + 1);
    EXPECT_EQ(SSL_is_init_finished(session->ssl), 0);
    EXPECT_EQ(session->rbio, SSL_get_rbio(session->ssl));
    EXPECT_EQ(session->DataIndication(buffer_of("too early")), NoConnection);
    talk(second);
    session.reset();
    EXPECT_EQ(ends().connections, connections + 2);
    EXPECT_EQ(ends().contexts, contexts + 2);
  }
}

TEST_F(TlsLife, ASetUpThatFailsLeavesNothingOfTheOneBefore) {
  ends();
  TlsLink link(good_server());
  establish(link);
  const int connections = ends().connections;
  EXPECT_EQ(link.session().Setup(0, nullptr, tls_files().missing().c_str(), nullptr, nullptr), 1);
  EXPECT_EQ(ends().connections, connections + 1);
  EXPECT_EQ(link.session().ssl, nullptr);
  EXPECT_EQ(link.session().ssl_ctx, nullptr);
  EXPECT_EQ(link.session().rbio, nullptr);
  EXPECT_EQ(link.session().wbio, nullptr);
  EXPECT_EQ(link.send("never"), NoConnection);
  EXPECT_EQ(link.session().Stop(), 0);
  EXPECT_EQ(link.session().Handshake(), 1);
}

// ---- Without a connection ------------------------------------------------------------------------------------

TEST_F(TlsLife, WithoutAConnectionAnyResultIsAProtocolError) {
  SSLInfo session(-1, false);
  for (const int result : {-1, 0, 1}) EXPECT_EQ(session.Error("SSL_read", result), SSL_ERROR_SSL);
  EXPECT_THAT(console.calls(), IsEmpty());
  ERR_raise(ERR_LIB_SSL, ERR_R_INTERNAL_ERROR);
  EXPECT_EQ(session.Error("SSL_read", -1), SSL_ERROR_SSL);
  EXPECT_EQ(console.count(": SSL_read: error:"), 1);
}

}  // namespace
