// What the secure blocking socket makes of every outcome that OpenSSL's calls can have.

#include <climits>
#include <string>
#include <vector>

#include "support/blocking_calls.h"
#include "support/secure_fixture.h"
#include "support/session_calls.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int kReason = SSL_R_BAD_LENGTH;

/// The text of the error that the script queues.
std::string queued_text() {
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS, nullptr);
  return error_text(ERR_PACK(ERR_LIB_SSL, 0, kReason));
}
unsigned queued_code() { return static_cast<unsigned>(ERR_PACK(ERR_LIB_SSL, 0, kReason)); }

class SecureSocketOutcome : public SecureTest {
 protected:
  static std::string rec(const std::string& text) { return "SecureSocket::RecWait: " + text; }
};

/// What comes of one result of SSL_read. `buffer` is the bytes of the buffer that is returned, "(null)" for none.
struct BufferRow {
  const char* name;
  Outcome outcome;
  std::string buffer;
  bool is_invalid;
  bool read_blocked;
  bool read_blocked_on_write;
  std::vector<std::string> lines;
};

TEST_F(SecureSocketOutcome, EveryReadOfTheBufferFormHasItsResult) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  const std::string more = rec("SSL_read error - ") + queued_text();
  const BufferRow kRows[] = {
      {"done", {3, SSL_ERROR_NONE, 0, 0, "abc"}, "abc", false, false, false, {}},
      {"wants to write",
       {-1, SSL_ERROR_WANT_WRITE},
       "(null)",
       false,
       false,
       true,
       {rec("SSL_read WANT_WRITE")}},
      {"close notification", {0, SSL_ERROR_ZERO_RETURN}, "", false, false, false, {rec("SSL_read EOF")}},
      {"system, queued",
       {-1, SSL_ERROR_SYSCALL, EIO, kReason},
       "",
       false,
       false,
       false,
       {rec("SSL_read error - ret -1, err '") + error_text(5) + "'"}},
      {"system, queued, 0",
       {0, SSL_ERROR_SYSCALL, 0, kReason},
       "",
       false,
       false,
       false,
       {rec("SSL_read error - ret 0, err '") + error_text(5) + "'"}},
      {"system, end",
       {0, SSL_ERROR_SYSCALL, EIO},
       "(null)",
       true,
       false,
       false,
       {rec("SSL_read error SYSCALL - EOF")}},
      {"system, again",
       {-1, SSL_ERROR_SYSCALL, EAGAIN},
       "(null)",
       false,
       true,
       false,
       {rec("SSL_read error SYSCALL - ret -1, errno 11")}},
      {"system, reset",
       {-1, SSL_ERROR_SYSCALL, ECONNRESET},
       "",
       false,
       false,
       false,
       {rec("SSL_read error SYSCALL - ret -1, errno 104")}},
      {"system, another result", {-2, SSL_ERROR_SYSCALL, EIO}, "", false, false, false, {}},
      {"protocol", {-1, SSL_ERROR_SSL}, "", false, false, false, {rec("SSL_read error SSL")}},
      {"protocol, queued",
       {-1, SSL_ERROR_SSL, 0, kReason},
       "",
       false,
       false,
       false,
       {rec("SSL_read error SSL"), more}},
      {"certificate",
       {-1, SSL_ERROR_WANT_X509_LOOKUP},
       "",
       false,
       false,
       false,
       {rec("SSL_read error WANT_X509_LOOKUP")}},
      {"certificate, queued",
       {-1, SSL_ERROR_WANT_X509_LOOKUP, 0, kReason},
       "",
       false,
       false,
       false,
       {rec("SSL_read error WANT_X509_LOOKUP"), more}},
      {"connect",
       {-1, SSL_ERROR_WANT_CONNECT},
       "",
       false,
       false,
       false,
       {rec("SSL_read error WANT_CONNECT")}},
      {"connect, queued",
       {-1, SSL_ERROR_WANT_CONNECT, 0, kReason},
       "",
       false,
       false,
       false,
       {rec("SSL_read error WANT_CONNECT"), more}},
      {"accept", {-1, SSL_ERROR_WANT_ACCEPT}, "", false, false, false, {rec("SSL_read error WANT_ACCEPT")}},
      {"accept, queued",
       {-1, SSL_ERROR_WANT_ACCEPT, 0, kReason},
       "",
       false,
       false,
       false,
       {rec("SSL_read error WANT_ACCEPT"), more}},
      {"unknown", {-1, 99}, "", false, false, false, {rec("SSL_read error")}},
      {"unknown, queued", {-1, 99, 0, kReason}, "", false, false, false, {rec("SSL_read error"), more}},
  };
  Served served = served_connection();
  for (const BufferRow& row : kRows) {
    SCOPED_TRACE(row.name);
    said();
    served->state = Socket::CONNECTED;
    served->read_blocked = served->read_blocked_on_write = false;
    ScriptedSession session(served->ssl);
    session.pending(3);
    session.read(row.outcome);
    EXPECT_EQ(taken(served->RecWait(1000)), row.buffer);
    EXPECT_EQ(served->state, row.is_invalid ? Socket::INVALID : Socket::CONNECTED);
    EXPECT_EQ(served->read_blocked, row.read_blocked);
    EXPECT_EQ(served->read_blocked_on_write, row.read_blocked_on_write);
    EXPECT_FALSE(served->write_blocked_on_read);
    EXPECT_EQ(said(), row.lines);
    EXPECT_EQ(PoolState::now().buffers_out, 0);
    ERR_clear_error();
  }
}

