#include "examples/callrouter/window.h"

#include "examples/callrouter/answer.h"

namespace callrouter {
namespace {

constexpr int kClasses = 4;

// Buffers of each class that may be on the road at once. Nearly every number fits class 1; the others serve
// long lines, of which no useful input has many.
constexpr int kWindow[kClasses] = {0, 1024, 64, 32};

// The callback of a freed buffer runs before the buffer and the callback itself are back in their pools, so
// that for a moment the pools hold less than the count says: one for each thread that frees. Two do, the
// router's and, when it gives up a batch, the reader's; some more cost little.
constexpr int kSlack = 8;

constexpr int kStackBytes = 256 * 1024;
constexpr unsigned kForEver = 0xFFFFFFFFu;

static_assert(kHeaderBytes <= 64, "the headers must fit into the free room in front of a line");

int class_for(int len) {
  int buf_class = 1;
  while (buf_class < kClasses - 1 && KERNELCFG->buf_size[buf_class] <= len + KERNELCFG->buf_min_space)
    ++buf_class;
  return buf_class;
}

// An event is lost only with its handle; an interrupted wait is taken up again.
void wait_for(HANDLE event) {
  while (WaitForSingleObject(event, kForEver) != 0) {
  }
}

}  // namespace

KernelCfg road_config() {
  KernelCfg cfg;
  const int sizes[kClasses] = {0, 128, 600, 1740};
  int buffers = 0;
  for (int i = 0; i < kClasses; ++i) {
    cfg.buf_size[i] = sizes[i];
    cfg.buf_qty[i] = kWindow[i] == 0 ? 0 : kWindow[i] + kSlack;
    buffers += cfg.buf_qty[i];
  }
  cfg.buf_min_space = 64;
  cfg.callback_qty = buffers;
  cfg.link_qty = buffers + 256;  // one for each allocated buffer, the rest for tasks and triggers
  cfg.trigger_stack = kStackBytes;
  return cfg;
}

Window::Window()
    : room_(CreateEvent(nullptr, false, false, nullptr)),
      empty_(CreateEvent(nullptr, false, false, nullptr)) {}

Window::~Window() {
  CloseHandle(room_);
  CloseHandle(empty_);
}

int Window::max_text() { return KERNELCFG->buf_size[kClasses - 1] - KERNELCFG->buf_min_space - 1; }

OSBuf* Window::alloc(const char* text, int len) {
  const int buf_class = class_for(len);
  if (in_flight_[buf_class].load(std::memory_order_relaxed) >= kWindow[buf_class]) {
    missed_class_ = buf_class;
    return nullptr;
  }
  in_flight_[buf_class].fetch_add(1, std::memory_order_relaxed);
  total_.fetch_add(1, std::memory_order_relaxed);
  OSBuf* buf = OSBuf::Alloc(reinterpret_cast<const UBYTE*>(text), len);
  OSCallback* callback = OSCallback::Alloc(nullptr, on_free, reinterpret_cast<OSObj*>(this), nullptr,
                                           static_cast<ULONG>(buf_class));
  if (callback == nullptr) {
    // There is one for each buffer; without it this buffer would count as being on the road for ever.
    Console->Fatal("callrouter: %d callbacks are too few", KERNELCFG->callback_qty);
    leave(buf_class);
    return buf;
  }
  buf->AddBufferCallback(callback);
  return buf;
}

void Window::wait_for_room() {
  const int half = kWindow[missed_class_] / 2;
  waiting_class_.store(missed_class_);
  if (in_flight_[missed_class_].load() > half || waiting_class_.exchange(-1) == -1) wait_for(room_);
}

int Window::in_flight() const {
  int sum = 0;
  for (const std::atomic<int>& count : in_flight_) sum += count.load(std::memory_order_relaxed);
  return sum;
}

void Window::on_free(OSObj* window, ADDR, ULONG buf_class) {
  reinterpret_cast<Window*>(window)->leave(static_cast<int>(buf_class));
}

void Window::leave(int buf_class) {
  const int left = in_flight_[buf_class].fetch_sub(1) - 1;
  int waiting = buf_class;
  if (left <= kWindow[buf_class] / 2 && waiting_class_.load() == buf_class &&
      waiting_class_.compare_exchange_strong(waiting, -1)) {
    SetEvent(room_);
  }
  finish();
}

void Window::close() { finish(); }

void Window::finish() {
  if (total_.fetch_sub(1, std::memory_order_acq_rel) == 1) SetEvent(empty_);
}

void Window::wait_until_empty() { wait_for(empty_); }

}  // namespace callrouter
