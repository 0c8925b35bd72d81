// Both sides of the handshake: their steps one by one over a scripted channel, then over sockets
// against a peer that is not the library.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <array>
#include <climits>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "frame/settings.h"
#include "session/application_registry.h"
#include "session/session.h"
#include "support/bytes.h"
#include "support/child_process.h"
#include "support/listener_recorder.h"
#include "support/log_recorder.h"
#include "support/loopback_pair.h"
#include "support/process_info.h"
#include "support/raw_peer.h"
#include "support/scripted_channel.h"
#include "support/scripted_handshake.h"
#include "support/wait_until.h"
#include "transport/socket_channel.h"

namespace TQ::test {
namespace {

using std::chrono::milliseconds;

using detail::ChannelRef;
using detail::g_applications;
using detail::SessionRef;
using Texts = std::vector<std::string>;

constexpr const char* LOCAL_NAME = "here:2/local";
constexpr const char* PEER_NAME = "there:1/peer";
const std::string LOCAL_SEND = "send 20";       // 12 bytes of name: 16 with the terminator, and 4
const std::string PEER_RECEIVE = "receive 16";  // the same for the peer's name, read in two

const std::string UNKNOWN_CALL = "unknown script:local script:remote";

Texts LinesOf(const LogRecorder& log, std::thread::id thread) {
  Texts lines;
  for (const LogLine& line : log.Lines()) {
    if (line.thread == thread) {
      lines.push_back(std::to_string(line.level) + " " + line.text);
    }
  }
  return lines;
}

void StartAndJoinAThread() {
  std::thread([] {}).join();
}

// One session, a scripted channel for it, and everything that it tells anyone.
class HandshakeTest : public testing::Test {
 protected:
  HandshakeTest() {
    StartAndJoinAThread();
    threadsBefore = ThreadCount();
    detail::localApplicationName.Set(LOCAL_NAME);
    detail::limits.SetAuthBlock({});
  }

  ~HandshakeTest() override {
    channel->HangUp();
    session.Reset();
    EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().sessions == 0; })) << log.Dump();
    EXPECT_TRUE(WaitUntil([&] { return ThreadCount() == threadsBefore; }));
    EXPECT_EQ(g_applications.Size(), 0u);
  }

  bool Accept() { return session->AcceptHandshake(held); }

  _tag_TQ_ERROR Connect(const uint8_t* authData = nullptr, int32_t authLength = 0,
                        char* nameOut = nullptr, uint32_t nameOutSize = 0) {
    return session->ConnectHandshake(held, nameOut, nameOutSize, authData, authLength);
  }

  /// What this thread has logged, each line with its level.
  Texts CallerLog() const { return LinesOf(log, std::this_thread::get_id()); }

  /// The session was refused, as it must look from all sides.
  void ExpectRefused(const Texts& ownLines, const Texts& listenerCalls) {
    Texts expected = ownLines;
    expected.insert(expected.end(),
                    {"8 Start management threads for ", "8 Startup completed for "});
    EXPECT_EQ(CallerLog(), expected);
    EXPECT_EQ(listeners.Texts(), listenerCalls);
    for (const ListenerCall& call : listeners.Calls()) {
      if (call.text.rfind("connect ", 0) != 0) {
        EXPECT_EQ(call.thread, std::this_thread::get_id());
      }
    }
    EXPECT_FALSE(session->CheckValid());
    EXPECT_EQ(session->Name(), "");
    ASSERT_TRUE(log.WaitForCount(TQ_LOG_WARNING, "Application '' is not initialized", 2));
    EXPECT_EQ(log.CountOfPrefix("Application connected:"), 0u);
    EXPECT_EQ(log.CountOfPrefix("Removing application "), 0u);
    // Both threads end by themselves.
    EXPECT_TRUE(WaitUntil([&] { return ThreadCount() == threadsBefore + otherThreads; }));
    EXPECT_EQ(listeners.Texts(), listenerCalls);
  }

  void ExpectAdmitted(const std::string& name) {
    EXPECT_EQ(CallerLog(),
              (Texts{"8 Start management threads for " + name, "8 Startup completed for " + name}));
    EXPECT_TRUE(session->CheckValid());
    EXPECT_EQ(session->Name(), name);
    EXPECT_EQ(g_applications.Find(name.c_str()), session);
    EXPECT_EQ(log.CountOfPrefix("Application '"), 0u);
    EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, "Application connected:" + name));
  }

  LogRecorder log;
  ListenerRecorder listeners;
  int threadsBefore = 0;
  int otherThreads = 0;  ///< of other sessions of the test
  int atCheck = 0;       ///< threads when the channel was looked at first
  int atAddresses = 0;   ///< threads when it was asked for its address first
  ScriptedChannel* const channel = new ScriptedChannel();
  ChannelRef held{channel};
  SessionRef session{new TQAPPImpl()};
};

class AcceptHandshake : public HandshakeTest {};
class ConnectHandshake : public HandshakeTest {};

// ---- accepting side ----------------------------------------------------------------------------

TEST_F(AcceptHandshake, TakesItsStepsInOrderAndAdmits) {
  FeedConnector(*channel, PEER_NAME, PEER_NAME);
  EXPECT_TRUE(Accept());
  EXPECT_EQ(channel->Calls(),
            (Texts{"valid", "remote", "local", "receive 4", PEER_RECEIVE, LOCAL_SEND, "send 1024",
                   "receive 16", "receive 4", PEER_RECEIVE, LOCAL_SEND}));
  const auto writes = channel->Writes();
  ASSERT_EQ(writes.size(), 3u);
  EXPECT_EQ(writes[0], NameStringBytes(LOCAL_NAME));
  EXPECT_EQ(writes[2], NameStringBytes(LOCAL_NAME));
  EXPECT_EQ(channel->Unread(), 0u);
  ExpectAdmitted(PEER_NAME);
}

TEST_F(AcceptHandshake, TellsTheConnectListenerAlone) {
  FeedConnector(*channel, PEER_NAME, PEER_NAME);
  ASSERT_TRUE(Accept());
  const std::string call = "connect script:local script:remote there:1/peer there 1 peer";
  EXPECT_TRUE(listeners.WaitFor(call));
  EXPECT_EQ(listeners.Texts(), Texts{call});
  EXPECT_NE(listeners.Calls()[0].thread, std::this_thread::get_id());
}

TEST_F(AcceptHandshake, ChecksTheChannelBeforeItMakesItsThreads) {
  channel->Before("valid", [&](const void*) {
    if (atCheck == 0) atCheck = ThreadCount();
  });
  channel->Before("remote", [&](const void*) {
    if (atAddresses == 0) atAddresses = ThreadCount();
  });
  EXPECT_FALSE(Accept());
  EXPECT_EQ(atCheck, threadsBefore);
  EXPECT_EQ(atAddresses, threadsBefore + 2);
}

TEST_F(AcceptHandshake, KeepsItsThreadsParkedUntilItIsOver) {
  FeedConnector(*channel, PEER_NAME, PEER_NAME);
  bool seen = false;
  channel->Before(LOCAL_SEND, [&](const void*) {
    seen = true;
    EXPECT_EQ(ThreadCount(), threadsBefore + 2);
    EXPECT_FALSE(session->CheckValid());
    EXPECT_EQ(session->Name(), "");
    EXPECT_EQ(g_applications.Size(), 0u);
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
  });
  ASSERT_TRUE(Accept());
  EXPECT_TRUE(seen);
}

