// The blocking socket: construction, connecting, accepting, closing, and what it knows of its two ends.
#include "network/socketX.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>

#include "kernel/posixkernel_priv.h"
#include "kernel/posixkernel_time.h"
#include "network/asocketX_priv.h"
#include "network/resolve_priv.h"
#include "network/socketX_priv.h"

// Sockets of the program may be destroyed after the library's own objects, and threads may use them until the end.
constinit NeverDestroyed<CRITICAL_SECTION> blocking_socket_cs OSKERNEL_NEVER_DESTROYED("_ZN6Socket2csE");
constinit NeverDestroyed<OSIndirectList> blocking_sockets
    OSKERNEL_NEVER_DESTROYED("_ZN6Socket11socket_listE");

ULONG Socket::local_ipaddr = 0;

namespace {

constexpr int kBacklog = 4;
constexpr timeval kSendTimeout = {5, 0};
constexpr int kConnectLimit_ms = 2000;
/// For how long a closing socket takes in what its peer goes on sending: the send time-out.
constexpr int kDrainLimit_ms = 5000;
constexpr std::size_t kDrain_bytes = 256;
constexpr int kForever_ms = -1;

[[maybe_unused]] const bool section_ranked = [] {
  rank_outer_section(2, &Socket::cs, "Socket::cs");
  return true;
}();

/// Set once `cs` is initialised.
constinit std::atomic<bool> SocketsInitialised{false};

sockaddr_in address_of(ULONG addr, UWORD port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(addr);
  address.sin_port = htons(port);
  return address;
}

sockaddr* plain(sockaddr_in* address) { return reinterpret_cast<sockaddr*>(address); }

// A failure leaves a socket that works all the same.
void set_options(int fd) {
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof kSendTimeout);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
}

void set_nonblocking(int fd, int on) { ioctl(fd, FIONBIO, &on); }

/// A host entry with everything that it points to in one block.
class HostCopy {
 public:
  /// Room for a copy of `from`; copy() fills it.
  explicit HostCopy(const hostent& from) : from_(from) {
    aliases_ = count_of(from.h_aliases);
    addresses_ = count_of(from.h_addr_list);
    text_bytes_ = std::strlen(name()) + 1;
    for (std::size_t i = 0; i < aliases_; ++i) text_bytes_ += std::strlen(from.h_aliases[i]) + 1;
  }

  std::unique_ptr<char[]> copy(hostent* to) const {
    const std::size_t pointers = (aliases_ + 1 + addresses_ + 1) * sizeof(char*);
    const auto address_bytes = static_cast<std::size_t>(from_.h_length);
    std::unique_ptr<char[]> block(
        new (std::nothrow) char[pointers + addresses_ * address_bytes + text_bytes_]());
    if (block == nullptr) return nullptr;
    // The pointers stand first: the block is aligned for them, and the addresses behind them for theirs.
    auto* const alias_list = reinterpret_cast<char**>(block.get());
    char** const address_list = alias_list + aliases_ + 1;
    char* next = block.get() + pointers;
    for (std::size_t i = 0; i < addresses_; ++i, next += address_bytes) {
      std::memcpy(next, from_.h_addr_list[i], address_bytes);
      address_list[i] = next;
    }
    to->h_name = put(&next, name());
    for (std::size_t i = 0; i < aliases_; ++i) alias_list[i] = put(&next, from_.h_aliases[i]);
    to->h_aliases = alias_list;
    to->h_addrtype = from_.h_addrtype;
    to->h_length = from_.h_length;
    to->h_addr_list = address_list;
    return block;
  }

 private:
  static std::size_t count_of(char* const* list) {
    std::size_t count = 0;
    while (list != nullptr && list[count] != nullptr) ++count;
    return count;
  }
  static char* put(char** next, const char* text) {
    char* const start = *next;
    const std::size_t bytes = std::strlen(text) + 1;
    std::memcpy(start, text, bytes);
    *next += bytes;
    return start;
  }
  const char* name() const { return from_.h_name != nullptr ? from_.h_name : ""; }

  const hostent& from_;
  std::size_t aliases_;
  std::size_t addresses_;
  std::size_t text_bytes_;
};

}  // namespace

// ---- Construction ------------------------------------------------------------------------------------------

BOOL Socket::Init(ULONG addr) {
  static constinit std::mutex first_call;
  if (addr != 0) publish(local_ipaddr, addr);
  if (!SocketsInitialised.load()) {
    const std::lock_guard<std::mutex> lock(first_call);
    init_section(&cs);
    SocketsInitialised.store(true);
  }
  return SocketsInitialised.load() ? TRUE : FALSE;
}

void Socket::enlist() {
  Init(0);
  const SectionLock lock(&cs);
  socket_list.Append(this);
}

