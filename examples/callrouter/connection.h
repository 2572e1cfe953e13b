// One accepted connection: the layer above its socket.
#ifndef CALLROUTER_CONNECTION_H
#define CALLROUTER_CONNECTION_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <string>
#include <string_view>

#include "examples/callrouter/format.h"
#include "examples/callrouter/plan.h"
#include "examples/callrouter/request_cutter.h"
#include "examples/callrouter/router.h"
#include "examples/callrouter/stats.h"
#include "kernel/io.h"
#include "kernel/types.h"

class AsyncSocket;

namespace callrouter {

/// How requests stand in the stream.
enum class Framing {
  kLines,   ///< text lines; answers end in CR LF
  kPackets  ///< RFC 1006 packets, one request or answer each
};

const char* name_of(Framing framing);

/// What a port serves. The secure ones are the same inside a TLS session.
enum class Offer { kPackets, kLines, kTlsLines };

inline constexpr Offer kOffers[] = {Offer::kPackets, Offer::kLines, Offer::kTlsLines};

const char* name_of(Offer offer);
inline Framing framing_of(Offer offer) {
  return offer == Offer::kPackets ? Framing::kPackets : Framing::kLines;
}
inline bool is_secure(Offer offer) { return offer == Offer::kTlsLines; }

/// Requests come up from the socket, pass the router and go down again as answers, in their order:
///
///   socket --OSBuf--> Connection --line--> RouterLayer --answer--> AnswerLayer --OSBuf--> socket
///
/// A socket's send waits for its peer, and everybody else on the same thread with it. So nothing is sent that the
/// socket has no room for: a connection whose peer does not read its answers is held. Its socket's queue is not
/// delivered any more, the socket stops reading, and the peer finds its own sends held up. The keeper looks after
/// it from time to time. A peer that sends many requests at once is held, too, after some of them, until all
/// others have had their turn.
///
/// All of it on one thread, the keeper's, but for what is said to be for any.
class Connection : public OSIO {
 public:
  class Keeper {
   public:
    virtual ~Keeper() = default;
    virtual void on_active(Connection& connection) = 0;     ///< it has answered something
    virtual void on_turn_over(Connection& connection) = 0;  ///< resume() it, once, after the others
    virtual void on_no_room(Connection& connection) = 0;    ///< resume() it, once, some milliseconds later
    virtual void on_ended(Connection& connection) = 0;      ///< it is over; delete it, but not from here
  };

  struct Means {
    const Plan& plan;
    const Formatter& formatter;
    Stats& stats;
    const std::atomic<bool>& tracing;
    Keeper& keeper;
    bool verify_clients = false;  ///< TLS: only clients with a certificate of the CA are served
  };

  /// Takes the socket and binds above it; lends the rest. `number` tells the connection from others, from 1.
  Connection(const Means& means, Offer offer, AsyncSocket* socket, std::uint32_t number);
  /// Closes the connection. Not from inside an indication of its own.
  ~Connection() override;

  /// Reception begins.
  void start();

  OSIORetCode DataIndication(OSBuf* buf) override;
  OSIORetCode ConnectIndication(OSIOAddress* address) override;
  OSIORetCode DisconnectIndication(OSIOReason reason, int code) override;

  /// Goes on with a connection that is held; it may be held again at once.
  void resume();
  /// Tells the peer something that it has not asked for, if it can be told at once.
  void remark(std::string_view text);
  /// Nothing more is answered.
  void end();
  bool ended() const { return ended_; }

  // What the operator sees. Any thread, while the connection lives.
  std::uint32_t number() const { return number_; }
  Offer offer() const { return offer_; }
  const std::string& peer() const { return peer_; }
  std::uint64_t answered() const { return answered_.load(std::memory_order_relaxed); }
  bool waiting() const { return hold_.load(std::memory_order_relaxed) == Hold::kNoRoom; }  ///< for its peer
  ULONG active_at() const { return active_at_.load(std::memory_order_relaxed); }           ///< os_clock()
  int queued() const;  ///< received buffers

  std::list<std::unique_ptr<Connection>>::iterator place;  ///< for the keeper

 private:
  class AnswerLayer : public OSIO {
   public:
    explicit AnswerLayer(Connection& connection) : connection_(connection) {}
    OSIORetCode DataIndication(OSBuf* buf) override;

   private:
    Connection& connection_;
  };

  enum class Hold { kNone, kTurnOver, kNoRoom };

  void start_verifying();
  bool held() const { return hold_.load(std::memory_order_relaxed) != Hold::kNone; }
  void hold(Hold why);
  void work();
  std::size_t consume(std::string_view bytes);
  void request(std::string_view text, bool cut);
  void put(std::string text);
  bool send_out();
  bool room_to_send() const;
  std::size_t send_piece(std::string_view piece);
  std::size_t send_after_peer_ended(std::string_view piece);
  bool send_through_session(std::string_view piece);
  void active();

  const Means means_;
  const Offer offer_;
  const Framing framing_;
  AsyncSocket* const socket_;
  const std::uint32_t number_;
  const std::string peer_;
  RouterLayer router_;
  AnswerLayer answers_;
  RequestCutter cutter_;
  std::deque<std::string> input_;  // received, not looked at: the rest of a segment, or packets
  std::string out_;                // answered, not sent
  int turn_left_ = 0;              // requests that are looked at before the others are served
  bool established_ = false;       // TLS: the handshake is done
  bool peer_ended_ = false;        // answers what it has, then ends
  bool socket_ended_ = false;      // the socket takes nothing more: out_ holds what goes on the wire
  bool ended_ = false;
  // Written by the connection's thread alone, for display: they publish nothing.
  std::atomic<std::uint64_t> answered_{0};
  std::atomic<Hold> hold_{Hold::kNone};
  std::atomic<ULONG> active_at_;
};

/// Gives the answers of a connection to the peer at once, however short they are.
void send_without_delay(AsyncSocket& socket);

}  // namespace callrouter

#endif
