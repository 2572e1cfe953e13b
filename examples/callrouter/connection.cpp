#include "examples/callrouter/connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>

#include "examples/callrouter/answer.h"
#include "examples/callrouter/window.h"
#include "kernel/buffer.h"
#include "network/asocket.h"
#include "network/assl.h"

namespace callrouter {
namespace {

// Answers are sent in pieces of a segment's size. A socket that the system calls writable takes one whole: at
// least a third of its send buffer is free then, and the smallest buffer there is has a multiple of that.
constexpr std::size_t kPieceBytes = 1400;

// With hundreds of peers that send without end, each of the others is served within some ten milliseconds.
constexpr int kTurn = 64;

// StartSSL's options (assl.h).
constexpr ULONG kVerifyClients = 1;
constexpr ULONG kRefuseSelfSigned = 2;

// The descriptor belongs to the socket, whose monitor thread closes it when a frame is broken.
int descriptor(const AsyncSocket& socket) {
  return std::atomic_ref(const_cast<AsyncSocket&>(socket).s).load();
}

std::string address_of(AsyncSocket& socket) {
  char text[16];
  return fmt::format("{}:{}", socket.rem_sin.AddressStr(text), socket.RemotePort());
}

}  // namespace

const char* name_of(Framing framing) { return framing == Framing::kLines ? "lines" : "tpkt"; }

const char* name_of(Offer offer) {
  return offer == Offer::kTlsLines ? "tls lines" : name_of(framing_of(offer));
}

void send_without_delay(AsyncSocket& socket) {
  const int on = 1;
  setsockopt(descriptor(socket), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

Connection::Connection(const Means& means, Offer offer, AsyncSocket* socket, std::uint32_t number)
    : means_(means),
      offer_(offer),
      framing_(framing_of(offer)),
      socket_(socket),
      number_(number),
      peer_(address_of(*socket)),
      router_(means.plan),
      answers_(*this),
      cutter_(static_cast<std::size_t>(Window::max_text())),
      active_at_(os_clock()) {
  socket_->Bind(this);
  router_.Bind(&answers_);
  send_without_delay(*socket_);
}

// A socket that is freed closes its session without a word, which its peer takes for an accident.
Connection::~Connection() {
  if (established_) socket_->StopSSL();
  socket_->Free();
}

void Connection::start() {
  if (is_secure(offer_) && means_.verify_clients) return start_verifying();
  socket_->ConnectAck();
}

// What ConnectAck does for a secure socket, but that it asks no client for a certificate.
void Connection::start_verifying() {
  std::atomic_ref(socket_->state).store(SSConnected);
  const int result = socket_->StartSSL(true, kVerifyClients | kRefuseSelfSigned, nullptr);
  if (result > 0) {
    DisconnectIndication(Failed, SSL_ERROR_SSL);
    return;
  }
  if (result == 0) ConnectIndication(nullptr);
  socket_->StartTask();  // the socket leads what is left of the handshake
}

int Connection::queued() const {
  EnterCriticalSection(&socket_->local_cs);
  const int count = socket_->q.Size();
  LeaveCriticalSection(&socket_->local_cs);
  return count;
}

// ---- from the socket ----------------------------------------------------------------------------------------

OSIORetCode Connection::DataIndication(OSBuf* buf) {
  std::string_view bytes(reinterpret_cast<const char*>(buf->data), buf->length);
  turn_left_ = kTurn;
  if (!ended_) {
    if (!held()) bytes.remove_prefix(consume(bytes));
    if (!bytes.empty()) input_.emplace_back(bytes);
  }
  buf->Free();
  if (!held()) work();
  return Success;
}

// Nothing is received on a secure connection before this, and on a plain one it does not come.
OSIORetCode Connection::ConnectIndication(OSIOAddress*) {
  established_ = true;
  Stats::count(means_.stats.tls_sessions);
  return Success;
}

// A peer that has ended its own sending still reads. One that is gone does not, and a broken frame leaves no way
// to tell what followed it.
OSIORetCode Connection::DisconnectIndication(OSIOReason reason, int code) {
  peer_ended_ = true;
  if (is_secure(offer_) && !established_) Stats::count(means_.stats.tls_failures);
  // The peer has closed its session in good order; it may read on, as behind a plain connection's end.
  const bool orderly =
      reason == Normal || (established_ && reason == Failed && code == SSL_ERROR_ZERO_RETURN);
  if (!orderly) {
    end();
  } else if (!held()) {
    turn_left_ = kTurn;
    work();
  }
  return Success;
}

void Connection::end() {
  if (ended_) return;
  ended_ = true;
  means_.keeper.on_ended(*this);
}

// ---- answering ----------------------------------------------------------------------------------------------

void Connection::resume() {
  if (ended_) return;
  hold_ = Hold::kNone;
  turn_left_ = kTurn;
  work();
  // Delivers what has come meanwhile, and the socket reads again.
  if (!held() && !ended_) socket_->qtrigger.Clear();
}

void Connection::hold(Hold why) {
  hold_ = why;
  socket_->qtrigger.Cancel();
  if (why == Hold::kNoRoom) {
    means_.keeper.on_no_room(*this);
  } else {
    means_.keeper.on_turn_over(*this);
  }
}

// Sends what is answered and answers what is there, as long as the peer takes the answers and it is its turn.
void Connection::work() {
  while (!ended_) {
    if (!send_out()) {
      if (!ended_) hold(Hold::kNoRoom);
      return;
    }
    if (input_.empty()) break;
    if (turn_left_ <= 0) return hold(Hold::kTurnOver);
    const std::string piece = std::move(input_.front());
    input_.pop_front();
    const std::size_t used = consume(piece);
    if (used < piece.size()) input_.push_front(piece.substr(used));
  }
  if (!peer_ended_ || ended_) return;
  InputLine rest;
  cutter_.finish();
  if (cutter_.next(rest)) request(rest.text, rest.cut);
  if (!send_out() && !ended_) return hold(Hold::kNoRoom);
  end();
}

// Returns how many bytes need not be shown again: fewer than there are when the peer has to take answers first, or
// when its turn is over.
std::size_t Connection::consume(std::string_view bytes) {
  if (framing_ == Framing::kPackets) {
    const auto limit = static_cast<std::size_t>(Window::max_text());
    request(bytes.substr(0, limit), bytes.size() > limit);
    return bytes.size();
  }
  cutter_.add(bytes);
  InputLine line;
  while (!ended_ && turn_left_ > 0 && (out_.size() < kPieceBytes || send_out()) && cutter_.next(line)) {
    request(line.text, line.cut);
  }
  return bytes.size() - cutter_.take_rest().size();
}

void Connection::request(std::string_view text, bool cut) {
  OSBuf* buf = OSBuf::Alloc(reinterpret_cast<const UBYTE*>(text.data()), static_cast<int>(text.size()));
  if (buf == nullptr) return end();
  --turn_left_;
  push_mark(buf, {answered() + 1, number_ - 1, cut ? 1u : 0u});
  stamp(buf, router_);
  buf->trace = means_.tracing.load(std::memory_order_relaxed) ? 1 : 0;
  router_.DataIndication(buf);
}

OSIORetCode Connection::AnswerLayer::DataIndication(OSBuf* buf) {
  const Answer answer = pull_answer(buf);
  Stats& stats = connection_.means_.stats;
  if (answer.malformed()) {
    Stats::count(stats.malformed);
  } else {
    Stats::count(answer.routed() ? stats.routed : stats.unroutable);
  }
  std::string text;
  connection_.means_.formatter.append(text, {answer, peek_text(buf), "", peek_mark(buf).line});
  buf->Free();
  text.pop_back();  // its line end
  connection_.answered_.fetch_add(1, std::memory_order_relaxed);
  connection_.put(std::move(text));
  return Success;
}

void Connection::remark(std::string_view text) {
  if (ended_ || !out_.empty()) return;
  put(std::string(text));
  send_out();
}

void Connection::active() {
  active_at_.store(os_clock(), std::memory_order_relaxed);
  means_.keeper.on_active(*this);
}

// ---- to the socket ------------------------------------------------------------------------------------------

void Connection::put(std::string text) {
  if (framing_ == Framing::kLines) {
    out_ += text;
    out_ += "\r\n";
    return;
  }
  // One answer at a time: no packet is looked at before the last one's answer has gone. A plan may hold texts of any
  // length, and a packet goes in one buffer.
  out_ = text.substr(0, kPieceBytes);
}

// False when something is left that the peer has no room for, or when the connection has ended.
bool Connection::send_out() {
  std::size_t sent = 0;
  while (sent < out_.size() && !ended_ && room_to_send()) {
    sent += send_piece(std::string_view(out_).substr(sent, kPieceBytes));
  }
  out_.erase(0, sent);
  if (sent > 0) active();
  return out_.empty() && !ended_;
}

// A connection that is broken counts as having room: sending tells.
bool Connection::room_to_send() const {
  pollfd room{descriptor(*socket_), POLLOUT, 0};
  return room.fd < 0 || poll(&room, 1, 0) != 0;
}

// Returns how much has gone.
std::size_t Connection::send_piece(std::string_view piece) {
  if (!socket_ended_) {
    OSBuf* buf = OSBuf::Alloc(reinterpret_cast<const UBYTE*>(piece.data()), static_cast<int>(piece.size()));
    const OSIORetCode result = buf == nullptr ? Blocked : socket_->DataIndication(buf);
    if (result == Success) return piece.size();
    if (result != NoConnection) return end(), 0;
    socket_ended_ = true;
  }
  return send_after_peer_ended(piece);
}

// A socket takes nothing more once its peer has ended its own sending, though the peer waits for the answers to
// what it sent last (nc -N does so): they go to the descriptor itself, past the socket. Inside AsyncSocket::cs
// nobody closes it meanwhile.
std::size_t Connection::send_after_peer_ended(std::string_view piece) {
  if (is_secure(offer_)) {
    if (send_through_session(piece)) return piece.size();
    return end(), 0;
  }
  std::string wire;
  if (framing_ == Framing::kPackets) {
    const std::size_t len = piece.size() + 4;  // RFC 1006 section 6
    wire = {3, 0, static_cast<char>(len >> 8), static_cast<char>(len & 0xFF)};
  }
  wire += piece;
  EnterCriticalSection(&AsyncSocket::cs);
  const int fd = descriptor(*socket_);
  const ssize_t sent = fd < 0 ? -1 : send(fd, wire.data(), wire.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  LeaveCriticalSection(&AsyncSocket::cs);
  if (sent <= 0) return end(), 0;
  if (framing_ == Framing::kLines) return static_cast<std::size_t>(sent);
  if (static_cast<std::size_t>(sent) < wire.size()) end();  // there was room for it
  return piece.size();
}

// Nothing leaves a secure connection in the clear, at its end neither. The socket's session lives as long as the
// socket.
bool Connection::send_through_session(std::string_view piece) {
  SSLInfo* const session = std::atomic_ref(socket_->ssl_info).load();
  if (!established_ || session == nullptr) return false;
  OSBuf* buf = OSBuf::Alloc(reinterpret_cast<const UBYTE*>(piece.data()), static_cast<int>(piece.size()));
  return buf != nullptr && session->DataIndication(buf) == Success;
}

}  // namespace callrouter
