// DNS messages: decoding and printing. Everybody who can send a datagram gets here.
#include "network/dns.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>

#include "kernel/buffer.h"
#include "network/asocketX_priv.h"

namespace {

constexpr const char* TypeStr[] = {"A",  "NS",   "MD",  "MF",  "CNAME", "SOA",   "MB", "MG",
                                   "MR", "NULL", "WKS", "PTR", "HINFO", "MINFO", "MX", "TXT"};
constexpr const char* QTypeStr[] = {"AXFR", "MAILB", "MAILA", "*"};
constexpr const char* ClassStr[] = {"IN", "CS", "CH", "HS"};
constexpr const char* QClassStr[] = {"*"};

/// The row of a table whose first is that of number `first`; null outside.
template <std::size_t kRows>
const char* row(const char* const (&table)[kRows], int first, int number) {
  const auto last = first + static_cast<int>(kRows) - 1;
  return number >= first && number <= last ? table[number - first] : nullptr;
}

/// A mnemonic for a console line: what the C library's own formatter makes of a null pointer.
const char* shown(const char* mnemonic) { return mnemonic != nullptr ? mnemonic : "(null)"; }

constexpr std::size_t kNameRoom = 256;
/// As many places as a pointer can name (RFC 1035 4.1.4).
constexpr std::size_t kPlaces = 0x4000;

int number16(const UBYTE* at) { return at[0] << 8 | at[1]; }
ULONG number32(const UBYTE* at) {
  return ULONG{at[0]} << 24U | ULONG{at[1]} << 16U | ULONG{at[2]} << 8U | ULONG{at[3]};
}

}  // namespace

/// Reads a message from front to end, and nothing outside of it. Whatever does not fit moves nothing.
class DnsReader {
 public:
  /// A message whose end is known.
  DnsReader(const UBYTE* message, std::size_t bytes)
      : message_(message), end_(message + bytes), at_(message) {}
  /// One whose end the caller vouches for; begins at `at`.
  DnsReader(const UBYTE* message, const UBYTE* at) : message_(message), end_(nullptr), at_(at) {}

  const UBYTE* at() const { return at_; }

  /// So many bytes, which the reader is then behind; null when there are fewer.
  const UBYTE* take(std::size_t bytes) {
    if (!holds(at_, bytes)) return nullptr;
    const UBYTE* const taken = at_;
    at_ += bytes;
    return taken;
  }

  /// The name at this place as text, which the reader is then behind.
  ///   out       kNameRoom bytes; empty when there is no name
  ///   length    of the text; may be null
  bool take_name(char* out, std::size_t* length = nullptr) {
    const std::size_t bytes = expand(at_, out, length);
    at_ += bytes;
    return bytes != 0;
  }

  /// The name at another place, without moving.
  bool name_at(const UBYTE* place, char* out) const { return expand(place, out, nullptr) != 0; }
  bool holds(const UBYTE* place, std::size_t bytes) const {
    return end_ == nullptr || static_cast<std::size_t>(end_ - place) >= bytes;
  }

 private:
  std::size_t expand(const UBYTE* place, char* out, std::size_t* length) const;

  /// How many pointers a name may follow: no more than there are places to point at, or it leads round in circles.
  std::size_t most_jumps() const {
    return end_ == nullptr ? kPlaces : static_cast<std::size_t>(end_ - message_);
  }

  const UBYTE* const message_;  ///< pointers count from here
  const UBYTE* const end_;      ///< behind the last byte; null when it is not known
  const UBYTE* at_;             ///< never behind end_
};

