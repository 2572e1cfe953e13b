// The socket address: byte orders, texts and names, printing, and what kind of address it is.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <new>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "kernel/kernel.h"
#include "network/asocket.h"
#include "support/fake_resolver.h"
#include "support/network_fixture.h"
#include "support/seed.h"
#include "support/watched_thread.h"

using namespace oskernel_test;

namespace {

static_assert(!std::is_polymorphic_v<SockAddr>);
static_assert(std::is_same_v<decltype(SockAddr::sin), sockaddr_in>);
static_assert(std::is_same_v<decltype(SockAddr::addr_str), char[32]>);
static_assert(std::is_same_v<decltype(SockAddr::privateAddress), ULONG>);
static_assert(std::is_same_v<decltype(SockAddr::privateMask), ULONG>);
static_assert(std::is_standard_layout_v<SockAddr>);
static_assert(offsetof(SockAddr, sin) == 0);
static_assert(offsetof(SockAddr, addr_str) == sizeof(sockaddr_in));
static_assert(sizeof(SockAddr) == sizeof(sockaddr_in) + 32);

constexpr ULONG ip(ULONG a, ULONG b, ULONG c, ULONG d) { return a << 24 | b << 16 | c << 8 | d; }

const ULONG kPrivateAddressAtFirst = SockAddr::privateAddress;
const ULONG kPrivateMaskAtFirst = SockAddr::privateMask;

// Before main, before any kernel: an address is a plain value.
const SockAddr kEarly("10.20.30.40", 5060);
const SockAddr kEarlyEmpty;

/// An address whose storage held other bytes before it was constructed.
template <class... Arguments>
class OnDirtyStorage {
 public:
  explicit OnDirtyStorage(Arguments... arguments) {
    std::memset(storage_, 0xEE, sizeof storage_);
    address_ = new (storage_) SockAddr(arguments...);
  }
  SockAddr* operator->() { return address_; }
  SockAddr& operator*() { return *address_; }

 private:
  alignas(SockAddr) unsigned char storage_[sizeof(SockAddr)];
  SockAddr* address_;
};

sockaddr_in raw(int family, UWORD port, ULONG addr, char zero) {
  sockaddr_in sin;
  std::memset(&sin, zero, sizeof sin);
  sin.sin_family = static_cast<sa_family_t>(family);
  sin.sin_port = htons(port);
  sin.sin_addr.s_addr = htonl(addr);
  return sin;
}

bool zeroed(const sockaddr_in& sin) {
  for (const unsigned char byte : sin.sin_zero) {
    if (byte != 0) return false;
  }
  return true;
}

// ---- Construction and copying ------------------------------------------------------------------------------------

TEST(SocketAddress, IsAllZeroesByDefault) {
  OnDirtyStorage<> address;
  EXPECT_EQ(address->sin.sin_family, AF_INET);
  EXPECT_EQ(address->sin.sin_family, 2);
  EXPECT_EQ(address->Address(), 0u);
  EXPECT_EQ(address->Port(), 0);
  EXPECT_TRUE(zeroed(address->sin));
  EXPECT_TRUE(address->IsBroadcast());
  EXPECT_STREQ(address->AddressStr(nullptr), "0.0.0.0");
}

TEST(SocketAddress, IsUsableBeforeMain) {
  EXPECT_EQ(kEarly.Address(), ip(10, 20, 30, 40));
  EXPECT_EQ(kEarly.Port(), 5060);
  EXPECT_EQ(kEarlyEmpty.Address(), 0u);
}

TEST(SocketAddress, StoresNumbersInNetworkOrder) {
  OnDirtyStorage<ULONG, UWORD> address(0x01020304, 0x1234);
  EXPECT_EQ(address->sin.sin_family, AF_INET);
  EXPECT_TRUE(zeroed(address->sin));
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&address->sin);
  const unsigned char expected[] = {0x12, 0x34, 1, 2, 3, 4};
  EXPECT_EQ(std::memcmp(bytes + 2, expected, sizeof expected), 0);
  EXPECT_EQ(address->Address(), 0x01020304u);
  EXPECT_EQ(address->AddressNet(), htonl(0x01020304));
  EXPECT_EQ(address->Port(), 0x1234);
  EXPECT_EQ(address->PortNet(), htons(0x1234));
}

