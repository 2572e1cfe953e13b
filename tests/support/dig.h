/// What `dig` says of a name server's answers, in the words of dns_messages.h.
#ifndef OSKERNEL_TESTS_DIG_H
#define OSKERNEL_TESTS_DIG_H

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "dns_messages.h"
#include "dns_zone.h"
#include "name_server.h"
#include "net_namespace.h"
#include "network/dns.h"

namespace oskernel_test {

// ---- Names and mnemonics as text (RFC 1035 5.1, RFC 3597) ----------------------------------------------------------

/// The labels of a name in which backslashes escape; none for the root.
inline std::vector<std::string> labels_of(std::string_view name) {
  std::vector<std::string> labels;
  std::string label;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (name[i] == '.') {
      if (!label.empty()) labels.push_back(label);
      label.clear();
    } else if (name[i] == '\\' && i + 3 < name.size() && name[i + 1] >= '0' && name[i + 1] <= '9') {
      label += static_cast<char>(std::atoi(std::string(name.substr(i + 1, 3)).c_str()));
      i += 3;
    } else {
      if (name[i] == '\\' && i + 1 < name.size()) ++i;
      label += name[i];
    }
  }
  if (!label.empty()) labels.push_back(label);
  return labels;
}
inline std::string wire_name_of(std::string_view name) {
  std::string bytes;
  for (const std::string& label : labels_of(name)) bytes += dns_label(label);
  return bytes + dns_byte(0);
}
/// The labels as they are with dots between them, as far as a zero byte in one of them.
inline std::string plain_text_of(std::string_view name) {
  std::string text;
  for (const std::string& label : labels_of(name)) text += (text.empty() ? "" : ".") + label;
  return text.substr(0, text.find('\0'));
}

/// The number of a type; 0, and a failure of the test, for a mnemonic that no zone here uses.
inline int type_number(const std::string& mnemonic) {
  static const std::map<std::string, int> kNumbers = {
      {"A", 1},     {"NS", 2},    {"CNAME", 5}, {"SOA", 6},    {"MB", 7},     {"MG", 8},    {"MR", 9},
      {"NULL", 10}, {"WKS", 11},  {"PTR", 12},  {"HINFO", 13}, {"MINFO", 14}, {"MX", 15},   {"TXT", 16},
      {"RP", 17},   {"AAAA", 28}, {"SRV", 33},  {"NAPTR", 35}, {"DNAME", 39}, {"ANY", 255}, {"CAA", 257}};
  if (mnemonic.starts_with("TYPE")) return std::atoi(mnemonic.c_str() + 4);
  const auto found = kNumbers.find(mnemonic);
  EXPECT_NE(found, kNumbers.end()) << "which number is " << mnemonic << "?";
  return found == kNumbers.end() ? 0 : found->second;
}
inline int class_number(const std::string& mnemonic) { return mnemonic == "CH" ? 3 : 1; }

// ---- Answers -------------------------------------------------------------------------------------------------------

/// One answer as dig printed it.
struct DigAnswer {
  std::string text;                  ///< its lines
  int opts = 0;                      ///< as DnsMessage
  int counts[4] = {0, 0, 0, 0};      ///< questions, answers, authorities, additional records
  std::vector<std::string> entries;  ///< as shown(DnsMessage) writes them
};

