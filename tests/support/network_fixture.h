/// What the tests of the networking layer share: a layer above a socket that writes down what it is told, and a
/// fixture that sees every descriptor, thread, buffer, callback and link home.
#ifndef OSKERNEL_TESTS_NETWORK_FIXTURE_H
#define OSKERNEL_TESTS_NETWORK_FIXTURE_H

#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "kernel/buffer.h"
#include "kernel/io.h"
#include "kernel/trigger.h"
#include "kernel_fixture.h"
#include "network/asocket.h"
#include "socket_peer.h"

namespace oskernel_test {

/// How long a test waits for what must come.
inline constexpr int kPatienceMs = 20000;

/// A socket that is given up with Free, as programs do.
struct SocketFreer {
  void operator()(AsyncSocket* socket) const { socket->Free(); }
};
template <class Kind>
using Owned = std::unique_ptr<Kind, SocketFreer>;
using OwnedSocket = Owned<AsyncSocket>;

inline OwnedSocket indirect_socket() { return OwnedSocket(new AsyncSocket(true)); }
inline OwnedSocket direct_socket() { return OwnedSocket(new AsyncSocket(false)); }

/// A buffer of the pools with the bytes of the text; longer ones than a pool buffer holds stand in an array that
/// the buffer does not own: it must live as long.
inline OSBuf* buffer_of(const std::string& text) {
  if (text.size() < 1600) {
    return OSBuf::Alloc(reinterpret_cast<const UBYTE*>(text.data()), static_cast<int>(text.size()));
  }
  OSBuf* buf = OSBuf::Alloc(0);
  buf->SetPayload(reinterpret_cast<UBYTE*>(const_cast<char*>(text.data())), static_cast<UWORD>(text.size()));
  buf->data = buf->payload;
  buf->length = static_cast<UWORD>(text.size());
  return buf;
}

/// `count` bytes that differ from their neighbours and do not repeat soon.
inline std::string numbered_bytes(std::size_t count, unsigned seed = 1) {
  std::string text(count, '\0');
  unsigned state = seed * 2654435761U + 12345;
  for (char& c : text) {
    state = state * 1664525U + 1013904223U;
    c = static_cast<char>(state >> 24);
  }
  return text;
}

/// One call that a layer received, with what the buffer said when it came.
struct Indication {
  enum Kind { kConnect, kDisconnect, kData, kDatagram };

  Kind kind = kConnect;
  std::string data;           ///< the bytes
  OSIOReason reason = Busy;   ///< of a disconnection
  int code = 0;               ///< of a disconnection
  bool null_address = false;  ///< of a connection: ConnectIndication(nullptr)
  SockAddr remote;            ///< of a datagram, as handed over
  SockAddr local;             ///< of a datagram, as handed over
  ULONG local_ipaddr = 0;     ///< the buffer's own fields
  ULONG remote_ipaddr = 0;
  UWORD local_port = 0;
  UWORD remote_port = 0;
  ADDR dest_ptr = nullptr;
  long headroom = 0;  ///< bytes between payload and data; of a buffer without payload 0
  int size = 0;       ///< bytes of storage
  pid_t thread = 0;   ///< that made the call

  /// "connect", "disconnect(4,111)", "data:...", "datagram:...".
  std::string text() const {
    switch (kind) {
      case kConnect:
        return "connect";
      case kDisconnect:
        return "disconnect(" + std::to_string(static_cast<int>(reason)) + "," + std::to_string(code) + ")";
      case kData:
        return "data:" + data;
      case kDatagram:
        return "datagram:" + data;
    }
    return "?";
  }
};

/// The layer above a socket. It writes every indication down, in order; takes every buffer and frees it, unless it is
/// told to hold them. Any thread. Lives longer than the socket that it is bound to.
class RecordingLayer : public OSIO {
 public:
  using Hook = std::function<void(const Indication&)>;

  RecordingLayer() = default;
  ~RecordingLayer() override { release_held(); }