TEST_F(SecureSocketOutcome, AReadThatWouldBlockIsToldAndMarked) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  said();
  ScriptedSession session(served->ssl);
  session.pending(3);
  session.read({-1, SSL_ERROR_WANT_READ});
  EXPECT_EQ(served->RecWait(0), nullptr);
  EXPECT_TRUE(served->read_blocked);
  EXPECT_EQ(served->state, Socket::CONNECTED);
  EXPECT_THAT(said(), ElementsAre(rec("SSL_read WANT_READ")));
  EXPECT_TRUE(served->read_blocked) << "nobody here clears it";
}

TEST_F(SecureSocketOutcome, AReadIsNeverGivenANegativeLengthOrMoreThanFits) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  for (const int pending : {1, 1599, 1600, 1601, 16384, INT_MAX}) {
    ScriptedSession session(served->ssl);
    session.pending(pending);
    session.read({2, SSL_ERROR_NONE, 0, 0, "ab"});
    EXPECT_EQ(taken(served->RecWait(0)), "ab");
    for (const int asked : session.asked) {
      EXPECT_GT(asked, 0);
      EXPECT_LE(asked, 1600);
    }
    EXPECT_EQ(session.asked.back(), std::min(pending, 1600));
  }
  UBYTE bytes[10];
  for (const int pending : {1, 9, 10, 11, 16384}) {
    ScriptedSession session(served->ssl);
    session.pending(pending);
    session.read({1, SSL_ERROR_NONE, 0, 0, "a"});
    session.read({9, SSL_ERROR_NONE, 0, 0, "bcdefghij"});
    EXPECT_EQ(served->RecWait(bytes, 10), 0);
    EXPECT_EQ(std::string(bytes, bytes + 10), "abcdefghij");
    EXPECT_THAT(session.asked, ElementsAre(std::min(pending, 10), std::min(pending, 9)));
  }
}

TEST_F(SecureSocketOutcome, ACloseNotificationFoundByThePeekIsNullAndInvalid) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  said();
  ScriptedWaits waits(served->s, {{Wait::kReadable}});
  ScriptedSession session(served->ssl);
  session.peek({0, SSL_ERROR_ZERO_RETURN});
  EXPECT_EQ(served->RecWait(1000), nullptr);
  EXPECT_EQ(served->state, Socket::INVALID);
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(SecureSocketOutcome, APeekOfTheBufferFormAsksForSixteenHundredBytes) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  ScriptedWaits waits(served->s, {{Wait::kReadable}});
  ScriptedSession session(served->ssl);
  session.peek({3, SSL_ERROR_NONE, 0, 0, "abc"});
  session.read({3, SSL_ERROR_NONE, 0, 0, "abc"});
  EXPECT_EQ(taken(served->RecWait(1000)), "abc");
  EXPECT_THAT(session.asked, ElementsAre(1600, 3));
}

