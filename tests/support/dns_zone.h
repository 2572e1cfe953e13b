/// A zone for real name servers, and what to ask them about it. It holds what answers may look like: every type of
/// record that is decoded and many that are not, glue, chains of aliases, the root as a name, names as long as names
/// may be, and as many records as a datagram of 512 bytes holds, or more.
#ifndef OSKERNEL_TESTS_DNS_ZONE_H
#define OSKERNEL_TESTS_DNS_ZONE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace oskernel_test {

inline constexpr char kZone[] = "zone.example";

/// A question as a master file and dig would write it (RFC 1035 5.1): backslashes escape. The name has no dot at its
/// end, but for the root.
struct ZoneQuestion {
  std::string name;
  std::string type;
  std::string clas = "IN";
};

/// A name of 253 characters, the most there are in text, with the zone's at its end: four labels, three of them of 63
/// characters.
inline std::string longest_name(char letter) {
  return std::string(63, letter) + '.' + std::string(63, letter) + '.' + std::string(63, letter) + '.' +
         std::string(48, letter) + '.' + kZone;
}
/// Another one, with as many labels as there can be in the zone.
inline std::string longest_name_of_short_labels() {
  std::string name = "aa.";
  for (int i = 0; i < 119; ++i) name += "b.";
  return name + kZone;
}

/// The zone as a master file; "@" is its name, and names without a dot at their end are below it.
inline std::string zone_text() {
  std::string text = std::string("$ORIGIN ") + kZone + ".\n$TTL 3600\n";
  text += R"(
@           SOA ns1 first\.last 2024010101 7200 900 1209600 300
@           NS ns1
@           NS ns2
@           NS names.elsewhere.example.
@           A 192.0.2.100
@           MX 10 mx1
@           MX 20 mx2
@           MX 65535 mx.elsewhere.example.
@           TXT "v=spf1 -all"
@           CAA 0 issue "ca.example"
ns1         A 192.0.2.1
ns2         A 192.0.2.2
ns2         AAAA 2001:db8::2
mx1         A 192.0.2.11
mx1         A 192.0.2.12
mx2         A 192.0.2.13

; Addresses and times to live with all and with no bits.
www         A 203.0.113.7
zero        A 0.0.0.0
ones        A 255.255.255.255
high        A 128.0.0.1
brief 0     A 192.0.2.20
lasting 2147483647 A 192.0.2.21

; Aliases.
alias       CNAME alias2
alias2      CNAME alias3
alias3      CNAME www
dangling    CNAME nobody
away        CNAME host.elsewhere.example.
round1      CNAME round2
round2      CNAME round1
tree        DNAME zone.example.

; Services, with glue, without, and the root for "there is none".
_sip._tcp   SRV 1 2 5070 gw1
_sip._udp   SRV 10 60 5060 gw1
_sip._udp   SRV 10 61 5061 gw2
_sip._udp   SRV 20 0 65535 gw3
_far._udp   SRV 0 1 5060 gw.elsewhere.example.
_none._udp  SRV 0 0 0 .
_top._udp   SRV 65535 65535 65535 gw3
_long._udp  SRV 1 1 5060 LONGEST-A
gw1         A 198.51.100.1
gw2         A 198.51.100.2
gw2         AAAA 2001:db8::102
gw3         A 198.51.100.3
mail        MX 5 mx2
nomail      MX 0 .
longmail    MX 1 LONGEST-A
phone       NAPTR 100 10 "u" "E2U+sip" "!^.*$!sip:info@zone.example!" .
phone       NAPTR 100 20 "s" "SIP+D2U" "" _sip._udp

; Types whose data are not decoded.
text        TXT "one" "two; three" "with \"quotes\" and \\" ""
host        HINFO "ARM" "Linux"
host        RP admin text
host        WKS 192.0.2.30 TCP 25
host        PTR www
old         MB www
old         MG www
old         MR www
old         MINFO admin admin
null        TYPE10 \# 4 00ff0001
new         TYPE65280 \# 3 010203
empty       TYPE65281 \# 0

; Names of any bytes.
sp\032ace       A 192.0.2.40
one\.label      A 192.0.2.41
nul\000byte     A 192.0.2.42
high\200\255    A 192.0.2.43
MiXed           A 192.0.2.44
back\\slash     A 192.0.2.45
odd             MX 1 one\.label

; Another zone's names.
sub         NS ns.sub
sub         NS ns2.sub
ns.sub      A 192.0.2.50
ns2.sub     A 192.0.2.51
*.wild      A 192.0.2.60
*.wild      MX 1 mail.wild

; Names as long as they may be.
LONGEST-A   A 192.0.2.70
LONGEST-B   CNAME LONGEST-A
LONGEST-C   NS LONGEST-D
LONGEST-D   A 192.0.2.71
SHORT-LABELS A 192.0.2.72
longalias   CNAME LONGEST-A
)";
  const auto replace_all = [&text](std::string_view from, const std::string& to) {
    for (std::size_t at; (at = text.find(from)) != std::string::npos;) text.replace(at, from.size(), to);
  };
  for (const char letter : {'A', 'B', 'C', 'D'}) {
    replace_all(std::string("LONGEST-") + letter, longest_name(static_cast<char>(letter - 'A' + 'a')) + '.');
  }
  replace_all("SHORT-LABELS", longest_name_of_short_labels() + '.');

  // "f.zone.example" takes 16 bytes: with the header and the question 32, and each address another 16.
  const auto addresses = [&text](const std::string& name, int count) {
    for (int i = 1; i <= count; ++i) text += name + " A 10.0.0." + std::to_string(i) + "\n";
  };
  addresses("f", 30);  // 512 bytes
  addresses("g", 31);  // one too many
  addresses("h", 28);  // some room for what else there is to say
  addresses("many", 90);
  for (int i = 1; i <= 14; ++i) {
    const std::string n = std::to_string(i);
    text += "_many._udp SRV " + n + " 0 " + n + " gw-" + n + "\ngw-" + n + " A 10.0.1." + n + "\n";
    text += "manymail MX " + n + " gw-" + n + "\n";
    text += "manysub NS ns" + n + ".manysub\nns" + n + ".manysub A 10.0.2." + n + "\n";
  }
  for (int i = 0; i < 3; ++i) {
    text += "bigtext TXT \"" + std::string(255, static_cast<char>('a' + i)) + "\"\n";
  }
  return text;
}

