// Programs were written against this interface: its fields stand in their order, its virtual operations in their slots,
// its numbers are those of the protocol. And they include what they like behind it.

#include "network/dns.h"

#include <arpa/nameser.h>
#include <netdb.h>
#include <resolv.h>

#include "network/socket.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>
#include <vector>

#include "support/vtable_slot.h"

namespace oskernel_test {
namespace {

// ---- Types and signatures ----------------------------------------------------------------------------------

static_assert(T_A == 1 && T_NS == 2 && T_MD == 3 && T_MF == 4 && T_CNAME == 5 && T_SOA == 6 && T_MB == 7 &&
              T_MG == 8 && T_MR == 9 && T_NULL == 10 && T_WKS == 11 && T_PTR == 12 && T_HINFO == 13 &&
              T_MINFO == 14 && T_MX == 15 && T_TXT == 16 && T_SRV == 33 && T_NAPTR == 35 && T_AXFR == 252 &&
              T_MAILB == 253 && T_MAILA == 254 && T_ALL == 255);
// None of them is a macro of the system's any more.
static_assert(std::is_same_v<decltype(T_A), Type> && std::is_same_v<decltype(T_NS), Type> &&
              std::is_same_v<decltype(T_MD), Type> && std::is_same_v<decltype(T_MF), Type> &&
              std::is_same_v<decltype(T_CNAME), Type> && std::is_same_v<decltype(T_SOA), Type> &&
              std::is_same_v<decltype(T_MB), Type> && std::is_same_v<decltype(T_MG), Type> &&
              std::is_same_v<decltype(T_MR), Type> && std::is_same_v<decltype(T_NULL), Type> &&
              std::is_same_v<decltype(T_WKS), Type> && std::is_same_v<decltype(T_PTR), Type> &&
              std::is_same_v<decltype(T_HINFO), Type> && std::is_same_v<decltype(T_MINFO), Type> &&
              std::is_same_v<decltype(T_MX), Type> && std::is_same_v<decltype(T_TXT), Type> &&
              std::is_same_v<decltype(T_SRV), Type> && std::is_same_v<decltype(T_NAPTR), Type> &&
              std::is_same_v<decltype(T_AXFR), Type> && std::is_same_v<decltype(T_MAILB), Type> &&
              std::is_same_v<decltype(T_MAILA), Type> && std::is_same_v<decltype(T_ALL), Type>);

static_assert(std::is_same_v<decltype(&GetTypeStr), const char* (*)(int)> &&
              std::is_same_v<decltype(&GetClassStr), const char* (*)(int)> &&
              std::is_same_v<decltype(&GetDomain), int (*)(UBYTE*, UBYTE*, char*)> &&
              std::is_same_v<decltype(&GetDomainLength), int (*)(UBYTE*, UBYTE*)>);

static_assert(std::is_same_v<decltype(&DnsQuestion::Decode), int (DnsQuestion::*)(UBYTE*, UBYTE*)> &&
              std::is_same_v<decltype(&DnsResource::Decode), int (DnsResource::*)(UBYTE*, UBYTE*)> &&
              std::is_same_v<decltype(&DnsMessage::Decode), int (DnsMessage::*)(OSBuf*)> &&
              std::is_same_v<decltype(&DnsQuestion::Print), void (DnsQuestion::*)()> &&
              std::is_same_v<decltype(&DnsResource::Print), void (DnsResource::*)()> &&
              std::is_same_v<decltype(&DnsMessage::Print), void (DnsMessage::*)()>);

static_assert(std::is_same_v<decltype(DnsQuestion::qname), char[256]> &&
              std::is_same_v<decltype(DnsQuestion::qtype), int> &&
              std::is_same_v<decltype(DnsQuestion::qclass), int>);
static_assert(std::is_same_v<decltype(DnsResource::name), char[256]> &&
              std::is_same_v<decltype(DnsResource::type), int> &&
              std::is_same_v<decltype(DnsResource::clas), int> &&
              std::is_same_v<decltype(DnsResource::ttl), int> &&
              std::is_same_v<decltype(DnsResource::addr), ULONG> &&
              std::is_same_v<decltype(DnsResource::priority), int> &&
              std::is_same_v<decltype(DnsResource::weight), int> &&
              std::is_same_v<decltype(DnsResource::port), int> &&
              std::is_same_v<decltype(DnsResource::target), char[256]>);
static_assert(std::is_same_v<decltype(DnsMessage::id), int> &&
              std::is_same_v<decltype(DnsMessage::opts), int> &&
              std::is_same_v<decltype(DnsMessage::qdcount), int> &&
              std::is_same_v<decltype(DnsMessage::ancount), int> &&
              std::is_same_v<decltype(DnsMessage::nscount), int> &&
              std::is_same_v<decltype(DnsMessage::arcount), int> &&
              std::is_same_v<decltype(DnsMessage::questions), OSIndirectList> &&
              std::is_same_v<decltype(DnsMessage::answers), OSIndirectList> &&
              std::is_same_v<decltype(DnsMessage::authorities), OSIndirectList> &&
              std::is_same_v<decltype(DnsMessage::additionals), OSIndirectList>);
static_assert(std::is_same_v<decltype(DnsLookup::socket), AsyncSocket*> &&
              std::is_same_v<decltype(DnsLookup::callback), OSCallbackFunction> &&
              std::is_same_v<decltype(DnsLookup::obj), OSObj*> &&
              std::is_same_v<decltype(DnsLookup::response), DnsMessage*> &&
              std::is_same_v<decltype(DnsLookup::timer), OSTimerTrigger>);

static_assert(std::is_base_of_v<OSListObj, DnsQuestion> && std::is_base_of_v<OSListObj, DnsResource> &&
              std::is_base_of_v<OSListObj, DnsMessage> && std::is_base_of_v<OSIO, DnsLookup>);
static_assert(std::is_default_constructible_v<DnsQuestion> && std::is_default_constructible_v<DnsResource> &&
              std::is_default_constructible_v<DnsMessage>);
static_assert(std::is_constructible_v<DnsLookup, char*, Type, const char*, OSCallbackFunction, OSObj*>);
static_assert(std::has_virtual_destructor_v<DnsQuestion> && std::has_virtual_destructor_v<DnsResource> &&
              std::has_virtual_destructor_v<DnsMessage> && std::has_virtual_destructor_v<DnsLookup>);
static_assert(std::is_same_v<decltype(&DnsLookup::DatagramIndication),
                             OSIORetCode (DnsLookup::*)(OSBuf*, void*, void*)> &&
              std::is_same_v<decltype(&DnsLookup::GetAddress), DnsResource* (DnsLookup::*)()>);

// ---- Layout ------------------------------------------------------------------------------------------------

/// Where a field of an object stands.
template <class Object, class Field>
std::ptrdiff_t offset_of(Field Object::*field) {
  // The object is never looked at: only the distance of its field counts.
  alignas(Object) static unsigned char storage[sizeof(Object)];
  const Object* object = reinterpret_cast<const Object*>(storage);
  return reinterpret_cast<const unsigned char*>(&(object->*field)) - storage;
}

void expect_ascending(const std::vector<std::ptrdiff_t>& offsets) {
  EXPECT_GE(offsets.front(), static_cast<std::ptrdiff_t>(sizeof(void*)));
  for (std::size_t i = 1; i < offsets.size(); ++i) EXPECT_LT(offsets[i - 1], offsets[i]) << "field " << i;
}

TEST(DnsHeader, FieldsStandInTheirOrder) {
  expect_ascending(
      {offset_of(&DnsQuestion::qname), offset_of(&DnsQuestion::qtype), offset_of(&DnsQuestion::qclass)});
  expect_ascending(
      {offset_of(&DnsResource::name), offset_of(&DnsResource::type), offset_of(&DnsResource::clas),
       offset_of(&DnsResource::ttl), offset_of(&DnsResource::addr), offset_of(&DnsResource::priority),
       offset_of(&DnsResource::weight), offset_of(&DnsResource::port), offset_of(&DnsResource::target)});
  expect_ascending({offset_of(&DnsMessage::id), offset_of(&DnsMessage::opts), offset_of(&DnsMessage::qdcount),
                    offset_of(&DnsMessage::ancount), offset_of(&DnsMessage::nscount),
                    offset_of(&DnsMessage::arcount), offset_of(&DnsMessage::questions),
                    offset_of(&DnsMessage::answers), offset_of(&DnsMessage::authorities),
                    offset_of(&DnsMessage::additionals)});
  expect_ascending({offset_of(&DnsLookup::socket), offset_of(&DnsLookup::callback),
                    offset_of(&DnsLookup::obj), offset_of(&DnsLookup::response),
                    offset_of(&DnsLookup::timer)});
}

// Nothing stands between the base and the fields or behind them, so programs that were built against the fields find
// them where they always were.
TEST(DnsHeader, QuestionsAndRecordsAreTheirFields) {
  EXPECT_EQ(offset_of(&DnsQuestion::qname), static_cast<std::ptrdiff_t>(sizeof(OSListObj)));
  EXPECT_EQ(sizeof(DnsQuestion), sizeof(OSListObj) + 256 + 2 * sizeof(int));
  EXPECT_EQ(offset_of(&DnsResource::name), static_cast<std::ptrdiff_t>(sizeof(OSListObj)));
  EXPECT_EQ(offset_of(&DnsResource::target),
            static_cast<std::ptrdiff_t>(sizeof(OSListObj) + 256 + 6 * sizeof(int) + sizeof(ULONG)));
  EXPECT_EQ(offset_of(&DnsMessage::id), static_cast<std::ptrdiff_t>(sizeof(OSListObj)));
}

TEST(DnsHeader, OnlyWhatOverridesHasASlot) {
  EXPECT_EQ(vtable_slot(&DnsQuestion::IsKey), 2);
  EXPECT_EQ(vtable_slot(&DnsQuestion::Decode), -1);
  EXPECT_EQ(vtable_slot(&DnsQuestion::Print), -1);
  EXPECT_EQ(vtable_slot(&DnsResource::IsKey), 2);
  EXPECT_EQ(vtable_slot(&DnsResource::Decode), -1);
  EXPECT_EQ(vtable_slot(&DnsResource::Print), -1);
  EXPECT_EQ(vtable_slot(&DnsMessage::IsKey), 2);
  EXPECT_EQ(vtable_slot(&DnsMessage::Decode), -1);
  EXPECT_EQ(vtable_slot(&DnsMessage::Print), -1);
  EXPECT_EQ(vtable_slot(&DnsLookup::DatagramIndication), vtable_slot(&OSIO::DatagramIndication));
  EXPECT_EQ(vtable_slot(&DnsLookup::DatagramIndication), 5);
  EXPECT_EQ(vtable_slot(&DnsLookup::GetAddress), -1);
  // The destructors stand where the base's do: a class derived from a message adds its own operations behind IsKey.
  struct Derived : DnsMessage {
    virtual void Own() {}
  };
  EXPECT_EQ(vtable_slot(&Derived::Own), 3);
}

// ---- Beside other headers ----------------------------------------------------------------------------------

TEST(DnsHeader, SystemHeadersBehindItOfferTheirOtherNames) {
  Type t = T_A;
  EXPECT_EQ(t, 1);
  t = T_NAPTR;
  EXPECT_STREQ(GetTypeStr(t), "NAPTR");

  // Macros of the same family that are none of ours.
  EXPECT_EQ(static_cast<int>(T_AAAA), 28);
  EXPECT_EQ(static_cast<int>(T_ANY), 255);
  EXPECT_EQ(static_cast<int>(C_IN), 1);
  EXPECT_EQ(static_cast<int>(ns_t_a), 1);
  EXPECT_EQ(static_cast<int>(ns_c_any), 255);
  EXPECT_EQ(NS_MAXDNAME, 1025);
  EXPECT_EQ(PACKETSZ, 512);
  HEADER header = {};
  header.rd = 1;
  EXPECT_EQ(header.rd, 1U);
  int (*const parse)(const unsigned char*, int, ns_msg*) = ns_initparse;
  int (*const parse_record)(ns_msg*, ns_sect, int, ns_rr*) = ns_parserr;
  EXPECT_NE(parse, nullptr);
  EXPECT_NE(parse_record, nullptr);
  EXPECT_EQ(HOST_NOT_FOUND, 1);
}

class OwnSocket : public Socket {
 public:
  using Socket::Socket;
  static Type kind() { return UDP; }  // inside a socket, Type is the socket's
  static ::Type record() { return T_SRV; }
};

TEST(DnsHeader, TypesOfRecordsAndOfBlockingSocketsAreTwo) {
  static_assert(!std::is_same_v<Type, Socket::Type>);
  static_assert(std::is_same_v<decltype(OwnSocket::kind()), Socket::Type>);
  static_assert(std::is_same_v<decltype(OwnSocket::record()), Type>);
  EXPECT_EQ(OwnSocket::kind(), Socket::UDP);
  EXPECT_EQ(OwnSocket::record(), T_SRV);
}

}  // namespace
}  // namespace oskernel_test