// ---- The wait --------------------------------------------------------------------------------------------------

struct WaitRow {
  const char* name;
  Wait wait;
  bool is_invalid;
  std::vector<std::string> lines;
  int byte_result;
};

TEST_F(SecureSocketOutcome, EveryAnswerOfTheWaitHasItsOutcome) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  const WaitRow kRows[] = {
      {"time is over", {Wait::kNothing}, false, {}, 3},
      {"exception", {Wait::kException}, true, {rec("exception condition on socket")}, 1},
      {"exception with data", {Wait::kBoth}, true, {rec("exception condition on socket")}, 1},
      {"neither", {Wait::kNeither}, true, {rec("socket not ready")}, 2},
      // Sets stay as they were when a wait fails, and the exception is looked at first.
      {"interrupted", {Wait::kFails, EINTR}, true, {rec("exception condition on socket")}, 1},
  };
  Served served = served_connection();
  said();
  for (const WaitRow& row : kRows) {
    SCOPED_TRACE(row.name);
    served->state = Socket::CONNECTED;
    {
      ScriptedWaits waits(served->s, {row.wait});
      EXPECT_EQ(served->RecWait(1234), nullptr);
      ASSERT_EQ(waits.times_ms().size(), 1U);
      EXPECT_LE(waits.times_ms()[0], 1234);
      EXPECT_GE(waits.times_ms()[0], 1100);
    }
    EXPECT_EQ(served->state, row.is_invalid ? Socket::INVALID : Socket::CONNECTED);
    EXPECT_EQ(said(), row.lines);
    EXPECT_EQ(PoolState::now().buffers_out, 0);
    served->state = Socket::CONNECTED;
    UBYTE bytes[4];
    {
      ScriptedWaits waits(served->s, {row.wait});
      EXPECT_EQ(served->RecWait(bytes, 4), row.byte_result);
      ASSERT_EQ(waits.times_ms().size(), 1U);
      EXPECT_LE(waits.times_ms()[0], 10000);
      EXPECT_GE(waits.times_ms()[0], 9900);
    }
    EXPECT_EQ(served->state, row.is_invalid ? Socket::INVALID : Socket::CONNECTED);
    EXPECT_EQ(said(), row.lines);
  }
}

TEST_F(SecureSocketOutcome, PendingDataIsNotWaitedFor) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  ASSERT_TRUE(served.peer->send("abcdef"));
  UBYTE bytes[2];
  ASSERT_EQ(served->RecWait(bytes, 2), 0);
  ASSERT_EQ(SSL_pending(served->ssl), 4);
  ScriptedWaits waits(served->s, {{Wait::kFails, EBADF}}, ScriptedWaits::kThenTheLastAgain);
  EXPECT_EQ(taken(served->RecWait(0)), "cdef");
  EXPECT_THAT(waits.times_ms(), IsEmpty());
}

// ---- The byte form ---------------------------------------------------------------------------------------------

/// What comes of one result of SSL_read in the byte form, with "xy" behind it. `result` 0: the loop went on.
struct ByteRow {
  const char* name;
  Outcome outcome;
  int result;
  bool read_blocked;
  bool read_blocked_on_write;
  std::vector<std::string> lines;
};

