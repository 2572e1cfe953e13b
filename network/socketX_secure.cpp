// The blocking secure socket: set-up, handshake, life.
#include "network/socketX_secure.h"

#include <openssl/err.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <new>

#include "network/asocketX_priv.h"
#include "network/assl.h"
#include "network/openssl_priv.h"
#include "network/socketX_priv.h"
#include "network/socketX_secure_priv.h"

bool SecureSocket::initialized_ssl = false;

namespace {

/// One set of PEM files.
struct Files {
  const char* certificate;
  const char* private_key;
  const char* ca_certificate;
};
/// The service certificate.
/// Deliberate: it is its own CA file, too: an appliance is given these two files and no third. Pinned by
/// secure_socket_setup_test.cpp, EveryMissingOrWrongFileHasItsResultAndLines.
constexpr Files kPrimary = {"/Korvantel/Web/prov/ldaps.cer", "/Korvantel/Web/prov/ldaps.key",
                            "/Korvantel/Web/prov/ldaps.cer"};
/// For an appliance that has not been given one.
constexpr Files kFallback = {"/Korvantel/certs/RN4400.cer", "/Korvantel/certs/RN4400.key",
                             "/Korvantel/certs/KorvantelCA.cer"};

/// Deliberate: not the list of the asynchronous sockets. Key exchange by RSA comes first and there is no 3DES; the
/// service peers rely on that order. Pinned by secure_socket_setup_test.cpp, KeyExchangeWithRsaComesFirst.
constexpr const char* kCiphers =
    "RSA+AESGCM:RSA+AES:ECDH+AESGCM:DH+AESGCM:ECDH+AES256:DH+AES256:ECDH+AES128:DH+AES:!aNULL:!MD5";

constexpr int kRound_ms = 10000;
constexpr int kApplicationData = 0;  // the index of SSL_CTX_set_ex_data that OpenSSL leaves to applications

constexpr int kNoOpenSsl = -1;
constexpr int kNoCertificate = -1;
constexpr int kNoGroup = -2;
constexpr int kNoKey = -2;
constexpr int kNoCa = -3;
constexpr int kNoHandshake = 1;

/// The group of get_dh1024, made once; under the lock of prepare_openssl, and constant from then on.
DH* ssl_dhe1024 = nullptr;
/// What OpenSSL locks its shared state with; constant once it is installed.
pthread_mutex_t* lock_cs = nullptr;
/// Contexts made so far; its bytes are a context's session id context.
constinit std::atomic<int> context_num{0};
/// Handshakes begun since the last StartSSL of any socket.
constinit std::atomic<int> renegotiations{0};

// ---- What OpenSSL calls ------------------------------------------------------------------------------------

/// Refuses: encrypted keys cannot be loaded.
int no_passphrase_callback(char* /*text*/, int /*size*/, int /*writing*/, void* /*unused*/) { return -1; }

/// The verification runs, so that its result can be asked for, and is not acted on.
int verify_dont_fail_cb(X509_STORE_CTX* context, void* /*unused*/) {
  const int result = X509_verify_cert(context);
  return result >= 0 ? 1 : result;
}

void ssl_info_callback(const SSL* ssl, int where, int /*ret*/) {
  if ((where & SSL_CB_HANDSHAKE_START) != 0) {
    diagnostics().Print("ssl-info-callback - renegotiations %d", ++renegotiations);
  } else if ((where & SSL_CB_HANDSHAKE_DONE) != 0) {
    forbid_renegotiation(const_cast<SSL*>(ssl));
  }
}

unsigned long thread_id_callback() { return pthread_self(); }

void locking_callback(int mode, int n, const char* /*file*/, int /*line*/) {
  if ((static_cast<unsigned>(mode) & CRYPTO_LOCK) != 0) {
    pthread_mutex_lock(&lock_cs[n]);
  } else {
    pthread_mutex_unlock(&lock_cs[n]);
  }
}

// ---- Set-up ------------------------------------------------------------------------------------------------

/// Once in the process. Returns 0 or what StartSSL does.
int prepare_openssl() {
  static constinit std::mutex first_use;  // held over calls of OpenSSL alone
  const std::lock_guard<std::mutex> lock(first_use);
  if (seen(SecureSocket::initialized_ssl)) return 0;
  if (SSL_library_init() == 0) return kNoOpenSsl;
  seed_random(true);
  SSL_load_error_strings();
  if (ssl_dhe1024 == nullptr) ssl_dhe1024 = get_dh1024();
  if (ssl_dhe1024 == nullptr) return kNoGroup;
  if (lock_cs == nullptr) lock_cs = install_thread_callbacks(thread_id_callback, locking_callback);
  if (lock_cs == nullptr) return kNoOpenSsl;
  publish(SecureSocket::initialized_ssl, true);
  return 0;
}

void report_set_up(const char* call, const char* file) {
  diagnostics().Print("SecureSocket::StartSSL - %s error for %s", call, file);
}

/// Null when neither chain loads.
const Files* load_certificate(SSL_CTX* context) {
  for (const Files* files : {&kPrimary, &kFallback}) {
    if (SSL_CTX_use_certificate_chain_file(context, files->certificate) > 0) return files;
    report_set_up("SSL_CTX_use_certificate_chain_file", files->certificate);
  }
  return nullptr;
}

void set_blocking(int fd, bool blocking) {
  int nonblocking = blocking ? 0 : 1;
  ioctl(fd, FIONBIO, &nonblocking);
}

}  // namespace

