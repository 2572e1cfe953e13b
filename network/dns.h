/// @file
/// DNS (RFC 1035): decoding, printing and asking.
///
///   DnsMessage   what a received message says, as lists of DnsQuestion and DnsResource
///   DnsLookup    one question over UDP, with its answer or a time-out through a callback
///
/// Independent of the name cache (dnsentry.h), which asks the system for addresses only: this is for programs that
/// need other types of records, SRV for instance.
///
/// <arpa/nameser.h> defines macros of the names below. It is included here, and those macros are taken back, so that
/// it may also be included before or after this header; everything else that it offers stays as it is.
#ifndef OSKERNEL_DNS_H
#define OSKERNEL_DNS_H

#if __has_include(<arpa/nameser.h>)
#include <arpa/nameser.h>
#endif

#include "io.h"
#include "link.h"
#include "trigger.h"
#include "types.h"

#undef T_A
#undef T_NS
#undef T_MD
#undef T_MF
#undef T_CNAME
#undef T_SOA
#undef T_MB
#undef T_MG
#undef T_MR
#undef T_NULL
#undef T_WKS
#undef T_PTR
#undef T_HINFO
#undef T_MINFO
#undef T_MX
#undef T_TXT
#undef T_SRV
#undef T_NAPTR
#undef T_AXFR
#undef T_MAILB
#undef T_MAILA
#undef T_ALL

class AsyncSocket;
class DnsReader;
class OSBuf;

/// Types of records (RFC 1035 3.2.2 and 3.2.3, RFC 2782, RFC 3403).
enum Type : int {
  T_A = 1,        ///< an IPv4 address
  T_NS = 2,       ///< a name server of the zone
  T_MD = 3,       ///< a mail destination; obsolete, see T_MX
  T_MF = 4,       ///< a mail forwarder; obsolete, see T_MX
  T_CNAME = 5,    ///< the canonical name of an alias
  T_SOA = 6,      ///< the start of a zone of authority
  T_MB = 7,       ///< a mailbox; experimental
  T_MG = 8,       ///< a member of a mail group; experimental
  T_MR = 9,       ///< a mailbox that has been renamed; experimental
  T_NULL = 10,    ///< any data; experimental
  T_WKS = 11,     ///< well-known services
  T_PTR = 12,     ///< a name, of an address for instance
  T_HINFO = 13,   ///< processor and system of a host
  T_MINFO = 14,   ///< mailbox or mail list
  T_MX = 15,      ///< a mail exchange
  T_TXT = 16,     ///< texts
  T_SRV = 33,     ///< the server of a service (RFC 2782)
  T_NAPTR = 35,   ///< a rule that rewrites names (RFC 3403)
  T_AXFR = 252,   ///< in questions only: a whole zone
  T_MAILB = 253,  ///< in questions only: MB, MG and MR
  T_MAILA = 254,  ///< in questions only: MD and MF; obsolete, see T_MX
  T_ALL = 255     ///< in questions only: all types
};

// ---- Names -------------------------------------------------------------------------------------------------
//
// What is read one name, question or record at a time (here and in the two Decode below) has no end that could be
// looked at: the caller vouches for what `p` and every pointer in it lead to. DnsMessage::Decode knows the end of its
// message and never reads behind it.

/// The mnemonic of a type; null for one without.
OSKERNEL_API const char* GetTypeStr(int type);
/// The mnemonic of a class (RFC 1035 3.2.4 and 3.2.5); null for one without.
OSKERNEL_API const char* GetClassStr(int clas);

/// Expands a name (RFC 1035 4.1.4) into text: labels as they are, with dots between them, and no dot at the end. The
/// root is the empty text.
/// Deliberate: the two top bits of a length mean something only when both are set; every other length byte counts a
/// label, of up to 191 bytes. Pinned by dns_name_test.cpp, LengthsWithOneTopBitAreLengths.
///   p         where the name begins
///   msg       the message's first byte, from which pointers count
///   out       256 bytes
///   returns   how many bytes the name takes at p: up to its zero byte, or up to its first pointer. 0 for one of
///             more than 255 characters, or whose pointers lead round in circles; out is empty then.
OSKERNEL_API int GetDomain(UBYTE* p, UBYTE* msg, char* out);
/// The length of the text that GetDomain makes, without its terminating zero.
OSKERNEL_API int GetDomainLength(UBYTE* p, UBYTE* msg);