TEST_F(AcceptHandshake, RefusesAPeerThatGivesNoName) {
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 1: no appID specified"}, {UNKNOWN_CALL});
  EXPECT_TRUE(channel->Writes().empty());
}

TEST_F(AcceptHandshake, RefusesAnEmptyFirstName) {
  FeedConnector(*channel, "", PEER_NAME);
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 1: no appID specified"}, {UNKNOWN_CALL});
  EXPECT_TRUE(channel->Writes().empty());
}

TEST_F(AcceptHandshake, RefusesAFirstNameThatBeginsWithAZero) {
  channel->Feed(Concat({U32(8), ToBytes(std::string("\0ost:1/a", 8))}));
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 1: no appID specified"}, {UNKNOWN_CALL});
}

TEST_F(AcceptHandshake, RefusesAFirstNameThatIsTooLongAndLeavesItUnread) {
  channel->Feed(NameStringBytes(PEER_NAME + std::string(244, 'n')));
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 1: no appID specified"}, {UNKNOWN_CALL});
  EXPECT_EQ(channel->Calls(), (Texts{"valid", "remote", "local", "receive 4"}));
  EXPECT_EQ(channel->Unread(), 260u);
}

TEST_F(AcceptHandshake, RefusesAFirstNameThatIsCut) {
  channel->Feed(Prefix(NameStringBytes(PEER_NAME), 19));
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 1: no appID specified"}, {UNKNOWN_CALL});
  EXPECT_TRUE(channel->Writes().empty());
}

TEST_F(AcceptHandshake, RefusesWhenTheChallengeCannotBeSent) {
  FeedConnector(*channel, PEER_NAME, PEER_NAME);
  channel->FailSend(2);
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 2: credentials failed"},
                {"authFailed script:local script:remote there:1/peer"});
  EXPECT_EQ(channel->Calls().back(), "send 1024");
}

TEST_F(AcceptHandshake, RefusesWhenTheChallengeIsSentInPart) {
  FeedConnector(*channel, PEER_NAME, PEER_NAME);
  channel->FailSend(2, 1023);
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 2: credentials failed"},
                {"authFailed script:local script:remote there:1/peer"});
  EXPECT_EQ(channel->Calls().back(), "send 1024");
}

TEST_F(AcceptHandshake, RefusesWhenTheDigestIsCut) {
  channel->Feed(NameStringBytes(PEER_NAME));
  channel->FeedLater([&] { return Prefix(AnswerTo(*channel, {}), 15); });
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 2: credentials failed"},
                {"authFailed script:local script:remote there:1/peer"});
  EXPECT_EQ(channel->Calls().back(), "receive 16");
}

TEST_F(AcceptHandshake, RefusesADigestWithOneWrongBitInAnyByte) {
  for (size_t byte = 0; byte < RAW_DIGEST_SIZE; ++byte) {
    auto* const wrong = new ScriptedChannel();
    const ChannelRef wrongHeld(wrong);
    wrong->Feed(NameStringBytes(PEER_NAME));
    wrong->FeedLater([wrong, byte] {
      Bytes answer = AnswerTo(*wrong, {});
      answer[byte] ^= 0x80;
      return answer;
    });
    wrong->Feed(NameStringBytes(PEER_NAME));
    const SessionRef refused(new TQAPPImpl());
    EXPECT_FALSE(refused->AcceptHandshake(wrongHeld)) << byte;
    EXPECT_EQ(log.CountOf("Stage 2: credentials failed"), byte + 1);
    EXPECT_EQ(wrong->Calls().back(), "receive 16");
    EXPECT_EQ(wrong->Writes().size(), 2u);
  }
}

TEST_F(AcceptHandshake, RefusesTheDigestOfAnotherBlockAndNamesThePeerByItsFirstName) {
  FeedConnector(*channel, "first:1/name", PEER_NAME, {1});
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 2: credentials failed"},
                {"authFailed script:local script:remote first:1/name"});
  // Nothing follows the challenge.
  EXPECT_EQ(channel->Writes().size(), 2u);
}

TEST_F(AcceptHandshake, RefusesAPeerThatGivesNoSecondName) {
  channel->Feed(NameStringBytes(PEER_NAME));
  channel->FeedLater([&] { return AnswerTo(*channel, {}); });
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 1: no appID specified"}, {UNKNOWN_CALL});
  EXPECT_EQ(channel->Writes().size(), 2u);
}

TEST_F(AcceptHandshake, RefusesAnEmptySecondName) {
  FeedConnector(*channel, PEER_NAME, "");
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 1: no appID specified"}, {UNKNOWN_CALL});
}

TEST_F(AcceptHandshake, RefusesASecondNameThatIsTooLong) {
  FeedConnector(*channel, PEER_NAME, PEER_NAME + std::string(244, 'n'));
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 1: no appID specified"}, {UNKNOWN_CALL});
  EXPECT_EQ(channel->Unread(), 260u);
}

TEST_F(AcceptHandshake, RefusesANameThatIsAlreadyConnectedWithoutTellingAListener) {
  const AdmittedSession first(PEER_NAME);
  ASSERT_TRUE(first.admitted);
  ASSERT_TRUE(listeners.WaitFor("connect script:local script:remote there:1/peer there 1 peer"));
  otherThreads = 2;
  log.Clear();
  FeedConnector(*channel, PEER_NAME, PEER_NAME);
  EXPECT_FALSE(Accept());
  ExpectRefused({"2 Application already connected: 'there:1/peer'"},
                {"connect script:local script:remote there:1/peer there 1 peer"});
  EXPECT_EQ(channel->Writes().size(), 2u);
  // The first one stays.
  EXPECT_EQ(g_applications.Find(PEER_NAME), first.session);
  EXPECT_TRUE(first.session->CheckValid());
}

TEST_F(AcceptHandshake, LooksForADuplicateUnderTheSecondNameAlone) {
  const AdmittedSession first(PEER_NAME);
  ASSERT_TRUE(first.admitted);
  log.Clear();
  FeedConnector(*channel, PEER_NAME, "other:1/name");
  EXPECT_TRUE(Accept());
  ExpectAdmitted("other:1/name");
  EXPECT_EQ(g_applications.Size(), 2u);
}

TEST_F(AcceptHandshake, FindsADuplicateAfterTheDigestAlone) {
  const AdmittedSession first(PEER_NAME);
  ASSERT_TRUE(first.admitted);
  log.Clear();
  // Wrong credentials and a taken name: the credentials are what is told.
  FeedConnector(*channel, PEER_NAME, PEER_NAME, {1});
  EXPECT_FALSE(Accept());
  EXPECT_EQ(log.CountOf("Stage 2: credentials failed"), 1u);
  EXPECT_EQ(log.CountOfPrefix("Application already connected"), 0u);
}

TEST_F(AcceptHandshake, FindsADuplicateBeforeItTakesTheNameApart) {
  const AdmittedSession first(PEER_NAME);
  ASSERT_TRUE(first.admitted);
  g_applications.Set("plain", first.session);
  FeedConnector(*channel, PEER_NAME, "plain");
  EXPECT_FALSE(Accept());
  EXPECT_EQ(log.CountOf("Application already connected: 'plain'"), 1u);
  EXPECT_EQ(log.CountOfPrefix("Stage 4"), 0u);
  g_applications.Erase("plain");
}

