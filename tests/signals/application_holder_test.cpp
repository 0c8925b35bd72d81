// TQApplicationHolder: a name, and what is forwarded with it.
#include <tq/application_holder.h>

#include "session/application_registry.h"
#include "session/session.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include "support/free_port.h"
#include "support/log_recorder.h"
#include "support/raw_peer.h"
#include "support/session_host.h"
#include "support/transport.h"

namespace TQ::test {
namespace {

const std::string NAME = "test:1/raw";

static_assert(sizeof(TQApplicationHolder) == 264);
static_assert(std::has_virtual_destructor_v<TQApplicationHolder>);
static_assert(std::is_convertible_v<const char*, TQApplicationHolder>);

// ---- the name ----------------------------------------------------------------------------------

TEST(ApplicationHolder, WithoutANameAddressesNobody) {
  LogRecorder log;
  {
    const TQApplicationHolder holder;
    EXPECT_TRUE(!holder);
    EXPECT_STREQ(holder.getName(), "");
    const TQApplicationHolder fromNull(nullptr);
    EXPECT_TRUE(!fromNull);
    EXPECT_STREQ(fromNull.getName(), "");
    const TQApplicationHolder fromEmpty("");
    EXPECT_TRUE(!fromEmpty);
  }
  EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST(ApplicationHolder, KeepsACopyOfTheName) {
  std::string name = NAME;
  const TQApplicationHolder holder(name.c_str());
  name[0] = '#';
  EXPECT_FALSE(!holder);
  EXPECT_STREQ(holder.getName(), NAME.c_str());
}

TEST(ApplicationHolder, KeepsTheFirst255CharactersOfALongerName) {
  std::string name;
  for (int i = 0; i < 300; ++i) {
    name += static_cast<char>('a' + i % 26);
  }
  for (const size_t length : {254u, 255u, 256u, 257u, 300u}) {
    const TQApplicationHolder holder(name.substr(0, length).c_str());
    EXPECT_EQ(holder.getName(), name.substr(0, std::min<size_t>(length, 255))) << length;
  }
}

TEST(ApplicationHolder, GivesItsOwnBufferAsTheName) {
  TQApplicationHolder holder(NAME.c_str());
  const char* name = holder.getName();
  EXPECT_GE(name, reinterpret_cast<const char*>(&holder));
  EXPECT_LT(name, reinterpret_cast<const char*>(&holder + 1));
  EXPECT_EQ(reinterpret_cast<const char*>(&holder + 1) - name, 256);
  holder.Disconnect();
  EXPECT_STREQ(name, "");
}

TEST(ApplicationHolder, CopiesTheNameByConstructionAndAssignment) {
  const TQApplicationHolder original(NAME.c_str());
  const TQApplicationHolder copy(original);  // NOLINT(performance-unnecessary-copy-initialization)
  EXPECT_STREQ(copy.getName(), NAME.c_str());
  TQApplicationHolder assigned("other:1/peer");
  TQApplicationHolder* result = &(assigned = original);
  EXPECT_EQ(result, &assigned);
  EXPECT_STREQ(assigned.getName(), NAME.c_str());
  const TQApplicationHolder& itself = assigned;
  assigned = itself;
  EXPECT_STREQ(assigned.getName(), NAME.c_str());
}

TEST(ApplicationHolder, CopiesAllOfItsBytes) {
  // A long name, then a short one over it: what is left of the long one is copied, too.
  SessionHost host;
  RawListener listener(FreePort());
  std::thread acceptor([&] {
    auto peer = listener.Accept();
    ASSERT_TRUE(peer);
    EXPECT_TRUE(peer->HandshakeAsAcceptor(NAME).Completed());
  });
  TQApplicationHolder holder(std::string(255, 'n').c_str());
  holder.Disconnect();
  ASSERT_EQ(holder.getName()[1], 'n') << "only the first byte is cleared";
  TQApplicationHolder copy(holder);
  EXPECT_EQ(std::string(copy.getName() + 1), std::string(254, 'n'));
  TQApplicationHolder assigned;
  assigned = holder;
  EXPECT_EQ(std::string(assigned.getName() + 1), std::string(254, 'n'));
  EXPECT_TRUE(!assigned);
  ASSERT_TRUE(copy.Connect(HostText(listener.Port()).c_str(), listener.Port(), nullptr, 0));
  acceptor.join();
  EXPECT_STREQ(copy.getName(), NAME.c_str());
}

TEST(ApplicationHolder, MayLiveAnywhere) {
  static const TQApplicationHolder staticHolder("static:1/peer");
  const TQApplicationHolder stackHolder("stack:1/peer");
  const auto heapHolder = std::make_unique<TQApplicationHolder>("heap:1/peer");
  EXPECT_STREQ(staticHolder.getName(), "static:1/peer");
  EXPECT_STREQ(stackHolder.getName(), "stack:1/peer");
  EXPECT_STREQ(heapHolder->getName(), "heap:1/peer");
}

// ---- sessions ----------------------------------------------------------------------------------

bool IsConnected(const std::string& name) {
  return detail::g_applications.Find(name.c_str()).IsValid();
}

TEST(ApplicationHolder, DisconnectsItsPeerWhenItIsDestroyed) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  {
    const TQApplicationHolder holder(NAME.c_str());
    EXPECT_TRUE(IsConnected(NAME));
  }
  EXPECT_FALSE(IsConnected(NAME));
  EXPECT_TRUE(peer.WaitClosed());
}

TEST(ApplicationHolder, MadeInTheConnectListenerDisconnectsASessionThatItNeverConnected) {
  ListenerRecorder listeners;
  listeners.onConnect = [](const ListenerRecorder::ConnectCall& call) {
    const TQApplicationHolder holder(call.applicationName.c_str());
  };
  SessionHost host;
  auto peer = RawPeer::Connect(host.Port());
  ASSERT_TRUE(peer);
  ASSERT_TRUE(peer->HandshakeAsConnector(NAME).Completed());
  EXPECT_TRUE(peer->WaitClosed());
  ASSERT_TRUE(host.WaitForEnd(NAME));
  EXPECT_EQ(host.Log().CountOf("Local shutdown: \"" + NAME + "\" stopped"), 1u);
}

// A class of the host's own over the holder.
class DerivedHolder final : public TQApplicationHolder {
 public:
  DerivedHolder(const char* peerName, bool* destroyed)
      : TQApplicationHolder(peerName), destroyedFlag(destroyed) {}
  ~DerivedHolder() noexcept(false) override { *destroyedFlag = true; }

