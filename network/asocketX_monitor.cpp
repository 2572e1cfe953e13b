/// The monitor thread: which sockets it watches, connecting, and the data given before the connection was up.
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include "kernel/kernel.h"
#include "kernel/trigger_priv.h"
#include "network/asocketX.h"
#include "network/asocketX_priv.h"
#include "network/assl.h"

namespace {

/// Descriptors for select(), as many as the highest of them needs: fd_set itself ends at 1023.
class DescriptorSet {
 public:
  void add(int fd) {
    if (fd < 0) return;
    const auto place = static_cast<std::size_t>(fd);
    if (place / kBits >= words_.size()) words_.resize(place / kBits + 1);
    words_[place / kBits] |= fd_mask{1} << (place % kBits);
    highest_ = std::max(highest_, fd);
  }
  bool has(int fd) const {
    if (fd < 0) return false;
    const auto place = static_cast<std::size_t>(fd);
    return place / kBits < words_.size() && (words_[place / kBits] & (fd_mask{1} << (place % kBits))) != 0;
  }
  fd_set* get() { return reinterpret_cast<fd_set*>(words_.data()); }
  int count() const { return highest_ + 1; }

 private:
  static constexpr std::size_t kBits = NFDBITS;
  // fd_set is whole words of this type on every platform; never less than one, so that the kernel's copy stays inside.
  std::vector<fd_mask> words_ = std::vector<fd_mask>(sizeof(fd_set) / sizeof(fd_mask));
  int highest_ = -1;
};

/// The datagrams that are read for one event of their socket.
constexpr int kMostDatagrams = 16;
constexpr int kMostEvents = 64;
/// After so many of them the dispatcher is told what there is for it, and others who want cs get it: seldom enough that
/// the dispatcher is not woken for each buffer, often enough that nothing waits for long.
constexpr int kAtOnce_events = 32;
/// From this size on, a batch is a sign that the next one is not far.
constexpr int kBusyFrom_events = 2;
/// How often the thread looks by itself when nobody could wake it, because the pipe failed.
constexpr int kWithoutPipe_ms = 100;

/// What the thread knows of the descriptors it watches. An event that names an older generation of its descriptor is
/// out of date: the descriptor was closed, or its number given to another socket, since.
struct Watched {
  AsyncSocket* socket = nullptr;
  std::uint32_t generation = 0;
};

// The monitor thread's own: whether it signals the dispatcher behind the events it is dealing with, and whether it has
// to.
bool signals_later = false;
bool signal_is_owed = false;

int epoll_fd = -1;  // the monitor thread's; others use it inside AsyncSocket::cs, while the thread runs

// Never destroyed, because the process may exit while the thread runs. Inside AsyncSocket::cs.
std::vector<Watched>& watched = *new std::vector<Watched>;             // by descriptor
std::vector<AsyncSocket*>& retrying = *new std::vector<AsyncSocket*>;  // held back for a while

/// The sockets to look at again, in the order in which they were changed. A leaf lock.
std::mutex changed_mutex;
AsyncSocket* first_changed = nullptr;
AsyncSocket* last_changed = nullptr;
bool all_changed = false;

/// A byte is in the pipe, or on its way: whoever finds it set need not write another one. Cleared by the monitor
/// thread before it looks at what has changed, so that a change is either seen or followed by a byte.
std::atomic<bool> wake_pending{false};

std::atomic<pthread_t> monitor_id{0};

/// Tells those who wait in Free that a socket has been let go of, or that nobody will do it any more.
std::mutex release_mutex;
std::condition_variable& released = *new std::condition_variable;  // never destroyed

/// No descriptor's.
constexpr std::uint64_t kPipeTicket = ~std::uint64_t{0};

std::uint64_t ticket(int fd, std::uint32_t generation) {
  return (std::uint64_t{generation} << 32U) | static_cast<std::uint32_t>(fd);
}

OSBuf* buffer_of(OSListObj* queued) { return static_cast<OSBuf*>(static_cast<OSLinkListObj*>(queued)); }
AsyncSocket* socket_of(OSListObj* listed) { return static_cast<AsyncSocket*>(static_cast<OSIO*>(listed)); }

}  // namespace

