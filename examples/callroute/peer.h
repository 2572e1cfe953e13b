// One connection to a router, in either framing.
#ifndef CALLROUTE_PEER_H
#define CALLROUTE_PEER_H

#include <memory>
#include <string>
#include <string_view>

#include "examples/callroute/options.h"
#include "examples/callrouter/connection.h"
#include "kernel/io.h"
#include "kernel/types.h"

namespace callroute {

/// Asks and hears. Everything on the thread that makes it, which has a ready list of its own.
class Peer {
 public:
  class Events {
   public:
    virtual ~Events() = default;
    virtual void on_connected(Peer& peer) = 0;
    /// Lends the answer. The peer is not to be deleted from any of these.
    virtual void on_answer(Peer& peer, std::string_view answer) = 0;
    /// The connection has ended or could not be made; nothing follows.
    virtual void on_closed(Peer& peer, OSIOReason reason, int code) = 0;
  };

  /// Lends `options` and `events`. `index` is the caller's.
  static std::unique_ptr<Peer> make(const Options& options, Events& events, int index);

  virtual ~Peer() = default;
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  /// Begins to connect: to a dotted address, or to a name that is looked up in the background.
  virtual void connect(const std::string& host, UWORD port) = 0;
  /// Sends a number. It may wait for the router to take it; a failure is told as on_closed().
  virtual void ask(std::string_view number) = 0;
  /// The number as it goes out: what this framing cannot carry is replaced.
  virtual std::string askable(std::string_view number) const = 0;
  /// The answer as it comes in: without what this framing loses.
  virtual std::string as_received(std::string_view answer) const = 0;

  int index() const { return index_; }
  /// Connected, and TLS is being established. on_closed() then tells that it was not: `code` is no errno value.
  virtual bool securing() const { return false; }

 protected:
  Peer(Events& events, int index) : events_(events), index_(index) {}

  Events& events_;

 private:
  const int index_;
};

}  // namespace callroute

#endif
