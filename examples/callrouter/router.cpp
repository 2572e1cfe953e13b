#include "examples/callrouter/router.h"

#include <array>

#include "examples/callrouter/answer.h"
#include "examples/callrouter/output.h"
#include "kernel/buffer.h"
#include "kernel/kernel.h"

namespace callrouter {
namespace {

constexpr UWORD kPriority = 4;
constexpr ULONG kStackBytes = 512 * 1024;

// Lines taken from the queue in one hold of its lock. With one hold a line the reader and the router would wait
// for each other's lock all the time.
constexpr std::size_t kBatch = 64;

// How long one action of the trigger may go on; beyond half a second the kernel reports it as slow.
constexpr ULONG kPassMs = 100;

constexpr unsigned kForEver = 0xFFFFFFFFu;

}  // namespace

OSIORetCode RouterLayer::DataIndication(OSBuf* buf) {
  const LineMark mark = peek_mark(buf);
  const Answer answer = answer_line(plan_, peek_text(buf), mark.cut != 0);
  if (buf->trace) {
    Console->Print("router: line %lu of input %u: %s, gateway %s", static_cast<unsigned long>(mark.line),
                   mark.source + 1,
                   answer.routed() ? answer.row->destination.c_str() : reason(answer).c_str(),
                   answer.routed() ? answer.row->gateway.c_str() : "none");
  }
  push_answer(buf, answer);
  stamp(buf, *Partner());
  return Partner()->DataIndication(buf);
}

RouterTask::RouterTask(OSProtectedQueue& queue, OSIO& layer)
    : OSTask(kPriority, kStackBytes, nullptr, nullptr), queue_(queue), layer_(layer) {
  _LockDelete();  // the object stays its owner's when Main returns
  OSTaskTag::SetName("router", thread_id);
  LeaveCriticalSection(&cs);
}

void RouterTask::stop() {
  stopping_.store(true);
  if (const HANDLE wake = wake_.load()) SetEvent(wake);
}

void RouterTask::Main() {
  OSTrigger::TLSInitialise();
  {
    OSQTrigger lines(&queue_, 1, 0, 0);
    lines.SetCallback(on_lines, reinterpret_cast<OSObj*>(this), &lines, 0);
    wake_.store(OSTrigger::TLSGetEvent());
    while (!stopping_.load()) {
      WaitForSingleObject(OSTrigger::TLSGetEvent(), kForEver);
      OSTrigger::TLSPoll();
    }
  }
  OSTrigger::TLSUninitialise();
}

void RouterTask::on_lines(OSObj* task, ADDR trigger, ULONG) {
  auto* self = reinterpret_cast<RouterTask*>(task);
  const ULONG started = os_clock();
  bool more = true;
  while (more && !os_expired(started, kPassMs)) more = self->pass_batch();
  if (!more) {
    // Nothing waits: whoever typed the last line gets the answer now.
    EndOfBatch end;
    self->layer_.Service(&end);
  }
  // Tests the queue again, so that lines that came meanwhile make the trigger ready at once.
  static_cast<OSQTrigger*>(trigger)->Clear();
}

bool RouterTask::pass_batch() {
  std::array<OSBuf*, kBatch> batch;
  std::size_t taken = 0;
  EnterCriticalSection(&queue_.cs);
  while (taken < kBatch && (batch[taken] = queue_.FirstBufAndRemove()) != nullptr) ++taken;
  LeaveCriticalSection(&queue_.cs);
  for (std::size_t i = 0; i < taken; ++i) layer_.DataIndication(batch[i]);
  return taken != 0;
}

}  // namespace callrouter