struct SocketMonitor::Events {
  std::array<epoll_event, kMostEvents> list;
  DescriptorSet ready;
  bool busy = false;  ///< the last batch was one of several events
};

// ---- Changes and wake-ups ----------------------------------------------------------------------------------

bool SocketMonitor::is_current_thread() {
  const pthread_t id = monitor_id.load();
  return id != 0 && pthread_equal(id, pthread_self()) != 0;
}

bool* SocketMonitor::signal_owed() {
  return is_current_thread() && signals_later ? &signal_is_owed : nullptr;
}

void SocketMonitor::signal_what_is_owed() {
  if (is_current_thread() && std::exchange(signal_is_owed, false)) OSTriggerDispatch::signal_task();
}

void SocketMonitor::look_at(AsyncSocket* socket) {
  const std::lock_guard<std::mutex> lock(changed_mutex);
  if (!socket->changed_) {
    socket->changed_ = true;
    socket->next_changed_ = nullptr;
    (last_changed != nullptr ? last_changed->next_changed_ : first_changed) = socket;
    last_changed = socket;
  }
  wake_locked();
}

void SocketMonitor::look_at_all() {
  const std::lock_guard<std::mutex> lock(changed_mutex);
  all_changed = true;
  wake_locked();
}

/// Inside changed_mutex, which close_pipe takes as well: the byte does not go into a descriptor that has been closed
/// and its number given away. The pipe does not block.
void SocketMonitor::wake_locked() {
  // The thread itself looks at the changes before it waits again.
  if (is_current_thread()) return;
  const int fd = seen(AsyncSocket::sigpipefd);
  // Without a pipe yet, the thread has not looked at anything yet either.
  if (fd == -1 || wake_pending.exchange(true)) return;
  const char byte = 0;
  while (write(fd, &byte, 1) == -1 && errno == EINTR) {
  }
}

void SocketMonitor::open_pipe() {
  int ends[2] = {-1, -1};
  if (pipe(ends) == -1) {
    diagnostics().Print("AsyncSocket::MonitorThread - pipe failed (errno %d)", errno);
    return;
  }
  for (const int end : ends) {
    fcntl(end, F_SETFL, O_NONBLOCK);
    fcntl(end, F_SETFD, FD_CLOEXEC);
  }
  publish(AsyncSocket::sigfd, ends[0]);
  publish(AsyncSocket::sigpipefd, ends[1]);
}

void SocketMonitor::close_pipe() {
  const std::lock_guard<std::mutex> lock(changed_mutex);
  for (int* const end : {&AsyncSocket::sigpipefd, &AsyncSocket::sigfd}) {
    const int fd = std::atomic_ref(*end).exchange(-1);
    if (fd != -1) close(fd);
  }
  wake_pending.store(false);
}

void SocketMonitor::drain_pipe() {
  std::array<char, 100> piece;
  while (read(AsyncSocket::sigfd, piece.data(), piece.size()) == static_cast<ssize_t>(piece.size())) {
  }
  wake_pending.store(false);
}

// ---- What to watch for -------------------------------------------------------------------------------------