 private:
  bool* destroyedFlag;
};

TEST(ApplicationHolder, IsDestroyedThroughItsVirtualTable) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  bool destroyed = false;
  TQApplicationHolder* holder = new DerivedHolder(NAME.c_str(), &destroyed);
  delete holder;
  EXPECT_TRUE(destroyed);
  EXPECT_FALSE(IsConnected(NAME));
}

TEST(ApplicationHolder, DisconnectsForEveryHolderOfTheName) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  TQApplicationHolder survivor(NAME.c_str());
  TQApplicationHolder assigned;
  assigned = survivor;
  { const TQApplicationHolder copy(survivor); }
  EXPECT_FALSE(IsConnected(NAME));
  for (TQApplicationHolder* holder : {&survivor, &assigned}) {
    EXPECT_FALSE(!*holder) << "the name stays";
    EXPECT_EQ(holder->Call(7, {nullptr}).impl, nullptr);
    EXPECT_EQ(holder->CallWithFlow(1, 7, {nullptr}).impl, nullptr);
    EXPECT_FALSE(holder->Notify(7, {nullptr}, nullptr, nullptr));
    EXPECT_FALSE(holder->NotifyWithFlow(1, 7, {nullptr}, nullptr, nullptr));
    EXPECT_TRUE(holder->ConnectSignal("ticks", 5));
    EXPECT_TRUE(holder->DisconnectSignal("ticks", 5));
  }
}

TEST(ApplicationHolder, KeepsItsNameWhenTheSessionEnds) {
  SessionHost host;
  TQApplicationHolder holder;
  {
    RawPeer peer = host.Admit(NAME);
    holder = TQApplicationHolder("nobody:1/else");
    holder = NAME.c_str();
    // The temporary holder of this name has disconnected it.
    ASSERT_TRUE(host.WaitForEnd(NAME));
  }
  EXPECT_STREQ(holder.getName(), NAME.c_str());
  EXPECT_FALSE(!holder);
  EXPECT_FALSE(holder.Notify(7, {nullptr}, nullptr, nullptr));
}

TEST(ApplicationHolder, LeavesTheFormerPeerConnectedWhenItIsAssigned) {
  SessionHost host;
  RawPeer former = host.Admit("test:1/former");
  RawPeer latter = host.Admit("test:1/latter");
  TQApplicationHolder holder("test:1/former");
  {
    const TQApplicationHolder other("test:1/latter");
    holder = other;
    EXPECT_TRUE(IsConnected("test:1/former"));
    EXPECT_TRUE(IsConnected("test:1/latter"));
  }
  EXPECT_TRUE(IsConnected("test:1/former"));
  EXPECT_FALSE(IsConnected("test:1/latter"));
}

