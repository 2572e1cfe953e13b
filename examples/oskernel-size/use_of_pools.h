// To measure instead of calculating: what a program has had in use of its buffers, for the end of a run under load.
#ifndef OSKERNEL_SIZE_USE_OF_POOLS_H
#define OSKERNEL_SIZE_USE_OF_POOLS_H

#include <cstdio>

#include "kernel/buffer.h"
#include "kernel/kernel.h"

namespace oskernel_size {

/// Prints, for each class, the most buffers that have been out at a time since the kernel was started.
inline void print_use_of_pools() {
  // [measure]
  for (int i = 0; i < 4; ++i) {
    const int fewest = __atomic_load_n(&OSBuf::min_count[i], __ATOMIC_RELAXED);
    std::printf("class %d: %d of %d were in use\n", i, KERNELCFG->buf_qty[i] - fewest, KERNELCFG->buf_qty[i]);
  }
  // [/measure]
}

}  // namespace oskernel_size

#endif
