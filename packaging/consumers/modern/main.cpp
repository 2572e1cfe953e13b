// A program of today that uses the installed library: a queue with a trigger, an exchange of datagrams, a DNS message,
// and what needs OpenSSL's headers. It prints what is in expected.txt.

#include <link.h>  // the C library's: a directory of ours behind -I would put our link.h in its place
#include <sys/socket.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>

#include "kernel/buffer.h"
#include "kernel/kernel.h"
#include "kernel/link.h"
#include "kernel/trigger.h"
#include "network/asocket.h"
#include "network/assl.h"
#include "network/dns.h"

#if __has_include(<trigger.h>) || __has_include(<asocket.h>)
#error "headers of oskernel are visible to angle brackets without their directory"
#endif

namespace {

constexpr unsigned kPatienceMs = 10'000;

class Terminal : public OSConsole {
 public:
  void vPrint(const char* format, va_list arguments) override { std::vfprintf(stderr, format, arguments); }
};

/// An event that closes itself.
class Event {
 public:
  Event() : handle_(CreateEvent(nullptr, false, false, nullptr)) {}
  ~Event() { CloseHandle(handle_); }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  void set() const { SetEvent(handle_); }
  [[nodiscard]] bool wait() const { return WaitForSingleObject(handle_, kPatienceMs) == 0; }

 private:
  HANDLE handle_;
};

std::string text_of(const OSBuf& buf) { return {reinterpret_cast<const char*>(buf.data), buf.length}; }

// ---- A queue and its trigger ----

struct Calls {
  OSProtectedQueue queue;
  Event taken;
  std::string what;
};

void take_call(OSObj*, ADDR address, ULONG) {
  auto* calls = static_cast<Calls*>(address);
  OSBuf* call = calls->queue.FirstBufAndRemove();
  calls->what = text_of(*call);
  call->Free();
  calls->taken.set();
}

bool queue_a_call() {
  Calls calls;
  OSQTrigger arrival(&calls.queue, 1, 0, 0);
  arrival.SetCallback(take_call, nullptr, &calls, 0);
  OSBuf* call = OSBuf::Alloc("extension 7");
  call->PushData("call for ");
  calls.queue.Append(call);
  if (!calls.taken.wait()) return false;
  std::printf("queue: %s\n", calls.what.c_str());
  return true;
}

// ---- Datagrams on the loopback ----

/// Sends what it receives back to whoever sent it.
class Echo : public OSIO {
 public:
  OSIORetCode DatagramIndication(OSBuf* buf, void* remote, void*) override {
    return Partner()->DatagramIndication(buf, nullptr, remote);
  }
};

class Caller : public OSIO {
 public:
  OSIORetCode DatagramIndication(OSBuf* buf, void*, void*) override {
    answer = text_of(*buf);
    buf->Free();
    answered.set();
    return Success;
  }
  std::string answer;
  Event answered;
};

bool exchange_datagrams() {
  Echo echo;
  Caller caller;
  auto* far = new AsyncSocket(true);
  auto* near = new AsyncSocket(true);
  far->Bind(&echo);
  near->Bind(&caller);
  bool ok = far->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false) == 0 &&
            near->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false) == 0 &&
            near->Connect(INADDR_LOOPBACK, far->LocalPort()) == 0 &&
            caller.Partner()->DataIndication(OSBuf::Alloc("are you there?")) == Success &&
            caller.answered.wait();
  near->Free();
  far->Free();
  if (ok) std::printf("network: %s\n", caller.answer.c_str());
  return ok;
}

// ---- A DNS message ----

bool decode_an_answer() {
  static constexpr std::array<UBYTE, 45> kAnswer = {
      0x12, 0x34, 0x81, 0x80, 0,   1,   0,   1,   0, 0,   0,   0,                     // header
      7,    'e',  'x',  'a',  'm', 'p', 'l', 'e', 3, 'c', 'o', 'm', 0,   0, 1, 0, 1,  // question
      0xC0, 12,   0,    1,    0,   1,   0,   0,   0, 60,  0,   4,   192, 0, 2, 1};    // answer: an A record
  DnsMessage message;
  OSBuf* buf = OSBuf::Alloc(kAnswer.data(), static_cast<int>(kAnswer.size()));
  message.Decode(buf);
  buf->Free();
  auto* record = static_cast<DnsResource*>(message.answers.FirstObject());
  if (record == nullptr) return false;
  SockAddr address(record->addr, 0);
  std::printf("dns: %s %s %s\n", record->name, GetTypeStr(record->type), address.AddressStr(nullptr));
  return true;
}

// ---- OpenSSL, and the C library's <link.h> ----

bool prepare_tls() {
  const bool ok = SSLInfo::Initialise(nullptr, nullptr, nullptr) == 0;
  std::printf("tls: %s, security level %d\n", ok ? "ready" : "not ready", SSLInfo::security_level);
  return ok;
}

int find_library(dl_phdr_info* info, std::size_t, void* found) {
  if (std::string(info->dlpi_name).find("liboskernel.so.1") != std::string::npos) ++*static_cast<int*>(found);
  return 0;
}

bool look_for_the_library() {
  int found = 0;
  dl_iterate_phdr(find_library, &found);
  std::printf("loaded: liboskernel.so.1, %d time\n", found);
  return found == 1;
}

}  // namespace

int main() {
  Terminal terminal;
  Console = &terminal;
  KernelCfg configuration;
  configuration.callback_qty = 50;
  os_startup(nullptr, 0, &configuration);
  const std::array<std::pair<const char*, bool (*)()>, 5> parts = {{{"queue", queue_a_call},
                                                                    {"network", exchange_datagrams},
                                                                    {"dns", decode_an_answer},
                                                                    {"tls", prepare_tls},
                                                                    {"loaded", look_for_the_library}}};
  int failures = 0;
  for (const auto& [name, part] : parts) {
    if (part()) continue;
    std::printf("%s: FAILED\n", name);
    ++failures;
  }
  AsyncSocket::Cleanup();
  os_cleanup();
  return failures;
}