TEST(SocketAddress, KeepsExtremeNumbers) {
  for (const ULONG addr : {0u, 1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    for (const UWORD port : {0, 1, 255, 256, 0x7FFF, 0x8000, 0xFFFF}) {
      const SockAddr address(addr, port);
      EXPECT_EQ(address.Address(), addr);
      EXPECT_EQ(address.Port(), port);
    }
  }
}

TEST(SocketAddress, CopiesSixteenBytesOfASockaddrWhateverTheyAre) {
  sockaddr_in sin = raw(AF_INET6, 4711, ip(1, 2, 3, 4), 0x55);
  OnDirtyStorage<sockaddr*> address(reinterpret_cast<sockaddr*>(&sin));
  EXPECT_EQ(std::memcmp(&address->sin, &sin, 16), 0);
  EXPECT_STREQ(address->addr_str, "");
  EXPECT_EQ(address->sin.sin_family, AF_INET6);

  SockAddr assigned(ip(9, 9, 9, 9), 9);
  SockAddr& result = assigned = reinterpret_cast<sockaddr*>(&sin);
  EXPECT_EQ(&result, &assigned);
  EXPECT_EQ(std::memcmp(&assigned.sin, &sin, 16), 0);
}

TEST(SocketAddress, AssignmentCopiesTheAddressButNotTheScratchText) {
  SockAddr from(ip(1, 2, 3, 4), 5);
  from.AddressStr(nullptr);
  std::memset(from.sin.sin_zero, 0x77, sizeof from.sin.sin_zero);
  SockAddr to(ip(9, 9, 9, 9), 9);
  to.AddressStr(nullptr);
  SockAddr& result = to = from;
  EXPECT_EQ(&result, &to);
  EXPECT_EQ(std::memcmp(&to.sin, &from.sin, 16), 0);
  EXPECT_STREQ(to.addr_str, "9.9.9.9");
}

TEST(SocketAddress, SurvivesAssignmentToItself) {
  SockAddr address(ip(1, 2, 3, 4), 5);
  SockAddr& same = address;
  address = same;
  EXPECT_EQ(address.Address(), ip(1, 2, 3, 4));
  address = static_cast<sockaddr*>(same);
  EXPECT_EQ(address.Address(), ip(1, 2, 3, 4));
  EXPECT_EQ(address.Port(), 5);
}

TEST(SocketAddress, IsPassedToTheSocketCallsAsItIs) {
  SockAddr address(ip(1, 2, 3, 4), 5);
  EXPECT_EQ(static_cast<void*>(static_cast<sockaddr*>(address)), &address.sin);
  EXPECT_EQ(static_cast<void*>(static_cast<sockaddr_in*>(address)), &address.sin);
}

// ---- Setting -----------------------------------------------------------------------------------------------------

TEST(SocketAddress, SetFromNumbersSetsFamilyAndPadding) {
  SockAddr address;
  address.sin = raw(AF_UNIX, 1, 1, 0x55);
  address.Set(ip(10, 1, 2, 3), 1234);
  EXPECT_EQ(address.sin.sin_family, AF_INET);
  EXPECT_TRUE(zeroed(address.sin));
  EXPECT_EQ(address.Address(), ip(10, 1, 2, 3));
  EXPECT_EQ(address.Port(), 1234);
}

TEST(SocketAddress, SetFromTextLeavesFamilyAndPadding) {
  SockAddr address;
  address.sin = raw(AF_UNIX, 1, 1, 0x55);
  address.Set("10.1.2.3", 1234);
  EXPECT_EQ(address.sin.sin_family, AF_UNIX);
  EXPECT_EQ(address.sin.sin_zero[7], 0x55);
  EXPECT_EQ(address.Address(), ip(10, 1, 2, 3));
  EXPECT_EQ(address.Port(), 1234);
}

TEST(SocketAddress, SetFromEmptyTextStillSetsThePort) {
  SockAddr address(ip(1, 2, 3, 4), 5);
  address.Set("", 6);
  EXPECT_EQ(address.Address(), ip(1, 2, 3, 4));
  EXPECT_EQ(address.Port(), 6);
}

TEST(SocketAddress, AddressAndPortAreSetIndependently) {
  SockAddr address(ip(1, 2, 3, 4), 5);
  address.SetAddress(ip(4, 3, 2, 1));
  EXPECT_EQ(address.Address(), ip(4, 3, 2, 1));
  EXPECT_EQ(address.Port(), 5);
  address.SPort(50000);
  EXPECT_EQ(address.Address(), ip(4, 3, 2, 1));
  EXPECT_EQ(address.Port(), 50000);
  EXPECT_EQ(address.PortNet(), htons(50000));
  address.SetAddress("5.6.7.8");
  EXPECT_EQ(address.Address(), ip(5, 6, 7, 8));
  EXPECT_EQ(address.Port(), 50000);
}

// ---- Comparing ---------------------------------------------------------------------------------------------------

TEST(SocketAddress, EqualityLooksAtAddressAndPortAlone) {
  const SockAddr address(ip(1, 2, 3, 4), 5);
  SockAddr other(ip(1, 2, 3, 4), 5);
  other.sin.sin_family = AF_UNIX;
  std::memset(other.sin.sin_zero, 0x55, sizeof other.sin.sin_zero);
  std::memset(other.addr_str, 'x', sizeof other.addr_str - 1);
  EXPECT_TRUE(address == other);
  EXPECT_FALSE(address != other);
  EXPECT_FALSE(address == SockAddr(ip(1, 2, 3, 4), 6));
  EXPECT_FALSE(address == SockAddr(ip(1, 2, 3, 5), 5));
  EXPECT_TRUE(address != SockAddr(ip(1, 2, 3, 5), 5));
}

// ---- Printing ----------------------------------------------------------------------------------------------------

struct TextRow {
  ULONG addr;
  const char* text;
};
constexpr TextRow kTexts[] = {
    {ip(0, 0, 0, 0), "0.0.0.0"},
    {ip(1, 2, 3, 4), "1.2.3.4"},
    {ip(127, 0, 0, 1), "127.0.0.1"},
    {ip(192, 168, 10, 200), "192.168.10.200"},
    {ip(255, 255, 255, 255), "255.255.255.255"},
};

TEST(SocketAddressText, StandsInTheObjectsOwnBuffer) {
  for (const TextRow& row : kTexts) {
    OnDirtyStorage<ULONG, UWORD> address(row.addr, 80);
    char* text = address->AddressStr(nullptr);
    EXPECT_EQ(text, address->addr_str);
    EXPECT_STREQ(text, row.text);
    EXPECT_EQ(address->addr_str[31], 0);
    std::memset(address->addr_str, 'x', sizeof address->addr_str);
    EXPECT_STREQ(address->AddressStr(nullptr), row.text);
    EXPECT_EQ(address->addr_str[31], 0) << "whatever stood there";
  }
}

TEST(SocketAddressText, OfTwoObjectsStandsInTwoBuffers) {
  SockAddr one(ip(1, 1, 1, 1), 1), two(ip(2, 2, 2, 2), 2);
  const char* first = one.AddressStr(nullptr);
  const char* second = two.AddressStr(nullptr);
  EXPECT_NE(first, second);
  EXPECT_STREQ(first, "1.1.1.1");
  EXPECT_STREQ(second, "2.2.2.2");
}

TEST(SocketAddressText, GoesWholeIntoACallersSixteenBytes) {
  for (const TextRow& row : kTexts) {
    SockAddr address(row.addr, 80);
    std::memset(address.addr_str, 'x', 31);
    char room[20];
    std::memset(room, '#', sizeof room);
    EXPECT_EQ(address.AddressStr(room), room);
    EXPECT_STREQ(room, row.text);
    EXPECT_EQ(std::string(room + 16, 4), "####");
    EXPECT_EQ(address.addr_str[0], 'x') << "the scratch text is for calls without a buffer";
  }
}

TEST(SocketAddressText, CanBeMadeBeforeTheNetworkingLayerRuns) {
  IN_FRESH_PROCESS({
    SockAddr address("10.0.0.1", 1);
    EXPECT_STREQ(address.AddressStr(nullptr), "10.0.0.1");
    char room[16];
    EXPECT_STREQ(address.AddressStr(room), "10.0.0.1");
    EXPECT_FALSE(AsyncSocket::AsyncInitDone) << "numbers need no network";
  });
}

class SocketAddressLock : public QuietNetworkTest {};

TEST_F(SocketAddressLock, IsTheSectionOfAllSockets) {
  AsyncSocket::Init();
  SockAddr address(ip(1, 2, 3, 4), 5);
  EnterCriticalSection(&AsyncSocket::cs);
  EXPECT_STREQ(address.AddressStr(nullptr), "1.2.3.4") << "the holder enters once more";
  char room[16] = "";
  {
    WatchedThread other([&] { address.AddressStr(room); });
    EXPECT_TRUE(other.blocked()) << "a text was made while another thread was in the section";
    EXPECT_STREQ(room, "");
    LeaveCriticalSection(&AsyncSocket::cs);
    EXPECT_TRUE(other.finished_within(kPatienceMs));
  }
  EXPECT_STREQ(room, "1.2.3.4");
}

TEST_F(SocketAddressLock, IsNotNeededOnceTheNetworkingLayerHasStopped) {
  AsyncSocket::Init();
  AsyncSocket::Cleanup();
  SockAddr address(ip(1, 2, 3, 4), 5);
  EXPECT_STREQ(address.AddressStr(nullptr), "1.2.3.4");
}

TEST_F(SocketAddressLock, IsTakenFromTheMomentTheLayerStarts) {
  for (int round = 0; round < 20; ++round) {
    std::atomic<bool> enough{false};
    {
      WatchedThread printer([&] {
        SockAddr address(ip(1, 2, 3, 4), 5);
        while (!enough) ASSERT_STREQ(address.AddressStr(nullptr), "1.2.3.4");
      });
      AsyncSocket::Init();
      enough = true;
    }
    AsyncSocket::Cleanup();
  }
}

TEST_F(SocketAddressLock, LetsManyThreadsPrintAtOnce) {
  AsyncSocket::Init();
  const auto print_own = [](unsigned n) {
    for (unsigned i = 0; i < 2000; ++i) {
      SockAddr address(ip(10, n, i >> 8, i & 0xFF), 1);
      const std::string expected =
          "10." + std::to_string(n) + "." + std::to_string(i >> 8) + "." + std::to_string(i & 0xFF);
      ASSERT_EQ(address.AddressStr(nullptr), expected);
    }
  };
  WatchedThread first([&] { print_own(1); });
  WatchedThread second([&] { print_own(2); });
  WatchedThread third([&] { print_own(3); });
}

// ---- Texts that are addresses ------------------------------------------------------------------------------------

struct DottedRow {
  const char* text;
  ULONG addr;
};
// What inet_addr takes for an address, short, octal and hexadecimal forms included.
constexpr DottedRow kDotted[] = {
    {"10.0.0.1", ip(10, 0, 0, 1)},
    {"0.0.0.0", 0},
    {"255.255.255.254", ip(255, 255, 255, 254)},
    {"224.1.2.3", ip(224, 1, 2, 3)},
    {"127.1", ip(127, 0, 0, 1)},
    {"10.1.2", ip(10, 1, 0, 2)},
    {"16909060", ip(1, 2, 3, 4)},
    {"0x7f000001", ip(127, 0, 0, 1)},
    {"0x0a.010.0.1", ip(10, 8, 0, 1)},
    {"10.0.0.1 ", ip(10, 0, 0, 1)},
};

/// Asks the cache only where a name is looked up: everything the resolver is asked is seen.
class SocketAddressName : public QuietNetworkTest {
 protected:
  void SetUp() override {
    FakeResolver::reset();
    QuietNetworkTest::SetUp();
  }
  void TearDown() override {
    FakeResolver::release();
    QuietNetworkTest::TearDown();
  }
  static bool resolved(std::size_t calls) {
    return FakeResolver::wait_for_calls(calls) && wait_until([] {
             EnterCriticalSection(&DNSEntry::cs);
             const bool done = DNSEntry::pending.Size() == 0;
             LeaveCriticalSection(&DNSEntry::cs);
             return done;
           });
  }
  using Names = std::vector<std::string>;
};

TEST_F(SocketAddressName, IsNotAskedForWhereTheTextIsAnAddress) {
  for (const DottedRow& row : kDotted) {
    SCOPED_TRACE(row.text);
    OnDirtyStorage<const char*, UWORD> address(row.text, 99);
    EXPECT_EQ(address->Address(), row.addr);
    EXPECT_EQ(address->Port(), 99);
    EXPECT_EQ(address->sin.sin_family, AF_INET);
    EXPECT_TRUE(zeroed(address->sin));
    SockAddr set(ip(9, 9, 9, 9), 7);
    set.SetAddress(row.text);
    EXPECT_EQ(set.Address(), row.addr);
    EXPECT_EQ(set.Port(), 7);
  }
  EXPECT_EQ(FakeResolver::calls(), Names{});
  EXPECT_FALSE(AsyncSocket::AsyncInitDone);
}

TEST_F(SocketAddressName, AnEmptyTextIsNoName) {
  for (const char* text : {"", static_cast<const char*>(nullptr)}) {
    OnDirtyStorage<const char*, UWORD> address(text, 99);
    EXPECT_EQ(address->Address(), 0u);
    EXPECT_EQ(address->Port(), 99);
    EXPECT_EQ(address->sin.sin_family, AF_INET);
    EXPECT_TRUE(zeroed(address->sin));
  }

  SockAddr set(ip(9, 9, 9, 9), 7);
  for (const char* text : {"", " ", " \t\r\n\v\f ", static_cast<const char*>(nullptr)}) {
    set.SetAddress(text);
    EXPECT_EQ(set.Address(), ip(9, 9, 9, 9)) << "nothing but white space leaves the address";
  }
  EXPECT_EQ(FakeResolver::calls(), Names{});
}

TEST_F(SocketAddressName, SetAddressSkipsWhiteSpaceInFront) {
  SockAddr address;
  for (const char* text : {" 10.0.0.1", "\t10.0.0.1", "\n\v\f\r 10.0.0.1", "          10.0.0.1"}) {
    address.SetAddress(ip(9, 9, 9, 9));
    address.SetAddress(text);
    EXPECT_EQ(address.Address(), ip(10, 0, 0, 1));
    address.SetAddress(ip(9, 9, 9, 9));
    address.Set(text, 1);
    EXPECT_EQ(address.Address(), ip(10, 0, 0, 1));
  }
  EXPECT_EQ(FakeResolver::calls(), Names{});

  FakeResolver::know("host", ip(7, 7, 7, 7));
  address.SetAddress(" \thost");
  ASSERT_TRUE(resolved(1));
  EXPECT_EQ(FakeResolver::calls(), Names{"host"});
}

TEST_F(SocketAddressName, TheConstructorTakesWhiteSpaceAsPartOfAName) {
  FakeResolver::know(" 10.0.0.1", ip(7, 7, 7, 7));
  const SockAddr address(" 10.0.0.1", 5);
  EXPECT_EQ(address.Address(), 0u);
  ASSERT_TRUE(resolved(1));
  EXPECT_EQ(FakeResolver::calls(), Names{" 10.0.0.1"});
  EXPECT_EQ(SockAddr(" 10.0.0.1", 5).Address(), ip(7, 7, 7, 7));
}

TEST_F(SocketAddressName, TheTextOfAllOnesIsLookedUpAsAName) {
  FakeResolver::know("255.255.255.255", ip(7, 7, 7, 7));
  const SockAddr address("255.255.255.255", 5);
  EXPECT_EQ(address.Address(), 0u);
  EXPECT_EQ(address.Port(), 5);
  ASSERT_TRUE(resolved(1));
  EXPECT_EQ(FakeResolver::calls(), Names{"255.255.255.255"});
  SockAddr set;
  set.SetAddress("255.255.255.255");
  EXPECT_EQ(set.Address(), ip(7, 7, 7, 7));
}

TEST_F(SocketAddressName, AnUnknownNameIsZeroAtOnceAndKnownLater) {
  FakeResolver::know("host.example", ip(10, 9, 8, 7));
  FakeResolver::hold();
  const SockAddr early("host.example", 80);  // would wait for ever if it waited for the resolver
  EXPECT_EQ(early.Address(), 0u);
  EXPECT_EQ(early.Port(), 80);
  SockAddr set(ip(9, 9, 9, 9), 7);
  set.SetAddress("host.example");
  EXPECT_EQ(set.Address(), 0u) << "the result of the look-up, whatever it is, becomes the address";
  EXPECT_EQ(set.Port(), 7);
  ASSERT_TRUE(FakeResolver::wait_for_calls(1));
  FakeResolver::release();
  ASSERT_TRUE(resolved(1));
  EXPECT_EQ(SockAddr("host.example", 80).Address(), ip(10, 9, 8, 7));
  set.Set("host.example", 81);
  EXPECT_EQ(set.Address(), ip(10, 9, 8, 7));
  EXPECT_EQ(set.Port(), 81);
  EXPECT_EQ(early.Address(), 0u) << "addresses that were made before are not told";
  EXPECT_EQ(FakeResolver::calls(), Names{"host.example"});
}

TEST_F(SocketAddressName, AnUnresolvableNameStaysZeroAndIsAskedForAgain) {
  EXPECT_EQ(SockAddr("nobody", 80).Address(), 0u);
  ASSERT_TRUE(resolved(1));
  os_check_triggers();
  EXPECT_EQ(SockAddr("nobody", 80).Address(), 0u);
  ASSERT_TRUE(resolved(2));
  os_check_triggers();
  EXPECT_EQ(FakeResolver::calls(), (Names{"nobody", "nobody"}));
}

TEST_F(SocketAddressName, TextsThatAreNoAddressesAreNames) {
  const Names names = {"1.2.3.4.5", "256.1.1.1", "1.2.3.x", "host", ".", "\xA0\xFF"};
  for (const std::string& name : names) {
    SockAddr address(ip(9, 9, 9, 9), 7);
    address.SetAddress(name.c_str());
    EXPECT_EQ(address.Address(), 0u) << name;
  }
  ASSERT_TRUE(resolved(names.size()));
  EXPECT_EQ(FakeResolver::calls(), names);
}

TEST_F(SocketAddressName, IsLookedUpBeforeTheFirstSocketExists) {
  IN_FRESH_PROCESS({
    FakeResolver::know("host", ip(10, 9, 8, 7));
    EXPECT_EQ(SockAddr("host", 1).Address(), 0u);
    EXPECT_TRUE(wait_until([] { return SockAddr("host", 1).Address() == ip(10, 9, 8, 7); }));
    AsyncSocket::Cleanup();
  });
}

TEST_F(SocketAddressName, IsLookedUpAfterTheNetworkingLayerHasStopped) {
  FakeResolver::know("host", ip(10, 9, 8, 7));
  AsyncSocket::Init();
  AsyncSocket::Cleanup();
  EXPECT_EQ(SockAddr("host", 1).Address(), 0u);
  EXPECT_TRUE(wait_until([] { return SockAddr("host", 1).Address() == ip(10, 9, 8, 7); }));
}

// ---- What kind of address it is ----------------------------------------------------------------------------------

class SocketAddressKind : public ::testing::Test {
 protected:
  void SetUp() override { SockAddr::SetPrivateNetwork(0, 0); }
  void TearDown() override { SockAddr::SetPrivateNetwork(0, 0); }
};

struct KindRow {
  ULONG addr;
  bool multicast, broadcast, is_private;
};
constexpr KindRow kKinds[] = {
    {ip(0, 0, 0, 0), false, true, false},          {ip(0, 0, 0, 1), false, false, false},
    {ip(0, 255, 255, 255), false, true, false},    {ip(1, 2, 3, 4), false, false, false},
    {ip(9, 255, 255, 255), false, true, false},    {ip(10, 0, 0, 0), false, false, true},
    {ip(10, 1, 255, 255), false, false, true},     {ip(10, 255, 255, 254), false, false, true},
    {ip(10, 255, 255, 255), false, true, true},    {ip(11, 0, 0, 0), false, false, false},
    {ip(127, 0, 0, 1), false, false, false},       {ip(127, 255, 255, 255), false, true, false},
    {ip(128, 0, 0, 0), false, false, false},       {ip(128, 0, 255, 255), false, true, false},
    {ip(169, 254, 1, 1), false, false, false},     {ip(172, 15, 255, 255), false, true, false},
    {ip(172, 16, 0, 0), false, false, true},       {ip(172, 16, 255, 255), false, true, true},
    {ip(172, 16, 1, 255), false, false, true},     {ip(172, 31, 255, 254), false, false, true},
    {ip(172, 32, 0, 0), false, false, false},      {ip(191, 255, 255, 255), false, true, false},
    {ip(192, 0, 0, 255), false, true, false},      {ip(192, 167, 255, 254), false, false, false},
    {ip(192, 168, 0, 0), false, false, true},      {ip(192, 168, 1, 254), false, false, true},
    {ip(192, 168, 1, 255), false, true, true},     {ip(192, 169, 0, 0), false, false, false},
    {ip(223, 255, 255, 255), false, true, false},  {ip(223, 255, 255, 254), false, false, false},
    {ip(224, 0, 0, 0), true, false, false},        {ip(224, 255, 255, 255), true, false, false},
    {ip(239, 255, 255, 255), true, false, false},  {ip(240, 0, 0, 0), false, false, false},
    {ip(255, 255, 255, 254), false, false, false}, {ip(255, 255, 255, 0), false, false, false},
    {ip(255, 255, 255, 255), false, true, false},
};

TEST_F(SocketAddressKind, FollowsTheOldAddressClasses) {
  for (const KindRow& row : kKinds) {
    SockAddr address(row.addr, 1);
    SCOPED_TRACE(address.AddressStr(nullptr));
    EXPECT_EQ(address.IsMulticast(), row.multicast);
    EXPECT_EQ(address.IsBroadcast(), row.broadcast);
    EXPECT_EQ(address.IsPrivate(), row.is_private);
    EXPECT_EQ(address.IsPublic(), !row.is_private);
  }
}

TEST_F(SocketAddressKind, KnowsNoPrivateNetworkOfTheSiteAtFirst) {
  EXPECT_EQ(kPrivateAddressAtFirst, 0u);
  EXPECT_EQ(kPrivateMaskAtFirst, 0u);
}

TEST_F(SocketAddressKind, TheSitesPrivateNetworkCountsAlone) {
  SockAddr::SetPrivateNetwork(ip(192, 168, 10, 0), ip(255, 255, 255, 0));
  EXPECT_EQ(SockAddr::privateAddress, ip(192, 168, 10, 0));
  EXPECT_EQ(SockAddr::privateMask, ip(255, 255, 255, 0));
  EXPECT_TRUE(SockAddr(ip(192, 168, 10, 7), 0).IsPrivate());
  EXPECT_FALSE(SockAddr(ip(192, 168, 10, 7), 0).IsPublic());
  for (const ULONG outside : {ip(192, 168, 11, 1), ip(10, 0, 0, 1), ip(172, 16, 0, 1), ip(8, 8, 8, 8)}) {
    EXPECT_FALSE(SockAddr(outside, 0).IsPrivate()) << outside;
    EXPECT_TRUE(SockAddr(outside, 0).IsPublic()) << outside;
  }
}

TEST_F(SocketAddressKind, HalfAPrivateNetworkIsNone) {
  const ULONG halves[][2] = {{ip(192, 168, 10, 0), 0}, {0, ip(255, 255, 255, 0)}, {0, 0}};
  for (const auto& half : halves) {
    SockAddr::SetPrivateNetwork(half[0], half[1]);
    EXPECT_TRUE(SockAddr(ip(192, 168, 11, 1), 0).IsPrivate());
    EXPECT_TRUE(SockAddr(ip(172, 20, 0, 1), 0).IsPrivate());
    EXPECT_TRUE(SockAddr(ip(10, 0, 0, 1), 0).IsPrivate());
    EXPECT_TRUE(SockAddr(ip(8, 8, 8, 8), 0).IsPublic());
    EXPECT_TRUE(SockAddr(ip(0, 0, 0, 1), 0).IsPublic());
  }
}

TEST_F(SocketAddressKind, ANetworkWithBitsOutsideItsMaskHoldsNobody) {
  SockAddr::SetPrivateNetwork(ip(192, 168, 10, 1), ip(255, 255, 255, 0));
  EXPECT_FALSE(SockAddr(ip(192, 168, 10, 1), 0).IsPrivate());
  EXPECT_FALSE(SockAddr(ip(192, 168, 10, 0), 0).IsPrivate());
}

TEST_F(SocketAddressKind, PublicIsAlwaysTheOppositeOfPrivate) {
  std::mt19937 random(test_seed());
  for (int i = 0; i < 20000; ++i) {
    if (i % 100 == 0) SockAddr::SetPrivateNetwork(pick(random, 0, 1) == 0 ? 0 : random(), random() << 12);
    const ULONG addr = random();
    const SockAddr address(addr, 1);
    const bool site = SockAddr::privateAddress != 0 && SockAddr::privateMask != 0;
    const bool built_in = addr >> 24 == 10 || addr >> 20 == 0xAC1 || addr >> 16 == 0xC0A8;
    const bool expected = site ? (addr & SockAddr::privateMask) == SockAddr::privateAddress : built_in;
    ASSERT_EQ(address.IsPrivate(), expected) << addr;
    ASSERT_EQ(address.IsPublic(), !expected) << addr;
  }
}

}  // namespace
