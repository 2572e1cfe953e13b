/// What the rows over TLS share: the servers' certificate, and settings that are the same for all of them.
#ifndef OSKERNEL_BENCH_NETWORK_BENCH_TLS_H
#define OSKERNEL_BENCH_NETWORK_BENCH_TLS_H

#include <openssl/ssl.h>

#include "network_bench.h"

namespace oskernel_bench {

/// The certificate of a server's process: a key on the curve P-256, made when it starts, signed with itself. It lies in
/// memory; the path names it while the process runs.
///   returns   a PEM file with both; the same at every call
const char* server_identity();

/// Ends the server, with OpenSSL's words, unless `ok`.
void require_tls(bool ok, const char* what);

/// A context with that certificate, for servers that need no other setting.
SSL_CTX* new_server_context();

/// A session's records are many small writes; each is to leave at once, or the peer's acknowledgement, which it delays by
/// 40 ms, is waited for.
void send_without_delay(int s);

// Servers on 127.0.0.1 that echo the text of their sessions.
void serve_tls_epoll();
void serve_tls_asio();

/// measure() for the rows over TLS. TLS 1.3 with AES-128-GCM and X25519, which the load alone offers; no session is
/// resumed, and no certificate verified.
Figures measure_tls(const Implementation& implementation, const Load& load, double seconds);

}  // namespace oskernel_bench

#endif
