#include "examples/callrouter/gateways.h"

#include <fmt/format.h>

#include <algorithm>
#include <tuple>
#include <utility>

#include "examples/dnsq/answer.h"
#include "examples/dnsq/lookup.h"

namespace callrouter {
namespace {

constexpr const char* kService = "_sip._udp.";

// RFC 2181 section 8: a time to live has 31 bits; with more it counts as none.
constexpr std::uint32_t kMostTtl_s = 0x7FFFFFFF;

std::uint32_t ttl_of(const DnsResource& record) {
  const auto ttl_s = static_cast<std::uint32_t>(record.ttl);
  return ttl_s <= kMostTtl_s ? ttl_s : 0;
}

// Whoever sends a datagram to the right port is heard; what does not answer our question is told from what does.
bool answers(DnsMessage& message, const std::string& name) {
  if (!dnsq::is_response(message.opts)) return false;
  for (const DnsQuestion* question : dnsq::questions_of(message)) {
    if (question->qtype != T_SRV || !dnsq::same_name(question->qname, name)) return false;
  }
  return true;
}

const DnsResource* address_record(const std::vector<const DnsResource*>& additionals, const char* name) {
  const auto found = std::find_if(additionals.begin(), additionals.end(), [name](const DnsResource* record) {
    return record->type == T_A && record->addr != 0 && dnsq::same_name(record->name, name);
  });
  return found != additionals.end() ? *found : nullptr;
}

ULONG period_of(std::uint32_t ttl_s) {
  const std::uint64_t ttl_ms = std::uint64_t{ttl_s} * 1000;
  return static_cast<ULONG>(std::clamp<std::uint64_t>(ttl_ms, Gateways::kLeast_ms, Gateways::kMost_ms));
}

}  // namespace

std::string Gateways::service_name(const std::string& domain) {
  return domain.starts_with('_') ? domain : kService + domain;
}

Gateways::Gateways(GatewaySource source) : source_(std::move(source)), timer_(0, 1) {
  timer_.SetCallback(on_timer, reinterpret_cast<OSObj*>(this), nullptr, 0);
  look_up();
}

Gateways::~Gateways() = default;

void Gateways::on_timer(OSObj* gateways, ADDR, ULONG) { reinterpret_cast<Gateways*>(gateways)->look_up(); }

void Gateways::look_up() {
  {
    const std::lock_guard lock(mutex_);
    view_.looking_up = true;
  }
  std::string name = source_.name;
  lookup_ = std::make_unique<DnsLookup>(name.data(), T_SRV, source_.server.text.c_str(), on_outcome,
                                        reinterpret_cast<OSObj*>(this));
}

// The lookup is deleted here, in its own callback, when what it has found has been taken.
void Gateways::on_outcome(OSObj* gateways, ADDR, ULONG value) {
  auto* self = reinterpret_cast<Gateways*>(gateways);
  if (value == dnsq::kAnswer) {
    self->take_answer(*self->lookup_->response);
  } else if (dnsq::server_is_unknown(*self->lookup_)) {
    self->fail(fmt::format("no address is known for the host {}", self->source_.server.shown()));
  } else {
    self->fail(fmt::format("no answer within {} s", dnsq::kTimeoutSeconds));
  }
  self->lookup_.reset();
}

void Gateways::take_answer(DnsMessage& message) {
  constexpr int kNoError = 0;
  constexpr int kNoSuchName = 3;
  const int code = dnsq::rcode(message.opts);
  if (!answers(message, source_.name)) return fail("what came was no answer to the question");
  if (code != kNoError && code != kNoSuchName) {
    const std::string_view meaning = dnsq::rcode_meaning(message.opts);
    return fail(fmt::format("{}{}{}", dnsq::rcode_name(message.opts), meaning.empty() ? "" : ", ", meaning));
  }

  View found;
  found.partial = dnsq::is_truncated(message.opts) || !dnsq::is_complete(message);
  bool declined = false;
  std::uint32_t ttl_s = kMostTtl_s;
  const auto additionals = dnsq::records_of(message.additionals);
  for (const DnsResource* record : dnsq::records_of(message.answers)) {
    if (record->type != T_SRV) continue;
    // RFC 2782: the target "." says that there is no such service here.
    declined = declined || *record->target == '\0';
    if (*record->target == '\0') continue;
    ttl_s = std::min(ttl_s, ttl_of(*record));
    const DnsResource* address = address_record(additionals, record->target);
    if (address != nullptr) ttl_s = std::min(ttl_s, ttl_of(*address));
    found.gateways.push_back({record->priority, record->weight, dnsq::name_text(record->target), record->port,
                              address != nullptr ? address->addr : 0});
  }
  if (found.gateways.empty() && found.partial)
    return fail("the answer was cut short before the first gateway");
  std::stable_sort(found.gateways.begin(), found.gateways.end(), [](const Gateway& a, const Gateway& b) {
    return std::tie(a.priority, b.weight) < std::tie(b.priority, a.weight);
  });
  if (found.gateways.empty()) {
    found.trouble = code == kNoSuchName ? "NXDOMAIN, there is no such name"
                    : declined          ? "the domain says that it has none"
                                        : "the answer holds no SRV record";
  }
  found.found_at = os_clock();
  const ULONG period_ms = found.gateways.empty() ? kRetry_ms : period_of(ttl_s);
  wait(std::move(found), period_ms);
}

void Gateways::fail(std::string trouble) {
  View now = view();
  now.trouble = std::move(trouble);
  now.stale = now.found_at.has_value();
  wait(std::move(now), kRetry_ms);
}

void Gateways::wait(View now, ULONG period_ms) {
  now.looking_up = false;
  now.next_at = os_clock() + period_ms;
  {
    const std::lock_guard lock(mutex_);
    view_ = std::move(now);
  }
  timer_.SetTimer(period_ms);
}

Gateways::View Gateways::view() const {
  const std::lock_guard lock(mutex_);
  return view_;
}

std::string Gateways::text() const {
  const View view = this->view();
  const ULONG now = os_clock();
  std::string text =
      fmt::format("{}, asked of {}\n", dnsq::name_text(source_.name.c_str()), source_.server.shown());
  std::size_t widest = 0;
  for (const Gateway& one : view.gateways) {
    widest = std::max(widest, fmt::format("{}:{}", one.target, one.port).size());
  }
  if (!view.gateways.empty()) {
    text += fmt::format("{:>8} {:>6}  {:<{}}  address\n", "priority", "weight", "gateway", widest);
  }
  for (const Gateway& one : view.gateways) {
    text += fmt::format("{:>8} {:>6}  {:<{}}  {}\n", one.priority, one.weight,
                        fmt::format("{}:{}", one.target, one.port), widest,
                        one.address != 0 ? dnsq::address_text(one.address) : "none came with the answer");
  }
  if (view.partial) text += "the answer is not whole: there may be more\n";
  std::string state;
  if (view.gateways.empty())
    state = view.trouble.empty() ? "none yet; " : fmt::format("none: {}; ", view.trouble);
  if (!view.gateways.empty() && view.stale) state = fmt::format("stale: {}; ", view.trouble);
  if (!view.gateways.empty()) state += fmt::format("found {} s ago, ", (now - *view.found_at) / 1000);
  const int left_s = (std::max(static_cast<std::int32_t>(view.next_at - now), 0) + 999) / 1000;
  state += view.looking_up ? "being looked up now" : fmt::format("looked up again in {} s", left_s);
  return text + state + "\n";
}

}  // namespace callrouter
