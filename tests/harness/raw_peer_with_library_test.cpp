// The raw peer against the library itself: both sides of a handshake and a frame of each kind. What
// the library does with a peer's mistakes is tested where the library's parts are tested.
#include "support/free_port.h"
#include "support/host_calls.h"
#include "support/log_recorder.h"
#include "support/raw_peer.h"
#include "support/transport.h"

#include <tq/tq.h>

#include <gtest/gtest.h>

#include <future>
#include <string>

namespace TQ::test {
namespace {

constexpr uint32_t ADD_SLOT = 42;
constexpr uint32_t NOTE_SLOT = 43;

// An initialised library with its listener open.
class RawPeerWithLibrary : public testing::Test {
 protected:
  void SetUp() override {
    port = FreePort();
    ASSERT_EQ(TQInitializeEx(HostText(port).c_str(), "server", port, nullptr), TQ_ERR_OK);
    ASSERT_EQ(TQRegisterSlot(ADD_SLOT, &Add, nullptr), TQ_ERR_OK);
    ASSERT_EQ(TQSetAuthenticationInfo(block.data(), static_cast<int32_t>(block.size())), TQ_ERR_OK);
    ASSERT_EQ(TQConnectionReady(), TQ_ERR_OK);
  }

  void TearDown() override { ShutdownWhileKnocking(port); }

  static int Add(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result, const TQSlotCallInfo*) {
    TQSetInt32Value(result, "sum", TQGetInt32Value(params, "a") + TQGetInt32Value(params, "b"));
    return 0;
  }

  const Bytes block = Pattern(256, 9);
  uint16_t port = 0;
  LogRecorder log;
};

TEST_F(RawPeerWithLibrary, ConnectsAndCallsASlot) {
  auto peer = RawPeer::Connect(port);
  ASSERT_TRUE(peer);
  const auto greeting = peer->HandshakeAsConnector("test:1/raw", block);
  ASSERT_TRUE(greeting.Completed()) << greeting.failure << log.Dump();
  const std::string suffix = ":" + std::to_string(port) + "/server";
  EXPECT_NE(greeting.peerFirstName.text.find(suffix), std::string::npos);
  EXPECT_EQ(greeting.peerSecondName.bytes, greeting.peerFirstName.bytes);

  ASSERT_TRUE(peer->SendRequest(900, RAW_CALL, ADD_SLOT, RawList().Int32("a", 3).Int32("b", 4)));
  const auto reply = peer->ReadFrame();
  ASSERT_TRUE(reply) << peer->Problem() << log.Dump();
  EXPECT_EQ(reply->id, 900u);
  EXPECT_EQ(reply->kind, RAW_REPLY);
  EXPECT_EQ(reply->list, RawList().Int32("sum", 7));

  peer->Close();
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, "Remote disconnect: \"test:1/raw\" stopped")) << log.Dump();
}

TEST_F(RawPeerWithLibrary, IsTurnedAwayWithAWrongDigest) {
  auto peer = RawPeer::Connect(port);
  ASSERT_TRUE(peer);
  HandshakeOptions options;
  options.wrongDigest = true;
  const auto greeting = peer->HandshakeAsConnector("test:1/raw", block, options);
  // The close may overtake the second name, but not the digest.
  EXPECT_GE(greeting.stepsDone, 4) << greeting.failure;
  EXPECT_LE(greeting.stepsDone, 5);
  EXPECT_TRUE(peer->WaitClosed());
  EXPECT_TRUE(log.WaitFor(TQ_LOG_WARNING, "Stage 2: credentials failed")) << log.Dump();
}

TEST_F(RawPeerWithLibrary, AcceptsANotificationAndACall) {
  RawListener listener(FreePort());
  char name[256] = "";
  auto connected = std::async(std::launch::async, [&] {
    return TQConnect(HostText(listener.Port()).c_str(), listener.Port(), name, sizeof name,
                     block.data(), 256);
  });
  auto peer = listener.Accept();
  ASSERT_TRUE(peer);
  const auto greeting = peer->HandshakeAsAcceptor("test:1/raw", block);
  ASSERT_TRUE(greeting.Completed()) << greeting.failure << log.Dump();
  EXPECT_TRUE(greeting.digestMatches);
  EXPECT_EQ(connected.get(), TQ_ERR_OK);
  EXPECT_STREQ(name, "test:1/raw");

  const _tag_HTQPARAMLIST params = TQCreateParamList();
  TQSetStringValue(params, "text", "hello");
  EXPECT_EQ(TQNotify(name, NOTE_SLOT, params, nullptr, nullptr), TQ_ERR_OK);
  const auto notification = peer->ReadFrame();
  ASSERT_TRUE(notification) << peer->Problem();
  EXPECT_EQ(notification->kind, RAW_NOTIFY);
  EXPECT_EQ(notification->slotId, NOTE_SLOT);
  EXPECT_EQ(notification->list, RawList().String("text", "hello"));

  auto called = std::async(std::launch::async, [&] { return TQCall(name, ADD_SLOT, params); });
  const auto call = peer->ReadFrame();
  ASSERT_TRUE(call) << peer->Problem();
  EXPECT_EQ(call->kind, RAW_CALL);
  EXPECT_EQ(call->id, notification->id + 1);
  EXPECT_TRUE(peer->SendReply(call->id, RawList().Handle("h", RawList().Int32("n", 5))));
  const _tag_HTQPARAMLIST result = called.get();
  const _tag_HTQPARAMLIST nested = TQGetHandleValue(result, "h");
  EXPECT_EQ(TQGetInt32Value(nested, "n"), 5u);
  TQCloseHandle(nested);
  TQCloseHandle(result);
  TQCloseHandle(params);
}

}  // namespace
}  // namespace TQ::test
