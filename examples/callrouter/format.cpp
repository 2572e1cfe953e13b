#include "examples/callrouter/format.h"

#include <csv.h>
#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

namespace callrouter {
namespace {

std::string_view status(const Answer& answer) {
  if (answer.malformed()) return "malformed";
  return answer.routed() ? "routed" : "unroutable";
}

// ---- for people: columns that line up

constexpr std::size_t kNumberWidth = 17;
constexpr std::size_t kPrefixWidth = 7;
constexpr std::size_t kDestinationWidth = 38;
constexpr std::size_t kShownBytes = 60;  // of a malformed line

// Pads by characters, not bytes: destinations are UTF-8 (Curaçao, Türkiye).
void append_column(std::string& out, std::string_view text, std::size_t width) {
  const auto shown = static_cast<std::size_t>(std::count_if(
      text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
  out += text;
  out.append(shown < width ? width - shown : 0, ' ');
  out += "  ";
}

class TextFormatter : public Formatter {
 public:
  void append(std::string& out, const Report& report) const override {
    const Answer& answer = report.answer;
    if (answer.malformed()) {
      append_column(out, shorten(report.text), kNumberWidth);
      return append_reason(out, report);
    }
    append_column(out, answer.number.text(), kNumberWidth);
    if (!answer.routed()) {
      return append_reason(out, report);
    }
    append_column(out, answer.row->prefix, kPrefixWidth);
    append_column(out, answer.row->destination, kDestinationWidth);
    out += answer.row->gateway;
    out += '\n';
  }

 private:
  static void append_reason(std::string& out, const Report& report) {
    out += fmt::format("{}: {}", status(report.answer), reason(report.answer));
    if (!report.source.empty()) out += fmt::format(" ({}:{})", report.source, report.line);
    out += '\n';
  }

  static std::string shorten(std::string_view text) {
    if (text.size() <= kShownBytes) return printable(text);
    return printable(text.substr(0, kShownBytes)) + "...";
  }
};

// ---- CSV

// Every field is quoted, which is what the library writes and every reader takes.
void append_field(std::string& out, std::string_view field, char end = ',') {
  const std::size_t at = out.size();
  out.resize(at + 2 * field.size() + 2);
  // The library takes a null pointer, which an empty view may be, for no field at all.
  const char* text = field.empty() ? "" : field.data();
  out.resize(at + csv_write(out.data() + at, out.size() - at, text, field.size()));
  out += end;
}

class CsvFormatter : public Formatter {
 public:
  void header(std::string& out) const override {
    for (const char* name :
         {"number", "prefix", "destination", "gateway", "status", "reason", "input", "file"}) {
      append_field(out, name);
    }
    append_field(out, "line", '\n');
  }

  void append(std::string& out, const Report& report) const override {
    const Answer& answer = report.answer;
    append_field(out, answer.malformed() ? std::string() : answer.number.text());
    append_field(out, answer.routed() ? answer.row->prefix : std::string_view());
    append_field(out, answer.routed() ? answer.row->destination : std::string_view());
    append_field(out, answer.routed() ? answer.row->gateway : std::string_view());
    append_field(out, status(answer));
    append_field(out, reason(answer));
    append_field(out, printable(report.text));
    append_field(out, report.source);
    append_field(out, fmt::format("{}", report.line), '\n');
  }
};

// ---- JSON

class JsonFormatter : public Formatter {
 public:
  void append(std::string& out, const Report& report) const override {
    using Json = nlohmann::ordered_json;
    const Answer& answer = report.answer;
    Json json = {{"number", nullptr}, {"prefix", nullptr}, {"destination", nullptr}, {"gateway", nullptr}};
    if (!answer.malformed()) json["number"] = answer.number.text();
    if (answer.routed()) {
      json["prefix"] = answer.row->prefix;
      json["destination"] = answer.row->destination;
      json["gateway"] = answer.row->gateway;
    }
    json["status"] = status(answer);
    json["reason"] = answer.routed() ? Json(nullptr) : Json(reason(answer));
    json["input"] = report.text;
    json["file"] = report.source;
    json["line"] = report.line;
    // Input is any bytes: what is no UTF-8 becomes the replacement character.
    out += json.dump(-1, ' ', false, Json::error_handler_t::replace);
    out += '\n';
  }
};

}  // namespace

std::unique_ptr<Formatter> make_formatter(Format format) {
  switch (format) {
    case Format::kCsv:
      return std::make_unique<CsvFormatter>();
    case Format::kJson:
      return std::make_unique<JsonFormatter>();
    case Format::kText:
      break;
  }
  return std::make_unique<TextFormatter>();
}

}  // namespace callrouter