TEST_F(AcceptHandshake, IgnoresAnEntryWhoseSessionIsNotValid) {
  g_applications.Set(PEER_NAME, SessionRef(new TQAPPImpl()));
  FeedConnector(*channel, PEER_NAME, PEER_NAME);
  EXPECT_TRUE(Accept());
  ExpectAdmitted(PEER_NAME);
}

TEST_F(AcceptHandshake, RefusesANameWithoutColonAndSlash) {
  FeedConnector(*channel, "plain", "plain");
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 4: No host or name"}, {UNKNOWN_CALL});
  EXPECT_EQ(channel->Writes().size(), 2u);
}

TEST_F(AcceptHandshake, RefusesANameWithAnEmptyPort) {
  FeedConnector(*channel, "there:/peer", "there:/peer");
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 4: No host or name"}, {UNKNOWN_CALL});
}

TEST_F(AcceptHandshake, RefusesANameWithoutAnApplication) {
  FeedConnector(*channel, PEER_NAME, "there:1/");
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 4: No host or name"}, {UNKNOWN_CALL});
}

TEST_F(AcceptHandshake, RefusesANameWithoutAHost) {
  FeedConnector(*channel, PEER_NAME, ":::");
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 4: No host or name"}, {UNKNOWN_CALL});
}

TEST_F(AcceptHandshake, TakesTheSecondNameForThePeersAndComparesItWithNothing) {
  FeedConnector(*channel, "first", "second:7/name");
  EXPECT_TRUE(Accept());
  ExpectAdmitted("second:7/name");
}

TEST_F(AcceptHandshake, KeepsANameWithSeveralSlashesWhole) {
  FeedConnector(*channel, PEER_NAME, "there:1/peer/more/yet");
  EXPECT_TRUE(Accept());
  ExpectAdmitted("there:1/peer/more/yet");
  EXPECT_TRUE(
      listeners.WaitFor("connect script:local script:remote there:1/peer/more/yet there 1 peer"));
}

TEST_F(AcceptHandshake, AdmitsANameOf255Bytes) {
  const std::string name = "h:1/" + std::string(251, 'n');
  FeedConnector(*channel, name, name);
  EXPECT_TRUE(Accept());
  ExpectAdmitted(name);
}

TEST_F(AcceptHandshake, AdmitsANameOf256BytesThatComesWithoutAZero) {
  const std::string name = "h:1/" + std::string(252, 'n');
  channel->Feed(Concat({U32(256), ToBytes(name)}));
  channel->FeedLater([&] { return AnswerTo(*channel, {}); });
  channel->Feed(Concat({U32(256), ToBytes(name)}));
  EXPECT_TRUE(Accept());
  ExpectAdmitted(name);
}

TEST_F(AcceptHandshake, DoesNotNoticeThatItsFirstNameCannotBeSent) {
  FeedConnector(*channel, PEER_NAME, PEER_NAME);
  channel->FailSend(1);
  EXPECT_TRUE(Accept());
  ExpectAdmitted(PEER_NAME);
}

TEST_F(AcceptHandshake, DoesNotNoticeThatItsSecondNameCannotBeSent) {
  FeedConnector(*channel, PEER_NAME, PEER_NAME);
  channel->FailSend(3);
  EXPECT_TRUE(Accept());
  ExpectAdmitted(PEER_NAME);
}

TEST_F(AcceptHandshake, ExpectsTheProofOfTheProcessWideBlock) {
  const Bytes block = Pattern(256, 9);
  ASSERT_EQ(TQSetAuthenticationInfo(block.data(), 256), TQ_ERR_OK);
  FeedConnector(*channel, PEER_NAME, PEER_NAME, block);
  EXPECT_TRUE(Accept());
  ExpectAdmitted(PEER_NAME);
}

TEST_F(AcceptHandshake, RefusesTheProofOfNothingWhenABlockIsSet) {
  const Bytes block = Pattern(1, 9);
  ASSERT_EQ(TQSetAuthenticationInfo(block.data(), 1), TQ_ERR_OK);
  FeedConnector(*channel, PEER_NAME, PEER_NAME);
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 2: credentials failed"},
                {"authFailed script:local script:remote there:1/peer"});
}

TEST_F(AcceptHandshake, TakesAChangeOfTheBlockUpToTheDigest) {
  const Bytes before = {1, 2, 3};
  const Bytes after = {4, 5};
  ASSERT_EQ(TQSetAuthenticationInfo(before.data(), 3), TQ_ERR_OK);
  channel->Before("send 1024", [&](const void*) {
    ASSERT_EQ(TQSetAuthenticationInfo(after.data(), 2), TQ_ERR_OK);
  });
  FeedConnector(*channel, PEER_NAME, PEER_NAME, after);
  EXPECT_TRUE(Accept());
  ExpectAdmitted(PEER_NAME);
}

TEST_F(AcceptHandshake, TakesNoChangeOfTheBlockAfterTheDigest) {
  const Bytes before = {1, 2, 3};
  const Bytes after = {4, 5};
  ASSERT_EQ(TQSetAuthenticationInfo(before.data(), 3), TQ_ERR_OK);
  channel->Before("receive 16", [&](const void*) {
    if (channel->Writes().size() == 2) {
      ASSERT_EQ(TQSetAuthenticationInfo(after.data(), 2), TQ_ERR_OK);
    }
  });
  FeedConnector(*channel, PEER_NAME, PEER_NAME, before);
  EXPECT_TRUE(Accept());
  ExpectAdmitted(PEER_NAME);
}

TEST_F(AcceptHandshake, OverwritesTheChallengeBeforeItReadsTheAnswer) {
  FeedConnector(*channel, PEER_NAME, PEER_NAME);
  const uint8_t* challenge = nullptr;
  bool wasFilled = false;
  bool isCleared = false;
  channel->Before("send 1024", [&](const void* buffer) {
    challenge = static_cast<const uint8_t*>(buffer);
    wasFilled = Bytes(challenge, challenge + RAW_CHALLENGE_SIZE) != Bytes(RAW_CHALLENGE_SIZE);
  });
  channel->Before("receive 16", [&](const void*) {
    // The challenge lives on in the caller's frame; names are read before it is made.
    if (challenge != nullptr && !isCleared) {
      isCleared = Bytes(challenge, challenge + RAW_CHALLENGE_SIZE) == Bytes(RAW_CHALLENGE_SIZE);
      challenge = nullptr;
    }
  });
  EXPECT_TRUE(Accept());
  EXPECT_TRUE(wasFilled);
  EXPECT_TRUE(isCleared);
}

TEST_F(AcceptHandshake, ChallengesEachPeerAnew) {
  std::set<Bytes> challenges;
  for (int i = 0; i < 5; ++i) {
    const AdmittedSession peer("there:1/peer" + std::to_string(i));
    ASSERT_TRUE(peer.admitted);
    challenges.insert(peer.channel->Writes().at(1));
  }
  EXPECT_EQ(challenges.size(), 5u);
}

TEST_F(AcceptHandshake, HoldsNoLockOfTheRegistryWhileItReadsAndWrites) {
  FeedConnector(*channel, PEER_NAME, PEER_NAME);
  int looked = 0;
  const auto lookFromAnotherThread = [&](const void*) {
    std::thread([] { (void)g_applications.Find("any"); }).join();
    ++looked;
  };
  for (const char* operation : {"receive 4", "receive 16", "send 1024", "send 20"}) {
    channel->Before(operation, lookFromAnotherThread);
  }
  EXPECT_TRUE(Accept());
  EXPECT_EQ(looked, 8);
}

