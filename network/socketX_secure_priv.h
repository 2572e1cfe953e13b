/// What the sources of the blocking secure socket share; not installed.
#ifndef OSKERNEL_SOCKETX_SECURE_PRIV_H
#define OSKERNEL_SOCKETX_SECURE_PRIV_H

/// Drains the thread's OpenSSL error queue: "%s error %x (%s)" for each, beginning with `what`.
void print_openssl_errors(const char* what);

#endif
