#include "examples/dnsq/answer.h"

#include <fmt/format.h>
#include <strings.h>

#include <iterator>

namespace dnsq {
namespace {

// RFC 1035 4.1.1, RFC 2136 2.2.
struct Rcode {
  const char* name;
  const char* meaning;
};
constexpr Rcode kRcodes[] = {
    {"NOERROR", ""},
    {"FORMERR", "the server does not understand the question"},
    {"SERVFAIL", "the server has failed to answer"},
    {"NXDOMAIN", "there is no such name"},
    {"NOTIMP", "the server does not answer such questions"},
    {"REFUSED", "the server refuses to answer"},
    {"YXDOMAIN", "the name exists and should not"},
    {"YXRRSET", "the records exist and should not"},
    {"NXRRSET", "the records do not exist and should"},
    {"NOTAUTH", "the server is not responsible for the zone"},
    {"NOTZONE", "the name is not in the zone"},
};

constexpr const char* kOpcodes[] = {"QUERY", "IQUERY", "STATUS", nullptr, "NOTIFY", "UPDATE"};

// From the top of the word; RFC 4035 3.1.6 and 3.2.2 for the last two.
struct Flag {
  int bit;
  const char* name;
};
constexpr Flag kFlags[] = {{0x8000, "QR"}, {0x0400, "AA"}, {0x0200, "TC"}, {0x0100, "RD"},
                           {0x0080, "RA"}, {0x0040, "Z"},  {0x0020, "AD"}, {0x0010, "CD"}};

template <class Entry>
std::vector<const Entry*> entries_of(OSIndirectList& list) {
  std::vector<const Entry*> entries;
  OSListIterator walk(&list);
  while (OSListObj* object = walk++) entries.push_back(static_cast<const Entry*>(object));
  return entries;
}

}  // namespace

bool is_response(int opts) { return (opts & 0x8000) != 0; }
bool is_truncated(int opts) { return (opts & 0x0200) != 0; }
int rcode(int opts) { return opts & 0x000F; }

std::string rcode_name(int opts) {
  const auto code = static_cast<std::size_t>(rcode(opts));
  return code < std::size(kRcodes) ? kRcodes[code].name : fmt::format("RCODE{}", code);
}

std::string_view rcode_meaning(int opts) {
  const auto code = static_cast<std::size_t>(rcode(opts));
  return code < std::size(kRcodes) ? kRcodes[code].meaning : "";
}

std::string opcode_name(int opts) {
  const auto code = static_cast<std::size_t>(opts >> 11 & 0x000F);
  const char* name = code < std::size(kOpcodes) ? kOpcodes[code] : nullptr;
  return name != nullptr ? name : fmt::format("OPCODE{}", code);
}

std::vector<std::string> flag_names(int opts) {
  std::vector<std::string> names;
  for (const Flag& flag : kFlags) {
    if ((opts & flag.bit) != 0) names.emplace_back(flag.name);
  }
  return names;
}

std::string type_name(int type) {
  if (type == T_ALL) return "ANY";
  const char* name = GetTypeStr(type);
  return name != nullptr ? name : fmt::format("TYPE{}", type);
}

std::string class_name(int clas) {
  const char* name = GetClassStr(clas);
  return name != nullptr ? name : fmt::format("CLASS{}", clas);
}

std::string name_text(const char* name) {
  if (*name == '\0') return ".";
  std::string text;
  for (; *name != '\0'; ++name) {
    const auto byte = static_cast<unsigned char>(*name);
    if (byte == '\\') {
      text += "\\\\";
    } else if (byte > ' ' && byte <= '~') {
      text += *name;
    } else {
      text += fmt::format("\\{:03}", byte);
    }
  }
  return text;
}

std::string address_text(std::uint32_t address) {
  return fmt::format("{}.{}.{}.{}", address >> 24 & 0xFF, address >> 16 & 0xFF, address >> 8 & 0xFF,
                     address & 0xFF);
}

bool is_decoded(int type) { return type == T_A || type == T_NS || type == T_MX || type == T_SRV; }

std::vector<const DnsQuestion*> questions_of(DnsMessage& message) {
  return entries_of<DnsQuestion>(message.questions);
}

std::vector<const DnsResource*> records_of(OSIndirectList& section) {
  return entries_of<DnsResource>(section);
}

bool is_complete(const DnsMessage& message) {
  return message.questions.Size() == message.qdcount && message.answers.Size() == message.ancount &&
         message.authorities.Size() == message.nscount && message.additionals.Size() == message.arcount;
}

bool same_name(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace dnsq