TEST_F(AcceptHandshake, DoesWithoutListeners) {
  TQSetAuthFailedListener(nullptr);
  TQSetUnknownConnectListener(nullptr);
  EXPECT_FALSE(Accept());
  ExpectRefused({"4 Stage 1: no appID specified"}, {});
  auto* const wrong = new ScriptedChannel();
  const ChannelRef wrongHeld(wrong);
  FeedConnector(*wrong, PEER_NAME, PEER_NAME, {1});
  EXPECT_FALSE(SessionRef(new TQAPPImpl())->AcceptHandshake(wrongHeld));
  EXPECT_EQ(log.CountOf("Stage 2: credentials failed"), 1u);
}

// Accepts on a channel that is not there.
TQ_TEST_ROLE(acceptNothing) {
  TQSetLogLevel(ALL_LOG_LEVELS, 0, [](uint32_t, int32_t, const char* text) { Say(text); });
  SessionRef session(new TQAPPImpl());
  if (args.at(0) == "null") {
    session->AcceptHandshake(nullptr);
  } else {
    auto* channel = new ScriptedChannel();
    channel->SetValid(false);
    session->AcceptHandshake(ChannelRef(channel));
  }
  Say("returned");
  return 0;
}

TEST(AcceptHandshakeWithoutAChannel, WaitsForThreadsThatWereNeverMade) {
  for (const char* kind : {"null", "invalid"}) {
    ChildProcess process("acceptNothing", {kind});
    EXPECT_TRUE(process.ExpectLine("Start management threads for "));
    EXPECT_FALSE(process.ReadLine(milliseconds{1000}));
    EXPECT_TRUE(process.IsRunning());
    process.Kill();
  }
}

// ---- connecting side ---------------------------------------------------------------------------

TEST_F(ConnectHandshake, TakesItsStepsInOrderAndIsAdmitted) {
  FeedAcceptor(*channel, PEER_NAME, PEER_NAME);
  EXPECT_EQ(Connect(), TQ_ERR_OK);
  EXPECT_EQ(channel->Calls(),
            (Texts{"valid", "local", "remote", LOCAL_SEND, "receive 4", PEER_RECEIVE,
                   "receive 1024", "send 16", LOCAL_SEND, "receive 4", PEER_RECEIVE}));
  const auto writes = channel->Writes();
  ASSERT_EQ(writes.size(), 3u);
  EXPECT_EQ(writes[0], NameStringBytes(LOCAL_NAME));
  EXPECT_EQ(writes[1], DigestBytes({}, Pattern(RAW_CHALLENGE_SIZE)));
  EXPECT_EQ(writes[2], NameStringBytes(LOCAL_NAME));
  EXPECT_EQ(channel->Unread(), 0u);
  ExpectAdmitted(PEER_NAME);
  EXPECT_TRUE(listeners.WaitFor("connect script:local script:remote there:1/peer there 1 peer"));
  EXPECT_EQ(listeners.Texts().size(), 1u);
}

TEST_F(ConnectHandshake, MakesItsThreadsBeforeItLooksAtTheChannel) {
  channel->Before("valid", [&](const void*) {
    if (atCheck == 0) atCheck = ThreadCount();
  });
  EXPECT_EQ(Connect(), TQ_ERR_FAILED);
  EXPECT_EQ(atCheck, threadsBefore + 2);
}

TEST_F(ConnectHandshake, RunsItsThreadsThroughTheirStartWhenTheBlockIsTooLong) {
  FeedAcceptor(*channel, PEER_NAME, PEER_NAME);
  const Bytes block(257);
  EXPECT_EQ(Connect(block.data(), 257), TQ_ERR_FAILED);
  ExpectRefused({}, {});
  EXPECT_TRUE(channel->Calls().empty());
  EXPECT_FALSE(session->Channel());
  // A session that was given no channel has no addresses.
  log.Clear();
  session.Reset();
  EXPECT_EQ(CallerLog(), (Texts{"8 Destroying TQAPPImpl::~TQAPPImpl():<->",
                                "8 Destroyed TQAPPImpl::~TQAPPImpl():<->"}));
}

TEST_F(ConnectHandshake, FailsWithoutAChannel) {
  EXPECT_EQ(session->ConnectHandshake(nullptr, nullptr, 0, nullptr, 0), TQ_ERR_FAILED);
  ExpectRefused({}, {});
}

TEST_F(ConnectHandshake, FailsOnAChannelThatIsNotValid) {
  channel->SetValid(false);
  EXPECT_EQ(Connect(), TQ_ERR_FAILED);
  ExpectRefused({}, {});
  EXPECT_EQ(channel->Calls(), Texts{"valid"});
  log.Clear();
  session.Reset();
  EXPECT_EQ(CallerLog(), (Texts{"8 Destroying TQAPPImpl::~TQAPPImpl():<->",
                                "8 Destroyed TQAPPImpl::~TQAPPImpl():<->"}));
}

TEST_F(ConnectHandshake, FailsWhenThePeerGivesNoName) {
  EXPECT_EQ(Connect(), TQ_ERR_FAILED);
  ExpectRefused({}, {});
  EXPECT_EQ(channel->Writes().size(), 1u);
}

TEST_F(ConnectHandshake, FailsOnAnEmptyFirstName) {
  FeedAcceptor(*channel, "", PEER_NAME);
  EXPECT_EQ(Connect(), TQ_ERR_FAILED);
  ExpectRefused({}, {});
  EXPECT_EQ(channel->Writes().size(), 1u);
}

TEST_F(ConnectHandshake, FailsOnAFirstNameThatIsTooLong) {
  FeedAcceptor(*channel, PEER_NAME + std::string(244, 'n'), PEER_NAME);
  EXPECT_EQ(Connect(), TQ_ERR_FAILED);
  ExpectRefused({}, {});
  EXPECT_EQ(channel->Calls().back(), "receive 4");
}

TEST_F(ConnectHandshake, RejectsAPeerThatIsConnectedBeforeItReadsTheChallenge) {
  const AdmittedSession first(PEER_NAME);
  ASSERT_TRUE(first.admitted);
  const std::string connected = "connect script:local script:remote there:1/peer there 1 peer";
  ASSERT_TRUE(listeners.WaitFor(connected));
  otherThreads = 2;
  log.Clear();
  FeedAcceptor(*channel, PEER_NAME, "other:1/name");
  EXPECT_EQ(Connect(), TQ_ERR_NAME_REJECTED);
  ExpectRefused({}, {connected});
  EXPECT_EQ(channel->Calls(),
            (Texts{"valid", "local", "remote", LOCAL_SEND, "receive 4", PEER_RECEIVE}));
  EXPECT_EQ(g_applications.Find(PEER_NAME), first.session);
}

TEST_F(ConnectHandshake, TestsTheFirstNameAloneAndTakesTheSecondOver) {
  const AdmittedSession first(PEER_NAME);
  ASSERT_TRUE(first.admitted);
  log.Clear();
  FeedAcceptor(*channel, "other:1/name", PEER_NAME);
  EXPECT_EQ(Connect(), TQ_ERR_OK);
  ExpectAdmitted(PEER_NAME);
  EXPECT_TRUE(first.session->CheckValid());
  EXPECT_EQ(g_applications.Size(), 1u);
}

TEST_F(ConnectHandshake, IgnoresAnEntryWhoseSessionIsNotValid) {
  g_applications.Set(PEER_NAME, SessionRef(new TQAPPImpl()));
  FeedAcceptor(*channel, PEER_NAME, PEER_NAME);
  EXPECT_EQ(Connect(), TQ_ERR_OK);
  ExpectAdmitted(PEER_NAME);
}

