#include <arpa/inet.h>

#include <cstdio>

#include "kernel/buffer.h"
#include "kernel/kernel.h"
#include "terminal.h"

// [build]
OSBuf* build() {
  OSBuf* buf = OSBuf::Alloc("extension 7");  // 11 bytes, at the end of the storage
  if (buf == nullptr) return nullptr;        // the pools were empty and Fatal has returned
  buf->PushData(static_cast<UWORD>(htons(buf->length)));
  buf->PushData(static_cast<UBYTE>(0x21));  // the last to be pushed stands in front
  return buf;
}
// [/build]

// [take]
void take(OSBuf* buf) {  // the buffer is ours now
  if (buf->length < 3) return buf->Free();
  const UBYTE kind = buf->PullByte();
  const UWORD length = ntohs(buf->PullWord());
  if (length > buf->length) return buf->Free();
  std::printf("kind %02x, %d bytes: %.*s\n", kind, length, length, reinterpret_cast<char*>(buf->data));
  buf->Free();
}
// [/take]

// [released]
void released(OSObj*, ADDR, ULONG number) {
  std::printf("buffer %u is back\n", static_cast<unsigned>(number));
}

void watch(OSBuf* buf) { buf->AddBufferCallback(OSCallback::Alloc(nullptr, released, nullptr, nullptr, 1)); }
// [/released]

int main() {
  Terminal terminal;
  Console = &terminal;
  os_startup(nullptr, 0, nullptr);
  const int free_before = OSBuf::PoolSize(1);
  if (OSBuf* buf = build()) {
    std::printf("%d bytes, %d class 1 buffer in use\n", buf->length, free_before - OSBuf::PoolSize(1));
    watch(buf);
    take(buf);
  }
  std::printf("%d in use\n", free_before - OSBuf::PoolSize(1));
  os_cleanup();
}