/// Step by step; what has been made stays, whatever fails.
int SecureSocket::make_context() {
  ssl_ctx = SSL_CTX_new(TLS_method());
  if (ssl_ctx == nullptr) return kNoOpenSsl;
  set_security_level(ssl_ctx);
  SSL_CTX_set_default_passwd_cb(ssl_ctx, no_passphrase_callback);
  SSL_CTX_set_mode(ssl_ctx, SSL_MODE_ENABLE_PARTIAL_WRITE);
  // A read that has met something other than data, such as a session ticket, comes back: the time-out is the caller's.
  SSL_CTX_clear_mode(ssl_ctx, SSL_MODE_AUTO_RETRY);
  diagnostics().Print("TLSSetup: setting cipher list to %s", kCiphers);
  SSL_CTX_set_cipher_list(ssl_ctx, kCiphers);
  SSL_CTX_set_options(ssl_ctx, SSL_OP_NO_SSLv2 | SSL_OP_NO_SSLv3 | SSL_OP_CIPHER_SERVER_PREFERENCE |
                                   SSL_OP_NO_SESSION_RESUMPTION_ON_RENEGOTIATION);
  renegotiations = 0;
  SSL_CTX_set_ex_data(ssl_ctx, kApplicationData, this);
  SSL_CTX_set_info_callback(ssl_ctx, ssl_info_callback);

  const Files* const files = load_certificate(ssl_ctx);
  if (files == nullptr) return kNoCertificate;
  if (SSL_CTX_use_PrivateKey_file(ssl_ctx, files->private_key, SSL_FILETYPE_PEM) <= 0) {
    report_set_up("SSL_CTX_use_PrivateKey_file", files->private_key);
    return kNoKey;
  }
  SSL_CTX_check_private_key(ssl_ctx);
  const int number = ++context_num;
  SSL_CTX_set_session_id_context(ssl_ctx, reinterpret_cast<const unsigned char*>(&number), sizeof number);
  SSL_CTX_set_verify(ssl_ctx, SSL_VERIFY_NONE, nullptr);
  SSL_CTX_set_cert_verify_callback(ssl_ctx, verify_dont_fail_cb, nullptr);
  if (SSL_CTX_load_verify_locations(ssl_ctx, files->ca_certificate, nullptr) <= 0) {
    report_set_up("SSL_CTX_load_verify_locations", files->ca_certificate);
    return kNoCa;
  }
  use_group(ssl_ctx, ssl_dhe1024);
  SSL_CTX_set_options(ssl_ctx, SSL_OP_SINGLE_DH_USE);
  return 0;
}