TEST_F(ConnectHandshake, FailsWhenTheChallengeIsCut) {
  channel->Feed(NameStringBytes(PEER_NAME));
  channel->Feed(Pattern(1023));
  EXPECT_EQ(Connect(), TQ_ERR_FAILED);
  ExpectRefused({}, {});
  EXPECT_EQ(channel->Calls().back(), "receive 1024");
  EXPECT_EQ(channel->Writes().size(), 1u);
}

TEST_F(ConnectHandshake, FailsWhenTheDigestCannotBeSent) {
  FeedAcceptor(*channel, PEER_NAME, PEER_NAME);
  channel->FailSend(2);
  EXPECT_EQ(Connect(), TQ_ERR_FAILED);
  ExpectRefused({}, {});
  EXPECT_EQ(channel->Calls().back(), "send 16");
}

TEST_F(ConnectHandshake, FailsWhenTheDigestIsSentInPart) {
  FeedAcceptor(*channel, PEER_NAME, PEER_NAME);
  channel->FailSend(2, 15);
  EXPECT_EQ(Connect(), TQ_ERR_FAILED);
  ExpectRefused({}, {});
}

TEST_F(ConnectHandshake, IsRejectedWhenThePeerGivesNoSecondName) {
  channel->Feed(NameStringBytes(PEER_NAME));
  channel->Feed(Pattern(RAW_CHALLENGE_SIZE));
  EXPECT_EQ(Connect(), TQ_ERR_NAME_REJECTED);
  ExpectRefused({}, {});
  EXPECT_EQ(channel->Writes().size(), 3u);
}

TEST_F(ConnectHandshake, IsRejectedByAnEmptySecondName) {
  FeedAcceptor(*channel, PEER_NAME, "");
  EXPECT_EQ(Connect(), TQ_ERR_NAME_REJECTED);
  ExpectRefused({}, {});
}

TEST_F(ConnectHandshake, IsRejectedByASecondNameThatIsTooLong) {
  FeedAcceptor(*channel, PEER_NAME, PEER_NAME + std::string(244, 'n'));
  EXPECT_EQ(Connect(), TQ_ERR_NAME_REJECTED);
  ExpectRefused({}, {});
}

TEST_F(ConnectHandshake, FailsAndTellsOnASecondNameWithoutColonAndSlash) {
  FeedAcceptor(*channel, PEER_NAME, "plain");
  EXPECT_EQ(Connect(), TQ_ERR_FAILED);
  ExpectRefused({}, {UNKNOWN_CALL});
}

TEST_F(ConnectHandshake, FailsAndTellsOnASecondNameWithAnEmptyPort) {
  FeedAcceptor(*channel, PEER_NAME, "there:/peer");
  EXPECT_EQ(Connect(), TQ_ERR_FAILED);
  ExpectRefused({}, {UNKNOWN_CALL});
}

TEST_F(ConnectHandshake, FailsAndTellsOnASecondNameWithoutAHost) {
  FeedAcceptor(*channel, PEER_NAME, "::");
  EXPECT_EQ(Connect(), TQ_ERR_FAILED);
  ExpectRefused({}, {UNKNOWN_CALL});
}

TEST_F(ConnectHandshake, DoesNotMindAFirstNameWithoutColonAndSlash) {
  FeedAcceptor(*channel, "plain", PEER_NAME);
  EXPECT_EQ(Connect(), TQ_ERR_OK);
  ExpectAdmitted(PEER_NAME);
}

TEST_F(ConnectHandshake, KeepsANameWithSeveralSlashesWhole) {
  FeedAcceptor(*channel, PEER_NAME, "there:1/peer/more");
  std::array<char, 64> name{};
  EXPECT_EQ(Connect(nullptr, 0, name.data(), name.size()), TQ_ERR_OK);
  EXPECT_STREQ(name.data(), "there:1/peer/more");
  ExpectAdmitted("there:1/peer/more");
}

TEST_F(ConnectHandshake, DoesNotNoticeThatItsFirstNameCannotBeSent) {
  FeedAcceptor(*channel, PEER_NAME, PEER_NAME);
  channel->FailSend(1);
  EXPECT_EQ(Connect(), TQ_ERR_OK);
  ExpectAdmitted(PEER_NAME);
}

TEST_F(ConnectHandshake, DoesNotNoticeThatItsSecondNameCannotBeSent) {
  FeedAcceptor(*channel, PEER_NAME, PEER_NAME);
  channel->FailSend(3);
  EXPECT_EQ(Connect(), TQ_ERR_OK);
  ExpectAdmitted(PEER_NAME);
}

TEST_F(ConnectHandshake, TakesAnyPeerThatGoesThroughTheMotions) {
  // The peer proves nothing: any 1024 bytes will do.
  FeedAcceptor(*channel, PEER_NAME, PEER_NAME, Bytes(RAW_CHALLENGE_SIZE));
  EXPECT_EQ(Connect(), TQ_ERR_OK);
  ExpectAdmitted(PEER_NAME);
}

TEST_F(ConnectHandshake, LeavesTheChallengeAsItIs) {
  FeedAcceptor(*channel, PEER_NAME, PEER_NAME);
  const uint8_t* challenge = nullptr;
  bool isKept = false;
  channel->Before("receive 1024",
                  [&](const void* buffer) { challenge = static_cast<const uint8_t*>(buffer); });
  channel->Before("send 16", [&](const void*) {
    isKept = Bytes(challenge, challenge + RAW_CHALLENGE_SIZE) == Pattern(RAW_CHALLENGE_SIZE);
  });
  EXPECT_EQ(Connect(), TQ_ERR_OK);
  EXPECT_TRUE(isKept);
}

// The digest that the connecting side gives with these arguments.
class ConnectingBlock : public ConnectHandshake {
 protected:
  Bytes DigestWith(const uint8_t* authData, int32_t authLength) {
    FeedAcceptor(*channel, PEER_NAME, PEER_NAME);
    EXPECT_EQ(Connect(authData, authLength), TQ_ERR_OK);
    return channel->Writes().at(1);
  }

  static Bytes Proof(const Bytes& block) { return DigestBytes(block, Pattern(RAW_CHALLENGE_SIZE)); }
};

TEST_F(ConnectingBlock, IsAllZeroWithoutData) { EXPECT_EQ(DigestWith(nullptr, 0), Proof({})); }

TEST_F(ConnectingBlock, IsAllZeroWithoutDataWhateverTheLength) {
  EXPECT_EQ(DigestWith(nullptr, 100), Proof({}));
}

TEST_F(ConnectingBlock, IsAllZeroWithDataOfLengthZero) {
  const Bytes data = Pattern(256);
  EXPECT_EQ(DigestWith(data.data(), 0), Proof({}));
}

TEST_F(ConnectingBlock, BeginsWithTheGivenBytesAndIsZeroBehindThem) {
  const Bytes data = Pattern(256);
  EXPECT_EQ(DigestWith(data.data(), 5), Proof(Prefix(data, 5)));
}

TEST_F(ConnectingBlock, TakesOneByte) {
  const Bytes data = Pattern(256);
  EXPECT_EQ(DigestWith(data.data(), 1), Proof(Prefix(data, 1)));
}

TEST_F(ConnectingBlock, TakesExactly256Bytes) {
  const Bytes data = Pattern(256);
  EXPECT_EQ(DigestWith(data.data(), 256), Proof(data));
}

