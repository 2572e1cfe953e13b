/// Asking with DnsLookup and seeing what its callback is told. Nothing here stands between the library and the system;
/// dns_lookup_fixture.h adds that.
#ifndef OSKERNEL_TESTS_DNS_LOOKUP_PROBE_H
#define OSKERNEL_TESTS_DNS_LOOKUP_PROBE_H

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "dns_messages.h"
#include "network/dns.h"
#include "network_fixture.h"
#include "socket_watch.h"

namespace oskernel_test {

inline constexpr UWORD kDnsPort = 53;
/// How long a lookup waits for its answer.
inline constexpr ULONG kAnswerWaitMs = 5000;

/// Who asks: writes down what lookups call back. Any thread. Lives longer than the lookups.
class Asker {
 public:
  struct Call {
    DnsLookup* lookup = nullptr;
    ULONG value = 99;
    pid_t thread = 0;
  };
  /// Runs inside the callback, after the call has been written down; no lock is held. May delete the lookup.
  using Hook = std::function<void(DnsLookup*, ULONG value)>;

  void set_hook(Hook hook) {
    const std::lock_guard<std::mutex> lock(mutex_);
    hook_ = std::move(hook);
  }

  OSObj* obj() { return reinterpret_cast<OSObj*>(this); }
  /// The function that lookups get.
  static void told(OSObj* obj, ADDR lookup, ULONG value) {
    reinterpret_cast<Asker*>(obj)->note({static_cast<DnsLookup*>(lookup), value, gettid()});
  }

  std::vector<Call> all() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return all_;
  }
  /// The values in the order in which they came.
  std::vector<ULONG> values() const {
    std::vector<ULONG> found;
    for (const Call& call : all()) found.push_back(call.value);
    return found;
  }
  std::size_t count() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return all_.size();
  }
  std::size_t count(ULONG value) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(all_.begin(), all_.end(), [value](const Call& call) { return call.value == value; }));
  }
  /// Calls that are over, their hooks included.
  std::size_t finished() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return finished_;
  }
  /// Waits until so many calls are over. Needs somebody who dispatches.
  bool wait_for(std::size_t calls, int timeout_ms = kPatienceMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                             [this, calls] { return finished_ >= calls; });
  }
  void clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    all_.clear();
    finished_ = 0;
  }

 private:
  void note(const Call& call) {
    Hook hook;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      all_.push_back(call);
      hook = hook_;
    }
    if (hook) hook(call.lookup, call.value);
    const std::lock_guard<std::mutex> lock(mutex_);
    ++finished_;
    changed_.notify_all();
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Call> all_;
  std::size_t finished_ = 0;
  Hook hook_;
};

using OwnedLookup = std::unique_ptr<DnsLookup>;

/// A lookup that belongs to nobody: its callback is to delete it. It may be gone when this returns.
inline DnsLookup* ask_and_let_go(Asker& asker, std::string name, Type type, const char* server) {
  return new DnsLookup(name.data(), type, server, Asker::told, asker.obj());
}
/// One that its callback does not delete.
inline OwnedLookup ask(Asker& asker, const std::string& name, Type type = T_A,
                       const char* server = "10.53.53.53") {
  return OwnedLookup(ask_and_let_go(asker, name, type, server));
}

/// The bytes that ask for a name, which is given as its text without a dot at the end.
inline std::string question_bytes(const std::string& name, unsigned type) {
  return DnsWire(1, 0x0180).question(dns_name(name), type).bytes();
}
/// An answer with one address.
inline std::string address_answer(const std::string& name, ULONG addr) {
  return DnsWire().question(dns_name(name), T_A).answer(dns_pointer(12), T_A, 300, rdata_a(addr)).bytes();
}

/// The first address among the last answer's records; 0 without one.
inline ULONG first_address(const DnsLookup& lookup) {
  if (lookup.response == nullptr) return 0;
  for (const DnsResource* record : listed<DnsResource>(lookup.response->answers)) {
    if (record->addr != 0) return record->addr;
  }
  return 0;
}

/// What a lookup prints, each with its address.
inline std::string lookup_line(const DnsLookup* lookup, const std::string& text) {
  return text_of("DNS: %p ", static_cast<const void*>(lookup)) + text;
}

}  // namespace oskernel_test

#endif
