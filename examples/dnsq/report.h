// An answer as text.
#ifndef DNSQ_REPORT_H
#define DNSQ_REPORT_H

#include <string>

#include "examples/dnsq/options.h"
#include "network/dns.h"

namespace dnsq {

/// For people, in lines.
///   lookup    has its answer
///   ms        how long that took
std::string text_report(const Options& options, DnsLookup& lookup, double ms);

/// One line, an object.
std::string json_report(const Options& options, DnsLookup& lookup, double ms);

}  // namespace dnsq

#endif
