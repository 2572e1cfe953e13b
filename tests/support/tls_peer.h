/// Peers that speak TLS: one that the test scripts step by step, a relay that serves bytes in small portions or cuts the
/// connection, and the programs of OpenSSL and GnuTLS.
///
///     TlsPeer peer(PeerStream::connect_to(port), TlsPeer::kClient, {.version = TLS1_3_VERSION});
///     ASSERT_TRUE(peer.handshake()) << peer.trouble();
///     peer.send("hello");
///     EXPECT_EQ(peer.receive_until("\n"), "hello\n");
///     peer.send_close_notify();
///
/// Every wait is bounded. A peer raises no SIGPIPE. One thread at a time per object.
#ifndef OSKERNEL_TESTS_TLS_PEER_H
#define OSKERNEL_TESTS_TLS_PEER_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "net_namespace.h"
#include "real_server.h"
#include "socket_peer.h"
#include "tls_files.h"

namespace oskernel_test {

/// One end of a TLS connection. What OpenSSL wants to send goes through memory, so that a script can hold it back, cut
/// it or serve it in pieces.
class TlsPeer {
 public:
  enum Role { kServer, kClient };
  struct Settings {
    std::string cert = {};            ///< PEM; a server needs it
    std::string key = {};             ///< PEM
    std::string ca = {};              ///< verifies the other end against it; empty: takes anybody
    bool demand_certificate = false;  ///< server: asks for one, and fails without
    int version = 0;                  ///< TLS1_2_VERSION or TLS1_3_VERSION alone; 0: both
    int security_level = 1;
    std::string ciphers = {};  ///< of TLS 1.2; empty: OpenSSL's choice
    int tickets = 2;           ///< that a server sends after a TLS 1.3 handshake
    std::size_t piece = 0;     ///< sends in pieces of this many bytes; 0: all at once
  };
  /// How reading came to an end.
  enum End { kOpen, kCloseNotify, kBrokenOff, kFailed };

  TlsPeer(PeerStream stream, Role role, const Settings& settings)
      : stream_(std::move(stream)), piece_(settings.piece) {
    context_.reset(SSL_CTX_new(role == kServer ? TLS_server_method() : TLS_client_method()));
    SSL_CTX* const context = context_.get();
    SSL_CTX_set_security_level(context, settings.security_level);
    SSL_CTX_set_min_proto_version(context, settings.version != 0 ? settings.version : TLS1_2_VERSION);
    if (settings.version != 0) SSL_CTX_set_max_proto_version(context, settings.version);
    if (!settings.ciphers.empty()) {
      EXPECT_EQ(SSL_CTX_set_cipher_list(context, settings.ciphers.c_str()), 1) << settings.ciphers;
    }
    if (!settings.cert.empty()) {
      EXPECT_EQ(SSL_CTX_use_certificate_chain_file(context, settings.cert.c_str()), 1) << settings.cert;
      EXPECT_EQ(SSL_CTX_use_PrivateKey_file(context, settings.key.c_str(), SSL_FILETYPE_PEM), 1)
          << settings.key;
    }
    if (!settings.ca.empty()) {
      EXPECT_EQ(SSL_CTX_load_verify_locations(context, settings.ca.c_str(), nullptr), 1) << settings.ca;
      SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    }
    if (settings.demand_certificate) {
      // Without a CA anybody's will do.
      SSL_CTX_set_verify(
          context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
          settings.ca.empty() ? [](int, X509_STORE_CTX*) { return 1; } : SSL_verify_cb(nullptr));
    }
    SSL_CTX_set_num_tickets(context, static_cast<std::size_t>(settings.tickets));
    ssl_.reset(SSL_new(context));
    in_ = BIO_new(BIO_s_mem());
    out_ = BIO_new(BIO_s_mem());
    SSL_set_bio(ssl_.get(), in_, out_);
    if (role == kServer) {
      SSL_set_accept_state(ssl_.get());
    } else {
      SSL_set_connect_state(ssl_.get());
    }
  }

  // ---- Handshake ---------------------------------------------------------------------------------------------

