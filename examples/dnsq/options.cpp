#include "examples/dnsq/options.h"

#include <fmt/format.h>
#include <strings.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <stdexcept>
#include <vector>

#include "network/dns.h"

#ifndef DNSQ_VERSION
#define DNSQ_VERSION "unknown"
#endif

namespace dnsq {
namespace {

constexpr const char* kDescription =
    "Asks a name server one question and prints the whole answer:\n\n"
    "  dnsq NAME [TYPE] [@SERVER] [--json] [--trace]\n";

constexpr const char* kFooter = R"(
NAME is taken as complete, with a dot at its end or without. TYPE is A when it is not given, and otherwise
A, NS, MD, MF, CNAME, SOA, MB, MG, MR, NULL, WKS, PTR, HINFO, MINFO, MX, TXT, SRV, NAPTR, AXFR, MAILB, MAILA, ANY, or
the number of any other type, written 28 or TYPE28. Of A, NS, MX and SRV records the data are shown as well; behind
the answer stands the address to use, if it brings one: the first A record's, or that of the first server it names.

@SERVER is the name server's IPv4 address or its name; port 53 is asked, over UDP, once. Without it that is the first
IPv4 nameserver of /etc/resolv.conf. @broadcast asks everybody on the local network, and the first answer counts.

Exit codes: 0 there is an answer, and be it that there is no such name; 1 there was none within 5 s; 2 the command line
is in error, or the server's name has no address; 70 the kernel reported a fatal error.)";

constexpr int kMostType = 65535;

// Null for none.
int number_of(const std::string& digits) {
  constexpr std::size_t kMostDigits = 5;
  if (digits.empty() || digits.size() > kMostDigits ||
      digits.find_first_not_of("0123456789") != std::string::npos) {
    return 0;
  }
  const int number = std::stoi(digits);
  return number <= kMostType ? number : 0;
}

int read_type(const std::string& text) {
  if (strcasecmp(text.c_str(), "ANY") == 0) return T_ALL;
  for (int type = 1; type <= T_ALL; ++type) {
    const char* name = GetTypeStr(type);
    if (name != nullptr && strcasecmp(text.c_str(), name) == 0) return type;
  }
  constexpr std::size_t kPrefix = 4;
  const bool prefixed = strncasecmp(text.c_str(), "TYPE", kPrefix) == 0;
  const int number = number_of(prefixed ? text.substr(kPrefix) : text);
  if (number == 0) {
    throw CLI::ValidationError(
        "TYPE", fmt::format("'{}' is no type of records: a name such as SRV, or a number from 1 to {}", text,
                            kMostType));
  }
  return number;
}

NameServer read_server(const std::string& text) {
  try {
    return read_name_server(text);
  } catch (const std::invalid_argument& error) {
    throw CLI::ValidationError("@SERVER", error.what());
  }
}

NameServer default_server() {
  if (const auto configured = configured_name_server()) return *configured;
  throw CLI::ValidationError(
      "@SERVER",
      fmt::format("is needed, because {} names no IPv4 name server; @broadcast asks the local network",
                  kResolverConfiguration));
}

void sort_out(const std::vector<std::string>& words, Options& options) {
  std::optional<std::string> name, type, server;
  for (const std::string& word : words) {
    const bool is_server = word.starts_with('@');
    std::optional<std::string>& place = is_server ? server : !name ? name : type;
    if (place) {
      throw CLI::ValidationError(is_server ? "@SERVER" : "arguments",
                                 is_server ? "stands there more than once"
                                           : fmt::format("NAME and TYPE are enough; what is '{}'?", word));
    }
    place = is_server ? word.substr(1) : word;
  }
  if (!name) throw CLI::ValidationError("NAME", "is required");
  if (name->empty()) throw CLI::ValidationError("NAME", "is empty");
  options.name = without_last_dot(*name);
  if (const std::string why = why_unsendable(options.name); !why.empty()) {
    throw CLI::ValidationError("NAME", "cannot be sent: " + why);
  }
  options.type = type ? read_type(*type) : static_cast<int>(T_A);
  options.server = server ? read_server(*server) : default_server();
}

}  // namespace

std::optional<Options> read_options(int argc, const char* const* argv, int& exit_code) {
  Options options;
  std::vector<std::string> words;
  CLI::App app{kDescription, "dnsq"};
  app.footer(kFooter);
  app.add_option("WORD", words, "NAME, TYPE and @SERVER");
  app.add_flag("--json", options.json, "Print the answer as a JSON object, in one line");
  app.add_flag("--trace", options.trace, "Print what the library says on its console, on standard error");
  app.set_version_flag("--version", "dnsq " DNSQ_VERSION);
  try {
    app.parse(argc, argv);
    sort_out(words, options);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      exit_code = app.exit(error);
    } else {
      std::cerr << "dnsq: " << error.what() << "\nTry dnsq --help\n";
      exit_code = kExitUsage;
    }
    return std::nullopt;
  }
  return options;
}

}  // namespace dnsq
