/// What the sources that use OpenSSL share, and all that differs between its versions 1.1.1 and 3; not installed.
#ifndef OSKERNEL_OPENSSL_PRIV_H
#define OSKERNEL_OPENSSL_PRIV_H

#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <pthread.h>

// ---- Versions ----------------------------------------------------------------------------------------------

/// The peer's certificate; null without one. The caller's to X509_free.
inline X509* peer_certificate(const SSL* ssl) {
#if OPENSSL_VERSION_NUMBER >= 0x30000000L
  return SSL_get1_peer_certificate(ssl);
#else
  return SSL_get_peer_certificate(ssl);
#endif
}

/// Gives a context its Diffie-Hellman group. SSL_CTX_set_tmp_dh(3) of OpenSSL 3 examines the group anew for each context,
/// which takes longer than the whole handshake; one that is a key already has been examined.
///   key       the group as a key; shares
///   returns   1; 0 when the security level refuses it
inline int set_group(SSL_CTX* context, EVP_PKEY* key, DH* group) {
#if OPENSSL_VERSION_NUMBER >= 0x30000000L
  static_cast<void>(group);
  EVP_PKEY_up_ref(key);
  const int done = SSL_CTX_set0_tmp_dh_pkey(context, key);
  if (done != 1) EVP_PKEY_free(key);
  return done;
#else
  static_cast<void>(key);
  return static_cast<int>(SSL_CTX_set_tmp_dh(context, group));
#endif
}

/// From now on the peer can start no handshake over on this connection.
inline void forbid_renegotiation(SSL* ssl) { SSL_set_options(ssl, SSL_OP_NO_RENEGOTIATION); }

/// Builds the mutexes and installs the callbacks by which OpenSSL locks its shared state, once in the process for each
/// caller. Versions from 1.1.0 on lock by themselves and ignore them.
///   returns   the array of CRYPTO_num_locks() mutexes; null without memory
pthread_mutex_t* install_thread_callbacks(unsigned long (*thread_id)(),
                                          void (*lock)(int mode, int n, const char* file, int line));

// ---- Contexts ----------------------------------------------------------------------------------------------

/// Takes SSLInfo::security_level over into a new context; at 0 also the protocol versions that need it.
void set_security_level(SSL_CTX* context);

/// SSL_CTX_set_tmp_dh(3).
///   group     shares, for good
///   returns   1; 0 when the security level refuses the group
int use_group(SSL_CTX* context, DH* group);

/// Adds what this process and machine can tell to OpenSSL's random seed.
///   with_pid  whether the process id is part of it
void seed_random(bool with_pid);

// ---- Descriptors -------------------------------------------------------------------------------------------

enum class SessionWrites { kAtOnce, kWait };

/// A socket BIO that raises no SIGPIPE and never waits to read, whatever the descriptor's mode; it waits to write only
/// when told so and the descriptor is in blocking mode. It does not close the descriptor. BIO_set_fd(3) gives it
/// another one.
///   returns   null without memory
BIO* new_session_bio(int fd, SessionWrites writes);

#endif
