#include "examples/callrouter/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <stdexcept>

#ifndef CALLROUTER_VERSION
#define CALLROUTER_VERSION "unknown"
#endif

namespace callrouter {
namespace {

// Each takes some thirty kilobytes of message buffers.
constexpr int kMostConnections = 20000;

constexpr const char* kDescription =
    "Finds, for each dialled number, the longest matching prefix of a numbering plan and says where the call "
    "goes.";

constexpr const char* kFooter = R"(
Numbers come one a line, written +44 20 7946 0123, 0044 (0)20 7946-0123 or 442079460123. Every line gets its
answer on standard output, in the same order; one that cannot be read or routed is answered with the reason.
Standard error gets the progress of a long input and the summary.

A plan is a CSV file with the columns prefix, destination and gateway.

With --serve, numbers come over the network instead: as text lines (one number each, ended by CR, LF or CR LF;
try nc or telnet), as packets of RFC 1006, as text lines over TLS (try openssl s_client), or several of these; every
request gets its answer, in order. The ports that the system has chosen stand on standard output, "serving lines on
ADDR:PORT", "serving tpkt on ADDR:PORT", "serving tls lines on ADDR:PORT". It goes on until a signal or the operator's
quit; standard input is the operator's, and its end ends nothing unless it is a terminal.

--tls needs --cert and --key, and they are read again for each connection. TLS 1.2 and 1.3 are served.

Exit codes: 0 every line was answered, or serving has ended as asked; 1 the answers could not be written, or
serving left something behind; 2 the command line, the plan, an input or a port is in error; 128 + N ended by
signal N before the end of the input.)";

GatewaySource gateway_source(const std::string& domain, const std::string* server) {
  const std::string name = Gateways::service_name(dnsq::without_last_dot(domain));
  if (const std::string why = dnsq::why_unsendable(name); !why.empty()) {
    throw CLI::ValidationError("--gateways-from", "'" + name + "' cannot be asked for: " + why);
  }
  if (server == nullptr) {
    if (const auto configured = dnsq::configured_name_server()) return {name, *configured};
    throw CLI::ValidationError(
        "--gateways-from",
        std::string("needs --dns, because ") + dnsq::kResolverConfiguration + " names no IPv4 name server");
  }
  try {
    return {name, dnsq::read_name_server(*server)};
  } catch (const std::invalid_argument& error) {
    throw CLI::ValidationError("--dns", error.what());
  }
}

}  // namespace

