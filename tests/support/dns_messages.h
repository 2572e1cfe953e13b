/// DNS messages (RFC 1035 4.1) as bytes, well formed or not, and buffers that hold them.
///
/// A name is given as its bytes, so that a test says what is compressed and where a pointer leads:
///
///     DnsWire wire(0x1234, 0x8180);
///     wire.question(dns_name("gw.example.test"), T_A);          // stands at offset 12
///     wire.answer(dns_pointer(12), T_A, 300, rdata_a(0xC0A80001));
///     wire.answer(dns_name("mail", 15), T_A, 300, rdata_a(0xC0A80002));  // mail.example.test
///     OSBuf* buf = dns_buffer(wire.bytes());
///
/// Sections are built in their order: questions, answers, authorities, additionals. The header counts what has been
/// put in, unless counts() makes it say something else. Nothing is checked: what a message must not be can be built.
#ifndef OSKERNEL_TESTS_DNS_MESSAGES_H
#define OSKERNEL_TESTS_DNS_MESSAGES_H

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/buffer.h"
#include "network/dns.h"

namespace oskernel_test {

// ---- Bytes -------------------------------------------------------------------------------------------------

inline std::string dns_byte(unsigned value) { return std::string(1, static_cast<char>(value & 0xFFU)); }
/// 16 bits, big-endian, as every number in a message.
inline std::string dns_word(unsigned value) { return dns_byte(value >> 8U) + dns_byte(value); }
/// 32 bits.
inline std::string dns_long(ULONG value) { return dns_word(value >> 16U) + dns_word(value & 0xFFFFU); }

/// The bytes that hexadecimal digits stand for; blanks between them are left out.
inline std::string from_hex(std::string_view digits) {
  std::string bytes;
  int half = -1;
  for (const char c : digits) {
    const int value = c >= '0' && c <= '9'   ? c - '0'
                      : c >= 'a' && c <= 'f' ? c - 'a' + 10
                      : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                             : -1;
    if (value < 0) continue;
    if (half < 0) {
      half = value;
    } else {
      bytes += static_cast<char>(half * 16 + value);
      half = -1;
    }
  }
  return bytes;
}

// ---- Names (RFC 1035 4.1.4) --------------------------------------------------------------------------------

/// A label of any length from 0 to 255, which its length byte may make something else of.
inline std::string dns_label(std::string_view text) {
  return dns_byte(static_cast<unsigned>(text.size())) + std::string(text);
}

/// The labels of a dotted text without the zero byte behind them. Empty for "" and ".".
inline std::string dns_labels(std::string_view dotted) {
  std::string bytes;
  while (!dotted.empty() && dotted != ".") {
    const std::size_t dot = dotted.find('.');
    bytes += dns_label(dotted.substr(0, dot));
    dotted.remove_prefix(dot == std::string_view::npos ? dotted.size() : dot + 1);
  }
  return bytes;
}

/// A whole name without compression. The root is one zero byte: "" or ".".
inline std::string dns_name(std::string_view dotted) { return dns_labels(dotted) + dns_byte(0); }

/// A pointer to an offset from the message's first byte, of which 14 bits count.
inline std::string dns_pointer(std::size_t offset) {
  return dns_word(0xC000U | (static_cast<unsigned>(offset) & 0x3FFFU));
}

/// Labels, and behind them a pointer to the rest of the name.
inline std::string dns_name(std::string_view dotted, std::size_t rest_at) {
  return dns_labels(dotted) + dns_pointer(rest_at);
}

/// A dotted text of exactly `length` characters in labels of at most `label` characters (2 or more), the first ones
/// full. Where the last label would be empty the one before is a character shorter.
inline std::string long_dns_text(std::size_t length, std::size_t label = 63, char letter = 'a') {
  std::string text;
  while (text.size() < length) {
    std::size_t room = length - text.size();
    if (room > label) {
      // One character of what would be left must be a label of its own behind the dot.
      room = room == label + 1 ? label - 1 : label;
      text += std::string(room, letter) + '.';
    } else {
      text += std::string(room, letter);
    }
    letter = letter == 'z' ? 'a' : static_cast<char>(letter + 1);
  }
  return text;
}

// ---- Data of records ---------------------------------------------------------------------------------------

inline std::string rdata_a(ULONG addr) { return dns_long(addr); }
/// The exchange is given as bytes of a name, like all names here.
inline std::string rdata_mx(unsigned preference, const std::string& exchange) {
  return dns_word(preference) + exchange;
}
inline std::string rdata_srv(unsigned priority, unsigned weight, unsigned port, const std::string& target) {
  return dns_word(priority) + dns_word(weight) + dns_word(port) + target;
}
/// One text of at most 255 characters (RFC 1035 3.3.14).
inline std::string rdata_txt(std::string_view text) { return dns_label(text); }
inline std::string rdata_soa(const std::string& primary, const std::string& mailbox, ULONG serial = 1) {
  return primary + mailbox + dns_long(serial) + dns_long(7200) + dns_long(900) + dns_long(86400) +
         dns_long(300);
}
/// RFC 3403 4.1.
inline std::string rdata_naptr(unsigned order, unsigned preference, std::string_view flags,
                               std::string_view service, std::string_view regexp,
                               const std::string& replacement) {
  return dns_word(order) + dns_word(preference) + dns_label(flags) + dns_label(service) + dns_label(regexp) +
         replacement;
}

// ---- Entries and messages ----------------------------------------------------------------------------------

inline std::string dns_question(const std::string& name, unsigned type, unsigned clas = 1) {
  return name + dns_word(type) + dns_word(clas);
}

/// A record whose RDLENGTH is as long as its data.
inline std::string dns_record(const std::string& name, unsigned type, ULONG ttl, const std::string& rdata,
                              unsigned clas = 1) {
  return name + dns_word(type) + dns_word(clas) + dns_long(ttl) +
         dns_word(static_cast<unsigned>(rdata.size())) + rdata;
}

/// A record whose RDLENGTH says something else.
inline std::string dns_record_of_length(const std::string& name, unsigned type, ULONG ttl,
                                        const std::string& rdata, unsigned rdlength, unsigned clas = 1) {
  return name + dns_word(type) + dns_word(clas) + dns_long(ttl) + dns_word(rdlength) + rdata;
}

class DnsWire {
 public:
  static constexpr std::size_t kHeader_bytes = 12;

