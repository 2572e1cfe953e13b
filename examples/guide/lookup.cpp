#include <cstdio>

#include "kernel/buffer.h"
#include "kernel/kernel.h"
#include "kernel/trigger.h"
#include "network/asocket.h"
#include "network/dns.h"
#include "terminal.h"

constexpr unsigned kForEver = 0xFFFFFFFF;
constexpr ULONG kLoopback = 0x7F000001;

// [lookup]
class Gateways {
 public:
  explicit Gateways(const char* server)
      : lookup_(name_, T_SRV, server, told, reinterpret_cast<OSObj*>(this)) {}
  bool answered() const { return answered_; }
  UWORD port() { return lookup_.socket->LocalPort(); }

 private:
  static void told(OSObj* gateways, ADDR lookup, ULONG late) {
    reinterpret_cast<Gateways*>(gateways)->report(static_cast<DnsLookup*>(lookup), late != 0);
  }
  void report(DnsLookup* lookup, bool late) {
    if (late) {
      std::printf("no answer within 5 s\n");
    } else if (DnsResource* found = lookup->GetAddress()) {
      SockAddr address(found->addr, static_cast<UWORD>(found->port));
      std::printf("%s, port %d, priority %d: %s\n", found->target, found->port, found->priority,
                  address.AddressStr(nullptr));
    } else {
      return;  // an answer, but it names nothing: perhaps somebody else has more to say
    }
    answered_ = true;
  }

  char name_[32] = "_sip._udp.guide.example";
  bool answered_ = false;
  DnsLookup lookup_;
};
// [/lookup]

// What a name server would answer: one SRV record, and the address of the host that it names.
const UBYTE kAnswer[] = {
    0,    1,   0x84, 0,   0,    1,    0,   1,   0,   0,   0,   1,  // 1 question, 1 answer, 1 additional
    4,    '_', 's',  'i', 'p',  4,    '_', 'u', 'd', 'p', 5,   'g',  'u', 'i',
    'd',  'e',                                                           // the name asked for, at 12
    7,    'e', 'x',  'a', 'm',  'p',  'l', 'e', 0,   0,   33,  0,    1,  // SRV, Internet
    0xC0, 12,  0,    33,  0,    1,    0,   0,   0,   60,  0,   13,       // its record: 60 s, 13 bytes
    0,    10,  0,    0,   0x13, 0xC4, 4,   'g', 'a', 't', 'e', 0xC0, 22,  // priority, weight, port, target at 59
    0xC0, 59,  0,    1,   0,    1,    0,   0,   0,   60,  0,   4,    192, 0,
    2,    7};  // the target's address

// The program plays the name server itself, so that it runs where there is none.
void answer(UWORD port) {
  auto* socket = new AsyncSocket(true);
  socket->Create(SOCK_DGRAM, 0, kLoopback, false);
  SockAddr to(kLoopback, port);
  socket->DatagramIndication(OSBuf::Alloc(kAnswer, sizeof kAnswer), nullptr, static_cast<sockaddr*>(to));
  socket->Free();
}

int main() {
  Terminal terminal;
  Console = &terminal;
  os_startup(nullptr, 0, nullptr);
  OSTrigger::TLSInitialise();
  AsyncSocket::Init();
  {
    Gateways gateways("127.0.0.1");
    answer(gateways.port());
    while (!gateways.answered()) {
      WaitForSingleObject(OSTrigger::TLSGetEvent(), kForEver);
      OSTrigger::TLSPoll();
    }
  }
  AsyncSocket::Cleanup();
  OSTrigger::TLSUninitialise();
  os_cleanup();
}
