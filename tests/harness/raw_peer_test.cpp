#include "support/raw_peer.h"

#include "support/free_port.h"
#include "support/hex.h"
#include "support/loopback_pair.h"
#include "support/transport.h"

#include <gtest/gtest.h>

#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

namespace TQ::test {
namespace {

using std::chrono::milliseconds;

using Ends = std::pair<RawPeer, RawPeer>;

Ends ConnectSockets(int bufferSize) {
  LoopbackPair pair(bufferSize);
  RawPeer left(pair.TakeNear());
  return {std::move(left), pair.TakeFarAsPeer()};
}

Ends ConnectPipes() {
  RawListener listener(FreePort());
  std::optional<RawPeer> left;
  std::thread connector([&] { left = RawPeer::Connect(listener.Port()); });
  auto right = listener.Accept();
  connector.join();
  return {std::move(left.value()), std::move(right.value())};
}

// A connection between two peers. A buffer size above 0 is for sockets.
struct Pair {
  explicit Pair(int bufferSize = 0)
      : Pair(OverPipes() ? ConnectPipes() : ConnectSockets(bufferSize)) {}
  explicit Pair(Ends&& ends) : left(std::move(ends.first)), right(std::move(ends.second)) {}

  RawPeer left;
  RawPeer right;
};

TEST(RawPeer, EncodesNameStrings) {
  EXPECT_EQ(ToHex(NameStringBytes("abc")), "04 00 00 00 61 62 63 00");
  EXPECT_EQ(ToHex(NameStringBytes("abcd")), "08 00 00 00 61 62 63 64 00 00 00 00");
  EXPECT_EQ(ToHex(NameStringBytes("")), "04 00 00 00 00 00 00 00");
  EXPECT_EQ(NameStringBytes(std::string(255, 'n')).size(), 4u + 256u);
  EXPECT_EQ(NameStringBytes(std::string(256, 'n')).size(), 4u + 260u);
}

TEST(RawPeer, EncodesFrames) {
  EXPECT_EQ(ToHex(RequestBytes(1, RAW_CALL, 0xFFFFFFFF, RawList())),
            "01 00 00 00 01 00 00 00 ff ff ff ff 00 00 00 00 00 00 00 00");
  EXPECT_EQ(ToHex(ReplyBytes(1, RawList().Int32("ab", 7))),
            "01 00 00 00 02 00 00 00 0c 00 00 00 00 00 00 00 "
            "07 61 62 00 00 00 00 02 07 00 00 00");
}

TEST(RawPeer, FillsAShortAuthenticationBlockWithZeros) {
  EXPECT_EQ(ToHex(DigestBytes({}, Bytes(1024)), ""), "a5058431022ad56a091a49521b5cb35b");
  Bytes full(256);
  full[0] = 5;
  EXPECT_EQ(DigestBytes({5}, Pattern(1024)), DigestBytes(full, Pattern(1024)));
  EXPECT_NE(DigestBytes({5}, Pattern(1024)), DigestBytes({}, Pattern(1024)));
}

TEST(RawPeer, ConnectsOnceSomeoneListens) {
  const uint16_t port = FreePort();
  EXPECT_FALSE(RawPeer::TryConnect(port));
  EXPECT_FALSE(RawPeer::Connect(port, milliseconds{20}));
  std::optional<RawPeer> peer;
  std::thread connector([&] { peer = RawPeer::Connect(port); });
  RawListener listener(port);
  auto accepted = listener.Accept();
  connector.join();
  ASSERT_TRUE(peer);
  ASSERT_TRUE(accepted);
  EXPECT_FALSE(listener.Accept(milliseconds{10}));
}

TEST(RawPeerOverTcp, HasTheAddressesOfItsEnds) {
  RawListener listener(FreePort());
  const auto peer = RawPeer::Connect(listener.Port());
  const auto accepted = listener.Accept();
  ASSERT_TRUE(peer && accepted);
  EXPECT_EQ(peer->LocalAddress(), "127.0.0.1:" + std::to_string(peer->LocalPort()));
  EXPECT_EQ(peer->RemoteAddress(), "127.0.0.1:" + std::to_string(listener.Port()));
  EXPECT_EQ(accepted->LocalAddress(), peer->RemoteAddress());
  EXPECT_EQ(accepted->RemoteAddress(), peer->LocalAddress());
}

TEST(RawPeerOverPipes, HasTheNamesThatTheOtherSideGivesItsPipes) {
  const uint16_t port = FreePort();
  RawListener listener(port);
  std::optional<RawPeer> peer;
  std::thread connector([&] { peer = RawPeer::Connect(port); });
  const auto accepted = listener.Accept();
  connector.join();
  ASSERT_TRUE(peer && accepted);
  // An accepting side has names without a backslash and reads what is written to "_in".
  EXPECT_EQ(peer->LocalAddress(), PipeName(port) + "_out");
  EXPECT_EQ(peer->RemoteAddress(), PipeName(port) + "_in");
  EXPECT_EQ(accepted->LocalAddress(), "\\" + PipeName(port) + "_in");
  EXPECT_EQ(accepted->RemoteAddress(), "\\" + PipeName(port) + "_out");
}

TEST(RawPeerOverPipes, AreTakenOneAtATime) {
  RawListener listener(FreePort());
  for (uint8_t round = 1; round <= 3; ++round) {
    std::optional<RawPeer> peer;
    std::thread connector([&] { peer = RawPeer::Connect(listener.Port()); });
    auto accepted = listener.Accept();
    connector.join();
    ASSERT_TRUE(peer && accepted);
    EXPECT_TRUE(peer->SendBytes({round}));
    EXPECT_EQ(accepted->ReceiveExactly(1), Bytes{round});
  }
}

TEST(RawPeerOverPipes, TakeTheirNamesAlone) {
  const uint16_t port = FreePort();
  EXPECT_FALSE(platform::PipeListens(PipeName(port) + "_in"));
  {
    const RawListener listener(port);
    EXPECT_TRUE(platform::PipeListens(PipeName(port) + "_in"));
    EXPECT_TRUE(platform::PipeListens(PipeName(port) + "_out"));
    EXPECT_FALSE(platform::PipeListens(PipeName(port)));
    EXPECT_THROW(RawListener{port}, std::runtime_error);
  }
  EXPECT_FALSE(platform::PipeListens(PipeName(port) + "_in"));
}

TEST(RawPeerOverPipes, GoOnWritingWithoutThePipeThatTheyRead) {
  Pair pair;
  pair.left.CloseReadPipe();
  EXPECT_FALSE(pair.left.IsOpen());
  EXPECT_FALSE(pair.right.SendBytes({1}));
  EXPECT_TRUE(pair.left.SendBytes({7}));
  EXPECT_EQ(pair.right.ReceiveExactly(1), Bytes{7});
  pair.left.Close();
  EXPECT_TRUE(pair.right.WaitClosed());
}

TEST(RawPeerOverPipes, HaveOnlyACloseForABreak) {
  Pair pair;
  pair.left.Reset();
  EXPECT_TRUE(pair.right.WaitClosed());
  EXPECT_FALSE(pair.right.WasReset());
  EXPECT_FALSE(pair.right.SendBytes({1}));
}

TEST(RawPeer, CarriesBytesInBothDirections) {
  Pair pair;
  const Bytes bytes = Pattern(100000);
  std::thread sender([&] { EXPECT_TRUE(pair.left.SendBytes(bytes)); });
  EXPECT_EQ(pair.right.ReceiveExactly(bytes.size()), bytes);
  sender.join();
  EXPECT_TRUE(pair.right.SendSlowly({1, 2, 3}));
  EXPECT_EQ(pair.left.ReceiveExactly(3), (Bytes{1, 2, 3}));
}

TEST(RawPeer, GivesUpReceivingWhenTheTimeIsOver) {
  Pair pair;
  pair.left.SendBytes({1, 2});
  EXPECT_FALSE(pair.right.ReceiveExactly(3, milliseconds{20}));
  EXPECT_EQ(pair.right.Problem(), "receive, 1 of 3 bytes missing: no progress in time");
}

TEST(RawPeer, GivesUpSendingToAPeerThatDoesNotRead) {
  Pair small(4096);
  EXPECT_FALSE(small.left.SendBytes(Bytes(size_t{4} * 1024 * 1024), milliseconds{50}));
}

TEST(RawPeer, TellsSilenceFromBytesAndFromAClose) {
  Pair pair;
  EXPECT_TRUE(pair.right.StaysSilentFor(milliseconds{20}));
  pair.left.SendBytes({1});
  EXPECT_FALSE(pair.right.StaysSilentFor(milliseconds{5000}));
  pair.left.Close();
  EXPECT_FALSE(pair.right.StaysSilentFor(milliseconds{5000}));
}

TEST(RawPeer, SeesAnOrderlyClose) {
  Pair pair;
  EXPECT_FALSE(pair.right.WaitClosed(milliseconds{20}));
  pair.left.SendBytes({1, 2, 3});
  pair.left.Close();
  EXPECT_FALSE(pair.left.IsOpen());
  EXPECT_TRUE(pair.right.WaitClosed());
  EXPECT_FALSE(pair.right.WasReset());
}

TEST(RawPeerOverTcp, SeesABrokenConnection) {
  Pair pair;
  pair.left.Reset();
  EXPECT_TRUE(pair.right.WaitClosed());
  EXPECT_TRUE(pair.right.WasReset());
  EXPECT_FALSE(pair.right.SendBytes({1}));
}

TEST(RawPeer, GoesOnReadingAfterItsWritingSideIsShut) {
  Pair pair;
  pair.left.ShutdownWrite();
  EXPECT_TRUE(pair.right.WaitClosed());
  EXPECT_TRUE(pair.right.SendBytes({7}));
  EXPECT_EQ(pair.left.ReceiveExactly(1), (Bytes{7}));
}

TEST(RawPeer, ReturnsWhatCameBeforeTheClose) {
  Pair pair;
  pair.left.SendBytes({1, 2, 3});
  pair.left.Close();
  EXPECT_EQ(pair.right.ReceiveUntilClosed(), (Bytes{1, 2, 3}));
}

TEST(RawPeer, FailsEveryOperationOnceClosed) {
  Pair pair;
  RawPeer moved = std::move(pair.left);
  EXPECT_TRUE(moved.IsOpen());
  moved.Close();
  EXPECT_FALSE(moved.SendBytes({1}));
  EXPECT_FALSE(moved.ReceiveExactly(1));
  EXPECT_FALSE(moved.WaitClosed());
  EXPECT_FALSE(moved.StaysSilentFor(milliseconds{1}));
}

// Both sides of a handshake, each with its options.
struct Greeting {
  HandshakeResult connector;
  HandshakeResult acceptor;
};

Greeting Greet(Pair& pair, const Bytes& connectorBlock, const Bytes& acceptorBlock,
               const HandshakeOptions& connectorOptions = {},
               const HandshakeOptions& acceptorOptions = {}) {
  Greeting greeting;
  std::thread acceptor([&] {
    greeting.acceptor =
        pair.right.HandshakeAsAcceptor("here:2/acceptor", acceptorBlock, acceptorOptions);
  });
  greeting.connector =
      pair.left.HandshakeAsConnector("there:1/connector", connectorBlock, connectorOptions);
  acceptor.join();
  return greeting;
}

TEST(RawHandshake, CompletesWithEqualBlocks) {
  Pair pair;
  const Greeting greeting = Greet(pair, Pattern(256), Pattern(256));
  EXPECT_TRUE(greeting.connector.Completed()) << greeting.connector.failure;
  EXPECT_TRUE(greeting.acceptor.Completed()) << greeting.acceptor.failure;
  EXPECT_EQ(greeting.connector.peerFirstName.text, "here:2/acceptor");
  EXPECT_EQ(greeting.connector.peerSecondName.bytes, NameStringBytes("here:2/acceptor"));
  EXPECT_EQ(greeting.acceptor.peerFirstName.text, "there:1/connector");
  EXPECT_EQ(greeting.acceptor.peerSecondName.text, "there:1/connector");
  EXPECT_EQ(greeting.connector.challenge, greeting.acceptor.challenge);
  EXPECT_EQ(greeting.connector.challenge.size(), RAW_CHALLENGE_SIZE);
  EXPECT_TRUE(greeting.acceptor.digestMatches);
}

TEST(RawHandshake, ShowsADigestOfAnotherBlock) {
  Pair pair;
  const Greeting greeting = Greet(pair, {1}, {2});
  EXPECT_FALSE(greeting.acceptor.digestMatches);
}

TEST(RawHandshake, SendsAWrongDigestOnRequest) {
  Pair pair;
  HandshakeOptions options;
  options.wrongDigest = true;
  const Greeting greeting = Greet(pair, {1}, {1}, options);
  EXPECT_FALSE(greeting.acceptor.digestMatches);
  EXPECT_EQ(greeting.acceptor.digest, greeting.connector.digest);
}

TEST(RawHandshake, SendsAnotherSecondNameOnRequest) {
  Pair pair;
  HandshakeOptions options;
  options.secondName = "other:3/name";
  const Greeting greeting = Greet(pair, {}, {}, options, options);
  EXPECT_EQ(greeting.acceptor.peerFirstName.text, "there:1/connector");
  EXPECT_EQ(greeting.acceptor.peerSecondName.text, "other:3/name");
  EXPECT_EQ(greeting.connector.peerSecondName.text, "other:3/name");
}

TEST(RawHandshake, StopsAfterEveryStep) {
  for (int step = 0; step <= 6; ++step) {
    Pair pair;
    HandshakeOptions options;
    options.stopAfterStep = step;
    const Greeting greeting = Greet(pair, {}, {}, options, options);
    EXPECT_EQ(greeting.connector.stepsDone, step) << greeting.connector.failure;
    EXPECT_EQ(greeting.acceptor.stepsDone, step) << greeting.acceptor.failure;
    EXPECT_TRUE(pair.left.StaysSilentFor(milliseconds{1}));
    EXPECT_TRUE(pair.right.StaysSilentFor(milliseconds{1}));
  }
}

TEST(RawHandshake, SendsGivenBytesInsteadOfItsOwn) {
  Pair pair;
  HandshakeOptions connectorOptions;
  connectorOptions.firstNameBytes = Concat({U32(8), ToBytes("ab"), Bytes(6)});
  connectorOptions.secondNameBytes = U32(0);
  connectorOptions.digestBytes = Bytes(16, 9);
  HandshakeOptions acceptorOptions;
  acceptorOptions.challengeBytes = Pattern(1024, 5);
  const Greeting greeting = Greet(pair, {}, {}, connectorOptions, acceptorOptions);
  EXPECT_EQ(greeting.acceptor.peerFirstName.text, "ab");
  EXPECT_EQ(greeting.acceptor.peerFirstName.paddedLength, 8u);
  EXPECT_EQ(greeting.acceptor.peerSecondName.bytes, U32(0));
  EXPECT_EQ(greeting.acceptor.digest, Bytes(16, 9));
  EXPECT_EQ(greeting.connector.challenge, Pattern(1024, 5));
}

TEST(RawHandshake, TellsTheStepThatFailed) {
  Pair pair;
  pair.right.ShutdownWrite();
  const HandshakeResult result = pair.left.HandshakeAsConnector("a:1/b");
  EXPECT_FALSE(result.Completed());
  EXPECT_EQ(result.stepsDone, 1);
  EXPECT_EQ(result.failure.find("step 2, receive first name: "), 0u) << result.failure;
}

TEST(RawFrames, ReadsWhatItSends) {
  Pair pair;
  const RawList list =
      RawList().String("s", "text").Handle("h", RawList().Int64("n", 1).Handle("e", RawList()));
  ASSERT_TRUE(pair.left.SendRequest(5, RAW_NOTIFY, 77, list));
  ASSERT_TRUE(pair.left.SendReply(6, list));
  ASSERT_TRUE(pair.left.SendRequest(7, RAW_CALL, 0xFFFFFFFE));

  const auto notify = pair.right.ReadFrame();
  ASSERT_TRUE(notify) << pair.right.Problem();
  EXPECT_EQ(notify->id, 5u);
  EXPECT_EQ(notify->kind, RAW_NOTIFY);
  EXPECT_EQ(notify->slotId, 77u);
  EXPECT_EQ(notify->list, list);
  EXPECT_EQ(notify->bytes, RequestBytes(5, RAW_NOTIFY, 77, list));

  const auto reply = pair.right.ReadFrame();
  ASSERT_TRUE(reply) << pair.right.Problem();
  EXPECT_EQ(reply->id, 6u);
  EXPECT_EQ(reply->kind, RAW_REPLY);
  EXPECT_EQ(reply->list, list);
  EXPECT_EQ(reply->bytes, ReplyBytes(6, list));

  const auto call = pair.right.ReadFrame();
  ASSERT_TRUE(call) << pair.right.Problem();
  EXPECT_EQ(call->slotId, 0xFFFFFFFEu);
  EXPECT_EQ(call->list, RawList());
}

TEST(RawFrames, SendsAHeadThatDoesNotFitItsBody) {
  Pair pair;
  ASSERT_TRUE(pair.left.SendRequest(1, RAW_CALL, 2, Bytes{9, 9}, 3, Bytes{8}));
  EXPECT_EQ(pair.right.ReceiveExactly(23),
            Concat({U32(1), U32(RAW_CALL), U32(2), U32(2), U32(3), {9, 9, 8}}));
  ASSERT_TRUE(pair.left.SendReply(1, Bytes{9, 9}, 3, Bytes{8}));
  EXPECT_EQ(pair.right.ReceiveExactly(19),
            Concat({U32(1), U32(RAW_REPLY), U32(2), U32(3), {9, 9, 8}}));
}

TEST(RawFrames, RefusesAnUnknownKind) {
  Pair pair;
  pair.left.SendBytes(RequestHead(1, 7, 0, 0, 0));
  EXPECT_FALSE(pair.right.ReadFrame());
  EXPECT_EQ(pair.right.Problem(), "a frame of kind 7");
}

TEST(RawFrames, RefusesAFrameThatIsCutAnywhere) {
  const Bytes frame = RequestBytes(1, RAW_CALL, 2, RawList().Handle("h", RawList().Int32("x", 1)));
  for (size_t size = 0; size < frame.size(); ++size) {
    Pair pair;
    pair.left.SendBytes(Prefix(frame, size));
    pair.left.Close();
    EXPECT_FALSE(pair.right.ReadFrame()) << size;
  }
}

TEST(LoopbackPair, TellsTheAddressesOfItsEnds) {
  LoopbackPair pair;
  EXPECT_EQ(pair.NearAddress(), "127.0.0.1:" + std::to_string(platform::LocalPort(pair.Near())));
  EXPECT_EQ(pair.FarAddress(), "127.0.0.1:" + std::to_string(platform::LocalPort(pair.Far())));
  const RawPeer far = pair.TakeFarAsPeer();
  EXPECT_EQ(far.LocalAddress(), pair.FarAddress());
  EXPECT_EQ(far.RemoteAddress(), pair.NearAddress());
}

}  // namespace
}  // namespace TQ::test
