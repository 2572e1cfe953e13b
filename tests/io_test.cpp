// The interface of stacked layers: what a layer does that overrides nothing, how layers find and lose each
// other, and the null layer that takes the place of a missing partner.

#include <unistd.h>
#include <algorithm>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kernel/buffer.h"
#include "kernel/io.h"
#include "support/kernel_fixture.h"
#include "support/vtable_slot.h"

namespace oskernel_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Static layers, one made before any other object of the program and destroyed after it, one the other way round.
/// Each needs the null layer all its life.
class StaticLayer : public OSIO {
 public:
  ~StaticLayer() override {
    if (partner != &OSNullIO || OSNullIO.ConnectIndication(nullptr) != NotSupported) _exit(99);
    if (OSNullIO.Partner() != &OSNullIO) _exit(98);
  }
  const bool unbound_at_first = partner == &OSNullIO && OSNullIO.Partner() == &OSNullIO && IsBound() == FALSE;
};
StaticLayer early_layer __attribute__((init_priority(101)));
StaticLayer late_layer;

class Layer : public KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    StartQuiet();
  }
  void TearDown() override {
    EXPECT_EQ(OSBuf::allocated_list->Size(), 0);
    EXPECT_EQ(OSNullIO.partner, &OSNullIO);
    KernelTest::TearDown();
  }
};

/// Writes down what it is asked to do and does what a layer does by default.
class Talker : public OSIO {
 public:
  explicit Talker(std::vector<std::string>* calls, std::string name = "")
      : calls_(calls), name_(std::move(name)) {}
  OSIORetCode DataIndication(OSBuf* buf) override {
    calls_->push_back(name_ + "Data " + std::string(reinterpret_cast<char*>(buf->data), buf->length));
    buf->Free();
    return answer;
  }
  void Bind(OSIO* other) override {
    calls_->push_back(name_ + "Bind");
    OSIO::Bind(other);
  }
  void UnBind() override {
    calls_->push_back(name_ + "UnBind");
    OSIO::UnBind();
  }
  void Attach(OSIO* other) override {
    calls_->push_back(name_ + "Attach");
    OSIO::Attach(other);
  }
  void Detach() override {
    calls_->push_back(name_ + "Detach");
    OSIO::Detach();
  }
  OSIORetCode answer = Success;

 private:
  std::vector<std::string>* calls_;
  std::string name_;
};

TEST_F(Layer, TheCodesHaveTheirValues) {
  static_assert(Success == 0 && Blocked == 1 && NoConnection == 2 && NoRoute == 3 && NotSupported == 4 &&
                BufferContainsResult == 5);
  static_assert(Busy == 0 && Congestion == 1 && UnReachable == 2 && Timeout == 3 && Failed == 4 &&
                Normal == 5 && Gone == 6);
  static_assert(DTR == 1 && RTS == 2 && DRS == 4 && RI == 8 && DSR == 16 && DCD == 32 && CTS == 64 &&
                BO == 128);
  static_assert(std::is_same_v<decltype(Success), OSIORetCode> &&
                std::is_same_v<decltype(Gone), OSIOReason> && std::is_same_v<decltype(BO), OSIOModem>);
}

TEST_F(Layer, VirtualOperationsStandInTheirSlots) {
  EXPECT_EQ(vtable_slot(&OSIO::IsKey), 2);
  EXPECT_EQ(vtable_slot(&OSIO::DataIndication), 3);
  EXPECT_EQ(vtable_slot(&OSIO::DataExpeditedIndication), 4);
  EXPECT_EQ(vtable_slot(&OSIO::DatagramIndication), 5);
  EXPECT_EQ(vtable_slot(&OSIO::ConnectIndication), 6);
  EXPECT_EQ(vtable_slot(&OSIO::DisconnectIndication), 7);
  EXPECT_EQ(vtable_slot(&OSIO::Configure), 8);
  EXPECT_EQ(vtable_slot(&OSIO::SetModem), 9);
  EXPECT_EQ(vtable_slot(&OSIO::GetModem), 10);
  EXPECT_EQ(vtable_slot(&OSIO::RecoverBuffer), 11);
  EXPECT_EQ(vtable_slot(&OSIO::Service), 12);
  EXPECT_EQ(vtable_slot(&OSIO::Bind), 13);
  EXPECT_EQ(vtable_slot(&OSIO::UnBind), 14);
  EXPECT_EQ(vtable_slot(&OSIO::Attach), 15);
  EXPECT_EQ(vtable_slot(&OSIO::Detach), 16);
  EXPECT_EQ(vtable_slot(&OSIO::Partner), -1);
  EXPECT_EQ(vtable_slot(&OSIO::IsBound), -1);
  EXPECT_EQ(vtable_slot(&OSIOParam::Type), 0) << "before the destructor";
}

