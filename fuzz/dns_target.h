/// DNS messages: any datagram, decoded and printed, beside a reference that looks at one byte after the other.
///
/// The input is the datagram.
#ifndef OSKERNEL_FUZZ_DNS_TARGET_H
#define OSKERNEL_FUZZ_DNS_TARGET_H

#include <cstdarg>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz/segments.h"
#include "network/dns.h"

namespace oskernel_fuzz {

/// A question or a record as the reference has it.
struct ReferenceEntry {
  std::string name;
  unsigned type = 0;
  unsigned clas = 0;
  unsigned ttl = 0;
  unsigned addr = 0;
  unsigned priority = 0;
  unsigned weight = 0;
  unsigned port = 0;
  std::string target;
  std::size_t at = 0;     // where it begins
  std::size_t bytes = 0;  // how many it takes
};

/// What RFC 1035 4.1 and the comments in dns.h say.
class ReferenceDecoder {
 public:
  explicit ReferenceDecoder(const std::string& bytes) : bytes_(bytes), seen_(bytes.size(), 0) {
    for (unsigned& number : header) {
      if (!word(at_, &number)) return;
      at_ += 2;
    }
    for (std::size_t section = 0; section < 4; ++section) {
      for (unsigned i = 0; i < header[2 + section]; ++i) {
        ReferenceEntry entry;
        entry.at = at_;
        if (!(section == 0 ? question(&entry) : record(&entry))) return;
        entry.bytes = at_ - entry.at;
        sections[section].push_back(entry);
      }
    }
  }

  unsigned header[6] = {0, 0, 0, 0, 0, 0};
  std::vector<ReferenceEntry> sections[4];

 private:
  static constexpr std::size_t kMostCharacters = 255;

  bool byte(std::size_t at, unsigned* value) const {
    if (at >= bytes_.size()) return false;
    *value = static_cast<unsigned char>(bytes_[at]);
    return true;
  }
  bool word(std::size_t at, unsigned* value) const {
    unsigned high = 0;
    unsigned low = 0;
    if (!byte(at, &high) || !byte(at + 1, &low)) return false;
    *value = high << 8U | low;
    return true;
  }
  bool long_word(std::size_t at, unsigned* value) const {
    unsigned high = 0;
    unsigned low = 0;
    if (!word(at, &high) || !word(at + 2, &low)) return false;
    *value = high << 16U | low;
    return true;
  }

  /// A name at *at, which is moved behind it. A pointer that has been followed before leads round in circles.
  bool name(std::size_t* at, std::string* text) {
    ++names_;
    std::size_t from = *at;
    bool jumped = false;
    bool first_label = true;
    text->clear();
    for (;;) {
      unsigned value = 0;
      if (!byte(from, &value)) return false;
      if (value == 0) {
        if (!jumped) *at = from + 1;
        return true;
      }
      if (value >= 0xC0) {
        unsigned low = 0;
        if (!byte(from + 1, &low) || seen_[from] == names_) return false;
        seen_[from] = names_;
        if (!jumped) *at = from + 2;
        jumped = true;
        from = (value - 0xC0) * 256 + low;
        continue;
      }
      if (!first_label) text->push_back('.');
      first_label = false;
      for (unsigned i = 0; i < value; ++i) {
        unsigned character = 0;
        if (!byte(++from, &character)) return false;
        text->push_back(static_cast<char>(character));
      }
      if (text->size() > kMostCharacters) return false;
      ++from;
    }
  }

  bool question(ReferenceEntry* entry) {
    if (!name(&at_, &entry->name) || !word(at_, &entry->type) || !word(at_ + 2, &entry->clas)) return false;
    at_ += 4;
    return true;
  }
  bool record(ReferenceEntry* entry) {
    unsigned length = 0;
    if (!name(&at_, &entry->name) || !word(at_, &entry->type) || !word(at_ + 2, &entry->clas) ||
        !long_word(at_ + 4, &entry->ttl) || !word(at_ + 8, &length)) {
      return false;
    }
    std::size_t data = at_ + 10;
    at_ = data + length;
    if (at_ > bytes_.size()) return false;
    switch (entry->type) {
      case 1:
        return long_word(data, &entry->addr);
      case 2:
        return name(&data, &entry->target);
      case 15:
        if (!word(data, &entry->priority)) return false;
        data += 2;
        return name(&data, &entry->target);
      case 33:
        if (!word(data, &entry->priority) || !word(data + 2, &entry->weight) ||
            !word(data + 4, &entry->port)) {
          return false;
        }
        data += 6;
        return name(&data, &entry->target);
      default:
        return true;
    }
  }

