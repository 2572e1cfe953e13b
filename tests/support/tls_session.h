/// One TLS session of the library with a peer at the other end that does what the test says: it answers when it is
/// told to, holds bytes back, ends in the middle.
#ifndef OSKERNEL_TESTS_TLS_SESSION_H
#define OSKERNEL_TESTS_TLS_SESSION_H

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "network/assl.h"
#include "network_fixture.h"
#include "socket_pairs.h"
#include "tls_files.h"

namespace oskernel_test {

/// The certificates of this test program.
inline TlsFiles& tls_files() {
  static TlsFiles files;
  return files;
}

/// Compares long texts without printing them.
inline testing::AssertionResult same_bytes(const std::string& got, const std::string& expected) {
  if (got == expected) return testing::AssertionSuccess();
  const auto differing = std::mismatch(got.begin(), got.end(), expected.begin(), expected.end());
  return testing::AssertionFailure() << got.size() << " bytes in place of " << expected.size()
                                     << ", the first that is wrong at " << differing.first - got.begin();
}

/// A peer made of OpenSSL alone, over memory: what it has to say is sent when the test asks for it. One thread at a
/// time. Waits are bounded.
class TlsEnd {
 public:
  struct Wish {
    bool server = true;
    std::string cert = {}, key = {};  ///< empty for none
    std::string ca = {};              ///< empty: takes whatever comes
    bool ask = false;                 ///< a server that wants a certificate
    int version = 0;                  ///< TLS1_2_VERSION for that one only; 0 for any
    const char* ciphers = nullptr;    ///< of TLS 1.2; null for all
    int level = 0;
    bool renegotiates = false;  ///< takes a handshake that the client starts over
  };

  TlsEnd(const Wish& wish, Descriptor fd) : fd_(std::move(fd)) {
    ::fcntl(fd_.get(), F_SETFL, ::fcntl(fd_.get(), F_GETFL) | O_NONBLOCK);
    context_ = SSL_CTX_new(wish.server ? TLS_server_method() : TLS_client_method());
    SSL_CTX_set_security_level(context_, wish.level);
    SSL_CTX_set_min_proto_version(context_, wish.version != 0 ? wish.version : TLS1_VERSION);
    if (wish.version != 0) SSL_CTX_set_max_proto_version(context_, wish.version);
    if (wish.ciphers != nullptr) {
      EXPECT_EQ(SSL_CTX_set_cipher_list(context_, wish.ciphers), 1);
    }
    if (!wish.cert.empty()) {
      EXPECT_EQ(SSL_CTX_use_certificate_chain_file(context_, wish.cert.c_str()), 1);
      EXPECT_EQ(SSL_CTX_use_PrivateKey_file(context_, wish.key.c_str(), SSL_FILETYPE_PEM), 1);
    }
    if (!wish.ca.empty()) {
      EXPECT_EQ(SSL_CTX_load_verify_locations(context_, wish.ca.c_str(), nullptr), 1);
    }
    if (wish.ask) SSL_CTX_set_verify(context_, SSL_VERIFY_PEER, [](int, X509_STORE_CTX*) { return 1; });
    if (wish.renegotiates) SSL_CTX_set_options(context_, SSL_OP_ALLOW_CLIENT_RENEGOTIATION);
    SSL_CTX_set_info_callback(context_, note);
    ssl_ = SSL_new(context_);
    SSL_set_app_data(ssl_, this);
    in_ = BIO_new(BIO_s_mem());
    outgoing_ = BIO_new(BIO_s_mem());
    BIO_set_mem_eof_return(in_, -1);
    SSL_set_bio(ssl_, in_, outgoing_);
    if (wish.server) {
      SSL_set_accept_state(ssl_);
    } else {
      SSL_set_connect_state(ssl_);
    }
  }
  ~TlsEnd() {
    SSL_free(ssl_);
    SSL_CTX_free(context_);
    ERR_clear_error();
  }
  TlsEnd(const TlsEnd&) = delete;
  TlsEnd& operator=(const TlsEnd&) = delete;

  SSL* ssl() { return ssl_; }
  int fd() const { return fd_.get(); }

  // ---- The wire ----