// -------------------------------------------------------------------------------------------- the defaults

TEST_F(Layer, ALayerThatOverridesNothingDeclinesEverything) {
  OSIO layer;
  OSIOAddress address("x");
  struct Row {
    const char* name;
    std::function<OSIORetCode()> call;
  };
  OSIOModem modem = BO;
  OSBuf* recovered = OSBuf::Alloc(0);
  OSBuf* const to_free = recovered;
  int somewhere = 0;
  const Row rows[] = {
      {"DataIndication", [&] { return layer.DataIndication(OSBuf::Alloc("data")); }},
      {"DataExpeditedIndication", [&] { return layer.DataExpeditedIndication(OSBuf::Alloc("data")); }},
      {"DatagramIndication",
       [&] { return layer.DatagramIndication(OSBuf::Alloc("data"), &somewhere, &somewhere); }},
      {"DatagramIndication without addresses",
       [&] { return layer.DatagramIndication(OSBuf::Alloc("data"), nullptr, nullptr); }},
      {"ConnectIndication", [&] { return layer.ConnectIndication(&address); }},
      {"ConnectIndication without address", [&] { return layer.ConnectIndication(nullptr); }},
      {"DisconnectIndication", [&] { return layer.DisconnectIndication(Normal, 0); }},
      {"Configure", [&] { return layer.Configure(&address); }},
      {"Configure without parameter", [&] { return layer.Configure(nullptr); }},
      {"SetModem", [&] { return layer.SetModem(DTR); }},
      {"GetModem", [&] { return layer.GetModem(modem); }},
      {"RecoverBuffer", [&] { return layer.RecoverBuffer(&recovered); }},
      {"Service", [&] { return layer.Service(&address); }},
      {"Service without parameter", [&] { return layer.Service(nullptr); }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.call(), NotSupported);
    EXPECT_EQ(OSBuf::allocated_list->Size(), 1) << "a buffer that came with the call is freed";
    EXPECT_EQ(layer.partner, &OSNullIO);
  }
  EXPECT_EQ(modem, 115);
  EXPECT_EQ(modem, DTR | RTS | DSR | DCD | CTS);
  EXPECT_EQ(recovered, nullptr);
  to_free->Free();
  EXPECT_THAT(console.calls(), IsEmpty());
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(Layer, NoBufferIsNoTrouble) {
  OSIO layer;
  EXPECT_EQ(layer.DataIndication(nullptr), NotSupported);
  EXPECT_EQ(layer.DataExpeditedIndication(nullptr), NotSupported);
  EXPECT_EQ(layer.DatagramIndication(nullptr, nullptr, nullptr), NotSupported);
  EXPECT_EQ(layer.RecoverBuffer(nullptr), NotSupported);
  EXPECT_THAT(console.calls(), IsEmpty());
  EXPECT_THAT(console.fatals(), IsEmpty());
}

TEST_F(Layer, TheNullLayerDeclinesEverythingAndFreesWhatItGets) {
  EXPECT_EQ(OSNullIO.DataIndication(OSBuf::Alloc("lost")), NotSupported);
  EXPECT_EQ(OSNullIO.DataExpeditedIndication(OSBuf::Alloc("lost")), NotSupported);
  EXPECT_EQ(OSNullIO.DatagramIndication(OSBuf::Alloc("lost"), nullptr, nullptr), NotSupported);
  EXPECT_EQ(OSNullIO.ConnectIndication(nullptr), NotSupported);
  EXPECT_EQ(OSNullIO.DisconnectIndication(Gone, 1), NotSupported);
  EXPECT_EQ(OSBuf::allocated_list->Size(), 0);
  EXPECT_EQ(OSNullIO.Partner(), &OSNullIO);
  EXPECT_FALSE(OSNullIO.IsBound());
}

TEST_F(Layer, UrgentDataAndDatagramsAreDataUnlessALayerSaysOtherwise) {
  std::vector<std::string> calls;
  Talker talker(&calls);
  talker.answer = Blocked;
  EXPECT_EQ(talker.DataExpeditedIndication(OSBuf::Alloc("urgent")), Blocked);
  talker.answer = BufferContainsResult;
  EXPECT_EQ(talker.DatagramIndication(OSBuf::Alloc("datagram"), &calls, nullptr), BufferContainsResult);
  EXPECT_THAT(calls, ElementsAre("Data urgent", "Data datagram"));
}

TEST_F(Layer, OverridesAreReachedThroughTheInterface) {
  std::vector<std::string> calls;
  Talker talker(&calls);
  OSIO* layer = &talker;
  EXPECT_EQ(layer->DataIndication(OSBuf::Alloc("x")), Success);
  layer->UnBind();
  EXPECT_THAT(calls, ElementsAre("Data x", "UnBind", "Detach"));
}

TEST_F(Layer, TheNullLayerIsThereForStaticLayersFromFirstToLast) {
  EXPECT_TRUE(early_layer.unbound_at_first);
  EXPECT_TRUE(late_layer.unbound_at_first);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::exit(3), testing::ExitedWithCode(3), "");
  EXPECT_EXIT(
      {
        static OSIO latest;
        latest.Bind(&early_layer);
        early_layer.UnBind();
        late_layer.Bind(&latest);  // which goes first and lets it go
        std::exit(3);
      },
      testing::ExitedWithCode(3), "");
}

