#include "examples/callroute/options.h"

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

#ifndef CALLROUTE_VERSION
#define CALLROUTE_VERSION "unknown"
#endif

namespace callroute {
namespace {

constexpr const char* kDescription = "Asks a call router that serves the network where numbers go.";

constexpr const char* kFooter = R"(
Numbers come from the command line or, one a line, from standard input. Each answer is a line on standard output,
in the order of the numbers: number, prefix, destination and gateway, or the reason why there is no route.

--load generates calls from the numbering plan, checks that every answer is the one that the plan gives, and ends
with calls per second and the latency of a call: median, 99th percentile and maximum.

With --tls the router must show a certificate of one of the CAs in the file of --ca, and with --peer-name the very
one: SUBJECT is written as  openssl x509 -noout -subject -nameopt compat  shows it, /C=SE/O=Works/CN=gate. Host names
in certificates are not looked at. So without --ca, when the system's CAs are trusted, --peer-name must be given:
anybody can get a certificate from one of those.

Exit codes: 0 every number was answered; 1 an answer was wrong; 2 the command line, the plan or the input is in
error; 3 the host is unknown; 4 the connection was refused or could not be made; 5 it ended before the last
answer; 6 no connection or no answer within the time-out; 7 TLS was not established; 70 the kernel reported a fatal
error.)";

constexpr std::uint64_t kMostCalls = 100'000'000;
constexpr int kMostConnections = 20000;
constexpr int kMostPipelined = 1000;

}  // namespace

std::optional<Options> read_options(int argc, const char* const* argv, int& exit_code) {
  Options options;
  bool tpkt = false;
  bool over_tls = false;

  CLI::App app{kDescription, "callroute"};
  app.footer(kFooter);
  app.add_option("HOST", options.host, "The router's host: an address or a name")->required();
  app.add_option("PORT", options.port, "The router's port")->required()->check(CLI::Range(1, 65535));
  auto* numbers =
      app.add_option("NUMBER", options.numbers, "Numbers to ask; standard input when there is none");
  app.add_flag("--tpkt", tpkt, "The port takes packets of RFC 1006 instead of text lines");
  auto* tls = app.add_flag("--tls", over_tls, "The port takes text lines over TLS")->excludes("--tpkt");
  auto* ca = app.add_option("--ca", options.ca,
                            "CAs that the router is verified against, PEM; the system's when "
                            "it is not given")
                 ->type_name("FILE")
                 ->needs(tls);
  auto* peer_name =
      app.add_option("--peer-name", options.peer_name, "The subject that the router's certificate must have")
          ->type_name("SUBJECT")
          ->needs(tls);
  auto* cert = app.add_option("--cert", options.cert,
                              "Certificate chain to show to a router that asks for one, PEM; one that nobody "
                              "trusts is made when it is not given")
                   ->type_name("FILE")
                   ->needs(tls);
  auto* key = app.add_option("--key", options.key, "Its private key, PEM, not encrypted")
                  ->type_name("FILE")
                  ->needs(tls);
  cert->needs(key);
  key->needs(cert);
  auto* load = app.add_option("--load", options.load, "Generate N calls instead, and check every answer")
                   ->type_name("N")
                   ->check(CLI::Range(std::uint64_t{1}, kMostCalls))
                   ->excludes(numbers);
  app.add_option("--connections", options.connections, "Spread the generated calls over C connections")
      ->type_name("C")
      ->check(CLI::Range(1, kMostConnections))
      ->capture_default_str()
      ->needs(load);
  app.add_option("--pipeline", options.pipeline, "Calls that each connection has on the way at a time")
      ->type_name("D")
      ->check(CLI::Range(1, kMostPipelined))
      ->capture_default_str()
      ->needs(load);
  app.add_option("--plan", options.plan, "Numbering plan that the router uses, if it is not the built-in one")
      ->type_name("FILE")
      ->needs(load);
  app.add_option("--timeout", options.timeout_s, "Longest wait for the connection, and for an answer")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.05, 86400.0))
      ->capture_default_str();
  app.add_flag("--json", options.json, "Answer with a JSON object a line; the result of --load is one, too");
  app.add_flag("-q,--quiet", options.quiet, "Show no progress");
  app.set_version_flag("--version", "callroute " CALLROUTE_VERSION);

  try {
    app.parse(argc, argv);
    if (options.host.empty() || inet_addr(options.host.c_str()) == INADDR_ANY) {
      throw CLI::ValidationError("HOST", "'" + options.host + "' is not a host to connect to");
    }
    for (const CLI::Option* option : {ca, peer_name, cert, key}) {
      if (option->count() > 0 && option->as<std::string>().empty()) {
        throw CLI::ValidationError(option->get_name(), "is empty");
      }
    }
    if (over_tls && options.ca.empty() && options.peer_name.empty()) {
      throw CLI::ValidationError(
          "--tls",
          "needs --ca or --peer-name: a certificate of the system's CAs proves nothing "
          "without the name");
    }
    for (const std::string& number : options.numbers) {
      if (number.find_first_of("\r\n") != std::string::npos) {
        throw CLI::ValidationError("NUMBER", "holds a line end");
      }
      if (number.size() > kMostNumberBytes) throw CLI::ValidationError("NUMBER", "is too long");
    }
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      exit_code = app.exit(error);
    } else {
      std::cerr << "callroute: " << error.what() << "\nTry callroute --help\n";
      exit_code = kExitUsage;
    }
    return std::nullopt;
  }
  if (tpkt) options.offer = callrouter::Offer::kPackets;
  if (over_tls) options.offer = callrouter::Offer::kTlsLines;
  return options;
}

}  // namespace callroute
