/// Keys and certificates of TLS contexts, parsed once for many of them; not installed.
#ifndef OSKERNEL_ASSL_FILES_PRIV_H
#define OSKERNEL_ASSL_FILES_PRIV_H

#include <openssl/ssl.h>

// Each context is a connection's own, and most are given the same files. What a file holds is kept in memory and given
// to the next context, as long as the file is the same one and unchanged. What cannot be loaded is not kept: it is
// tried, and reported, each time. Each function is the OpenSSL call of its file, with its result and its errors.
//   threads   any, inside no socket section: may read files

int use_private_key_file(SSL_CTX* context, const char* path);  ///< SSL_CTX_use_PrivateKey_file(3), PEM
int use_certificate_chain_file(SSL_CTX* context,
                               const char* path);         ///< SSL_CTX_use_certificate_chain_file(3)
int use_verify_file(SSL_CTX* context, const char* path);  ///< SSL_CTX_load_verify_locations(3)
/// SSL_load_client_CA_file(3).
///   returns   the caller's; null when it cannot be loaded
STACK_OF(X509_NAME) * load_client_ca_names(const char* path);

#endif
