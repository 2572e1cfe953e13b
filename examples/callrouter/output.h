// The layer below the router that writes the answers to a descriptor.
#ifndef CALLROUTER_OUTPUT_H
#define CALLROUTER_OUTPUT_H

#include <string>
#include <vector>

#include "examples/callrouter/format.h"
#include "examples/callrouter/stats.h"
#include "examples/callrouter/stop.h"
#include "kernel/io.h"

namespace callrouter {

/// Asks the layers below to pass on what they hold back: no further answer follows at once.
class EndOfBatch : public OSIOParam {
 public:
  static constexpr int kType = 1;
  int Type() override { return kType; }
};

/// Formats answers and writes them in large pieces. Used by one thread at a time.
class OutputLayer : public OSIO {
 public:
  /// Lends everything. `sources` are the names that the marks' numbers stand for.
  OutputLayer(int fd, const Formatter& formatter, const std::vector<std::string>& sources, Stats& stats,
              Stop& stop);

  /// Takes an answered line. NoConnection once the output is closed; the answer is counted all the same.
  OSIORetCode DataIndication(OSBuf* buf) override;
  /// EndOfBatch writes what is held back.
  OSIORetCode Service(OSIOParam* param) override;

  /// Why writing failed, 0 while it has not. EPIPE is the reader's free choice and no failure.
  int error() const { return error_; }

 private:
  void count(const Answer& answer);
  void write_out();
  bool wait_writable();
  void give_up(int error);

  const int fd_;
  const Formatter& formatter_;
  const std::vector<std::string>& sources_;
  Stats& stats_;
  Stop& stop_;
  const std::size_t piece_bytes_;  // the most that one write() takes without making us wait
  std::string pending_;
  int error_ = 0;
};

}  // namespace callrouter

#endif
