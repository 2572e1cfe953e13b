/// Looking at sockets from outside while other threads work on them, and catching what a listener accepts.
#ifndef OSKERNEL_TESTS_SOCKET_WATCH_H
#define OSKERNEL_TESTS_SOCKET_WATCH_H

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "network_fixture.h"

namespace oskernel_test {

#if defined(__SANITIZE_THREAD__)
/// The sanitizer starts a thread of its own with the first of the program: before any test counts threads.
inline const bool sanitizer_thread_is_there = [] {
  std::thread([] {}).join();
  return wait_until([] { return running_threads() == 2; }, kPatienceMs);
}();
#endif

/// Names the two ways in which a socket is served, for suites that run every test with each.
inline std::string way_name(const ::testing::TestParamInfo<bool>& way) {
  return way.param ? "Indirect" : "Direct";
}

// ---- Texts -----------------------------------------------------------------------------------------------------

inline std::string text_of(const char* format, ...) __attribute__((format(printf, 1, 2)));
inline std::string text_of(const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

inline void* as_pointer(pthread_t thread) { return reinterpret_cast<void*>(thread); }

/// The console's lines that contain a text, in order.
inline std::vector<std::string> lines_with(const RecordingConsole& console, std::string_view text) {
  std::vector<std::string> found;
  for (std::string& line : console.calls()) {
    if (line.find(text) != std::string::npos) found.push_back(std::move(line));
  }
  return found;
}

/// Whether the console has been given exactly this line.
inline bool printed(const RecordingConsole& console, const std::string& line) {
  const std::vector<std::string> lines = console.calls();
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

/// Trace output for as long as the object lives.
class Tracing {
 public:
  explicit Tracing(int level = 1) { set(level); }
  ~Tracing() { set(0); }
  Tracing(const Tracing&) = delete;
  Tracing& operator=(const Tracing&) = delete;

 private:
  static void set(int level) { std::atomic_ref<int>(AsyncSocket::trace).store(level); }
};

// ---- The fields of a socket ------------------------------------------------------------------------------------

/// A field that other threads change.
template <class Field>
Field now_of(Field& field) {
  return std::atomic_ref<Field>(field).load();
}
inline int state_of(AsyncSocket& socket) { return now_of(socket.state); }
inline bool comes_to_state(AsyncSocket& socket, int state) {
  return wait_until([&socket, state] { return state_of(socket) == state; }, kPatienceMs);
}

/// The number of something in a socket's lists.
template <class List>
int size_of(AsyncSocket& socket, List& list) {
  EnterCriticalSection(&socket.local_cs);
  const int size = static_cast<int>(list.Size());
  LeaveCriticalSection(&socket.local_cs);
  return size;
}
inline int queued(AsyncSocket& socket) { return size_of(socket, socket.q); }
inline int early(AsyncSocket& socket) { return size_of(socket, socket.earlyData); }
inline int accepted_waiting(AsyncSocket& socket) { return size_of(socket, socket.listenq); }

/// The live sockets, in order.
inline std::vector<AsyncSocket*> live_sockets() {
  std::vector<AsyncSocket*> found;
  EnterCriticalSection(&AsyncSocket::cs);
  for (OSLink* link = AsyncSocket::sockets->next; link != AsyncSocket::sockets; link = link->next) {
    found.push_back(static_cast<AsyncSocket*>(static_cast<OSListObj*>(link->object)));
  }
  LeaveCriticalSection(&AsyncSocket::cs);
  return found;
}
inline bool is_live(const AsyncSocket* socket) {
  const std::vector<AsyncSocket*> live = live_sockets();
  return std::find(live.begin(), live.end(), socket) != live.end();
}

/// How many levels of the section the calling thread is inside.
inline int levels_inside(CRITICAL_SECTION& section) {
  std::atomic_ref<pthread_t> owner(section.owner_thread_id);
  return pthread_equal(owner.load(), pthread_self()) != 0 ? section.owner_count : 0;
}

inline OSObj* as_obj(void* pointer) { return static_cast<OSObj*>(pointer); }

// ---- What becomes of a socket ----------------------------------------------------------------------------------

/// What became of a socket; outlives it.
struct Fate {
  std::atomic<int> destroyed{0};
  std::atomic<bool> let_go{false};  ///< the monitor thread had let go of it before

  [[nodiscard]] bool comes() {
    return wait_until([this] { return destroyed > 0; }, kPatienceMs);
  }
};

template <class Kind>
class Fated : public Kind {
 public:
  template <class... Arguments>
  explicit Fated(Fate& fate, Arguments... arguments) : Kind(arguments...), fate_(fate) {}
  ~Fated() override {
    fate_.let_go = now_of(Kind::deleted) && now_of(Kind::deletedAck);
    ++fate_.destroyed;
  }

 private:
  Fate& fate_;
};
using FatedSocket = Fated<AsyncSocket>;

// ---- Pairs -----------------------------------------------------------------------------------------------------

/// Binds, creates and connects a stream socket, and returns the peer's end. Not open when that fails.
inline PeerStream connect_to_peer(AsyncSocket& socket, RecordingLayer& layer, PeerListener& listener) {
  socket.Bind(&layer);
  if (socket.Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false) != 0) return {};
  socket.Connect(INADDR_LOOPBACK, listener.port());
  return listener.accept();
}

/// Binds a socket of the library to an end of a connection that was made without it. Reception is not started.
/// The peer's end is returned.
inline PeerStream adopt_connection(AsyncSocket& socket, RecordingLayer& layer, PeerListener& listener) {
  PeerStream peer = PeerStream::connect_to(listener.port());
  PeerStream own = listener.accept();
  if (!peer.is_open() || !own.is_open()) return {};
  socket.Bind(&layer);
  socket.Create(SOCK_STREAM, own.release());
  socket.rem_sin.Set(INADDR_LOOPBACK, peer.local_port());
  return peer;
}

// ---- Nothing happens -------------------------------------------------------------------------------------------

/// Lets the monitor thread and the dispatcher come round: what they had to do before pass() has been done after it.
/// Needs a dispatcher.
class ComeRound {
 public:
  ComeRound() : socket_(indirect_socket()) {
    socket_->Bind(&layer_);
    socket_->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false);
  }
  /// Twice: what the first round finds may put something on the way for the second.
  [[nodiscard]] bool pass() { return once() && once(); }

 private:
  bool once() {
    return peer_.send_to(socket_->LocalPort(), "round") &&
           layer_.wait_for_kind(Indication::kDatagram, ++rounds_);
  }

  RecordingLayer layer_;
  OwnedSocket socket_;
  PeerUdp peer_;
  std::size_t rounds_ = 0;
};

// ---- What a listener accepts -----------------------------------------------------------------------------------

/// Catches the sockets that a listener hands over and owns them until they are taken out or freed. Lives longer than
/// the listener's last callback.
class Acceptor {
 public:
  using Hook = std::function<void(AsyncSocket*)>;

