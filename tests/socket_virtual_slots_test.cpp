// Programs that were built against an older library call the sockets' virtual operations by slot and reach the
// fields by offset: slots, values of enumerations and the order of fields stay as they are.

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "network/asocket.h"
#include "support/vtable_slot.h"

namespace oskernel_test {
namespace {

// Programs name the types of these operations when they override them.
static_assert(std::is_same_v<decltype(&AsyncSocket::GetNewSocket), AsyncSocket* (AsyncSocket::*)(int)>);
static_assert(std::is_same_v<decltype(&AsyncSocket::ProcessData), void (AsyncSocket::*)(OSBuf*)>);
static_assert(std::is_same_v<decltype(&AsyncSocket::Receive), void (AsyncSocket::*)(OSBuf*)>);
static_assert(std::is_same_v<decltype(&AsyncSocket::Poll), void (AsyncSocket::*)()>);
static_assert(std::is_same_v<decltype(&AsyncSocket::Bind), void (AsyncSocket::*)(OSIO*)>);
static_assert(std::is_same_v<decltype(&AsyncSocket::UnBind), void (AsyncSocket::*)()>);
static_assert(
    std::is_same_v<decltype(&AsyncSocket::DataIndication), OSIORetCode (AsyncSocket::*)(OSBuf*)> &&
    std::is_same_v<decltype(&AsyncSocket::DataExpeditedIndication), OSIORetCode (AsyncSocket::*)(OSBuf*)> &&
    std::is_same_v<decltype(&AsyncSocket::DatagramIndication),
                   OSIORetCode (AsyncSocket::*)(OSBuf*, void*, void*)> &&
    std::is_same_v<decltype(&AsyncSocket::ConnectIndication), OSIORetCode (AsyncSocket::*)(OSIOAddress*)> &&
    std::is_same_v<decltype(&AsyncSocket::DisconnectIndication),
                   OSIORetCode (AsyncSocket::*)(OSIOReason, int)>);
static_assert(std::is_same_v<decltype(&TPKTSocket::TPKTReceive), void (TPKTSocket::*)(OSBuf*)>);
static_assert(std::is_base_of_v<OSIO, AsyncSocket> && std::is_base_of_v<AsyncSocket, TPKTSocket> &&
              std::is_base_of_v<OSIO, LineSocket> && !std::is_base_of_v<AsyncSocket, LineSocket>);
static_assert(std::has_virtual_destructor_v<AsyncSocket> && std::has_virtual_destructor_v<TPKTSocket> &&
              std::has_virtual_destructor_v<LineSocket>);

/// An operation that a program reaches by its slot.
struct Slot {
  const char* operation;
  int found;
  int expected;
};

void expect_slots(const std::vector<Slot>& slots) {
  for (const Slot& slot : slots) EXPECT_EQ(slot.found, slot.expected) << slot.operation;
}

TEST(SocketVirtualSlots, TheSocketsOperationsStandInTheirSlots) {
  expect_slots({
      {"IsKey", vtable_slot(&AsyncSocket::IsKey), 2},
      {"DataIndication", vtable_slot(&AsyncSocket::DataIndication), 3},
      {"DataExpeditedIndication", vtable_slot(&AsyncSocket::DataExpeditedIndication), 4},
      {"DatagramIndication", vtable_slot(&AsyncSocket::DatagramIndication), 5},
      {"ConnectIndication", vtable_slot(&AsyncSocket::ConnectIndication), 6},
      {"DisconnectIndication", vtable_slot(&AsyncSocket::DisconnectIndication), 7},
      {"Configure", vtable_slot(&AsyncSocket::Configure), 8},
      {"SetModem", vtable_slot(&AsyncSocket::SetModem), 9},
      {"GetModem", vtable_slot(&AsyncSocket::GetModem), 10},
      {"RecoverBuffer", vtable_slot(&AsyncSocket::RecoverBuffer), 11},
      {"Service", vtable_slot(&AsyncSocket::Service), 12},
      {"Bind", vtable_slot(&AsyncSocket::Bind), 13},
      {"UnBind", vtable_slot(&AsyncSocket::UnBind), 14},
      {"Attach", vtable_slot(&AsyncSocket::Attach), 15},
      {"Detach", vtable_slot(&AsyncSocket::Detach), 16},
      {"GetNewSocket", vtable_slot(&AsyncSocket::GetNewSocket), 17},
      {"ProcessData", vtable_slot(&AsyncSocket::ProcessData), 18},
      {"Receive", vtable_slot(&AsyncSocket::Receive), 19},
      {"Poll", vtable_slot(&AsyncSocket::Poll), 20},
  });
}

TEST(SocketVirtualSlots, ThePacketSocketAddsOneOperationBehindTheSockets) {
  expect_slots({
      {"DataIndication", vtable_slot(&TPKTSocket::DataIndication), 3},
      {"DataExpeditedIndication", vtable_slot(&TPKTSocket::DataExpeditedIndication), 4},
      {"DatagramIndication", vtable_slot(&TPKTSocket::DatagramIndication), 5},
      {"GetNewSocket", vtable_slot(&TPKTSocket::GetNewSocket), 17},
      {"ProcessData", vtable_slot(&TPKTSocket::ProcessData), 18},
      {"Receive", vtable_slot(&TPKTSocket::Receive), 19},
      {"Poll", vtable_slot(&TPKTSocket::Poll), 20},
      {"TPKTReceive", vtable_slot(&TPKTSocket::TPKTReceive), 21},
  });
}

TEST(SocketVirtualSlots, TheLineSocketsOperationsStandBehindTheLayers) {
  using SendBuffer = OSIORetCode (LineSocket::*)(OSBuf*);
  using SendText = void (LineSocket::*)(char*);
  expect_slots({
      {"IsKey", vtable_slot(&LineSocket::IsKey), 2},
      {"DataIndication", vtable_slot(&LineSocket::DataIndication), 3},
      {"ConnectIndication", vtable_slot(&LineSocket::ConnectIndication), 6},
      {"DisconnectIndication", vtable_slot(&LineSocket::DisconnectIndication), 7},
      {"Detach", vtable_slot(&LineSocket::Detach), 16},
      {"Send of a buffer", vtable_slot(static_cast<SendBuffer>(&LineSocket::Send)), 17},
      {"Send of a text", vtable_slot(static_cast<SendText>(&LineSocket::Send)), 18},
      {"SendF", vtable_slot(&LineSocket::SendF), 19},
      {"Receive", vtable_slot(&LineSocket::Receive), 20},
  });
}

TEST(SocketVirtualSlots, WhatProgramsOnlyCallHasNoSlot) {
  using ConnectAddress = int (AsyncSocket::*)(ULONG, UWORD);
  using ConnectText = int (AsyncSocket::*)(const char*, UWORD);
  using CreateNew = int (AsyncSocket::*)(int, UWORD, ULONG, bool);
  using CreateAdopting = int (AsyncSocket::*)(int, int);
  using ConnectLine = void (LineSocket::*)(const char*, UWORD);
  expect_slots({
      {"Free", vtable_slot(&AsyncSocket::Free), -1},
      {"Close", vtable_slot(&AsyncSocket::Close), -1},
      {"Shutdown", vtable_slot(&AsyncSocket::Shutdown), -1},
      {"Listen", vtable_slot(&AsyncSocket::Listen), -1},
      {"Accept", vtable_slot(&AsyncSocket::Accept), -1},
      {"Connect to an address", vtable_slot(static_cast<ConnectAddress>(&AsyncSocket::Connect)), -1},
      {"Connect to a text", vtable_slot(static_cast<ConnectText>(&AsyncSocket::Connect)), -1},
      {"ConnectAck", vtable_slot(&AsyncSocket::ConnectAck), -1},
      {"Connected", vtable_slot(&AsyncSocket::Connected), -1},
      {"Create", vtable_slot(static_cast<CreateNew>(&AsyncSocket::Create)), -1},
      {"Create with a descriptor", vtable_slot(static_cast<CreateAdopting>(&AsyncSocket::Create)), -1},
      {"StartTask", vtable_slot(&AsyncSocket::StartTask), -1},
      {"AllocBuffer", vtable_slot(&AsyncSocket::AllocBuffer), -1},
      {"DNSResult", vtable_slot(&AsyncSocket::DNSResult), -1},
      {"ProcessTPKT", vtable_slot(&TPKTSocket::ProcessTPKT), -1},
      {"the line socket's Connect", vtable_slot(static_cast<ConnectLine>(&LineSocket::Connect)), -1},
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

TEST(SocketVirtualSlots, TheSocketsFieldsStandInTheirOrder) {
  expect_ascending({
      offset_of(&AsyncSocket::partner),
      offset_of(&AsyncSocket::s),
      offset_of(&AsyncSocket::rtps),
      offset_of(&AsyncSocket::indirect_socket),
      offset_of(&AsyncSocket::state),
      offset_of(&AsyncSocket::deleted),
      offset_of(&AsyncSocket::deletedAck),
      offset_of(&AsyncSocket::receive_started),
      offset_of(&AsyncSocket::big_buffers_allowed),
      offset_of(&AsyncSocket::type),
      offset_of(&AsyncSocket::listener),
      offset_of(&AsyncSocket::listenFn),
      offset_of(&AsyncSocket::listenObj),
      offset_of(&AsyncSocket::earlyData),
      offset_of(&AsyncSocket::listenq),
      offset_of(&AsyncSocket::listenqtrigger),
      offset_of(&AsyncSocket::q),
      offset_of(&AsyncSocket::qtrigger),
      offset_of(&AsyncSocket::thread),
      offset_of(&AsyncSocket::running),
      offset_of(&AsyncSocket::loc_sin),
      offset_of(&AsyncSocket::rem_sin),
      offset_of(&AsyncSocket::rem_sin_len),
      offset_of(&AsyncSocket::alloc_buf),
      offset_of(&AsyncSocket::local_cs),
      offset_of(&AsyncSocket::ring),
      offset_of(&AsyncSocket::oob_count),
      offset_of(&AsyncSocket::dont_read),
      offset_of(&AsyncSocket::startRetry),
      offset_of(&AsyncSocket::retryTimeout),
      offset_of(&AsyncSocket::dnsentry),
      offset_of(&AsyncSocket::secure),
      offset_of(&AsyncSocket::secure_state),
      offset_of(&AsyncSocket::ssl_info),
      offset_of(&AsyncSocket::cert),
      offset_of(&AsyncSocket::key),
      offset_of(&AsyncSocket::ca),
  });
}

TEST(SocketVirtualSlots, TheFieldsOfTheDerivedLayersStandInTheirOrder) {
  expect_ascending(
      {offset_of<TPKTSocket>(&TPKTSocket::tpktBuf), offset_of<TPKTSocket>(&TPKTSocket::lastBuf)});
  expect_ascending({
      offset_of(&LineSocket::socket),
      offset_of(&LineSocket::line),
      offset_of(&LineSocket::maxlinelen),
      offset_of(&LineSocket::linelen),
      offset_of(&LineSocket::done),
  });
  EXPECT_GE(offset_of<TPKTSocket>(&TPKTSocket::tpktBuf), static_cast<std::ptrdiff_t>(sizeof(AsyncSocket)) - 8)
      << "behind everything of the base";
}

TEST(SocketVirtualSlots, TheStatesHaveTheirValues) {
  static_assert(SSInitial == 0 && SSConnecting == 1 && SSConnected == 2 && SSDisconnected == 3);
  static_assert(SecClear == 0 && SecHandshake == 1 && SecSecure == 2);
  static_assert(McSendOnly == 1 && McReceiveOnly == 2 && McSendAndReceive == 3);
  static_assert(SOCK_STREAM == 1 && SOCK_DGRAM == 2, "what `type` holds");
}

}  // namespace
}  // namespace oskernel_test
