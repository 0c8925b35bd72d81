// How sessions between two processes of the library end, and what each side sees of it.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "session/application_registry.h"
#include "session/session.h"
#include "support/child_process.h"
#include "support/free_port.h"
#include "support/session_host.h"
#include "support/transport.h"

namespace TQ::test {
namespace {

using detail::SessionRef;
using std::chrono::milliseconds;
using Lines = std::vector<std::string>;

constexpr uint32_t ADD_ONE = 7;  ///< of both sides
constexpr uint32_t NEVER = 8;    ///< of the partner: returns when the partner is told "release"

SessionRef FindSession(const std::string& name) {
  return detail::g_applications.Find(name.c_str());
}

void AddOne(const SlotCall& call) {
  TQSetInt32Value(call.result, "x", TQGetInt32Value(call.params, "n") + 1);
}

bool CallAddOne(const std::string& name) {
  ScopedList params;
  params.Int32("n", 4);
  const _tag_HTQPARAMLIST reply = TQCall(name.c_str(), ADD_ONE, params.Get());
  const bool good = TQGetInt32Value(reply, "x") == 5;
  TQCloseHandle(reply);
  return good;
}

// ---- the other process -------------------------------------------------------------------------

/// An application that connects to this process and then does as it is told, one line a command.
TQ_TEST_ROLE(partner) {
  ListenerRecorder listeners;
  listeners.onDisconnect = [](const auto& call) {
    Say("disconnected " + call.applicationName + " " + call.host + " " + std::to_string(call.port) +
        " " + call.application);
  };
  LogRecorder log;
  Gate release;
  EXPECT_EQ(TQInitialize(args.at(1).c_str(), 0, nullptr), TQ_ERR_OK);
  ScopedSlot addOne(ADD_ONE, &AddOne);
  ScopedSlot never(NEVER, [&](const SlotCall&) {
    Say("in the slot");
    EXPECT_TRUE(release.Wait(milliseconds{40000}));
  });
  char name[256] = {};
  EXPECT_EQ(ConnectTo(static_cast<uint16_t>(std::stoi(args.at(0))), name, sizeof name), TQ_ERR_OK);
  Say("connected to " + std::string(name));
  while (const auto command = ReadCommand()) {
    if (*command == "call") {
      Say(CallAddOne(name) ? "answered" : "not answered");
    } else if (*command == "disconnect") {
      TQDisconnect(name);
    } else if (*command == "shutdown") {
      TQShutdown();
      Say("shut down");
    } else if (*command == "release") {
      release.Open();
    } else if (*command == "log") {
      EXPECT_TRUE(WaitForSessionEnd(log, name));
      for (const std::string& line : ReceivingThreadLog(log, name)) Say("receiving " + line);
      for (const std::string& line : SendingThreadLog(log, name)) Say("sending " + line);
      Say("no more");
    }
  }
  release.Open();
  TQShutdown();
  // A session that this process's end has left may still be around: nobody is to judge it here.
  std::_Exit(testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0);
}

/// The host's view of a partner.
class Partner {
 public:
  explicit Partner(SessionHost& host, const std::string& shortName = "partner")
      : process("partner", {std::to_string(host.Port()), shortName}) {
    const auto line = process.ReadLineStarting("connected to ");
    EXPECT_TRUE(line);
    hostName = line ? line->substr(13) : "";
    name = hostName.substr(0, hostName.find(':')) + ":0/" + shortName;
    EXPECT_TRUE(host.Log().WaitFor(TQ_LOG_INFO, "Application connected:" + name));
    EXPECT_TRUE(host.WaitForAdmission(name));
  }

  /// What the partner says about its own session's log.
  Lines Log() {
    process.WriteLine("log");
    Lines lines;
    for (auto line = process.ReadLine(); line && *line != "no more"; line = process.ReadLine()) {
      lines.push_back(*line);
    }
    return lines;
  }

  /// Of its disconnect listener.
  bool ExpectTold() {
    const std::string host = hostName.substr(0, hostName.find(':'));
    const std::string port = hostName.substr(host.size() + 1, hostName.find('/') - host.size() - 1);
    return process.ExpectLine("disconnected " + hostName + " " + host + " " + port + " host");
  }

  /// Ends the process in order.
  bool Finish() {
    process.CloseInput();
    return process.ExpectSuccess();
  }