// -------------------------------------------------------------------------------------------------- binding

TEST_F(Layer, ANewLayerIsBoundToTheNullLayer) {
  OSIO layer;
  EXPECT_EQ(layer.partner, &OSNullIO);
  EXPECT_EQ(layer.Partner(), &OSNullIO);
  EXPECT_EQ(layer.IsBound(), FALSE);
  EXPECT_EQ(layer.Partner()->DataIndication(OSBuf::Alloc("to nobody")), NotSupported);
}

TEST_F(Layer, BindIsSymmetricAndUnBindUndoesBothSides) {
  OSIO a, b;
  a.Bind(&b);
  EXPECT_EQ(a.Partner(), &b);
  EXPECT_EQ(b.Partner(), &a);
  EXPECT_EQ(a.IsBound(), TRUE);
  EXPECT_EQ(b.IsBound(), TRUE);
  b.UnBind();
  EXPECT_EQ(a.Partner(), &OSNullIO);
  EXPECT_EQ(b.Partner(), &OSNullIO);
  EXPECT_EQ(a.IsBound(), FALSE);
}

TEST_F(Layer, BindAttachesThisSideAndThenTheOther) {
  std::vector<std::string> calls;
  Talker a(&calls, "a."), b(&calls, "b.");
  a.Bind(&b);
  EXPECT_THAT(calls, ElementsAre("a.Bind", "a.Attach", "b.Attach"));
  calls.clear();
  a.UnBind();
  EXPECT_THAT(calls, ElementsAre("a.UnBind", "b.Detach", "a.Detach")) << "the partner is detached first";
}

TEST_F(Layer, AttachAndDetachConcernOneSideOnly) {
  OSIO a, b;
  a.Attach(&b);
  EXPECT_EQ(a.Partner(), &b);
  EXPECT_EQ(b.Partner(), &OSNullIO);
  a.Detach();
  EXPECT_EQ(a.Partner(), &OSNullIO);
  EXPECT_EQ(b.Partner(), &OSNullIO);
}

