// TLS from the client's side: the files that a session needs, and what the library says of one that fails.
#ifndef CALLROUTE_TLS_H
#define CALLROUTE_TLS_H

#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "examples/callroute/options.h"

namespace callroute {

/// StartSSL's options (assl.h): a router whose certificate is self-signed is refused.
inline constexpr unsigned kRefuseSelfSigned = 2;

/// The files of the program's sessions, checked and given to the library, for as long as it lives.
///
/// A session loads a certificate and a key in the client's role, too. A user without any gets a pair that is made on
/// the spot and that nobody trusts; it lies in memory and leaves no file behind.
class TlsClient {
 public:
  /// Throws callrouter::UsageError for files that cannot be used.
  explicit TlsClient(const Options& options);
  ~TlsClient();
  TlsClient(const TlsClient&) = delete;
  TlsClient& operator=(const TlsClient&) = delete;

 private:
  std::string make_pair();

  int memory_ = -1;
  std::string cert_, key_, ca_;
};

/// Why the last session failed, made of the console's lines. Any thread.
class TlsWords {
 public:
  static void hear(std::string_view line);
  static void hear_own(std::string text) { say(std::move(text)); }  ///< what the program has found itself
  /// For the user; empty when nothing has been said.
  static std::string last();

 private:
  static void say(std::string text);

  static std::mutex mutex_;
  static std::string last_;
};

}  // namespace callroute

#endif