TEST(ApplicationHolder, DisconnectEmptiesItAndAlwaysSucceeds) {
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  TQApplicationHolder holder(NAME.c_str());
  EXPECT_TRUE(holder.Disconnect());
  EXPECT_TRUE(!holder);
  EXPECT_STREQ(holder.getName(), "");
  EXPECT_FALSE(IsConnected(NAME));
  EXPECT_TRUE(holder.Disconnect());
  TQApplicationHolder unknown("nowhere:1/nobody");
  EXPECT_TRUE(unknown.Disconnect());
  EXPECT_TRUE(!unknown);
}

// ---- connecting --------------------------------------------------------------------------------

// Listens and takes one connection through the handshake.
class Acceptor final {
 public:
  explicit Acceptor(std::string name, Bytes authBlock = {})
      : thread([this, peerName = std::move(name), block = std::move(authBlock)] {
          if (auto accepted = listener.Accept()) {
            handshake = accepted->HandshakeAsAcceptor(peerName, block);
            peer.emplace(std::move(*accepted));
          }
        }) {}
  ~Acceptor() { Join(); }
  Acceptor(const Acceptor&) = delete;
  Acceptor& operator=(const Acceptor&) = delete;

  uint16_t Port() const { return listener.Port(); }
  void Join() {
    if (thread.joinable()) {
      thread.join();
    }
  }

  RawListener listener{FreePort()};
  HandshakeResult handshake;    // after Join
  std::optional<RawPeer> peer;  // after Join
  std::thread thread;
};

TEST(ApplicationHolder, ConnectsAndThenNamesThePeer) {
  SessionHost host;
  Acceptor acceptor(NAME);
  TQApplicationHolder holder;
  EXPECT_TRUE(holder.Connect(HostText(acceptor.Port()).c_str(), acceptor.Port(), nullptr, 0));
  EXPECT_FALSE(!holder);
  EXPECT_STREQ(holder.getName(), NAME.c_str());
  EXPECT_TRUE(IsConnected(NAME));
}

TEST(ApplicationHolder, ConnectPassesTheAuthenticationOn) {
  SessionHost host;
  const Bytes block = Pattern(256);
  Acceptor acceptor(NAME, block);
  TQApplicationHolder holder;
  EXPECT_TRUE(
      holder.Connect(HostText(acceptor.Port()).c_str(), acceptor.Port(), block.data(), 256));
  acceptor.Join();
  EXPECT_TRUE(acceptor.handshake.digestMatches);
}

TEST(ApplicationHolder, ConnectOverwritesTheNameWithoutDisconnectingTheFormerPeer) {
  SessionHost host;
  RawPeer former = host.Admit("test:1/former");
  Acceptor acceptor(NAME);
  {
    TQApplicationHolder holder("test:1/former");
    EXPECT_TRUE(holder.Connect(HostText(acceptor.Port()).c_str(), acceptor.Port(), nullptr, 0));
    EXPECT_STREQ(holder.getName(), NAME.c_str());
    EXPECT_TRUE(IsConnected("test:1/former"));
  }
  EXPECT_TRUE(IsConnected("test:1/former"));
  EXPECT_FALSE(IsConnected(NAME));
}

TEST(ApplicationHolder, AFailingConnectLeavesTheNameAsItWas) {
  SessionHost host;
  RawPeer former = host.Admit("test:1/former");
  TQApplicationHolder holder("test:1/former");
  EXPECT_FALSE(holder.Connect("127.0.0.1", 0, nullptr, 0));
  EXPECT_FALSE(holder.Connect("localhost", 4711, nullptr, 0));
  const uint16_t nobody = FreePort();
  EXPECT_FALSE(holder.Connect(HostText(nobody).c_str(), nobody, nullptr, 0));
  Acceptor twin("test:1/former");
  EXPECT_FALSE(holder.Connect(HostText(twin.Port()).c_str(), twin.Port(), nullptr, 0))
      << "connected already";
  EXPECT_STREQ(holder.getName(), "test:1/former");
  EXPECT_TRUE(IsConnected("test:1/former"));
}

TEST(ApplicationHolder, HoldsANameOf255Bytes) {
  SessionHost host;
  std::string name = "test:1/";
  name.append(255 - name.size(), 'n');
  Acceptor acceptor(name);
  TQApplicationHolder holder;
  EXPECT_TRUE(holder.Connect(HostText(acceptor.Port()).c_str(), acceptor.Port(), nullptr, 0));
  EXPECT_EQ(holder.getName(), name);
}

// ---- what is forwarded -------------------------------------------------------------------------

