/// The certificate of the servers over TLS, and the raw loop: OpenSSL on epoll, one thread, level-triggered.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include "network_bench_tls.h"

namespace oskernel_bench {
namespace {

void make_identity(FILE* file) {
  EVP_PKEY* key = nullptr;
  EVP_PKEY_CTX* const generator = EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr);
  require_tls(EVP_PKEY_keygen_init(generator) == 1 &&
                  EVP_PKEY_CTX_set_ec_paramgen_curve_nid(generator, NID_X9_62_prime256v1) == 1 &&
                  EVP_PKEY_keygen(generator, &key) == 1,
              "making a key");
  EVP_PKEY_CTX_free(generator);
  X509* const cert = X509_new();
  X509_NAME* const name = X509_get_subject_name(cert);
  const unsigned char text[] = "echo";
  X509_set_version(cert, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
  X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert), 24L * 3600);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, text, -1, -1, 0);
  X509_set_issuer_name(cert, name);
  X509_set_pubkey(cert, key);
  require_tls(X509_sign(cert, key, EVP_sha256()) > 0, "signing a certificate");
  require_tls(PEM_write_X509(file, cert) == 1 &&
                  PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr) == 1,
              "writing a certificate");
  X509_free(cert);
  EVP_PKEY_free(key);
}

struct Connection {
  Connection(int descriptor, SSL* session) : s(descriptor), ssl(session) {}

  int s;
  SSL* ssl;
  unsigned watched = EPOLLIN;
  int unsent = 0;  // bytes of `buffer` that are to be written before anything is read
  unsigned char buffer[SSL3_RT_MAX_PLAIN_LENGTH];
};

class Server {
 public:
  Server()
      : context_(new_server_context()),
        listener_(open_server_socket(Protocol::kTls)),
        epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    require(epoll_ >= 0, "epoll_create1");
    watch(EPOLL_CTL_ADD, listener_, nullptr, EPOLLIN);
  }

  [[noreturn]] void run() {
    for (;;) {
      epoll_event events[256];
      const int count = epoll_wait(epoll_, events, 256, -1);
      for (int i = 0; i < count; ++i) {
        auto* const connection = static_cast<Connection*>(events[i].data.ptr);
        if (connection == nullptr) {
          accept_all();
        } else if (!serve(connection)) {
          SSL_free(connection->ssl);
          close(connection->s);
          delete connection;
        }
      }
    }
  }

 private:
  void accept_all() {
    for (;;) {
      const int s = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (s < 0) return;
      send_without_delay(s);
      auto* const connection = new Connection(s, SSL_new(context_));
      SSL_set_fd(connection->ssl, s);
      SSL_set_accept_state(connection->ssl);
      watch(EPOLL_CTL_ADD, s, connection, EPOLLIN);
    }
  }

  // The handshake is done by the first reads. False when the connection is over.
  bool serve(Connection* connection) {
    for (;;) {
      if (connection->unsent == 0) {
        connection->unsent = SSL_read(connection->ssl, connection->buffer, sizeof connection->buffer);
        if (connection->unsent <= 0) return wait(connection, std::exchange(connection->unsent, 0));
      }
      const int written = SSL_write(connection->ssl, connection->buffer, connection->unsent);
      if (written <= 0) return wait(connection, written);
      connection->unsent = 0;
    }
  }

  bool wait(Connection* connection, int result) {
    const int error = SSL_get_error(connection->ssl, result);
    if (error == SSL_ERROR_WANT_READ) return watch_for(connection, EPOLLIN);
    if (error == SSL_ERROR_WANT_WRITE) return watch_for(connection, EPOLLOUT);
    ERR_clear_error();
    return false;
  }

  bool watch_for(Connection* connection, unsigned events) {
    if (connection->watched == events) return true;
    connection->watched = events;
    watch(EPOLL_CTL_MOD, connection->s, connection, events);
    return true;
  }

  void watch(int operation, int s, Connection* connection, unsigned events) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = connection;
    require(epoll_ctl(epoll_, operation, s, &event) == 0, "epoll_ctl");
  }

  SSL_CTX* context_;
  int listener_;
  int epoll_;
};

}  // namespace

void require_tls(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "%s\n", what);
  ERR_print_errors_fp(stderr);
  std::_Exit(1);
}

const char* server_identity() {
  static const std::string path = [] {
    const int fd = memfd_create("identity", MFD_CLOEXEC);
    require(fd >= 0, "memfd_create");
    FILE* const file = fdopen(dup(fd), "w");
    require(file != nullptr, "fdopen");
    make_identity(file);
    require(std::fclose(file) == 0, "writing a certificate");
    return "/proc/self/fd/" + std::to_string(fd);
  }();
  return path.c_str();
}

void send_without_delay(int s) {
  const int on = 1;
  setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

SSL_CTX* new_server_context() {
  SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
  require_tls(context != nullptr && SSL_CTX_use_certificate_chain_file(context, server_identity()) == 1 &&
                  SSL_CTX_use_PrivateKey_file(context, server_identity(), SSL_FILETYPE_PEM) == 1,
              "loading the certificate");
  return context;
}

void serve_tls_epoll() {
  auto* const server = new Server;
  server->run();
}

}  // namespace oskernel_bench