namespace dig_detail {

/// The number behind a word in a line: number_behind(";; flags: qr; QUERY: 1", "QUERY: ") is 1.
inline int number_behind(const std::string& line, const std::string& word) {
  const std::size_t at = line.find(word);
  EXPECT_NE(at, std::string::npos) << word << "in " << line;
  return at == std::string::npos ? -1 : std::atoi(line.c_str() + at + word.size());
}

/// RFC 1035 4.1.1 and RFC 6895 2.3.
inline int rcode_number(const std::string& line) {
  static const char* const kNames[] = {"NOERROR", "FORMERR", "SERVFAIL", "NXDOMAIN",
                                       "NOTIMP",  "REFUSED", "YXDOMAIN"};
  for (int i = 0; i < static_cast<int>(std::size(kNames)); ++i) {
    if (line.find(std::string("status: ") + kNames[i] + ",") != std::string::npos) return i;
  }
  ADD_FAILURE() << "which error is in " << line;
  return -1;
}

inline int flag_bits(const std::string& line) {
  static const std::map<std::string, int> kBits = {{"qr", 0x8000}, {"aa", 0x0400}, {"tc", 0x0200},
                                                   {"rd", 0x0100}, {"ra", 0x0080}, {"ad", 0x0020},
                                                   {"cd", 0x0010}};
  constexpr std::string_view kHead = ";; flags: ";
  std::istringstream words(line.substr(kHead.size(), line.find(';', kHead.size()) - kHead.size()));
  int bits = 0;
  for (std::string word; words >> word;) {
    EXPECT_TRUE(kBits.contains(word)) << "which flag is " << word << " in " << line;
    if (kBits.contains(word)) bits |= kBits.at(word);
  }
  return bits;
}

inline void set_text(char (&field)[256], const std::string& name) {
  std::snprintf(field, sizeof field, "%s", plain_text_of(name).c_str());
}

/// "gw.example.	3600	IN	SRV	10 60 5060 gw1.example."
///   returns   what shown() makes of it
inline std::string read_record(const std::string& line) {
  std::istringstream words(line);
  std::string name, clas, type, data;
  ULONG ttl = 0;
  words >> name >> ttl >> clas >> type;
  EXPECT_FALSE(words.fail()) << line;
  DnsResource record;
  set_text(record.name, name);
  record.type = type_number(type);
  record.clas = class_number(clas);
  record.ttl = static_cast<int>(ttl);
  const char* const mnemonic = GetTypeStr(record.type);
  EXPECT_EQ(type, mnemonic != nullptr ? mnemonic : type) << line;
  if (type == "A") {
    words >> data;
    record.addr = ntohl(inet_addr(data.c_str()));
  } else if (type == "NS") {
    words >> data;
    set_text(record.target, data);
  } else if (type == "MX") {
    words >> record.priority >> data;
    set_text(record.target, data);
  } else if (type == "SRV") {
    words >> record.priority >> record.weight >> record.port >> data;
    set_text(record.target, data);
  }
  EXPECT_FALSE(words.fail()) << line;
  return shown(record);
}

}  // namespace dig_detail

/// Asks the name server every question with dig: without EDNS, over UDP, and again when a datagram is late.
///   returns   as many answers as there are questions, in their order; fewer only when the test fails
inline std::vector<DigAnswer> dig(const NameServer& server, const std::vector<ZoneQuestion>& questions) {
  using namespace dig_detail;
  std::string batch;
  for (const ZoneQuestion& question : questions) {
    batch += question.name + " " + question.type + " " + question.clas + "\n";
  }
  Process program({"dig", "-r", "@127.0.0.1", "+noall", "+comments", "+question", "+answer", "+authority",
                   "+additional", "+noedns", "+noadflag", "+notcp", "+ignore", "+tries=5", "+timeout=5", "-f",
                   server.write("questions", batch)});
  EXPECT_EQ(program.wait(), 0) << program.output();

  std::vector<DigAnswer> answers;
  std::istringstream lines(program.output());
  std::string section;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(";; Got answer:")) {
      answers.emplace_back();
      section.clear();
    }
    if (line.empty() || answers.empty()) continue;
    DigAnswer& answer = answers.back();
    answer.text += line + "\n";
    if (line.starts_with(";; ->>HEADER<<-")) {
      EXPECT_NE(line.find("opcode: QUERY,"), std::string::npos) << line;
      answer.opts |= rcode_number(line);
    } else if (line.starts_with(";; flags: ")) {
      answer.opts |= flag_bits(line);
      const char* const words[] = {"QUERY: ", "ANSWER: ", "AUTHORITY: ", "ADDITIONAL: "};
      for (int i = 0; i < 4; ++i) answer.counts[i] = number_behind(line, words[i]);
    } else if (line.starts_with(";; ") && line.ends_with(" SECTION:")) {
      section = line.substr(3, line.find(' ', 3) - 3);
      std::transform(section.begin(), section.end(), section.begin(),
                     [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    } else if (section == "question" && line[0] == ';') {
      std::istringstream words(line.substr(1));
      std::string name, clas, type;
      words >> name >> clas >> type;
      DnsQuestion question;
      set_text(question.qname, name);
      question.qtype = type_number(type);
      question.qclass = class_number(clas);
      answer.entries.push_back("question " + shown(question));
    } else if (line[0] != ';') {
      answer.entries.push_back(section + " " + read_record(line));
    }
  }
  EXPECT_EQ(answers.size(), questions.size()) << program.output();
  return answers;
}

}  // namespace oskernel_test

#endif