/// RFC 1035 4.1.4.
///   returns   the bytes that the name takes at its place; 0 when there is none that fits
std::size_t DnsReader::expand(const UBYTE* place, char* out, std::size_t* length) const {
  const UBYTE* from = place;
  std::size_t written = 0;
  std::size_t taken = 0;  // 0 until the first pointer
  std::size_t jumps = 0;
  while (holds(from, 1)) {
    const std::size_t count = *from;
    if (count == 0) {
      // Over the last dot; the root has none.
      const std::size_t end = written == 0 ? 0 : written - 1;
      out[end] = '\0';
      if (length != nullptr) *length = end;
      return taken != 0 ? taken : static_cast<std::size_t>(from - place) + 1;
    }
    if ((count & 0xC0U) == 0xC0U) {
      if (!holds(from, 2) || ++jumps > most_jumps()) break;
      if (taken == 0) taken = static_cast<std::size_t>(from - place) + 2;
      const std::size_t offset = (count & 0x3FU) << 8U | from[1];
      if (!holds(message_, offset)) break;
      from = message_ + offset;
      continue;
    }
    if (!holds(from, count + 1) || written + count + 1 > kNameRoom) break;
    std::memcpy(out + written, from + 1, count);
    written += count;
    out[written++] = '.';
    from += count + 1;
  }
  out[0] = '\0';
  if (length != nullptr) *length = 0;
  return 0;
}

// ---- Names -------------------------------------------------------------------------------------------------

const char* GetTypeStr(int type) {
  if (type == T_SRV) return "SRV";
  if (type == T_NAPTR) return "NAPTR";
  return type <= T_TXT ? row(TypeStr, T_A, type) : row(QTypeStr, T_AXFR, type);
}

const char* GetClassStr(int clas) { return clas <= 4 ? row(ClassStr, 1, clas) : row(QClassStr, 255, clas); }

int GetDomain(UBYTE* p, UBYTE* msg, char* out) {
  DnsReader reader(msg, p);
  reader.take_name(out);
  return static_cast<int>(reader.at() - p);
}

int GetDomainLength(UBYTE* p, UBYTE* msg) {
  char text[kNameRoom];
  std::size_t length = 0;
  DnsReader(msg, p).take_name(text, &length);
  return static_cast<int>(length);
}

// ---- Questions ---------------------------------------------------------------------------------------------

static_assert(sizeof DnsQuestion::qname == kNameRoom && sizeof DnsResource::name == kNameRoom &&
              sizeof DnsResource::target == kNameRoom);

DnsQuestion::DnsQuestion() = default;
DnsQuestion::~DnsQuestion() = default;

bool DnsQuestion::decode(DnsReader& reader) {
  if (!reader.take_name(qname)) return false;
  const UBYTE* const rest = reader.take(4);
  if (rest == nullptr) return false;
  qtype = number16(rest);
  qclass = number16(rest + 2);
  return true;
}

int DnsQuestion::Decode(UBYTE* p, UBYTE* msg) {
  DnsReader reader(msg, p);
  return decode(reader) ? static_cast<int>(reader.at() - p) : 0;
}

void DnsQuestion::Print() {
  diagnostics().Print("DNS: %p  %s, type %s, class %s", static_cast<void*>(this), qname,
                      shown(GetTypeStr(qtype)), shown(GetClassStr(qclass)));
}

// ---- Records -----------------------------------------------------------------------------------------------

DnsResource::DnsResource() : type(0), clas(0), ttl(0), addr(0), priority(0), weight(0), port(0) {
  name[0] = '\0';
  target[0] = '\0';
}
DnsResource::~DnsResource() = default;

bool DnsResource::decode(DnsReader& reader) {
  if (!reader.take_name(name)) return false;
  const UBYTE* const fixed = reader.take(10);
  if (fixed == nullptr) return false;
  type = number16(fixed);
  clas = number16(fixed + 2);
  ttl = static_cast<int>(number32(fixed + 4));
  const UBYTE* const data = reader.take(static_cast<std::size_t>(number16(fixed + 8)));
  if (data == nullptr) return false;
  // What a type's data hold may reach behind their stated length, but not behind the message.
  switch (type) {
    case T_A:
      if (!reader.holds(data, 4)) return false;
      addr = number32(data);
      return true;
    case T_NS:
      return reader.name_at(data, target);
    case T_MX:
      if (!reader.holds(data, 2)) return false;
      priority = number16(data);
      return reader.name_at(data + 2, target);
    case T_SRV:
      if (!reader.holds(data, 6)) return false;
      priority = number16(data);
      weight = number16(data + 2);
      port = number16(data + 4);
      return reader.name_at(data + 6, target);
    default:
      return true;
  }
}