  /// Runs inside every indication, after it has been written down and its buffer has been freed or put aside; the
  /// layer's lock is not held.
  void set_hook(Hook hook) {
    const std::lock_guard<std::mutex> lock(mutex_);
    hook_ = std::move(hook);
  }
  /// What indications answer from now on.
  void set_answer(OSIORetCode answer) { answer_ = answer; }
  /// From now on buffers are kept.
  void hold_buffers(bool hold) { hold_ = hold; }
  void release_held() {
    std::vector<OSBuf*> released;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      released.swap(held_);
    }
    for (OSBuf* buf : released) buf->Free();
  }
  std::size_t held() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return held_.size();
  }
  /// The buffers that are kept; they stay this layer's.
  std::vector<OSBuf*> held_buffers() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return held_;
  }

  OSIORetCode DataIndication(OSBuf* buf) override { return take(Indication::kData, buf, nullptr, nullptr); }
  OSIORetCode DatagramIndication(OSBuf* buf, void* remote, void* local) override {
    return take(Indication::kDatagram, buf, remote, local);
  }
  OSIORetCode ConnectIndication(OSIOAddress* address) override {
    Indication indication;
    indication.kind = Indication::kConnect;
    indication.null_address = address == nullptr;
    return note(std::move(indication), nullptr);
  }
  OSIORetCode DisconnectIndication(OSIOReason reason, int code) override {
    Indication indication;
    indication.kind = Indication::kDisconnect;
    indication.reason = reason;
    indication.code = code;
    return note(std::move(indication), nullptr);
  }

  /// Waits until `n` indications are complete, their hooks included.
  bool wait_for(std::size_t n, int timeout_ms = kPatienceMs) {
    return wait(timeout_ms, [this, n] { return finished_ >= n; });
  }
  /// Waits until `n` indications have begun; a hook may be in the way of the last.
  bool wait_entered(std::size_t n, int timeout_ms = kPatienceMs) {
    return wait(timeout_ms, [this, n] { return all_.size() >= n; });
  }
  /// Waits until at least `n` bytes of data have come, in buffers or datagrams.
  bool wait_for_bytes(std::size_t n, int timeout_ms = kPatienceMs) {
    return wait(timeout_ms, [this, n] { return bytes_ >= n && finished_ == all_.size(); });
  }
  /// Waits until there are `n` indications of the kind, all complete.
  bool wait_for_kind(Indication::Kind kind, std::size_t n = 1, int timeout_ms = kPatienceMs) {
    return wait(timeout_ms, [this, kind, n] { return count_locked(kind) >= n && finished_ == all_.size(); });
  }
  bool wait_for_connect() { return wait_for_kind(Indication::kConnect); }
  bool wait_for_disconnect() { return wait_for_kind(Indication::kDisconnect); }

  std::vector<Indication> all() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return all_;
  }
  Indication at(std::size_t index) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return index < all_.size() ? all_[index] : Indication();
  }
  std::size_t count() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return all_.size();
  }
  std::size_t count(Indication::Kind kind) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return count_locked(kind);
  }
  /// Each indication as text. Stream data that came in pieces stands in one line, datagrams each in their own.
  std::vector<std::string> story() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> lines;
    bool more_data = false;
    for (const Indication& indication : all_) {
      if (indication.kind == Indication::kData && more_data) {
        lines.back() += indication.data;
      } else {
        lines.push_back(indication.text());
      }
      more_data = indication.kind == Indication::kData;
    }
    return lines;
  }
  /// All data so far.
  std::string data() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::string bytes;
    for (const Indication& indication : all_) bytes += indication.data;
    return bytes;
  }
  void clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    all_.clear();
    finished_ = 0;
    bytes_ = 0;
  }

 private:
  OSIORetCode take(Indication::Kind kind, OSBuf* buf, void* remote, void* local) {
    Indication indication;
    indication.kind = kind;
    indication.data.assign(reinterpret_cast<const char*>(buf->data), buf->length);
    if (remote != nullptr) indication.remote = static_cast<sockaddr*>(remote);
    if (local != nullptr) indication.local = static_cast<sockaddr*>(local);
    indication.local_ipaddr = buf->local_ipaddr;
    indication.remote_ipaddr = buf->remote_ipaddr;
    indication.local_port = buf->local_port;
    indication.remote_port = buf->remote_port;
    indication.dest_ptr = buf->destPtr;
    indication.size = buf->size;
    if (buf->payload != nullptr) indication.headroom = buf->data - buf->payload;
    return note(std::move(indication), buf);
  }
  OSIORetCode note(Indication indication, OSBuf* buf) {
    indication.thread = gettid();
    if (buf != nullptr && !hold_) {
      buf->Free();
      buf = nullptr;
    }
    const Indication copy = indication;
    Hook hook;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      bytes_ += indication.data.size();
      all_.push_back(std::move(indication));
      if (buf != nullptr) held_.push_back(buf);
      hook = hook_;
      changed_.notify_all();
    }
    const OSIORetCode answer = answer_;
    if (hook) hook(copy);
    const std::lock_guard<std::mutex> lock(mutex_);
    ++finished_;
    changed_.notify_all();
    return answer;
  }
  std::size_t count_locked(Indication::Kind kind) const {
    std::size_t found = 0;
    for (const Indication& indication : all_) found += indication.kind == kind ? 1 : 0;
    return found;
  }
  template <class Condition>
  bool wait(int timeout_ms, Condition condition) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), condition);
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Indication> all_;
  std::vector<OSBuf*> held_;
  std::size_t finished_ = 0;
  std::size_t bytes_ = 0;
  std::atomic<bool> hold_{false};
  std::atomic<OSIORetCode> answer_{Success};
  Hook hook_;
};