  /// From now on what the peer has to say stays in held() until release().
  void hold(bool held) { holding_ = held; }
  /// What has not been sent.
  const std::string& held() {
    collect();
    return unsent_;
  }
  /// Replaces it.
  void set_held(std::string bytes) {
    collect();
    unsent_ = std::move(bytes);
  }
  /// Sends that many bytes of what is held, even while holding; true when all of them have gone.
  bool release(std::size_t count = std::string::npos) {
    collect();
    count = std::min(count, unsent_.size());
    while (count > 0) {
      const ssize_t sent = ::send(fd_.get(), unsent_.data(), count, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent <= 0) return false;
      unsent_.erase(0, static_cast<std::size_t>(sent));
      count -= static_cast<std::size_t>(sent);
    }
    return true;
  }
  /// Takes at most `count` bytes off the wire, without waiting. False at its end, or with nothing there.
  bool take(std::size_t count = std::string::npos) {
    char piece[16384];
    bool any = false;
    while (count > 0) {
      const ssize_t got = ::recv(fd_.get(), piece, std::min(count, sizeof piece), MSG_DONTWAIT);
      if (got == 0) ended_ = true;
      if (got < 0 && errno != EAGAIN && errno != EINTR) ended_ = true;
      if (got <= 0) return any;
      BIO_write(in_, piece, static_cast<int>(got));
      taken_ += static_cast<std::size_t>(got);
      count -= static_cast<std::size_t>(got);
      any = true;
    }
    return any;
  }
  /// The connection has ended, as far as has been taken.
  bool ended() const { return ended_; }
  std::size_t taken() const { return taken_; }
  void close() { fd_.reset(); }
  void reset() {
    const linger now = {1, 0};
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    fd_.reset();
  }

  // ---- TLS, a step at a time ----

  /// Takes what is there, goes on with the handshake, sends.
  ///   returns   true when it is complete
  bool step() {
    take();
    ERR_clear_error();
    const int done = SSL_do_handshake(ssl_);
    send();
    if (done != 1 && SSL_get_error(ssl_, done) == SSL_ERROR_SSL) failed_ = true;
    ERR_clear_error();
    return done == 1;
  }
  bool failed() const { return failed_; }
  /// Steps until it is complete; false when it fails or time runs out.
  bool handshake(int timeout_ms = kPeerPatienceMs) {
    return wait(timeout_ms, [this] { return step(); });
  }
  /// Writes everything, as far as the wire takes it; the rest follows with the next operation.
  void write(std::string_view bytes) {
    ERR_clear_error();
    EXPECT_EQ(SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size())), static_cast<int>(bytes.size()));
    send();
  }
  /// Waits until what has been written is on the wire.
  bool written(int timeout_ms = kPeerPatienceMs) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!release()) {
      if (std::chrono::steady_clock::now() > until || !wait_for_events(fd_.get(), POLLOUT, timeout_ms))
        return false;
      if (broken()) return false;
    }
    return true;
  }
  /// What can be read now.
  std::string read_now() {
    take();
    std::string bytes;
    char piece[16384];
    for (;;) {
      ERR_clear_error();
      const int got = SSL_read(ssl_, piece, sizeof piece);
      if (got <= 0) {
        result_ = SSL_get_error(ssl_, got);
        if (result_ == SSL_ERROR_SSL) failed_ = true;
        break;
      }
      bytes.append(piece, static_cast<std::size_t>(got));
    }
    ERR_clear_error();
    send();
    return bytes;
  }
  /// Exactly `count` bytes, or what came before the end or the time-out.
  std::string read(std::size_t count, int timeout_ms = kPeerPatienceMs) {
    std::string bytes;
    wait(timeout_ms, [&] {
      bytes += read_now();
      return bytes.size() >= count || closed();
    });
    return bytes;
  }
  /// Reads until the peer's close notification or the end of the connection.
  std::string read_to_end(int timeout_ms = kPeerPatienceMs) {
    std::string bytes;
    wait(timeout_ms, [&] {
      bytes += read_now();
      return ended_ || closed();
    });
    return bytes;
  }
  bool closed() const { return (SSL_get_shutdown(ssl_) & SSL_RECEIVED_SHUTDOWN) != 0; }
  /// Sends a close notification.
  void say_goodbye() {
    SSL_shutdown(ssl_);
    ERR_clear_error();
    send();
  }
  /// TLS 1.3: new keys, and the other side is to change its own.
  void ask_for_new_keys() {
    EXPECT_EQ(SSL_key_update(ssl_, SSL_KEY_UPDATE_REQUESTED), 1);
    EXPECT_EQ(SSL_do_handshake(ssl_), 1);
    send();
  }
  /// TLS 1.2: starts the handshake over; the rest happens while reading.
  void start_over() {
    EXPECT_EQ(SSL_renegotiate(ssl_), 1);
    SSL_do_handshake(ssl_);
    ERR_clear_error();
    send();
  }
  /// The alerts that have come, as OpenSSL names them: "fatal handshake failure".
  const std::vector<std::string>& alerts() const { return alerts_; }
  /// Handshakes that have been completed.
  int handshakes() const { return handshakes_; }

  /// Lets the peer work until the condition holds, waiting for the wire in between.
  template <class Condition>
  bool wait(int timeout_ms, Condition condition) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
      if (condition()) return true;
      if (failed_ || ended_ || std::chrono::steady_clock::now() > until) return false;
      wait_for_events(fd_.get(), static_cast<short>(POLLIN | (!holding_ && !unsent_.empty() ? POLLOUT : 0)),
                      20);
    }
  }

 private:
  void send() {
    collect();
    if (!holding_) release();
  }
  void collect() {
    char piece[16384];
    for (int got; (got = BIO_read(outgoing_, piece, sizeof piece)) > 0;) {
      unsent_.append(piece, static_cast<std::size_t>(got));
    }
  }
  bool broken() const {
    pollfd now = {fd_.get(), POLLOUT, 0};
    return ::poll(&now, 1, 0) > 0 && (now.revents & (POLLERR | POLLHUP)) != 0;
  }
  static void note(const SSL* ssl, int where, int value) {
    auto* end = static_cast<TlsEnd*>(SSL_get_app_data(ssl));
    if (end == nullptr) return;
    if ((where & SSL_CB_ALERT) != 0 && (where & SSL_CB_READ) != 0) {
      end->alerts_.push_back(std::string(SSL_alert_type_string_long(value)) + " " +
                             SSL_alert_desc_string_long(value));
    }
    if ((where & SSL_CB_HANDSHAKE_DONE) != 0) ++end->handshakes_;
  }

  Descriptor fd_;
  SSL_CTX* context_ = nullptr;
  SSL* ssl_ = nullptr;
  BIO* in_ = nullptr;
  BIO* outgoing_ = nullptr;
  std::string unsent_;
  bool holding_ = false;
  bool ended_ = false;
  bool failed_ = false;
  int result_ = 0;
  std::size_t taken_ = 0;
  std::vector<std::string> alerts_;
  int handshakes_ = 0;
};