class ForwardingHolder : public testing::Test {
 protected:
  SessionHost host;
  RawPeer peer = host.Admit(NAME);
  // A member's destructor may not throw here; the holder's may.
  const std::unique_ptr<TQApplicationHolder> holder =
      std::make_unique<TQApplicationHolder>(NAME.c_str());
};

TEST_F(ForwardingHolder, CallReturnsTheReply) {
  ScopedList list;
  list.Int32("x", 1);
  std::thread caller([&] {
    const _tag_HTQPARAMLIST result = holder->Call(7, list.Get());
    EXPECT_EQ(TQGetInt32Value(result, "y"), 2u);
    TQCloseHandle(result);
  });
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->bytes, RequestBytes(1, RAW_CALL, 7, RawList().Int32("x", 1)));
  peer.SendReply(1, RawList().Int32("y", 2));
  caller.join();
}

TEST_F(ForwardingHolder, CallWithFlowSendsTheFlowId) {
  ScopedList list;
  list.Int32("x", 1);
  std::thread caller([&] {
    const _tag_HTQPARAMLIST result = holder->CallWithFlow(99, 7, list.Get());
    EXPECT_EQ(TQGetInt32Value(result, "y"), 2u);
    TQCloseHandle(result);
  });
  const auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->bytes,
            RequestBytes(1, RAW_CALL, 7, RawList().Int32("x", 1).Int32("...FlowID", 99)));
  peer.SendReply(1, RawList().Int32("y", 2));
  caller.join();
}

TEST_F(ForwardingHolder, NotifySendsWithAndWithoutACallback) {
  CompletionRecorder done;
  ScopedList list;
  list.Int32("x", 1);
  EXPECT_TRUE(holder->Notify(7, list.Get(), nullptr, nullptr));
  auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->bytes, RequestBytes(1, RAW_NOTIFY, 7, RawList().Int32("x", 1)));
  EXPECT_TRUE(holder->Notify(8, list.Get(), done.Callback(), &done));
  frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->bytes, RequestBytes(2, RAW_CALL, 8, RawList().Int32("x", 1)));
  peer.SendReply(2, RawList().Int32("x", 3));
  ASSERT_TRUE(done.WaitForCount(1));
  EXPECT_EQ(done.Calls()[0].applicationName, NAME);
  EXPECT_EQ(done.Calls()[0].slotId, 8u);
  EXPECT_EQ(done.Calls()[0].resultX, 3u);
}

TEST_F(ForwardingHolder, NotifyWithFlowSendsTheFlowId) {
  CompletionRecorder done;
  ScopedList list;
  EXPECT_TRUE(holder->NotifyWithFlow(99, 7, list.Get(), nullptr, nullptr));
  auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->bytes, RequestBytes(1, RAW_NOTIFY, 7, RawList().Int32("...FlowID", 99)));
  EXPECT_TRUE(holder->NotifyWithFlow(98, 8, {nullptr}, done.Callback(), &done));
  frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->bytes, RequestHead(2, RAW_CALL, 8, 0, 0));
  peer.SendReply(2);
  ASSERT_TRUE(done.WaitForCount(1));
  EXPECT_EQ(done.Calls()[0].slotId, 8u);
}

TEST_F(ForwardingHolder, ConnectSignalAndDisconnectSignalSendTheirRequests) {
  const RawList subscription = RawList().String("signalName", "ticks").Int32("slotName", 5);
  EXPECT_TRUE(holder->ConnectSignal("ticks", 5));
  auto frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->bytes, RequestBytes(1, RAW_NOTIFY, 0xFFFFFFFF, subscription));
  std::thread caller([&] { EXPECT_TRUE(holder->DisconnectSignal("ticks", 5)); });
  frame = peer.ReadFrame();
  ASSERT_TRUE(frame) << peer.Problem();
  EXPECT_EQ(frame->bytes, RequestBytes(2, RAW_CALL, 0xFFFFFFFE, subscription));
  peer.SendReply(2);
  caller.join();
}

TEST(ApplicationHolder, ThatAddressesNobodyFailsWhatCanFail) {
  TQApplicationHolder holder;
  EXPECT_EQ(holder.Call(7, {nullptr}).impl, nullptr);
  EXPECT_EQ(holder.CallWithFlow(1, 7, {nullptr}).impl, nullptr);
  EXPECT_FALSE(holder.Notify(7, {nullptr}, nullptr, nullptr));
  EXPECT_FALSE(holder.NotifyWithFlow(1, 7, {nullptr}, nullptr, nullptr));
  EXPECT_TRUE(holder.ConnectSignal("ticks", 5));
  EXPECT_TRUE(holder.DisconnectSignal("ticks", 5));
  EXPECT_TRUE(holder.Disconnect());
}

}  // namespace
}  // namespace TQ::test