inline std::vector<ZoneQuestion> zone_questions() {
  std::vector<ZoneQuestion> questions;
  const auto ask = [&questions](const std::string& name, std::initializer_list<const char*> types) {
    for (const char* type : types) questions.push_back({name + '.' + kZone, type});
  };
  for (const char* type : {"SOA", "NS", "A", "MX", "TXT", "CAA", "AAAA", "ANY"}) {
    questions.push_back({kZone, type});
  }
  for (const char* name : {"www", "zero", "ones", "high", "brief", "lasting"}) ask(name, {"A"});
  ask("gw2", {"AAAA"});
  ask("www", {"MX", "TXT"});  // the name is there, the type is not
  for (const char* name : {"alias", "dangling", "away", "round1", "www.tree", "tree"}) ask(name, {"A"});
  ask("alias", {"CNAME", "SRV"});
  ask("www.tree", {"CNAME"});
  ask("tree", {"TYPE39"});
  for (const char* name :
       {"_sip._tcp", "_sip._udp", "_far._udp", "_none._udp", "_top._udp", "_long._udp", "_many._udp"}) {
    ask(name, {"SRV"});
  }
  for (const char* name : {"mail", "nomail", "longmail", "manymail", "odd", "x.wild"}) ask(name, {"MX"});
  ask("phone", {"NAPTR", "ANY"});
  ask("text", {"TXT"});
  ask("host", {"HINFO", "RP", "WKS", "PTR", "ANY"});
  ask("old", {"MB", "MG", "MR", "MINFO", "ANY"});
  ask("null", {"TYPE10"});
  ask("new", {"TYPE65280"});
  ask("empty", {"TYPE65281"});
  for (const char* name : {R"(sp\032ace)", R"(one\.label)", R"(nul\000byte)", R"(high\200\255)", "MiXed",
                           "mixed", "mIxEd", R"(back\\slash)"}) {
    ask(name, {"A"});
  }
  ask("x.wild", {"A"});
  ask("sub", {"NS"});
  ask("host.sub", {"A", "SRV"});
  ask("manysub", {"A"});
  for (const char letter : {'a', 'b', 'c'}) questions.push_back({longest_name(letter), "A"});
  questions.push_back({longest_name('e'), "A"});
  questions.push_back({longest_name_of_short_labels(), "A"});
  ask("longalias", {"A", "CNAME"});
  for (const char* name : {"f", "g", "h", "many"}) ask(name, {"A"});
  ask("bigtext", {"TXT"});
  ask("nobody", {"A", "SRV"});
  // What it does not serve.
  questions.push_back({"elsewhere.example", "A"});
  questions.push_back({".", "NS"});
  // Another class: what the server says of itself.
  questions.push_back({"version.bind", "TXT", "CH"});
  return questions;
}

}  // namespace oskernel_test

#endif