/// A door that threads wait behind until it is opened. Any thread.
class Gate {
 public:
  void open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  /// False when the time is over first.
  bool wait(int timeout_ms = kPatienceMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [this] { return open_; });
  }
  bool is_open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return open_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

/// Keeps the dispatcher of all triggers busy, so that what is received stays in its queues, until release().
class StalledDispatcher {
 public:
  StalledDispatcher() : trigger_(0, 1) {
    trigger_.SetCallback(stall, nullptr, this, 0);
    trigger_.Clear();
    trigger_.Fire();
  }
  ~StalledDispatcher() { release(); }
  StalledDispatcher(const StalledDispatcher&) = delete;
  StalledDispatcher& operator=(const StalledDispatcher&) = delete;

  /// Waits until the dispatcher stands still.
  bool stalled() { return inside_.wait(); }
  void release() {
    door_.open();
    if (inside_.is_open()) left_.wait();
    trigger_.Cancel();
  }

 private:
  static void stall(OSObj*, ADDR self, ULONG) {
    auto* dispatcher = static_cast<StalledDispatcher*>(self);
    dispatcher->inside_.open();
    dispatcher->door_.wait(60000);
    dispatcher->left_.open();
  }

  Gate inside_, door_, left_;
  OSTimerTrigger trigger_;
};

inline int directory_entries(const char* path) {
  int count = 0;
  DIR* directory = opendir(path);
  if (directory == nullptr) return -1;
  while (const dirent* entry = readdir(directory)) count += entry->d_name[0] != '.' ? 1 : 0;
  closedir(directory);
  return count;
}
/// The descriptors that the process has open; one more is open while they are counted, always.
/// Without those that a sanitizer opens for a moment while it looks at a pointer, on any thread.
inline int open_descriptors() {
  int fewest = directory_entries("/proc/self/fd");
  for (int i = 0; i < 4; ++i) {
    std::this_thread::yield();
    fewest = std::min(fewest, directory_entries("/proc/self/fd"));
  }
  return fewest;
}
inline int running_threads() {
  // One that has been joined may still be listed while the system clears it away; its flags (proc(5), the ninth
  // field of stat) say so before the join returns.
  constexpr unsigned long kExiting = 0x4;
  int count = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task", error)) {
    std::ifstream file(entry.path() / "stat");
    std::string line;
    if (!std::getline(file, line)) continue;  // gone meanwhile
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    std::string skipped;
    for (int i = 0; i < 6; ++i) fields >> skipped;
    unsigned long flags = 0;
    fields >> flags;
    if ((flags & kExiting) == 0) ++count;
  }
  return count;
}

/// What of the kernel's pools is in use.
struct PoolState {
  int buffers_out = 0;
  ULONG callbacks = 0;
  ULONG links = 0;  ///< free ones; grows by whole blocks

