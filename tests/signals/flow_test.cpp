// The flow id: what the functions that take one do to the list.
#include "signals/flow.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <atomic>
#include <ostream>
#include <string>
#include <thread>

#include "support/param_lists.h"
#include "support/raw_peer.h"
#include "support/session_host.h"

namespace TQ::test {
namespace {

constexpr const char* FLOW_ID = "...FlowID";
constexpr const char* NOBODY = "nowhere:1/nobody";

// What the three functions have in common: each stamps the list, whatever becomes of the message.
struct FlowFunction {
  const char* name;
  void (*run)(unsigned flowId, _tag_HTQPARAMLIST params);
};

void PrintTo(const FlowFunction& function, std::ostream* stream) { *stream << function.name; }

class WithFlow : public testing::TestWithParam<FlowFunction> {
 protected:
  static void Stamp(unsigned flowId, _tag_HTQPARAMLIST params) { GetParam().run(flowId, params); }
};

INSTANTIATE_TEST_SUITE_P(
    AllFunctions, WithFlow,
    testing::Values(
        FlowFunction{"Call",
                     [](unsigned flowId, _tag_HTQPARAMLIST params) {
                       EXPECT_EQ(TQCallWithFlow(flowId, NOBODY, 1, params).impl, nullptr);
                     }},
        FlowFunction{"Notify",
                     [](unsigned flowId, _tag_HTQPARAMLIST params) {
                       EXPECT_EQ(TQNotifyWithFlow(flowId, NOBODY, 1, params, nullptr, nullptr),
                                 TQ_ERR_NO_SESSION);
                     }},
        FlowFunction{"Emit",
                     [](unsigned flowId, _tag_HTQPARAMLIST params) {
                       EXPECT_EQ(TQEmitWithFlow(flowId, "nothing", params, nullptr, nullptr),
                                 TQ_ERR_NO_SUCH_SIGNAL);
                     }}),
    [](const auto& function) { return std::string(function.param.name); });

TEST_P(WithFlow, AppendsTheFlowIdAsA32BitValue) {
  const OwnedList list;
  TQSetStringValue(list.Handle(), "a", "hi");
  Stamp(0x01020304, list.Handle());
  EXPECT_EQ(BlockHex(list.Handle()),
            "03 61 00 01 68 69 00 00 "
            "0b 2e 2e 2e 46 6c 6f 77 49 44 00 02 04 03 02 01");
}

TEST_P(WithFlow, ReplacesAnEarlierFlowIdAndPutsTheNewOneLast) {
  const OwnedList list;
  TQSetInt32Value(list.Handle(), FLOW_ID, 1);
  TQSetInt32Value(list.Handle(), "a", 2);
  Stamp(3, list.Handle());
  EXPECT_EQ(BlockHex(list.Handle()),
            "03 61 00 02 02 00 00 00 "
            "0b 2e 2e 2e 46 6c 6f 77 49 44 00 02 03 00 00 00");
  EXPECT_EQ(TQGetParamCount(list.Handle()), 2u);
}

TEST_P(WithFlow, ReplacesAValueOfAnotherTypeToo) {
  const OwnedList list;
  TQSetStringValue(list.Handle(), FLOW_ID, "a text");
  Stamp(7, list.Handle());
  EXPECT_EQ(TQGetParamCount(list.Handle()), 1u);
  EXPECT_EQ(TQGetInt32Value(list.Handle(), FLOW_ID), 7u);
  EXPECT_EQ(TQGetStringValue(list.Handle(), FLOW_ID), nullptr);
}

TEST_P(WithFlow, LeavesExactlyOneFlowIdInAListThatCameWithTwo) {
  const OwnedList list = ReceivedList(RawList().Int32(FLOW_ID, 1).Int32("a", 2).Int32(FLOW_ID, 3));
  ASSERT_EQ(TQGetParamCount(list.Handle()), 3u);
  Stamp(4, list.Handle());
  EXPECT_EQ(BlockHex(list.Handle()),
            "03 61 00 02 02 00 00 00 "
            "0b 2e 2e 2e 46 6c 6f 77 49 44 00 02 04 00 00 00");
  EXPECT_EQ(TQGetParamCount(list.Handle()), 2u);
}

TEST_P(WithFlow, DropsTheFlowIdOfANullListWithoutMakingOne) {
  const uint32_t before = DEBUG_TQObjectCount().paramLists;
  Stamp(7, {nullptr});
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, before);
}

TEST_P(WithFlow, TheListStaysChangedAfterTheCall) {
  const OwnedList list;
  Stamp(7, list.Handle());
  EXPECT_EQ(TQGetInt32Value(list.Handle(), FLOW_ID), 7u);
  Stamp(0xFFFFFFFF, list.Handle());
  EXPECT_EQ(TQGetInt32Value(list.Handle(), FLOW_ID), 0xFFFFFFFFu);
  EXPECT_EQ(TQGetParamCount(list.Handle()), 1u);
}

// ---- on the wire -------------------------------------------------------------------------------

TEST(FlowId, TravelsWithACallAsTheLastValue) {
  SessionHost host;
  RawPeer peer = host.Admit("test:1/raw");
  ScopedList list;
  list.Int32("x", 1);
  std::thread caller([&] { TQCloseHandle(TQCallWithFlow(99, "test:1/raw", 7, list.Get())); });
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->kind, RAW_CALL);
  EXPECT_EQ(frame->slotId, 7u);
  EXPECT_EQ(frame->list, RawList().Int32("x", 1).Int32(FLOW_ID, 99)) << frame->list;
  peer.SendReply(frame->id);
  caller.join();
}

