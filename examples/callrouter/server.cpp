#include "examples/callrouter/server.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "examples/callrouter/stats.h"
#include "examples/callrouter/window.h"
#include "kernel/buffer.h"
#include "kernel/kernel.h"
#include "network/asocket.h"

namespace callrouter {
namespace {

constexpr UWORD kPriority = 4;
constexpr ULONG kStackBytes = 512 * 1024;
constexpr unsigned kForEver = 0xFFFFFFFFu;

constexpr int kBacklog = 128;

// How often connections are looked at whose peers had no room for an answer, while there are any.
constexpr ULONG kRoomPeriodMs = 5;

// How much longer than allowed a connection may be idle.
constexpr ULONG kMostIdlePeriodMs = 1000;
constexpr ULONG kLeastIdlePeriodMs = 20;

// Packets as large as RFC 1006 allows come in arrays of their own. Ten of them may wait on each connection, which
// adds up: only the beginning of one that is too long to be a number is kept.
class RequestSocket : public TPKTSocket {
 public:
  AsyncSocket* GetNewSocket(int descriptor) override {
    auto* socket = new RequestSocket;
    socket->Create(type, descriptor);
    return socket;
  }

  void TPKTReceive(OSBuf* buf) override {
    const int kept = Window::max_text() + 1;
    if (buf->length > kept) {
      OSBuf* beginning = OSBuf::Alloc(kept);
      if (beginning != nullptr) {
        beginning->PushData(buf->data, static_cast<UWORD>(kept));
        buf->Free();
        buf = beginning;
      }
    }
    TPKTSocket::TPKTReceive(buf);
  }
};

// Keeps connections that are only told that there are too many.
class Nobody : public Connection::Keeper {
 public:
  void on_active(Connection&) override {}
  void on_turn_over(Connection&) override {}
  void on_no_room(Connection&) override {}
  void on_ended(Connection&) override {}
};

// What the system holds for a connection, both ways, which it would let grow to megabytes for a peer that sends
// without reading. Accepted sockets inherit it.
void limit_buffers(int descriptor) {
  const int bytes = 128 * 1024;
  setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
  setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

std::string dotted(std::uint32_t address) {
  char text[16];
  return SockAddr(address, 0).AddressStr(text);
}

}  // namespace

ServerTask::ServerTask(const Means& means, const ServeOptions& options, std::uint32_t address)
    : OSTask(kPriority, kStackBytes, nullptr, nullptr),
      means_(means),
      options_(options),
      address_(address),
      idle_ms_(static_cast<ULONG>(options.idle_s * 1000)) {
  _LockDelete();  // the object stays its owner's when Main returns
  OSTaskTag::SetName("server", thread_id);
  LeaveCriticalSection(&cs);
}

std::string ServerTask::wait_until_open() { return opened_.get_future().get(); }

int ServerTask::port(Offer offer) const {
  for (const Listener& listener : listeners_) {
    if (listener.port != 0 && listener.offer == offer) return listener.port;
  }
  return 0;
}

void ServerTask::stop() {
  stopping_.store(true);
  chores_->Fire();
}

void ServerTask::Main() {
  OSTrigger::TLSInitialise();
  make_timers();
  const std::string error = open();
  if (error.empty() && options_.gateways) gateways_ = std::make_unique<Gateways>(*options_.gateways);
  opened_.set_value(error);
  // What comes before the flag is seen wakes the wait.
  while (error.empty() && !stopping_.load()) {
    WaitForSingleObject(OSTrigger::TLSGetEvent(), kForEver);
    OSTrigger::TLSPoll();
  }
  close_all();
  gateways_.reset();
  idle_timer_.reset();
  room_timer_.reset();
  OSTrigger::TLSUninitialise();
}

void ServerTask::make_timers() {
  const auto make = [this](ULONG period_ms, OSCallbackFunction callback) {
    auto timer = std::make_unique<OSTimerTrigger>(period_ms, 1);
    timer->SetCallback(callback, reinterpret_cast<OSObj*>(this), nullptr, 0);
    return timer;
  };
  idle_timer_ = make(std::clamp(idle_ms_ / 10, kLeastIdlePeriodMs, kMostIdlePeriodMs), on_idle_timer);
  idle_timer_->Clear();
  room_timer_ = make(kRoomPeriodMs, on_room_timer);
  chores_ = make(0, on_chores);
  chores_->Clear();
}

// ---- listeners ----------------------------------------------------------------------------------------------

std::string ServerTask::open() {
  const std::optional<int> ports[] = {options_.tpkt_port, options_.line_port, options_.tls_port};
  static_assert(std::size(ports) == std::size(kOffers));
  std::string error;
  for (std::size_t i = 0; i < listeners_.size() && error.empty(); ++i) {
    if (ports[i]) error = open(listeners_[i], kOffers[i], *ports[i]);
  }
  return error;
}

std::string ServerTask::open(Listener& listener, Offer offer, int port) {
  listener.server = this;
  listener.offer = offer;
  listener.socket = framing_of(offer) == Framing::kPackets ? new RequestSocket : new AsyncSocket(true);
  listener.socket->secure = is_secure(offer);  // and so is every socket that it accepts
  int error = listener.socket->Create(SOCK_STREAM, static_cast<UWORD>(port), address_, true);
  if (error == 0) error = listener.socket->Listen(on_connection, &listener);
  if (error != 0) {
    return fmt::format("cannot serve {} on {}:{}: {}", name_of(offer), dotted(address_), port,
                       std::strerror(error));
  }
  limit_buffers(listener.socket->s);
  // The socket's own backlog of 4 makes all but the first of many that connect at once try again a second later.
  listen(listener.socket->s, kBacklog);
  listener.port = listener.socket->LocalPort();
  return {};
}

void ServerTask::on_connection(OSObj* listener, ADDR socket, ULONG) {
  const auto* from = reinterpret_cast<Listener*>(listener);
  from->server->accept(from->offer, static_cast<AsyncSocket*>(socket));
}

Connection::Means ServerTask::means(Connection::Keeper& keeper) const {
  return {means_.plan, means_.formatter, means_.stats, means_.tracing, keeper, options_.verify_clients};
}

void ServerTask::accept(Offer offer, AsyncSocket* socket) {
  if (connections_.size() - ended_.size() >= static_cast<std::size_t>(options_.connections)) {
    // To say so over TLS would take a handshake, which costs more than a connection that is served.
    if (is_secure(offer)) return socket->Free();
    Nobody nobody;
    Connection refused(means(nobody), offer, socket, 0);
    refused.start();
    refused.remark(fmt::format("error: the limit of {} connection{} is reached; try again later",
                               grouped(static_cast<std::uint64_t>(options_.connections)),
                               options_.connections == 1 ? "" : "s"));
    return;
  }
  auto connection = std::make_unique<Connection>(means(*this), offer, socket, ++number_);
  Connection& made = *connection;
  {
    const std::lock_guard lock(mutex_);
    made.place = connections_.insert(connections_.end(), std::move(connection));
  }
  made.start();
}

// ---- connections --------------------------------------------------------------------------------------------

void ServerTask::on_active(Connection& connection) {
  const std::lock_guard lock(mutex_);
  connections_.splice(connections_.end(), connections_, connection.place);
}

void ServerTask::on_turn_over(Connection& connection) {
  turn_over_.push_back(&connection);
  chores_->Fire();
}

void ServerTask::on_no_room(Connection& connection) {
  if (no_room_.empty()) room_timer_->SetTimer(kRoomPeriodMs);
  no_room_.push_back(&connection);
}

void ServerTask::on_ended(Connection& connection) {
  ended_.push_back(&connection);
  chores_->Fire();
}

// Armed before anything is looked at: whoever fires meanwhile is not lost.
void ServerTask::on_chores(OSObj* server, ADDR, ULONG) {
  auto* self = reinterpret_cast<ServerTask*>(server);
  self->chores_->Clear();
  if (self->stopping_.load()) return self->close_all();
  self->bury();
  std::vector<Connection*> turn_over;
  turn_over.swap(self->turn_over_);
  for (Connection* connection : turn_over) connection->resume();
}

// Those that find no room still say so again, which arms the timer.
void ServerTask::on_room_timer(OSObj* server, ADDR, ULONG) {
  auto* self = reinterpret_cast<ServerTask*>(server);
  std::vector<Connection*> no_room;
  no_room.swap(self->no_room_);
  for (Connection* connection : no_room) connection->resume();
}

void ServerTask::on_idle_timer(OSObj* server, ADDR, ULONG) {
  auto* self = reinterpret_cast<ServerTask*>(server);
  std::vector<Connection*> idle;
  for (const auto& connection : self->connections_) {
    if (connection->ended()) continue;
    if (!os_expired(connection->active_at(), self->idle_ms_)) break;
    idle.push_back(connection.get());
  }
  for (Connection* connection : idle) {
    connection->remark(fmt::format("error: no request for {:g} s, closing", self->options_.idle_s));
    connection->end();
  }
  self->idle_timer_->Clear();
}

// The list's lock is not held while sockets are freed, which waits for the monitor thread.
void ServerTask::bury() {
  if (ended_.empty()) return;
  Connections dead;
  {
    const std::lock_guard lock(mutex_);
    for (Connection* connection : ended_) {
      std::erase(no_room_, connection);
      std::erase(turn_over_, connection);
      dead.splice(dead.end(), connections_, connection->place);
    }
  }
  ended_.clear();
}

void ServerTask::close_all() {
  for (Listener& listener : listeners_) {
    if (listener.socket != nullptr) listener.socket->Free();
    listener.socket = nullptr;
  }
  turn_over_.clear();
  no_room_.clear();
  ended_.clear();
  Connections dead;
  {
    const std::lock_guard lock(mutex_);
    dead.swap(connections_);
  }
}

std::vector<ServerTask::Listed> ServerTask::connections() const {
  std::vector<Listed> all;
  {
    const std::lock_guard lock(mutex_);
    const ULONG now = os_clock();
    for (const auto& connection : connections_) {
      all.push_back({connection->number(), connection->offer(), connection->peer(), connection->answered(),
                     now - connection->active_at(), connection->queued(), connection->waiting()});
    }
  }
  std::sort(all.begin(), all.end(), [](const Listed& a, const Listed& b) { return a.number < b.number; });
  return all;
}

}  // namespace callrouter