TEST_F(ConnectingBlock, IsAllZeroWithZerosOfAnyLength) {
  const Bytes data(256);
  EXPECT_EQ(DigestWith(data.data(), 77), Proof({}));
}

TEST_F(ConnectingBlock, IsNotRefusedForANegativeLengthAndTakesNothing) {
  const Bytes data = Pattern(256);
  EXPECT_EQ(DigestWith(data.data(), -1), Proof({}));
}

TEST_F(ConnectingBlock, IsNotRefusedForTheSmallestLengthAndTakesNothing) {
  const Bytes data = Pattern(256);
  EXPECT_EQ(DigestWith(data.data(), INT_MIN), Proof({}));
}

TEST_F(ConnectingBlock, IsRefusedForTheLargestLength) {
  const Bytes data = Pattern(256);
  EXPECT_EQ(Connect(data.data(), INT_MAX), TQ_ERR_FAILED);
  EXPECT_TRUE(channel->Calls().empty());
}

TEST_F(ConnectingBlock, HasNothingOfTheProcessWideBlock) {
  const Bytes processWide = Pattern(256, 3);
  ASSERT_EQ(TQSetAuthenticationInfo(processWide.data(), 256), TQ_ERR_OK);
  const Bytes data = Pattern(256);
  EXPECT_EQ(DigestWith(data.data(), 7), Proof(Prefix(data, 7)));
}

// What TQConnect writes to its caller's buffer.
class NameOut : public ConnectHandshake {
 protected:
  static constexpr size_t NAME_LENGTH = 12;
  static constexpr char UNTOUCHED = 'U';

  NameOut() { buffer.fill(UNTOUCHED); }

  void ConnectWith(uint32_t size) {
    FeedAcceptor(*channel, PEER_NAME, PEER_NAME);
    EXPECT_EQ(Connect(nullptr, 0, buffer.data(), size), TQ_ERR_OK);
    ExpectAdmitted(PEER_NAME);
  }

  std::string Expected(const std::string& start, size_t size) const {
    std::string expected = start;
    expected.resize(size, '\0');
    expected.resize(buffer.size(), UNTOUCHED);
    return expected;
  }

  std::string Got() const { return std::string(buffer.begin(), buffer.end()); }

  std::array<char, 64> buffer;
};

TEST_F(NameOut, GetsTheNameAndZerosBehindIt) {
  ConnectWith(40);
  EXPECT_EQ(Got(), Expected(PEER_NAME, 40));
}

TEST_F(NameOut, MayBeJustLargeEnough) {
  ConnectWith(NAME_LENGTH + 1);
  EXPECT_EQ(Got(), Expected(PEER_NAME, NAME_LENGTH + 1));
}

TEST_F(NameOut, StaysZeroWhenThereIsNoRoomForTheTerminator) {
  ConnectWith(NAME_LENGTH);
  EXPECT_EQ(Got(), Expected("", NAME_LENGTH));
}

TEST_F(NameOut, StaysZeroWhenItHasOneByte) {
  ConnectWith(1);
  EXPECT_EQ(Got(), Expected("", 1));
}

TEST_F(NameOut, IsNotTouchedWhenItsSizeIsZero) {
  ConnectWith(0);
  EXPECT_EQ(Got(), Expected("", 0));
}

TEST_F(NameOut, MayBeNullWhateverItsSize) {
  FeedAcceptor(*channel, PEER_NAME, PEER_NAME);
  EXPECT_EQ(Connect(nullptr, 0, nullptr, 256), TQ_ERR_OK);
  ExpectAdmitted(PEER_NAME);
}

TEST_F(NameOut, IsNotTouchedByAFailure) {
  FeedAcceptor(*channel, PEER_NAME, "plain");
  EXPECT_EQ(Connect(nullptr, 0, buffer.data(), 40), TQ_ERR_FAILED);
  EXPECT_EQ(Got(), Expected("", 0));
}

TEST_F(NameOut, IsNotTouchedByARejection) {
  FeedAcceptor(*channel, PEER_NAME, "");
  EXPECT_EQ(Connect(nullptr, 0, buffer.data(), 40), TQ_ERR_NAME_REJECTED);
  EXPECT_EQ(Got(), Expected("", 0));
}

TEST_F(NameOut, Of256BytesStaysZeroForANameOf256Bytes) {
  const std::string name = "h:1/" + std::string(252, 'n');
  const Bytes nameBytes = Concat({U32(256), ToBytes(name)});
  channel->Feed(nameBytes);
  channel->Feed(Pattern(RAW_CHALLENGE_SIZE));
  channel->Feed(nameBytes);
  std::array<char, 257> large;
  large.fill(UNTOUCHED);
  EXPECT_EQ(Connect(nullptr, 0, large.data(), 256), TQ_ERR_OK);
  EXPECT_EQ(std::string(large.begin(), large.end()), std::string(256, '\0') + UNTOUCHED);
  ExpectAdmitted(name);
}

TEST_F(NameOut, Of257BytesHoldsANameOf256Bytes) {
  const std::string name = "h:1/" + std::string(252, 'n');
  const Bytes nameBytes = Concat({U32(256), ToBytes(name)});
  channel->Feed(nameBytes);
  channel->Feed(Pattern(RAW_CHALLENGE_SIZE));
  channel->Feed(nameBytes);
  std::array<char, 257> large;
  large.fill(UNTOUCHED);
  EXPECT_EQ(Connect(nullptr, 0, large.data(), 257), TQ_ERR_OK);
  EXPECT_EQ(std::string(large.begin(), large.end()), name + '\0');
}

// ---- over sockets, against a peer of the tests' own --------------------------------------------

// A library session at one end of a connection, its handshake on a thread of its own.
class SocketSession {
 public:
  explicit SocketSession(const std::function<void(TQAPPImpl&, const ChannelRef&)>& handshake)
      : localAddress(pair.NearAddress()), peer(pair.TakeFarAsPeer()) {
    const ChannelRef channel(new SocketChannel(pair.TakeNear()));
    thread = std::thread([this, handshake, channel] {
      handshake(*session, channel);
      session.Reset();
    });
    id = thread.get_id();
  }
  ~SocketSession() { Join(); }
  SocketSession(const SocketSession&) = delete;
  SocketSession& operator=(const SocketSession&) = delete;

  void Join() {
    if (thread.joinable()) thread.join();
  }

 private:
  LoopbackPair pair;

 public:
  const std::string localAddress;
  RawPeer peer;
  std::thread::id id;

 private:
  SessionRef session{new TQAPPImpl()};
  std::thread thread;
};

struct AcceptingSocket {
  bool admitted = false;
  SocketSession session{[this](TQAPPImpl& impl, const ChannelRef& channel) {
    admitted = impl.AcceptHandshake(channel);
  }};
};

struct ConnectingSocket {
  _tag_TQ_ERROR result = TQ_ERR_OK;
  SocketSession session{[this](TQAPPImpl& impl, const ChannelRef& channel) {
    result = impl.ConnectHandshake(channel, nullptr, 0, nullptr, 0);
  }};
};

class HandshakeOverSockets : public testing::Test {
 protected:
  HandshakeOverSockets() { detail::localApplicationName.Set(LOCAL_NAME); }
  ~HandshakeOverSockets() override {
    EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().sessions == 0; })) << log.Dump();
  }

  LogRecorder log;
  ListenerRecorder listeners;
};

