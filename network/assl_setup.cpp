/// TLS set-up: OpenSSL's own, and the context of each session.
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "network/asocketX_priv.h"
#include "network/assl.h"
#include "network/assl_files_priv.h"
#include "network/assl_priv.h"
#include "network/openssl_priv.h"

int SSLInfo::ssl_debug = 1;
DH* SSLInfo::ssl_dhe1024 = nullptr;
long SSLInfo::context_num = 0;
char* SSLInfo::cert_file = nullptr;
char* SSLInfo::key_file = nullptr;
char* SSLInfo::ca_file = nullptr;
bool SSLInfo::initialised = false;
int SSLInfo::security_level = 1;

namespace {

constexpr ULONG kVerifyClients = 1;
/// What a context's session id context is made of: the first bytes of the counter as it stands in memory.
constexpr unsigned kSessionIdContext_bytes = 4;
/// Forward secrecy first, then plain RSA for old peers. OpenSSL 3 knows no 3DES any more and passes over it.
constexpr const char* kCiphers =
    "ECDH+AESGCM:DH+AESGCM:ECDH+AES256:DH+AES256:ECDH+AES128:DH+AES:ECDH+3DES:DH+3DES:RSA+AESGCM:RSA+AES:RSA+"
    "3DES:!aNULL:!MD5";

pthread_mutex_t* lock_cs = nullptr;

void pthreads_locking_callback(int mode, int n, const char* /*file*/, int /*line*/) {
  if ((mode & CRYPTO_LOCK) != 0) {
    pthread_mutex_lock(&lock_cs[n]);
  } else {
    pthread_mutex_unlock(&lock_cs[n]);
  }
}

unsigned long pthreads_thread_id() { return static_cast<unsigned long>(pthread_self()); }

/// Refuses: an encrypted private key cannot be loaded.
int no_passphrase_callback(char* /*buf*/, int /*size*/, int /*writing*/, void* /*unused*/) { return -1; }

/// Runs the verification for its result, which Handshake examines, and lets every peer through: an answer of 1 without
/// the run would leave the result at "verified" for every certificate.
int verify_dont_fail_cb(X509_STORE_CTX* store, void* /*unused*/) {
  static_cast<void>(X509_verify_cert(store));
  return 1;
}

const char* text_or_empty(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

int SSLInfo::Initialise(char* cert, char* key, char* ca) {
  publish(cert_file, cert);
  publish(key_file, key);
  publish(ca_file, ca);
  if (seen(initialised)) return 0;
  SSL_load_error_strings();
  if (SSL_library_init() == 0) return -1;
  seed_random(false);
  if (ssl_dhe1024 == nullptr) ssl_dhe1024 = get_dh1024();
  if (ssl_dhe1024 == nullptr) return -2;
  if (lock_cs == nullptr) lock_cs = install_thread_callbacks(pthreads_thread_id, pthreads_locking_callback);
  if (lock_cs == nullptr) return -2;
  publish(initialised, true);
  return 0;
}

/// Reports the call that failed; false.
bool SSLInfo::fail(const char* what) {
  Lines lines;
  lines.add_openssl_errors(what);
  lines.print();
  return false;
}

/// Chooses whether the peer is asked for a certificate, and loads what verifying it takes.
bool SSLInfo::choose_verification(const char* ca) {
  const bool verifies = !server || (options & kVerifyClients) != 0;
  const int mode = verifies ? SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT : SSL_VERIFY_NONE;
  if (seen(ssl_debug) != 0) {
    diagnostics().Print("TLSSetup: srv %d options = %d", server ? 1 : 0, static_cast<int>(options));
    diagnostics().Print("TLSSetup: verify = %s %s %s", verifies ? "VERIFY_PEER" : "",
                        verifies ? "VERIFY_FAIL_IF_NO_PEER_CERT" : "", verifies ? "" : "VERIFY_NONE");
  }
  SSL_CTX_set_verify(ssl_ctx, mode, nullptr);
  SSL_CTX_set_cert_verify_callback(ssl_ctx, verify_dont_fail_cb, nullptr);
  // Deliberate: a server that does not verify its clients gets neither the group nor the option, and so offers no
  // exchange with ephemeral Diffie-Hellman over it. Its peers settle on what is left. Pinned by
  // tls_setup_context_test.cpp, OnlyAServerThatVerifiesOffersTheGroup.
  if (!verifies) return true;
  if (use_verify_file(ssl_ctx, ca) != 1) return fail("SSL_CTX_load_verify_locations");
  if (server) {
    if (seen(ssl_debug) != 0) diagnostics().Print("TLSSetup: calling SSL_CTX_set_client_CA_list");
    SSL_CTX_set_client_CA_list(ssl_ctx, load_client_ca_names(ca));
    if (SSL_CTX_get_client_CA_list(ssl_ctx) == nullptr) return fail("SSL_CTX_get_client_CA_list");
  }
  if (use_group(ssl_ctx, ssl_dhe1024) != 1) return fail("SSL_CTX_set_tmp_dh");
  SSL_CTX_set_options(ssl_ctx, SSL_OP_SINGLE_DH_USE);
  return true;
}

bool SSLInfo::make_context(const char* cert, const char* key, const char* ca) {
  ERR_clear_error();
  method = server ? SSLv23_server_method() : SSLv23_client_method();
  ssl_ctx = SSL_CTX_new(method);
  if (ssl_ctx == nullptr) return fail("SSL_CTX_new");
  set_security_level(ssl_ctx);
  SSL_CTX_set_default_passwd_cb(ssl_ctx, no_passphrase_callback);
  SSL_CTX_set_mode(ssl_ctx, SSL_MODE_ENABLE_PARTIAL_WRITE);
  if (seen(ssl_debug) != 0) {
    diagnostics().Print("TLSSetup: using private key %s and certificate file %s", key, cert);
  }
  if (use_private_key_file(ssl_ctx, key) != 1) return fail("SSL_CTX_use_PrivateKey_file");
  if (use_certificate_chain_file(ssl_ctx, cert) != 1) return fail("SSL_CTX_use_certificate_chain_file");
  if (SSL_CTX_check_private_key(ssl_ctx) != 1) return fail("SSL_CTX_check_private_key");
  const long number = std::atomic_ref(context_num).fetch_add(1) + 1;
  unsigned char session_id_context[kSessionIdContext_bytes];
  std::memcpy(session_id_context, &number, sizeof session_id_context);
  if (SSL_CTX_set_session_id_context(ssl_ctx, session_id_context, sizeof session_id_context) != 1) {
    return fail("SSL_CTX_set_session_id_context");
  }
  if (!choose_verification(ca)) return false;
  diagnostics().Print("TLSSetup: setting cipher list to %s", kCiphers);
  SSL_CTX_set_cipher_list(ssl_ctx, kCiphers);
  SSL_CTX_set_options(ssl_ctx, SSL_OP_NO_SSLv2 | SSL_OP_NO_SSLv3 | SSL_OP_CIPHER_SERVER_PREFERENCE);
  return true;
}

int SSLInfo::Setup(ULONG new_options, char* name, const char* cert, const char* key, const char* ca) {
  {
    // Set up again, a session begins anew.
    const std::lock_guard<std::mutex> lock(session_mutex_);
    SSL_free(ssl);
    ssl = nullptr;
    rbio = wbio = nullptr;
  }
  SSL_CTX_free(ssl_ctx);
  ssl_ctx = nullptr;
  options = new_options;
  if (name != nullptr) {
    std::free(peer_name);
    peer_name = strdup(name);
  }
  if (cert == nullptr) cert = seen(cert_file);
  if (key == nullptr) key = seen(key_file);
  if (ca == nullptr) ca = seen(ca_file);
  if (!make_context(text_or_empty(cert), text_or_empty(key), text_or_empty(ca))) {
    SSL_CTX_free(ssl_ctx);
    ssl_ctx = nullptr;
    return 1;
  }
  SSL* const made = SSL_new(ssl_ctx);
  BIO* const bio = made != nullptr ? new_session_bio(s, SessionWrites::kAtOnce) : nullptr;
  if (bio == nullptr) {
    fail("SSL_new");
    SSL_free(made);
    return -1;
  }
  SSL_set_bio(made, bio, bio);
  const std::lock_guard<std::mutex> lock(session_mutex_);
  rbio = wbio = bio;
  ssl = made;
  return 0;
}
