/// System calls that a test answers itself. The executable's symbols come before the C library's, for the shared
/// library under test too. Included by one source of a test program; what is not replaced goes to the system.
#ifndef OSKERNEL_TESTS_INTERPOSED_CALLS_H
#define OSKERNEL_TESTS_INTERPOSED_CALLS_H

#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace oskernel_test {

template <class Signature>
class InterposedCall;

/// One function of the C library. replace() and restore(): the test's thread; calls come from any thread, and one that
/// has begun with a replacement ends with it.
template <class Result, class... Args>
class InterposedCall<Result(Args...)> {
 public:
  using Real = Result (*)(Args...);
  /// Gets the system's function and the arguments. Sets errno when it fails by itself.
  using Replacement = std::function<Result(Real real, Args... args)>;

  explicit constexpr InterposedCall(const char* name) : name_(name) {}

  void replace(Replacement replacement) {
    const std::lock_guard<std::mutex> lock(mutex_);
    replacement_ = std::make_shared<Replacement>(std::move(replacement));
    replaced_ = true;
  }
  void restore() {
    const std::lock_guard<std::mutex> lock(mutex_);
    replaced_ = false;
    replacement_.reset();
  }
  /// The same for a function that the sanitizers' runtimes use as well: their calls go to the system.
  Result call_from(void* caller, Args... args) {
    if (!replaced_ || is_library(caller)) return call(args...);
    return find()(args...);
  }
  Result call(Args... args) {
    const Real real = find();
    if (!replaced_) return real(args...);
    std::shared_ptr<Replacement> replacement;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      replacement = replacement_;
    }
    if (replacement == nullptr) return real(args...);
    const Result result = (*replacement)(real, args...);
    const int error = errno;
    replacement.reset();
    errno = error;
    return result;
  }

 private:
  static bool is_library(void* address) {
    Dl_info info = {};
    return dladdr(address, &info) != 0 && std::strstr(info.dli_fname, "liboskernel") != nullptr;
  }
  Real find() {
    Real real = real_;
    if (real == nullptr) {
      real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, name_));
      real_ = real;
    }
    return real;
  }

  const char* const name_;
  std::atomic<Real> real_{nullptr};
  std::atomic<bool> replaced_{false};
  std::mutex mutex_;
  std::shared_ptr<Replacement> replacement_;
};

/// The functions that can be replaced. They outlive everything that may call them.
struct InterposedCalls {
  InterposedCall<int(int, fd_set*, fd_set*, fd_set*, timeval*)> select{"select"};
  InterposedCall<int(pollfd*, nfds_t, int)> poll{"poll"};
  InterposedCall<int(int, epoll_event*, int, int)> epoll_wait{"epoll_wait"};
  InterposedCall<int(int)> epoll_create1{"epoll_create1"};
  InterposedCall<ssize_t(int, void*, size_t, int, sockaddr*, socklen_t*)> recvfrom{"recvfrom"};
  InterposedCall<int(int, sockaddr*, socklen_t*)> accept{"accept"};
  InterposedCall<int(int, sockaddr*, socklen_t*, int)> accept4{"accept4"};
  InterposedCall<int(int, const sockaddr*, socklen_t)> connect{"connect"};
  InterposedCall<ssize_t(int, const void*, size_t, int)> send{"send"};
  InterposedCall<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)> sendto{"sendto"};
  InterposedCall<int(int, sockaddr*, socklen_t*)> getsockname{"getsockname"};
  InterposedCall<int(int*)> pipe{"pipe"};
  InterposedCall<int(int*, int)> pipe2{"pipe2"};
  InterposedCall<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> pthread_create{
      "pthread_create"};

  void restore_all() {
    select.restore();
    poll.restore();
    epoll_wait.restore();
    epoll_create1.restore();
    recvfrom.restore();
    accept.restore();
    accept4.restore();
    connect.restore();
    send.restore();
    sendto.restore();
    getsockname.restore();
    pipe.restore();
    pipe2.restore();
    pthread_create.restore();
  }
};

inline InterposedCalls& calls() {
  static auto* const kept = new InterposedCalls;
  return *kept;
}