Socket::Socket(Type kind, UWORD port, bool waits, ULONG addr)
    : type(kind),
      state(INVALID),
      local_sin(),
      remote_sin(),
      s(-1),
      queue(1, 0),
      phostent(nullptr),
      rmthostent(),
      readfds(),
      exceptfds(),
      remote_text_() {
  enlist();
  if (!open_descriptor(IPPROTO_TCP, IPPROTO_UDP)) return;
  set_options(s);
  if (!bind_to(addr != 0 ? addr : seen(local_ipaddr), port)) {
    diagnostics().Print("Socket: bind() error %d for port %d", errno, int{port});
    drop_descriptor();
    return;
  }
  refresh_local("Socket");
  if (waits && listen(s, kBacklog) != 0) {
    diagnostics().Print("Socket: listen() error %d", errno);
    drop_descriptor();
    return;
  }
  state = READY;
}

Socket::Socket(Type kind, int descriptor, sockaddr_in* remote, int len)
    : type(kind),
      state(CONNECTED),
      local_sin(),
      remote_sin(),
      s(descriptor),
      queue(1, 0),
      phostent(nullptr),
      rmthostent(),
      readfds(),
      exceptfds(),
      remote_text_() {
  enlist();
  if (remote == nullptr || len <= 0) return;
  std::memcpy(&remote_sin, remote, std::min(static_cast<std::size_t>(len), sizeof remote_sin));
}

Socket::Socket(Type kind, char* host, UWORD port)
    : type(kind),
      state(INVALID),
      local_sin(),
      remote_sin(),
      s(-1),
      queue(1, 0),
      phostent(nullptr),
      rmthostent(),
      readfds(),
      exceptfds(),
      remote_text_() {
  enlist();
  if (!open_descriptor(0, 0)) return;
  set_options(s);
  const ULONG own = seen(local_ipaddr);
  if (!bind_to(own, 0)) {
    diagnostics().Print("Socket: bind() error %d for %08x", errno, unsigned{own});
    drop_descriptor();
    return;
  }
  if (!resolve(host != nullptr ? host : "")) {
    diagnostics().Print("Socket: couldn't resolve host %s", host != nullptr ? host : "");
    drop_descriptor();
    return;
  }
  if (kind != TCP_CLIENT) return;

  remote_sin.sin_port = htons(port);
  const int error = connect_within_limit();
  refresh_local("Socket");
  if (error != 0) {
    report_failure("Socket::Socket() connect()", error, remote_sin);
    drop_descriptor();
    return;
  }
  state = CONNECTED;
}

Socket::~Socket() {
  Socket::Close();
  const SectionLock lock(&cs);
  socket_list.Remove(this);
}

bool Socket::open_descriptor(int stream_protocol, int datagram_protocol) {
  s = type == UDP ? socket(AF_INET, SOCK_DGRAM, datagram_protocol)
                  : socket(AF_INET, SOCK_STREAM, stream_protocol);
  if (s == -1) diagnostics().Print("Socket: socket() error %d", errno);
  return s != -1;
}

void Socket::drop_descriptor() {
  close(s);
  s = -1;
}

bool Socket::bind_to(ULONG addr, UWORD port) {
  local_sin = address_of(addr, port);
  return bind(s, plain(&local_sin), sizeof local_sin) == 0;
}

// The host's address into remote_sin; the port stays. False when there is none.
bool Socket::resolve(const char* host) {
  ULONG address_be = 0;
  if (host[0] >= '0' && host[0] <= '9') {
    address_be = inet_addr(host);
    if (address_be == INADDR_NONE) address_be = 0;
  } else if (host[0] != '\0') {
    look_up_host(host, [this, &address_be](const hostent& found) {
      std::memcpy(&address_be, found.h_addr_list[0], sizeof address_be);
      host_storage_ = HostCopy(found).copy(&rmthostent);
    });
    if (host_storage_ != nullptr) phostent = &rmthostent;
  }
  if (address_be == 0) return false;
  remote_sin.sin_family = AF_INET;
  remote_sin.sin_addr.s_addr = address_be;
  return true;
}

// ---- Connecting and accepting ------------------------------------------------------------------------------

// Returns 0 or errno.
int Socket::connect_within_limit() {
  set_nonblocking(s, 1);
  static_cast<void>(connect(s, plain(&remote_sin), sizeof remote_sin));  // the second call tells the outcome
  const ULONG start = os_clock();
  Readiness ready = wait_ready(s, POLLIN | POLLOUT | POLLPRI, kConnectLimit_ms);
  while (ready.count == -1 && errno == EINTR)
    ready = wait_ready(s, POLLIN | POLLOUT | POLLPRI, time_left(start, kConnectLimit_ms));
  int error = ETIMEDOUT;
  if (ready.count > 0) error = connect(s, plain(&remote_sin), sizeof remote_sin) == 0 ? 0 : errno;
  set_nonblocking(s, 0);
  return error == EISCONN ? 0 : error;
}

