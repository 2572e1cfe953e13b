// Which record DnsLookup::GetAddress picks.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/dns_lookup_fixture.h"

using namespace oskernel_test;

namespace {

constexpr ULONG kAddr = ip(10, 1, 1, 1);
constexpr ULONG kOther = ip(10, 2, 2, 2);

class DnsAddress : public QuietLookups {
 protected:
  void SetUp() override {
    QuietLookups::SetUp();
    server_ = std::make_unique<NameServer>();
    lookup_ = ask(asker_, "host.test");
  }
  void TearDown() override {
    lookup_.reset();
    server_.reset();
    QuietLookups::TearDown();
  }
  /// The answer comes, and its address is asked for.
  DnsResource* address_in(const DnsWire& wire) {
    EXPECT_EQ(lookup_->DatagramIndication(dns_buffer(wire.bytes()), nullptr, nullptr), Success);
    return lookup_->GetAddress();
  }
  DnsResource* answer(std::size_t index) { return listed<DnsResource>(lookup_->response->answers).at(index); }

  std::unique_ptr<NameServer> server_;
  OwnedLookup lookup_;
};

std::string host() { return dns_name("host.test"); }
std::string gateway() { return dns_name("gw.test"); }

/// A record as it could stand in a message, with fields that no wire carries together.
DnsResource* record(const char* name, ULONG addr, const char* target = "") {
  auto* made = new DnsResource;
  std::strcpy(made->name, name);
  std::strcpy(made->target, target);
  made->addr = addr;
  return made;
}

// ---- No record ---------------------------------------------------------------------------------------------------

TEST_F(DnsAddress, ThereIsNoneBeforeAnAnswer) { EXPECT_EQ(lookup_->GetAddress(), nullptr); }

TEST_F(DnsAddress, ThereIsNoneWithoutAnswers) {
  EXPECT_EQ(address_in(DnsWire()), nullptr);
  EXPECT_EQ(address_in(DnsWire(1, 0x8183).question(host(), T_A)), nullptr);
  EXPECT_EQ(address_in(DnsWire()
                           .question(host(), T_A)
                           .authority(dns_name("test"), T_NS, 1, dns_name("ns.test"))
                           .additional(host(), T_A, 1, rdata_a(kAddr))),
            nullptr)
      << "the other sections are not looked at";
}

TEST_F(DnsAddress, ThereIsNoneWhenNoRecordHasAnAddressOrATarget) {
  EXPECT_EQ(address_in(DnsWire().answer(host(), T_CNAME, 1, gateway())), nullptr);
  EXPECT_EQ(address_in(DnsWire()
                           .answer(host(), T_TXT, 1, rdata_txt("text"))
                           .answer(host(), T_CNAME, 1, gateway())
                           .answer(host(), 28, 1, std::string(16, '\1'))
                           .additional(gateway(), T_A, 1, rdata_a(kAddr))),
            nullptr);
  EXPECT_EQ(address_in(DnsWire().answer(host(), T_A, 1, rdata_a(0))), nullptr) << "0.0.0.0 is none";
}

TEST_F(DnsAddress, ARecordWhoseTargetIsTheRootHasNone) {
  EXPECT_EQ(address_in(DnsWire().answer(host(), T_SRV, 1, rdata_srv(0, 0, 0, dns_name(".")))), nullptr);
  DnsResource* found = address_in(DnsWire()
                                      .answer(host(), T_SRV, 1, rdata_srv(0, 0, 0, dns_name(".")))
                                      .answer(host(), T_A, 1, rdata_a(kAddr)));
  EXPECT_EQ(found, answer(1));
}

// ---- Addresses ---------------------------------------------------------------------------------------------------

TEST_F(DnsAddress, TheFirstAddressIsTaken) {
  DnsResource* found = address_in(DnsWire().question(host(), T_A).answer(host(), T_A, 300, rdata_a(kAddr)));
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found, answer(0)) << "the record in the answer, not a copy";
  EXPECT_EQ(found->addr, kAddr);
  EXPECT_EQ(found->ttl, 300);

  found =
      address_in(DnsWire().answer(host(), T_A, 1, rdata_a(kOther)).answer(host(), T_A, 1, rdata_a(kAddr)));
  EXPECT_EQ(found, answer(0));
  EXPECT_EQ(lookup_->GetAddress(), found) << "asking again changes nothing";
}