TEST(FlowId, TravelsWithANotification) {
  SessionHost host;
  RawPeer peer = host.Admit("test:1/raw");
  ScopedList list;
  EXPECT_EQ(TQNotifyWithFlow(99, "test:1/raw", 7, list.Get(), nullptr, nullptr), TQ_ERR_OK);
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->kind, RAW_NOTIFY);
  EXPECT_EQ(frame->list, RawList().Int32(FLOW_ID, 99)) << frame->list;
}

TEST(FlowId, OfANullListDoesNotTravel) {
  SessionHost host;
  RawPeer peer = host.Admit("test:1/raw");
  EXPECT_EQ(TQNotifyWithFlow(99, "test:1/raw", 7, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->list, RawList()) << frame->list;
}

TEST(FlowId, GoesIntoAnEmittedListOnceForAllSubscribers) {
  SessionHost host;
  TQRegisterSignal("ticks");
  RawPeer peer = host.Admit("test:1/raw");
  for (const uint32_t slotId : {5u, 6u}) {
    peer.SendRequest(1, RAW_NOTIFY, RAW_CONNECT_SIGNAL,
                     RawList().String("signalName", "ticks").Int32("slotName", slotId));
  }
  peer.SendRequest(2, RAW_CALL, 0x5EED);
  ASSERT_TRUE(peer.ReadFrame());
  ScopedList list;
  list.Int32(FLOW_ID, 1).Int32("x", 2);
  EXPECT_EQ(TQEmitWithFlow(99, "ticks", list.Get(), nullptr, nullptr), TQ_ERR_OK);
  for (const uint32_t slotId : {5u, 6u}) {
    const auto frame = peer.ReadFrame();
    ASSERT_TRUE(frame) << peer.Problem();
    EXPECT_EQ(frame->slotId, slotId);
    EXPECT_EQ(frame->list, RawList().Int32("x", 2).Int32(FLOW_ID, 99)) << frame->list;
  }
}

TEST(FlowId, IsThereForTheSlotAsAnyOtherParameter) {
  SessionHost host;
  std::atomic<uint32_t> seen{0};
  const ScopedSlot slot(
      7, [&](const SlotCall& call) { seen = TQGetInt32Value(call.params, FLOW_ID); });
  RawPeer peer = host.Admit("test:1/raw");
  peer.SendRequest(1, RAW_CALL, 7, RawList().Int32(FLOW_ID, 12345));
  ASSERT_TRUE(peer.ReadFrame());
  EXPECT_EQ(seen, 12345u);
}

}  // namespace
}  // namespace TQ::test
