/// What the tests of DNS messages share: a kernel without sockets that sees every buffer and every link home, and
/// messages decoded in one call.
#ifndef OSKERNEL_TESTS_DNS_FIXTURE_H
#define OSKERNEL_TESTS_DNS_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "dns_messages.h"
#include "kernel_fixture.h"
#include "ring_check.h"

namespace oskernel_test {

/// The networking layer is never started: decoding and printing do without it.
class DnsTest : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
    links_ = links_free();
  }
  void TearDown() override {
    EXPECT_EQ(OSBuf::allocated_list->Size(), 0) << "every buffer goes home";
    // The pool grows by whole blocks, which stay.
    EXPECT_EQ((links_free() - links_) % static_cast<ULONG>(cfg.link_qty), 0U) << "every link goes home";
    EXPECT_TRUE(LinkPoolIsSound());
    KernelTest::TearDown();
  }

  static ULONG links_free() { return OSLink::link_pool_size; }

  /// Decodes bytes that end where their storage ends.
  static void decode(DnsMessage* message, const std::string& bytes) {
    const ExactBuffer buf(bytes);
    UBYTE* const data = buf.get()->data;
    EXPECT_EQ(message->Decode(buf.get()), 0);
    // Lent only: nothing has been pulled, changed or freed.
    EXPECT_EQ(buf.get()->data, data);
    EXPECT_EQ(buf.get()->length, bytes.size());
    EXPECT_EQ(std::string(data, data + bytes.size()), bytes);
  }

 private:
  ULONG links_ = 0;
};

/// A message's header as it stands in the object.
inline std::vector<int> header_of(const DnsMessage& message) {
  return {message.id, message.opts, message.qdcount, message.ancount, message.nscount, message.arcount};
}

inline UBYTE* bytes_in(std::string& wire) { return reinterpret_cast<UBYTE*>(wire.data()); }

}  // namespace oskernel_test

#endif
