#include "examples/callrouter/stop.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace callrouter {

Stop::Stop() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

Stop::~Stop() { close(fd_); }

void Stop::request(Reason reason) noexcept {
  Reason none = Reason::kNone;
  if (!reason_.compare_exchange_strong(none, reason, std::memory_order_acq_rel)) return;
  const std::uint64_t one = 1;
  // Fails only when the counter is full, and then the descriptor is readable already.
  [[maybe_unused]] const ssize_t written = write(fd_, &one, sizeof one);
}

}  // namespace callrouter