  const std::string& bytes_;
  std::size_t at_ = 0;
  unsigned names_ = 0;
  std::vector<unsigned> seen_;  // by offset: which name a pointer was last followed for
};

/// A console that keeps what is printed and takes no fatal report.
class PrintedLines : public OSConsole {
 public:
  void vPrint(const char* format, va_list arguments) override OSKERNEL_PRINTF(2, 0) {
    va_list again;
    va_copy(again, arguments);
    std::string line(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, format, again)) + 1, '\0');
    va_end(again);
    std::vsnprintf(line.data(), line.size(), format, arguments);
    line.pop_back();
    lines.push_back(line);
  }
  void Fatal(const char* format, ...) override OSKERNEL_PRINTF(2, 3) {
    report("a fatal report", format, "none");
  }

  std::vector<std::string> lines;
};

/// The lines that the messages' and entries' Print make, put together piece by piece.
class ReferencePrinter {
 public:
  ReferencePrinter(const DnsMessage* message, const ReferenceDecoder& reference) : reference_(reference) {
    const char* const headings[] = {"Question:", "Answer:", "Authority:", "Additional:"};
    const OSIndirectList* const lists[] = {&message->questions, &message->answers, &message->authorities,
                                           &message->additionals};
    for (std::size_t section = 0; section < 4; ++section) {
      if (reference_.sections[section].empty()) continue;
      lines.push_back("DNS: " + address(message) + " " + headings[section]);
      const OSLink* link = lists[section]->next;
      for (const ReferenceEntry& entry : reference_.sections[section]) {
        lines.push_back("DNS: " + address(link->object) + "  " +
                        (section == 0 ? question(entry) : record(entry)));
        link = link->next;
      }
    }
  }

  std::vector<std::string> lines;

 private:
  static std::string address(const void* object) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", object);
    return text;
  }
  /// The console sees a text up to its first zero byte.
  static std::string seen(const std::string& name) { return name.c_str(); }
  static std::string left(const std::string& text, std::size_t width) {
    return text + std::string(text.size() < width ? width - text.size() : 0, ' ');
  }
  static std::string right(unsigned number, std::size_t width) {
    const std::string text = std::to_string(number);
    return std::string(text.size() < width ? width - text.size() : 0, ' ') + text;
  }
  static std::string type_text(unsigned type) {
    static const char* const kTypes[] = {"A",  "NS",   "MD",  "MF",  "CNAME", "SOA",   "MB", "MG",
                                         "MR", "NULL", "WKS", "PTR", "HINFO", "MINFO", "MX", "TXT"};
    if (type >= 1 && type <= 16) return kTypes[type - 1];
    switch (type) {
      case 33:
        return "SRV";
      case 35:
        return "NAPTR";
      case 252:
        return "AXFR";
      case 253:
        return "MAILB";
      case 254:
        return "MAILA";
      case 255:
        return "*";
      default:
        return "(null)";
    }
  }
  static std::string class_text(unsigned clas) {
    static const char* const kClasses[] = {"IN", "CS", "CH", "HS"};
    if (clas >= 1 && clas <= 4) return kClasses[clas - 1];
    return clas == 255 ? "*" : "(null)";
  }
  static std::string question(const ReferenceEntry& entry) {
    return seen(entry.name) + ", type " + type_text(entry.type) + ", class " + class_text(entry.clas);
  }
  static std::string record(const ReferenceEntry& entry) {
    const std::string line = left(seen(entry.name), 20) + " " + right(entry.ttl, 7) + " " +
                             class_text(entry.clas) + " " + type_text(entry.type);
    switch (entry.type) {
      case 1: {
        std::string dotted;
        for (unsigned shift = 32; shift > 0; shift -= 8) {
          dotted += (shift == 32 ? "" : ".") + std::to_string(entry.addr >> (shift - 8) & 0xFFU);
        }
        return line + " " + dotted;
      }
      case 2:
        return line + " " + seen(entry.target);
      case 15:
        return line + " " + right(entry.priority, 3) + " " + seen(entry.target);
      case 33:
        return line + " " + right(entry.priority, 3) + " " + right(entry.weight, 3) + " " +
               right(entry.port, 3) + " " + seen(entry.target);
      default:
        return line;
    }
  }

  const ReferenceDecoder& reference_;
};

/// A name may have zero bytes in its labels, so it is compared byte by byte, and its end, too.
inline void expect_text(const char (&field)[256], const std::string& expected) {
  expect(expected.size() < sizeof field, "a name fits its field");
  if (std::memcmp(field, expected.c_str(), expected.size() + 1) != 0) report("names differ", field, expected);
}

inline void expect_number(const char* what, long received, long expected) {
  if (received != expected) report(what, std::to_string(received), std::to_string(expected));
}

inline void expect_question(const DnsQuestion& question, const ReferenceEntry& expected) {
  expect_text(question.qname, expected.name);
  expect_number("qtype", question.qtype, expected.type);
  expect_number("qclass", question.qclass, expected.clas);
}

