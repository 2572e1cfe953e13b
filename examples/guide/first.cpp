#include <cstdio>

#include "kernel/buffer.h"
#include "kernel/kernel.h"
#include "terminal.h"

int main() {
  Terminal terminal;
  Console = &terminal;  // before the start, so that it can complain

  KernelCfg sizes;  // the default sizes
  sizes.buf_qty[3] = 8;
  os_startup(nullptr, 0, &sizes);
  std::printf("%d large buffers, %d links\n", OSBuf::PoolSize(3), sizes.link_qty);
  os_cleanup();
}
