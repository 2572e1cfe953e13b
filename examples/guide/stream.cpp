#include <cstdio>
#include <cstring>

#include "kernel/buffer.h"
#include "kernel/kernel.h"
#include "kernel/link.h"
#include "terminal.h"

// [stream]
void use_stream() {
  OSStream stream(1, 1);  // merges small buffers; deletes what is still in it when it goes
  stream.SetMaxFragment(600);
  stream.SetMaxLength(1000, 10);  // when IsFull says so; Add goes on beyond

  stream.Add("INVITE 7\nBYE");          // a piece of one message ...
  stream.Add(OSBuf::Alloc(" 7\nACK"));  // ... and buffers as they come

  char line[32];
  while (stream.Length() > 0) {
    const ULONG read = stream.Read(0, sizeof line - 1, reinterpret_cast<UBYTE*>(line));  // a look, no more
    line[read] = '\0';
    char* end = std::strchr(line, '\n');
    if (end == nullptr) break;
    *end = '\0';
    std::printf("line: %s\n", line);
    stream.Discard(static_cast<ULONG>(end + 1 - line));
  }
  std::printf("%u bytes wait for their end, full: %d\n", static_cast<unsigned>(stream.Length()),
              stream.IsFull());
}
// [/stream]

int main() {
  Terminal terminal;
  Console = &terminal;
  os_startup(nullptr, 0, nullptr);
  use_stream();
  os_cleanup();
}