  /// 0x8180 is what a recursive name server answers with: QR, RD, RA and no error.
  explicit DnsWire(unsigned id = 1, unsigned opts = 0x8180) : id_(id), opts_(opts) {}

  /// The offset of what is put in next: where a pointer to its name leads.
  std::size_t at() const { return kHeader_bytes + body_.size(); }

  DnsWire& question(const std::string& name, unsigned type, unsigned clas = 1) {
    return put(0, dns_question(name, type, clas));
  }
  DnsWire& answer(const std::string& name, unsigned type, ULONG ttl, const std::string& rdata,
                  unsigned clas = 1) {
    return put(1, dns_record(name, type, ttl, rdata, clas));
  }
  DnsWire& authority(const std::string& name, unsigned type, ULONG ttl, const std::string& rdata,
                     unsigned clas = 1) {
    return put(2, dns_record(name, type, ttl, rdata, clas));
  }
  DnsWire& additional(const std::string& name, unsigned type, ULONG ttl, const std::string& rdata,
                      unsigned clas = 1) {
    return put(3, dns_record(name, type, ttl, rdata, clas));
  }
  /// An entry as it is. Section 0 holds questions, 1 answers, 2 authorities, 3 additional records.
  DnsWire& put(std::size_t section, const std::string& entry) {
    ++counts_[section];
    return raw(entry);
  }
  /// Bytes that no count counts.
  DnsWire& raw(const std::string& bytes) {
    body_ += bytes;
    return *this;
  }
  /// What the header says instead of the truth; comes last.
  DnsWire& counts(unsigned questions, unsigned answers, unsigned authorities, unsigned additionals) {
    counts_[0] = questions;
    counts_[1] = answers;
    counts_[2] = authorities;
    counts_[3] = additionals;
    return *this;
  }

