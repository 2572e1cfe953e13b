/// What the fuzz targets share: how an input becomes a stream that arrives in segments, and a kernel to receive it.
///
/// Fuzzer and replayed corpus give the targets the same bytes:
///
///   offset 0        1 byte    flags, each target's own
///   offset 1        1 byte    n, how many cuts follow
///   offset 2        n bytes   cuts, used in turn for one segment after the other, again and again
///   offset 2 + n    the rest  the stream
///
/// A cut's low 7 bits say how long the segment is: 0 stands for all that a read takes, 1 to 63 for themselves, 64 to
/// 127 for steps of 25 up to that. Its top bit says that the layer above gets its turn after the segment. After many
/// segments the rest comes in whole reads, so that a long stream of single bytes does not take all of the time.
#ifndef OSKERNEL_FUZZ_SEGMENTS_H
#define OSKERNEL_FUZZ_SEGMENTS_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "kernel/kernel.h"
#include "network/asocket.h"

namespace oskernel_fuzz {

/// Ends the program: what the target received is not what the reference says. The fuzzer keeps the input then.
[[noreturn]] inline void report(const char* what, const std::string& received, const std::string& expected) {
  std::fprintf(stderr, "%s\n  received %s\n  expected %s\n", what, received.c_str(), expected.c_str());
  std::abort();
}

inline void expect(bool holds, const char* what) {
  if (!holds) report(what, "false", "true");
}

/// The kernel without its trigger task: the target itself decides when callbacks run.
class Kernel {
 public:
  static void start() { static const Kernel kernel; }
  Kernel(const Kernel&) = delete;
  Kernel& operator=(const Kernel&) = delete;

  static int buffers_out() {
    EnterCriticalSection(&OS_CRITICAL_BUFFERS);
    const int out = OSBuf::allocated_list->Size();
    LeaveCriticalSection(&OS_CRITICAL_BUFFERS);
    return out;
  }
  static ULONG callbacks_free() {
    EnterCriticalSection(&OS_CRITICAL_CALLBACKS);
    const ULONG free = OSCallback::callback_pool_size;
    LeaveCriticalSection(&OS_CRITICAL_CALLBACKS);
    return free;
  }

 private:
  Kernel() {
    cfg_.trigger_stack = 0;
    os_startup(nullptr, 0, &cfg_);
    AsyncSocket::Init();
  }
  ~Kernel() {
    AsyncSocket::Cleanup();
    os_cleanup();
  }

  KernelCfg cfg_;
};

/// Finds what a run has left behind.
class Inventory {
 public:
  Inventory() : buffers_out_(Kernel::buffers_out()), callbacks_free_(Kernel::callbacks_free()) {}
  void check() const {
    expect(Kernel::buffers_out() == buffers_out_, "every buffer has come home");
    expect(Kernel::callbacks_free() == callbacks_free_, "every callback has come home");
  }

 private:
  int buffers_out_;
  ULONG callbacks_free_;
};

/// An input in its parts.
class SegmentedStream {
 public:
  SegmentedStream(const std::uint8_t* input, std::size_t size) {
    if (size > 0) flags_ = input[0];
    if (size > 1) cuts_ = std::min<std::size_t>(input[1], size - 2);
    cut_ = input + 2;
    if (size > 2) rest_ = std::string(reinterpret_cast<const char*>(input) + 2 + cuts_, size - 2 - cuts_);
  }

  unsigned flags() const { return flags_; }
  bool at_end() const { return at_ == rest_.size(); }
  /// The next bytes that a read hands over; never empty before the end.
  std::string next() {
    const unsigned cut = cuts_ == 0 || turn_ == kMostCuts ? 0 : cut_[turn_++ % cuts_];
    const unsigned code = cut & 0x7FU;
    const std::size_t wanted = code == 0 ? kMostRead : code < 64 ? code : std::size_t{code - 63} * 25;
    turn_of_layer_ = (cut & 0x80U) != 0;
    const std::string segment = rest_.substr(at_, std::min(wanted, kMostRead));
    at_ += segment.size();
    return segment;
  }
  /// Whether the layer above gets its turn after the segment that next() has returned.
  bool turn_of_layer() const { return turn_of_layer_; }

 private:
  static constexpr std::size_t kMostRead = 1600;  // bytes that one read takes from the system
  static constexpr std::size_t kMostCuts =
      1000;  // beyond any buffer, and reached in a fraction of a millisecond

  unsigned flags_ = 0;
  std::size_t cuts_ = 0;
  const std::uint8_t* cut_ = nullptr;
  std::size_t turn_ = 0;
  std::string rest_;
  std::size_t at_ = 0;
  bool turn_of_layer_ = false;
};

/// The bytes in a buffer as the receive path makes it: with room in front.
inline OSBuf* received_buffer(const std::string& bytes) {
  constexpr int kHeadroom = 50;
  const auto count = static_cast<int>(bytes.size());
  OSBuf* buf = OSBuf::Alloc(count + kHeadroom);
  buf->PushData(reinterpret_cast<const UBYTE*>(bytes.data()), static_cast<UWORD>(count));
  return buf;
}

inline std::string text_of(const OSBuf& buf) {
  return std::string(reinterpret_cast<const char*>(buf.data), buf.length);
}

}  // namespace oskernel_fuzz

#endif
