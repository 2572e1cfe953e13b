// The system resolver, one call at a time.
#include "network/resolve_priv.h"

#include <arpa/inet.h>

#include <cstring>
#include <mutex>

bool look_up_host(const char* name, const std::function<void(const hostent& found)>& take) {
  // A leaf, held over the system's call and the copying of its answer. Its destructor does nothing: the resolver
  // thread may be in a call while the process exits.
  static std::mutex one_at_a_time;
  const std::lock_guard<std::mutex> lock(one_at_a_time);

  const hostent* found = gethostbyname(name);  // NOLINT(concurrency-mt-unsafe): that is what the lock is for
  if (found == nullptr || found->h_addrtype != AF_INET) return false;
  if (found->h_addr_list == nullptr || found->h_addr_list[0] == nullptr) return false;
  take(*found);
  return true;
}

bool resolve_host(const char* name, ULONG* address) {
  return look_up_host(name, [address](const hostent& found) {
    in_addr_t address_be = 0;
    std::memcpy(&address_be, found.h_addr_list[0], sizeof address_be);
    *address = ntohl(address_be);
  });
}