  std::string bytes() const {
    std::string all = dns_word(id_) + dns_word(opts_);
    for (const unsigned count : counts_) all += dns_word(count);
    return all + body_;
  }

 private:
  unsigned id_;
  unsigned opts_;
  unsigned counts_[4] = {0, 0, 0, 0};
  std::string body_;
};

// ---- Buffers -----------------------------------------------------------------------------------------------

/// The bytes in a buffer of the pools, the caller's to free. At most 1600 bytes with the kernel's ordinary
/// configuration; for more there is ExactBuffer.
inline OSBuf* dns_buffer(const std::string& bytes) {
  return OSBuf::Alloc(reinterpret_cast<const UBYTE*>(bytes.data()), static_cast<int>(bytes.size()));
}

/// A buffer whose data ends exactly where its storage on the heap ends, so that the address sanitizer sees the first
/// byte behind. Any length up to 65535. Frees itself.
class ExactBuffer {
 public:
  explicit ExactBuffer(const std::string& bytes) : storage_(new UBYTE[bytes.size()]), buf_(OSBuf::Alloc(0)) {
    std::copy(bytes.begin(), bytes.end(), storage_.get());
    buf_->SetPayload(storage_.get(), static_cast<UWORD>(bytes.size()));
    buf_->data = storage_.get();
    buf_->length = static_cast<UWORD>(bytes.size());
  }
  ~ExactBuffer() { buf_->Free(); }
  ExactBuffer(const ExactBuffer&) = delete;
  ExactBuffer& operator=(const ExactBuffer&) = delete;

  OSBuf* get() const { return buf_; }
  UBYTE* data() const { return buf_->data; }

 private:
  std::unique_ptr<UBYTE[]> storage_;
  OSBuf* buf_;
};

// ---- What has been decoded ---------------------------------------------------------------------------------

/// The entries of a message's list, first to last: listed<DnsResource>(message.answers).
template <class Entry>
std::vector<Entry*> listed(const OSIndirectList& list) {
  std::vector<Entry*> entries;
  for (const OSLink* link = list.next; link != &list; link = link->next) {
    entries.push_back(static_cast<Entry*>(static_cast<OSListObj*>(link->object)));
  }
  return entries;
}

/// Every field of an entry in one line, for comparing and for showing.
inline std::string shown(const DnsQuestion& question) {
  return std::string(question.qname) + " type " + std::to_string(question.qtype) + " class " +
         std::to_string(question.qclass);
}
inline std::string shown(const DnsResource& record) {
  return std::string(record.name) + " type " + std::to_string(record.type) + " class " +
         std::to_string(record.clas) + " ttl " + std::to_string(static_cast<ULONG>(record.ttl)) + " addr " +
         std::to_string(record.addr) + " priority " + std::to_string(record.priority) + " weight " +
         std::to_string(record.weight) + " port " + std::to_string(record.port) + " target '" +
         record.target + "'";
}
/// The entries of all four lists, one line each, with the section in front.
inline std::vector<std::string> shown(const DnsMessage& message) {
  std::vector<std::string> lines;
  for (const DnsQuestion* entry : listed<DnsQuestion>(message.questions))
    lines.push_back("question " + shown(*entry));
  for (const DnsResource* entry : listed<DnsResource>(message.answers))
    lines.push_back("answer " + shown(*entry));
  for (const DnsResource* entry : listed<DnsResource>(message.authorities)) {
    lines.push_back("authority " + shown(*entry));
  }
  for (const DnsResource* entry : listed<DnsResource>(message.additionals)) {
    lines.push_back("additional " + shown(*entry));
  }
  return lines;
}

}  // namespace oskernel_test

#endif