TEST_F(SecureSocketOutcome, EveryReadOfTheByteFormHasItsResult) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  const std::string more = rec("SSL_read error - ") + queued_text();
  const ByteRow kRows[] = {
      {"wants to read", {-1, SSL_ERROR_WANT_READ}, 0, true, false, {rec("SSL_read WANT_READ")}},
      {"wants to write", {-1, SSL_ERROR_WANT_WRITE}, 0, false, true, {rec("SSL_read WANT_WRITE")}},
      {"close notification", {0, SSL_ERROR_ZERO_RETURN}, -1, false, false, {}},
      {"system, queued",
       {-1, SSL_ERROR_SYSCALL, EIO, kReason},
       -1,
       false,
       false,
       {rec("SSL_read error - ret -1, err '") + error_text(5) + "'"}},
      {"system, end", {0, SSL_ERROR_SYSCALL, EIO}, -1, false, false, {rec("SSL_read error SYSCALL - EOF")}},
      {"system, again",
       {-1, SSL_ERROR_SYSCALL, EAGAIN},
       0,
       true,
       false,
       {rec("SSL_read error SYSCALL - ret -1, errno 11")}},
      {"system, interrupted",
       {-1, SSL_ERROR_SYSCALL, EINTR},
       0,
       false,
       false,
       {rec("SSL_read error SYSCALL - ret -1, errno 4")}},
      {"protocol", {-1, SSL_ERROR_SSL}, -1, false, false, {rec("SSL_read error SSL")}},
      {"protocol, queued",
       {-1, SSL_ERROR_SSL, 0, kReason},
       -1,
       false,
       false,
       {rec("SSL_read error SSL"), more}},
      {"certificate",
       {-1, SSL_ERROR_WANT_X509_LOOKUP},
       -1,
       false,
       false,
       {rec("SSL_read error WANT_X509_LOOKUP")}},
      {"connect", {-1, SSL_ERROR_WANT_CONNECT}, -1, false, false, {rec("SSL_read error WANT_CONNECT")}},
      {"accept", {-1, SSL_ERROR_WANT_ACCEPT}, -1, false, false, {rec("SSL_read error WANT_ACCEPT")}},
      {"unknown, queued", {-1, 99, 0, kReason}, -1, false, false, {rec("SSL_read error"), more}},
  };
  Served served = served_connection();
  for (const ByteRow& row : kRows) {
    SCOPED_TRACE(row.name);
    said();
    served->state = Socket::CONNECTED;
    served->read_blocked = served->read_blocked_on_write = false;
    ScriptedSession session(served->ssl);
    session.pending(2);
    session.read(row.outcome);
    session.read({2, SSL_ERROR_NONE, 0, 0, "xy"});
    UBYTE bytes[3] = {'.', '.', '.'};
    EXPECT_EQ(served->RecWait(bytes, 2), row.result);
    EXPECT_EQ(std::string(bytes, bytes + 3), row.result == 0 ? "xy." : "...");
    EXPECT_EQ(served->state, row.result == 0 ? Socket::CONNECTED : Socket::INVALID);
    EXPECT_EQ(served->read_blocked, row.read_blocked);
    EXPECT_EQ(served->read_blocked_on_write, row.read_blocked_on_write);
    EXPECT_EQ(said(), row.lines);
    ERR_clear_error();
  }
}

/// What comes of a failing SSL_peek in the byte form.
struct PeekRow {
  const char* name;
  Outcome outcome;
  std::vector<std::string> lines;
};

TEST_F(SecureSocketOutcome, EveryPeekOfTheByteFormHasItsResult) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  const PeekRow kRows[] = {
      {"close notification", {0, SSL_ERROR_ZERO_RETURN, EIO}, {}},
      {"system, nothing known", {0, SSL_ERROR_SYSCALL}, {}},
      {"system, errno",
       {-1, SSL_ERROR_SYSCALL, EIO},
       {"SecureSocket::RecWait - SSL_ERROR_SYSCALL  ret -1, err 0, errno 5"}},
      {"system, end with errno",
       {0, SSL_ERROR_SYSCALL, EIO},
       {"SecureSocket::RecWait - SSL_ERROR_SYSCALL  ret 0, err 0, errno 5"}},
      {"system, queued",
       {-1, SSL_ERROR_SYSCALL, 0, kReason},
       {line("SecureSocket::RecWait - SSL_ERROR_SYSCALL  ret -1, err %u, errno 0", queued_code())}},
  };
  Served served = served_connection();
  for (const PeekRow& row : kRows) {
    SCOPED_TRACE(row.name);
    said();
    served->state = Socket::CONNECTED;
    ScriptedWaits waits(served->s, {{Wait::kReadable}});
    ScriptedSession session(served->ssl);
    session.pending(0);
    session.peek(row.outcome);
    UBYTE bytes[7];
    EXPECT_EQ(served->RecWait(bytes, 7), -1);
    EXPECT_EQ(served->state, Socket::INVALID);
    EXPECT_EQ(said(), row.lines);
    ASSERT_FALSE(session.asked.empty());
    EXPECT_EQ(session.asked[0], 7) << "no more than is missing";
    ERR_clear_error();
  }
}

