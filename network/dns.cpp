// DNS messages: decoding and printing. Everybody who can send a datagram gets here.
#include "network/dns.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <new>

#include "kernel/buffer.h"
#include "kernel/link_priv.h"
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

/// Copies 1 to 256 bytes. Labels and names are short: memcpy spends more time on finding out how short.
void copy_short(char* to, const void* bytes, std::size_t count) {
  const auto* const from = static_cast<const UBYTE*>(bytes);
  const auto both_ends = [=](auto word) {
    auto tail = word;
    std::memcpy(&word, from, sizeof word);
    std::memcpy(&tail, from + count - sizeof tail, sizeof tail);
    std::memcpy(to, &word, sizeof word);
    std::memcpy(to + count - sizeof tail, &tail, sizeof tail);
  };
  struct Half {
    std::uint64_t words[2];
  };
  if (count > 32) {
    std::memcpy(to, from, count);
  } else if (count >= 16) {
    both_ends(Half{});
  } else if (count >= 8) {
    both_ends(std::uint64_t{});
  } else if (count >= 4) {
    both_ends(std::uint32_t{});
  } else {
    to[0] = static_cast<char>(from[0]);
    if (count > 1) to[1] = static_cast<char>(from[1]);
    if (count > 2) to[2] = static_cast<char>(from[2]);
  }
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

  /// The same for the name that an entry begins with. Nearly always it is a pointer to the name of the entry before,
  /// whose text is copied then.
  ///   out       stays as it is while the reader is used
  bool take_owner(char* out) {
    const UBYTE* const place = at_;
    const bool is_pointer = holds(place, 2) && (place[0] & 0xC0U) == 0xC0U;
    const std::size_t offset = is_pointer ? static_cast<std::size_t>(number16(place) & 0x3FFF)
                                          : static_cast<std::size_t>(place - message_);
    if (is_pointer && owner_ != nullptr && offset == owner_offset_) {
      copy_short(out, owner_, owner_length_ + 1);
      at_ += 2;
    } else if (!take_name(out, &owner_length_)) {
      return false;
    }
    owner_ = out;
    owner_offset_ = offset;
    return true;
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
  // What take_owner has expanded last; null before.
  const char* owner_ = nullptr;
  std::size_t owner_length_ = 0;
  std::size_t owner_offset_ = 0;
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
    copy_short(out + written, from + 1, count);
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
  if (!reader.take_owner(qname)) return false;
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

// Deliberate: two blanks stand between the object's address and what follows, here and in every line of a record, and a
// record's class stands before its type. Whoever reads the logs cuts the lines into columns by them. Pinned by
// dns_print_test.cpp, AQuestionIsNameTypeAndClass and AnARecordShowsItsAddress.
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
  if (!reader.take_owner(name)) return false;
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

/// How many links are taken from the pool, or given back, together.
constexpr std::size_t kTogether = 32;

/// Links for the entries that a header announces, several at a time: one by one they take longer than the decoding. A
/// header may announce what does not follow.
class LinkSupply {
 public:
  explicit LinkSupply(int announced) : announced_(static_cast<std::size_t>(announced)) {}
  ~LinkSupply() { give_links(links_ + used_, had_ - used_); }
  LinkSupply(const LinkSupply&) = delete;
  LinkSupply& operator=(const LinkSupply&) = delete;

  /// Null when the pool has none.
  OSLink* next() {
    if (used_ == had_) {
      used_ = 0;
      had_ = take_links(links_, std::min(announced_, kTogether));
      if (had_ == 0) return nullptr;
      announced_ -= had_;
    }
    return links_[used_++];
  }

 private:
  std::size_t announced_;  ///< entries that have no link yet
  OSLink* links_[kTogether];
  std::size_t had_ = 0;
  std::size_t used_ = 0;
};

/// Takes all off the lists and deletes them, the first ones first.
void delete_all(std::initializer_list<OSIndirectList*> lists) {
  OSLink* links[kTogether];
  std::size_t count = 0;
  for (OSIndirectList* const list : lists) {
    while (OSLink* const first = list->First()) {
      auto* const entry = static_cast<OSListObj*>(first->object);
      list->OSLinkList::Remove(first);
      links[count++] = first;
      delete entry;
      if (count < kTogether) continue;
      give_links(links, count);
      count = 0;
    }
  }
  give_links(links, count);
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

DnsMessage::~DnsMessage() { delete_all({&questions, &answers, &authorities, &additionals}); }

namespace {

/// Appends `count` entries.
///   decode    decodes one
///   returns   whether there were so many
template <class Entry, class Decode>
bool decode_all(LinkSupply& links, int count, OSIndirectList& list, Decode decode) {
  for (int i = 0; i < count; ++i) {
    Entry* const entry = new (std::nothrow) Entry;
    if (entry == nullptr) return false;
    OSLink* const link = decode(*entry) ? links.next() : nullptr;
    if (link == nullptr) {
      delete entry;
      return false;
    }
    list.OSLinkList::Append(link, entry);
  }
  return true;
}

}  // namespace

int DnsMessage::Decode(OSBuf* buf) {
  DnsReader reader(buf->data, buf->length);
  int* const fields[] = {&id, &opts, &qdcount, &ancount, &nscount, &arcount};
  const std::size_t whole = std::min(std::size(fields), std::size_t{buf->length} / 2);
  const UBYTE* const words = reader.take(whole * 2);
  for (std::size_t i = 0; i < whole; ++i) *fields[i] = number16(words + 2 * i);
  if (whole < std::size(fields)) return 0;
  LinkSupply links(qdcount + ancount + nscount + arcount);
  const auto question = [&reader](DnsQuestion& entry) { return entry.decode(reader); };
  const auto record = [&reader](DnsResource& entry) { return entry.decode(reader); };
  static_cast<void>(decode_all<DnsQuestion>(links, qdcount, questions, question) &&
                    decode_all<DnsResource>(links, ancount, answers, record) &&
                    decode_all<DnsResource>(links, nscount, authorities, record) &&
                    decode_all<DnsResource>(links, arcount, additionals, record));
  return 0;
}

void DnsMessage::Print() {
  print_all<DnsQuestion>("Question", this, questions);
  print_all<DnsResource>("Answer", this, answers);
  print_all<DnsResource>("Authority", this, authorities);
  print_all<DnsResource>("Additional", this, additionals);
}