/// What a peer of the given role shows when nothing else is said.
inline TlsEnd::Wish good_server(int version = 0) {
  return {.server = true,
          .cert = tls_files().cert(TlsFiles::kServer),
          .key = tls_files().key(TlsFiles::kServer),
          .version = version};
}
inline TlsEnd::Wish good_client(int version = 0) {
  return {.server = false,
          .cert = tls_files().cert(TlsFiles::kClient),
          .key = tls_files().key(TlsFiles::kClient),
          .version = version};
}
/// A server with one of the other certificates.
inline TlsEnd::Wish server_with(TlsFiles::Kind kind, int version = 0) {
  TlsEnd::Wish wish = good_server(version);
  wish.cert = tls_files().cert(kind);
  wish.key = tls_files().key(kind);
  return wish;
}

/// Two connected descriptors, either by TCP over the loopback interface or by the system alone.
struct Wire {
  Descriptor near_end, far_end;

  static Wire local() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    return {Descriptor(ends[0]), Descriptor(ends[1])};
  }
  static Wire tcp() {
    PeerListener listener;
    PeerStream near_stream = PeerStream::connect_to(listener.port());
    PeerStream far_stream = listener.accept();
    Wire wire{Descriptor(near_stream.release()), Descriptor(far_stream.release())};
    ::fcntl(wire.near_end.get(), F_SETFL, ::fcntl(wire.near_end.get(), F_GETFL) | O_NONBLOCK);
    return wire;
  }
};

/// A session of the library with its descriptor and its peer.
class TlsLink {
 public:
  struct Given {
    ULONG options = 0;
    const char* peer_name = nullptr;
    std::string cert = {}, key = {}, ca = {};  ///< empty: the defaults
  };

