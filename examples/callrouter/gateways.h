// The gateways of a domain, as the domain's name server tells them.
#ifndef CALLROUTER_GATEWAYS_H
#define CALLROUTER_GATEWAYS_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "examples/dnsq/name_server.h"
#include "kernel/trigger.h"
#include "network/dns.h"

namespace callrouter {

/// Where gateways are looked up.
struct GatewaySource {
  std::string name;  ///< of the SRV records
  dnsq::NameServer server;
};

/// A domain's SRV records, looked up again and again. When a look-up fails, the gateways found before stay.
///
///              answer                   no answer, or an error   timer
///   looking up -> waiting; the list is  -> waiting; what was     cannot happen
///                 the answer's, and may    known is stale
///                 be empty
///   waiting    cannot happen            cannot happen            -> looking up
///
/// All of it on the thread that makes it, which has a ready list of its own, but for what is said to be for any.
class Gateways {
 public:
  // An answer is good for its smallest time to live, but at least and at most so long.
  static constexpr ULONG kLeast_ms = 30 * 1000;
  static constexpr ULONG kMost_ms = 5 * 60 * 1000;
  /// After a failure, or when there are none.
  static constexpr ULONG kRetry_ms = 30 * 1000;

  /// RFC 2782: the lowest priority comes first, and among equals the weights say how the calls are shared.
  struct Gateway {
    int priority, weight;
    std::string target;
    int port;
    std::uint32_t address;  ///< host order; 0 when none has come with the answer
  };

  /// Times are those of os_clock().
  struct View {
    std::vector<Gateway> gateways;  ///< in the order of their use
    std::optional<ULONG> found_at;  ///< when the last answer came; nothing before there was one
    std::string trouble;            ///< why there are none, or no new ones; empty when all is well
    bool stale = false;             ///< there has been no answer since
    bool partial = false;           ///< the answer was not whole
    bool looking_up = true;
    ULONG next_at = 0;  ///< while nothing is being looked up
  };

  /// The name of the SRV records for what a user calls a domain: the service "_sip._udp" in front of it, unless it
  /// begins with one.
  static std::string service_name(const std::string& domain);

  /// The first look-up begins.
  explicit Gateways(GatewaySource source);
  /// Gives a look-up up that is on its way.
  ~Gateways();
  Gateways(const Gateways&) = delete;
  Gateways& operator=(const Gateways&) = delete;

  View view() const;         ///< any thread
  std::string text() const;  ///< the view for the operator, in lines. Any thread.

 private:
  static void on_outcome(OSObj* gateways, ADDR unused_lookup, ULONG value);
  static void on_timer(OSObj* gateways, ADDR, ULONG);

  void look_up();
  void take_answer(DnsMessage& message);
  void fail(std::string trouble);
  void wait(View now, ULONG period_ms);

  const GatewaySource source_;
  std::unique_ptr<DnsLookup> lookup_;  // while looking up
  OSTimerTrigger timer_;

  mutable std::mutex mutex_;  // guards the view; a leaf
  View view_;
};

}  // namespace callrouter

#endif
