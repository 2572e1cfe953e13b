// The task that serves the network.
#ifndef CALLROUTER_SERVER_H
#define CALLROUTER_SERVER_H

#include <array>
#include <atomic>
#include <cstdint>
#include <future>
#include <iterator>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "examples/callrouter/connection.h"
#include "examples/callrouter/gateways.h"
#include "kernel/task.h"
#include "kernel/trigger.h"

class AsyncSocket;

namespace callrouter {

struct ServeOptions {
  std::optional<int> line_port;  ///< nothing: no lines are served; 0: the system chooses
  std::optional<int> tpkt_port;
  std::optional<int> tls_port;
  std::string cert, key, ca;  ///< PEM files of the TLS port
  bool verify_clients = false;
  std::string address = "127.0.0.1";      ///< dotted text or a host name
  int connections = 1000;                 ///< the most at the same time
  double idle_s = 60;                     ///< a connection that answers nothing for so long is closed
  std::optional<GatewaySource> gateways;  ///< nothing: none are looked up
};

/// Listens and answers. Listeners and connections are made on this task, which has a ready list of its own: what
/// they receive is delivered to it, and the kernel's trigger task, which keeps everybody's timers, never waits
/// for a peer. Neither does this one (connection.h).
class ServerTask : public OSTask, private Connection::Keeper {
 public:
  struct Means {
    const Plan& plan;
    const Formatter& formatter;
    Stats& stats;
    const std::atomic<bool>& tracing;
  };

  /// Starts at once. Lends `means`; the networking layer runs longer.
  ///   address   host order
  ServerTask(const Means& means, const ServeOptions& options, std::uint32_t address);

  /// Waits until the ports are open.
  ///   returns   what went wrong, empty when nothing did
  std::string wait_until_open();
  /// The port that is served, 0 for none. After wait_until_open().
  int port(Offer offer) const;

  /// Closes listeners and connections and ends the task. The caller then kills and deletes the task.
  void stop();

  void Main() override;

  struct Listed {
    std::uint32_t number;
    Offer offer;
    std::string peer;
    std::uint64_t answered;
    std::uint32_t idle_ms;
    int queued;
    bool waiting;
  };
  /// Every connection, by number. Any thread.
  std::vector<Listed> connections() const;
  /// The gateways that are looked up; null when none are. After wait_until_open(), until stop().
  const Gateways* gateways() const { return gateways_.get(); }
  int most_connections() const { return options_.connections; }

 private:
  using Connections = std::list<std::unique_ptr<Connection>>;

  struct Listener {
    ServerTask* server = nullptr;
    Offer offer = Offer::kLines;
    AsyncSocket* socket = nullptr;
    int port = 0;
  };

  void make_timers();
  std::string open();
  std::string open(Listener& listener, Offer offer, int port);
  void close_all();
  void bury();
  Connection::Means means(Connection::Keeper& keeper) const;
  void accept(Offer offer, AsyncSocket* socket);

  static void on_connection(OSObj* listener, ADDR socket, ULONG);
  static void on_idle_timer(OSObj* server, ADDR, ULONG);
  static void on_room_timer(OSObj* server, ADDR, ULONG);
  static void on_chores(OSObj* server, ADDR, ULONG);

  void on_active(Connection& connection) override;
  void on_turn_over(Connection& connection) override;
  void on_no_room(Connection& connection) override;
  void on_ended(Connection& connection) override;

  const Means means_;
  const ServeOptions options_;
  const std::uint32_t address_;
  const ULONG idle_ms_;

  std::promise<std::string> opened_;
  std::atomic<bool> stopping_{false};
  // The task's own.
  std::array<Listener, std::size(kOffers)> listeners_;
  std::unique_ptr<OSTimerTrigger> idle_timer_;
  std::unique_ptr<OSTimerTrigger> room_timer_;
  // Fired for what follows: it stands on the ready list behind the others who are to be served, and no connection
  // is at work when its turn comes. What is ready may never come to an end.
  std::unique_ptr<OSTimerTrigger> chores_;
  std::unique_ptr<Gateways> gateways_;  // made before the promise is kept
  std::vector<Connection*> turn_over_;  // to go on behind the others
  std::vector<Connection*> no_room_;    // to be looked at every few milliseconds
  std::vector<Connection*> ended_;      // to be deleted
  std::uint32_t number_ = 0;

  mutable std::mutex mutex_;  // guards the list; sockets' local_cs is entered from inside
  Connections connections_;   // the one that has been idle longest first
};

}  // namespace callrouter

#endif