int DnsResource::Decode(UBYTE* p, UBYTE* msg) {
  DnsReader reader(msg, p);
  if (decode(reader)) return static_cast<int>(reader.at() - p);
  name[0] = '\0';
  target[0] = '\0';
  return 0;
}

void DnsResource::Print() {
  void* const self = this;
  const auto seconds = static_cast<unsigned>(ttl);
  const auto number = [](int field) { return static_cast<unsigned>(field); };
  const char* const clas_text = shown(GetClassStr(clas));
  const char* const type_text = shown(GetTypeStr(type));
  OSConsole& out = diagnostics();
  switch (type) {
    case T_A:
      out.Print("DNS: %p  %-20s %7u %s %s %s", self, name, seconds, clas_text, type_text,
                AddressText(SockAddr(addr, 0)).c_str());
      break;
    case T_NS:
      out.Print("DNS: %p  %-20s %7u %s %s %s", self, name, seconds, clas_text, type_text, target);
      break;
    case T_MX:
      out.Print("DNS: %p  %-20s %7u %s %s %3u %s", self, name, seconds, clas_text, type_text,
                number(priority), target);
      break;
    case T_SRV:
      out.Print("DNS: %p  %-20s %7u %s %s %3u %3u %3u %s", self, name, seconds, clas_text, type_text,
                number(priority), number(weight), number(port), target);
      break;
    default:
      out.Print("DNS: %p  %-20s %7u %s %s", self, name, seconds, clas_text, type_text);
      break;
  }
}

// ---- Messages ----------------------------------------------------------------------------------------------

namespace {

void delete_all(OSIndirectList& list) {
  while (OSLink* const first = list.First()) {
    auto* const entry = static_cast<OSListObj*>(first->object);
    list.RemoveLink(first);
    delete entry;
  }
}

template <class Entry>
void print_all(const char* heading, const DnsMessage* message, OSIndirectList& list) {
  if (list.IsEmpty()) return;
  diagnostics().Print("DNS: %p %s:", static_cast<const void*>(message), heading);
  OSListIterator entries(&list);
  while (OSListObj* const entry = entries.Object()) static_cast<Entry*>(entry)->Print();
}

}  // namespace

DnsMessage::DnsMessage() : id(0), opts(0), qdcount(0), ancount(0), nscount(0), arcount(0) {}

DnsMessage::~DnsMessage() {
  for (OSIndirectList* const list : {&questions, &answers, &authorities, &additionals}) delete_all(*list);
}

/// Appends `count` entries.
///   returns   whether there were so many
template <class Entry>
bool DnsMessage::decode_all(DnsReader& reader, int count, OSIndirectList& list) {
  for (int i = 0; i < count; ++i) {
    auto* const entry = new (std::nothrow) Entry;
    if (entry == nullptr) return false;
    if (!entry->decode(reader) || list.AppendLink(entry) == nullptr) {
      delete entry;
      return false;
    }
  }
  return true;
}

int DnsMessage::Decode(OSBuf* buf) {
  DnsReader reader(buf->data, buf->length);
  for (int* const field : {&id, &opts, &qdcount, &ancount, &nscount, &arcount}) {
    const UBYTE* const word = reader.take(2);
    if (word == nullptr) return 0;
    *field = number16(word);
  }
  static_cast<void>(decode_all<DnsQuestion>(reader, qdcount, questions) &&
                    decode_all<DnsResource>(reader, ancount, answers) &&
                    decode_all<DnsResource>(reader, nscount, authorities) &&
                    decode_all<DnsResource>(reader, arcount, additionals));
  return 0;
}

void DnsMessage::Print() {
  print_all<DnsQuestion>("Question", this, questions);
  print_all<DnsResource>("Answer", this, answers);
  print_all<DnsResource>("Authority", this, authorities);
  print_all<DnsResource>("Additional", this, additionals);
}
