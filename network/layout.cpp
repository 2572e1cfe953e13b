// The fields of the networking layer.

#include "kernel/layout_priv.h"
#include "network/asocketX.h"
#include "network/assl.h"
#include "network/dns.h"
#include "network/dnsentry.h"
#include "network/linesocket.h"
#include "network/ringbuffer.h"
#include "network/sockaddr.h"
#include "network/socketX.h"
#include "network/socketX_secure.h"
#include "network/tpkt.h"

OSKERNEL_STANDS_AT(SockAddr, sin, 0);
OSKERNEL_STANDS_AT(SockAddr, addr_str, 16);

OSKERNEL_STANDS_AT(AsyncSocket, s, 8);
OSKERNEL_STANDS_AT(AsyncSocket, rtps, 12);
OSKERNEL_STANDS_AT(AsyncSocket, indirect_socket, 16);
OSKERNEL_STANDS_AT(AsyncSocket, state, 20);
OSKERNEL_STANDS_AT(AsyncSocket, deleted, 24);
OSKERNEL_STANDS_AT(AsyncSocket, deletedAck, 25);
OSKERNEL_STANDS_AT(AsyncSocket, receive_started, 26);
OSKERNEL_STANDS_AT(AsyncSocket, big_buffers_allowed, 27);
OSKERNEL_STANDS_AT(AsyncSocket, type, 28);
OSKERNEL_STANDS_AT(AsyncSocket, listener, 32);
OSKERNEL_STANDS_AT(AsyncSocket, listenFn, 36);
OSKERNEL_STANDS_AT(AsyncSocket, listenObj, 40);
OSKERNEL_STANDS_AT(AsyncSocket, earlyData, 44);
OSKERNEL_STANDS_AT(AsyncSocket, listenq, 72);
OSKERNEL_STANDS_AT(AsyncSocket, listenqtrigger, 128);
OSKERNEL_STANDS_AT(AsyncSocket, q, 296);
OSKERNEL_STANDS_AT(AsyncSocket, qtrigger, 352);
OSKERNEL_STANDS_AT(AsyncSocket, thread, 520);
OSKERNEL_STANDS_AT(AsyncSocket, running, 524);
OSKERNEL_STANDS_AT(AsyncSocket, loc_sin, 528);
OSKERNEL_STANDS_AT(AsyncSocket, rem_sin, 576);
OSKERNEL_STANDS_AT(AsyncSocket, rem_sin_len, 624);
OSKERNEL_STANDS_AT(AsyncSocket, alloc_buf, 628);
OSKERNEL_STANDS_AT(AsyncSocket, local_cs, 632);
OSKERNEL_STANDS_AT(AsyncSocket, ring, 644);
OSKERNEL_STANDS_AT(AsyncSocket, oob_count, 648);
OSKERNEL_STANDS_AT(AsyncSocket, dont_read, 652);
OSKERNEL_STANDS_AT(AsyncSocket, startRetry, 656);
OSKERNEL_STANDS_AT(AsyncSocket, retryTimeout, 660);
OSKERNEL_STANDS_AT(AsyncSocket, dnsentry, 664);
OSKERNEL_STANDS_AT(AsyncSocket, secure, 668);
OSKERNEL_STANDS_AT(AsyncSocket, secure_state, 672);
OSKERNEL_STANDS_AT(AsyncSocket, ssl_info, 676);
OSKERNEL_STANDS_AT(AsyncSocket, cert, 680);
OSKERNEL_STANDS_AT(AsyncSocket, key, 684);
OSKERNEL_STANDS_AT(AsyncSocket, ca, 688);

OSKERNEL_STANDS_AT(TPKTSocket, tpktBuf, 772);
OSKERNEL_STANDS_AT(TPKTSocket, lastBuf, 776);

OSKERNEL_STANDS_AT(LineSocket, socket, 8);
OSKERNEL_STANDS_AT(LineSocket, line, 12);
OSKERNEL_STANDS_AT(LineSocket, maxlinelen, 16);
OSKERNEL_STANDS_AT(LineSocket, linelen, 20);
OSKERNEL_STANDS_AT(LineSocket, done, 24);

OSKERNEL_STANDS_AT(RingBuffer, bufs, 4);
OSKERNEL_STANDS_AT(RingBuffer, ring, 8);
OSKERNEL_STANDS_AT(RingBuffer, size, 12);
OSKERNEL_STANDS_AT(RingBuffer, rp, 16);
OSKERNEL_STANDS_AT(RingBuffer, wp, 20);
OSKERNEL_STANDS_AT(RingBuffer, traceCount, 24);

OSKERNEL_STANDS_AT(SocketBuffer, parent, 144);

OSKERNEL_STANDS_AT(SocketLink, s, 24);
OSKERNEL_STANDS_AT(SocketLink, rem_sin, 28);