  /// The peer takes the other role than the session. Nothing has been sent yet.
  explicit TlsLink(const TlsEnd::Wish& peer_wish) : TlsLink(peer_wish, Given(), Wire::local()) {}
  TlsLink(const TlsEnd::Wish& peer_wish, const Given& given) : TlsLink(peer_wish, given, Wire::local()) {}
  TlsLink(const TlsEnd::Wish& peer_wish, const Given& given, Wire wire)
      : fd_(std::move(wire.near_end)),
        session_(std::make_unique<SSLInfo>(fd_.get(), !peer_wish.server)),
        peer_(std::make_unique<TlsEnd>(peer_wish, std::move(wire.far_end))) {
    std::string name = given.peer_name != nullptr ? given.peer_name : "";
    const auto path = [](const std::string& text) { return text.empty() ? nullptr : text.c_str(); };
    setup_ = session_->Setup(given.options, given.peer_name != nullptr ? name.data() : nullptr,
                             path(given.cert), path(given.key), path(given.ca));
  }

  SSLInfo& session() { return *session_; }
  TlsEnd& peer() { return *peer_; }
  int fd() const { return fd_.get(); }
  int setup() const { return setup_; }
  void end_session() { session_.reset(); }

  /// Lets both go on until the session's handshake has a result. -2 when it never has.
  int handshake() {
    int result = -1;
    for (int i = 0; i < 1000 && result < 0; ++i) {
      result = session_->Handshake();
      peer_->step();
    }
    if (result == 0) {
      for (int i = 0; i < 10 && !peer_->step(); ++i) {
      }
    }
    return result < 0 ? -2 : result;
  }
  /// What the session can read now, the last result in *end.
  std::string receive(int* end = nullptr) {
    std::string bytes;
    for (;;) {
      OSBuf* buf = nullptr;
      const int result = session_->Recv(&buf);
      if (end != nullptr) *end = result;
      if (buf == nullptr) return bytes;
      bytes.append(reinterpret_cast<const char*>(buf->data), buf->length);
      buf->Free();
    }
  }
  OSIORetCode send(const std::string& bytes) { return session_->DataIndication(buffer_of(bytes)); }
  /// Sends numbered buffers until one has to wait; returns what has been given to the session.
  std::string stall(std::size_t size = 1000) {
    int small = 4096;
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    ::setsockopt(peer_->fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    std::string given;
    for (unsigned i = 0; session_->sendq.Size() == 0 && i < 20000; ++i) {
      const std::string bytes = numbered_bytes(size, i + 1);
      EXPECT_EQ(send(bytes), Success);
      given += bytes;
    }
    return given;
  }
  int waiting() { return static_cast<int>(session_->sendq.Size()); }

 private:
  Descriptor fd_;
  std::unique_ptr<SSLInfo> session_;
  std::unique_ptr<TlsEnd> peer_;
  int setup_ = -9;
};

/// What every test of TLS wants: the default files, and the class-wide settings as at start-up.
inline void initialise_tls() {
  TlsFiles& files = tls_files();
  SSLInfo::ssl_debug = 1;
  SSLInfo::security_level = 1;
  ERR_clear_error();
  ASSERT_EQ(SSLInfo::Initialise(files.text(files.cert(TlsFiles::kServer)),
                                files.text(files.key(TlsFiles::kServer)), files.text(files.ca())),
            0);
}

/// Sessions without sockets around them; the test dispatches.
class TlsSessionTest : public QuietNetworkTest {
 protected:
  void SetUp() override {
    initialise_tls();
    QuietNetworkTest::SetUp();
    console.clear();
  }
  void TearDown() override {
    QuietNetworkTest::TearDown();
    SSLInfo::ssl_debug = 1;
    SSLInfo::security_level = 1;
    ERR_clear_error();
  }

  /// The lines so far, without those of the set-up.
  std::vector<std::string> said() const {
    std::vector<std::string> lines;
    for (std::string& text : console.calls()) {
      if (!text.starts_with("TLSSetup")) lines.push_back(std::move(text));
    }
    return lines;
  }
};

/// Names the versions of parameterised suites.
inline std::string version_name(int version) { return version == TLS1_3_VERSION ? "Tls13" : "Tls12"; }
inline const char* version_text(int version) { return version == TLS1_3_VERSION ? "TLSv1.3" : "TLSv1.2"; }

}  // namespace oskernel_test

#endif
