#include "examples/callrouter/terminal.h"

#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

namespace callrouter {
namespace {

// The descriptor to restore, or -1. Published after saved is filled in.
std::atomic<int> raw_fd{-1};
termios saved;

}  // namespace

RawTerminal::RawTerminal(int fd) {
  termios now;
  if (!isatty(fd) || tcgetattr(fd, &now) != 0) return;
  saved = now;
  [[maybe_unused]] static const int registered = std::atexit([] { restore(); });
  raw_fd.store(fd, std::memory_order_release);

  // IEXTEN off gives us control-R and control-V; ICRNL off leaves Enter what the key sends. Output processing
  // and ISIG stay: other threads print lines, and control-C must end the program.
  now.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | IEXTEN);
  now.c_iflag &= ~static_cast<tcflag_t>(ICRNL | INLCR | IGNCR);
  now.c_cc[VMIN] = 1;
  now.c_cc[VTIME] = 0;
  tcsetattr(fd, TCSADRAIN, &now);
}

RawTerminal::~RawTerminal() { restore(); }

void RawTerminal::restore() noexcept {
  const int fd = raw_fd.exchange(-1, std::memory_order_acq_rel);
  if (fd >= 0) tcsetattr(fd, TCSANOW, &saved);  // not DRAIN: a stuck terminal must not hold us up
}

}  // namespace callrouter