TEST_F(SecureSocketOutcome, NoBytesTouchNoSession) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  SecureSocket socket(Socket::TCP_SERVER, 0, true, kLoopback);
  UBYTE byte = 7;
  EXPECT_EQ(socket.RecWait(&byte, 0), 0);
  EXPECT_EQ(byte, 7);
  EXPECT_EQ(socket.state, Socket::READY);
}

// ---- Writing ---------------------------------------------------------------------------------------------------

struct WriteRow {
  const char* name;
  Outcome outcome;
  bool write_blocked_on_read;
  std::vector<std::string> lines;
};

TEST_F(SecureSocketOutcome, EveryWriteIsOneAttemptAndASuccess) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  const std::string more = line("SSL_write error %x (%s)", queued_code(), queued_text().c_str());
  const WriteRow kRows[] = {
      {"done", {4, SSL_ERROR_NONE}, false, {}},
      {"a part", {1, SSL_ERROR_NONE}, false, {}},
      {"wants to read", {-1, SSL_ERROR_WANT_READ}, true, {"SSL_write WANT_READ"}},
      {"wants to write", {-1, SSL_ERROR_WANT_WRITE}, false, {"SSL_write WANT_WRITE"}},
      {"closed", {0, SSL_ERROR_ZERO_RETURN}, false, {"SSL_write error"}},
      {"system", {-1, SSL_ERROR_SYSCALL, EPIPE}, false, {"SSL_write error"}},
      {"protocol", {-1, SSL_ERROR_SSL}, false, {"SSL_write error"}},
      {"protocol, queued", {-1, SSL_ERROR_SSL, 0, kReason}, false, {"SSL_write error", more}},
      {"unknown", {-1, 99}, false, {"SSL_write error"}},
  };
  Served served = served_connection();
  for (const WriteRow& row : kRows) {
    SCOPED_TRACE(row.name);
    said();
    served->write_blocked_on_read = false;
    ScriptedSession session(served->ssl);
    session.write(row.outcome);
    EXPECT_EQ(served->DataIndication(buffer_of("data")), Success);
    EXPECT_THAT(session.asked, ElementsAre(4)) << "one attempt";
    EXPECT_EQ(PoolState::now().buffers_out, 0);
    EXPECT_EQ(served->write_blocked_on_read, row.write_blocked_on_read);
    EXPECT_EQ(served->state, Socket::CONNECTED);
    EXPECT_EQ(said(), row.lines);
    EXPECT_EQ(ERR_peek_error(), 0U) << "nothing stays queued";
  }
}

TEST_F(SecureSocketOutcome, EveryQueuedErrorOfAWriteIsPrinted) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  said();
  ScriptedSession session(served->ssl);
  session_calls.write.replace([&](auto real, SSL* s, const void* bytes, int count) {
    if (s != served->ssl) return real(s, bytes, count);
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH);
    ERR_raise(ERR_LIB_SSL, SSL_R_BAD_DATA);
    return -1;
  });
  session_calls.get_error.replace([](auto, const SSL*, int) { return SSL_ERROR_SSL; });
  EXPECT_EQ(served->DataIndication(buffer_of("data")), Success);
  const auto text = [](int reason) {
    const unsigned long code = ERR_PACK(ERR_LIB_SSL, 0, reason);
    return line("SSL_write error %x (%s)", static_cast<unsigned>(code), error_text(code).c_str());
  };
  EXPECT_THAT(said(), ElementsAre("SSL_write error", text(SSL_R_BAD_LENGTH), text(SSL_R_BAD_DATA)));
}

