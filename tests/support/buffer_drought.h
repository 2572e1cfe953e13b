/// Buffer pools without a buffer that has storage.
#ifndef OSKERNEL_TESTS_BUFFER_DROUGHT_H
#define OSKERNEL_TESTS_BUFFER_DROUGHT_H

#include <vector>

#include "kernel/buffer.h"
#include "kernel/kernel.h"

namespace oskernel_test {

/// Takes every buffer that has storage, until end() or the destructor gives them back. A test's console returns from
/// the Fatal that the pools report then, so that the program goes on without a buffer.
class BufferDrought {
 public:
  explicit BufferDrought(const KernelCfg& cfg) {
    for (int buf_class = 1; buf_class < 4; ++buf_class) {
      while (OSBuf::PoolSize(buf_class) > 0) taken_.push_back(OSBuf::Alloc(cfg.buf_size[buf_class] - 1));
    }
  }
  ~BufferDrought() { end(); }
  BufferDrought(const BufferDrought&) = delete;
  BufferDrought& operator=(const BufferDrought&) = delete;

  void end() {
    for (OSBuf* buf : taken_) buf->Free();
    taken_.clear();
  }

 private:
  std::vector<OSBuf*> taken_;
};

}  // namespace oskernel_test

#endif
