// Buffers that are longer than one record and wait in a session's queue, and reading without a session.

#include <gtest/gtest.h>

#include <list>
#include <string>

#include "support/tls_session.h"

using namespace oskernel_test;

namespace {

class TlsPieces : public QuietNetworkTest, public testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    initialise_tls();
    QuietNetworkTest::SetUp();
  }
};
INSTANTIATE_TEST_SUITE_P(, TlsPieces, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION),
                         [](const auto& kind) { return version_name(kind.param); });

TEST_P(TlsPieces, ALongBufferThatWaitsGoesOutWhole) {
  constexpr std::size_t kLong = 60000;  // four records
  TlsLink link(good_client(GetParam()));
  ASSERT_EQ(link.handshake(), 0);
  std::list<std::string> texts;  // the buffers lend their bytes
  std::string given;
  for (unsigned i = 0; link.session().sendq.Size() < 3 && i < 1000; ++i) {
    texts.push_back(numbered_bytes(kLong, i + 1));
    ASSERT_EQ(link.session().DataIndication(buffer_of(texts.back())), Success);
    given += texts.back();
  }
  ASSERT_EQ(link.session().sendq.Size(), 3);
  std::string got;
  EXPECT_TRUE(link.peer().wait(kPeerPatienceMs, [&] {
    link.session().SendQTrigger();
    got += link.peer().read_now();
    return got.size() >= given.size();
  }));
  EXPECT_TRUE(same_bytes(got, given));
  EXPECT_EQ(link.session().sendq.Size(), 0);
}

TEST_P(TlsPieces, ReadingBehindAHandshakeThatHasFailedIsAProtocolError) {
  TlsLink link(good_client(GetParam()));
  ASSERT_EQ(::send(link.peer().fd(), "GET / HTTP/1.0\r\n\r\n", 18, MSG_NOSIGNAL), 18);
  ASSERT_EQ(link.session().Handshake(), 1);
  OSBuf* buf = nullptr;
  EXPECT_EQ(link.session().Recv(&buf), SSL_ERROR_SSL);
  EXPECT_EQ(buf, nullptr);
}

}  // namespace
