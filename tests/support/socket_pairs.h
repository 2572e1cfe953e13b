/// Sockets of the library with a plain peer at the other end, and looks at what a socket is doing.
#ifndef OSKERNEL_TESTS_SOCKET_PAIRS_H
#define OSKERNEL_TESTS_SOCKET_PAIRS_H

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <thread>

#include "network_fixture.h"

namespace oskernel_test {

inline constexpr ULONG kLoopback = 0x7F000001;

/// A field that threads share without a lock.
template <class Field>
Field look_at(Field& field) {
  return std::atomic_ref<Field>(field).load();
}
template <class Field>
void put_into(Field& field, Field value) {
  std::atomic_ref<Field>(field).store(value);
}

/// What printf makes of it.
__attribute__((format(printf, 1, 2))) inline std::string line(const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

/// Makes `socket` the library's end of a new connection. Nothing is read until ConnectAck.
inline void adopt_stream(AsyncSocket* socket, RecordingLayer* layer, PeerStream* peer) {
  PeerListener listener;
  PeerStream near_end = PeerStream::connect_to(listener.port());
  *peer = listener.accept();
  ASSERT_TRUE(near_end.is_open() && peer->is_open());
  socket->Bind(layer);
  ASSERT_EQ(socket->Create(SOCK_STREAM, near_end.release()), 0);
  socket->rem_sin.Set(kLoopback, peer->local_port());
}

/// The same with a plain socket of the library.
inline OwnedSocket adopted_stream(RecordingLayer* layer, PeerStream* peer, bool indirect = true) {
  OwnedSocket socket(new AsyncSocket(indirect));
  adopt_stream(socket.get(), layer, peer);
  return socket;
}

/// An established connection whose reception runs.
inline OwnedSocket established_stream(RecordingLayer* layer, PeerStream* peer, bool indirect = true) {
  OwnedSocket socket = adopted_stream(layer, peer, indirect);
  socket->ConnectAck();
  return socket;
}

/// A datagram socket on 127.0.0.1.
inline OwnedSocket datagram_socket(RecordingLayer* layer, bool indirect = true) {
  OwnedSocket socket(new AsyncSocket(indirect));
  socket->Bind(layer);
  EXPECT_EQ(socket->Create(SOCK_DGRAM, 0, kLoopback, false), 0);
  return socket;
}

/// How many received buffers wait for the dispatcher.
inline int queued(AsyncSocket* socket) {
  EnterCriticalSection(&socket->local_cs);
  const int count = static_cast<int>(socket->q.Size());
  LeaveCriticalSection(&socket->local_cs);
  return count;
}

/// The bytes that wait for the connection, one text per buffer.
inline std::vector<std::string> early_data(AsyncSocket* socket) {
  std::vector<std::string> texts;
  EnterCriticalSection(&socket->local_cs);
  for (int i = 0; i < static_cast<int>(socket->earlyData.Size()); ++i) {
    const auto* buf = static_cast<OSBuf*>(static_cast<OSLinkListObj*>(socket->earlyData[i]));
    texts.emplace_back(reinterpret_cast<const char*>(buf->data), buf->length);
  }
  LeaveCriticalSection(&socket->local_cs);
  return texts;
}

/// Sees the monitor thread pass: a datagram socket whose data ends on that thread.
class MonitorBeat {
 public:
  MonitorBeat() : socket_(new Counter) { socket_->Create(SOCK_DGRAM, 0, kLoopback, false); }

  /// Whatever was ready before has been looked at when this returns true.
  bool passes(int count = 3) {
    for (int i = 0; i < count; ++i) {
      const int before = socket_->received;
      peer_.send_to(socket_->LocalPort(), "beat");
      if (!wait_until([this, before] { return socket_->received > before; }, kPatienceMs)) return false;
    }
    return true;
  }

 private:
  class Counter : public AsyncSocket {
   public:
    Counter() : AsyncSocket(true) {}
    void ProcessData(OSBuf* buf) override {
      buf->Free();
      ++received;
    }
    std::atomic<int> received{0};
  };

  PeerUdp peer_;
  Owned<Counter> socket_;
};

/// Milliseconds that a thread has computed so far.
inline double computed_ms(pthread_t thread) {
  clockid_t clock;
  timespec used = {};
  if (pthread_getcpuclockid(thread, &clock) == 0) clock_gettime(clock, &used);
  return static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) / 1e6;
}
/// True when the thread waits most of the time: one that spins computes all of it, or as much as it can get.
inline bool is_calm(pthread_t thread) {
  const double before = computed_ms(thread);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  return computed_ms(thread) - before < 60;
}

}  // namespace oskernel_test

#endif
