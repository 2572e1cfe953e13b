#include "examples/callrouter/serve.h"

#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>

#include "examples/callrouter/kernel_run.h"
#include "examples/callrouter/leftovers.h"
#include "examples/callrouter/network_pools.h"
#include "examples/callrouter/operator_console.h"
#include "examples/callrouter/plan_file.h"
#include "examples/callrouter/progress.h"
#include "examples/callrouter/server.h"
#include "examples/callrouter/session.h"
#include "examples/callrouter/signals.h"
#include "examples/callrouter/tls_files.h"
#include "examples/callrouter/window.h"
#include "examples/dnsq/lookup.h"
#include "network/asocket.h"
#include "network/assl.h"

namespace callrouter {
namespace {

constexpr int kResolvePeriodMs = 10;
constexpr ULONG kResolveMs = 10000;

// The pools of the road have the right sizes; of its quantities nothing is needed here.
KernelCfg pools(const ServeOptions& serve) {
  KernelCfg cfg = road_config();
  for (int& quantity : cfg.buf_qty) quantity = 0;
  cfg.callback_qty = 0;
  add_connections(cfg, serve.connections);
  if (serve.gateways) dnsq::add_lookup(cfg);
  return cfg;
}

void wait(const Stop& stop, int timeout_ms) {
  pollfd requested{stop.fd(), POLLIN, 0};
  poll(&requested, 1, timeout_ms);
}

// The address to serve, in host order. The name cache answers at once and looks names up in the background.
std::uint32_t resolve(const std::string& text, const Stop& stop) {
  in_addr address{};
  if (inet_aton(text.c_str(), &address) != 0) return ntohl(address.s_addr);
  const ULONG started = os_clock();
  while (!stop.requested() && !os_expired(started, kResolveMs)) {
    if (const ULONG found = DNSEntry::Lookup(text.c_str(), nullptr)) return found;
    wait(stop, kResolvePeriodMs);
  }
  throw UsageError("--bind: no address is known for the host " + text);
}

// The task, started and stopped.
class Server {
 public:
  Server(const ServerTask::Means& means, const ServeOptions& options, std::uint32_t address)
      : task_(std::make_unique<ServerTask>(means, options, address)) {
    const std::string error = task_->wait_until_open();
    if (error.empty()) return;
    end();
    throw UsageError(error);
  }
  ~Server() {
    if (task_) end();
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  const ServerTask& task() const { return *task_; }

 private:
  void end() {
    task_->stop();
    task_->Kill();
    task_.reset();
  }

  std::unique_ptr<ServerTask> task_;
};

void announce(const ServerTask& server, const std::string& address) {
  for (const Offer offer : kOffers) {
    if (const int port = server.port(offer)) {
      std::cout << "serving " << name_of(offer) << " on " << address << ':' << port << '\n';
    }
  }
  std::cout << std::flush;
}

std::string dotted(std::uint32_t address) {
  char text[16];
  return SockAddr(address, 0).AddressStr(text);
}

// Until somebody ends it. A terminal's operator may leave with control-D; when commands come from a pipe or a
// file, or from nowhere, their end ends nothing. A terminal that another program has in the foreground (we are
// its background job) is left alone: reading from it would suspend us.
void attend(Session& session, OperatorConsole& console, const Stop& stop) {
  const bool terminal = console.terminal();
  const bool operated = terminal ? tcgetpgrp(STDIN_FILENO) == getpgrp() : console.wait_for_input();
  if (operated && (session.run() == Session::End::kQuit || terminal)) return;
  wait(stop, -1);
}

ServeOptions fitting(const ServeOptions& options) {
  ServeOptions fitting = options;
  fitting.connections = allow_descriptors(options.connections);
  if (fitting.connections < options.connections) {
    std::cerr << "callrouter: the system's limit of descriptors allows for " << fitting.connections
              << " connections only" << std::endl;
  }
  return fitting;
}

// The files are each connection's, for as long as the program runs. SSLInfo keeps the names.
void prepare_tls(const ServeOptions& serve) {
  static std::string cert, key, ca;
  cert = serve.cert, key = serve.key, ca = serve.ca;
  if (SSLInfo::Initialise(cert.data(), key.data(), ca.data()) != 0) {
    throw UsageError("--tls: OpenSSL cannot be used");
  }
}

void check_tls_files(const ServeOptions& serve) {
  if (!serve.ca.empty()) check_ca(serve.ca);
  const std::string remark = check_certificate(serve.cert, serve.key);
  if (!remark.empty()) std::cerr << "callrouter: " << remark << std::endl;
}

void run(const Options& options, Leftovers& leftovers) {
  const std::unique_ptr<Plan> plan = options.plan.empty() ? default_plan() : load_plan(options.plan);
  const std::unique_ptr<Formatter> formatter = make_formatter(Format::kText);
  if (options.serve.tls_port) check_tls_files(options.serve);
  const ServeOptions serve = fitting(options.serve);

  Stop stop;
  SignalStop signals(stop);
  OperatorConsole console(STDIN_FILENO, STDOUT_FILENO, stop);
  Stats stats;
  Progress progress(stats, Progress::Show::kNothing, std::nullopt);
  const KernelRun kernel(console, pools(serve));
  Summary summary{};
  {
    const NetworkRun network;
    if (serve.tls_port) prepare_tls(serve);
    const std::uint32_t address = resolve(serve.address, stop);
    const Server server({*plan, *formatter, stats, console.tracing()}, serve, address);
    announce(server.task(), dotted(address));
    progress.start();
    signals.deliver();
    Session session(console, {*plan, stats, progress, nullptr, &server.task()});
    attend(session, console, stop);
    summary = summarize(stats);
    progress.finish();
  }
  leftovers.count_buffers();
  if (options.quiet) return;
  if (stop.reason() == Stop::Reason::kSignal && isatty(STDERR_FILENO)) std::cerr << '\n';
  std::cerr << summary.text() << std::flush;
}

}  // namespace

int serve(const Options& options) {
  Leftovers leftovers;
  run(options, leftovers);
  const std::vector<std::string> left = leftovers.find();
  for (const std::string& what : left) std::cerr << "callrouter: left behind: " << what << std::endl;
  return left.empty() ? kExitOk : kExitOutput;
}

}  // namespace callrouter