TEST_F(Layer, BindTakesNoNoticeOfAnEarlierPartner) {
  OSIO a, b, earlier;
  a.Bind(&earlier);
  a.Bind(&b);
  EXPECT_EQ(a.Partner(), &b);
  EXPECT_EQ(b.Partner(), &a);
  EXPECT_EQ(earlier.Partner(), &a) << "it was not told";
  earlier.Detach();
}

TEST_F(Layer, UnBindOfAnUnboundLayerDoesNotTouchTheNullLayer) {
  std::vector<std::string> calls;
  Talker marker(&calls, "marker.");
  OSNullIO.partner = &marker;  // would be lost if the null layer were detached
  OSIO layer;
  layer.UnBind();
  EXPECT_EQ(layer.Partner(), &OSNullIO);
  EXPECT_EQ(OSNullIO.partner, &marker);
  { OSIO passing; }
  EXPECT_EQ(OSNullIO.partner, &marker);
  OSNullIO.partner = &OSNullIO;
  EXPECT_THAT(calls, IsEmpty());
}

TEST_F(Layer, UnBindWithNoPartnerAtAllLeavesTheNullLayer) {
  OSIO layer;
  layer.partner = nullptr;
  EXPECT_EQ(layer.Partner(), nullptr);
  EXPECT_EQ(layer.IsBound(), TRUE) << "anything but the null layer counts";
  layer.UnBind();
  EXPECT_EQ(layer.Partner(), &OSNullIO);
  layer.partner = nullptr;  // the destructor copes as well
}

TEST_F(Layer, NoOperationLeavesALayerWithoutAPartner) {
  OSIO layer;
  layer.Attach(nullptr);
  EXPECT_EQ(layer.Partner(), &OSNullIO);
}

TEST_F(Layer, BindToNobodyIsUnBind) {
  for (OSIO* const nobody : {static_cast<OSIO*>(nullptr), &OSNullIO}) {
    std::vector<std::string> calls;
    Talker layer(&calls, "layer."), partner(&calls, "partner.");
    layer.Bind(&partner);
    calls.clear();
    layer.Bind(nobody);
    EXPECT_EQ(layer.Partner(), &OSNullIO);
    EXPECT_EQ(partner.Partner(), &OSNullIO) << "both sides are let go";
    EXPECT_THAT(calls, ElementsAre("layer.Bind", "layer.UnBind", "partner.Detach", "layer.Detach"));
    EXPECT_EQ(OSNullIO.partner, &OSNullIO) << "the null layer points at nobody who may go";
    layer.Bind(nobody);
    EXPECT_EQ(layer.Partner(), &OSNullIO);
  }
}

TEST_F(Layer, ALayerWithoutAPartnerAtAllCanBeDestroyed) {
  OSIO layer;
  layer.partner = nullptr;
}

TEST_F(Layer, ALayerBoundToItselfLetsGo) {
  OSIO layer;
  layer.Bind(&layer);
  EXPECT_EQ(layer.Partner(), &layer);
  layer.UnBind();
  EXPECT_EQ(layer.Partner(), &OSNullIO);
  layer.Bind(&layer);
}

TEST_F(Layer, DestroyingOneOfTwoBoundLayersFreesTheOther) {
  OSIO survivor;
  {
    OSIO passing;
    survivor.Bind(&passing);
  }
  EXPECT_EQ(survivor.Partner(), &OSNullIO);
  EXPECT_EQ(survivor.IsBound(), FALSE);
  {
    OSIO passing;
    passing.Bind(&survivor);
  }
  EXPECT_EQ(survivor.Partner(), &OSNullIO);
}

TEST_F(Layer, ADestroyedLayerDetachesItsPartnerThroughThePartnersOwnDetach) {
  std::vector<std::string> calls;
  Talker survivor(&calls, "survivor.");
  {
    Talker passing(&calls, "passing.");
    passing.Bind(&survivor);
    calls.clear();
  }
  EXPECT_THAT(calls, ElementsAre("survivor.Detach")) << "of the destroyed layer only the base is left";
  EXPECT_EQ(survivor.Partner(), &OSNullIO);
}