void SocketMonitor::watch_locked(AsyncSocket* socket, unsigned events) {
  const int fd = seen(socket->s);
  const bool known = socket->watched_fd_ == fd;
  if (!known) unwatch_locked(socket);
  if (known && socket->watched_events_ == events) return;
  const auto place = static_cast<std::size_t>(fd);
  if (place >= watched.size()) watched.resize(place + 1);
  Watched& entry = watched[place];
  if (!known) {
    entry.socket = socket;
    ++entry.generation;
  }
  epoll_event event{};
  event.events = events;
  // With nothing to read or write for, an error or a hang-up is heard of once and not again and again.
  if ((events & (EPOLLIN | EPOLLOUT)) == 0) event.events |= EPOLLET;
  event.data.u64 = ticket(fd, entry.generation);
  int result = epoll_ctl(epoll_fd, known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, fd, &event);
  // The program may have put another descriptor in the same place, or made the same one known in another way.
  if (result == -1 && (errno == ENOENT || errno == EEXIST)) {
    result = epoll_ctl(epoll_fd, errno == ENOENT ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &event);
  }
  if (result == -1) {
    const int error = errno;
    entry.socket = nullptr;
    ++entry.generation;
    socket->watched_fd_ = -1;
    if (error == EBADF) return;  // closed meanwhile
    diagnostics().Print("AsyncSocket::MonitorThread - select error %d", error);
    constexpr ULONG kAgain_ms = 1000;
    retry_later_locked(socket, kAgain_ms);
    return;
  }
  socket->watched_fd_ = fd;
  socket->watched_events_ = events;
}

void SocketMonitor::unwatch_locked(AsyncSocket* socket) {
  const int fd = socket->watched_fd_;
  if (fd == -1) return;
  socket->watched_fd_ = -1;
  socket->watched_events_ = 0;
  Watched& entry = watched[static_cast<std::size_t>(fd)];
  if (entry.socket != socket) return;
  entry.socket = nullptr;
  ++entry.generation;
  // Closing the descriptor is not enough when a child process has inherited it.
  if (epoll_fd != -1) epoll_ctl(epoll_fd, EPOLL_CTL_DEL, fd, nullptr);
}

void SocketMonitor::forget_locked(AsyncSocket* socket) {
  unwatch_locked(socket);
  if (socket->retrying_) {
    socket->retrying_ = false;
    std::erase(retrying, socket);
  }
  const std::lock_guard<std::mutex> lock(changed_mutex);
  if (!socket->changed_) return;
  AsyncSocket* before = nullptr;
  for (AsyncSocket* at = first_changed; at != socket; at = at->next_changed_) before = at;
  (before != nullptr ? before->next_changed_ : first_changed) = socket->next_changed_;
  if (last_changed == socket) last_changed = before;
  socket->changed_ = false;
}

void SocketMonitor::retry_later_locked(AsyncSocket* socket, ULONG delay_ms) {
  socket->retry_at_ = os_clock() + delay_ms;
  if (!socket->retrying_) retrying.push_back(socket);
  socket->retrying_ = true;
  look_at(socket);
}

void SocketMonitor::end_retries_locked() {
  const ULONG now = os_clock();
  std::erase_if(retrying, [now](AsyncSocket* socket) {
    if (static_cast<std::int32_t>(now - socket->retry_at_) < 0) return false;
    socket->retrying_ = false;
    look_at(socket);
    return true;
  });
}

unsigned SocketMonitor::interest_locked(AsyncSocket* socket) {
  unsigned events = EPOLLPRI;
  if (seen(socket->secure_state) == SecHandshake) {
    if (seen(AsyncSocket::trace) != 0) {
      diagnostics().Print("%d AsyncSocket::MonitorThread - SSL Handshake", seen(socket->s));
    }
    const SessionUse session(socket);
    const bool writes = session.get() != nullptr && session->wants_write();
    return events | EPOLLIN | (writes ? EPOLLOUT : 0U);
  }
  if (seen(socket->type) == SOCK_STREAM) {
    const int state = seen(socket->state);
    const bool early = state == SSConnected && seen(socket->early_waiting_) &&
                       (seen(socket->secure_state) == SecSecure || socket->sends_in_the_clear());
    if (state == SSConnecting || early) events |= EPOLLOUT;
  }
  if (socket->stop_reading()) {
    if (seen(AsyncSocket::trace) != 0) {
      diagnostics().Print("%d AsyncSocket::MonitorThread - dont_read set", seen(socket->s));
    }
  } else if (!socket->retrying_) {
    events |= EPOLLIN;
  }
  return events;
}