  /// The whole handshake. False when it fails or the other end does not answer.
  bool handshake(int timeout_ms = kPeerPatienceMs) {
    for (;;) {
      const bool done = handshake_step();
      if (!flush()) return false;
      if (done) return true;
      if (end_ != kOpen || !feed(timeout_ms)) return false;
    }
  }
  /// One step with what has been received; sends nothing. True when the handshake is done.
  bool handshake_step() {
    ERR_clear_error();
    return judge(SSL_do_handshake(ssl_.get())) == SSL_ERROR_NONE;
  }
  /// What waits to be sent, taken away: a script sends it itself, whole or in parts, through stream().
  std::string take_flight() {
    std::string bytes(static_cast<std::size_t>(BIO_ctrl_pending(out_)), '\0');
    if (!bytes.empty()) BIO_read(out_, bytes.data(), static_cast<int>(bytes.size()));
    return bytes;
  }
  /// Sends what waits to be sent.
  bool flush() {
    const std::string bytes = take_flight();
    const std::size_t step = piece_ != 0 ? piece_ : std::max<std::size_t>(bytes.size(), 1);
    for (std::size_t at = 0; at < bytes.size(); at += step) {
      if (!stream_.send_all(std::string_view(bytes).substr(at, step))) return false;
    }
    return true;
  }
  /// Waits for something from the other end and hands it to OpenSSL. False at the end, or when time runs out.
  bool feed(int timeout_ms = kPeerPatienceMs) {
    std::string bytes;
    if (!stream_.receive_some(&bytes, 16384, timeout_ms)) {
      if (end_ == kOpen && wait_readable(stream_.fd(), 0)) end_ = kBrokenOff;
      return false;
    }
    received_ += bytes.size();
    BIO_write(in_, bytes.data(), static_cast<int>(bytes.size()));
    return true;
  }

  // ---- Data --------------------------------------------------------------------------------------------------

  bool send(std::string_view bytes) { return write(bytes) && flush(); }
  /// Encrypts, as one record for each 16 KiB, and sends nothing yet: take_flight() has it.
  bool write(std::string_view bytes) {
    ERR_clear_error();
    return judge(SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size()))) == SSL_ERROR_NONE;
  }
  /// Exactly `count` bytes; fewer when the stream ends or time runs out before.
  std::string receive(std::size_t count, int timeout_ms = kPeerPatienceMs) {
    return receive_while([&](const std::string& text) { return text.size() < count; }, count, timeout_ms);
  }
  /// Up to and with `mark`; shorter when the stream ends or time runs out before.
  std::string receive_until(std::string_view mark, int timeout_ms = kPeerPatienceMs) {
    return receive_while([&](const std::string& text) { return !text.ends_with(mark); }, SIZE_MAX, timeout_ms,
                         1);
  }
  /// Everything up to the end; end() says what kind of end.
  std::string receive_to_end(int timeout_ms = kPeerPatienceMs) {
    return receive_while([](const std::string&) { return true; }, SIZE_MAX, timeout_ms);
  }

  // ---- End ---------------------------------------------------------------------------------------------------

  /// Says that nothing more is sent; the connection stays.
  bool send_close_notify() {
    ERR_clear_error();
    SSL_shutdown(ssl_.get());
    return flush();
  }
  /// Ends the connection without a word of TLS.
  void close() { stream_.close(); }
  /// The same by a reset.
  void reset() { stream_.reset(); }
  End end() const { return end_; }

  // ---- What has been agreed ----------------------------------------------------------------------------------

  int version() const { return SSL_version(ssl_.get()); }
  std::string cipher() const { return SSL_get_cipher_name(ssl_.get()); }
  long verify_result() const { return SSL_get_verify_result(ssl_.get()); }
  /// The other end's subject on one line; "(none)" without a certificate.
  std::string peer_subject() const {
    STACK_OF(X509)* const chain = SSL_get_peer_cert_chain(ssl_.get());
    X509* cert = SSL_get1_peer_certificate(ssl_.get());
    if (cert == nullptr && chain != nullptr && sk_X509_num(chain) > 0)
      X509_up_ref(cert = sk_X509_value(chain, 0));
    if (cert == nullptr) return "(none)";
    char* const line = X509_NAME_oneline(X509_get_subject_name(cert), nullptr, 0);
    std::string text = line != nullptr ? line : "";
    OPENSSL_free(line);
    X509_free(cert);
    return text;
  }
  /// The error of the last call that failed.
  std::string trouble() const { return trouble_; }
  /// Bytes that have come from the other end so far, encrypted.
  std::size_t bytes_received() const { return received_; }

  SSL* ssl() { return ssl_.get(); }
  PeerStream& stream() { return stream_; }

 private:
  struct Freer {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(SSL* ssl) const { SSL_free(ssl); }
  };

  int judge(int result) {
    const int error = SSL_get_error(ssl_.get(), result);
    if (error == SSL_ERROR_ZERO_RETURN) end_ = kCloseNotify;
    if (error == SSL_ERROR_SSL || error == SSL_ERROR_SYSCALL) {
      char text[256] = "no error is queued";
      const unsigned long code = ERR_get_error();
      if (code != 0) ERR_error_string_n(code, text, sizeof text);
      trouble_ = text;
      end_ = kFailed;
    }
    return error;
  }
  template <class More>
  std::string receive_while(More more, std::size_t count, int timeout_ms, std::size_t at_once = 16384) {
    std::string text;
    char piece[16384];
    while (more(text)) {
      ERR_clear_error();
      const int got = SSL_read(ssl_.get(), piece, static_cast<int>(std::min(at_once, count - text.size())));
      const int error = judge(got);
      if (got > 0) {
        text.append(piece, static_cast<std::size_t>(got));
        continue;
      }
      if (!flush() || error != SSL_ERROR_WANT_READ || !feed(timeout_ms)) break;
    }
    return text;
  }

  PeerStream stream_;
  std::unique_ptr<SSL_CTX, Freer> context_;
  std::unique_ptr<SSL, Freer> ssl_;
  BIO* in_ = nullptr;   // ssl_'s
  BIO* out_ = nullptr;  // ssl_'s
  std::size_t piece_;
  std::size_t received_ = 0;
  End end_ = kOpen;
  std::string trouble_;
};