// With a limit at which one wait of a read takes 2.001 seconds. All stages are tried at a time.
class SilenceOverSockets : public HandshakeOverSockets {
 protected:
  SilenceOverSockets() {
    auto record = detail::DEFAULT_RECORD;
    record.IO_TIMEOUT_MS = 4000;
    detail::limits.Override(record);
  }
};

constexpr milliseconds SHORT_SILENCE{50};

TEST_F(HandshakeOverSockets, TheAcceptingSideWaitsForEachElementOfThePeer) {
  AcceptingSocket accepting;
  RawPeer& peer = accepting.session.peer;
  EXPECT_TRUE(peer.StaysSilentFor(SHORT_SILENCE));
  peer.SendName(PEER_NAME);
  // The name, and at once the challenge.
  EXPECT_EQ(peer.ReceiveExactly(20), NameStringBytes(LOCAL_NAME));
  const auto challenge = peer.ReceiveExactly(RAW_CHALLENGE_SIZE);
  ASSERT_TRUE(challenge);
  EXPECT_TRUE(peer.StaysSilentFor(SHORT_SILENCE));
  peer.SendBytes(DigestBytes({}, *challenge));
  EXPECT_TRUE(peer.StaysSilentFor(SHORT_SILENCE));
  peer.SendName(PEER_NAME);
  EXPECT_EQ(peer.ReceiveExactly(20), NameStringBytes(LOCAL_NAME));
  EXPECT_TRUE(peer.StaysSilentFor(SHORT_SILENCE));
  accepting.session.Join();
  EXPECT_TRUE(accepting.admitted);
  peer.Close();
}

TEST_F(HandshakeOverSockets, TheConnectingSideWaitsForEachElementOfThePeer) {
  ConnectingSocket connecting;
  RawPeer& peer = connecting.session.peer;
  EXPECT_EQ(peer.ReceiveExactly(20), NameStringBytes(LOCAL_NAME));
  EXPECT_TRUE(peer.StaysSilentFor(SHORT_SILENCE));
  peer.SendName(PEER_NAME);
  EXPECT_TRUE(peer.StaysSilentFor(SHORT_SILENCE));
  const Bytes challenge = Pattern(RAW_CHALLENGE_SIZE);
  peer.SendBytes(challenge);
  // The digest, and at once the name.
  EXPECT_EQ(peer.ReceiveExactly(RAW_DIGEST_SIZE), DigestBytes({}, challenge));
  EXPECT_EQ(peer.ReceiveExactly(20), NameStringBytes(LOCAL_NAME));
  EXPECT_TRUE(peer.StaysSilentFor(SHORT_SILENCE));
  peer.SendName(PEER_NAME);
  connecting.session.Join();
  EXPECT_EQ(connecting.result, TQ_ERR_OK);
  peer.Close();
}

TEST_F(HandshakeOverSockets, EachSideWritesThreeTimes) {
  const uint32_t before = DEBUG_TQObjectCount().writeCalls;
  AcceptingSocket accepting;
  EXPECT_TRUE(accepting.session.peer.HandshakeAsConnector(PEER_NAME).Completed());
  accepting.session.Join();
  EXPECT_TRUE(accepting.admitted);
  EXPECT_EQ(DEBUG_TQObjectCount().writeCalls, before + 3);
  ConnectingSocket connecting;
  EXPECT_TRUE(connecting.session.peer.HandshakeAsAcceptor("there:2/other").Completed());
  connecting.session.Join();
  EXPECT_EQ(connecting.result, TQ_ERR_OK);
  EXPECT_EQ(DEBUG_TQObjectCount().writeCalls, before + 6);
  accepting.session.peer.Close();
  connecting.session.peer.Close();
}

TEST_F(HandshakeOverSockets, TheAcceptingSideTakesBytesOneAtATime) {
  AcceptingSocket accepting;
  RawPeer& peer = accepting.session.peer;
  EXPECT_TRUE(peer.SendSlowly(NameStringBytes(PEER_NAME)));
  ASSERT_TRUE(peer.ReceiveExactly(20));
  const auto challenge = peer.ReceiveExactly(RAW_CHALLENGE_SIZE);
  ASSERT_TRUE(challenge);
  EXPECT_TRUE(peer.SendSlowly(DigestBytes({}, *challenge)));
  EXPECT_TRUE(peer.SendSlowly(NameStringBytes(PEER_NAME)));
  EXPECT_EQ(peer.ReceiveExactly(20), NameStringBytes(LOCAL_NAME));
  accepting.session.Join();
  EXPECT_TRUE(accepting.admitted);
  peer.Close();
}

TEST_F(HandshakeOverSockets, TheConnectingSideTakesBytesOneAtATime) {
  ConnectingSocket connecting;
  RawPeer& peer = connecting.session.peer;
  const Bytes challenge = Pattern(RAW_CHALLENGE_SIZE);
  EXPECT_TRUE(peer.SendSlowly(NameStringBytes(PEER_NAME)));
  EXPECT_TRUE(peer.SendSlowly(challenge, std::chrono::microseconds{50}));
  EXPECT_TRUE(peer.SendSlowly(NameStringBytes(PEER_NAME)));
  ASSERT_TRUE(peer.ReceiveExactly(20));
  EXPECT_EQ(peer.ReceiveExactly(RAW_DIGEST_SIZE), DigestBytes({}, challenge));
  connecting.session.Join();
  EXPECT_EQ(connecting.result, TQ_ERR_OK);
  peer.Close();
}

TEST_F(HandshakeOverSockets, TheAcceptingSideTakesEverythingThatCanComeAtOnce) {
  AcceptingSocket accepting;
  RawPeer& peer = accepting.session.peer;
  peer.SendName(PEER_NAME);
  ASSERT_TRUE(peer.ReceiveExactly(20));
  const auto challenge = peer.ReceiveExactly(RAW_CHALLENGE_SIZE);
  ASSERT_TRUE(challenge);
  peer.SendBytes(Concat({DigestBytes({}, *challenge), NameStringBytes(PEER_NAME)}));
  EXPECT_EQ(peer.ReceiveExactly(20), NameStringBytes(LOCAL_NAME));
  accepting.session.Join();
  EXPECT_TRUE(accepting.admitted);
  peer.Close();
}

TEST_F(HandshakeOverSockets, TheConnectingSideTakesEverythingThatCanComeAtOnce) {
  ConnectingSocket connecting;
  connecting.session.peer.SendBytes(Concat(
      {NameStringBytes(PEER_NAME), Pattern(RAW_CHALLENGE_SIZE), NameStringBytes(PEER_NAME)}));
  connecting.session.Join();
  EXPECT_EQ(connecting.result, TQ_ERR_OK);
  connecting.session.peer.Close();
}

std::string GivesUpLine(uint32_t missing) {
  return "8 Receive failed: no data arrived in expected 2 seconds11,expected=" +
         std::to_string(missing);
}

// A peer that sends the beginning of what an accepting side wants to read, and falls silent.
struct SilentConnector {
  SilentConnector(int fullSteps, size_t extraBytes) : extra(extraBytes), steps(fullSteps) {}

  void Run() {
    RawPeer& peer = accepting.session.peer;
    HandshakeOptions options;
    options.stopAfterStep = steps;
    const HandshakeResult result = peer.HandshakeAsConnector(PEER_NAME, {}, options);
    ASSERT_EQ(result.stepsDone, steps) << result.failure;
    const Bytes next = steps == 3 ? DigestBytes({}, result.challenge) : NameStringBytes(PEER_NAME);
    peer.SendBytes(Prefix(next, extra));
  }