OSKERNEL_STANDS_AT(DNSEntry, dnsname, 4);
OSKERNEL_STANDS_AT(DNSEntry, dnsaddr, 8);
OSKERNEL_STANDS_AT(DNSEntry, result, 12);
OSKERNEL_STANDS_AT(DNSEntry, timer, 16);
OSKERNEL_STANDS_AT(DNSEntry, usageCount, 168);
OSKERNEL_STANDS_AT(DNSEntry, idleCount, 172);
OSKERNEL_STANDS_AT(DNSEntry, sockets, 176);

OSKERNEL_STANDS_AT(SSLInfo, s, 0);
OSKERNEL_STANDS_AT(SSLInfo, server, 4);
OSKERNEL_STANDS_AT(SSLInfo, method, 8);
OSKERNEL_STANDS_AT(SSLInfo, ssl_ctx, 12);
OSKERNEL_STANDS_AT(SSLInfo, ssl, 16);
OSKERNEL_STANDS_AT(SSLInfo, rbio, 20);
OSKERNEL_STANDS_AT(SSLInfo, wbio, 24);
OSKERNEL_STANDS_AT(SSLInfo, x509_peer_name_string, 28);
OSKERNEL_STANDS_AT(SSLInfo, options, 284);
OSKERNEL_STANDS_AT(SSLInfo, peer_name, 288);
OSKERNEL_STANDS_AT(SSLInfo, sendq, 292);
OSKERNEL_STANDS_AT(SSLInfo, sendqtrigger, 320);

OSKERNEL_STANDS_AT(Socket, type, 8);
OSKERNEL_STANDS_AT(Socket, state, 12);
OSKERNEL_STANDS_AT(Socket, local_sin, 16);
OSKERNEL_STANDS_AT(Socket, remote_sin, 32);
OSKERNEL_STANDS_AT(Socket, s, 48);
OSKERNEL_STANDS_AT(Socket, queue, 52);
OSKERNEL_STANDS_AT(Socket, phostent, 848);
OSKERNEL_STANDS_AT(Socket, rmthostent, 852);
OSKERNEL_STANDS_AT(Socket, readfds, 872);
OSKERNEL_STANDS_AT(Socket, exceptfds, 1000);

OSKERNEL_STANDS_AT(SecureSocket, ssl_ctx, 1148);
OSKERNEL_STANDS_AT(SecureSocket, ssl, 1152);
OSKERNEL_STANDS_AT(SecureSocket, read_blocked, 1156);
OSKERNEL_STANDS_AT(SecureSocket, read_blocked_on_write, 1157);
OSKERNEL_STANDS_AT(SecureSocket, write_blocked_on_read, 1158);
OSKERNEL_STANDS_AT(SecureSocket, ssl_connected, 1159);

OSKERNEL_STANDS_AT(DnsQuestion, qname, 4);
OSKERNEL_STANDS_AT(DnsQuestion, qtype, 260);
OSKERNEL_STANDS_AT(DnsQuestion, qclass, 264);

OSKERNEL_STANDS_AT(DnsResource, name, 4);
OSKERNEL_STANDS_AT(DnsResource, type, 260);
OSKERNEL_STANDS_AT(DnsResource, clas, 264);
OSKERNEL_STANDS_AT(DnsResource, ttl, 268);
OSKERNEL_STANDS_AT(DnsResource, addr, 272);
OSKERNEL_STANDS_AT(DnsResource, priority, 276);
OSKERNEL_STANDS_AT(DnsResource, weight, 280);
OSKERNEL_STANDS_AT(DnsResource, port, 284);
OSKERNEL_STANDS_AT(DnsResource, target, 288);

OSKERNEL_STANDS_AT(DnsMessage, id, 4);
OSKERNEL_STANDS_AT(DnsMessage, opts, 8);
OSKERNEL_STANDS_AT(DnsMessage, qdcount, 12);
OSKERNEL_STANDS_AT(DnsMessage, ancount, 16);
OSKERNEL_STANDS_AT(DnsMessage, nscount, 20);
OSKERNEL_STANDS_AT(DnsMessage, arcount, 24);
OSKERNEL_STANDS_AT(DnsMessage, questions, 28);
OSKERNEL_STANDS_AT(DnsMessage, answers, 56);
OSKERNEL_STANDS_AT(DnsMessage, authorities, 84);
OSKERNEL_STANDS_AT(DnsMessage, additionals, 112);

OSKERNEL_STANDS_AT(DnsLookup, socket, 8);
OSKERNEL_STANDS_AT(DnsLookup, callback, 12);
OSKERNEL_STANDS_AT(DnsLookup, obj, 16);
OSKERNEL_STANDS_AT(DnsLookup, response, 20);
OSKERNEL_STANDS_AT(DnsLookup, timer, 24);