void SocketMonitor::release_locked(AsyncSocket* socket) {
  if (seen(AsyncSocket::trace) != 0) {
    diagnostics().Print("AsyncSocket::MonitorThread - delayed deletion of %p", static_cast<void*>(socket));
  }
  forget_locked(socket);
  if (socket->listed_ != nullptr) AsyncSocket::sockets->RemoveLink(socket->listed_);
  socket->listed_ = nullptr;
  const std::lock_guard<std::mutex> lock(release_mutex);
  // From here on the socket is its owner's.
  publish(socket->deletedAck, true);
  released.notify_all();
}

void SocketMonitor::update_locked(AsyncSocket* socket) {
  if (seen(socket->deleted)) {
    if (!seen(socket->deletedAck)) release_locked(socket);
    return;
  }
  if (socket->indirect_socket && seen(socket->running) && seen(socket->s) != -1 &&
      seen(socket->type) == SOCK_STREAM && !seen(socket->listener) && seen(socket->state) == SSInitial) {
    start_connect_locked(socket);
  }
  // Bytes that a framing socket has held back go first, before there is more to read.
  if (socket->input_held_ && seen(socket->running) && !seen(socket->dont_read) && !socket->retrying_) {
    socket->Poll();
  }
  // The same for what a session has deciphered already.
  if (socket->session_holds_ && !socket->input_held_ && seen(socket->running) && !seen(socket->dont_read) &&
      !socket->retrying_) {
    socket->Poll();
  }
  // Nobody else would find out: the peer waits for us.
  if (socket->indirect_socket && seen(socket->running) && socket->was_never_secured()) socket->Poll();
  if (!socket->indirect_socket || !seen(socket->running) || seen(socket->s) == -1) {
    unwatch_locked(socket);
    return;
  }
  watch_locked(socket, interest_locked(socket));
}

void SocketMonitor::update_changed_locked() {
  bool all = seen(AsyncSocket::trace) != 0;  // the trace shows every socket of every pass
  {
    const std::lock_guard<std::mutex> lock(changed_mutex);
    all = all || all_changed;
    all_changed = false;
  }
  end_retries_locked();
  if (all) {
    OSListIterator walk(AsyncSocket::sockets);
    while (OSListObj* const listed = walk++) update_locked(socket_of(listed));
  }
  // A socket that changes while it is looked at is looked at again, but not more often than the list is long now:
  // the wait is short when something is left.
  AsyncSocket* last = nullptr;
  {
    const std::lock_guard<std::mutex> lock(changed_mutex);
    last = last_changed;
  }
  for (AsyncSocket* socket = nullptr; socket != last;) {
    {
      const std::lock_guard<std::mutex> lock(changed_mutex);
      socket = first_changed;
      if (socket == nullptr) break;
      first_changed = socket->next_changed_;
      if (first_changed == nullptr) last_changed = nullptr;
      socket->changed_ = false;
    }
    update_locked(socket);
  }
}

// ---- Connecting --------------------------------------------------------------------------------------------

void SocketMonitor::start_connect_locked(AsyncSocket* socket) {
  publish(socket->state, int{SSConnecting});
  const int fd = seen(socket->s);
  if (connect(fd, socket->rem_sin, sizeof(sockaddr_in)) == 0) return;
  const int error = errno;
  const AddressText remote(socket->rem_sin);
  if (error == EINPROGRESS || error == EALREADY || error == EINTR) {
    if (seen(AsyncSocket::trace) != 0) {
      diagnostics().Print("%d AsyncSocket::MonitorThread - connecting to %s:%u", fd, remote.c_str(),
                          socket->rem_sin.Port());
    }
    return;
  }
  diagnostics().Print("%d AsyncSocket::MonitorThread - connect() errno=%d to %s:%u", fd, error,
                      remote.c_str(), socket->rem_sin.Port());
  publish(socket->state, int{SSDisconnected});
  publish(socket->running, false);
  socket->indicate_failure(error);
}

