// What this process offers by number: registration, and what the dispatcher makes of it.
#include "signals/slot_table.h"

#include "frame/locks.h"
#include "session/application_registry.h"
#include "signals/signal_connections.h"
#include "signals/signal_table.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/raw_peer.h"
#include "support/session_host.h"
#include "support/wait_until.h"

namespace TQ::test {
namespace {

using detail::g_slots;
using detail::LockScope;
using detail::SlotEntry;

constexpr unsigned SLOT = 42;

// How long a wrong implementation gets to show that it does not wait.
constexpr std::chrono::milliseconds A_WHILE{150};

int FirstSlot(_tag_HTQPARAMLIST, _tag_HTQPARAMLIST result, const TQSlotCallInfo*) {
  TQSetInt32Value(result, "who", 1);
  return 11;
}

int SecondSlot(_tag_HTQPARAMLIST, _tag_HTQPARAMLIST result, const TQSlotCallInfo*) {
  TQSetInt32Value(result, "who", 2);
  return -22;
}

int g_firstContext = 0;
int g_secondContext = 0;

bool FindSlot(unsigned slotId, SlotEntry* entry) {
  LockScope held(g_slots.lock);
  return g_slots.Find(slotId, entry);
}

bool IsRegistered(unsigned slotId, TQSlotCallback callback, const void* context) {
  SlotEntry entry;
  return FindSlot(slotId, &entry) && entry.callback == callback && entry.context == context;
}

bool IsUnknown(unsigned slotId) {
  SlotEntry entry;
  return !FindSlot(slotId, &entry);
}

// Answers "who" of the slot's reply, 0 for an empty one.
uint32_t AskWho(RawPeer& peer, unsigned slotId) {
  static uint32_t nextId = 1000;
  const uint32_t id = ++nextId;
  EXPECT_TRUE(peer.SendRequest(id, RAW_CALL, slotId));
  const auto reply = peer.ReadFrame();
  if (!reply) {
    ADD_FAILURE() << peer.Problem();
    return 0;
  }
  EXPECT_EQ(reply->kind, RAW_REPLY);
  EXPECT_EQ(reply->id, id);
  const auto who = reply->list.Find("who");
  return who ? static_cast<uint32_t>(who->number) : 0;
}

TEST(SlotTable, CanBeFilledBeforeTheLibraryIsInitialized) {
  EXPECT_EQ(TQRegisterSlot(SLOT, &FirstSlot, &g_firstContext), TQ_ERR_OK);
  EXPECT_TRUE(IsRegistered(SLOT, &FirstSlot, &g_firstContext));
  SessionHost host;
  RawPeer peer = host.Admit("test:1/raw");
  EXPECT_EQ(AskWho(peer, SLOT), 1u);
}

TEST(SlotTable, RegisteringAnIdAgainReplacesCallbackAndContext) {
  EXPECT_EQ(TQRegisterSlot(SLOT, &FirstSlot, &g_firstContext), TQ_ERR_OK);
  EXPECT_EQ(TQRegisterSlot(SLOT, &SecondSlot, &g_secondContext), TQ_ERR_OK);
  EXPECT_TRUE(IsRegistered(SLOT, &SecondSlot, &g_secondContext));
  EXPECT_EQ(TQUnregisterSlot(SLOT), TQ_ERR_OK);
  EXPECT_TRUE(IsUnknown(SLOT));
}

TEST(SlotTable, AReplacedSlotServesTheNextCall) {
  TQRegisterSlot(SLOT, &FirstSlot, nullptr);
  SessionHost host;
  RawPeer peer = host.Admit("test:1/raw");
  EXPECT_EQ(AskWho(peer, SLOT), 1u);
  TQRegisterSlot(SLOT, &SecondSlot, nullptr);
  EXPECT_EQ(AskWho(peer, SLOT), 2u);
  TQUnregisterSlot(SLOT);
  EXPECT_EQ(AskWho(peer, SLOT), 0u);
}

TEST(SlotTable, IdsAreUnsignedThirtyTwoBitNumbers) {
  const std::array<unsigned, 5> ids = {0u, 1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFDu};
  std::array<int, 5> contexts{};
  for (size_t i = 0; i < ids.size(); ++i) {
    EXPECT_EQ(TQRegisterSlot(ids[i], &FirstSlot, &contexts[i]), TQ_ERR_OK);
  }
  for (size_t i = 0; i < ids.size(); ++i) {
    EXPECT_TRUE(IsRegistered(ids[i], &FirstSlot, &contexts[i])) << ids[i];
  }
}

TEST(SlotTable, UnregisteringAnUnknownIdSaysSo) {
  EXPECT_EQ(TQUnregisterSlot(SLOT), TQ_ERR_NO_SUCH_SLOT);
  EXPECT_EQ(static_cast<int>(TQ_ERR_NO_SUCH_SLOT), -3);
  TQRegisterSlot(SLOT, &FirstSlot, nullptr);
  EXPECT_EQ(TQUnregisterSlot(SLOT + 1), TQ_ERR_NO_SUCH_SLOT);
  EXPECT_EQ(TQUnregisterSlot(SLOT), TQ_ERR_OK);
  EXPECT_EQ(TQUnregisterSlot(SLOT), TQ_ERR_NO_SUCH_SLOT);
}

TEST(SlotTable, ANullCallbackIsStoredLikeAnyOther) {
  EXPECT_EQ(TQRegisterSlot(SLOT, nullptr, &g_firstContext), TQ_ERR_OK);
  EXPECT_TRUE(IsRegistered(SLOT, nullptr, &g_firstContext));
  EXPECT_EQ(TQUnregisterSlot(SLOT), TQ_ERR_OK);
}

// ---- records -----------------------------------------------------------------------------------

TEST(SlotRecords, RegisterOneSlotEach) {
  const _tag_SLOT_DESCRIPTION records[] = {{7, &FirstSlot, &g_firstContext},
                                           {8, &SecondSlot, &g_secondContext},
                                           {9, &FirstSlot, nullptr}};
  EXPECT_EQ(TQRegisterSlots(records, 2), TQ_ERR_OK);
  EXPECT_TRUE(IsRegistered(7, &FirstSlot, &g_firstContext));
  EXPECT_TRUE(IsRegistered(8, &SecondSlot, &g_secondContext));
  EXPECT_TRUE(IsUnknown(9)) << "the count bounds what is read";
}

TEST(SlotRecords, MayStandAtAnyAddress) {
  const _tag_SLOT_DESCRIPTION records[] = {{7, &FirstSlot, &g_firstContext},
                                           {8, &SecondSlot, &g_secondContext}};
  ASSERT_EQ(sizeof records, 40u);
  alignas(8) std::array<unsigned char, sizeof records + 1> bytes{};
  std::memcpy(&bytes[1], records, sizeof records);
  EXPECT_EQ(TQRegisterSlots(reinterpret_cast<const _tag_SLOT_DESCRIPTION*>(&bytes[1]), 2),
            TQ_ERR_OK);
  EXPECT_TRUE(IsRegistered(7, &FirstSlot, &g_firstContext));
  EXPECT_TRUE(IsRegistered(8, &SecondSlot, &g_secondContext));
}

TEST(SlotRecords, ACountOfZeroOrLessDoesNotReadTheArray) {
  EXPECT_EQ(TQRegisterSlots(nullptr, 0), TQ_ERR_OK);
  EXPECT_EQ(TQRegisterSlots(nullptr, -1), TQ_ERR_OK);
  EXPECT_EQ(TQRegisterSlots(nullptr, INT32_MIN), TQ_ERR_OK);
}

TEST(SlotRecords, OfTwoRecordsWithOneIdTheLaterIsInForce) {
  const _tag_SLOT_DESCRIPTION records[] = {{SLOT, &FirstSlot, &g_firstContext},
                                           {SLOT, &SecondSlot, &g_secondContext}};
  EXPECT_EQ(TQRegisterSlots(records, 2), TQ_ERR_OK);
  EXPECT_TRUE(IsRegistered(SLOT, &SecondSlot, &g_secondContext));
  EXPECT_EQ(TQUnregisterSlot(SLOT), TQ_ERR_OK);
  EXPECT_EQ(TQUnregisterSlot(SLOT), TQ_ERR_NO_SUCH_SLOT);
}

TEST(SlotRecords, ReplaceSlotsThatWereRegisteredSingly) {
  TQRegisterSlot(SLOT, &FirstSlot, &g_firstContext);
  const _tag_SLOT_DESCRIPTION record = {SLOT, &SecondSlot, &g_secondContext};
  EXPECT_EQ(TQRegisterSlots(&record, 1), TQ_ERR_OK);
  EXPECT_TRUE(IsRegistered(SLOT, &SecondSlot, &g_secondContext));
}

// ---- the library's own two slots ---------------------------------------------------------------

TEST(InternalSlots, AreNotThereBeforeTheFirstInitialization) {
  EXPECT_EQ(TQUnregisterSlot(0xFFFFFFFF), TQ_ERR_NO_SUCH_SLOT);
  EXPECT_EQ(TQUnregisterSlot(0xFFFFFFFE), TQ_ERR_NO_SUCH_SLOT);
}

TEST(InternalSlots, AreRegisteredByInitializationWithTheSignalTableAsContext) {
  ASSERT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(IsRegistered(0xFFFFFFFF, &detail::ServeConnectSignal, &detail::g_signals));
  EXPECT_TRUE(IsRegistered(0xFFFFFFFE, &detail::ServeDisconnectSignal, &detail::g_signals));
  TQShutdown();
}

TEST(InternalSlots, SurviveTheShutdown) {
  ASSERT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  TQShutdown();
  EXPECT_EQ(TQUnregisterSlot(0xFFFFFFFF), TQ_ERR_OK);
  EXPECT_EQ(TQUnregisterSlot(0xFFFFFFFE), TQ_ERR_OK);
}

TEST(InternalSlots, CanBeReplacedAndThenGetThePeersRequests) {
  SessionHost host;
  std::atomic<uint32_t> connects{0};
  std::atomic<uint32_t> disconnects{0};
  {
    const ScopedSlot connect(0xFFFFFFFF, [&](const SlotCall& call) {
      EXPECT_EQ(call.applicationName, "test:1/raw");
      EXPECT_EQ(call.result.impl, nullptr);
      ++connects;
    });
    const ScopedSlot disconnect(0xFFFFFFFE, [&](const SlotCall& call) {
      TQSetInt32Value(call.result, "who", 77);
      ++disconnects;
    });
    TQRegisterSignal("ticks");
    RawPeer peer = host.Admit("test:1/raw");
    peer.SendRequest(1, RAW_NOTIFY, RAW_CONNECT_SIGNAL,
                     RawList().String("signalName", "ticks").Int32("slotName", 5));
    EXPECT_EQ(AskWho(peer, RAW_DISCONNECT_SIGNAL), 77u);
    EXPECT_EQ(connects, 1u);
    EXPECT_EQ(disconnects, 1u);
    CompletionRecorder nobody;
    EXPECT_EQ(TQEmit("ticks", {nullptr}, nobody.Callback(), &nobody), TQ_ERR_OK);
    EXPECT_EQ(nobody.Count(), 1u) << "the application's slot subscribes nobody";
  }
}

TEST(InternalSlots, CanBeRemovedAndThenSubscribingGoesNowhere) {
  SessionHost host;
  TQRegisterSignal("ticks");
  EXPECT_EQ(TQUnregisterSlot(0xFFFFFFFF), TQ_ERR_OK);
  EXPECT_EQ(TQUnregisterSlot(0xFFFFFFFE), TQ_ERR_OK);
  RawPeer peer = host.Admit("test:1/raw");
  peer.SendRequest(1, RAW_NOTIFY, RAW_CONNECT_SIGNAL,
                   RawList().String("signalName", "ticks").Int32("slotName", 5));
  EXPECT_EQ(AskWho(peer, RAW_DISCONNECT_SIGNAL), 0u) << "an unknown slot's empty reply";
  CompletionRecorder nobody;
  EXPECT_EQ(TQEmit("ticks", {nullptr}, nobody.Callback(), &nobody), TQ_ERR_OK);
  EXPECT_EQ(nobody.Count(), 1u);
}

TEST(InternalSlots, ComeBackAtTheFirstInitializationOfALifeAndNotAtRepeatedOnes) {
  ASSERT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQUnregisterSlot(0xFFFFFFFF), TQ_ERR_OK);
  TQRegisterSlot(0xFFFFFFFE, &FirstSlot, &g_firstContext);

