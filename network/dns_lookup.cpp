// One question to a name server.
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <new>

#include "kernel/buffer.h"
#include "network/asocketX.h"
#include "network/asocketX_priv.h"
#include "network/dns.h"

namespace {

constexpr UWORD kPort = 53;
constexpr char kBroadcast[] = "255.255.255.255";
constexpr ULONG kAnswer_ms = 5000;
constexpr int kQuery_bytes = 1024;

// RFC 1035 2.3.4, in text: the zero byte at the end and the length in front are what is missing to 255.
constexpr std::size_t kLongestName = 253;
constexpr std::size_t kLongestLabel = 63;
/// What a name is encoded into: a byte in front and one behind.
constexpr std::size_t kEncoded_bytes = 256;

/// Why no message can carry a name; null when one can.
const char* reason_against(const char* name) {
  if (std::strlen(name) > kLongestName) return "a name of more than 253 characters";
  const char* label = name;
  for (const char* at = name;; ++at) {
    if (*at != '.' && *at != '\0') continue;
    const auto length = static_cast<std::size_t>(at - label);
    if (length > kLongestLabel) return "a label of more than 63 characters";
    if (*at == '\0') return nullptr;
    // Behind the last dot, and in front of the only one, is the root.
    const bool root = at == name && at[1] == '\0';
    if (length == 0 && !root) return "an empty label";
    label = at + 1;
  }
}

/// RFC 1035 3.1. Every dot closes a label, and so does the end: behind a dot at the end that is one of length 0.
///   encoded   kEncoded_bytes
///   returns   how many of them are used: two more than the name has characters
UWORD encode(const char* name, UBYTE* encoded) {
  UBYTE* length = encoded;
  UBYTE* to = encoded + 1;
  for (const char* from = name;; ++from) {
    if (*from != '.' && *from != '\0') {
      *to++ = static_cast<UBYTE>(*from);
      continue;
    }
    *length = static_cast<UBYTE>(to - length - 1);
    length = to;
    *to++ = 0;
    if (*from == '\0') return static_cast<UWORD>(to - encoded);
  }
}

void put16(UBYTE* at, int number) {
  at[0] = static_cast<UBYTE>(number >> 8);
  at[1] = static_cast<UBYTE>(number);
}

/// The whole message (RFC 1035 4.1).
///   returns   null without a buffer
OSBuf* make_query(const char* name, Type type) {
  OSBuf* const buf = OSBuf::Alloc(kQuery_bytes);
  if (buf == nullptr) return nullptr;
  UBYTE encoded[kEncoded_bytes];
  const UWORD name_bytes = encode(name, encoded);
  UBYTE fixed[4];
  put16(fixed, type);
  put16(fixed + 2, 1);  // IN
  buf->PushData(fixed, UWORD{sizeof fixed});
  buf->PushData(encoded, name_bytes);
  // The ID is always 1. RD asks for recursion; RA belongs to answers and is sent all the same, as it always was.
  const UBYTE header[12] = {0x00, 0x01, 0x01, 0x80, 0x00, 0x01};
  buf->PushData(header, UWORD{sizeof header});
  return buf;
}

/// The next record of a list; null at its end.
DnsResource* next(OSListIterator& records) { return static_cast<DnsResource*>(records.Object()); }

}  // namespace

// The callback may come on another thread as soon as the question is under way, and a stray datagram as soon as the
// socket is bound; either may delete the lookup. So the class section, without which the monitor thread reads nothing,
// is held while the question is sent and the time-out armed, and what comes in any earlier waits in DatagramIndication
// until the constructor has touched its lookup for the last time. The section is not held over Connect: the cache's
// own section comes before it.
DnsLookup::DnsLookup(char* name, Type type, const char* server, OSCallbackFunction function, OSObj* object)
    : socket(nullptr), callback(function), obj(object), response(nullptr), timer(0, 1), stage_(kAsking) {
  const char* const text = name != nullptr ? name : "";
  void* const self = this;
  diagnostics().Print("DNS: %p DnsLookup - %s", self, text);
  const char* const against = reason_against(text);
  if (against != nullptr) diagnostics().Print("DNS: %p DnsLookup - %s not sent: %s", self, text, against);

  OSBuf* query = nullptr;
  socket = new (std::nothrow) AsyncSocket(true);
  if (socket != nullptr) {
    socket->Bind(this);
    socket->Create(SOCK_DGRAM, 0, 0U, false);
    socket->Connect(server != nullptr && *server != '\0' ? server : kBroadcast, kPort);
    if (against == nullptr) query = make_query(text, type);
    if (query != nullptr) query->Print();
  }

  const ClassLock lock;
  if (query != nullptr) socket->DataIndication(query);
  timer.SetCallback(callback, obj, this, 1);
  if (seen(stage_) != kAnswerWaits) timer.SetTimer(kAnswer_ms);
  publish(stage_, int{kAsked});
  // Behind this nothing of the lookup is touched: its address alone tells whom to wake.
  std::atomic_ref(stage_).notify_all();
}

DnsLookup::~DnsLookup() {
  diagnostics().Print("DNS: %p ~DnsLookup", static_cast<void*>(this));
  // While the socket goes, another answer may still come in: it finds that it is too late, or Free waits for it.
  publish(stage_, int{kGoing});
  timer.Cancel();
  if (socket != nullptr) socket->Free();
  delete response;
}

OSIORetCode DnsLookup::DatagramIndication(OSBuf* buf, void* /*from*/, void* /*to*/) {
  int stage = kAsking;
  const bool early = std::atomic_ref(stage_).compare_exchange_strong(stage, kAnswerWaits);
  while ((stage = seen(stage_)) < kAsked) std::atomic_ref(stage_).wait(stage);
  if (stage == kGoing) {
    buf->Free();
    return Success;
  }

  auto* const message = new (std::nothrow) DnsMessage;
  if (message == nullptr) {
    // What cannot be read is no answer: the time-out tells.
    if (early) timer.SetTimer(kAnswer_ms);
    buf->Free();
    return Success;
  }
  timer.Cancel();
  diagnostics().Print("DNS: %p DnsLookup - receive", static_cast<void*>(this));
  buf->Print();
  message->Decode(buf);
  message->Print();
  delete response;
  response = message;
  if (callback != nullptr) callback(obj, this, 0);  // may delete this lookup
  buf->Free();
  return Success;
}

DnsResource* DnsLookup::GetAddress() {
  if (response == nullptr) return nullptr;
  OSListIterator answers(&response->answers);
  while (DnsResource* const record = next(answers)) {
    if (record->target[0] == '\0') {
      if (record->addr != 0) return record;
      continue;
    }
    OSListIterator additionals(&response->additionals);
    while (record->addr == 0) {
      const DnsResource* const glue = next(additionals);
      if (glue == nullptr) break;
      if (std::strcmp(glue->name, record->target) == 0) record->addr = glue->addr;
    }
    return record;
  }
  return nullptr;
}
