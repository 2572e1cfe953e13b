// How many buffers are on the road, so that no pool ever runs dry.
#ifndef CALLROUTER_WINDOW_H
#define CALLROUTER_WINDOW_H

#include <atomic>

#include "kernel/buffer.h"
#include "kernel/kernel.h"

namespace callrouter {

/// The pools that the road of the numbers is built for.
KernelCfg road_config();

/// Counts the buffers between reader and output, per size class. Every buffer carries a callback that runs when
/// it is freed, whoever frees it, so that the count is right without the layers knowing of it. The reader waits
/// here when a class is used up; input of any length runs in the same memory.
class Window {
 public:
  Window();
  ~Window();
  Window(const Window&) = delete;
  Window& operator=(const Window&) = delete;

  /// The longest text that a buffer holds with room for the headers.
  static int max_text();

  /// A buffer holding a copy of the text, which is at most max_text() long, or null when the class for that
  /// length is used up; then wait_for_room() is the next call. Reader only; never waits.
  ///   returns   the buffer, the caller owns it. It must be freed before the window is destroyed.
  OSBuf* alloc(const char* text, int len);

  /// Waits until half of the class that the last alloc() missed is free, which makes one wake-up serve many
  /// buffers. What is on the road must be moving: the reader hands over what it holds back first.
  void wait_for_room();

  /// Says that no alloc() follows. Reader only, or the thread that has seen the reader end.
  void close();
  /// Waits until the window is closed and every buffer has been freed.
  void wait_until_empty();

  /// Buffers on the road at this moment. Any thread.
  int in_flight() const;

 private:
  static void on_free(OSObj* window, ADDR, ULONG buf_class);
  void leave(int buf_class);
  void finish();

  std::atomic<int> in_flight_[4] = {};
  // Buffers on the road, and one more until close(): whoever takes it to 0 has seen the end.
  std::atomic<int> total_{1};
  // The class that the reader waits for, or -1. Set by the reader before it looks at the count once more, read
  // by a freeing thread after it lowered the count: one of the two sees the other (both in one total order).
  std::atomic<int> waiting_class_{-1};
  int missed_class_ = -1;  // reader only
  HANDLE room_;
  HANDLE empty_;
};

}  // namespace callrouter

#endif