bool SecureSocket::make_session() {
  BIO* const bio = new_session_bio(s, SessionWrites::kWait);
  ssl = SSL_new(ssl_ctx);
  if (bio != nullptr && ssl != nullptr) {
    SSL_set_bio(ssl, bio, bio);
    return true;
  }
  BIO_free(bio);
  free_session();
  return false;
}

int SecureSocket::StartSSL(bool server) {
  free_session();
  free_context();
  const int outcome = start(server);
  if (outcome != 0) ssl_connected = false;  // of an earlier call
  return outcome;
}

int SecureSocket::start(bool server) {
  if (const int failure = prepare_openssl(); failure != 0) return failure;
  if (const int failure = make_context(); failure != 0) return failure;
  ERR_clear_error();
  bool done = false;
  if (make_session()) {
    set_blocking(s, false);
    done = shake_hands(server);
  }
  if (!done) print_openssl_errors("SSL");
  set_blocking(s, true);
  return done ? 0 : kNoHandshake;
}

bool SecureSocket::shake_hands(bool server) {
  for (;;) {
    const int ready = wait_ready(s, POLLIN, kRound_ms).count;
    diagnostics().Print("SecureSocket::StartSSL - select returned %d", ready);
    if (ready < 1) return false;
    ERR_clear_error();
    const int ret = server ? SSL_accept(ssl) : SSL_connect(ssl);
    const int code = ret > 0 ? SSL_ERROR_NONE : SSL_get_error(ssl, ret);
    diagnostics().Print("SecureSocket::StartSSL - %s returned %d", server ? "SSL_accept" : "SSL_connect",
                        ret);
    if (ret > 0) return true;
    diagnostics().Print("SecureSocket::StartSSL - SSL_get_error returned %d", code);
    if (code != SSL_ERROR_NONE && code != SSL_ERROR_WANT_READ && code != SSL_ERROR_WANT_WRITE &&
        code != SSL_ERROR_WANT_CONNECT)
      return false;
  }
}

// ---- Life --------------------------------------------------------------------------------------------------

SecureSocket::SecureSocket(Type kind, UWORD port, bool waits, ULONG addr)
    : Socket(kind, port, waits, addr),
      ssl_ctx(nullptr),
      ssl(nullptr),
      read_blocked(false),
      read_blocked_on_write(false),
      write_blocked_on_read(false),
      ssl_connected(false) {}

SecureSocket::SecureSocket(Type kind, int descriptor, sockaddr_in* remote, int len)
    : Socket(kind, descriptor, remote, len),
      ssl_ctx(nullptr),
      ssl(nullptr),
      read_blocked(false),
      read_blocked_on_write(false),
      write_blocked_on_read(false),
      ssl_connected(false) {}

SecureSocket::SecureSocket(Type kind, char* host, UWORD port)
    : Socket(kind, host, port),
      ssl_ctx(nullptr),
      ssl(nullptr),
      read_blocked(false),
      read_blocked_on_write(false),
      write_blocked_on_read(false),
      ssl_connected(false) {
  if (state == CONNECTED && StartSSL(false) == 0) ssl_connected = true;
}

SecureSocket::~SecureSocket() {
  SecureSocket::Close();
  free_context();
}

void SecureSocket::free_session() {
  SSL_free(ssl);
  ssl = nullptr;
}

void SecureSocket::free_context() {
  SSL_CTX_free(ssl_ctx);
  ssl_ctx = nullptr;
}

void SecureSocket::Close() {
  free_session();
  ssl_connected = false;
  Socket::Close();
}

void SecureSocket::Connect(ULONG /*addr*/, UWORD /*port*/) {}

void SecureSocket::ConnectAck() {
  if (state != CONNECTED) return;
  if (StartSSL(true) == 0) {
    ssl_connected = true;
  } else {
    Close();
  }
}

Socket* SecureSocket::Accept() {
  sockaddr_in peer{};
  int length = 0;
  const int fd = accept_one(&peer, &length);
  if (fd == -1) return nullptr;
  auto* const accepted = new (std::nothrow) SecureSocket(TCP_SERVER, fd, &peer, length);
  if (accepted == nullptr) close(fd);
  return accepted;
}

bool SecureSocket::Secure() { return ssl_connected; }
