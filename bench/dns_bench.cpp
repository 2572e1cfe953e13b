/// Decoding of DNS answers beside c-ares and ldns: from the bytes to what a program looks at, and all of that given back.
///
/// Each side gets the same bytes. Here a DnsMessage holds the questions and records of all sections with their names,
/// and ldns a packet does; c-ares, before it parsed whole messages, holds the name and the addresses of an answer,
/// or a list of its SRV records.
#include <ares.h>
#include <arpa/inet.h>
#include <ldns/ldns.h>
#include <netdb.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/buffer.h"
#include "kernel_bench.h"
#include "network/dns.h"

namespace oskernel_bench {
namespace {

// ---- Answers -----------------------------------------------------------------------------------------------

enum Kind { kA = 1, kSrv = 33 };

std::string number16(std::size_t value) { return {static_cast<char>(value >> 8), static_cast<char>(value)}; }

std::string labels(std::string_view dotted) {
  std::string bytes;
  while (!dotted.empty()) {
    const std::string_view label = dotted.substr(0, dotted.find('.'));
    bytes += static_cast<char>(label.size());
    bytes += label;
    dotted.remove_prefix(std::min(label.size() + 1, dotted.size()));
  }
  return bytes;
}

constexpr std::string_view kOwner[] = {"_sip._udp.", "gateways.example.com"};

/// What a name server answers: the question, and records whose names are a pointer to it; the target of an SRV record
/// has a label of its own in front of the pointer.
std::string answer(Kind kind, int records) {
  const std::string prefix = kind == kSrv ? labels(kOwner[0]) : "";
  std::string message = number16(0x1234) + number16(0x8180) + number16(1) + number16(records) + number16(0) +
                        number16(0) + prefix + labels(kOwner[1]) + '\0' + number16(kind) + number16(1);
  const std::string owner = number16(0xC000 | 12);
  const std::string domain = number16(0xC000 | (12 + prefix.size()));
  for (int i = 0; i < records; ++i) {
    const std::string target = labels("gw" + std::to_string(i)) + domain;
    const std::string data = kind == kSrv
                                 ? number16(10) + number16(60) + number16(5060) + target
                                 : std::string{static_cast<char>(192), 0, 2, static_cast<char>(i + 1)};
    message +=
        owner + number16(kind) + number16(1) + number16(0) + number16(3600) + number16(data.size()) + data;
  }
  return message;
}

/// A side that does not find what there is measures nothing.
void expect(const char* who, std::size_t found, int records) {
  if (found == static_cast<std::size_t>(records)) return;
  std::fprintf(stderr, "%s found %zu of %d records\n", who, found, records);
  std::abort();
}

// ---- The sides ---------------------------------------------------------------------------------------------

/// Each decodes one message whenever it is asked to, and gives back what that made.
///   returns   the records found when they are to be counted, otherwise 0
class Here {
 public:
  Here(Kind, const std::string& message)
      : buf_(OSBuf::Alloc(reinterpret_cast<const UBYTE*>(message.data()), static_cast<int>(message.size()))) {
  }
  ~Here() { buf_->Free(); }
  static constexpr const char* kName = "oskernel";

  std::size_t decode(bool count) {
    DnsMessage message;
    message.Decode(buf_);
    benchmark::DoNotOptimize(&message);
    return count ? static_cast<std::size_t>(message.answers.Size()) : 0;
  }

 private:
  RunningKernel kernel_{Dispatch::kByHand};
  OSBuf* buf_;
};

class Cares {
 public:
  Cares(Kind kind, const std::string& message) : kind_(kind), message_(message) {}
  static constexpr const char* kName = "c-ares";

  std::size_t decode(bool count) {
    std::size_t found = 0;
    const auto* const bytes = reinterpret_cast<const unsigned char*>(message_.data());
#if ARES_VERSION >= 0x011c00
    ares_dns_record_t* record = nullptr;
    ares_dns_parse(bytes, message_.size(), 0, &record);
    benchmark::DoNotOptimize(record);
    if (count) found = ares_dns_record_rr_cnt(record, ARES_SECTION_ANSWER);
    ares_dns_record_destroy(record);
#else
    const int length = static_cast<int>(message_.size());
    if (kind_ == kSrv) {
      ares_srv_reply* list = nullptr;
      ares_parse_srv_reply(bytes, length, &list);
      benchmark::DoNotOptimize(list);
      for (const ares_srv_reply* one = list; count && one != nullptr; one = one->next) ++found;
      ares_free_data(list);
    } else {
      // Addresses stand in the host, their times to live in the array.
      hostent* host = nullptr;
      ares_addrttl ttls[32];
      int room = 32;
      ares_parse_a_reply(bytes, length, &host, ttls, &room);
      benchmark::DoNotOptimize(host);
      benchmark::DoNotOptimize(ttls);
      for (char** one = host->h_addr_list; count && *one != nullptr; ++one) ++found;
      ares_free_hostent(host);
    }
#endif
    return found;
  }

 private:
  [[maybe_unused]] Kind kind_;
  std::string message_;
};

class Ldns {
 public:
  Ldns(Kind, const std::string& message) : message_(message) {}
  static constexpr const char* kName = "ldns";

  std::size_t decode(bool count) {
    ldns_pkt* packet = nullptr;
    ldns_wire2pkt(&packet, reinterpret_cast<const std::uint8_t*>(message_.data()), message_.size());
    benchmark::DoNotOptimize(packet);
    const std::size_t found = count ? ldns_rr_list_rr_count(ldns_pkt_answer(packet)) : 0;
    ldns_pkt_free(packet);
    return found;
  }

 private:
  std::string message_;
};

template <class Side>
void decode(benchmark::State& state, Kind kind) {
  const auto records = static_cast<int>(state.range(0));
  Side side(kind, answer(kind, records));
  expect(Side::kName, side.decode(true), records);
  for (auto _ : state) side.decode(false);
  count_items(state);
}

template <class Side>
void register_side() {
  const auto add = [](const std::string& subject, Kind kind) {
    benchmark::RegisterBenchmark((subject + "/" + Side::kName).c_str(), decode<Side>, kind)
        ->ArgName("records")
        ->Arg(1)
        ->Arg(20);
  };
  add("dns_decode_a", kA);
  add("dns_decode_srv", kSrv);
}

}  // namespace
}  // namespace oskernel_bench

int main(int argc, char** argv) {
  using namespace oskernel_bench;
  BenchConsole console;
  Console = &console;
  register_side<Here>();
  register_side<Cares>();
  register_side<Ldns>();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
