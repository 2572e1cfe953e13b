/// What the sources of the TLS session share; not installed.
#ifndef OSKERNEL_ASSL_PRIV_H
#define OSKERNEL_ASSL_PRIV_H

#include <string>
#include <vector>

#include "kernel/console.h"
#include "network/assl.h"

/// Console lines that are written inside a session's section and printed behind it.
class SSLInfo::Lines {
 public:
  void add(const char* format, ...) OSKERNEL_PRINTF(2, 3);
  /// Drains the thread's OpenSSL error queue: a line for each error, naming the call that failed.
  void add_openssl_errors(const char* what);
  void print() const;

 private:
  std::vector<std::string> lines_;
};

/// What has become of an OpenSSL call. Taken inside the session's section, from the thread that made the call.
struct SSLInfo::Outcome {
  const char* what;  ///< the call's name
  const SSL* ssl;    ///< for the line only
  int code;          ///< SSL_get_error(3)
  int error;         ///< errno behind the call

  bool in_progress() const { return code == SSL_ERROR_WANT_READ || code == SSL_ERROR_WANT_WRITE; }
  /// Adds the lines that say so. On the thread that made the call: drains its error queue.
  void describe(Lines* lines) const;
};

/// What a read has brought.
struct SSLInfo::Read {
  OSBuf* buf = nullptr;      ///< null when there is nothing now, or no buffer, or the session is over
  int code = 0;              ///< the code that ended the session, as Recv returns it
  bool no_buffer = false;    ///< the pool had none: what waits to be read still waits
  bool pending = false;      ///< there is more that has left the descriptor already
  bool wants_write = false;  ///< the descriptor is to take something before more can be read
};

/// What a retry of the send queue leaves to do outside the section.
struct SSLInfo::Retry {
  Lines lines;
  OSBuf* written = nullptr;  ///< to be freed
  bool wants_read = false;   ///< the monitor thread is to read first
  bool moved = false;        ///< something has been written
  bool waiting = false;      ///< there is more in the queue
};

#endif
