// The system resolver, one call at a time.
#include "network/resolve_priv.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cstring>
#include <mutex>

bool resolve_host(const char* name, ULONG* address) {
  // A leaf, held over the system's call alone. Its destructor does nothing: the resolver thread may be in a call
  // while the process exits.
  static std::mutex one_at_a_time;
  const std::lock_guard<std::mutex> lock(one_at_a_time);

  const hostent* host = gethostbyname(name);  // NOLINT(concurrency-mt-unsafe): that is what the lock is for
  if (host == nullptr || host->h_addrtype != AF_INET) return false;
  if (host->h_addr_list == nullptr || host->h_addr_list[0] == nullptr) return false;
  in_addr_t address_be = 0;
  std::memcpy(&address_be, host->h_addr_list[0], sizeof address_be);
  *address = ntohl(address_be);
  return true;
}