TEST_F(SecureSocketOutcome, EveryCallBeginsWithoutTheErrorsOfOthers) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  said();
  const auto leave_errors = [] {
    queue_openssl_error(ERR_LIB_SSL, kReason);
    errno = EIO;
  };
  UBYTE bytes[4];
  {
    // What fails without an error of its own has none.
    ScriptedSession session(served->ssl);
    session.pending(3);
    session.read({0, SSL_ERROR_SYSCALL});
    leave_errors();
    EXPECT_EQ(served->RecWait(0), nullptr);
    EXPECT_THAT(said(), ElementsAre(rec("SSL_read error SYSCALL - EOF")));
    session.write({-1, SSL_ERROR_SSL});
    leave_errors();
    EXPECT_EQ(served->DataIndication(buffer_of("data")), Success);
    EXPECT_THAT(said(), ElementsAre("SSL_write error"));
  }
  ScriptedWaits waits(served->s, {{Wait::kReadable}, {Wait::kReadable}});
  int peeks = 0;
  session_calls.peek.replace([&](auto real, SSL* s, void* at, int count) {
    if (s != served->ssl) return real(s, at, count);
    ++peeks;
    EXPECT_EQ(ERR_peek_error(), 0U);
    EXPECT_EQ(errno, 0);
    return 0;
  });
  session_calls.get_error.replace([](auto, const SSL*, int) { return SSL_ERROR_SYSCALL; });
  leave_errors();
  EXPECT_EQ(served->RecWait(0), nullptr);
  EXPECT_THAT(said(), ElementsAre(rec("SSL_read error SYSCALL - EOF")));
  leave_errors();
  EXPECT_EQ(served->RecWait(bytes, 4), -1);
  EXPECT_THAT(said(), IsEmpty());
  EXPECT_EQ(peeks, 2);
  int reads = 0;
  session_calls.pending.replace([&](auto real, const SSL* s) { return s == served->ssl ? 3 : real(s); });
  session_calls.read.replace([&](auto real, SSL* s, void* at, int count) {
    if (s != served->ssl) return real(s, at, count);
    ++reads;
    EXPECT_EQ(ERR_peek_error(), 0U);
    EXPECT_EQ(errno, 0);
    return 0;
  });
  leave_errors();
  EXPECT_EQ(served->RecWait(0), nullptr);
  EXPECT_EQ(reads, 1);
  session_calls.pending.restore();
  session_calls.read.restore();
  session_calls.peek.restore();
  session_calls.get_error.restore();
}

TEST_F(SecureSocketOutcome, AnErrorOfAnotherCallDoesNotBreakAReadOfAPartOfARecord) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  said();
  ASSERT_TRUE(served.peer->write("whole"));
  const std::string record = served.peer->take_flight();
  served.peer->stream().send_all(record.substr(0, record.size() - 1));
  ASSERT_TRUE(wait_readable(served->s));
  queue_openssl_error(ERR_LIB_SSL, kReason);
  EXPECT_EQ(served->RecWait(0), nullptr);
  EXPECT_EQ(served->state, Socket::CONNECTED);
  served.peer->stream().send_all(record.substr(record.size() - 1));
  EXPECT_EQ(taken(served->RecWait(kPatienceMs)), "whole");
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(SecureSocketOutcome, WhatAnotherCallLeftQueuedIsNotTakenForThisOnes) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  said();
  queue_openssl_error(ERR_LIB_SSL, kReason);
  EXPECT_EQ(served->RecWait(0), nullptr);
  queue_openssl_error(ERR_LIB_SSL, kReason);
  EXPECT_EQ(served->DataIndication(buffer_of("data")), Success);
  ASSERT_TRUE(served.peer->send("answer"));
  queue_openssl_error(ERR_LIB_SSL, kReason);
  EXPECT_EQ(taken(served->RecWait(kPatienceMs)), "answer");
  ASSERT_TRUE(served.peer->send("more"));
  queue_openssl_error(ERR_LIB_SSL, kReason);
  UBYTE bytes[4];
  EXPECT_EQ(served->RecWait(bytes, 4), 0);
  EXPECT_EQ(served.peer->receive(4), "data");
  EXPECT_THAT(said(), IsEmpty());
  EXPECT_EQ(served->state, Socket::CONNECTED);
  ERR_clear_error();
}

}  // namespace
}  // namespace oskernel_test