TEST_F(DnsAddress, AliasesInFrontArePassedOver) {
  DnsResource* found = address_in(DnsWire()
                                      .question(host(), T_A)
                                      .answer(host(), T_CNAME, 1, dns_name("alias.test"))
                                      .answer(dns_name("alias.test"), T_A, 1, rdata_a(kAddr)));
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found, answer(1));
  EXPECT_STREQ(found->name, "alias.test");
  EXPECT_EQ(found->addr, kAddr);

  found = address_in(DnsWire()
                         .answer(host(), T_CNAME, 1, dns_name("one.test"))
                         .answer(dns_name("one.test"), T_CNAME, 1, dns_name("two.test"))
                         .answer(dns_name("two.test"), T_TXT, 1, rdata_txt("text"))
                         .answer(dns_name("two.test"), T_A, 1, rdata_a(0))
                         .answer(dns_name("two.test"), T_A, 1, rdata_a(kAddr))
                         .answer(dns_name("two.test"), T_A, 1, rdata_a(kOther)));
  EXPECT_EQ(found, answer(4));
}

TEST_F(DnsAddress, TheRecordsNameDoesNotMatter) {
  DnsResource* found = address_in(DnsWire().answer(dns_name("other.test"), T_A, 1, rdata_a(kAddr)));
  ASSERT_NE(found, nullptr);
  EXPECT_STREQ(found->name, "other.test");
}

TEST_F(DnsAddress, AnAddressInFrontOfATargetIsTaken) {
  const DnsResource* found = address_in(DnsWire()
                                            .answer(host(), T_A, 1, rdata_a(kAddr))
                                            .answer(host(), T_SRV, 1, rdata_srv(1, 2, 3, gateway()))
                                            .additional(gateway(), T_A, 1, rdata_a(kOther)));
  EXPECT_EQ(found, answer(0));
  EXPECT_EQ(answer(1)->addr, 0u) << "the walk did not come to it";
}

// ---- Targets -----------------------------------------------------------------------------------------------------

TEST_F(DnsAddress, AServiceGetsTheAddressOfItsTarget) {
  const DnsResource* found =
      address_in(DnsWire()
                     .question(dns_name("_sip._udp.test"), T_SRV)
                     .answer(dns_pointer(12), T_SRV, 60, rdata_srv(10, 20, 5060, gateway()))
                     .additional(gateway(), T_A, 60, rdata_a(kAddr)));
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found, answer(0));
  EXPECT_EQ(found->type, T_SRV);
  EXPECT_EQ(found->priority, 10);
  EXPECT_EQ(found->weight, 20);
  EXPECT_EQ(found->port, 5060);
  EXPECT_STREQ(found->target, "gw.test");
  EXPECT_EQ(found->addr, kAddr);
}

TEST_F(DnsAddress, AServiceWithoutAnAddressIsReturnedWithoutOne) {
  const DnsResource* found =
      address_in(DnsWire().answer(host(), T_SRV, 60, rdata_srv(10, 20, 5060, gateway())));
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->port, 5060);
  EXPECT_EQ(found->addr, 0u);
}

TEST_F(DnsAddress, EveryKindOfTargetStopsTheWalk) {
  const struct {
    unsigned type;
    std::string rdata;
  } rows[] = {
      {T_NS, gateway()},
      {T_MX, rdata_mx(10, gateway())},
      {T_SRV, rdata_srv(1, 2, 3, gateway())},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.type);
    const DnsResource* found = address_in(DnsWire()
                                              .answer(host(), T_CNAME, 1, dns_name("alias.test"))
                                              .answer(host(), row.type, 1, row.rdata)
                                              .answer(host(), T_A, 1, rdata_a(kOther)));
    EXPECT_EQ(found, answer(1)) << "although an address comes behind it";
    EXPECT_EQ(found->addr, 0u);

    found = address_in(DnsWire()
                           .answer(host(), row.type, 1, row.rdata)
                           .answer(host(), T_SRV, 1, rdata_srv(1, 2, 3, dns_name("second.test")))
                           .answer(gateway(), T_A, 1, rdata_a(kOther))
                           .authority(gateway(), T_A, 1, rdata_a(kOther))
                           .additional(dns_name("second.test"), T_A, 1, rdata_a(kOther))
                           .additional(gateway(), T_A, 1, rdata_a(kAddr)));
    EXPECT_EQ(found, answer(0));
    EXPECT_EQ(found->addr, kAddr) << "of the additional section";
    EXPECT_EQ(answer(1)->addr, 0u);
  }
}

