/// The system calls of the blocking sockets that a test answers itself, besides those of interposed_calls.h, and waits
/// that find what a test says. Included by one source of a test program.
#ifndef OSKERNEL_TESTS_BLOCKING_CALLS_H
#define OSKERNEL_TESTS_BLOCKING_CALLS_H

#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <cstdarg>
#include <cstddef>
#include <utility>
#include <vector>

#include "interposed_calls.h"

namespace oskernel_test {

struct BlockingCalls {
  InterposedCall<int(int, int, int)> socket{"socket"};
  InterposedCall<int(int, const sockaddr*, socklen_t)> bind{"bind"};
  InterposedCall<int(int, int)> listen{"listen"};
  InterposedCall<int(int, int, int, const void*, socklen_t)> setsockopt{"setsockopt"};
  InterposedCall<ssize_t(int, void*, size_t, int)> recv{"recv"};
  InterposedCall<int(int, int)> shutdown{"shutdown"};
  /// Replaced for every request; the arguments are the descriptor, the request and its argument.
  InterposedCall<long(long, long, long, long, long, long, long)> system{"syscall"};
};

/// Not a local static: a thread that waits for its guard does so through syscall().
inline BlockingCalls blocking_calls;

/// ioctl(2) with this request fails, for every descriptor.
class FailingIoctl {
 public:
  FailingIoctl(unsigned long request, int error) {
    blocking_calls.system.replace(
        [=](auto real, long number, long fd, long asked, long argument, long d, long e, long f) -> long {
          if (number != SYS_ioctl || static_cast<unsigned long>(asked) != request) {
            return real(number, fd, asked, argument, d, e, f);
          }
          errno = error;
          return -1;
        });
  }
  ~FailingIoctl() { blocking_calls.system.restore(); }
};

/// Reads of one descriptor answer as the test says, through recv(2) or recvfrom(2).
class ScriptedReads {
 public:
  /// Gets the number of the call, from 0 on, the bytes and their count, and says what the call returns (errno with -1);
  /// kReal lets the system answer.
  static constexpr ssize_t kReal = -2;
  using Answer = std::function<ssize_t(int call, void* bytes, size_t count)>;

  ScriptedReads(int fd, const Answer& answer) {
    const auto calls_so_far = count_;
    blocking_calls.recv.replace([=](auto real, int s, void* bytes, size_t count, int flags) -> ssize_t {
      if (s != fd) return real(s, bytes, count, flags);
      const ssize_t result = answer((*calls_so_far)++, bytes, count);
      return result == kReal ? real(s, bytes, count, flags) : result;
    });
    calls().recvfrom.replace([=](auto real, int s, void* bytes, size_t count, int flags, sockaddr* from,
                                 socklen_t* length) -> ssize_t {
      if (s != fd) return real(s, bytes, count, flags, from, length);
      const ssize_t result = answer((*calls_so_far)++, bytes, count);
      return result == kReal ? real(s, bytes, count, flags, from, length) : result;
    });
  }
  ~ScriptedReads() {
    blocking_calls.recv.restore();
    calls().recvfrom.restore();
  }
  int count() const { return *count_; }

 private:
  std::shared_ptr<std::atomic<int>> count_ = std::make_shared<std::atomic<int>>(0);
};

/// What a wait for a descriptor finds, whichever of select(2) and poll(2) it is made of.
struct Wait {
  enum Found {
    kReal,       ///< the system's answer
    kNothing,    ///< the time is over, at once
    kFails,      ///< -1
    kNeither,    ///< one descriptor is counted, and it is in no set
    kReadable,   ///< it is ready to be read
    kException,  ///< urgent data
    kBoth,       ///< readable and urgent data
  };
  Found found = kReal;
  int error = 0;  ///< of kFails
};

/// Answers the waits for one descriptor, one after the other; those behind the last get the system's answer, or the last
/// one's again. Waits for other descriptors pass.
class ScriptedWaits {
 public:
  enum Then { kThenReal, kThenTheLastAgain };

