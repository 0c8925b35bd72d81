// Peers that send what no application of this library would: each ends its own session, as told
// and with the log lines told, and a neighbour in a process of its own does not notice.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <set>

#include "session/application_registry.h"
#include "session/session.h"
#include "support/transport.h"
#include "system/neighbour.h"

namespace TQ::test {
namespace {

using detail::SessionRef;
using std::chrono::milliseconds;
using Lines = std::vector<std::string>;

constexpr uint32_t ECHO = 7;  ///< answers with the list that it got, nested under "h"

const std::string CLOSED = InfoLine("Receive failed: socket closed");
const std::string DAMAGED = InfoLine("Deserialization failed");

SessionRef FindSession(const std::string& name) {
  return detail::g_applications.Find(name.c_str());
}

void Echo(const SlotCall& call) { TQSetHandleValue(call.result, "h", call.params); }

/// One hostile session under a name of its own.
class Attack {
 public:
  explicit Attack(Neighbourhood& neighbourhood, int receiveBuffer = 0)
      : town(neighbourhood),
        name("evil:" + std::to_string(++number) + "/raw"),
        peer(town.host.Admit(name, receiveBuffer)),
        ends(name + ":" + peer.RemoteAddress() + "<->" + peer.LocalAddress()) {}

  /// A request of the host that this peer has read; its id.
  uint32_t AwaitedRequest(CompletionRecorder& done, uint32_t slotId = 1) {
    EXPECT_EQ(TQNotify(name.c_str(), slotId, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
    const auto request = peer.ReadFrame();
    EXPECT_TRUE(request) << peer.Problem();
    return request ? request->id : 0;
  }

  /// The session has ended as one whose peer is lost, with these lines on its receiving thread
  /// before the end. `kept` is for a session that its unanswered requests would keep.
  void ExpectEnd(const Lines& lines, SessionRef kept = nullptr) {
    ASSERT_TRUE(town.host.WaitForEnd(name)) << name << "\n" << town.host.Log().Dump();
    Lines expected = {InfoLine("Application connected:" + name)};
    const Lines logged = AsLogged(lines);
    expected.insert(expected.end(), logged.begin(), logged.end());
    expected.push_back(InfoLine("Remote disconnect: \"" + name + "\" stopped"));
    expected.push_back(InfoLine("Receiving thread finished for " + ends));
    EXPECT_EQ(town.host.ReceivingThreadLog(name), expected);
    EXPECT_EQ(
        town.host.SendingThreadLog(name),
        (Lines{InfoLine("Removing application " + name),
               InfoLine("Cancel postponed outgoing Outgoing messages queue has been cleared for" +
                        name),
               InfoLine("All awaiting requests cancelled for " + name),
               InfoLine("Sending thread finished for " + ends)}));
    if (kept) {
      kept->Awaiting().Clear();
      kept.Reset();
    }
    if (peer.IsOpen()) {
      EXPECT_TRUE(peer.WaitClosed()) << peer.Problem();
    }
    town.host.Log().Clear();
  }

  /// Sends the bytes and then no more.
  void ExpectEndAfter(const Bytes& bytes, const Lines& lines) {
    ASSERT_TRUE(peer.SendBytes(bytes)) << peer.Problem();
    ExpectEnd(lines);
  }

  Neighbourhood& town;
  const std::string name;
  RawPeer peer;
  const std::string ends;

 private:
  static inline int number = 0;
};

/// A list of two levels below the top one.
RawList NestedList() {
  const RawList grandchild = RawList().String("s", "deep");
  const RawList child = RawList().Int32("y", 2).Handle("g", grandchild);
  return RawList().Int32("x", 1).Handle("h", child).Handle("i", RawList().Int64("z", 3));
}

/// One entry of each type.
RawList ListOfAllTypes() {
  return RawList()
      .String("s", "text")
      .Int32("i", 7)
      .Int64("l", 8)
      .Binary("b", {1, 2, 3})
      .Handle("h", RawList())
      .StringArray("S", {"a", "bcd"})
      .Int32Array("I", {1, 2})
      .Int64Array("L", {3})
      .BinaryArray("B", {{1}, {2, 3}})
      .HandleArray("H", {RawList()});
}

/// The bytes of a request around any announced sizes.
Bytes Announce(uint32_t size, uint32_t count, const Bytes& body) {
  return Concat({RequestHead(1, RAW_CALL, ECHO, size, count), body});
}

// ---- handshake ---------------------------------------------------------------------------------

/// Runs a handshake that the host is to refuse.
void ExpectRefusal(Neighbourhood& town, const HandshakeOptions& options, const std::string& line,
                   const std::string& name = "evil:1/raw") {
  LogRecorder& log = town.host.Log();
  log.Clear();
  auto peer = RawPeer::Connect(town.host.Port());
  ASSERT_TRUE(peer);
  (void)peer->HandshakeAsConnector(name, {}, options);
  EXPECT_TRUE(peer->WaitClosed()) << peer->Problem();
  EXPECT_TRUE(log.WaitForCount(TQ_LOG_WARNING, "Application '' is not initialized", 2));
  EXPECT_TRUE(log.WaitFor(TQ_LOG_ERROR, ListenerLine("Application start failed")));
  EXPECT_EQ(log.CountOf(line), 1u) << log.Dump();
  EXPECT_EQ(log.CountOfPrefix("Stage "), 1u) << log.Dump();
  EXPECT_EQ(log.CountOfPrefix("Application connected:"), 0u);
  town.ExpectUnharmed();
}

TEST(HostilePeer, WithAWrongDigestIsRefused) {
  Neighbourhood town;
  HandshakeOptions options;
  options.wrongDigest = true;
  ExpectRefusal(town, options, "Stage 2: credentials failed");
  options.wrongDigest = false;
  options.digestBytes = Bytes(16, 0);
  ExpectRefusal(town, options, "Stage 2: credentials failed");
}

TEST(HostilePeer, WithANameAnnouncedAs257BytesIsRefused) {
  Neighbourhood town;
  HandshakeOptions options;
  options.firstNameBytes = Concat({U32(257), Filled(257, 'n')});
  ExpectRefusal(town, options, "Stage 1: no appID specified");
  options.firstNameBytes = Concat({U32(0xFFFFFFFF), Filled(16, 'n')});
  ExpectRefusal(town, options, "Stage 1: no appID specified");
}

TEST(HostilePeer, WithASecondNameAnnouncedAs257BytesIsRefused) {
  Neighbourhood town;
  HandshakeOptions options;
  options.secondNameBytes = Concat({U32(257), Filled(257, 'n')});
  ExpectRefusal(town, options, "Stage 1: no appID specified");
}

TEST(HostilePeer, WithoutANameIsRefused) {
  Neighbourhood town;
  HandshakeOptions options;
  for (const Bytes& name : {NameStringBytes(""), U32(0), Concat({U32(8), Bytes(8, 0)})}) {
    options.firstNameBytes = name;
    options.secondNameBytes.reset();
    ExpectRefusal(town, options, "Stage 1: no appID specified");
    options.firstNameBytes.reset();
    options.secondNameBytes = name;
    ExpectRefusal(town, options, "Stage 1: no appID specified");
  }
}

TEST(HostilePeer, ThatClosesAnywhereInTheHandshakeIsRefused) {
  Neighbourhood town;
  const Bytes name = NameStringBytes("evil:1/raw");
  // Before, inside and behind the first name, inside the digest, inside the second name.
  for (const size_t count : {size_t{0}, size_t{3}, size_t{9}, name.size(), name.size() + 7,
                             name.size() + 16 + 3, name.size() + 16 + 9}) {
    LogRecorder& log = town.host.Log();
    log.Clear();
    auto peer = RawPeer::Connect(town.host.Port());
    ASSERT_TRUE(peer);
    ASSERT_TRUE(peer->SendBytes(Prefix(name, count)));
    if (count >= name.size()) {
      ASSERT_TRUE(peer->ReadName()) << peer->Problem();
      const auto challenge = peer->ReceiveExactly(RAW_CHALLENGE_SIZE);
      ASSERT_TRUE(challenge) << peer->Problem();
      const Bytes rest = Concat({DigestBytes({}, *challenge), name});
      ASSERT_TRUE(peer->SendBytes(Prefix(rest, count - name.size())));
    }
    peer->ShutdownWrite();
    EXPECT_TRUE(peer->WaitClosed()) << peer->Problem();
    const bool credentials = count >= name.size() && count < name.size() + 16;
    EXPECT_TRUE(log.WaitFor(TQ_LOG_WARNING, credentials ? "Stage 2: credentials failed"
                                                        : "Stage 1: no appID specified"))
        << count << log.Dump();
    EXPECT_TRUE(log.WaitForCount(TQ_LOG_WARNING, "Application '' is not initialized", 2));
  }
}

TEST(HostilePeer, ThatFallsSilentInTheHandshakeIsGivenUpWithoutHoldingUpSessions) {
  Neighbourhood town;
  SessionHost::SetIoTimeout(SHORT_READS);
  for (const int steps : {0, 3, 4}) {
    LogRecorder& log = town.host.Log();
    log.Clear();
    auto peer = RawPeer::Connect(town.host.Port());
    ASSERT_TRUE(peer);
    HandshakeOptions options;
    options.stopAfterStep = steps;
    EXPECT_EQ(peer->HandshakeAsConnector("evil:1/raw", {}, options).stepsDone, steps);
    // The listener is waiting for this peer now, and nobody else is.
    town.ExpectUnharmed();
    EXPECT_TRUE(peer->WaitClosed()) << peer->Problem();
    EXPECT_TRUE(log.WaitFor(
        TQ_LOG_WARNING, steps == 3 ? "Stage 2: credentials failed" : "Stage 1: no appID specified"))
        << log.Dump();
    EXPECT_EQ(log.CountOf("Receive failed: no data arrived in expected 2 seconds11,expected=" +
                          std::string(steps == 3 ? "16" : "4")),
              TimesOfASocket(1))
        << log.Dump();
  }
}

TEST(HostilePeer, ThatSendsOneByteAtATimeIsServed) {
  Neighbourhood town;
  ScopedSlot slot(ECHO, &Echo);
  auto peer = RawPeer::Connect(town.host.Port());
  ASSERT_TRUE(peer);
  ASSERT_TRUE(peer->SendSlowly(NameStringBytes("slow:1/raw")));
  ASSERT_TRUE(peer->ReadName()) << peer->Problem();
  const auto challenge = peer->ReceiveExactly(RAW_CHALLENGE_SIZE);
  ASSERT_TRUE(challenge) << peer->Problem();
  ASSERT_TRUE(peer->SendSlowly(DigestBytes({}, *challenge)));
  ASSERT_TRUE(peer->SendSlowly(NameStringBytes("slow:1/raw")));
  ASSERT_TRUE(peer->ReadName()) << peer->Problem();
  ASSERT_TRUE(peer->SendSlowly(RequestBytes(5, RAW_CALL, ECHO, NestedList())));
  const auto reply = peer->ReadFrame();
  ASSERT_TRUE(reply) << peer->Problem();
  EXPECT_EQ(reply->bytes, ReplyBytes(5, RawList().Handle("h", NestedList())));
  // A reply in single bytes too.
  CallInThread call("slow:1/raw", 1);
  const auto request = peer->ReadFrame();
  ASSERT_TRUE(request) << peer->Problem();
  ASSERT_TRUE(peer->SendSlowly(ReplyBytes(request->id, NestedList())));
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_EQ(TQGetInt32Value(call.Result(), "x"), 1u);
  peer->ShutdownWrite();
  EXPECT_TRUE(peer->WaitClosed());
}

TEST(HostilePeer, MaySendFramesBeforeItHasReadTheEndOfTheHandshake) {
  Neighbourhood town;
  ScopedSlot slot(ECHO, &Echo);
  auto peer = RawPeer::Connect(town.host.Port());
  ASSERT_TRUE(peer);
  const Bytes name = NameStringBytes("early:1/raw");
  ASSERT_TRUE(peer->SendBytes(name));
  ASSERT_TRUE(peer->ReadName()) << peer->Problem();
  const auto challenge = peer->ReceiveExactly(RAW_CHALLENGE_SIZE);
  ASSERT_TRUE(challenge) << peer->Problem();
  ASSERT_TRUE(peer->SendBytes(
      Concat({DigestBytes({}, *challenge), name, RequestBytes(5, RAW_CALL, ECHO, NestedList())})));
  ASSERT_TRUE(peer->ReadName()) << peer->Problem();
  const auto reply = peer->ReadFrame();
  ASSERT_TRUE(reply) << peer->Problem();
  EXPECT_EQ(reply->id, 5u);
  peer->ShutdownWrite();
  EXPECT_TRUE(peer->WaitClosed());
}

TEST(HostilePeer, ThatIsSilentAfterTheHandshakeIsLeftAlone) {
  Neighbourhood town;
  ScopedSlot slot(ECHO, &Echo);
  Attack attack(town);
  SessionHost::SetIoTimeout(SHORT_READS);
  EXPECT_TRUE(attack.peer.StaysSilentFor(milliseconds{1500}));
  ASSERT_TRUE(attack.peer.SendRequest(1, RAW_CALL, ECHO));
  EXPECT_TRUE(attack.peer.ReadFrame()) << attack.peer.Problem();
  attack.peer.Close();
  attack.ExpectEnd({CLOSED});
}

// ---- cut frames --------------------------------------------------------------------------------

TEST(HostilePeer, ThatCutsARequestAtAnyByteEndsItsSession) {
  Neighbourhood town;
  ScopedSlot slot(ECHO, &Echo);
  const Bytes frame = RequestBytes(1, RAW_CALL, ECHO, NestedList());
  for (size_t count = 0; count < frame.size(); ++count) {
    SCOPED_TRACE(count);
    Attack attack(town);
    ASSERT_TRUE(attack.peer.SendBytes(Prefix(frame, count)));
    attack.peer.ShutdownWrite();
    // The first 16 bytes are read before there is a message that could be damaged.
    attack.ExpectEnd(count < 16 ? Lines{CLOSED} : Lines{CLOSED, DAMAGED});
  }
  EXPECT_EQ(slot.Calls(), 0u);
  // The whole frame is served.
  Attack whole(town);
  ASSERT_TRUE(whole.peer.SendBytes(frame));
  EXPECT_TRUE(whole.peer.ReadFrame()) << whole.peer.Problem();
  whole.peer.Close();
  whole.ExpectEnd({CLOSED});
}

TEST(HostilePeer, ThatCutsAReplyAtAnyByteEndsItsSessionAndLosesTheRequestBehindTheHead) {
  CompletionRecorder done;
  Neighbourhood town;
  const size_t size = ReplyBytes(1, NestedList()).size();
  for (size_t count = 0; count < size; ++count) {
    SCOPED_TRACE(count);
    Attack attack(town);
    const uint32_t id = attack.AwaitedRequest(done, static_cast<uint32_t>(count));
    // A request that is still in the table is cancelled and keeps its session.
    SessionRef kept = count < 16 ? FindSession(attack.name) : nullptr;
    ASSERT_TRUE(attack.peer.SendBytes(Prefix(ReplyBytes(id, NestedList()), count)));
    attack.peer.ShutdownWrite();
    attack.ExpectEnd({CLOSED}, std::move(kept));
  }
  // Once the head was read the entry is gone, and nothing completes the request.
  ASSERT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().sessions == 1; }));
  const auto calls = done.Calls();
  ASSERT_EQ(calls.size(), 16u);
  for (size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(calls[i].slotId, i);
    EXPECT_TRUE(calls[i].resultIsNull);
  }
}

TEST(HostilePeer, ThatStopsInTheMiddleOfABodyIsGivenUp) {
  Neighbourhood town;
  const Bytes frame = RequestBytes(1, RAW_CALL, ECHO, NestedList());
  for (const size_t count : {size_t{16}, frame.size() - 1}) {
    Attack attack(town);
    SessionHost::SetIoTimeout(SHORT_READS);
    ASSERT_TRUE(attack.peer.SendBytes(Prefix(frame, count)));
    town.ExpectUnharmed();
    attack.ExpectEnd({InfoLine("Receive failed: no data arrived in expected 2 seconds11,expected=" +
                               std::string(count == 16 ? "4" : "1")),
                      DAMAGED});
  }
}

TEST(HostilePeer, ThatBreaksTheConnectionInTheMiddleOfAFrameEndsItsSession) {
  Neighbourhood town;
  const Bytes frame = RequestBytes(1, RAW_CALL, ECHO, NestedList());
  for (const size_t count : {size_t{7}, size_t{18}, size_t{30}}) {
    Attack attack(town);
    ASSERT_TRUE(attack.peer.SendBytes(Prefix(frame, count)));
    EXPECT_TRUE(attack.peer.StaysSilentFor(milliseconds{20}));
    attack.peer.Reset();
    ASSERT_TRUE(town.host.WaitForEnd(attack.name));
    EXPECT_EQ(town.host.Log().CountOf("Remote disconnect: \"" + attack.name + "\" stopped"), 1u);
    EXPECT_EQ(town.host.Log().CountOf("Deserialization failed"), count < 16 ? 0u : 1u);
    EXPECT_EQ(town.host.Log().CountOfPrefix("Receive failed with code "), TimesOfASocket(1));
    town.host.Log().Clear();
  }
}

// ---- kinds and ids -----------------------------------------------------------------------------

TEST(HostilePeer, ThatSendsAnUnknownKindEndsItsSessionWithoutAMessage) {
  Neighbourhood town;
  for (const uint32_t kind : {0u, 4u, 7u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(kind);
    Attack attack(town);
    attack.ExpectEndAfter(ReplyHead(1, 0, 0, kind), {});
  }
}

TEST(HostilePeer, ThatRepliesToNothingEndsItsSession) {
  Neighbourhood town;
  for (const uint32_t id : {0u, 1u, 1000000u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(id);
    Attack attack(town);
    attack.ExpectEndAfter(ReplyBytes(id, NestedList()), {});
  }
}

TEST(HostilePeer, ThatRepliesTwiceEndsItsSession) {
  CompletionRecorder done;
  Neighbourhood town;
  Attack attack(town);
  const uint32_t id = attack.AwaitedRequest(done);
  ASSERT_TRUE(attack.peer.SendReply(id, RawList().Int32("x", 5)));
  attack.ExpectEndAfter(ReplyBytes(id, RawList().Int32("x", 6)), {});
  ASSERT_EQ(done.Count(), 1u);
  EXPECT_EQ(done.Calls()[0].resultX, 5u);
}

TEST(HostilePeer, ThatRepliesToANotificationEndsItsSession) {
  Neighbourhood town;
  Attack attack(town);
  ASSERT_EQ(TQNotify(attack.name.c_str(), 1, {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  const auto notification = attack.peer.ReadFrame();
  ASSERT_TRUE(notification) << attack.peer.Problem();
  attack.ExpectEndAfter(ReplyBytes(notification->id, RawList()), {});
}

TEST(HostilePeer, CannotAnswerForAnotherSession) {
  Neighbourhood town;
  RawPeer honest = town.host.Admit("honest:1/raw");
  CallInThread call("honest:1/raw", 1);
  const auto request = honest.ReadFrame();
  ASSERT_TRUE(request) << honest.Problem();
  Attack attack(town);
  attack.ExpectEndAfter(ReplyBytes(request->id, RawList().Int32("x", 666)), {});
  EXPECT_FALSE(call.HasReturned());
  ASSERT_TRUE(honest.SendReply(request->id, RawList().Int32("x", 1)));
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_EQ(TQGetInt32Value(call.Result(), "x"), 1u);
  honest.ShutdownWrite();
  EXPECT_TRUE(honest.WaitClosed());
}

// ---- damaged lists -----------------------------------------------------------------------------

TEST(HostilePeer, ThatDamagesTheTypeByteOfAnyEntryEndsItsSession) {
  Neighbourhood town;
  ScopedSlot slot(ECHO, &Echo);
  const RawList list = ListOfAllTypes();
  const auto values = list.Values();
  ASSERT_TRUE(values);
  for (const RawValue& value : *values) {
    for (const uint8_t code : Bytes{0x00, 0x06, 0x7F, 0x80, 0x86, 0xFF}) {
      SCOPED_TRACE(value.name + " " + std::to_string(code));
      RawList damaged = list;
      damaged.Patch(value.offset + list.Block()[value.offset], {code});
      Attack attack(town);
      attack.ExpectEndAfter(RequestBytes(1, RAW_CALL, ECHO, damaged), {DAMAGED});
    }
  }
  EXPECT_EQ(slot.Calls(), 0u);
  town.ExpectUnharmed();
}

TEST(HostilePeer, ThatDamagesANestedListEndsItsSession) {
  Neighbourhood town;
  const RawList damaged = RawList().Entry("e", 6, {});
  const std::vector<RawList> lists = {
      RawList().Handle("h", damaged),
      RawList().Handle("h", RawList()).Handle("i", damaged),
      RawList().Handle("h", damaged).Handle("i", RawList().Int32("x", 1)),
      RawList().Handle("h", RawList().Handle("g", damaged)),
      RawList().Child(damaged),
  };
  for (const RawList& list : lists) {
    Attack attack(town);
    // What follows the damage stays unread, so the end of the connection may be a broken one.
    attack.ExpectEndAfter(RequestBytes(1, RAW_CALL, ECHO, list), {DAMAGED});
  }
}

TEST(HostilePeer, ThatDamagesAReplyEndsItsSessionWithoutALineAndTheRequestIsNeverCompleted) {
  CompletionRecorder done;
  Neighbourhood town;
  const RawList list = ListOfAllTypes();
  const auto values = list.Values();
  ASSERT_TRUE(values);
  for (const RawValue& value : *values) {
    SCOPED_TRACE(value.name);
    RawList damaged = list;
    damaged.Patch(value.offset + list.Block()[value.offset], {6});
    Attack attack(town);
    const uint32_t id = attack.AwaitedRequest(done);
    attack.ExpectEndAfter(ReplyBytes(id, damaged), {});
  }
  EXPECT_EQ(done.Count(), 0u);
}

TEST(HostilePeer, ThatSendsEntriesPastTheEndOfTheBlockEndsItsSession) {
  Neighbourhood town;
  const RawList list = ListOfAllTypes();
  const auto values = list.Values();
  ASSERT_TRUE(values);
  const std::set<size_t> ends = [&] {
    std::set<size_t> all = {0};
    for (const RawValue& value : *values) all.insert(value.offset + value.size);
    return all;
  }();
  for (size_t size = 1; size < list.BlockSize(); ++size) {
    if (ends.count(size) != 0) continue;  // a shorter list, but a good one
    SCOPED_TRACE(size);
    RawList cut = list;
    cut.Truncate(size);
    Attack attack(town);
    attack.ExpectEndAfter(RequestBytes(1, RAW_CALL, ECHO, cut), {DAMAGED});
  }
}

TEST(HostilePeer, ThatDamagesAnyByteOfAFrameIsEitherServedOrEndsItsSessionAlone) {
  Neighbourhood town;
  std::atomic<uint32_t> walked{0};
  ScopedSlot slot(ECHO, [&](const SlotCall& call) {
    // A host that looks at everything it got.
    const auto* info = TQGetFirstParam(call.params);
    while (info != nullptr) {
      ++walked;
      info = TQGetNextParam(call.params, info);
    }
    for (const char* name : {"x", "h", "i"}) {
      (void)TQGetInt32Value(call.params, name);
      TQCloseHandle(TQGetHandleValue(call.params, name));
    }
  });
  // Notifications, since the reply to a peer that is gone by then would keep its session.
  const Bytes frame = RequestBytes(1, RAW_NOTIFY, ECHO, NestedList());
  for (size_t position = 0; position < frame.size(); ++position) {
    for (const uint8_t flip : Bytes{0x80, 0x01}) {
      SCOPED_TRACE(position);
      Bytes damaged = frame;
      damaged[position] ^= flip;
      Attack attack(town);
      ASSERT_TRUE(attack.peer.SendBytes(damaged));
      attack.peer.ShutdownWrite();
      ASSERT_TRUE(town.host.WaitForEnd(attack.name));
      EXPECT_TRUE(attack.peer.WaitClosed()) << attack.peer.Problem();
      EXPECT_EQ(town.host.Log().CountOf("Remote disconnect: \"" + attack.name + "\" stopped"), 1u);
      town.host.Log().Clear();
    }
  }
  EXPECT_GT(walked, 0u);
}

// ---- announced sizes ---------------------------------------------------------------------------

TEST(HostilePeer, ThatAnnouncesABlockSizeThatWrapsEndsItsSession) {
  Neighbourhood town;
  for (uint32_t shortRead = 0; shortRead < 8; ++shortRead) {
    SCOPED_TRACE(shortRead);
    const uint32_t size = 0xFFFFFFF8 + shortRead;
    Attack top(town);
    top.ExpectEndAfter(Announce(size, 1, Filled(shortRead, 1)), {DAMAGED});
    // The same in the descriptor of a nested list, with nested lists of its own and without.
    Attack nested(town);
    nested.ExpectEndAfter(Announce(0, 1, Concat({U32(size), U32(1), Filled(shortRead, 1)})),
                          {DAMAGED});
    Attack sibling(town);
    sibling.ExpectEndAfter(Announce(0, 2, Concat({U32(size), U32(0), Filled(shortRead, 1)})),
                           {DAMAGED});
  }
}

TEST(HostilePeer, ThatWrapsTheBlockSizeOfAReplyEndsItsSession) {
  CompletionRecorder done;
  Neighbourhood town;
  for (const uint32_t shortRead : {0u, 3u, 7u}) {
    Attack attack(town);
    const uint32_t id = attack.AwaitedRequest(done);
    attack.ExpectEndAfter(Concat({ReplyHead(id, 0xFFFFFFF8 + shortRead, 1), Filled(shortRead, 1)}),
                          {});
  }
  EXPECT_EQ(done.Count(), 0u);
}

TEST(HostilePeer, ThatAnnouncesMoreThanTheReadLimitEndsItsSessionWithoutARead) {
  CompletionRecorder done;
  Neighbourhood town;
  SessionHost::SetMaxReadSize(4096);
  ScopedSlot slot(ECHO, [](const SlotCall&) {});
  for (const auto& [size, count] : {std::pair{4097u, 0u},
                                    {4089u, 1u},
                                    {0x80000000u, 0u},
                                    {0xFFFFFFFFu, 0u},
                                    {0xFFFFFFF7u, 1u}}) {
    SCOPED_TRACE(size);
    Attack attack(town);
    attack.ExpectEndAfter(Announce(size, count, {}), {DAMAGED});
    Attack replying(town);
    const uint32_t id = replying.AwaitedRequest(done);
    replying.ExpectEndAfter(ReplyHead(id, size, count), {});
  }
  EXPECT_EQ(done.Count(), 0u);
  // Up to the limit, the descriptor behind a block included, a list is read.
  Attack good(town);
  for (const RawList& list : {RawList().Binary("b", Bytes(4096 - 8, 1)),
                              RawList().Binary("b", Bytes(4088 - 16, 1)).Handle("h", RawList())}) {
    EXPECT_EQ(list.BlockSize() + 8 * list.HandleCount(), 4096u);
    ASSERT_TRUE(good.peer.SendRequest(1, RAW_CALL, ECHO, list));
    ASSERT_TRUE(good.peer.ReadFrame()) << good.peer.Problem();
  }
  EXPECT_EQ(slot.Calls(), 2u);
  good.peer.Close();
  good.ExpectEnd({CLOSED});
}

TEST(HostilePeer, ThatAnnouncesMoreThanTheDefaultReadLimitEndsItsSession) {
  Neighbourhood town;
  Attack attack(town);
  attack.ExpectEndAfter(Announce(0x40000001, 0, {}), {DAMAGED});
}

TEST(HostilePeer, ThatAnnouncesMoreListsThanItSendsEndsItsSession) {
  Neighbourhood town;
  for (const uint32_t count : {2u, 1000u, 0x01000000u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(count);
    Attack attack(town);
    // Two empty nested lists, then the end. A notification, since the reply to a peer that is gone
    // by then would keep its session.
    ASSERT_TRUE(
        attack.peer.SendBytes(Concat({RequestHead(1, RAW_NOTIFY, ECHO, 0, count), Bytes(16, 0)})));
    attack.peer.ShutdownWrite();
    ASSERT_TRUE(town.host.WaitForEnd(attack.name));
    EXPECT_EQ(town.host.Log().CountOf("Deserialization failed"), count == 2 ? 0u : 1u)
        << town.host.Log().Dump();
    EXPECT_EQ(town.host.Log().CountOf("Remote disconnect: \"" + attack.name + "\" stopped"), 1u);
    town.host.Log().Clear();
    EXPECT_TRUE(attack.peer.WaitClosed()) << attack.peer.Problem();
  }
}

TEST(HostilePeer, MaySendManyNestedLists) {
  constexpr uint32_t COUNT = 50000;
  Neighbourhood town;
  std::atomic<uint32_t> handles{0};
  ScopedSlot slot(ECHO, [&](const SlotCall& call) {
    while (TQGetHandleById(call.params, handles).impl != nullptr) ++handles;
  });
  Attack attack(town);
  ASSERT_TRUE(attack.peer.SendBytes(Announce(0, COUNT, Bytes(size_t{8} * COUNT, 0))));
  ASSERT_TRUE(attack.peer.ReadFrame()) << attack.peer.Problem();
  EXPECT_EQ(handles, COUNT);
  attack.peer.Close();
  attack.ExpectEnd({CLOSED});
}

TEST(HostilePeer, MayNestListsAThousandLevelsDeep) {
  constexpr uint32_t DEPTH = 1000;
  Neighbourhood town;
  std::atomic<uint32_t> depth{0};
  ScopedSlot slot(ECHO, [&](const SlotCall& call) {
    _tag_HTQPARAMLIST level = call.params;
    while ((level = TQGetHandleById(level, 0)).impl != nullptr) ++depth;
    Echo(call);
  });
  // Every level is one handle value; the innermost list is empty.
  const Bytes block = RawList().HandleIndex("h", 0).Block();
  const auto blockSize = static_cast<uint32_t>(block.size());
  Bytes body;
  for (uint32_t level = 1; level <= DEPTH; ++level) {
    Append(body, block);
    const bool last = level == DEPTH;
    Append(body, Concat({U32(last ? 0 : blockSize), U32(last ? 0 : 1)}));
  }
  Attack attack(town);
  ASSERT_TRUE(attack.peer.SendBytes(Announce(blockSize, 1, body)));
  const Bytes expected = Concat({ReplyHead(1, blockSize, 1), block, U32(blockSize), U32(1), body});
  EXPECT_EQ(attack.peer.ReceiveExactly(expected.size()), expected);
  EXPECT_EQ(depth, DEPTH);
  attack.peer.Close();
  attack.ExpectEnd({CLOSED});
}

// ---- the library's own slots -------------------------------------------------------------------

TEST(HostilePeer, CannotDisturbTheSlotsThatServeSignals) {
  Neighbourhood town;
  TQRegisterSignal("known");
  const std::vector<RawList> bodies = {
      RawList(),
      RawList().Int32("slotName", 1),
      RawList().Int32("signalName", 1).Int32("slotName", 1),
      RawList().String("signalName", "").Int32("slotName", 1),
      RawList().String("signalName", "unknown").Int32("slotName", 1),
      RawList().String("signalName", std::string(100000, 's')).Int32("slotName", 1),
      RawList().Handle("signalName", RawList()).NoHandle("slotName"),
      RawList().HandleIndex("signalName", 77).HandleIndexArray("slotName", {1, 2, 3}),
  };
  Attack attack(town);
  for (const uint32_t slotId : {RAW_CONNECT_SIGNAL, RAW_DISCONNECT_SIGNAL}) {
    for (const RawList& body : bodies) {
      ASSERT_TRUE(attack.peer.SendRequest(1, RAW_NOTIFY, slotId, body));
      ASSERT_TRUE(attack.peer.SendRequest(2, RAW_CALL, slotId, body));
      const auto reply = attack.peer.ReadFrame();
      ASSERT_TRUE(reply) << attack.peer.Problem();
      EXPECT_EQ(reply->bytes, ReplyBytes(2, RawList()));
    }
  }
  EXPECT_EQ(TQEmit("known", {nullptr}, nullptr, nullptr), TQ_ERR_OK);
  EXPECT_TRUE(attack.peer.StaysSilentFor(milliseconds{20}));
  attack.peer.Close();
  attack.ExpectEnd({CLOSED});
}

// ---- time and load -----------------------------------------------------------------------------

TEST(HostilePeer, ThatRepliesBeforeItHasReadTheRequestDoesNotSeeWhatTheCallerDoesNext) {
  Neighbourhood town;
  Attack attack(town, SMALL_RECEIVE_BUFFER);
  const Bytes value = Pattern(MORE_THAN_BUFFERS);
  uint32_t x = 0;
  std::thread caller([&] {
    const _tag_HTQPARAMLIST params = TQCreateParamList();
    TQSetBinaryValue(params, "b", value.data(), static_cast<uint32_t>(value.size()));
    const _tag_HTQPARAMLIST reply = TQCall(attack.name.c_str(), 1, params);
    // The list is the caller's own again.
    x = TQGetInt32Value(reply, "x");
    TQRemoveAllValues(params);
    TQSetBinaryValue(params, "b", Bytes(value.size(), 0xEE).data(),
                     static_cast<uint32_t>(value.size()));
    TQSetInt64Value(params, "more", 1);
    TQCloseHandle(params);
    TQCloseHandle(reply);
  });
  const auto head = attack.peer.ReceiveExactly(20);
  ASSERT_TRUE(head) << attack.peer.Problem();
  ASSERT_TRUE(attack.peer.SendReply(ReadU32(head->data()), RawList().Int32("x", 5)));
  town.ExpectUnharmed();
  const Bytes block = RawList().Binary("b", value).Block();
  EXPECT_EQ(ReadU32(head->data() + 12), block.size());
  EXPECT_TRUE(attack.peer.ReceiveExactly(block.size()) == block) << attack.peer.Problem();
  caller.join();
  EXPECT_EQ(x, 5u);
  attack.peer.Close();
  attack.ExpectEnd({CLOSED});
}

TEST(HostilePeer, ThatFloodsWithNotificationsIsServedInOrderWithTheOthers) {
  constexpr uint32_t COUNT = 20000;
  Neighbourhood town;
  std::atomic<uint32_t> next{0};
  std::atomic<uint32_t> outOfOrder{0};
  ScopedSlot slot(8, [&](const SlotCall& call) {
    if (TQGetInt32Value(call.params, "n") != next++) ++outOfOrder;
  });
  Attack attack(town);
  Bytes batch;
  for (uint32_t i = 0; i < COUNT; ++i) {
    Append(batch, RequestBytes(i, RAW_NOTIFY, 8, RawList().Int32("n", i)));
    if (batch.size() > 60000 || i + 1 == COUNT) {
      ASSERT_TRUE(attack.peer.SendBytes(batch)) << attack.peer.Problem();
      batch.clear();
    }
  }
  town.ExpectUnharmed();
  EXPECT_TRUE(WaitUntil([&] { return slot.Calls() == COUNT; }));
  EXPECT_EQ(outOfOrder, 0u);
  attack.peer.Close();
  attack.ExpectEnd({CLOSED});
}

TEST(HostilePeer, ThatNeverReadsWhileItCallsHoldsUpOnlyItself) {
  constexpr uint32_t COUNT = 200;
  Neighbourhood town;
  const Bytes value = Filled(65536, 1);
  ScopedSlot slot(8, [&](const SlotCall& call) {
    TQSetBinaryValue(call.result, "b", value.data(), static_cast<uint32_t>(value.size()));
  });
  Attack attack(town, SMALL_RECEIVE_BUFFER);
  for (uint32_t i = 0; i < COUNT; ++i) {
    ASSERT_TRUE(attack.peer.SendRequest(i, RAW_CALL, 8)) << attack.peer.Problem();
  }
  ASSERT_TRUE(WaitUntil([&] { return slot.Calls() == COUNT; }));
  // All its replies wait, and others are served.
  town.ExpectUnharmed();
  EXPECT_GT(DEBUG_TQObjectCount().messages, COUNT / 2);
  attack.peer.Reset();
  ASSERT_TRUE(town.host.WaitForEnd(attack.name));
  EXPECT_TRUE(town.host.WaitForSessions(1));
  EXPECT_EQ(town.host.Log().CountOf("Remote disconnect: \"" + attack.name + "\" stopped"), 1u);
}

TEST(HostilePeer, ThatComesBackOverAndOverLeavesNothingBehind) {
  Neighbourhood town;
  for (int round = 0; round < 50; ++round) {
    Attack attack(town);
    attack.ExpectEndAfter(ReplyHead(1, 0, 0, 4), {});
  }
}

}  // namespace
}  // namespace TQ::test
