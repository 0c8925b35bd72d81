// TQApplicationHolder against a real second process.
#include <gtest/gtest.h>
#include <tq/application_holder.h>
#include <tq/tq.h>

#include <atomic>
#include <string>

#include "session/application_registry.h"
#include "session/session.h"
#include "system/application.h"

namespace TQ::test {
namespace {

bool IsConnected(const std::string& name) {
  return detail::g_applications.Find(name.c_str()).IsValid();
}

/// Connects once the other side listens. Both know each other after it.
void Connect(TQApplicationHolder& holder, const Application& application) {
  ASSERT_TRUE(WaitUntil([&] { return RawPeer::TryConnect(application.Port()).has_value(); }));
  ASSERT_TRUE(holder.Connect(HostText(application.Port()).c_str(), application.Port(), nullptr, 0));
  EXPECT_EQ(CallText(holder.getName(), ECHO_SLOT, 1), "x=1");
}

TEST(HolderBetweenProcesses, ConnectsCallsAndDisconnects) {
  Application server("server");
  const LocalLibrary library("client");
  TQApplicationHolder holder;
  Connect(holder, server);
  EXPECT_EQ(holder.getName(), server.Name());
  EXPECT_FALSE(!holder);
  ScopedList list;
  list.Int32("x", 7);
  _tag_HTQPARAMLIST result = holder.Call(ECHO_SLOT, list.Get());
  EXPECT_EQ(ResultText(result), "x=7");
  TQCloseHandle(result);
  result = holder.CallWithFlow(99, ECHO_SLOT, list.Get());
  EXPECT_EQ(ResultText(result), "x=7");
  TQCloseHandle(result);
  EXPECT_EQ(TQGetInt32Value(list.Get(), "...FlowID"), 99u);
  server.Do("listen", "listening");
  EXPECT_TRUE(holder.Disconnect());
  EXPECT_TRUE(!holder);
  server.Expect("- " + library.Name());
}

TEST(HolderBetweenProcesses, NotifiesWithAndWithoutACallback) {
  CompletionRecorder done;
  Application server("server");
  const LocalLibrary library("client");
  TQApplicationHolder holder;
  Connect(holder, server);
  ScopedList list;
  list.Int32("x", 7);
  EXPECT_TRUE(holder.Notify(RECORD_SLOT, list.Get(), nullptr, nullptr));
  server.Expect("slot 2 from " + library.Name() + " params x=7 result null");
  EXPECT_TRUE(holder.Notify(ECHO_SLOT, list.Get(), done.Callback(), &done));
  ASSERT_TRUE(done.WaitForCount(1));
  EXPECT_EQ(done.Calls()[0].applicationName, server.Name());
  EXPECT_EQ(done.Calls()[0].resultX, 7u);
  EXPECT_TRUE(holder.NotifyWithFlow(5, RECORD_SLOT, list.Get(), nullptr, nullptr));
  server.Expect("slot 2 from " + library.Name() + " params x=7 result null");
}

TEST(HolderBetweenProcesses, ConnectsToASignalAndDisconnectsFromIt) {
  std::atomic<uint32_t> heard{0};
  const ScopedSlot slot(50,
                        [&](const SlotCall& call) { heard = TQGetInt32Value(call.params, "x"); });
  Application server("server");
  server.Do("register ticks", "registered 0");
  const LocalLibrary library("client");
  TQApplicationHolder holder;
  Connect(holder, server);
  EXPECT_TRUE(holder.ConnectSignal("ticks", 50));
  // The next call is served behind the subscription.
  TQCloseHandle(holder.Call(ECHO_SLOT, {nullptr}));
  server.Do("emit ticks 3", "emitted 0");
  EXPECT_TRUE(WaitUntil([&] { return heard == 3; }));
  EXPECT_TRUE(holder.DisconnectSignal("ticks", 50));
  server.Do("announce ticks 4", "completed nobody slot 0 null");
  server.Expect("announced 0");
}

TEST(HolderBetweenProcesses, OfTwoWithOneNameEitherDisconnectsForBoth) {
  Application server("server");
  const LocalLibrary library("client");
  TQApplicationHolder holder;
  Connect(holder, server);
  {
    TQApplicationHolder copy(holder);
    TQCloseHandle(copy.Call(ECHO_SLOT, {nullptr}));
    EXPECT_TRUE(IsConnected(server.Name()));
  }
  EXPECT_FALSE(IsConnected(server.Name()));
  EXPECT_EQ(holder.Call(ECHO_SLOT, {nullptr}).impl, nullptr);
  EXPECT_FALSE(holder.Notify(ECHO_SLOT, {nullptr}, nullptr, nullptr));
  EXPECT_FALSE(!holder) << "it goes on naming the peer";
  EXPECT_EQ(holder.getName(), server.Name());
}

TEST(HolderBetweenProcesses, ThatConnectsElsewhereLeavesTheFormerSessionRunning) {
  Application first("first");
  Application second("second");
  const LocalLibrary library("client");
  {
    TQApplicationHolder holder;
    Connect(holder, first);
    Connect(holder, second);
    EXPECT_EQ(holder.getName(), second.Name());
    EXPECT_EQ(CallText(first.Name(), ECHO_SLOT, 2), "x=2");
  }
  EXPECT_FALSE(IsConnected(second.Name()));
  EXPECT_EQ(CallText(first.Name(), ECHO_SLOT, 3), "x=3");
}

TEST(HolderBetweenProcesses, KeepsItsNameWhenAConnectFails) {
  Application server("server");
  const LocalLibrary library("client");
  TQApplicationHolder holder;
  Connect(holder, server);
  EXPECT_FALSE(holder.Connect(HostText(server.Port()).c_str(), server.Port(), nullptr, 0))
      << "connected already";
  const uint16_t nobody = FreePort();
  EXPECT_FALSE(holder.Connect(HostText(nobody).c_str(), nobody, nullptr, 0));
  EXPECT_EQ(holder.getName(), server.Name());
  EXPECT_EQ(CallText(holder.getName(), ECHO_SLOT, 2), "x=2");
}

TEST(HolderBetweenProcesses, OutlivesItsSession) {
  Application server("server");
  const LocalLibrary library("client");
  TQApplicationHolder holder;
  Connect(holder, server);
  server.Process().Kill();
  ASSERT_TRUE(SessionHost::WaitForSessions(0));
  EXPECT_FALSE(!holder);
  EXPECT_EQ(holder.getName(), server.Name());
  EXPECT_EQ(holder.Call(ECHO_SLOT, {nullptr}).impl, nullptr);
}

TEST(HolderBetweenProcesses, InAConnectListenerTurnsThePeerAway) {
  ListenerRecorder listeners;
  listeners.onConnect = [](const ListenerRecorder::ConnectCall& call) {
    const TQApplicationHolder holder(call.applicationName.c_str());
  };
  const LocalLibrary library("server", FreePort());
  Application client("client");
  ASSERT_TRUE(WaitUntil([&] { return RawPeer::TryConnect(library.Port()).has_value(); }));
  client.Do("listen", "listening");
  client.Tell("connect " + std::to_string(library.Port()));
  EXPECT_TRUE(client.Process().ReadLineStarting("- " + library.Name()));
  EXPECT_TRUE(SessionHost::WaitForSessions(0));
}

}  // namespace
}  // namespace TQ::test
