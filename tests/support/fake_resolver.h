/// A system resolver that knows what a test tells it, and answers when the test lets it.
///
/// Takes the place of gethostbyname in the test program that includes this file; include it in one source of a
/// program only. As with the real one, an answer stands in storage that the next call overwrites.
#ifndef OSKERNEL_TESTS_FAKE_RESOLVER_H
#define OSKERNEL_TESTS_FAKE_RESOLVER_H

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kernel/types.h"

namespace oskernel_test {

/// Operations: any thread.
class FakeResolver {
 public:
  /// Knows no name, holds no call and has never been called.
  static void reset() {
    State& state = the();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.hosts.clear();
    state.calls.clear();
    state.most_at_once = state.running;
    state.held = false;
    state.changed.notify_all();
  }
  /// From now on `name`, in exactly this spelling, has these addresses, host order. None is a host entry that has no
  /// address. Names that it has not been told are not found.
  static void know(const std::string& name, std::vector<ULONG> addresses) {
    set(name, {AF_INET, std::move(addresses), true});
  }
  static void know(const std::string& name, ULONG address) { know(name, std::vector<ULONG>{address}); }
  /// A host that has an address of the other family alone.
  static void know_as_ipv6(const std::string& name) { set(name, {AF_INET6, {0x20010DB8, 0, 0, 1}, true}); }
  /// A host entry without even a list of addresses.
  static void know_without_list(const std::string& name) { set(name, {AF_INET, {}, false}); }
  static void forget(const std::string& name) {
    State& state = the();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.hosts.erase(name);
  }

  /// Calls from now on wait inside until let_go or release.
  static void hold() {
    State& state = the();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.held = true;
    state.passes = 0;
  }
  /// Lets so many calls go on, those that wait and then those to come.
  static void let_go(int calls = 1) {
    State& state = the();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.passes += calls;
    state.changed.notify_all();
  }
  /// No call waits any more.
  static void release() {
    State& state = the();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.held = false;
    state.changed.notify_all();
  }

  /// Waits until so many calls have begun. False when the time is over.
  static bool wait_for_calls(std::size_t calls) {
    State& state = the();
    std::unique_lock<std::mutex> lock(state.mutex);
    return state.changed.wait_for(lock, kPatience, [&] { return state.calls.size() >= calls; });
  }
  /// The names it was asked for, in order.
  static std::vector<std::string> calls() {
    State& state = the();
    const std::lock_guard<std::mutex> lock(state.mutex);
    return state.calls;
  }
  /// How many calls were inside at the same time at most.
  static int most_at_once() {
    State& state = the();
    const std::lock_guard<std::mutex> lock(state.mutex);
    return state.most_at_once;
  }

  /// What gethostbyname does.
  static hostent* resolve(const char* name) {
    State& state = the();
    std::unique_lock<std::mutex> lock(state.mutex);
    state.calls.emplace_back(name);
    state.most_at_once = std::max(state.most_at_once, ++state.running);
    state.changed.notify_all();
    const bool let = state.changed.wait_for(lock, kLongest, [&] { return !state.held || state.passes > 0; });
    if (!let) std::fprintf(stderr, "a test holds the resolver for ever\n");
    if (state.held) --state.passes;
    --state.running;
    const auto found = state.hosts.find(name);
    if (found == state.hosts.end()) {
      h_errno = HOST_NOT_FOUND;
      return nullptr;
    }
    const Host host = found->second;
    lock.unlock();  // calls that are not kept apart show as a data race below
    static Answer answer;
    answer.fill(name, host);
    return &answer.entry;
  }

 private:
  static constexpr std::chrono::seconds kPatience{20};
  static constexpr std::chrono::seconds kLongest{60};

  struct Host {
    int family = AF_INET;
    std::vector<ULONG> words;
    bool has_list = true;
  };
  struct Answer {
    hostent entry = {};
    std::string name;
    std::vector<ULONG> words;
    std::vector<char*> list;
    char* no_aliases[1] = {nullptr};

    void fill(const std::string& host_name, const Host& host) {
      name = host_name;
      words.clear();
      for (const ULONG word : host.words) words.push_back(htonl(word));
      list.clear();
      const std::size_t step = host.family == AF_INET ? 1 : 4;
      for (std::size_t i = 0; i < words.size(); i += step) list.push_back(reinterpret_cast<char*>(&words[i]));
      list.push_back(nullptr);
      entry.h_name = name.data();
      entry.h_aliases = no_aliases;
      entry.h_addrtype = host.family;
      entry.h_length = static_cast<int>(4 * step);
      entry.h_addr_list = host.has_list ? list.data() : nullptr;
    }
  };
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, Host> hosts;
    std::vector<std::string> calls;
    int running = 0;
    int most_at_once = 0;
    int passes = 0;
    bool held = false;
  };

  static void set(const std::string& name, Host host) {
    State& state = the();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.hosts[name] = std::move(host);
  }
  static State& the() {
    static State* const state = new State;  // a resolver thread may ask until the process ends
    return *state;
  }
};

}  // namespace oskernel_test

// The executable's symbol comes before the C library's, for the shared library under test too.
extern "C" __attribute__((visibility("default"))) hostent* gethostbyname(const char* name) {
  return oskernel_test::FakeResolver::resolve(name);
}

#endif
