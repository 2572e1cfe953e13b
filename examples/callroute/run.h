// What asking numbers and generating load have in common.
#ifndef CALLROUTE_RUN_H
#define CALLROUTE_RUN_H

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "examples/callroute/options.h"
#include "examples/callroute/peer.h"
#include "kernel/trigger.h"

namespace callroute {

using Clock = std::chrono::steady_clock;

/// Runs on the thread that makes it: sockets and timers deliver to that thread's own ready list, and run() waits
/// for them there.
class Run : public Peer::Events {
 public:
  /// Lends options.
  explicit Run(const Options& options);
  ~Run() override;
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  /// Until everything is answered or something has failed, which has been reported.
  ///   returns   the exit code
  int run();

  /// A name is still being looked up: nobody can say for how long.
  bool looking_up() const { return looking_up_; }

 protected:
  struct Call {
    std::string number;
    Clock::time_point sent_at;
  };
  struct Line {
    std::unique_ptr<Peer> peer;
    std::deque<Call> calls;  ///< on the way, oldest first
    Clock::time_point connecting_since;
    bool connecting = false;
    bool connected = false;
  };

  void on_connected(Peer& peer) final;
  void on_answer(Peer& peer, std::string_view answer) final;
  void on_closed(Peer& peer, OSIOReason reason, int code) final;

  /// Makes the next connection.
  void connect();
  void ask(Line& line, std::string number);
  /// The run ends with this. The first failure counts.
  void fail(int exit_code, std::string text);
  void finish() { done_ = true; }
  bool done() const { return done_; }

  virtual void connected(Line& line) = 0;
  /// An answer to the oldest call, which is off the line's list.
  ///   returns   false when it is no answer to that number
  virtual bool answered(Line& line, const Call& call, std::string_view answer) = 0;
  virtual void tick() {}  ///< ten times a second
  virtual void report() = 0;

  const Options& options_;
  std::deque<Line> lines_;  ///< by the peers' indexes

 private:
  static void on_tick(OSObj* run, ADDR, ULONG);
  void check_times();
  std::string target() const;
  bool host_is_name() const;

  std::unique_ptr<OSTimerTrigger> tick_;
  bool done_ = false;
  bool looking_up_ = false;
  bool heard_ = false;  // the router has answered something
  int exit_code_ = kExitOk;
  std::string failure_;
  std::string remark_;  // what the router has said without being asked
};

/// Asks the numbers of the command line or of standard input.
int ask_numbers(const Options& options, bool& looking_up);

/// Generates calls. Throws callrouter::UsageError for a bad plan.
int generate_load(const Options& options, bool& looking_up);

}  // namespace callroute

#endif