void SocketMonitor::finish_connect_locked(AsyncSocket* socket) {
  const int fd = seen(socket->s);
  const AddressText remote(socket->rem_sin);
  const UWORD port = socket->rem_sin.Port();
  if (connect(fd, socket->rem_sin, sizeof(sockaddr_in)) == -1 && errno != EISCONN) {
    const int error = errno;
    if (error == EALREADY || error == EINPROGRESS || error == EINTR) return;
    diagnostics().Print("%d AsyncSocket::MonitorThread - connect() errno=%d to %s:%u", fd, error,
                        remote.c_str(), port);
    publish(socket->state, int{SSDisconnected});
    look_at(socket);
    if (!seen(socket->running)) return;
    socket->connect_error_ = error;  // connect() has taken it from the descriptor, where Poll would look
    socket->Poll();
    return;
  }
  SockAddr local;
  socklen_t length = sizeof(sockaddr_in);
  if (getsockname(fd, local, &length) == -1) {
    diagnostics().Print("%d AsyncSocket::MonitorThread - getsockname() errno=%d to %s:%u", fd, errno,
                        remote.c_str(), port);
  } else {
    const SectionLock lock(&socket->local_cs);
    socket->loc_sin = local;
  }
  if (seen(AsyncSocket::trace) != 0) {
    diagnostics().Print("%d AsyncSocket::MonitorThread - connected to %s:%u", fd, remote.c_str(), port);
  }
  {
    // Against a sender that has just found the stream not connected and is about to queue.
    const SectionLock lock(&socket->local_cs);
    publish(socket->state, int{SSConnected});
  }
  look_at(socket);
  if (seen(socket->secure) && seen(socket->secure_state) != SecSecure) {
    diagnostics().Print("%d AsyncSocket::MonitorThread - start SSL", fd);
    signal_what_is_owed();
    socket->StartSSL(false, 0, nullptr);
  }
  if (!seen(socket->secure) || seen(socket->secure_state) == SecSecure) socket->indicate(0, 0, 0);
}

void SocketMonitor::send_early_data_locked(AsyncSocket* socket) {
  if (seen(socket->secure_state) == SecSecure) {
    if (socket->send_early_data_secured()) look_at(socket);
    return;
  }
  if (!socket->sends_in_the_clear()) return;
  for (;;) {
    OSBuf* buf = nullptr;
    {
      const SectionLock lock(&socket->local_cs);
      buf = buffer_of(socket->earlyData.FirstObject());
    }
    if (buf == nullptr) break;
    // Nobody else touches the first buffer of a connected stream: senders wait, or append behind it.
    const int length = buf->length;
    const int sent = length == 0 ? 0 : socket->send_some(buf->data, length, seen(socket->connection_));
    if (sent == -1 && (errno == EAGAIN || errno == EINTR)) return;
    const AddressText remote(socket->rem_sin);
    const AddressText local(socket->loc_sin);
    if (sent == -1) {
      diagnostics().Print("%d AsyncSocket::MonitorThread - send() errno=%d to %s:%u from %s:%u",
                          seen(socket->s), errno, remote.c_str(), socket->rem_sin.Port(), local.c_str(),
                          socket->loc_sin.Port());
      publish(socket->state, int{SSDisconnected});
      break;
    }
    if (sent < length) {
      diagnostics().Print("%d AsyncSocket::MonitorThread - partial send (%d/%d) to %s:%u from %s:%u",
                          seen(socket->s), sent, length, remote.c_str(), socket->rem_sin.Port(),
                          local.c_str(), socket->loc_sin.Port());
      buf->PullUp(static_cast<UWORD>(sent));
      return;
    }
    socket->remove_early(buf);
    buf->Free();
  }
  look_at(socket);  // no more to be watched for writing
}