TEST_F(DnsAddress, TheFirstAdditionalRecordOfThatNameWithAnAddressIsTaken) {
  const auto service = [] { return DnsWire().answer(host(), T_SRV, 1, rdata_srv(1, 2, 3, gateway())); };
  const struct {
    const char* what;
    DnsWire wire;
    ULONG addr;
  } rows[] = {
      {"two addresses",
       service().additional(gateway(), T_A, 1, rdata_a(kAddr)).additional(gateway(), T_A, 1, rdata_a(kOther)),
       kAddr},
      {"another name first",
       service()
           .additional(dns_name("other.test"), T_A, 1, rdata_a(kOther))
           .additional(gateway(), T_A, 1, rdata_a(kAddr)),
       kAddr},
      {"another type first",
       service()
           .additional(gateway(), 28, 1, std::string(16, '\1'))
           .additional(gateway(), T_CNAME, 1, host())
           .additional(gateway(), T_A, 1, rdata_a(kAddr)),
       kAddr},
      {"0.0.0.0 first",
       service().additional(gateway(), T_A, 1, rdata_a(0)).additional(gateway(), T_A, 1, rdata_a(kAddr)),
       kAddr},
      {"0.0.0.0 alone", service().additional(gateway(), T_A, 1, rdata_a(0)), 0},
      {"a part of the name", service().additional(dns_name("gw"), T_A, 1, rdata_a(kOther)), 0},
      {"a longer name", service().additional(dns_name("gw.test.test"), T_A, 1, rdata_a(kOther)), 0},
      {"another spelling", service().additional(dns_name("GW.test"), T_A, 1, rdata_a(kOther)), 0},
      {"another spelling first",
       service()
           .additional(dns_name("gw.Test"), T_A, 1, rdata_a(kOther))
           .additional(gateway(), T_A, 1, rdata_a(kAddr)),
       kAddr},
      {"another class", service().put(3, dns_record(gateway(), T_A, 1, rdata_a(kAddr), 3)), kAddr},
      {"the root", service().additional(dns_name("."), T_A, 1, rdata_a(kOther)), 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const DnsResource* found = address_in(row.wire);
    ASSERT_EQ(found, answer(0));
    EXPECT_EQ(found->addr, row.addr);
    for (const DnsResource* glue : listed<DnsResource>(lookup_->response->additionals)) {
      EXPECT_STREQ(glue->target, "");
    }
  }
}

TEST_F(DnsAddress, AskingAgainGivesTheSameRecord) {
  DnsResource* const found = address_in(DnsWire()
                                            .answer(host(), T_SRV, 1, rdata_srv(1, 2, 3, gateway()))
                                            .additional(gateway(), T_A, 1, rdata_a(kAddr)));
  listed<DnsResource>(lookup_->response->additionals).at(0)->addr = kOther;
  EXPECT_EQ(lookup_->GetAddress(), found);
  EXPECT_EQ(found->addr, kAddr) << "one that is there already is kept";
}

TEST_F(DnsAddress, WhereTheWalkStopsAnAddressThatIsThereIsKept) {
  lookup_->response = new DnsMessage;
  DnsResource* const first = record("host.test", 0);
  DnsResource* const stop = record("host.test", kAddr, "gw.test");
  lookup_->response->answers.Append(first);
  lookup_->response->answers.Append(stop);
  lookup_->response->additionals.Append(record("gw.test", kOther));
  EXPECT_EQ(lookup_->GetAddress(), stop);
  EXPECT_EQ(stop->addr, kAddr);
}

TEST_F(DnsAddress, AnAdditionalRecordWithATargetOfItsOwnWillDo) {
  lookup_->response = new DnsMessage;
  DnsResource* const stop = record("host.test", 0, "gw.test");
  lookup_->response->answers.Append(stop);
  lookup_->response->additionals.Append(record("gw.test", kAddr, "other.test"));
  EXPECT_EQ(lookup_->GetAddress(), stop);
  EXPECT_EQ(stop->addr, kAddr);
}

TEST_F(DnsAddress, TheHeadersCountsAreNotLookedAt) {
  const DnsResource* found =
      address_in(DnsWire().answer(host(), T_A, 1, rdata_a(kAddr)).counts(0, 65535, 0, 0));
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->addr, kAddr);
  lookup_->response->ancount = 0;
  EXPECT_EQ(lookup_->GetAddress(), found);
}

TEST_F(DnsAddress, TheLastAnswerCounts) {
  ASSERT_NE(address_in(DnsWire().answer(host(), T_A, 1, rdata_a(kAddr))), nullptr);
  EXPECT_EQ(address_in(DnsWire(1, 0x8183)), nullptr);
  EXPECT_EQ(address_in(DnsWire().answer(host(), T_A, 1, rdata_a(kOther)))->addr, kOther);
}

}  // namespace