  ScriptedWaits(int fd, std::vector<Wait> waits, Then then = kThenReal) : state_(std::make_shared<State>()) {
    state_->waits = std::move(waits);
    state_->then = then;
    const std::shared_ptr<State> state = state_;
    calls().select.replace(
        [=](auto real, int count, fd_set* reads, fd_set* writes, fd_set* excepts, timeval* timeout) -> int {
          if (fd < count && holds(writes, fd)) state->note_writing();
          const bool asked = fd < count && (holds(reads, fd) || holds(excepts, fd));
          if (!asked) return real(count, reads, writes, excepts, timeout);
          const Wait wait = state->next(
              timeout == nullptr ? -1 : static_cast<int>(timeout->tv_sec * 1000 + timeout->tv_usec / 1000));
          if (wait.found == Wait::kReal) return real(count, reads, writes, excepts, timeout);
          if (wait.found == Wait::kFails) {
            errno = wait.error;
            return -1;
          }
          const bool readable = wait.found == Wait::kReadable || wait.found == Wait::kBoth;
          const bool urgent = wait.found == Wait::kException || wait.found == Wait::kBoth;
          put(reads, fd, readable);
          put(writes, fd, false);
          put(excepts, fd, urgent);
          if (wait.found == Wait::kNeither) return 1;
          return (readable ? 1 : 0) + (urgent ? 1 : 0);
        });
    calls().poll.replace([=](auto real, pollfd* fds, nfds_t count, int timeout_ms) -> int {
      pollfd* entry = nullptr;
      for (nfds_t i = 0; i < count; ++i) {
        if (fds[i].fd == fd && (fds[i].events & POLLOUT) != 0) state->note_writing();
        if (fds[i].fd == fd && (fds[i].events & (POLLIN | POLLPRI)) != 0) entry = &fds[i];
      }
      if (entry == nullptr) return real(fds, count, timeout_ms);
      const Wait wait = state->next(timeout_ms);
      if (wait.found == Wait::kReal) return real(fds, count, timeout_ms);
      if (wait.found == Wait::kFails) {
        errno = wait.error;
        return -1;
      }
      for (nfds_t i = 0; i < count; ++i) fds[i].revents = 0;
      if (wait.found == Wait::kReadable || wait.found == Wait::kBoth) entry->revents |= POLLIN;
      if (wait.found == Wait::kException || wait.found == Wait::kBoth) entry->revents |= POLLPRI;
      return wait.found == Wait::kNothing ? 0 : 1;
    });
  }
  ~ScriptedWaits() {
    calls().select.restore();
    calls().poll.restore();
  }
  ScriptedWaits(const ScriptedWaits&) = delete;
  ScriptedWaits& operator=(const ScriptedWaits&) = delete;

  /// How many waits asked whether the descriptor can be written.
  int waits_to_write() const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->waits_to_write;
  }
  /// For how many milliseconds each wait was to last at most; -1 is for ever.
  std::vector<int> times_ms() const {
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->times_ms;
  }

 private:
  struct State {
    std::mutex mutex;
    std::vector<Wait> waits;
    Then then = kThenReal;
    std::vector<int> times_ms;
    int waits_to_write = 0;

    void note_writing() {
      const std::lock_guard<std::mutex> lock(mutex);
      ++waits_to_write;
    }
    Wait next(int timeout_ms) {
      const std::lock_guard<std::mutex> lock(mutex);
      const std::size_t number = times_ms.size();
      times_ms.push_back(timeout_ms);
      if (number < waits.size()) return waits[number];
      return then == kThenTheLastAgain && !waits.empty() ? waits.back() : Wait{};
    }
  };
  // Sets of more than FD_SETSIZE descriptors are arrays of the same words.
  using Word = unsigned long;
  static constexpr int kBits = static_cast<int>(8 * sizeof(Word));
  static bool holds(const fd_set* set, int fd) {
    return set != nullptr && (reinterpret_cast<const Word*>(set)[fd / kBits] >> (fd % kBits) & 1U) != 0;
  }
  static void put(fd_set* set, int fd, bool on) {
    if (set == nullptr) return;
    Word& word = reinterpret_cast<Word*>(set)[fd / kBits];
    const Word bit = Word{1} << (fd % kBits);
    word = on ? word | bit : word & ~bit;
  }

  std::shared_ptr<State> state_;
};

}  // namespace oskernel_test

extern "C" {

__attribute__((visibility("default"))) int socket(int family, int type, int protocol) noexcept {
  return oskernel_test::blocking_calls.socket.call(family, type, protocol);
}
__attribute__((visibility("default"))) int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
  return oskernel_test::blocking_calls.bind.call(fd, address, length);
}
__attribute__((visibility("default"))) int listen(int fd, int backlog) noexcept {
  return oskernel_test::blocking_calls.listen.call(fd, backlog);
}
__attribute__((visibility("default"))) int setsockopt(int fd, int level, int option, const void* value,
                                                      socklen_t length) noexcept {
  return oskernel_test::blocking_calls.setsockopt.call(fd, level, option, value, length);
}
__attribute__((visibility("default"))) ssize_t recv(int fd, void* bytes, size_t count, int flags) {
  return oskernel_test::blocking_calls.recv.call(fd, bytes, count, flags);
}
__attribute__((visibility("default"))) int shutdown(int fd, int how) noexcept {
  return oskernel_test::blocking_calls.shutdown.call(fd, how);
}
// ioctl comes through here: the test support's own, which stands in for the clock device, passes it on this way. Like
// the C library's, this takes six arguments from wherever they would be, given or not.
__attribute__((visibility("default"), no_sanitize("address"))) long syscall(long number, ...) noexcept {
  va_list list;
  va_start(list, number);
  long arguments[6];
  for (long& argument : arguments) argument = va_arg(list, long);
  va_end(list);
  return oskernel_test::blocking_calls.system.call(number, arguments[0], arguments[1], arguments[2],
                                                   arguments[3], arguments[4], arguments[5]);
}

}  // extern "C"

#endif
