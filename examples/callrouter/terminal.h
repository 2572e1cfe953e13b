// A terminal that delivers single keys, and is always given back as it was.
#ifndef CALLROUTER_TERMINAL_H
#define CALLROUTER_TERMINAL_H

namespace callrouter {

/// While it lives, the terminal hands over every key at once, unechoed, and Enter as carriage return; signals
/// from the keyboard work as ever. Does nothing when the descriptor is no terminal. One at a time.
class RawTerminal {
 public:
  explicit RawTerminal(int fd);
  ~RawTerminal();
  RawTerminal(const RawTerminal&) = delete;
  RawTerminal& operator=(const RawTerminal&) = delete;

  /// Restores the terminal for a way out that destroys nothing: exit(), a fatal report, a second signal. Any
  /// thread, any number of times; safe in a signal handler.
  static void restore() noexcept;
};

}  // namespace callrouter

#endif