bool SocketMonitor::has_more_datagrams(AsyncSocket* socket) {
  if (seen(socket->type) != SOCK_DGRAM || seen(AsyncSocket::trace) != 0) return false;
  if (!seen(socket->running) || socket->retrying_ || seen(socket->dont_read)) return false;
  int waiting = 0;
  // An empty one is not seen here, and has an event.
  return ioctl(seen(socket->s), FIONREAD, &waiting) == 0 && waiting > 0;
}

// ---- The passes --------------------------------------------------------------------------------------------

void SocketMonitor::handle_locked(AsyncSocket* socket, unsigned events) {
  // As select() would have reported it in its three sets.
  const bool readable =
      (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0 && (socket->watched_events_ & EPOLLIN) != 0;
  const bool writable = (events & (EPOLLOUT | EPOLLERR)) != 0 && (socket->watched_events_ & EPOLLOUT) != 0;
  const bool urgent = (events & EPOLLPRI) != 0;
  if (!socket->indirect_socket || !seen(socket->running) || seen(socket->s) == -1) return;
  if (writable && seen(socket->state) == SSConnecting) finish_connect_locked(socket);
  if (writable && seen(socket->state) == SSConnected) send_early_data_locked(socket);
  if (urgent) {
    if (seen(AsyncSocket::trace) != 0) {
      diagnostics().Print("%d AsyncSocket::MonitorThread - except, calling Poll, running %d", seen(socket->s),
                          seen(socket->running) ? 1 : 0);
    }
    socket->urgent_ = seen(socket->running);
    if (socket->urgent_) socket->Poll();
  }
  // A handshake goes on whatever waits in the queue, and may wait for room.
  const bool handshake = seen(socket->secure_state) == SecHandshake;
  if (readable || (writable && handshake)) {
    if (seen(AsyncSocket::trace) != 0) {
      diagnostics().Print("%d AsyncSocket::MonitorThread - read, calling Poll, running %d", seen(socket->s),
                          seen(socket->running) ? 1 : 0);
    }
    if (seen(socket->dont_read) && !handshake) {
      look_at(socket);
    } else if (seen(socket->running)) {
      socket->Poll();
      // Each datagram would be an event of its own. The trace shows it as one.
      for (int more = 1; more < kMostDatagrams && has_more_datagrams(socket); ++more) socket->Poll();
    }
  }
  if (!seen(socket->running)) look_at(socket);
}

bool SocketMonitor::open_epoll() {
  epoll_fd = epoll_create1(EPOLL_CLOEXEC);
  if (epoll_fd == -1) {
    diagnostics().Print("AsyncSocket::MonitorThread - select error %d", errno);
    return false;
  }
  // A busy thread that does not come to select() hears of changes here.
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = kPipeTicket;
  if (AsyncSocket::sigfd != -1) epoll_ctl(epoll_fd, EPOLL_CTL_ADD, AsyncSocket::sigfd, &event);
  return true;
}

void SocketMonitor::take_wake_up() {
  if (seen(AsyncSocket::trace) != 0) {
    diagnostics().Print("AsyncSocket::MonitorThread - select woken by signal pipe");
  }
  drain_pipe();
}

/// Waits until something is ready or changed.
///   returns   the number of events in events->list
int SocketMonitor::wait(Events* events, timeval* until) {
  int count = 0;
  if (events->busy) {
    // More is likely to have come meanwhile. A thread that leaves the processor to those that deal with what it has
    // received finds more at a time, and is not put to sleep and woken for every few.
    sched_yield();
    count = epoll_wait(epoll_fd, events->list.data(), kMostEvents, 0);
  }
  if (count <= 0) {
    // The same two each time: select() has left nothing else in it.
    events->ready.add(AsyncSocket::sigfd);
    events->ready.add(epoll_fd);
    const int ready = select(events->ready.count(), events->ready.get(), nullptr, nullptr, until);
    if (ready < 0 && errno != EBADF) {
      diagnostics().Print("AsyncSocket::MonitorThread - select error %d", errno);
    }
    if (ready <= 0) return 0;
    if (events->ready.has(AsyncSocket::sigfd)) take_wake_up();
    if (events->ready.has(epoll_fd)) count = epoll_wait(epoll_fd, events->list.data(), kMostEvents, 0);
  }
  events->busy = count >= kBusyFrom_events;
  return count;
}

void SocketMonitor::handle_some(const Events& events, int first, int end) {
  {
    const SectionLock lock(&AsyncSocket::cs);
    signals_later = true;
    for (int i = first; i < end; ++i) {
      const epoll_event& event = events.list[static_cast<std::size_t>(i)];
      if (event.data.u64 == kPipeTicket) {
        take_wake_up();
        continue;
      }
      const Watched& entry = watched[static_cast<std::size_t>(event.data.u64 & 0xFFFFFFFFU)];
      const auto generation = static_cast<std::uint32_t>(event.data.u64 >> 32U);
      if (entry.socket != nullptr && entry.generation == generation)
        handle_locked(entry.socket, event.events);
    }
    signals_later = false;
  }
  if (std::exchange(signal_is_owed, false)) OSTriggerDispatch::signal_task();
}

void SocketMonitor::pass(Events* events) {
  timeval until{};
  bool bounded = false;
  {
    const SectionLock lock(&AsyncSocket::cs);
    update_changed_locked();
    bool left = false;
    {
      const std::lock_guard<std::mutex> changes(changed_mutex);
      left = first_changed != nullptr || all_changed;
    }
    constexpr int kRetry_ms = 10;
    const int wait_ms = left ? 0 : (!retrying.empty() ? kRetry_ms : kWithoutPipe_ms);
    bounded = left || !retrying.empty() || AsyncSocket::sigfd == -1;
    until.tv_usec = suseconds_t{wait_ms} * 1000;
  }
  const int count = wait(events, bounded ? &until : nullptr);
  if (count <= 0) return;
  for (int at = 0; at < count; at += kAtOnce_events) {
    handle_some(*events, at, std::min(at + kAtOnce_events, count));
  }
}

void SocketMonitor::run() {
  monitor_id.store(pthread_self());
  open_pipe();
  Events events;
  while (!seen(AsyncSocket::monitor_stop)) {
    if (epoll_fd != -1 || open_epoll()) {
      pass(&events);
    } else {
      Sleep(kWithoutPipe_ms);  // there may be a descriptor again
    }
  }
  const SectionLock lock(&AsyncSocket::cs);
  OSListIterator walk(AsyncSocket::sockets);
  while (OSListObj* const listed = walk++) {
    AsyncSocket* const socket = socket_of(listed);
    forget_locked(socket);
    if (seen(socket->deleted)) release_locked(socket);
  }
  close(epoll_fd);
  epoll_fd = -1;
  watched.clear();
  retrying.clear();
  const std::lock_guard<std::mutex> ended(release_mutex);
  monitor_id.store(0);
  released.notify_all();
}

void SocketMonitor::wait_for_release(AsyncSocket* socket) {
  std::unique_lock<std::mutex> lock(release_mutex);
  // Bounded, because a thread that was created may not have begun, and one that could not be created never will.
  constexpr auto kLookAgain = std::chrono::milliseconds(1);
  while (!seen(socket->deletedAck) && seen(AsyncSocket::monitor_thread) != 0 &&
         !seen(AsyncSocket::monitor_stop)) {
    released.wait_for(lock, kLookAgain);
  }
}

void* AsyncSocket::MonitorThread(void* /*unused*/) {
  if (seen(trace) != 0) diagnostics().Print("AsyncSocket::MonitorThread - started");
  SocketMonitor::run();
  if (seen(trace) != 0) diagnostics().Print("AsyncSocket::MonitorThread - exiting");
  return nullptr;
}
