#include <cstdio>

#include "kernel/buffer.h"
#include "kernel/trigger.h"

void answer(OSObj*, ADDR calls, ULONG answered) {  // the queue holds a call
  OSBuf* call = static_cast<OSProtectedQueue*>(calls)->FirstBufAndRemove();
  std::fwrite(call->data, 1, call->length, stdout);
  call->Free();
  SetEvent(static_cast<HANDLE>(answered));
}

int main() {
  os_startup(nullptr, 0, nullptr);
  {
    OSProtectedQueue calls;
    const HANDLE answered = CreateEvent(nullptr, false, false, nullptr);
    OSQTrigger arrival(&calls, 1, 0, 0);  // acts when one buffer or more is queued
    arrival.SetCallback(answer, nullptr, &calls, static_cast<ULONG>(answered));
    OSBuf* call = OSBuf::Alloc("extension 7\n");
    call->PushData("a call for ");  // a header goes in front, nothing moves
    calls.Append(call);
    WaitForSingleObject(answered, 0xFFFFFFFF);
  }
  os_cleanup();
}