// ---- Messages ----------------------------------------------------------------------------------------------

/// What is asked (RFC 1035 4.1.2). Its fields mean something after Decode.
class OSKERNEL_API DnsQuestion : public OSListObj {
 public:
  DnsQuestion();            ///< its fields mean nothing yet
  ~DnsQuestion() override;  ///< takes it out of no list: its owner does
  /// Decodes a question.
  ///   p, msg    as for GetDomain
  ///   returns   how many bytes it takes; 0, with an empty qname, when GetDomain cannot expand the name
  int Decode(UBYTE* p, UBYTE* msg);
  /// One console line.
  void Print();

  char qname[256];  ///< as GetDomain writes it
  int qtype;        ///< a Type
  int qclass;       ///< 1 is the Internet

 private:
  friend class DnsMessage;
  bool decode(DnsReader& reader);
};

/// A record (RFC 1035 4.1.3). Of its data are decoded: the address (A), the name server (NS, RFC 1035 3.3.11), the
/// exchange (MX, RFC 1035 3.3.9) and the server (SRV, RFC 2782). Other types keep name, type, class and TTL.
class OSKERNEL_API DnsResource : public OSListObj {
 public:
  /// Empty names, numbers of 0.
  DnsResource();
  ~DnsResource() override;  ///< takes it out of no list: its owner does
  /// Decodes a record.
  /// Deliberate: the next record is found by RDLENGTH alone, which is not compared with what the type's data hold: a
  /// server that counts wrongly there still gets its next record read where it says that it is. Pinned by
  /// dns_decode_test.cpp, TheNextRecordIsWhereTheLengthSays.
  ///   p, msg    as for GetDomain
  ///   returns   how many bytes it takes; 0, with empty names, when GetDomain cannot expand a name
  int Decode(UBYTE* p, UBYTE* msg);
  /// One console line.
  ///   threads   any; takes no section of the networking layer, which need not have been started
  void Print();

  char name[256];    ///< the owner's, as GetDomain writes it
  int type;          ///< a Type
  int clas;          ///< 1 is the Internet
  int ttl;           ///< seconds; 32 bits as sent, to be read as unsigned
  ULONG addr;        ///< A: the address, host order; 0 for none
  int priority;      ///< MX: preference; SRV: priority
  int weight;        ///< SRV
  int port;          ///< SRV
  char target[256];  ///< NS: name server; MX: exchange; SRV: target; as GetDomain writes it

 private:
  friend class DnsMessage;
  bool decode(DnsReader& reader);
};

/// A message (RFC 1035 4.1).
class OSKERNEL_API DnsMessage : public OSListObj {
 public:
  /// Empty lists, numbers of 0.
  DnsMessage();
  /// Deletes what is on the lists, in their order.
  ~DnsMessage() override;
  DnsMessage(const DnsMessage&) = delete;
  DnsMessage& operator=(const DnsMessage&) = delete;
  /// Decodes the buffer's data and appends what it holds to the lists. Whatever the bytes are, nothing outside of them
  /// is read: decoding ends at the first question or record that does not fit the message, has a name of more than 255
  /// characters or one whose pointers lead round in circles, or finds no memory or link. What stands before is kept;
  /// the counts are as they were sent. Of a header that is cut short the numbers that are whole are taken.
  ///   buf       lends; an answer with an error code or cut short (TC) is decoded like any other
  ///   returns   0
  int Decode(OSBuf* buf);
  /// A console line for each list that is not empty and for each entry.
  void Print();