  ChildProcess process;
  std::string name;      ///< as the host knows it
  std::string hostName;  ///< the host as the partner knows it
};

/// The ends of the session, seen from the host.
std::string EndsOf(SessionHost& host, const std::string& name) {
  const auto line = host.Log().FirstWithPrefix("Sending thread finished for " + name + ":");
  return line ? line->text.substr(28 + name.size() + 1) : "";
}

/// The same as the other side has them, which has connected: its pipes keep the target's backslash.
std::string Turned(const std::string& ends) {
  const std::string start = OverPipes() ? "\\" : "";
  const size_t middle = ends.find("<->");
  return start + ends.substr(middle + 3) + "<->" + start + ends.substr(0, middle);
}

/// What both threads log at the end, each line behind `receiving` and `sending`.
Lines ExpectedLog(const std::string& name, const std::string& ends, const Lines& cause,
                  const std::string& receiving, const std::string& sending) {
  Lines lines = {receiving + InfoLine("Application connected:" + name)};
  for (const std::string& line : cause) lines.push_back(receiving + InfoLine(line));
  lines.push_back(receiving + InfoLine("Receiving thread finished for " + name + ":" + ends));
  lines.push_back(sending + InfoLine("Removing application " + name));
  lines.push_back(
      sending +
      InfoLine("Cancel postponed outgoing Outgoing messages queue has been cleared for" + name));
  lines.push_back(sending + InfoLine("All awaiting requests cancelled for " + name));
  lines.push_back(sending + InfoLine("Sending thread finished for " + name + ":" + ends));
  return lines;
}

Lines HostLog(const SessionHost& host, const std::string& name) {
  Lines lines = host.ReceivingThreadLog(name);
  const Lines sending = host.SendingThreadLog(name);
  lines.insert(lines.end(), sending.begin(), sending.end());
  return lines;
}

Lines RemoteCause(const std::string& name) {
  return AsLogged({"Receive failed: socket closed", "Remote disconnect: \"" + name + "\" stopped"});
}

// ---- the whole life ----------------------------------------------------------------------------

TEST(SessionEnd, IsLocalForTheSideThatDisconnectsAndRemoteForTheOther) {
  SessionHost host;
  ScopedSlot slot(ADD_ONE, &AddOne);
  Partner partner(host);
  EXPECT_TRUE(CallAddOne(partner.name));
  partner.process.WriteLine("call");
  ASSERT_TRUE(partner.process.ExpectLine("answered"));
  TQDisconnect(partner.name.c_str());
  ASSERT_TRUE(host.WaitForEnd(partner.name));
  const std::string ends = EndsOf(host, partner.name);
  EXPECT_EQ(HostLog(host, partner.name),
            ExpectedLog(partner.name, ends, {"Local shutdown: \"" + partner.name + "\" stopped"},
                        "", ""));
  EXPECT_TRUE(partner.ExpectTold());
  EXPECT_EQ(partner.Log(), ExpectedLog(partner.hostName, Turned(ends),
                                       RemoteCause(partner.hostName), "receiving ", "sending "));
  EXPECT_TRUE(partner.Finish());
}

TEST(SessionEnd, IsRemoteForTheListenerWhenTheConnectorDisconnects) {
  ListenerRecorder listeners;
  SessionHost host;
  Partner partner(host);
  partner.process.WriteLine("disconnect");
  ASSERT_TRUE(host.WaitForEnd(partner.name));
  const std::string ends = EndsOf(host, partner.name);
  EXPECT_EQ(HostLog(host, partner.name),
            ExpectedLog(partner.name, ends, RemoteCause(partner.name), "", ""));
  EXPECT_TRUE(partner.ExpectTold());
  EXPECT_EQ(partner.Log(), ExpectedLog(partner.hostName, Turned(ends),
                                       {"Local shutdown: \"" + partner.hostName + "\" stopped"},
                                       "receiving ", "sending "));
  ASSERT_EQ(listeners.Connects().size(), 1u);
  ASSERT_EQ(listeners.Disconnects().size(), 1u);
  const auto connect = listeners.Connects()[0];
  EXPECT_EQ(connect.localAddress + "<->" + connect.remoteAddress, ends);
  EXPECT_EQ(connect.applicationName, partner.name);
  const auto disconnect = listeners.Disconnects()[0];
  EXPECT_EQ(disconnect.applicationName, partner.name);
  EXPECT_EQ(disconnect.host, connect.host);
  EXPECT_EQ(disconnect.port, 0);
  EXPECT_EQ(disconnect.application, "partner");
  EXPECT_TRUE(partner.Finish());
}

TEST(SessionEnd, DestroysTheSessionAndClosesTheConnectionWithTheLastReference) {
  SessionHost host;
  Partner partner(host);
  SessionRef session = FindSession(partner.name);
  partner.process.WriteLine("disconnect");
  ASSERT_TRUE(host.WaitForEnd(partner.name));
  const std::string ends = EndsOf(host, partner.name);
  EXPECT_EQ(host.Log().CountOfPrefix("Destroying "), 0u);
  host.Log().Clear();
  session.Reset();
  // The threads have said their last, but may still hold their references for a moment.
  const std::string lastText = "Socket channel has been closed ";
  ASSERT_TRUE(host.Log().WaitForPrefix(TQ_LOG_INFO, OverPipes() ? "Destroyed " : lastText));
  const auto lastLine = host.Log().FirstWithPrefix(lastText);
  const std::string socket = lastLine ? lastLine->text.substr(lastText.size()) : "";
  EXPECT_EQ(host.Log().Texts(),
            AsLogged({"Destroying TQAPPImpl::~TQAPPImpl(" + partner.name + "):" + ends,
                      "Destroyed TQAPPImpl::~TQAPPImpl(" + partner.name + "):" + ends,
                      "Closing socket channel(" + socket + ") " + ends, lastText + socket}));
  for (const LogLine& line : host.Log().Lines()) {
    EXPECT_EQ(line.level, static_cast<uint32_t>(TQ_LOG_INFO));
    EXPECT_EQ(line.thread, host.Log().Lines()[0].thread);
  }
  EXPECT_TRUE(partner.Finish());
}

TEST(SessionEnd, MayBeFollowedByANewSessionUnderTheSameName) {
  SessionHost host;
  ScopedSlot slot(ADD_ONE, &AddOne);
  for (int life = 0; life < 3; ++life) {
    Partner partner(host);
    EXPECT_TRUE(CallAddOne(partner.name));
    partner.process.WriteLine("call");
    EXPECT_TRUE(partner.process.ExpectLine("answered"));
    EXPECT_TRUE(partner.Finish());
    ASSERT_TRUE(host.WaitForEnd(partner.name));
    EXPECT_TRUE(SessionHost::WaitForSessions(0));
    host.Log().Clear();
  }
}

// ---- a partner that goes -----------------------------------------------------------------------

TEST(SessionEnd, IsRemoteForTheOthersWhenAProcessShutsDown) {
  SessionHost host;
  Partner partner(host);
  partner.process.WriteLine("shutdown");
  ASSERT_TRUE(host.WaitForEnd(partner.name));
  EXPECT_EQ(HostLog(host, partner.name), ExpectedLog(partner.name, EndsOf(host, partner.name),
                                                     RemoteCause(partner.name), "", ""));
  EXPECT_TRUE(partner.ExpectTold());
  EXPECT_TRUE(partner.process.ExpectLine("shut down"));
  const Lines log = partner.Log();
  ASSERT_EQ(log.size(), 7u);
  // Whichever the thread has seen first.
  const std::string stopped = "\"" + partner.hostName + "\" stopped";
  EXPECT_TRUE(log[1] == "receiving " + InfoLine("Global shutdown: " + stopped) ||
              log[1] == "receiving " + InfoLine("Local shutdown: " + stopped))
      << log[1];
  EXPECT_TRUE(partner.Finish());
}

TEST(SessionEnd, CancelsWhatAKilledProcessHasNotAnsweredAndLeavesOthersAlone) {
  CompletionRecorder done;
  ListenerRecorder listeners;
  SessionHost host;
  ScopedSlot slot(ADD_ONE, &AddOne);
  Partner partner(host);
  Partner bystander(host, "bystander");
  const SessionRef session = FindSession(partner.name);
  CallInThread call(partner.name, NEVER);
  ASSERT_TRUE(partner.process.ExpectLine("in the slot"));
  ASSERT_EQ(TQNotify(partner.name.c_str(), ADD_ONE, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  // The answer stands in the queue behind the request, which has been written when it comes.
  partner.process.WriteLine("call");
  ASSERT_TRUE(partner.process.ExpectLine("answered"));
  EXPECT_FALSE(call.HasReturned());
  partner.process.Kill();
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_EQ(call.Result().impl, nullptr);
  ASSERT_TRUE(host.WaitForEnd(partner.name));
  EXPECT_EQ(host.Log().CountOf("Remote disconnect: \"" + partner.name + "\" stopped"), 1u);
  ASSERT_EQ(done.Count(), 1u);
  EXPECT_TRUE(done.Calls()[0].resultIsNull);
  EXPECT_EQ(done.Calls()[0].thread, host.SendingThread(partner.name));
  EXPECT_EQ(listeners.Disconnects().size(), 1u);
  EXPECT_EQ(TQNotify(partner.name.c_str(), 1, {nullptr}, nullptr, nullptr), TQ_ERR_NO_SESSION);

  EXPECT_TRUE(CallAddOne(bystander.name));
  bystander.process.WriteLine("call");
  EXPECT_TRUE(bystander.process.ExpectLine("answered"));
  EXPECT_TRUE(bystander.Finish());
  session->Awaiting().Clear();
}

TEST(SessionEnd, LetsACallGoThatWaitsForASlotWhenThisSideDisconnects) {
  SessionHost host;
  Partner partner(host);
  const SessionRef session = FindSession(partner.name);
  CallInThread call(partner.name, NEVER);
  ASSERT_TRUE(partner.process.ExpectLine("in the slot"));
  TQDisconnect(partner.name.c_str());
  ASSERT_TRUE(call.WaitReturned());
  EXPECT_EQ(call.Result().impl, nullptr);
  ASSERT_TRUE(host.WaitForEnd(partner.name));
  // The unanswered request keeps the connection: the other side does not learn of the end.
  EXPECT_FALSE(partner.process.ReadLine(milliseconds{100}));
  session->Awaiting().Clear();
  EXPECT_EQ(DEBUG_TQObjectCount().sessions, 1u);
  partner.process.WriteLine("release");
  EXPECT_TRUE(partner.Finish());
}

TEST(SessionEnd, ReachesASlotThatDisconnectsItsOwnCaller) {
  SessionHost host;
  std::atomic<bool> stillFound{true};
  ScopedSlot slot(ADD_ONE, [&](const SlotCall& call) {
    EXPECT_EQ(TQDisconnect(call.applicationName.c_str()), TQ_ERR_OK);
    stillFound = FindSession(call.applicationName).IsValid();
  });
  Partner partner(host);
  partner.process.WriteLine("call");
  // The other side sees the connection closed instead of an answer.
  ASSERT_TRUE(partner.ExpectTold());
  EXPECT_TRUE(partner.process.ExpectLine("not answered"));
  EXPECT_FALSE(stillFound);
  ASSERT_TRUE(host.WaitForEnd(partner.name));
  EXPECT_EQ(host.Log().CountOf("Local shutdown: \"" + partner.name + "\" stopped"), 1u);
  EXPECT_TRUE(partner.Finish());
}

TEST(SessionEnd, LeavesNoCallBlockedOrUnderwayWhateverItWasDoing) {
  SessionHost host;
  for (int round = 0; round < 5; ++round) {
    Partner partner(host);
    const SessionRef session = FindSession(partner.name);
    std::atomic<uint32_t> answered{0};
    std::atomic<uint32_t> cancelled{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) {
      callers.emplace_back([&] {
        // Up to the first call that the end of the session has caught.
        while (CallAddOne(partner.name)) ++answered;
        ++cancelled;
      });
    }
    EXPECT_TRUE(WaitUntil([&] { return answered > 20; }));
    TQDisconnect(partner.name.c_str());
    for (std::thread& each : callers) each.join();
    EXPECT_EQ(cancelled, 4u);
    ASSERT_TRUE(host.WaitForEnd(partner.name));
    session->Awaiting().Clear();
    host.Log().Clear();
  }
}

TEST(SessionEnd, OfAShutdownWritesNothingThatIsQueued) {
  CompletionRecorder done;
  SessionHost host;
  const std::string name = "raw.host:1/peer";
  RawPeer peer = host.Admit(name, SMALL_RECEIVE_BUFFER);
  ScopedList big;
  big.Binary("b", Filled(MORE_THAN_BUFFERS, 1));
  ASSERT_EQ(TQNotify(name.c_str(), 1, big.Get(), nullptr, nullptr), TQ_ERR_OK);
  ASSERT_TRUE(peer.ReceiveExactly(20)) << peer.Problem();
  for (uint32_t slotId : {2u, 3u, 4u}) {
    TQNotify(name.c_str(), slotId, {nullptr}, slotId == 3 ? nullptr : done.Callback(), &done);
  }
  std::thread shutdown([&] { host.Shutdown(); });
  EXPECT_TRUE(host.WaitForReceivingEnd(name));
  EXPECT_TRUE(peer.ReceiveExactly(TQGetHandleSize(big.Get()))) << peer.Problem();
  EXPECT_EQ(peer.ReceiveUntilClosed(), Bytes()) << peer.Problem();
  shutdown.join();
  const auto calls = done.Calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].slotId, 2u);
  EXPECT_EQ(calls[1].slotId, 4u);
  EXPECT_TRUE(calls[0].resultIsNull && calls[1].resultIsNull);
}

// ---- a reply that is lost half way -------------------------------------------------------------

/// Calls a raw peer twice. The first call's reply will be bad, the second has none.
TQ_TEST_ROLE(blockedCaller) {
  CompletionRecorder done;
  LogRecorder log;
  EXPECT_EQ(TQInitialize("caller", 0, nullptr), TQ_ERR_OK);
  char name[256] = {};
  EXPECT_EQ(ConnectTo(static_cast<uint16_t>(std::stoi(args.at(0))), name, sizeof name), TQ_ERR_OK);
  const SessionRef session = FindSession(name);
  const auto call = [&](uint32_t slotId) {
    const _tag_HTQPARAMLIST result = TQCall(name, slotId, {nullptr});
    Say("call " + std::to_string(slotId) + " returned " + (result.impl ? "a list" : "null"));
  };
  EXPECT_EQ(TQNotify(name, 1, {nullptr}, done.Callback(), &done), TQ_ERR_OK);
  AwaitCommand("next");
  std::thread first(call, 2);
  AwaitCommand("next");
  std::thread second(call, 3);
  EXPECT_TRUE(WaitForSessionEnd(log, name));
  second.join();
  if (args.at(1) == "first returns") first.join();
  // The bad reply's entry is gone, the other two are cancelled and still there.
  Say("notification completed " + std::to_string(done.Count()) + " times");
  for (uint32_t id = 1; id <= 3; ++id) {
    Say("entry " + std::to_string(id) + (session->Awaiting().Take(id) ? " is there" : " is gone"));
  }
  // Time enough for a call that anything would let go, and the end of the library does not either.
  std::this_thread::sleep_for(milliseconds{300});
  TQShutdown();
  Say("still blocked");
  std::this_thread::sleep_for(milliseconds{100});
  std::_Exit(testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0);
}

/// Which of the three requests gets the bad reply: the notification's (1) or the first call (2).
void ExpectLostRequest(uint32_t badId, const Bytes& reply, bool thenClose) {
  RawListener listener(FreePort());
  ChildProcess caller("blockedCaller", {std::to_string(listener.Port()),
                                        badId == 1 ? "first returns" : "first stays blocked"});
  auto peer = listener.Accept();
  ASSERT_TRUE(peer);
  ASSERT_TRUE(peer->HandshakeAsAcceptor("raw.host:1/peer").Completed());
  for (uint32_t id = 1; id <= 3; ++id) {
    const auto request = peer->ReadFrame();
    ASSERT_TRUE(request) << peer->Problem();
    ASSERT_EQ(request->id, id);
    if (id < 3) caller.WriteLine("next");
  }
  ASSERT_TRUE(peer->SendBytes(reply));
  if (thenClose) peer->Close();
  if (badId == 1) {
    // Both calls wait for their replies: the session's end lets them go.
    Lines returned = {caller.ReadLine().value_or(""), caller.ReadLine().value_or("")};
    std::sort(returned.begin(), returned.end());
    EXPECT_EQ(returned, (Lines{"call 2 returned null", "call 3 returned null"}));
    EXPECT_TRUE(caller.ExpectLine("notification completed 0 times"));
  } else {
    EXPECT_TRUE(caller.ExpectLine("call 3 returned null"));
    EXPECT_TRUE(caller.ExpectLine("notification completed 1 times"));
  }
  for (uint32_t id = 1; id <= 3; ++id) {
    EXPECT_TRUE(caller.ExpectLine("entry " + std::to_string(id) +
                                  (id == badId ? " is gone" : " is there")));
  }
  EXPECT_TRUE(caller.ExpectLine("still blocked"));
  EXPECT_EQ(caller.ReadRemainingLines(), Lines());
  EXPECT_TRUE(caller.ExpectSuccess());
}

const RawList GOOD_LIST = RawList().Int32("x", 1);
const RawList DAMAGED_LIST = RawList().Entry("x", 6, {});

TEST(SessionEnd, NeverCompletesACallWhoseReplyWasDamaged) {
  ExpectLostRequest(2, ReplyBytes(2, DAMAGED_LIST), false);
}

TEST(SessionEnd, NeverCompletesACallWhoseReplyWasCut) {
  const Bytes reply = ReplyBytes(2, GOOD_LIST);
  ExpectLostRequest(2, Prefix(reply, reply.size() - 1), true);
}

TEST(SessionEnd, NeverCompletesACallOfWhoseReplyOnlyTheHeadCame) {
  ExpectLostRequest(2, Prefix(ReplyBytes(2, GOOD_LIST), 16), true);
}

TEST(SessionEnd, NeverCompletesANotificationWhoseReplyWasDamaged) {
  ExpectLostRequest(1, ReplyBytes(1, DAMAGED_LIST), false);
}

}  // namespace
}  // namespace TQ::test
