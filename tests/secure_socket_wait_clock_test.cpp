// For how long a secure blocking socket looks for data while what comes is none, on a clock that the test drives.

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/blocking_calls.h"
#include "support/fake_clock.h"
#include "support/secure_fixture.h"
#include "support/session_calls.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

const bool kFakeClock = FakeClock::use();

/// A session whose peeks, and waits for its descriptor, answer at once and take the time that a test says.
class BusySession {
 public:
  static constexpr int kNoData = 1 << 30;

  /// Each peek takes `peek_ms` and says `code`, until there is data behind so many of them.
  BusySession(const SecureSocket& socket, int code, ULONG peek_ms, int peeks_without_data = kNoData) {
    session_calls.peek.replace([=, this, ssl = socket.ssl](auto real, SSL* s, void* bytes, int count) {
      if (s != ssl) return real(s, bytes, count);
      FakeClock::advance(peek_ms);
      return ++peeks_ > peeks_without_data ? 3 : -1;
    });
    session_calls.get_error.replace([code, ssl = socket.ssl](auto real, const SSL* s, int result) {
      return s == ssl ? code : real(s, result);
    });
    session_calls.read.replace([ssl = socket.ssl](auto real, SSL* s, void* bytes, int count) {
      if (s != ssl) return real(s, bytes, count);
      std::memcpy(bytes, "abc", 3);
      return 3;
    });
    calls().poll.replace([this, fd = socket.s](auto real, pollfd* fds, nfds_t count, int timeout_ms) {
      if (count != 1 || fds[0].fd != fd) return real(fds, count, timeout_ms);
      const bool to_write = (fds[0].events & POLLOUT) != 0;
      waits_.emplace_back(to_write ? "write" : "read", timeout_ms);
      if (to_write) FakeClock::advance(kWriting_ms);
      fds[0].revents = to_write ? POLLOUT : POLLIN;
      return 1;
    });
  }
  ~BusySession() {
    session_calls.peek.restore();
    session_calls.get_error.restore();
    session_calls.read.restore();
    calls().poll.restore();
  }
  BusySession(const BusySession&) = delete;
  BusySession& operator=(const BusySession&) = delete;

  /// What a wait to write takes.
  static constexpr ULONG kWriting_ms = 300;

  int peeks() const { return peeks_; }
  /// For what each wait was, and how long it was to last at most.
  std::vector<std::pair<std::string, int>> waits() const { return waits_; }
  std::vector<int> times_ms() const {
    std::vector<int> times;
    for (const auto& wait : waits_) times.push_back(wait.second);
    return times;
  }

 private:
  int peeks_ = 0;
  std::vector<std::pair<std::string, int>> waits_;
};

class SecureSocketWaitClock : public SecureTest {
 protected:
  /// The times of the waits of one call: those given, and sixteen looks behind the end of the time.
  static std::vector<int> and_sixteen_looks(std::vector<int> times) {
    times.insert(times.end(), 16, 0);
    return times;
  }
};

TEST_F(SecureSocketWaitClock, APeerThatSendsNoDataHoldsAReadUpForSixteenLooksBehindItsTime) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  said();
  for (const ULONG start : {ULONG{1000}, ULONG{0xFFFFFF00}}) {
    SCOPED_TRACE(start);
    FakeClock::set(start);
    {
      const BusySession busy(*served.socket, SSL_ERROR_WANT_READ, 0);
      EXPECT_EQ(served->RecWait(0), nullptr);
      EXPECT_EQ(busy.times_ms(), and_sixteen_looks({0}));
      EXPECT_EQ(busy.peeks(), 17);
    }
    {
      const BusySession busy(*served.socket, SSL_ERROR_WANT_READ, 400);
      EXPECT_EQ(served->RecWait(1000), nullptr);
      EXPECT_EQ(busy.times_ms(), and_sixteen_looks({1000, 600, 200}));
    }
    {
      const BusySession busy(*served.socket, SSL_ERROR_WANT_READ, 5000);
      UBYTE bytes[4];
      EXPECT_EQ(served->RecWait(bytes, 4), 3) << "silence";
      EXPECT_EQ(busy.times_ms(), and_sixteen_looks({10000, 5000}));
    }
    EXPECT_EQ(served->state, Socket::CONNECTED);
    EXPECT_FALSE(served->read_blocked);
    EXPECT_EQ(PoolState::now().buffers_out, 0);
  }
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(SecureSocketWaitClock, DataBehindAllThatIsNoneIsFoundByAReadThatOnlyAsks) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  said();
  for (const int in_front : {0, 1, 16}) {
    SCOPED_TRACE(in_front);
    const BusySession busy(*served.socket, SSL_ERROR_WANT_READ, 1, in_front);
    EXPECT_EQ(taken(served->RecWait(0)), "abc");
    EXPECT_EQ(busy.peeks(), in_front + 1);
  }
  EXPECT_THAT(said(), IsEmpty());
}

TEST_F(SecureSocketWaitClock, ASessionThatHasToAnswerFirstWaitsToWriteWithinTheSameTime) {
  OSKERNEL_IN_NETWORK_NAMESPACE();
  put_files();
  Served served = served_connection();
  said();
  FakeClock::set(1000);
  const BusySession busy(*served.socket, SSL_ERROR_WANT_WRITE, 100, 3);
  EXPECT_EQ(taken(served->RecWait(1000)), "abc");
  EXPECT_THAT(busy.waits(),
              ElementsAre(Pair("read", 1000), Pair("write", 900), Pair("read", 600), Pair("write", 500),
                          Pair("read", 200), Pair("write", 100), Pair("read", 0)))
      << "neither kind of wait begins the time anew";
  EXPECT_FALSE(served->read_blocked_on_write) << "only a read that finds it so is marked";
  EXPECT_EQ(served->state, Socket::CONNECTED);
  EXPECT_THAT(said(), IsEmpty());
}

}  // namespace
}  // namespace oskernel_test
