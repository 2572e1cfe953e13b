#include "examples/callroute/run.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <openssl/ssl.h>

#include <cstring>
#include <iostream>
#include <utility>

#include "examples/callroute/tls.h"
#include "kernel/kernel.h"

namespace callroute {
namespace {

constexpr ULONG kTickMs = 100;
constexpr unsigned kForEver = 0xFFFFFFFFu;

// What a router says without being asked begins so.
constexpr std::string_view kRemark = "error: ";

}  // namespace

Run::Run(const Options& options) : options_(options) {
  OSTrigger::TLSInitialise();
  tick_ = std::make_unique<OSTimerTrigger>(kTickMs, 1);
  tick_->SetCallback(on_tick, reinterpret_cast<OSObj*>(this), nullptr, 0);
  tick_->SetTimer(kTickMs);
}

Run::~Run() {
  tick_.reset();
  lines_.clear();
  OSTrigger::TLSUninitialise();
}

int Run::run() {
  connect();
  while (!done_) {
    WaitForSingleObject(OSTrigger::TLSGetEvent(), kForEver);
    OSTrigger::TLSPoll();
  }
  report();
  if (!failure_.empty()) std::cerr << "callroute: " << failure_ << std::endl;
  return exit_code_;
}

std::string Run::target() const { return fmt::format("{}:{}", options_.host, options_.port); }

bool Run::host_is_name() const { return inet_addr(options_.host.c_str()) == INADDR_NONE; }

void Run::fail(int exit_code, std::string text) {
  if (done_) return;
  exit_code_ = exit_code;
  failure_ = std::move(text);
  if (!remark_.empty()) failure_ += fmt::format("; it says \"{}\"", remark_);
  done_ = true;
}

void Run::connect() {
  Line& line = lines_.emplace_back();
  line.peer = Peer::make(options_, *this, static_cast<int>(lines_.size()) - 1);
  line.connecting = true;
  line.connecting_since = Clock::now();
  looking_up_ = host_is_name() && lines_.size() == 1;
  line.peer->connect(options_.host, options_.port);
}

void Run::ask(Line& line, std::string number) {
  line.calls.push_back({std::move(number), Clock::now()});
  line.peer->ask(line.calls.back().number);
}

void Run::on_connected(Peer& peer) {
  if (done_) return;
  looking_up_ = false;
  Line& line = lines_[static_cast<std::size_t>(peer.index())];
  line.connecting = false;
  line.connected = true;
  connected(line);
}

void Run::on_answer(Peer& peer, std::string_view answer) {
  if (done_) return;
  heard_ = true;
  Line& line = lines_[static_cast<std::size_t>(peer.index())];
  if (!line.calls.empty()) {
    const Call call = std::move(line.calls.front());
    line.calls.pop_front();
    if (answered(line, call, answer)) return;
    if (done_) return;
    line.calls.push_front(call);
  }
  if (answer.starts_with(kRemark)) {
    remark_ = answer.substr(kRemark.size());
  } else {
    fail(kExitWrong, fmt::format("{} sent what it was not asked for: {}", target(), answer));
  }
}

void Run::on_closed(Peer& peer, OSIOReason reason, int code) {
  if (done_) return;
  const Line& line = lines_[static_cast<std::size_t>(peer.index())];
  if (peer.securing()) {
    const std::string why = TlsWords::last();
    return fail(kExitNoSession, fmt::format("{}: no TLS{}{}", target(), why.empty() ? "" : ": ", why));
  }
  if (!line.connected) {
    // Every other failure to connect has a number.
    if (reason == Failed && code == 0 && host_is_name()) {
      looking_up_ = false;
      return fail(kExitUnknownHost, fmt::format("{}: the host is unknown", options_.host));
    }
    return fail(kExitNoConnection,
                fmt::format("{}: {}", target(), code != 0 ? std::strerror(code) : "no connection"));
  }
  // Over TLS the code is OpenSSL's.
  const bool secure = callrouter::is_secure(options_.offer);
  if (reason == Normal || (secure && code == SSL_ERROR_ZERO_RETURN)) {
    return fail(kExitDisconnected, fmt::format("{} has closed the connection", target()));
  }
  if (secure) {
    // A router that verifies its clients does so when TLS is established for the client already.
    std::string why = code == SSL_ERROR_SSL ? TlsWords::last() : "";
    if (why.empty() && !heard_) why = "the router may have refused the client's certificate";
    return fail(kExitDisconnected,
                fmt::format("{}: the connection broke{}{}", target(), why.empty() ? "" : ": ", why));
  }
  fail(kExitDisconnected, fmt::format("{}: the connection broke{}{}", target(), code != 0 ? ": " : "",
                                      code != 0 ? std::strerror(code) : ""));
}

void Run::on_tick(OSObj* run, ADDR, ULONG) {
  auto* self = reinterpret_cast<Run*>(run);
  if (self->done_) return;
  self->tick();
  self->check_times();
  self->tick_->Clear();
}

void Run::check_times() {
  const auto limit =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options_.timeout_s));
  const Clock::time_point now = Clock::now();
  for (const Line& line : lines_) {
    if (line.connecting && now - line.connecting_since > limit) {
      return fail(
          kExitTimeout,
          looking_up_
              ? fmt::format("{}: no address was found within {:g} s", options_.host, options_.timeout_s)
          : line.peer->securing()
              ? fmt::format("{}: no TLS within {:g} s; does the port serve it?", target(), options_.timeout_s)
              : fmt::format("{}: no connection within {:g} s", target(), options_.timeout_s));
    }
    if (!line.calls.empty() && now - line.calls.front().sent_at > limit) {
      return fail(kExitTimeout, fmt::format("{}: no answer within {:g} s", target(), options_.timeout_s));
    }
  }
}

}  // namespace callroute
