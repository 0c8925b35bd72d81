// Calls and notifications between real processes.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "session/application_registry.h"
#include "session/session.h"
#include "system/application.h"

namespace TQ::test {
namespace {

using detail::SessionRef;
using std::chrono::milliseconds;

// How long a wrong implementation gets to come back from where it should stay.
constexpr milliseconds A_LONG_WHILE{1200};

/// A session that ends with requests unanswered is kept for good by those requests. This takes them
/// out at the end of the test.
class UnansweredRequests final {
 public:
  explicit UnansweredRequests(const std::string& name)
      : session(detail::g_applications.Find(name.c_str())) {}
  ~UnansweredRequests() {
    // The sending thread walks over them until it has let go of the session.
    EXPECT_TRUE(WaitUntil([] { return detail::g_applications.Size() == 0; }));
    session->Awaiting().Clear();
  }
  UnansweredRequests(const UnansweredRequests&) = delete;
  UnansweredRequests& operator=(const UnansweredRequests&) = delete;

 private:
  const SessionRef session;
};

// ---- one call ----------------------------------------------------------------------------------

TEST(CallBetweenProcesses, ReturnsWhatTheSlotHasPutIntoItsResult) {
  Application server("server");
  const LocalLibrary library("client");
  const std::string peer = library.ConnectTo(server);
  ScopedList list;
  list.Int32("x", 41);
  const _tag_HTQPARAMLIST result = TQCall(peer.c_str(), ECHO_SLOT, list.Get());
  ASSERT_NE(result.impl, nullptr);
  EXPECT_EQ(TQGetInt32Value(result, "x"), 41u);
  EXPECT_EQ(TQGetStringValue(result, "who"), library.Name());
  EXPECT_EQ(TQCloseHandle(result), TQ_ERR_OK);
}

TEST(CallBetweenProcesses, GoesToTheConnectingSideAsWell) {
  Application server("server");
  const ScopedSlot slot(9, [](const SlotCall& call) {
    TQSetInt32Value(call.result, "x", TQGetInt32Value(call.params, "x") * 2);
  });
  const LocalLibrary library("client");
  library.ConnectTo(server);
  server.Do("call " + library.Name() + " 9 21", "called x=42");
}

TEST(CallBetweenProcesses, OfAnUnknownSlotReturnsAValidEmptyList) {
  Application server("server");
  const LocalLibrary library("client");
  const std::string peer = library.ConnectTo(server);
  EXPECT_EQ(CallText(peer, UNKNOWN_SLOT_ID, 1), "empty");
  EXPECT_EQ(CallText(peer, ECHO_SLOT, 1), "x=1");
}

TEST(CallBetweenProcesses, CarriesLargeAndNestedListsBothWays) {
  const Bytes bytes = Pattern(3u << 20);
  Application server("server");
  const LocalLibrary library("client");
  const std::string peer = library.ConnectTo(server);
  ScopedList list;
  ScopedList nested;
  TQSetInt64Value(nested.Get(), "q", 0x0123456789ABCDEFu);
  list.Binary("b", bytes);
  TQSetHandleValue(list.Get(), "n", nested.Get());
  TQSetStringValue(list.Get(), "s", "text");
  const _tag_HTQPARAMLIST result = TQCall(peer.c_str(), MIRROR_SLOT, list.Get());
  const auto* binary = TQGetBinaryValue(result, "b");
  ASSERT_NE(binary, nullptr);
  ASSERT_EQ(binary->size, bytes.size());
  EXPECT_EQ(std::memcmp(binary->data, bytes.data(), bytes.size()), 0);
  const _tag_HTQPARAMLIST inner = TQGetHandleValue(result, "n");
  EXPECT_EQ(TQGetInt64Value(inner, "q"), 0x0123456789ABCDEFu);
  EXPECT_STREQ(TQGetStringValue(result, "s"), "text");
  TQCloseHandle(inner);
  TQCloseHandle(result);
}

TEST(CallBetweenProcesses, WaitsForASlotThatTakesLongerThanAnyTimeLimit) {
  Application server("server");
  const LocalLibrary library("client");
  const std::string peer = library.ConnectTo(server);
  ScopedList list;
  list.Int32("x", 1);
  CallInThread call(peer, HOLD_SLOT, list.Get());
  server.Expect("holding");
  // The limit of both processes is 2 s.
  EXPECT_FALSE(call.WaitReturned(milliseconds(3000)));
  server.Tell("release");
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_EQ(ResultText(call.Result()), "x=2");
}

// ---- notifications -----------------------------------------------------------------------------

TEST(NotifyBetweenProcesses, GivesTheSlotANullResult) {
  Application server("server");
  const LocalLibrary library("client");
  const std::string peer = library.ConnectTo(server);
  ScopedList list;
  list.Int32("x", 5);
  EXPECT_EQ(TQNotify(peer.c_str(), RECORD_SLOT, list.Get(), nullptr, nullptr), TQ_ERR_OK);
  server.Expect("slot 2 from " + library.Name() + " params x=5 result null");
}

TEST(NotifyBetweenProcesses, WithACallbackGivesTheSlotAResultToFill) {
  CompletionRecorder done;
  Application server("server");
  const LocalLibrary library("client");
  const std::string peer = library.ConnectTo(server);
  EXPECT_EQ(TQNotify(peer.c_str(), RECORD_SLOT, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  server.Expect("slot 2 from " + library.Name() + " params empty result empty");
  ASSERT_TRUE(done.WaitForCount(1));
  EXPECT_EQ(done.Calls()[0].applicationName, peer);
  EXPECT_EQ(done.Calls()[0].slotId, RECORD_SLOT);
  EXPECT_FALSE(done.Calls()[0].resultIsNull);
}

TEST(NotifyBetweenProcesses, OfNullParamsArrivesAsAnEmptyList) {
  Application server("server");
  const LocalLibrary library("client");
  const std::string peer = library.ConnectTo(server);
  EXPECT_EQ(TQNotify(peer.c_str(), RECORD_SLOT, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  server.Expect("slot 2 from " + library.Name() + " params empty result null");
}

TEST(NotifyBetweenProcesses, OfAnUnknownSlotIsLostWithoutASign) {
  Application server("server");
  const LocalLibrary library("client");
  const std::string peer = library.ConnectTo(server);
  EXPECT_EQ(TQNotify(peer.c_str(), UNKNOWN_SLOT_ID, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  EXPECT_EQ(CallText(peer, ECHO_SLOT, 1), "x=1") << "the session goes on";
}

TEST(NotifyBetweenProcesses, OfAnUnknownSlotWithACallbackIsAnsweredWithAnEmptyList) {
  CompletionRecorder done;
  Application server("server");
  const LocalLibrary library("client");
  const std::string peer = library.ConnectTo(server);
  EXPECT_EQ(TQNotify(peer.c_str(), UNKNOWN_SLOT_ID, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  ASSERT_TRUE(done.WaitForCount(1));
  EXPECT_FALSE(done.Calls()[0].resultIsNull);
  EXPECT_EQ(done.Calls()[0].resultCount, 0u);
}

TEST(NotifyBetweenProcesses, ArrivesInTheOrderOfTheCalls) {
  constexpr uint32_t COUNT = 300;
  Application server("server");
  const LocalLibrary library("client");
  const std::string peer = library.ConnectTo(server);
  for (uint32_t i = 0; i < COUNT; ++i) {
    ScopedList list;
    list.Int32("x", i);
    const unsigned slotId = i % 3 == 0 ? ANOTHER_RECORD_SLOT : RECORD_SLOT;
    EXPECT_EQ(TQNotify(peer.c_str(), slotId, list.Get(), nullptr, nullptr), TQ_ERR_OK);
  }
  for (uint32_t i = 0; i < COUNT; ++i) {
    server.Expect("slot " + std::to_string(i % 3 == 0 ? ANOTHER_RECORD_SLOT : RECORD_SLOT) +
                  " from " + library.Name() + " params x=" + std::to_string(i) + " result null");
  }
}

// ---- many at a time ----------------------------------------------------------------------------

TEST(CallsOfManyThreads, EachGetTheirOwnReply) {
  constexpr uint32_t THREADS = 8;
  constexpr uint32_t EACH = 1000;
  Application server("server");
  const LocalLibrary library("client");
  const std::string peer = library.ConnectTo(server);
  std::atomic<uint32_t> matched{0};
  std::vector<std::thread> threads;
  for (uint32_t thread = 0; thread < THREADS; ++thread) {
    threads.emplace_back([&, thread] {
      for (uint32_t i = 0; i < EACH; ++i) {
        const uint32_t number = thread * EACH + i;
        if (CallText(peer, ECHO_SLOT, number) == "x=" + std::to_string(number)) ++matched;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(matched, THREADS * EACH);
  EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().messages == 0; }));
  EXPECT_EQ(DEBUG_TQObjectCount().paramLists, 0u);
}

TEST(CallsOfManyThreads, MixWithNotificationsAndCallsOfTheOtherSide) {
  constexpr uint32_t EACH = 150;
  CompletionRecorder done;
  std::atomic<uint32_t> served{0};
  const ScopedSlot slot(9, [&](const SlotCall& call) {
    ++served;
    TQSetInt32Value(call.result, "x", TQGetInt32Value(call.params, "x"));
  });
  Application server("server");
  const LocalLibrary library("client");
  const std::string peer = library.ConnectTo(server);
  for (uint32_t i = 0; i < EACH; ++i) server.Tell("call " + library.Name() + " 9 7");
  std::thread notifier([&] {
    for (uint32_t i = 0; i < EACH; ++i) {
      EXPECT_EQ(TQNotify(peer.c_str(), ECHO_SLOT, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
    }
  });
  for (uint32_t i = 0; i < EACH; ++i) {
    EXPECT_EQ(CallText(peer, ECHO_SLOT, i), "x=" + std::to_string(i));
  }
  notifier.join();
  EXPECT_TRUE(done.WaitForCount(EACH));
  for (uint32_t i = 0; i < EACH; ++i) server.Expect("called x=7");
  EXPECT_EQ(served, EACH);
}

// ---- calls from slots --------------------------------------------------------------------------

TEST(CallFromASlot, ReachesAThirdProcess) {
  Application third("third");
  Application second("second");
  second.ConnectTo(third);
  const LocalLibrary library("first");
  const std::string peer = library.ConnectTo(second);
  ScopedList list;
  list.Int32("x", 99);
  TQSetStringValue(list.Get(), "to", third.Name().c_str());
  const _tag_HTQPARAMLIST result = TQCall(peer.c_str(), FORWARD_SLOT, list.Get());
  EXPECT_EQ(ResultText(result), "x=99");
  TQCloseHandle(result);
}

TEST(CallFromASlot, ReachesItsOwnCaller) {
  Application second("second");
  std::atomic<uint32_t> calledBack{0};
  const ScopedSlot slot(ECHO_SLOT, [&](const SlotCall& call) {
    ++calledBack;
    TQSetInt32Value(call.result, "x", TQGetInt32Value(call.params, "x") + 1);
  });
  const LocalLibrary library("first");
  const std::string peer = library.ConnectTo(second);
  ScopedList list;
  list.Int32("x", 99);
  TQSetStringValue(list.Get(), "to", library.Name().c_str());
  const _tag_HTQPARAMLIST result = TQCall(peer.c_str(), FORWARD_SLOT, list.Get());
  EXPECT_EQ(ResultText(result), "x=100");
  EXPECT_EQ(calledBack, 1u);
  TQCloseHandle(result);
}

TEST(CallFromASlot, OfEachOfTwoProcessesToTheOtherNeverReturns) {
  Application first("first");
  Application second("second");
  const LocalLibrary library("starter");
  const std::string toFirst = library.ConnectTo(first);
  const std::string toSecond = library.ConnectTo(second);
  first.ConnectTo(second);
  const auto meet = [](const std::string& who, const std::string& other) {
    ScopedList list;
    list.Int32("x", 1);
    TQSetStringValue(list.Get(), "to", other.c_str());
    EXPECT_EQ(TQNotify(who.c_str(), MEET_SLOT, list.Get(), nullptr, nullptr), TQ_ERR_OK);
  };
  meet(toFirst, second.Name());
  meet(toSecond, first.Name());
  // Both dispatchers stand in their slots when they begin to call each other.
  first.Expect("holding");
  second.Expect("holding");
  first.Tell("release");
  second.Tell("release");
  EXPECT_FALSE(first.Process().ReadLine(A_LONG_WHILE));
  EXPECT_FALSE(second.Process().ReadLine(milliseconds(50)));
  EXPECT_TRUE(first.Process().IsRunning());
  EXPECT_TRUE(second.Process().IsRunning());
  // Only the end of a session lets them go: here the second's part in it.
  second.Process().Kill();
  first.Expect("met");
}

// ---- the session ends --------------------------------------------------------------------------

TEST(PeerThatIsKilled, LetsEveryCallerGoWithTheNullHandle) {
  ListenerRecorder listeners;
  CompletionRecorder done;
  Application server("server");
  const LocalLibrary library("client");
  const std::string peer = library.ConnectTo(server);
  const UnansweredRequests kept(peer);
  std::vector<std::unique_ptr<CallInThread>> calls;
  calls.push_back(std::make_unique<CallInThread>(peer, HOLD_SLOT));
  server.Expect("holding");
  for (int i = 0; i < 4; ++i) calls.push_back(std::make_unique<CallInThread>(peer, ECHO_SLOT));
  EXPECT_EQ(TQNotify(peer.c_str(), ECHO_SLOT, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  ASSERT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().pendingCalls == 6; }));
  // The answer stands in the queue behind the requests, which have been written when it comes.
  server.Tell("call " + library.Name() + " 77 1");
  ASSERT_TRUE(server.Process().ReadLineStarting("called "));
  server.Process().Kill();
  for (const auto& call : calls) {
    ASSERT_TRUE(call->WaitReturned());
    EXPECT_EQ(call->Result().impl, nullptr);
  }
  ASSERT_TRUE(done.WaitForCount(1));
  EXPECT_EQ(done.Calls()[0].applicationName, peer);
  EXPECT_EQ(done.Calls()[0].slotId, ECHO_SLOT);
  EXPECT_TRUE(done.Calls()[0].resultIsNull);
  ASSERT_TRUE(WaitUntil([] { return detail::g_applications.Size() == 0; }));
  EXPECT_EQ(done.Count(), 1u);
  EXPECT_EQ(listeners.Disconnects().size(), 1u);
  EXPECT_EQ(TQNotify(peer.c_str(), ECHO_SLOT, {nullptr}, nullptr, nullptr), TQ_ERR_NO_SESSION);
  EXPECT_EQ(TQCall(peer.c_str(), ECHO_SLOT, {nullptr}).impl, nullptr);
}

TEST(PeerThatIsKilled, LeavesOtherSessionsUndisturbed) {
  Application doomed("doomed");
  Application other("other");
  const LocalLibrary library("client");
  const std::string toDoomed = library.ConnectTo(doomed);
  const std::string toOther = library.ConnectTo(other);
  EXPECT_EQ(CallText(toDoomed, ECHO_SLOT, 1), "x=1");
  doomed.Process().Kill();
  ASSERT_TRUE(SessionHost::WaitForSessions(1));
  EXPECT_EQ(CallText(toOther, ECHO_SLOT, 2), "x=2");
}

TEST(PeerThatDisconnects, LetsTheCallerGoWithTheNullHandle) {
  Application server("server");
  const LocalLibrary library("client");
  const std::string peer = library.ConnectTo(server);
  const UnansweredRequests kept(peer);
  CallInThread call(peer, HOLD_SLOT);
  server.Expect("holding");
  server.Do("disconnect " + library.Name(), "disconnected");
  // Its session is only gone when the slot has let go of it.
  server.Tell("release");
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_EQ(call.Result().impl, nullptr);
}

TEST(DisconnectBetweenProcesses, LetsTheOwnCallerGoWithTheNullHandle) {
  Application server("server");
  const LocalLibrary library("client");
  const std::string peer = library.ConnectTo(server);
  const UnansweredRequests kept(peer);
  CallInThread call(peer, HOLD_SLOT);
  server.Expect("holding");
  EXPECT_EQ(TQDisconnect(peer.c_str()), TQ_ERR_OK);
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_EQ(call.Result().impl, nullptr);
}

// ---- what never returns ------------------------------------------------------------------------

// A process that says what becomes of its requests when the reply breaks off.
TQ_TEST_ROLE(callerOfABrokenPeer) {
  TQInitialize("caller", 0, nullptr);
  static std::atomic<bool> over{false};
  TQSetLogLevel(ALL_LOG_LEVELS, 0, [](uint32_t, int32_t, const char* text) {
    if (std::string(text).rfind("Sending thread finished for ", 0) == 0) over = true;
  });
  std::array<char, 256> peer{};
  EXPECT_EQ(ConnectTo(static_cast<uint16_t>(std::stoi(args.at(0))), peer.data(), peer.size()),
            TQ_ERR_OK);
  const bool withCallback = args.at(1) == "callback";
  std::thread caller;
  if (withCallback) {
    EXPECT_EQ(TQNotify(peer.data(), 7, {nullptr}, &application::Completed, nullptr), TQ_ERR_OK);
  } else {
    caller = std::thread([&] { Say("called " + CallText(peer.data(), 7, 1)); });
  }
  EXPECT_TRUE(WaitUntil([] { return over.load(); }));
  Say("session over");
  (void)ReadCommand();
  return 0;
}

class BrokenReply : public testing::TestWithParam<std::string> {};

INSTANTIATE_TEST_SUITE_P(To, BrokenReply, testing::Values("call", "callback"),
                         [](const auto& request) { return request.param; });

TEST_P(BrokenReply, LeavesTheRequestWithoutAnEnd) {
  RawListener listener(FreePort());
  ChildProcess child("callerOfABrokenPeer", {std::to_string(listener.Port()), GetParam()});
  auto peer = listener.Accept();
  ASSERT_TRUE(peer);
  ASSERT_TRUE(peer->HandshakeAsAcceptor("test:1/raw").Completed());
  const auto request = peer->ReadFrame();
  ASSERT_TRUE(request) << peer->Problem();
  // A reply of 100 bytes, of which 10 come.
  peer->SendBytes(Concat({ReplyHead(request->id, 100, 0), Filled(10, 0)}));
  peer->Close();
  ASSERT_TRUE(child.ExpectLine("session over"));
  EXPECT_FALSE(child.ReadLine(A_LONG_WHILE)) << "neither a return nor a completion";
  EXPECT_TRUE(child.IsRunning());
}

// A process that calls the very session whose receiving thread runs the callback.
TQ_TEST_ROLE(callerInACallback) {
  TQInitialize("caller", 0, nullptr);
  static const auto callBack = [](const char* peer) {
    Say("calling");
    Say("called " + CallText(peer, 7, 1));
  };
  if (args.at(1) == "connectListener") {
    TQSetConnectListener([](const char*, const char*, const char* name, const char*, int32_t,
                            const char*) { callBack(name); });
  }
  if (args.at(1) == "disconnectListener") {
    TQSetDisconnectListener(
        [](const char* name, const char*, int32_t, const char*) { callBack(name); });
  }
  std::array<char, 256> peer{};
  EXPECT_EQ(ConnectTo(static_cast<uint16_t>(std::stoi(args.at(0))), peer.data(), peer.size()),
            TQ_ERR_OK);
  if (args.at(1) == "completion") {
    TQNotify(
        peer.data(), 1, {nullptr},
        [](const char* name, unsigned, _tag_HTQPARAMLIST, _tag_HTQPARAMLIST, void*) {
          callBack(name);
          return TQ_ERR_OK;
        },
        nullptr);
  }
  (void)ReadCommand();
  return 0;
}

class CallOnItsOwnReceivingThread : public testing::TestWithParam<std::string> {};

INSTANTIATE_TEST_SUITE_P(From, CallOnItsOwnReceivingThread,
                         testing::Values("completion", "connectListener", "disconnectListener"),
                         [](const auto& callback) { return callback.param; });

TEST_P(CallOnItsOwnReceivingThread, NeverReturns) {
  RawListener listener(FreePort());
  ChildProcess child("callerInACallback", {std::to_string(listener.Port()), GetParam()});
  auto peer = listener.Accept();
  ASSERT_TRUE(peer);
  ASSERT_TRUE(peer->HandshakeAsAcceptor("test:1/raw").Completed());
  if (GetParam() == "completion") {
    const auto request = peer->ReadFrame();
    ASSERT_TRUE(request) << peer->Problem();
    peer->SendReply(request->id);
  }
  // The session ends for the listener's sake; this side goes on reading.
  if (GetParam() == "disconnectListener") peer->ShutdownWrite();
  ASSERT_TRUE(child.ExpectLine("calling"));
  const auto call = peer->ReadFrame();
  ASSERT_TRUE(call) << "it goes out: " << peer->Problem();
  EXPECT_EQ(call->slotId, 7u);
  // The reply is there, but the thread that would have to read it waits for it.
  if (GetParam() != "disconnectListener") peer->SendReply(call->id);
  EXPECT_FALSE(child.ReadLine(A_LONG_WHILE));
  EXPECT_TRUE(child.IsRunning());
}

}  // namespace
}  // namespace TQ::test
