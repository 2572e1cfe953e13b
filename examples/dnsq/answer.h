// What an answer says, for people.
#ifndef DNSQ_ANSWER_H
#define DNSQ_ANSWER_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "network/dns.h"

namespace dnsq {

// ---- The header

bool is_response(int opts);
bool is_truncated(int opts);
int rcode(int opts);
std::string rcode_name(int opts);  ///< "NXDOMAIN"; "RCODE12" for one without a name
std::string_view rcode_meaning(
    int opts);                      ///< "there is no such name"; empty for those without an explanation
std::string opcode_name(int opts);  ///< "QUERY"
std::vector<std::string> flag_names(int opts);  ///< those that are set: "QR", "AA", ...

// ---- Entries

std::string type_name(int type);   ///< "SRV"; "TYPE28" for one that the library has no name for
std::string class_name(int clas);  ///< "IN"; "CLASS5"
/// A name as one word of printable characters: the root is ".", and what is not printable becomes \DDD (RFC 1035 5.1).
std::string name_text(const char* name);
std::string address_text(std::uint32_t address);  ///< host order
/// Whether the library decodes the data of such records.
bool is_decoded(int type);

std::vector<const DnsQuestion*> questions_of(DnsMessage& message);
std::vector<const DnsResource*> records_of(OSIndirectList& section);

/// Whether everything is there that the header announces. Decoding ends early at what does not fit the datagram.
bool is_complete(const DnsMessage& message);

/// Letters count as equal whatever their case, as everywhere in DNS (RFC 4343).
bool same_name(std::string_view a, std::string_view b);

}  // namespace dnsq

#endif
