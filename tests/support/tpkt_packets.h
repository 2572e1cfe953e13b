/// Streams of RFC 1006 packets: made, cut into segments, and compared with what a packet socket delivers.
#ifndef OSKERNEL_TESTS_TPKT_PACKETS_H
#define OSKERNEL_TESTS_TPKT_PACKETS_H

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/buffer.h"
#include "network/asocket.h"

namespace oskernel_test {

inline constexpr std::size_t kTpktHeader = 4;
inline constexpr std::size_t kTpktLongest = 65535;  ///< what the length field holds

/// The four bytes in front of a packet of `length` bytes, these four included.
inline std::string tpkt_header(std::size_t length, char reserved = 0) {
  return {3, reserved, static_cast<char>(length >> 8), static_cast<char>(length & 0xFF)};
}

inline std::string tpkt(std::string_view payload, char reserved = 0) {
  return tpkt_header(payload.size() + kTpktHeader, reserved).append(payload);
}

/// A payload of which every byte depends on its place and on the packet's number: nothing can be lost, doubled or
/// exchanged unnoticed.
inline std::string numbered_payload(std::size_t bytes, unsigned number) {
  std::string payload(bytes, '\0');
  for (std::size_t i = 0; i < bytes; ++i) {
    payload[i] = static_cast<char>((i * 7 + (i >> 8) * 13 + number * 31 + 5) & 0xFF);
  }
  return payload;
}

/// Packets and the stream they make.
struct TpktStream {
  std::vector<std::string> payloads;
  std::string bytes;

  void add(std::string payload) {
    bytes += tpkt(payload);
    payloads.push_back(std::move(payload));
  }
  /// So many of the packets have been delivered when a socket has been given the first `arrived` bytes. A packet of
  /// nothing but its header waits for the byte behind it.
  std::size_t delivered_after(std::size_t arrived) const {
    std::size_t end = 0;
    std::size_t count = 0;
    for (const std::string& payload : payloads) {
      end += payload.size() + kTpktHeader;
      if (arrived < end || (payload.empty() && arrived == end)) break;
      ++count;
    }
    return count;
  }
};

/// A received segment in storage of its own: takes nothing from the pools, and is gone once it is freed.
class Segment : public OSBuf {
 public:
  explicit Segment(std::string_view bytes) : storage_(bytes.begin(), bytes.end()) {
    ++alive_;
    SetPayload(storage_.data(), static_cast<UWORD>(storage_.size()));
    data = payload;
    length = size;
  }
  ~Segment() override { --alive_; }
  void Free() override { delete this; }

  static int alive() { return alive_; }

 private:
  std::vector<UBYTE> storage_;
  static inline std::atomic<int> alive_{0};
};

/// A buffer with the payload, behind room for the headers of the layers below. Long payloads stand in `storage`, which
/// must live until the buffer has been sent.
inline OSBuf* packet_buffer(const std::string& payload, std::string* storage) {
  if (payload.size() < 1600) {
    return OSBuf::Alloc(reinterpret_cast<const UBYTE*>(payload.data()), static_cast<int>(payload.size()));
  }
  const std::size_t room = std::min<std::size_t>(60, 65535 - payload.size());
  *storage = std::string(room, '\0') + payload;
  OSBuf* buf = OSBuf::Alloc(0);
  buf->SetPayload(reinterpret_cast<UBYTE*>(storage->data()), static_cast<UWORD>(storage->size()));
  buf->data = buf->payload + room;
  buf->length = static_cast<UWORD>(payload.size());
  return buf;
}

/// A packet socket that keeps the packets itself instead of queueing them for a partner.
class TakingSocket : public TPKTSocket {
 public:
  void TPKTReceive(OSBuf* buf) override {
    packets.emplace_back(reinterpret_cast<const char*>(buf->data), buf->length);
    buf->Free();
  }
  std::vector<std::string> packets;
};

/// Gives the socket a segment the way the monitor thread does.
inline void feed(TPKTSocket& socket, std::string_view segment) {
  EnterCriticalSection(&AsyncSocket::cs);
  socket.ProcessData(new Segment(segment));
  LeaveCriticalSection(&AsyncSocket::cs);
}

}  // namespace oskernel_test

#endif
