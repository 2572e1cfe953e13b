#include "examples/dnsq/report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <vector>

#include "examples/dnsq/answer.h"

namespace dnsq {
namespace {

// Columns are as wide as what stands in them, but one long name does not move all others.
constexpr std::size_t kWidestName = 48;

struct Section {
  const char* name;
  std::vector<const DnsResource*> records;
  int announced;
};

std::vector<Section> sections_of(DnsMessage& message) {
  return {{"answer", records_of(message.answers), message.ancount},
          {"authority", records_of(message.authorities), message.nscount},
          {"additional", records_of(message.additionals), message.arcount}};
}

bool leads_to_an_address(int type) { return type == T_A || type == T_NS || type == T_MX || type == T_SRV; }

std::uint32_t seconds(const DnsResource& record) { return static_cast<std::uint32_t>(record.ttl); }

// ---- for people

std::string data_text(const DnsResource& record) {
  switch (record.type) {
    case T_A:
      return address_text(record.addr);
    case T_NS:
      return name_text(record.target);
    case T_MX:
      return fmt::format("{:>5} {}", record.priority, name_text(record.target));
    case T_SRV:
      return fmt::format("{:>5} {:>5} {:>5} {}", record.priority, record.weight, record.port,
                         name_text(record.target));
    default:
      return {};
  }
}

struct Widths {
  std::size_t name = 0, ttl = 0, clas = 0, type = 0;
};

template <class Entry>
void widen(Widths& widths, const char* name, const Entry& type, const Entry& clas) {
  widths.name = std::max(widths.name, std::min(name_text(name).size(), kWidestName));
  widths.type = std::max(widths.type, type_name(type).size());
  widths.clas = std::max(widths.clas, class_name(clas).size());
}

Widths widths_of(const std::vector<const DnsQuestion*>& questions, const std::vector<Section>& sections) {
  Widths widths;
  for (const DnsQuestion* question : questions)
    widen(widths, question->qname, question->qtype, question->qclass);
  for (const Section& section : sections) {
    for (const DnsResource* record : section.records) {
      widen(widths, record->name, record->type, record->clas);
      widths.ttl = std::max(widths.ttl, std::to_string(seconds(*record)).size());
    }
  }
  return widths;
}

std::string row(const Widths& widths, const char* name, const std::string& ttl, int clas, int type,
                const std::string& data) {
  std::string line =
      fmt::format("  {:<{}}  {:>{}}  {:<{}}  {:<{}}  {}", name_text(name), widths.name, ttl, widths.ttl,
                  class_name(clas), widths.clas, type_name(type), widths.type, data);
  line.erase(line.find_last_not_of(' ') + 1);
  return line + "\n";
}

std::string header_text(const Options& options, const DnsMessage& message, double ms) {
  const std::string_view meaning = rcode_meaning(message.opts);
  std::string flags;
  for (const std::string& flag : flag_names(message.opts)) flags += " " + flag;
  const std::string opcode = opcode_name(message.opts);
  return fmt::format("{}{} from {} in {:.1f} ms\nid {}, flags{}{}\n", rcode_name(message.opts),
                     meaning.empty() ? "" : fmt::format(" ({})", meaning), options.server.shown(), ms,
                     message.id, flags.empty() ? " none" : flags,
                     opcode == "QUERY" ? "" : ", opcode " + opcode);
}

// Where GetAddress leads. It asks for no more than the answer brings.
std::string address_line(const Options& options, DnsLookup& lookup) {
  const DnsResource* picked = lookup.GetAddress();
  if (picked == nullptr) {
    return leads_to_an_address(options.type) ? "address: none\n" : "";
  }
  const std::string address = picked->addr != 0 ? address_text(picked->addr) : "none came with the answer";
  if (*picked->target == '\0') return fmt::format("address: {}\n", address);
  const std::string port = picked->type == T_SRV ? fmt::format(" port {}", picked->port) : "";
  return fmt::format("address: {} ({}{})\n", address, name_text(picked->target), port);
}

std::vector<std::string> notes(const DnsMessage& message, std::size_t questions,
                               const std::vector<Section>& sections) {
  std::vector<std::string> notes;
  if (!is_response(message.opts)) notes.emplace_back("this is no response, the QR flag is missing");
  if (is_truncated(message.opts)) {
    notes.emplace_back("the server has cut its answer short (TC), records are missing");
  }
  const auto missing = [&notes](const char* section, int announced, std::size_t decoded) {
    if (static_cast<std::size_t>(announced) == decoded) return;
    notes.push_back(
        fmt::format("{}: {} announced, {} decoded; what follows does not fit the datagram or cannot be read",
                    section, announced, decoded));
  };
  missing("question", message.qdcount, questions);
  if (rcode(message.opts) == 0 && message.ancount == 0) {
    notes.emplace_back("the answer holds no records of this name and type");
  }
  bool undecoded = false;
  for (const Section& section : sections) {
    missing(section.name, section.announced, section.records.size());
    undecoded = undecoded || std::any_of(section.records.begin(), section.records.end(),
                                         [](const DnsResource* record) { return !is_decoded(record->type); });
  }
  if (undecoded) notes.emplace_back("data are decoded of A, NS, MX and SRV records only");
  return notes;
}

// ---- JSON

using Json = nlohmann::ordered_json;

Json json_of(const DnsResource& record) {
  Json json = {{"name", name_text(record.name)},
               {"ttl", seconds(record)},
               {"class", class_name(record.clas)},
               {"type", type_name(record.type)}};
  switch (record.type) {
    case T_A:
      json["address"] = address_text(record.addr);
      break;
    case T_MX:
      json["preference"] = record.priority;
      break;
    case T_SRV:
      json["priority"] = record.priority;
      json["weight"] = record.weight;
      json["port"] = record.port;
      break;
    default:
      break;
  }
  if (is_decoded(record.type) && record.type != T_A) json["target"] = name_text(record.target);
  return json;
}

Json picked_json(DnsLookup& lookup) {
  const DnsResource* picked = lookup.GetAddress();
  if (picked == nullptr) return nullptr;
  Json json = {{"address", nullptr}, {"target", nullptr}, {"port", nullptr}};
  if (picked->addr != 0) json["address"] = address_text(picked->addr);
  if (*picked->target != '\0') json["target"] = name_text(picked->target);
  if (picked->type == T_SRV) json["port"] = picked->port;
  return json;
}

}  // namespace

std::string text_report(const Options& options, DnsLookup& lookup, double ms) {
  DnsMessage& message = *lookup.response;
  const auto questions = questions_of(message);
  const auto sections = sections_of(message);
  const Widths widths = widths_of(questions, sections);
  std::string text = header_text(options, message, ms);
  if (!questions.empty()) text += "\nquestion:\n";
  for (const DnsQuestion* question : questions) {
    text += row(widths, question->qname, "", question->qclass, question->qtype, "");
  }
  for (const Section& section : sections) {
    if (!section.records.empty()) text += fmt::format("\n{}:\n", section.name);
    for (const DnsResource* record : section.records) {
      text += row(widths, record->name, std::to_string(seconds(*record)), record->clas, record->type,
                  data_text(*record));
    }
  }
  std::string end = address_line(options, lookup);
  for (const std::string& note : notes(message, questions.size(), sections)) end += "note: " + note + "\n";
  return end.empty() ? text : text + "\n" + end;
}

std::string json_report(const Options& options, DnsLookup& lookup, double ms) {
  DnsMessage& message = *lookup.response;
  Json questions = Json::array();
  for (const DnsQuestion* question : questions_of(message)) {
    questions.push_back({{"name", name_text(question->qname)},
                         {"class", class_name(question->qclass)},
                         {"type", type_name(question->qtype)}});
  }
  Json json = {{"name", options.name},
               {"type", type_name(options.type)},
               {"server", options.server.text.empty() ? Json(nullptr) : Json(options.server.text)},
               {"ms", std::round(ms * 1000) / 1000},
               {"id", message.id},
               {"opcode", opcode_name(message.opts)},
               {"rcode", rcode_name(message.opts)},
               {"flags", flag_names(message.opts)},
               {"complete", is_complete(message) && !is_truncated(message.opts)},
               {"announced",
                {{"question", message.qdcount},
                 {"answer", message.ancount},
                 {"authority", message.nscount},
                 {"additional", message.arcount}}},
               {"question", std::move(questions)}};
  for (const Section& section : sections_of(message)) {
    Json& records = json[section.name] = Json::array();
    for (const DnsResource* record : section.records) records.push_back(json_of(*record));
  }
  json["picked"] = picked_json(lookup);
  // A name on the command line is any bytes.
  return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace dnsq