inline void expect_record(const DnsResource& record, const ReferenceEntry& expected) {
  expect_text(record.name, expected.name);
  expect_text(record.target, expected.target);
  expect_number("type", record.type, expected.type);
  expect_number("class", record.clas, expected.clas);
  expect_number("ttl", static_cast<unsigned>(record.ttl), expected.ttl);
  expect_number("addr", record.addr, expected.addr);
  expect_number("priority", record.priority, expected.priority);
  expect_number("weight", record.weight, expected.weight);
  expect_number("port", record.port, expected.port);
}

/// An entry by itself, which the reference has found whole: nothing outside of the datagram is needed for it.
inline void expect_alone(UBYTE* msg, const ReferenceEntry& expected, bool is_question) {
  char text[256];
  const int name_bytes = GetDomain(msg + expected.at, msg, text);
  expect(name_bytes > 0 && name_bytes < static_cast<int>(expected.bytes), "a name takes a part of its entry");
  expect_text(text, expected.name);
  expect_number("length", GetDomainLength(msg + expected.at, msg), static_cast<long>(expected.name.size()));
  int bytes = 0;
  if (is_question) {
    DnsQuestion question;
    bytes = question.Decode(msg + expected.at, msg);
    expect_question(question, expected);
  } else {
    DnsResource record;
    bytes = record.Decode(msg + expected.at, msg);
    expect_record(record, expected);
  }
  expect_number("bytes of an entry", bytes, static_cast<long>(expected.bytes));
}

inline void expect_message(const DnsMessage& message, const ReferenceDecoder& reference) {
  const int header[] = {message.id,      message.opts,    message.qdcount,
                        message.ancount, message.nscount, message.arcount};
  for (std::size_t i = 0; i < 6; ++i) expect_number("header", header[i], reference.header[i]);
  const OSIndirectList* const lists[] = {&message.questions, &message.answers, &message.authorities,
                                         &message.additionals};
  for (std::size_t section = 0; section < 4; ++section) {
    const std::vector<ReferenceEntry>& expected = reference.sections[section];
    expect(expected.size() <= reference.header[2 + section], "no more entries than announced");
    expect_number("entries", lists[section]->number_in_list, static_cast<long>(expected.size()));
    const OSLink* link = lists[section]->next;
    for (const ReferenceEntry& entry : expected) {
      expect(link != lists[section], "the list holds as many as it counts");
      auto* const object = static_cast<OSListObj*>(link->object);
      if (section == 0) {
        expect_question(*static_cast<DnsQuestion*>(object), entry);
      } else {
        expect_record(*static_cast<DnsResource*>(object), entry);
      }
      link = link->next;
    }
    expect(link == lists[section], "the list holds no more than it counts");
  }
}

inline int run_dns(const std::uint8_t* input, std::size_t size) {
  constexpr std::size_t kMostBytes = 65535;  // of a buffer
  Kernel::start();
  const Inventory before;
  const ULONG links_before = OSLink::link_pool_size;
  const std::string bytes(reinterpret_cast<const char*>(input), std::min(size, kMostBytes));
  const ReferenceDecoder reference(bytes);

  // The datagram ends where its storage ends, so that the address sanitizer sees a byte too many.
  const std::unique_ptr<UBYTE[]> storage(new UBYTE[bytes.size()]);
  std::copy(bytes.begin(), bytes.end(), storage.get());
  OSBuf* const buf = OSBuf::Alloc(0);
  buf->SetPayload(storage.get(), static_cast<UWORD>(bytes.size()));
  buf->data = storage.get();
  buf->length = static_cast<UWORD>(bytes.size());
  {
    DnsMessage message;
    expect(message.Decode(buf) == 0, "decoding returns 0");
    expect(buf->data == storage.get() && buf->length == bytes.size(), "the buffer is only lent");
    expect_message(message, reference);

    PrintedLines console;
    OSConsole* const console_before = Console;
    Console = &console;
    message.Print();
    Console = console_before;
    const ReferencePrinter printed(&message, reference);
    expect_number("lines", static_cast<long>(console.lines.size()), static_cast<long>(printed.lines.size()));
    for (std::size_t i = 0; i < console.lines.size(); ++i) {
      if (console.lines[i] != printed.lines[i]) report("lines differ", console.lines[i], printed.lines[i]);
    }
  }
  for (std::size_t section = 0; section < 4; ++section) {
    for (const ReferenceEntry& entry : reference.sections[section])
      expect_alone(storage.get(), entry, section == 0);
  }
  expect(std::equal(bytes.begin(), bytes.end(), storage.get(),
                    [](char sent, UBYTE held) { return static_cast<UBYTE>(sent) == held; }),
         "the datagram is as it was");
  buf->Free();
  before.check();
  // The pool grows by whole blocks, which stay.
  expect((OSLink::link_pool_size - links_before) % static_cast<ULONG>(KERNELCFG->link_qty) == 0,
         "every link has come home");
  return 0;
}

}  // namespace oskernel_fuzz

#endif
