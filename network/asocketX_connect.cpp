/// Connecting, listening and accepted connections.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "kernel/kernel.h"
#include "network/asocketX.h"
#include "network/asocketX_priv.h"
#include "network/dnsentry.h"
#include "network/ringbuffer.h"

namespace {

constexpr int kBacklog = 4;

SocketLink* connection_of(OSListObj* queued) {
  return static_cast<SocketLink*>(static_cast<OSLinkListObj*>(queued));
}

}  // namespace

// ---- Connecting --------------------------------------------------------------------------------------------

int AsyncSocket::Connect(ULONG addr, UWORD port) {
  {
    const SectionLock lock(&local_cs);
    rem_sin.Set(addr, port);
  }
  if (SockAddr(addr, port).IsMulticast()) set_multicast_options();
  if (seen(type) == SOCK_DGRAM) {
    publish(state, int{SSConnected});
    release_held_datagrams(true);
  } else {
    StartTask();
  }
  return 0;
}

int AsyncSocket::Connect(SockAddr& sa) { return Connect(sa.Address(), sa.Port()); }

int AsyncSocket::Connect(const char* addr, UWORD port) {
  const char* const text = addr != nullptr ? addr : "";
  const in_addr_t parsed = inet_addr(text);
  if (parsed != INADDR_NONE && parsed != INADDR_ANY) return Connect(ntohl(parsed), port);
  if (parsed == INADDR_NONE && *text != '\0') {
    {
      const SectionLock lock(&local_cs);
      rem_sin.SPort(port);
      // Before the name is asked for: the answer may come at once.
      if (seen(type) == SOCK_DGRAM && seen(state) != SSConnected) publish(awaits_address_, true);
    }
    const ULONG known = DNSEntry::Lookup(text, this);
    if (known != 0) DNSResult(text, known);
    return 0;
  }
  diagnostics().Print("%d AsyncSocket: couldn't resolve host %s", seen(s), text);
  {
    const ClassLock lock;
    SocketMonitor::unwatch_locked(this);
    const std::lock_guard<std::mutex> sends(send_mutex_);
    const int fd = seen(s);
    publish(s, -1);
    publish(connection_, connection_ + 1);
    if (fd != -1) close(fd);
  }
  return -1;
}

int AsyncSocket::ConnectAck() {
  {
    // Against a sender that has just found the stream not connected and is about to queue.
    const SectionLock lock(&local_cs);
    publish(state, int{SSConnected});
  }
  if (seen(secure)) {
    diagnostics().Print("%d AsyncSocket::ConnectAck - start SSL", seen(s));
    const int result = StartSSL(true, 0, nullptr);
    if (result > 0) {
      diagnostics().Print("%d AsyncSocket::ConnectAck - StartSSL error %d", seen(s), result);
      publish(state, int{SSDisconnected});
      indicate_failure(0);  // a direct socket's partner may free it
      return 0;
    }
    if (result < 0) {
      diagnostics().Print("%d AsyncSocket::ConnectAck - StartSSL returned %d", seen(s), result);
    } else {
      const SocketVisit visit(this, generation_);
      indicate(0, 0, 0);
      if (visit.gone()) return 0;
    }
  }
  StartTask();
  return 0;
}

bool AsyncSocket::Connected() { return seen(state) == SSConnected; }

// ---- Listening ---------------------------------------------------------------------------------------------

int AsyncSocket::Listen(OSCallbackFunction fn, void* obj) {
  if (listen(seen(s), kBacklog) == -1) return errno;
  listenFn = fn;
  listenObj = obj;
  publish(listener, true);
  listenqtrigger.SetCallback(_ListenQCallback, reinterpret_cast<OSObj*>(this), nullptr, generation_);
  StartTask();
  return 0;
}

void AsyncSocket::_ListenQCallback(OSObj* obj, ADDR /*unused*/, ULONG generation) {
  auto* const own = reinterpret_cast<AsyncSocket*>(obj);
  const SocketVisit visit(own, generation);
  if (visit.gone()) return;
  const auto take = [own](bool arm) {
    const SectionLock lock(&own->local_cs);
    SocketLink* const connection = connection_of(own->listenq.FirstObject());
    if (connection != nullptr) own->listenq.Remove(connection);
    // With the first connection taken out: a queue that held one only does not fire for what is being handed over.
    if (arm) own->listenqtrigger.Clear();
    return connection;
  };
  SocketLink* connection = take(true);
  while (connection != nullptr) {
    AsyncSocket* const accepted = own->GetNewSocket(connection->s);
    if (accepted == nullptr) {
      close(connection->s);
    } else {
      accepted->rem_sin = connection->rem_sin;
      if (own->secure) accepted->secure = true;
      own->listenFn(static_cast<OSObj*>(own->listenObj), accepted, 0);
    }
    delete connection;
    if (visit.gone()) {
      // Deliberate: returns inside cs, as Listen warns. Pinned by socket_listen_test.cpp,
      // TheThreadThatDispatchedKeepsTheClassSectionWhenTheCallbackDeletesItsListener.
      EnterCriticalSection(&cs);
      return;
    }
    connection = take(false);
  }
}

int AsyncSocket::Accept(AsyncSocket* skt, ULONG* addr, UWORD* port) {
  SockAddr peer;
  socklen_t length = sizeof(sockaddr_in);
  const int fd = accept(seen(s), peer, &length);
  if (fd == -1) return errno;
  {
    const SectionLock lock(&local_cs);
    rem_sin = peer;
  }
  skt->Create(type, fd);
  {
    const SectionLock lock(&skt->local_cs);
    skt->rem_sin = peer;
  }
  if (addr != nullptr) *addr = peer.Address();
  if (port != nullptr) *port = peer.Port();
  return 0;
}