  size_t extra;
  int steps;
  AcceptingSocket accepting;
};

TEST_F(SilenceOverSockets, TheAcceptingSideGivesASilentPeerUpAtEveryStage) {
  struct Stage {
    int steps;
    size_t extra;
    uint32_t missing;
    const char* line;
  };
  const std::vector<Stage> stages{
      {0, 0, 4, "4 Stage 1: no appID specified"},   {0, 3, 1, "4 Stage 1: no appID specified"},
      {0, 4, 16, "4 Stage 1: no appID specified"},  {0, 19, 1, "4 Stage 1: no appID specified"},
      {3, 0, 16, "4 Stage 2: credentials failed"},  {3, 15, 1, "4 Stage 2: credentials failed"},
      {4, 0, 4, "4 Stage 1: no appID specified"},   {4, 4, 16, "4 Stage 1: no appID specified"},
      {4, 10, 10, "4 Stage 1: no appID specified"},
  };
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::unique_ptr<SilentConnector>> connectors;
  for (const Stage& stage : stages) {
    connectors.push_back(std::make_unique<SilentConnector>(stage.steps, stage.extra));
    connectors.back()->Run();
  }
  for (size_t i = 0; i < stages.size(); ++i) {
    AcceptingSocket& accepting = connectors[i]->accepting;
    accepting.session.Join();
    EXPECT_FALSE(accepting.admitted);
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds{2001});
    Texts lines = LinesOf(log, accepting.session.id);
    ASSERT_GE(lines.size(), 4u) << "stage " << i << ", " << log.Dump();
    lines.resize(4);
    EXPECT_EQ(lines, (Texts{GivesUpLine(stages[i].missing), stages[i].line,
                            "8 Start management threads for ", "8 Startup completed for "}))
        << "stage " << i;
    EXPECT_TRUE(accepting.session.peer.WaitClosed());
    const std::string addresses = accepting.session.localAddress + " ";
    const std::string listener = stages[i].steps == 3 ? "authFailed " : "unknown ";
    size_t calls = 0;
    for (const std::string& text : listeners.Texts()) {
      calls += text.compare(0, listener.size() + addresses.size(), listener + addresses) == 0;
    }
    EXPECT_EQ(calls, 1u) << "stage " << i;
  }
  EXPECT_EQ(listeners.Texts().size(), stages.size());
}

TEST_F(SilenceOverSockets, TheConnectingSideGivesASilentPeerUpAtEveryStage) {
  struct Stage {
    size_t bytes;
    uint32_t missing;
    _tag_TQ_ERROR result;
  };
  const Bytes whole =
      Concat({NameStringBytes(PEER_NAME), Pattern(RAW_CHALLENGE_SIZE), NameStringBytes(PEER_NAME)});
  const std::vector<Stage> stages{
      {0, 4, TQ_ERR_FAILED},
      {2, 2, TQ_ERR_FAILED},
      {4, 16, TQ_ERR_FAILED},
      {20, 1024, TQ_ERR_FAILED},
      {1043, 1, TQ_ERR_FAILED},
      {1044, 4, TQ_ERR_NAME_REJECTED},
      {1048, 16, TQ_ERR_NAME_REJECTED},
      {1063, 1, TQ_ERR_NAME_REJECTED},
  };
  std::vector<std::unique_ptr<ConnectingSocket>> all;
  for (const Stage& stage : stages) {
    all.push_back(std::make_unique<ConnectingSocket>());
    all.back()->session.peer.SendBytes(Prefix(whole, stage.bytes));
  }
  for (size_t i = 0; i < stages.size(); ++i) {
    ConnectingSocket& connecting = *all[i];
    connecting.session.Join();
    EXPECT_EQ(connecting.result, stages[i].result) << "stage " << i;
    Texts lines = LinesOf(log, connecting.session.id);
    ASSERT_GE(lines.size(), 3u) << "stage " << i << ", " << log.Dump();
    lines.resize(3);
    // The channel tells of its own failure; the handshake adds nothing.
    EXPECT_EQ(lines, (Texts{GivesUpLine(stages[i].missing), "8 Start management threads for ",
                            "8 Startup completed for "}))
        << "stage " << i;
    EXPECT_TRUE(connecting.session.peer.WaitClosed());
  }
  EXPECT_TRUE(listeners.Texts().empty());
}

TEST_F(HandshakeOverSockets, ARefusedPeerSeesTheConnectionCloseWithoutAWord) {
  AcceptingSocket accepting;
  RawPeer& peer = accepting.session.peer;
  HandshakeOptions options;
  options.wrongDigest = true;
  options.stopAfterStep = 5;
  ASSERT_EQ(peer.HandshakeAsConnector(PEER_NAME, {}, options).stepsDone, 5);
  EXPECT_EQ(peer.ReceiveUntilClosed(), Bytes());
  accepting.session.Join();
  EXPECT_FALSE(accepting.admitted);
}

TEST_F(HandshakeOverSockets, TheAddressesAreThoseOfTheSocket) {
  AcceptingSocket accepting;
  RawPeer& peer = accepting.session.peer;
  const std::string remoteAddress = peer.LocalAddress();
  ASSERT_TRUE(peer.HandshakeAsConnector(PEER_NAME).Completed());
  accepting.session.Join();
  EXPECT_TRUE(listeners.WaitFor("connect " + accepting.session.localAddress + " " + remoteAddress +
                                " there:1/peer there 1 peer"));
  peer.Close();
}

TEST_F(HandshakeOverSockets, AReadLimitBelowTheChallengeFailsTheConnectingSide) {
  auto record = detail::DEFAULT_RECORD;
  record.MAX_READ_SIZE = 1023;
  detail::limits.Override(record);
  ConnectingSocket connecting;
  connecting.session.peer.SendBytes(
      Concat({NameStringBytes(PEER_NAME), Pattern(RAW_CHALLENGE_SIZE)}));
  connecting.session.Join();
  EXPECT_EQ(connecting.result, TQ_ERR_FAILED);
  EXPECT_TRUE(connecting.session.peer.WaitClosed());
}

TEST_F(HandshakeOverSockets, ManyHandshakesRunAtATime) {
  constexpr size_t COUNT = 8;
  std::vector<std::unique_ptr<AcceptingSocket>> accepting;
  std::vector<std::unique_ptr<ConnectingSocket>> connecting;
  for (size_t i = 0; i < COUNT; ++i) {
    accepting.push_back(std::make_unique<AcceptingSocket>());
    connecting.push_back(std::make_unique<ConnectingSocket>());
  }
  for (size_t i = 0; i < COUNT; ++i) {
    const std::string number = std::to_string(i);
    EXPECT_TRUE(accepting[i]->session.peer.HandshakeAsConnector("there:1/in" + number).Completed());
    EXPECT_TRUE(
        connecting[i]->session.peer.HandshakeAsAcceptor("there:1/out" + number).Completed());
  }
  for (size_t i = 0; i < COUNT; ++i) {
    accepting[i]->session.Join();
    connecting[i]->session.Join();
    EXPECT_TRUE(accepting[i]->admitted);
    EXPECT_EQ(connecting[i]->result, TQ_ERR_OK);
  }
  EXPECT_EQ(g_applications.Size(), 2 * COUNT);
  for (size_t i = 0; i < COUNT; ++i) {
    accepting[i]->session.peer.Close();
    connecting[i]->session.peer.Close();
  }
}

}  // namespace
}  // namespace TQ::test
