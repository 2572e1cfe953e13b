// Programs that were built against an older library call the blocking sockets' virtual operations by slot and reach the
// fields by offset: slots, values of enumerations and the order of fields stay as they are.

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <cstddef>
#include <type_traits>
#include <vector>

#include "network/socket.h"
#include "support/vtable_slot.h"

namespace oskernel_test {
namespace {

// Programs name the types of these operations when they override them.
using WaitForBuffer = OSBuf* (Socket::*)(int);
using WaitForBytes = int (Socket::*)(UBYTE*, int);
static_assert(
    std::is_same_v<decltype(&Socket::Accept), Socket* (Socket::*)()> &&
    std::is_same_v<decltype(&Socket::Close), void (Socket::*)()> &&
    std::is_same_v<decltype(&Socket::Queue), int (Socket::*)(OSBuf*)> &&
    std::is_same_v<decltype(&Socket::FlushQueue), int (Socket::*)(bool)> &&
    std::is_same_v<decltype(&Socket::Connect), void (Socket::*)(ULONG, UWORD)> &&
    std::is_same_v<decltype(&Socket::ConnectAck), void (Socket::*)()> &&
    std::is_same_v<decltype(&Socket::SendTo), OSIORetCode (Socket::*)(OSBuf*, ULONG, UWORD)> &&
    std::is_same_v<decltype(&Socket::Secure), bool (Socket::*)()> &&
    std::is_same_v<decltype(&Socket::DataIndication), OSIORetCode (Socket::*)(OSBuf*)> &&
    std::is_same_v<decltype(&Socket::DataExpeditedIndication), OSIORetCode (Socket::*)(OSBuf*)> &&
    std::is_same_v<decltype(&Socket::DatagramIndication), OSIORetCode (Socket::*)(OSBuf*, void*, void*)>);
static_assert(std::is_same_v<decltype(&Socket::Init), BOOL (*)(ULONG)>);
static_assert(std::is_same_v<decltype(&SecureSocket::Accept), Socket* (SecureSocket::*)()> &&
              std::is_same_v<decltype(&SecureSocket::StartSSL), int (SecureSocket::*)(bool)>);
static_assert(std::is_base_of_v<OSIO, Socket> && std::is_base_of_v<Socket, SecureSocket>);
static_assert(std::has_virtual_destructor_v<Socket> && std::has_virtual_destructor_v<SecureSocket>);

// The constructors, by the types that programs give them.
static_assert(std::is_constructible_v<Socket, Socket::Type, UWORD, bool, ULONG> &&
              std::is_constructible_v<Socket, Socket::Type, int, sockaddr_in*, int> &&
              std::is_constructible_v<Socket, Socket::Type, char*, UWORD>);
static_assert(std::is_constructible_v<SecureSocket, Socket::Type, UWORD, bool, ULONG> &&
              std::is_constructible_v<SecureSocket, Socket::Type, int, sockaddr_in*, int> &&
              std::is_constructible_v<SecureSocket, Socket::Type, char*, UWORD>);

// What the fields are.
static_assert(std::is_same_v<decltype(Socket::type), Socket::Type> &&
              std::is_same_v<decltype(Socket::local_sin), sockaddr_in> &&
              std::is_same_v<decltype(Socket::remote_sin), sockaddr_in> &&
              std::is_same_v<decltype(Socket::s), int> && std::is_same_v<decltype(Socket::queue), OSStream> &&
              std::is_same_v<decltype(Socket::phostent), hostent*> &&
              std::is_same_v<decltype(Socket::rmthostent), hostent> &&
              std::is_same_v<decltype(Socket::readfds), fd_set> &&
              std::is_same_v<decltype(Socket::exceptfds), fd_set>);
static_assert(std::is_same_v<decltype(Socket::cs), CRITICAL_SECTION> &&
              std::is_same_v<decltype(Socket::socket_list), OSIndirectList> &&
              std::is_same_v<decltype(Socket::local_ipaddr), ULONG>);
static_assert(std::is_same_v<decltype(SecureSocket::ssl_ctx), SSL_CTX*> &&
              std::is_same_v<decltype(SecureSocket::ssl), SSL*> &&
              std::is_same_v<decltype(SecureSocket::read_blocked), bool> &&
              std::is_same_v<decltype(SecureSocket::read_blocked_on_write), bool> &&
              std::is_same_v<decltype(SecureSocket::write_blocked_on_read), bool> &&
              std::is_same_v<decltype(SecureSocket::ssl_connected), bool> &&
              std::is_same_v<decltype(SecureSocket::initialized_ssl), bool>);

/// An operation that a program reaches by its slot.
struct Slot {
  const char* operation;
  int found;
  int expected;
};

void expect_slots(const std::vector<Slot>& slots) {
  for (const Slot& slot : slots) EXPECT_EQ(slot.found, slot.expected) << slot.operation;
}

TEST(BlockingVirtualSlots, TheSocketsOperationsStandBehindTheLayersInTheirSlots) {
  expect_slots({
      {"DataIndication", vtable_slot(&Socket::DataIndication), 3},
      {"DataExpeditedIndication", vtable_slot(&Socket::DataExpeditedIndication), 4},
      {"DatagramIndication", vtable_slot(&Socket::DatagramIndication), 5},
      {"ConnectIndication", vtable_slot(&Socket::ConnectIndication), 6},
      {"DisconnectIndication", vtable_slot(&Socket::DisconnectIndication), 7},
      {"Detach", vtable_slot(&Socket::Detach), 16},
      {"RecWait of a buffer", vtable_slot(static_cast<WaitForBuffer>(&Socket::RecWait)), 17},
      {"RecWait of bytes", vtable_slot(static_cast<WaitForBytes>(&Socket::RecWait)), 18},
      {"Accept", vtable_slot(&Socket::Accept), 19},
      {"Close", vtable_slot(&Socket::Close), 20},
      {"Queue", vtable_slot(&Socket::Queue), 21},
      {"FlushQueue", vtable_slot(&Socket::FlushQueue), 22},
      {"Connect", vtable_slot(&Socket::Connect), 23},
      {"ConnectAck", vtable_slot(&Socket::ConnectAck), 24},
      {"SendTo", vtable_slot(&Socket::SendTo), 25},
      {"Secure", vtable_slot(&Socket::Secure), 26},
  });
}

TEST(BlockingVirtualSlots, TheSecureSocketOverridesInTheSameSlots) {
  using SecureWaitForBuffer = OSBuf* (SecureSocket::*)(int);
  using SecureWaitForBytes = int (SecureSocket::*)(UBYTE*, int);
  expect_slots({
      {"DataIndication", vtable_slot(&SecureSocket::DataIndication), 3},
      {"RecWait of a buffer", vtable_slot(static_cast<SecureWaitForBuffer>(&SecureSocket::RecWait)), 17},
      {"RecWait of bytes", vtable_slot(static_cast<SecureWaitForBytes>(&SecureSocket::RecWait)), 18},
      {"Accept", vtable_slot(&SecureSocket::Accept), 19},
      {"Close", vtable_slot(&SecureSocket::Close), 20},
      {"Queue", vtable_slot(&SecureSocket::Queue), 21},
      {"FlushQueue", vtable_slot(&SecureSocket::FlushQueue), 22},
      {"Connect", vtable_slot(&SecureSocket::Connect), 23},
      {"ConnectAck", vtable_slot(&SecureSocket::ConnectAck), 24},
      {"SendTo", vtable_slot(&SecureSocket::SendTo), 25},
      {"Secure", vtable_slot(&SecureSocket::Secure), 26},
      {"StartSSL", vtable_slot(&SecureSocket::StartSSL), -1},
  });
  // Each is the secure socket's own: its member pointer has the derived class's type.
  static_assert(
      std::is_same_v<decltype(&SecureSocket::DataIndication), OSIORetCode (SecureSocket::*)(OSBuf*)>);
  static_assert(std::is_same_v<decltype(&SecureSocket::Close), void (SecureSocket::*)()>);
  static_assert(std::is_same_v<decltype(&SecureSocket::Queue), int (SecureSocket::*)(OSBuf*)>);
  static_assert(std::is_same_v<decltype(&SecureSocket::FlushQueue), int (SecureSocket::*)(bool)>);
  static_assert(std::is_same_v<decltype(&SecureSocket::Connect), void (SecureSocket::*)(ULONG, UWORD)>);
  static_assert(std::is_same_v<decltype(&SecureSocket::ConnectAck), void (SecureSocket::*)()>);
  static_assert(
      std::is_same_v<decltype(&SecureSocket::SendTo), OSIORetCode (SecureSocket::*)(OSBuf*, ULONG, UWORD)>);
  static_assert(std::is_same_v<decltype(&SecureSocket::Secure), bool (SecureSocket::*)()>);
}

TEST(BlockingVirtualSlots, WhatProgramsOnlyAskHasNoSlot) {
  expect_slots({
      {"RemoteIPText", vtable_slot(&Socket::RemoteIPText), -1},
      {"RemoteIP_n", vtable_slot(&Socket::RemoteIP_n), -1},
      {"RemoteIP_h", vtable_slot(&Socket::RemoteIP_h), -1},
      {"RemoteHostname", vtable_slot(&Socket::RemoteHostname), -1},
      {"RemotePort", vtable_slot(&Socket::RemotePort), -1},
      {"LocalIP_n", vtable_slot(&Socket::LocalIP_n), -1},
      {"LocalIP_h", vtable_slot(&Socket::LocalIP_h), -1},
      {"LocalPort", vtable_slot(&Socket::LocalPort), -1},
  });
}

/// Where a field of an object stands.
template <class Object, class Field>
std::ptrdiff_t offset_of(Field Object::*field) {
  // The object is never looked at: only the distance of its field counts.
  alignas(Object) static unsigned char storage[sizeof(Object)];
  const Object* object = reinterpret_cast<const Object*>(storage);
  return reinterpret_cast<const unsigned char*>(&(object->*field)) - storage;
}

void expect_ascending(const std::vector<std::ptrdiff_t>& offsets) {
  for (std::size_t i = 1; i < offsets.size(); ++i) {
    EXPECT_LT(offsets[i - 1], offsets[i]) << "field " << i;
  }
}

TEST(BlockingVirtualSlots, TheSocketsFieldsStandInTheirOrder) {
  expect_ascending({
      offset_of(&Socket::partner),
      offset_of(&Socket::type),
      offset_of(&Socket::state),
      offset_of(&Socket::local_sin),
      offset_of(&Socket::remote_sin),
      offset_of(&Socket::s),
      offset_of(&Socket::queue),
      offset_of(&Socket::phostent),
      offset_of(&Socket::rmthostent),
      offset_of(&Socket::readfds),
      offset_of(&Socket::exceptfds),
  });
}

TEST(BlockingVirtualSlots, TheSecureSocketsFieldsStandBehindInTheirOrder) {
  expect_ascending({
      offset_of(&Socket::exceptfds),
      offset_of<SecureSocket>(&SecureSocket::ssl_ctx),
      offset_of<SecureSocket>(&SecureSocket::ssl),
      offset_of<SecureSocket>(&SecureSocket::read_blocked),
      offset_of<SecureSocket>(&SecureSocket::read_blocked_on_write),
      offset_of<SecureSocket>(&SecureSocket::write_blocked_on_read),
      offset_of<SecureSocket>(&SecureSocket::ssl_connected),
  });
}

TEST(BlockingVirtualSlots, TheEnumerationsHaveTheirValues) {
  static_assert(Socket::UDP == 0 && Socket::TCP_CLIENT == 1 && Socket::TCP_SERVER == 2);
  static_assert(Socket::INVALID == 0 && Socket::READY == 1 && Socket::CONNECTED == 2);
  // The states' enumeration has no name, and a field of it takes no integer.
  static_assert(std::is_enum_v<decltype(Socket::state)>);
}

}  // namespace
}  // namespace oskernel_test