/// Lets recvfrom of one descriptor fail a number of times, without reading; from then on it reads.
class FailingReads {
 public:
  static constexpr int kAlways = 1 << 30;
  FailingReads(int fd, int error, int times = kAlways) {
    const auto left = std::make_shared<std::atomic<int>>(times);  // for calls that outlive this object, too
    calls().recvfrom.replace([left, fd, error](auto real, int s, void* bytes, size_t count, int flags,
                                               sockaddr* from, socklen_t* length) -> ssize_t {
      if (s != fd || left->fetch_sub(1) <= 0) return real(s, bytes, count, flags, from, length);
      errno = error;
      return -1;
    });
  }
  ~FailingReads() { calls().recvfrom.restore(); }
};

/// The same with send, and nothing sent.
class FailingSends {
 public:
  FailingSends(int fd, int error, int times = FailingReads::kAlways) {
    const auto left = std::make_shared<std::atomic<int>>(times);
    calls().send.replace(
        [left, fd, error](auto real, int s, const void* bytes, size_t count, int flags) -> ssize_t {
          if (s != fd || left->fetch_sub(1) <= 0) return real(s, bytes, count, flags);
          errno = error;
          return -1;
        });
  }
  ~FailingSends() { calls().send.restore(); }
};

/// accept(2) in both forms: answers `error` for the descriptor, or accepts when that is 0.
inline void replace_accept(const std::function<int(int fd)>& error) {
  calls().accept.replace([error](auto real, int fd, sockaddr* from, socklen_t* length) {
    const int answer = error(fd);
    if (answer == 0) return real(fd, from, length);
    errno = answer;
    return -1;
  });
  calls().accept4.replace([error](auto real, int fd, sockaddr* from, socklen_t* length, int flags) {
    const int answer = error(fd);
    if (answer == 0) return real(fd, from, length, flags);
    errno = answer;
    return -1;
  });
}

}  // namespace oskernel_test

extern "C" {

__attribute__((visibility("default"))) int select(int count, fd_set* reads, fd_set* writes, fd_set* excepts,
                                                  timeval* timeout) {
  return oskernel_test::calls().select.call(count, reads, writes, excepts, timeout);
}
__attribute__((visibility("default"))) int poll(pollfd* fds, nfds_t count, int timeout_ms) {
  return oskernel_test::calls().poll.call(fds, count, timeout_ms);
}
__attribute__((visibility("default"))) int epoll_wait(int fd, epoll_event* events, int count,
                                                      int timeout_ms) {
  return oskernel_test::calls().epoll_wait.call(fd, events, count, timeout_ms);
}
__attribute__((visibility("default"))) ssize_t recvfrom(int fd, void* bytes, size_t count, int flags,
                                                        sockaddr* from, socklen_t* length) {
  return oskernel_test::calls().recvfrom.call(fd, bytes, count, flags, from, length);
}
__attribute__((visibility("default"))) int accept(int fd, sockaddr* from, socklen_t* length) {
  return oskernel_test::calls().accept.call(fd, from, length);
}
__attribute__((visibility("default"))) int accept4(int fd, sockaddr* from, socklen_t* length, int flags) {
  return oskernel_test::calls().accept4.call(fd, from, length, flags);
}
__attribute__((visibility("default"))) int connect(int fd, const sockaddr* to, socklen_t length) {
  return oskernel_test::calls().connect.call(fd, to, length);
}
__attribute__((visibility("default"))) ssize_t send(int fd, const void* bytes, size_t count, int flags) {
  return oskernel_test::calls().send.call(fd, bytes, count, flags);
}
__attribute__((visibility("default"))) ssize_t sendto(int fd, const void* bytes, size_t count, int flags,
                                                      const sockaddr* to, socklen_t length) {
  return oskernel_test::calls().sendto.call(fd, bytes, count, flags, to, length);
}
__attribute__((visibility("default"))) int getsockname(int fd, sockaddr* name, socklen_t* length) noexcept {
  return oskernel_test::calls().getsockname.call(fd, name, length);
}
__attribute__((visibility("default"))) int pipe(int* fds) noexcept {
  return oskernel_test::calls().pipe.call_from(__builtin_return_address(0), fds);
}
__attribute__((visibility("default"))) int epoll_create1(int flags) noexcept {
  return oskernel_test::calls().epoll_create1.call(flags);
}
__attribute__((visibility("default"))) int pipe2(int* fds, int flags) noexcept {
  return oskernel_test::calls().pipe2.call_from(__builtin_return_address(0), fds, flags);
}
__attribute__((visibility("default"))) int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                                          void* (*start)(void*), void* argument) noexcept {
  return oskernel_test::calls().pthread_create.call(thread, attributes, start, argument);
}

}  // extern "C"

#endif
