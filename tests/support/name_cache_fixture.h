/// What the tests of the name cache share: the networking layer with a resolver that the test holds, and looks at the
/// cache from inside its section.
#ifndef OSKERNEL_TESTS_NAME_CACHE_FIXTURE_H
#define OSKERNEL_TESTS_NAME_CACHE_FIXTURE_H

#include <gtest/gtest.h>
#include <strings.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fake_resolver.h"
#include "network/asocket.h"
#include "network_fixture.h"
#include "ring_check.h"

namespace oskernel_test {

using Names = std::vector<std::string>;

constexpr ULONG ip(ULONG a, ULONG b, ULONG c, ULONG d) { return a << 24 | b << 16 | c << 8 | d; }

class CacheSection {
 public:
  CacheSection() { EnterCriticalSection(&DNSEntry::cs); }
  ~CacheSection() { LeaveCriticalSection(&DNSEntry::cs); }
  CacheSection(const CacheSection&) = delete;
  CacheSection& operator=(const CacheSection&) = delete;
};

/// Entries as the cache makes them, and the operations that are not for everybody.
class ProbeEntry : public DNSEntry {
 public:
  using DNSEntry::_TimerCallback;
  using DNSEntry::Thread;
  ProbeEntry(const char* name, ULONG addr) : DNSEntry(name, addr) {}
  ~ProbeEntry() override = default;
};

/// A socket that stands always at the same address: there is only one at a time.
class SlotSocket : public AsyncSocket {
 public:
  explicit SlotSocket(bool indirect = true) : AsyncSocket(indirect) {}
  static void* operator new(std::size_t size) {
    EXPECT_LE(size, sizeof slot_);
    return slot_;
  }
  static void operator delete(void*) {}

 private:
  alignas(AsyncSocket) static inline unsigned char slot_[sizeof(AsyncSocket) + 64];
};
using OwnedSlot = Owned<SlotSocket>;

/// Results are delivered when the test dispatches; resolver and cache start empty.
class NameCache : public QuietNetworkTest {
 protected:
  void SetUp() override {
    FakeResolver::reset();
    QuietNetworkTest::SetUp();
    AsyncSocket::Init();
    set_trace(0);
  }
  void TearDown() override {
    FakeResolver::release();
    set_trace(0);
    QuietNetworkTest::TearDown();
    EXPECT_LE(FakeResolver::most_at_once(), 1) << "calls of the resolver must come one after the other";
    EXPECT_EQ(DNSEntry::entries.Size(), 0);
    EXPECT_EQ(DNSEntry::pending.Size(), 0);
  }

  /// Whether the calling thread is inside the section, which others use too.
  static bool is_in(CRITICAL_SECTION& section) {
    return std::atomic_ref<pthread_t>(section.owner_thread_id).load() == pthread_self();
  }

  /// The resolver thread looks at it at any time.
  static void set_trace(int level) { std::atomic_ref<int>(DNSEntry::trace).store(level); }

  // ---- Looking ----

  static std::vector<DNSEntry*> on_locked(OSIndirectList& list) {
    EXPECT_TRUE(ListIsSound(list));
    std::vector<DNSEntry*> found;
    for (OSLink* node : ring_nodes(list)) {
      found.push_back(static_cast<DNSEntry*>(static_cast<OSListObj*>(node->object)));
    }
    return found;
  }
  static Names names_on(OSIndirectList& list) {
    const CacheSection section;
    Names names;
    for (const DNSEntry* entry : on_locked(list)) names.emplace_back(entry->dnsname);
    return names;
  }
  static Names entries() { return names_on(DNSEntry::entries); }
  static Names pending() { return names_on(DNSEntry::pending); }
  /// The entry of this name, which may go when the section is left; null when there is none.
  static DNSEntry* entry(const std::string& name) {
    const CacheSection section;
    for (DNSEntry* each : on_locked(DNSEntry::entries)) {
      if (name == each->dnsname) return each;
    }
    return nullptr;
  }
  /// A field of the entry of this name; nothing without one.
  template <class Field>
  static std::optional<Field> field(const std::string& name, Field DNSEntry::*member) {
    const CacheSection section;
    const DNSEntry* found = entry(name);
    return found != nullptr ? std::optional<Field>(found->*member) : std::nullopt;
  }
  static int waiting_sockets(const std::string& name) {
    const CacheSection section;
    DNSEntry* found = entry(name);
    return found != nullptr ? found->sockets.Size() : -1;
  }
  static DNSEntry* waits_on(AsyncSocket* socket) {
    const CacheSection section;
    return socket->dnsentry;
  }

  // ---- Going on ----

  /// Waits until `calls` names have been asked for in all and none waits for the resolver thread any more.
  static bool resolved(std::size_t calls) {
    return FakeResolver::wait_for_calls(calls) && wait_until([] { return pending().empty(); });
  }
  /// The same, and everything is delivered.
  static bool delivered(std::size_t calls) {
    if (!resolved(calls)) return false;
    os_check_triggers();
    const CacheSection section;
    for (const DNSEntry* each : on_locked(DNSEntry::entries)) {
      if (each->result) return false;
    }
    return true;
  }

  // ---- What is printed ----

  static std::string with_pointer(const char* format, const void* pointer) {
    char line[200];
    snprintf(line, sizeof line, format, pointer);
    return line;
  }
  /// What DNSResult prints for a socket.
  static std::string found_line(const AsyncSocket* socket, const std::string& name,
                                const std::string& address) {
    return std::to_string(socket->s) + " AsyncSocket::DNSResult - address for " + name + " is " + address;
  }
  static std::string lost_line(const AsyncSocket* socket, const std::string& name) {
    return std::to_string(socket->s) + " AsyncSocket::DNSResult - couldn't resolve host " + name;
  }

  // ---- Sockets ----

  /// A datagram socket takes its peer's address at once when it is told.
  static OwnedSocket datagram_socket() {
    OwnedSocket socket = indirect_socket();
    EXPECT_EQ(socket->Create(SOCK_DGRAM, 0, INADDR_LOOPBACK, false), 0);
    return socket;
  }
  static OwnedSocket stream_socket(bool indirect) {
    OwnedSocket socket = indirect ? indirect_socket() : direct_socket();
    EXPECT_EQ(socket->Create(SOCK_STREAM, 0, INADDR_LOOPBACK, false), 0);
    return socket;
  }
};

}  // namespace oskernel_test

#endif