  int id;                    ///< the header's ID, 16 bits: the question's, given back in the answer
  int opts;                  ///< QR, Opcode, AA, TC, RD, RA, Z and RCODE as they stand in the header, 16 bits
  int qdcount;               ///< how many questions the header announces
  int ancount;               ///< answers
  int nscount;               ///< authorities
  int arcount;               ///< additional records
  OSIndirectList questions;  ///< DnsQuestions in the message's order; owns them
  OSIndirectList answers;    ///< DnsResources; owns them
  OSIndirectList authorities;  ///< DnsResources; owns them
  OSIndirectList additionals;  ///< DnsResources; owns them
};

// ---- Asking ------------------------------------------------------------------------------------------------

/// One question to a name server over UDP. The layer above an asynchronous datagram socket of its own.
///
///                answer                     5000 ms                 delete
///   waiting      -> answered, callback 0    -> late, callback 1     gone, nobody is told
///   late         -> answered, callback 0    cannot happen           gone
///   answered     the new answer takes the   cannot happen           gone
///                old one's place, callback 0
///
/// Deliberate: whatever datagram reaches the socket is taken for the answer. Its ID, its question, its sender and
/// its error code are not compared with anything: programs that ask a broadcast address get their answer from whoever
/// has one. Pinned by dns_lookup_test.cpp, AnyDatagramIsTheAnswer.
///
/// Threads: one at a time; the callback comes on the thread that dispatches the socket's queue trigger or the timer,
/// that is the task that made the lookup if it has a ready list of its own, otherwise the trigger task.
class OSKERNEL_API DnsLookup : public OSIO {
 public:
  /// Asks. There is no second attempt.
  /// A name that no message can carry is not sent: a label of more than 63 characters or an empty one in front of a
  /// dot, or more than 253 characters. A console line says why, and the time-out follows.
  /// Deliberate: a dot at the end of the name adds a zero byte to the name in the message, which servers refuse; the
  /// recursion-available bit is set in the question. Both are what servers have always been sent. Pinned by
  /// dns_query_test.cpp, ADotAtTheEndIsAnEmptyLabel and TheHeaderAsksWithBothRecursionBits.
  ///   name      lends
  ///   server    the name server's address, or its name, which the name cache then looks up while the question waits;
  ///             null or empty asks 255.255.255.255, the local network. Port 53. Lends.
  ///   function  function(object, this, 0) for each answer; function(object, this, 1) when there was none for 5000 ms.
  ///             It may delete this lookup. The one for an answer may come before the constructor has returned,
  ///             on another thread, when it is safe to do so as well.
  ///   threads   any, inside no section; waits neither for the network nor for the name cache
  DnsLookup(char* name, Type type, const char* server, OSCallbackFunction function, OSObj* object);
  /// No callback comes any more. One for an answer that another thread is in is waited for; one for the time-out is not,
  /// as with any timer: whoever deletes a waiting lookup is on the thread that dispatches it, or sees to that himself.
  ///   threads   any but the monitor thread; from the callback, too
  ~DnsLookup() override;
  DnsLookup(const DnsLookup&) = delete;
  DnsLookup& operator=(const DnsLookup&) = delete;

  /// What the socket calls with an answer.
  ///   takes     buf
  ///   returns   Success
  OSIORetCode DatagramIndication(OSBuf* buf, void* unused_from, void* unused_to) override;

  /// The usable record of the answer: the first A record; or the first record with a target (NS, MX, SRV) if one comes
  /// before it, whose addr is then that of the additional record of that very name (case matters), if there is one.
  ///   returns   null when there is none, or no answer; otherwise the record, which `response` owns
  DnsResource* GetAddress();

  AsyncSocket* socket;          ///< owned
  OSCallbackFunction callback;  ///< as constructed
  OSObj* obj;                   ///< as constructed
  DnsMessage* response;         ///< the last answer; owned; null before there is one
  OSTimerTrigger timer;         ///< runs while an answer is waited for

 private:
  enum { kAsking, kAnswerWaits, kAsked, kGoing };
  /// How far the constructor is, and whether an answer waits for its end; then, that the lookup is being deleted.
  /// Accessed atomically.
  int stage_;
};

#endif