TEST_F(Layer, DestructionThroughTheListObjectBaseLetsThePartnerGo) {
  OSIO survivor;
  OSListObj* layer = new OSIO;
  static_cast<OSIO*>(layer)->Bind(&survivor);
  delete layer;
  EXPECT_EQ(survivor.Partner(), &OSNullIO);
}

TEST_F(Layer, LayersCanBeKeptInListsAndFoundByKey) {
  class Named : public OSIO {
   public:
    explicit Named(const char* name) : name_(name) {}
    BOOL IsKey(char* key) override { return name_ == key ? TRUE : FALSE; }

   private:
    std::string name_;
  };
  Named sip("sip"), isdn("isdn");
  OSIO plain;
  OSIndirectList list;
  list.Append(&plain);
  list.Append(&sip);
  list.Append(&isdn);
  char key[] = "isdn";
  EXPECT_EQ(list.Find(key), &isdn);
  EXPECT_EQ(list.Search(key), 2);
  EXPECT_EQ(plain.IsKey(key), FALSE);
}

TEST_F(Layer, DataTravelsAlongTheBinding) {
  std::vector<std::string> calls;
  Talker upper(&calls, "upper."), lower(&calls, "lower.");
  upper.Bind(&lower);
  calls.clear();
  EXPECT_EQ(lower.Partner()->DataIndication(OSBuf::Alloc("received")), Success);
  EXPECT_EQ(upper.Partner()->DataIndication(OSBuf::Alloc("sent")), Success);
  upper.UnBind();
  EXPECT_EQ(upper.Partner()->DataIndication(OSBuf::Alloc("lost")), NotSupported);
  EXPECT_THAT(calls, ElementsAre("upper.Data received", "lower.Data sent", "upper.UnBind", "lower.Detach",
                                 "upper.Detach"));
}

// ----------------------------------------------------------------------------------------------- parameters

TEST_F(Layer, AnAddressHoldsItsText) {
  OSIOAddress address("sip:100@10.0.0.1");
  EXPECT_STREQ(address.destination, "sip:100@10.0.0.1");
  EXPECT_EQ(address.Type(), 0);
  const OSIOParam& param = address;
  EXPECT_EQ(const_cast<OSIOParam&>(param).Type(), 0);
  static_assert(sizeof(address.destination) == 132);
}

TEST_F(Layer, AnAddressWithoutTextIsEmpty) {
  OSIOAddress address(nullptr);
  EXPECT_STREQ(address.destination, "");
  OSIOAddress empty("");
  EXPECT_STREQ(empty.destination, "");
}

TEST_F(Layer, AnAddressKeepsAtMost131Characters) {
  for (std::size_t len : {130u, 131u, 132u, 133u, 1000u, 100000u}) {
    SCOPED_TRACE(len);
    const std::string text(len, 'x');
    const auto address = std::make_unique<OSIOAddress>(text.c_str());
    EXPECT_EQ(std::strlen(address->destination), std::min<std::size_t>(len, 131));
    EXPECT_EQ(address->destination, text.substr(0, 131));
  }
}

TEST_F(Layer, TheCallersTextMayGoAway) {
  auto text = std::make_unique<std::string>("10.0.0.1");
  OSIOAddress address(text->c_str());
  text.reset();
  EXPECT_STREQ(address.destination, "10.0.0.1");
}

TEST_F(Layer, AParameterIsDestroyedThroughItsBase) {
  class Param : public OSIOParam {
   public:
    explicit Param(int* alive) : alive_(alive) { ++*alive_; }
    ~Param() override { --*alive_; }
    int Type() override { return 42; }

   private:
    int* alive_;
  };
  int alive = 0;
  OSIOParam* param = new Param(&alive);
  EXPECT_EQ(param->Type(), 42);
  delete param;
  EXPECT_EQ(alive, 0);
  static_assert(std::is_abstract_v<OSIOParam> && std::has_virtual_destructor_v<OSIOParam>);
  static_assert(std::is_base_of_v<OSIOParam, OSIOAddress> && std::is_base_of_v<OSListObj, OSIO>);
}

}  // namespace
}  // namespace oskernel_test