// Returns 0 or errno. The send time-out ends a blocking connect too, which then goes on in the background: that is
// waited for as well.
int Socket::connect_without_limit() {
  for (bool waited = false;; waited = true) {
    if (connect(s, plain(&remote_sin), sizeof remote_sin) == 0) return 0;
    if (waited && errno == EISCONN) return 0;
    if (errno != EINPROGRESS && errno != EALREADY) return errno;
    pollfd one = {s, POLLOUT, 0};
    if (poll(&one, 1, kForever_ms) == -1) return errno;
  }
}

void Socket::Connect(ULONG addr, UWORD port) {
  remote_sin = address_of(addr, port);
  const int error = connect_without_limit();
  if (error != 0) {
    refresh_local("Socket");
    report_failure("Socket::Connect(addr,port) connect()", error, remote_sin);
    return;
  }
  refresh_local("Socket::Connect");
  state = CONNECTED;
}

void Socket::ConnectAck() {}

int Socket::accept_one(sockaddr_in* peer, int* length) {
  socklen_t bytes = sizeof *peer;
  const int fd = accept(s, plain(peer), &bytes);
  if (fd == -1) diagnostics().Print("Socket::Accept: accept() %d", errno);
  *length = static_cast<int>(bytes);
  return fd;
}

Socket* Socket::Accept() {
  sockaddr_in peer{};
  int length = 0;
  const int fd = accept_one(&peer, &length);
  if (fd == -1) return nullptr;
  auto* const accepted = new (std::nothrow) Socket(TCP_SERVER, fd, &peer, length);
  if (accepted == nullptr) close(fd);
  return accepted;
}

bool Socket::Secure() { return false; }

// ---- Closing -----------------------------------------------------------------------------------------------

void Socket::Close() {
  if (s != -1) {
    shutdown(s, SHUT_RDWR);
    if (!is_datagram_descriptor()) drain();
    drop_descriptor();
  }
  state = INVALID;
}

// Asks the system: a descriptor that has been wrapped may be of another kind than it is called.
bool Socket::is_datagram_descriptor() {
  int kind = 0;
  socklen_t length = sizeof kind;
  return getsockopt(s, SOL_SOCKET, SO_TYPE, &kind, &length) == 0 && kind == SOCK_DGRAM;
}

// Takes in what the peer still sends, so that closing does not reset the connection under data that the peer has not
// read yet. Ends at the end of the stream; at any error that does not pass by itself; and when the peer goes on for
// too long.
void Socket::drain() {
  const ULONG start = os_clock();
  UBYTE scrap[kDrain_bytes];
  for (;;) {
    const ssize_t received = recv(s, scrap, sizeof scrap, MSG_DONTWAIT);
    const int error = received == -1 ? errno : 0;
    if (received == 0 || (received == -1 && error != EINTR && error != EAGAIN)) return;
    const int left = time_left(start, kDrainLimit_ms);
    if (left == 0) return;
    if (error == EAGAIN && wait_ready(s, POLLIN, left).count == 0) return;
  }
}

// ---- Both ends ---------------------------------------------------------------------------------------------

bool Socket::refresh_local(const char* who) {
  sockaddr_in own{};
  socklen_t length = sizeof own;
  if (getsockname(s, plain(&own), &length) != 0) {
    if (who != nullptr) diagnostics().Print("%s: getsockname() error %d", who, errno);
    return false;
  }
  local_sin = own;
  return true;
}

void Socket::report_failure(const char* what, int error, const sockaddr_in& to) {
  diagnostics().Print("%s error %d to %08x:%u from %08x:%u", what, error, unsigned{ntohl(to.sin_addr.s_addr)},
                      unsigned{ntohs(to.sin_port)}, unsigned{ntohl(local_sin.sin_addr.s_addr)},
                      unsigned{ntohs(local_sin.sin_port)});
}

char* Socket::RemoteIPText() {
  inet_ntop(AF_INET, &remote_sin.sin_addr, remote_text_, sizeof remote_text_);
  return remote_text_;
}

ULONG Socket::RemoteIP_n() { return remote_sin.sin_addr.s_addr; }

ULONG Socket::RemoteIP_h() { return ntohl(remote_sin.sin_addr.s_addr); }

char* Socket::RemoteHostname() { return rmthostent.h_name; }

UWORD Socket::RemotePort() { return ntohs(remote_sin.sin_port); }

ULONG Socket::LocalIP_n() {
  if (local_sin.sin_addr.s_addr == 0) refresh_local("Socket::LocalIP_n");
  return local_sin.sin_addr.s_addr;
}

ULONG Socket::LocalIP_h() { return ntohl(LocalIP_n()); }

UWORD Socket::LocalPort() {
  if (local_sin.sin_port == 0) refresh_local(nullptr);
  return ntohs(local_sin.sin_port);
}
