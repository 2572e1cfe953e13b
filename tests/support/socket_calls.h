/// Stands between the library and the system's socket calls: writes down the calls that the test's own thread makes,
/// and lets the ones that the test names fail or answer as the test says. Calls of other threads pass untouched.
///
/// Include it in one source of a program: it defines socket, bind, connect, getsockname, setsockopt and, for ioctl,
/// syscall.
#ifndef OSKERNEL_TESTS_SOCKET_CALLS_H
#define OSKERNEL_TESTS_SOCKET_CALLS_H

#include <dlfcn.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace oskernel_test {

/// One call. What the kind of call does not have is 0.
struct SystemCall {
  enum Name { kSocket, kBind, kConnect, kGetsockname, kSetsockopt, kIoctl };

  Name name = kSocket;
  int fd = -1;
  int family = 0, type = 0, protocol = 0;  ///< socket
  int level = 0, option = 0;               ///< setsockopt
  std::string value;                       ///< setsockopt: the bytes
  sockaddr_in address = {};                ///< bind, connect
  unsigned long request = 0;               ///< ioctl
  void* argument = nullptr;                ///< ioctl
  std::string interface;                   ///< ioctl about an interface: its name
  int result = 0;

  /// setsockopt: the value as an int.
  int number() const {
    int as_int = -1;
    if (value.size() == sizeof as_int) std::memcpy(&as_int, value.data(), sizeof as_int);
    return as_int;
  }
};

/// While it exists, the calls of the thread that made it are seen. One at a time per thread.
class SocketCalls {
 public:
  using Match = std::function<bool(const SystemCall&)>;
  /// Decides a call: returns true when it has, with *result 0 or more, or minus an errno value.
  using Answer = std::function<bool(const SystemCall&, int* result)>;

  SocketCalls() { current() = this; }
  ~SocketCalls() { current() = nullptr; }
  SocketCalls(const SocketCalls&) = delete;
  SocketCalls& operator=(const SocketCalls&) = delete;

  /// From now on these calls fail.
  void fail(SystemCall::Name name, int error, Match match = nullptr) {
    answer([=](const SystemCall& call, int* result) {
      if (call.name != name || (match && !match(call))) return false;
      *result = -error;
      return true;
    });
  }
  void fail_option(int option, int error) {
    fail(SystemCall::kSetsockopt, error, [option](const SystemCall& call) { return call.option == option; });
  }
  void fail_request(unsigned long request, int error) {
    fail(SystemCall::kIoctl, error, [request](const SystemCall& call) { return call.request == request; });
  }
  void answer(Answer with) { answers_.push_back(std::move(with)); }

  std::vector<SystemCall> calls(SystemCall::Name name) const {
    std::vector<SystemCall> found;
    for (const SystemCall& call : calls_) {
      if (call.name == name) found.push_back(call);
    }
    return found;
  }
  std::size_t count(SystemCall::Name name) const { return calls(name).size(); }
  /// The last setsockopt of the option; its result is -2 when there was none.
  SystemCall option(int level, int option) const {
    SystemCall found;
    found.result = -2;
    for (const SystemCall& call : calls(SystemCall::kSetsockopt)) {
      if (call.level == level && call.option == option) found = call;
    }
    return found;
  }
  /// The interfaces that the request was made for, in order.
  std::vector<std::string> asked(unsigned long request) const {
    std::vector<std::string> names;
    for (const SystemCall& call : calls(SystemCall::kIoctl)) {
      if (call.request == request) names.push_back(call.interface);
    }
    return names;
  }

  /// For the interposed calls: what the running thread's object decides, else `real`.
  template <class Real>
  static int pass(SystemCall call, Real real) {
    SocketCalls* self = current();
    if (self == nullptr || self->inside_) return real();
    self->inside_ = true;
    bool decided = false;
    for (std::size_t i = 0; i < self->answers_.size() && !decided; ++i) {
      decided = self->answers_[i](call, &call.result);
    }
    if (!decided) call.result = real();
    const int error = decided && call.result < 0 ? -call.result : errno;
    if (call.result < 0) call.result = -1;
    const int result = call.result;
    self->calls_.push_back(std::move(call));
    self->inside_ = false;
    errno = error;
    return result;
  }

 private:
  static SocketCalls*& current() {
    thread_local SocketCalls* calls = nullptr;
    return calls;
  }

  std::vector<Answer> answers_;
  std::vector<SystemCall> calls_;
  bool inside_ = false;
};