  static PoolState now() {
    PoolState state;
    EnterCriticalSection(&OS_CRITICAL_BUFFERS);
    state.buffers_out = OSBuf::allocated_list != nullptr ? OSBuf::allocated_list->Size() : 0;
    LeaveCriticalSection(&OS_CRITICAL_BUFFERS);
    EnterCriticalSection(&OS_CRITICAL_CALLBACKS);
    state.callbacks = OSCallback::callback_pool_size;
    LeaveCriticalSection(&OS_CRITICAL_CALLBACKS);
    EnterCriticalSection(&OS_CRITICAL_LINK);
    state.links = OSLink::link_pool_size;
    LeaveCriticalSection(&OS_CRITICAL_LINK);
    return state;
  }
};

/// Starts the kernel with its trigger task. At the end it stops the networking layer and then the kernel, and nothing
/// may be left of either. A test's sockets and layers are its local variables, the layers declared first, so that they
/// are gone by then; a fixture that keeps some gives them up before it calls this TearDown.
///
/// A fixture that changes cfg does so in SetUp, before it calls this SetUp.
class NetworkTest : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartNetwork();
  }
  void TearDown() override {
    StopNetwork();
    KernelTest::TearDown();
  }

  /// Starts the kernel and remembers what is in use. The networking layer starts with the first socket.
  void StartNetwork() {
    os_clock();  // the clock device, if there is one, stays open for good
    start_helpers_of_the_runtime();
    threads_ = running_threads();
    // While there is one thread: one that begins may have something open for a moment.
    descriptors_ = open_descriptors();
    Start();
    pools_ = PoolState::now();
    running_ = true;
  }

  /// A sanitizer starts a thread of its own beside the first that the program starts.
  static void start_helpers_of_the_runtime() {
    std::atomic<pid_t> tid{0};
    std::thread first([&tid] { tid = gettid(); });
    first.join();
    const std::string listed = "/proc/self/task/" + std::to_string(tid);
    wait_until([&listed] { return access(listed.c_str(), F_OK) != 0; });
  }

  /// Stops the networking layer and checks that everything came home; then the kernel, and that no thread is left.
  void StopNetwork() {
    if (!running_) return;
    running_ = false;
    // Links come in blocks. What the layer itself keeps (its lists, its triggers) goes with Cleanup.
    AsyncSocket::Cleanup();
    EXPECT_TRUE(wait_until([this] { return PoolState::now().buffers_out == pools_.buffers_out; }))
        << PoolState::now().buffers_out - pools_.buffers_out << " buffers have not come home";
    EXPECT_TRUE(wait_until([this] { return PoolState::now().callbacks == pools_.callbacks; }))
        << PoolState::now().callbacks << " of " << pools_.callbacks << " callbacks are free";
    const auto links_home = [this] {
      const ULONG block = cfg.link_qty > 0 ? static_cast<ULONG>(cfg.link_qty) : 1;
      return (PoolState::now().links - pools_.links) % block == 0;
    };
    EXPECT_TRUE(wait_until(links_home))
        << PoolState::now().links << " links are free, they were " << pools_.links;
    EXPECT_TRUE(wait_until([this] { return open_descriptors() == descriptors_; }))
        << open_descriptors() << " descriptors are open, they were " << descriptors_;
    EXPECT_EQ(console.fatals(), expected_fatals);
    Stop();
    // Not before: the trigger task may still be freeing a socket.
    AsyncSocket::trace = 0;
    AsyncSocket::local_ipaddr = 0;
    // A joined thread may be listed for a moment after it has ended.
    EXPECT_TRUE(wait_until([this] { return running_threads() <= threads_; }))
        << running_threads() << " threads are running, they were " << threads_;
  }

  /// The console's fatal messages that the test provokes.
  std::vector<std::string> expected_fatals;

 private:
  int threads_ = 0;
  int descriptors_ = 0;
  PoolState pools_;
  bool running_ = false;
};

/// The same without the kernel's trigger task and timer thread: callbacks run when the test calls os_check_triggers,
/// so that the test decides when what is queued is handed on.
class QuietNetworkTest : public NetworkTest {
 protected:
  void SetUp() override {
    cfg.trigger_stack = 0;
    NetworkTest::SetUp();
  }

  /// Dispatches until the condition holds. False when it has not become true in time.
  static bool dispatch_until(const std::function<bool()>& done, int timeout_ms = kPatienceMs) {
    return wait_until(
        [&done] {
          os_check_triggers();
          return done();
        },
        timeout_ms);
  }
};

}  // namespace oskernel_test

#endif
