// Which name server is asked, and for which names it can be asked.
#ifndef DNSQ_NAME_SERVER_H
#define DNSQ_NAME_SERVER_H

#include <optional>
#include <string>

namespace dnsq {

/// A name server; port 53 is asked.
struct NameServer {
  std::string text;  ///< IPv4 address or host name; empty for the local network, where everybody is asked

  bool is_name() const;       ///< a host name, which must be looked up itself
  std::string shown() const;  ///< for people
};

inline constexpr const char* kResolverConfiguration = "/etc/resolv.conf";

/// The first IPv4 name server that the system's own resolver is configured with (resolv.conf(5)); nothing when there
/// is none.
std::optional<NameServer> configured_name_server(const char* file = kResolverConfiguration);

/// What a user means: an address, a host name, or "broadcast" for the local network.
///   throws    std::invalid_argument: why it is none of these
NameServer read_name_server(const std::string& text);

/// The name as DnsLookup takes it: people write a dot at the end of a name that is complete.
std::string without_last_dot(std::string name);

/// Why no question can hold the name, and where; empty when one can.
std::string why_unsendable(const std::string& name);

}  // namespace dnsq

#endif