  ASSERT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(IsUnknown(0xFFFFFFFF));
  EXPECT_TRUE(IsRegistered(0xFFFFFFFE, &FirstSlot, &g_firstContext));
  TQShutdown();
  TQShutdown();
  EXPECT_TRUE(IsUnknown(0xFFFFFFFF));

  ASSERT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(IsRegistered(0xFFFFFFFF, &detail::ServeConnectSignal, &detail::g_signals));
  EXPECT_TRUE(IsRegistered(0xFFFFFFFE, &detail::ServeDisconnectSignal, &detail::g_signals));
  TQShutdown();
}

// ---- the life of the table ---------------------------------------------------------------------

TEST(SlotTable, KeepsApplicationSlotsOverShutdownAndANewInitialization) {
  TQRegisterSlot(SLOT, &FirstSlot, &g_firstContext);
  ASSERT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  TQRegisterSlot(SLOT + 1, &SecondSlot, &g_secondContext);
  TQShutdown();
  EXPECT_TRUE(IsRegistered(SLOT, &FirstSlot, &g_firstContext));
  EXPECT_TRUE(IsRegistered(SLOT + 1, &SecondSlot, &g_secondContext));
  ASSERT_EQ(TQInitialize("app", 0, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(IsRegistered(SLOT, &FirstSlot, &g_firstContext));
  EXPECT_TRUE(IsRegistered(SLOT + 1, &SecondSlot, &g_secondContext));
  TQShutdown();
}

// ---- while a slot runs -------------------------------------------------------------------------

// A slot that runs until it is let go, and a thread that does something about the table meanwhile.
class RunningSlot final {
 public:
  explicit RunningSlot(SessionHost& host)
      : slot(SLOT,
             [this](const SlotCall&) {
               entered.Open();
               EXPECT_TRUE(mayReturn.Wait());
               left = true;
             }),
        peer(host.Admit("test:1/raw")) {
    peer.SendRequest(1, RAW_CALL, SLOT);
    EXPECT_TRUE(entered.Wait());
  }

  // Runs `operation` on another thread and tells whether it came back before the slot did.
  template <typename Operation>
  bool ComesBackMeanwhile(Operation operation) {
    Gate done;
    bool slotHadLeft = false;
    std::thread other([&] {
      operation();
      slotHadLeft = left;
      done.Open();
    });
    const bool early = done.Wait(A_WHILE);
    mayReturn.Open();
    other.join();
    return early || !slotHadLeft;
  }

 private:
  Gate entered;
  Gate mayReturn;
  std::atomic<bool> left{false};
  ScopedSlot slot;
  RawPeer peer;
};

TEST(SlotTable, UnregisteringOnAnotherThreadWaitsForARunningSlot) {
  SessionHost host;
  RunningSlot running(host);
  EXPECT_FALSE(running.ComesBackMeanwhile([] { EXPECT_EQ(TQUnregisterSlot(SLOT), TQ_ERR_OK); }));
}

TEST(SlotTable, UnregisteringWaitsForASlotOfAnotherIdToo) {
  SessionHost host;
  RunningSlot running(host);
  EXPECT_FALSE(
      running.ComesBackMeanwhile([] { EXPECT_EQ(TQUnregisterSlot(1), TQ_ERR_NO_SUCH_SLOT); }));
}

TEST(SlotTable, RegisteringOnAnotherThreadWaitsForARunningSlot) {
  SessionHost host;
  RunningSlot running(host);
  EXPECT_FALSE(running.ComesBackMeanwhile([] { TQRegisterSlot(SLOT + 1, &FirstSlot, nullptr); }));
}

TEST(SlotTable, RegisteringRecordsOnAnotherThreadWaitsForARunningSlot) {
  SessionHost host;
  RunningSlot running(host);
  EXPECT_FALSE(running.ComesBackMeanwhile([] {
    const _tag_SLOT_DESCRIPTION record = {SLOT + 1, &FirstSlot, nullptr};
    TQRegisterSlots(&record, 1);
  }));
}

TEST(SlotTable, ASlotMayRegisterAndUnregisterSlots) {
  SessionHost host;
  const ScopedSlot slot(SLOT, [](const SlotCall& call) {
    TQRegisterSlot(SLOT + 1, &FirstSlot, nullptr);
    TQSetInt32Value(call.result, "who", static_cast<uint32_t>(-TQUnregisterSlot(SLOT + 2)));
  });
  RawPeer peer = host.Admit("test:1/raw");
  EXPECT_EQ(AskWho(peer, SLOT), 3u);
  EXPECT_EQ(AskWho(peer, SLOT + 1), 1u);
}

TEST(SlotTable, ASlotThatUnregistersItselfFinishesAndItsReplyGoesOut) {
  SessionHost host;
  static std::atomic<int> removed{1};
  TQRegisterSlot(
      SLOT,
      [](_tag_HTQPARAMLIST, _tag_HTQPARAMLIST result, const TQSlotCallInfo* info) {
        removed = TQUnregisterSlot(SLOT);
        // The record of the call outlives the entry of the table.
        TQSetInt32Value(result, "who", *static_cast<const uint32_t*>(info->context));
        return 0;
      },
      [] {
        static uint32_t who = 9;
        return &who;
      }());
  RawPeer peer = host.Admit("test:1/raw");
  EXPECT_EQ(AskWho(peer, SLOT), 9u);
  EXPECT_EQ(removed, TQ_ERR_OK);
  EXPECT_EQ(AskWho(peer, SLOT), 0u);
}

TEST(SlotTable, ASlotThatReplacesItselfFinishesAsItBegan) {
  SessionHost host;
  TQRegisterSlot(
      SLOT,
      [](_tag_HTQPARAMLIST, _tag_HTQPARAMLIST result, const TQSlotCallInfo*) {
        TQRegisterSlot(SLOT, &SecondSlot, nullptr);
        TQSetInt32Value(result, "who", 5);
        return 0;
      },
      nullptr);
  RawPeer peer = host.Admit("test:1/raw");
  EXPECT_EQ(AskWho(peer, SLOT), 5u);
  EXPECT_EQ(AskWho(peer, SLOT), 2u);
}

TEST(SlotTable, WhatASlotReturnsHasNoMeaning) {
  SessionHost host;
  TQRegisterSlot(SLOT, &FirstSlot, nullptr);
  TQRegisterSlot(SLOT + 1, &SecondSlot, nullptr);
  RawPeer peer = host.Admit("test:1/raw");
  EXPECT_EQ(AskWho(peer, SLOT), 1u);
  EXPECT_EQ(AskWho(peer, SLOT + 1), 2u);
  EXPECT_EQ(AskWho(peer, SLOT), 1u);
}

TEST(SlotTable, ASlotIsToldWhoCallsAndItsContext) {
  SessionHost host;
  static std::atomic<const void*> seenContext{nullptr};
  static std::atomic<int> nameMatches{0};
  TQRegisterSlot(
      SLOT,
      [](_tag_HTQPARAMLIST, _tag_HTQPARAMLIST, const TQSlotCallInfo* info) {
        seenContext = info->context;
        nameMatches += std::string(info->applicationName) == "test:1/raw" ? 1 : 0;
        return 0;
      },
      &g_secondContext);
  RawPeer peer = host.Admit("test:1/raw");
  EXPECT_EQ(AskWho(peer, SLOT), 0u);
  EXPECT_EQ(seenContext, &g_secondContext);
  EXPECT_EQ(nameMatches, 1);
}

}  // namespace
}  // namespace TQ::test