namespace socket_calls_detail {

template <class Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

inline SystemCall call_with_address(SystemCall::Name name, int fd, const sockaddr* address,
                                    socklen_t length) {
  SystemCall call;
  call.name = name;
  call.fd = fd;
  if (address != nullptr && length >= sizeof call.address) {
    std::memcpy(&call.address, address, sizeof call.address);
  }
  return call;
}

inline bool is_about_interface(unsigned long request) {
  return request == SIOCGIFADDR || request == SIOCGIFFLAGS || request == SIOCGIFHWADDR ||
         request == SIOCGIFINDEX;
}

}  // namespace socket_calls_detail
}  // namespace oskernel_test

// The executable's symbols come before the C library's, for the shared library under test too.
extern "C" {

__attribute__((visibility("default"))) int socket(int family, int type, int protocol) noexcept {
  using namespace oskernel_test;
  static auto* real = socket_calls_detail::next<int(int, int, int)>("socket");
  SystemCall call;
  call.name = SystemCall::kSocket;
  call.family = family;
  call.type = type;
  call.protocol = protocol;
  return SocketCalls::pass(call, [=] { return real(family, type, protocol); });
}

__attribute__((visibility("default"))) int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
  using namespace oskernel_test;
  static auto* real = socket_calls_detail::next<int(int, const sockaddr*, socklen_t)>("bind");
  return SocketCalls::pass(socket_calls_detail::call_with_address(SystemCall::kBind, fd, address, length),
                           [=] { return real(fd, address, length); });
}

__attribute__((visibility("default"))) int connect(int fd, const sockaddr* address, socklen_t length) {
  using namespace oskernel_test;
  static auto* real = socket_calls_detail::next<int(int, const sockaddr*, socklen_t)>("connect");
  return SocketCalls::pass(socket_calls_detail::call_with_address(SystemCall::kConnect, fd, address, length),
                           [=] { return real(fd, address, length); });
}

__attribute__((visibility("default"))) int getsockname(int fd, sockaddr* address,
                                                       socklen_t* length) noexcept {
  using namespace oskernel_test;
  static auto* real = socket_calls_detail::next<int(int, sockaddr*, socklen_t*)>("getsockname");
  SystemCall call;
  call.name = SystemCall::kGetsockname;
  call.fd = fd;
  return SocketCalls::pass(call, [=] { return real(fd, address, length); });
}

__attribute__((visibility("default"))) int setsockopt(int fd, int level, int option, const void* value,
                                                      socklen_t length) noexcept {
  using namespace oskernel_test;
  static auto* real = socket_calls_detail::next<int(int, int, int, const void*, socklen_t)>("setsockopt");
  SystemCall call;
  call.name = SystemCall::kSetsockopt;
  call.fd = fd;
  call.level = level;
  call.option = option;
  call.value.assign(static_cast<const char*>(value), length);
  return SocketCalls::pass(call, [=] { return real(fd, level, option, value, length); });
}

// The fake clock has taken ioctl's place already; what is not for the clock leaves it through here. Like the C library's
// own, it takes six arguments from wherever they would be, given or not; the address sanitizer would mind.
__attribute__((visibility("default"), no_sanitize("address"))) long syscall(long number, ...) noexcept {
  using namespace oskernel_test;
  // No guarded initialisation: a thread that waits for the guard does so through this very function.
  static std::atomic<long (*)(long, ...)> found{nullptr};
  auto* real = found.load(std::memory_order_relaxed);
  if (real == nullptr) found = real = socket_calls_detail::next<long(long, ...)>("syscall");
  va_list list;
  va_start(list, number);
  long arguments[6];
  for (long& argument : arguments) argument = va_arg(list, long);
  va_end(list);
  const auto call_system = [&] {
    return real(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
  };
  if (number != SYS_ioctl) return call_system();
  SystemCall call;
  call.name = SystemCall::kIoctl;
  call.fd = static_cast<int>(arguments[0]);
  call.request = static_cast<unsigned long>(arguments[1]);
  call.argument = reinterpret_cast<void*>(arguments[2]);
  if (socket_calls_detail::is_about_interface(call.request)) {
    const char* name = static_cast<const ifreq*>(call.argument)->ifr_name;
    call.interface.assign(name, strnlen(name, IFNAMSIZ));
  }
  return SocketCalls::pass(call, [&] { return static_cast<int>(call_system()); });
}

}  // extern "C"

#endif