  Acceptor() = default;
  /// A hook takes the socket in the callback's place.
  explicit Acceptor(Hook hook) : hook_(std::move(hook)) {}
  ~Acceptor() { free_all(); }
  Acceptor(const Acceptor&) = delete;
  Acceptor& operator=(const Acceptor&) = delete;

  /// Makes the socket a listener on a free port of the loopback interface. Returns what Listen returns.
  int listen_with(AsyncSocket& listener) {
    const int result = listener.Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false);
    return result != 0 ? result : listener.Listen(accepted, this);
  }

  static void accepted(OSObj* obj, ADDR socket, ULONG value) {
    auto* self = reinterpret_cast<Acceptor*>(obj);
    auto* taken = static_cast<AsyncSocket*>(socket);
    self->last_value_ = value;
    if (self->hook_) {
      self->hook_(taken);
      ++self->calls_;
      return;
    }
    const std::lock_guard<std::mutex> lock(self->mutex_);
    self->sockets_.emplace_back(taken);
    ++self->calls_;
    self->changed_.notify_all();
  }

  /// The oldest socket that has not been taken out; null when none comes in time.
  OwnedSocket take(int timeout_ms = kPatienceMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                           [this] { return !sockets_.empty(); })) {
      return nullptr;
    }
    OwnedSocket first = std::move(sockets_.front());
    sockets_.erase(sockets_.begin());
    return first;
  }
  int calls() const { return calls_; }
  ULONG last_value() const { return last_value_; }
  void free_all() {
    std::vector<OwnedSocket> freed;
    const std::lock_guard<std::mutex> lock(mutex_);
    freed.swap(sockets_);
  }

 private:
  Hook hook_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<OwnedSocket> sockets_;
  std::atomic<int> calls_{0};
  std::atomic<ULONG> last_value_{99};
};

}  // namespace oskernel_test

#endif