std::optional<Options> read_options(int argc, const char* const* argv, int& exit_code) {
  Options options;
  bool json = false;
  bool csv = false;
  std::string gateways_from;
  std::string dns_server;

  CLI::App app{kDescription, "callrouter"};
  app.footer(kFooter);
  app.add_option("FILE", options.inputs, "Files of numbers; standard input when there is none, or for -");
  app.add_option("--plan", options.plan, "Numbering plan to use instead of the one built in")
      ->type_name("FILE");
  auto* json_flag = app.add_flag("--json", json, "Answer with a JSON object a line; the summary is one, too");
  auto* csv_flag = app.add_flag("--csv", csv, "Answer in CSV with a header row");
  csv_flag->excludes(json_flag);
  app.add_flag("--console", options.console,
               "Open the operator console on the terminal; \"help\" lists its commands");
  app.add_flag("-q,--quiet", options.quiet, "Print neither progress nor summary");
  auto* serve_flag =
      app.add_flag("--serve", options.serving, "Serve the network; brings the operator console");
  serve_flag->excludes(json_flag)->excludes(csv_flag);
  ServeOptions& serve = options.serve;
  app.add_option("--tpkt", serve.tpkt_port, "Port for RFC 1006 packets; 0 lets the system choose")
      ->type_name("PORT")
      ->check(CLI::Range(0, 65535))
      ->needs(serve_flag);
  app.add_option("--line", serve.line_port,
                 "Port for text lines. Without --tpkt, --line and --tls the first two are served, on ports "
                 "the system "
                 "chooses")
      ->type_name("PORT")
      ->check(CLI::Range(0, 65535))
      ->needs(serve_flag);
  auto* tls =
      app.add_option("--tls", serve.tls_port, "Port for text lines over TLS; 0 lets the system choose")
          ->type_name("PORT")
          ->check(CLI::Range(0, 65535))
          ->needs(serve_flag);
  auto* cert = app.add_option("--cert", serve.cert, "Certificate chain of the TLS port, PEM")
                   ->type_name("FILE")
                   ->needs(tls);
  auto* key = app.add_option("--key", serve.key, "Its private key, PEM, not encrypted")
                  ->type_name("FILE")
                  ->needs(tls);
  tls->needs(cert)->needs(key);
  auto* ca =
      app.add_option("--ca", serve.ca, "Certificates of the CAs that clients are verified against, PEM")
          ->type_name("FILE")
          ->needs(tls);
  app.add_flag(
         "--verify-clients", serve.verify_clients,
         "Serve over TLS only clients with a certificate of one of these CAs; self-signed ones are refused")
      ->needs(tls)
      ->needs(ca);
  app.add_option("--bind", serve.address, "Address to serve, 0.0.0.0 for every one of this machine")
      ->type_name("ADDR")
      ->capture_default_str()
      ->needs(serve_flag);
  app.add_option("--connections", serve.connections, "Connections at the same time; more are turned away")
      ->type_name("N")
      ->check(CLI::Range(1, kMostConnections))
      ->capture_default_str()
      ->needs(serve_flag);
  app.add_option("--idle", serve.idle_s, "Seconds after which a connection without a request is closed")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.1, 86400.0))
      ->capture_default_str()
      ->needs(serve_flag);
  auto* domain =
      app.add_option("--gateways-from", gateways_from,
                     "Look up the gateways of DOMAIN: its SRV records _sip._udp.DOMAIN, or those of "
                     "DOMAIN itself when it begins with _; the console's \"gateways\" shows them")
          ->type_name("DOMAIN")
          ->needs(serve_flag);
  auto* dns =
      app.add_option("--dns", dns_server,
                     "Name server to ask for them: IPv4 address, name, or broadcast for the local network; "
                     "the first one of the system's resolver when it is not given")
          ->type_name("SERVER")
          ->needs(domain);
  app.set_version_flag("--version", "callrouter " CALLROUTER_VERSION);

  try {
    app.parse(argc, argv);
    if (options.serving && !options.inputs.empty()) {
      throw CLI::ValidationError("--serve", "takes its numbers from the network, not from files");
    }
    if (!serve.tpkt_port && !serve.line_port && !serve.tls_port) serve.tpkt_port = serve.line_port = 0;
    if (serve.address.empty()) throw CLI::ValidationError("--bind", "needs an address");
    if (domain->count() > 0) {
      serve.gateways = gateway_source(gateways_from, dns->count() > 0 ? &dns_server : nullptr);
    }
    if (options.inputs.empty() && !options.console && !options.serving) options.inputs.emplace_back("-");
    const auto standard_inputs = std::count(options.inputs.begin(), options.inputs.end(), "-");
    if (options.console && standard_inputs > 0) {
      throw CLI::ValidationError("--console",
                                 "reads the operator's commands from standard input, so numbers "
                                 "cannot come from there");
    }
    if (standard_inputs > 1) throw CLI::ValidationError("FILE", "- stands there more than once");
    if (app.count("--plan") > 0 && options.plan.empty())
      throw CLI::ValidationError("--plan", "needs a file name");
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      exit_code = app.exit(error);
    } else {
      std::cerr << "callrouter: " << error.what() << "\nTry callrouter --help\n";
      exit_code = kExitUsage;
    }
    return std::nullopt;
  }
  options.format = json ? Format::kJson : csv ? Format::kCsv : Format::kText;
  return options;
}

}  // namespace callrouter