/// A TLS 1.2 server may say this at any time, and a client that has said nothing yet takes no notice of it: a server
/// that speaks first.
inline constexpr std::string_view kHelloRequest("\x16\x03\x03\x00\x04\x00\x00\x00\x00", 9);

/// Stands between two peers and hands on one connection. Runs on a thread of its own; ends with the object, and then
/// both connections are closed.
class ByteRelay {
 public:
  struct Rules {
    std::size_t portion = 1;              ///< bytes that go on at a time
    std::size_t cut_forward = SIZE_MAX;   ///< ends both connections after so many bytes to the server
    std::size_t cut_backward = SIZE_MAX;  ///< the same for bytes to the client
    bool cut_by_reset = false;            ///< a cut resets the connections
    std::string greeting = {};            ///< said to the client before anything else
  };

  /// Clients connect to port(); what they say goes to `server_port` of 127.0.0.1.
  ByteRelay(UWORD server_port, Rules rules)
      : server_port_(server_port), rules_(std::move(rules)), thread_([this] { run(); }) {}
  ~ByteRelay() {
    stop_ = true;
    thread_.join();
  }
  UWORD port() const { return listener_.port(); }

 private:
  static constexpr int kLookMs = 20;

  void run() {
    PeerStream client;
    while (!stop_ && !client.is_open()) client = listener_.accept(kLookMs);
    if (stop_) return;
    PeerStream server = PeerStream::connect_to(server_port_);
    if (!rules_.greeting.empty()) client.send_all(rules_.greeting);
    std::size_t forward = 0, backward = 0;
    bool client_speaks = true, server_speaks = true;
    while (!stop_ && (client_speaks || server_speaks)) {
      pollfd fds[2] = {{client_speaks ? client.fd() : -1, POLLIN, 0},
                       {server_speaks ? server.fd() : -1, POLLIN, 0}};
      if (::poll(fds, 2, kLookMs) <= 0) continue;
      if (fds[0].revents != 0) client_speaks = pass(client, server, &forward, rules_.cut_forward);
      if (fds[1].revents != 0) server_speaks = pass(server, client, &backward, rules_.cut_backward);
      if (forward >= rules_.cut_forward || backward >= rules_.cut_backward) {
        if (rules_.cut_by_reset) {
          client.reset();
          server.reset();
        }
        return;
      }
    }
    // An end that was passed on is not a reason to close the other direction; who is left ends the test.
    while (!stop_ && !(client.ended(kLookMs) && server.ended(kLookMs))) {
    }
  }
  bool pass(PeerStream& from, PeerStream& to, std::size_t* passed, std::size_t limit) const {
    std::string bytes;
    if (!from.receive_some(&bytes, std::min<std::size_t>(16384, limit - *passed), 0)) {
      to.half_close();
      return false;
    }
    for (std::size_t at = 0; at < bytes.size() && !stop_; at += rules_.portion) {
      if (!to.send_all(std::string_view(bytes).substr(at, rules_.portion))) return false;
    }
    *passed += bytes.size();
    return true;
  }

  const UWORD server_port_;
  const Rules rules_;
  PeerListener listener_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// ---- Programs --------------------------------------------------------------------------------------------------

inline const char* openssl_version_option(int version) {
  return version == TLS1_2_VERSION ? "-tls1_2" : "-tls1_3";
}
inline std::string gnutls_priority(int version) {
  return std::string("NORMAL:-VERS-ALL:+VERS-TLS1.") + (version == TLS1_2_VERSION ? "2" : "3");
}

/// "openssl s_server" that answers each line with the line backwards. Give it to RealServer.
inline RealServer::Command openssl_server(TlsFiles& files, TlsFiles::Kind kind, int version,
                                          std::vector<std::string> extra = {}) {
  const std::string cert = files.cert(kind), key = files.key(kind), ca = files.ca();
  return [=](const std::string& port) {
    std::vector<std::string> command{"openssl",     "s_server",
                                     "-accept",     "127.0.0.1:" + port,
                                     "-cert",       cert,
                                     "-key",        key,
                                     "-cert_chain", cert,
                                     "-CAfile",     ca,
                                     "-rev",        openssl_version_option(version)};
    command.insert(command.end(), extra.begin(), extra.end());
    return command;
  };
}
/// "gnutls-serv" that answers with what it is sent. Give it to RealServer.
inline RealServer::Command gnutls_server(TlsFiles& files, TlsFiles::Kind kind, int version,
                                         std::vector<std::string> extra = {"--disable-client-cert"}) {
  const std::string cert = files.cert(kind), key = files.key(kind), ca = files.ca();
  return [=](const std::string& port) {
    std::vector<std::string> command{"gnutls-serv",    "--echo", "--port",        port,
                                     "--x509certfile", cert,     "--x509keyfile", key,
                                     "--x509cafile",   ca,       "--priority",    gnutls_priority(version)};
    command.insert(command.end(), extra.begin(), extra.end());
    return command;
  };
}

/// A client program with its input in the test's hands.
class RealClient {
 public:
  explicit RealClient(std::vector<std::string> command)
      : input_(make_pipe()), program_(start(std::move(command))) {
    reads_.reset();
  }

  bool say(std::string_view text) {
    while (!text.empty()) {
      const ssize_t sent = ::write(input_.get(), text.data(), text.size());
      if (sent <= 0) return false;
      text.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }
  /// The program's input is over; most then close the connection.
  void end_input() { input_.reset(); }
  Process& program() { return program_; }
  bool wait_for_output(std::string_view text) { return program_.wait_for_output(text); }

 private:
  int make_pipe() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    reads_.reset(ends[0]);
    return ends[1];
  }
  Process start(std::vector<std::string> command) {
    return Process(
        std::move(command),
        [](int fd) -> const char* { return dup2(fd, STDIN_FILENO) < 0 ? "no input" : nullptr; },
        reads_.get());
  }

  Descriptor reads_;
  Descriptor input_;
  Process program_;
};

/// "openssl s_client". It verifies against the CA of the files; the connection is made whatever the result, which stands
/// in its output ("Verify return code: 0 (ok)").
inline std::vector<std::string> openssl_client(TlsFiles& files, UWORD port, int version,
                                               std::vector<std::string> extra = {}) {
  std::vector<std::string> command{"openssl",
                                   "s_client",
                                   "-connect",
                                   "127.0.0.1:" + std::to_string(port),
                                   "-CAfile",
                                   files.ca(),
                                   openssl_version_option(version)};
  command.insert(command.end(), extra.begin(), extra.end());
  return command;
}
/// "gnutls-cli". It refuses a server that does not verify, unless "--insecure" is given.
inline std::vector<std::string> gnutls_client(TlsFiles& files, UWORD port, int version,
                                              std::vector<std::string> extra = {}) {
  std::vector<std::string> command{"gnutls-cli", "--port",     std::to_string(port),    "--x509cafile",
                                   files.ca(),   "--priority", gnutls_priority(version)};
  command.insert(command.end(), extra.begin(), extra.end());
  command.emplace_back("127.0.0.1");
  return command;
}

}  // namespace oskernel_test

#endif
