// The life of real processes that are connected to each other.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "session/application_registry.h"
#include "support/log_recorder.h"
#include "support/wait_until.h"
#include "system/application.h"

namespace TQ::test {
namespace {

using std::chrono::milliseconds;

// ---- from the start to the first call ----------------------------------------------------------

TEST(LifeOfTwoProcesses, GoesFromTheFirstInitializationToTheFirstCallInOrder) {
  ListenerRecorder listeners;
  LogRecorder log;
  const uint16_t port = FreePort();
  const ScopedSlot slot(9, [](const SlotCall& call) { TQSetInt32Value(call.result, "x", 5); });
  const LocalLibrary library("server", port);
  Application client("client");
  client.Tell("listen");
  client.Expect("listening");
  ASSERT_TRUE(log.WaitForPrefix(TQ_LOG_INFO, OverPipes()
                                                 ? "ConnThread Pipe Startup"
                                                 : "listening for incoming connection on :"));
  client.Tell("connect " + std::to_string(port));
  // Its connect listener and the return of its TQConnect come in either order.
  std::vector<std::string> lines;
  for (int i = 0; i < 2; ++i) lines.push_back(client.Process().ReadLine().value_or("nothing"));
  EXPECT_NE(std::find(lines.begin(), lines.end(), "+ " + library.Name()), lines.end());
  EXPECT_NE(std::find(lines.begin(), lines.end(), "connected " + library.Name()), lines.end());
  client.Do("call " + library.Name() + " 9 1", "called x=5");

  const std::vector<std::string> ofTheListener =
      OverPipes()
          ? std::vector<std::string>{"ConnThread Pipe Startup", "Outbound pipe "}
          : std::vector<std::string>{"ConnThread Startup", "listening for incoming connection on :",
                                     "ConnectionThread. Accepting new connection"};
  std::vector<std::string> milestones = {"Initializing with: host=" + HostText(port) + " port=",
                                         "Application=" + library.Name()};
  milestones.insert(milestones.end(), ofTheListener.begin(), ofTheListener.end());
  milestones.push_back("Start management threads for " + client.Name());
  milestones.push_back("Startup completed for " + client.Name());
  std::vector<std::string> passed;
  for (const LogLine& line : log.Lines()) {
    for (const std::string& milestone : milestones) {
      if (line.text.rfind(milestone, 0) == 0) passed.push_back(milestone);
    }
  }
  EXPECT_EQ(passed, milestones) << log.Dump();
  ASSERT_EQ(listeners.Connects().size(), 1u);
  EXPECT_EQ(listeners.Connects()[0].applicationName, client.Name());
  EXPECT_EQ(listeners.Connects()[0].application, "client");
  EXPECT_EQ(listeners.Connects()[0].port, client.Port());
}

TEST(LifeOfTwoProcesses, CanBeLivedAgainAndAgain) {
  Application server("server");
  for (uint32_t life = 1; life <= 3; ++life) {
    const LocalLibrary library("client");
    const std::string peer = library.ConnectTo(server);
    EXPECT_EQ(CallText(peer, ECHO_SLOT, life), "x=" + std::to_string(life));
    // Our name must be free there before we come back.
    EXPECT_EQ(TQDisconnect(peer.c_str()), TQ_ERR_OK);
    ASSERT_TRUE(WaitUntil([&] {
      server.Tell("counts");
      const auto line = server.Process().ReadLineStarting("sessions ");
      return line && line->rfind("sessions 0 ", 0) == 0;
    }));
  }
}

TEST(LifeOfTwoProcesses, LeavesNothingBehind) {
  Application server("server");
  {
    const LocalLibrary library("client");
    const std::string peer = library.ConnectTo(server);
    for (uint32_t i = 0; i < 50; ++i)
      EXPECT_EQ(CallText(peer, ECHO_SLOT, i), "x=" + std::to_string(i));
  }
  const TQObjectCounts counts = DEBUG_TQObjectCount();
  EXPECT_EQ(counts.sessions, 0u);
  EXPECT_EQ(counts.messages, 0u);
  EXPECT_EQ(counts.paramLists, 0u);
  EXPECT_TRUE(WaitUntil([&] {
    server.Tell("counts");
    return server.Process().ReadLineStarting("sessions ") == "sessions 0 messages 0 lists 0";
  }));
}

// ---- several components in one process ---------------------------------------------------------

TEST(LastShutdown, AloneEndsTheSessions) {
  LogRecorder log;
  Application server("server");
  ASSERT_EQ(TQInitialize("client", 0, nullptr), TQ_ERR_OK);
  {
    const LocalLibrary library("client");
    const std::string peer = library.ConnectTo(server);
    // A component that was turned away counts like any other.
    EXPECT_EQ(TQInitialize("another", 0, nullptr), TQ_ERR_NAME_REJECTED);
    EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
    EXPECT_EQ(CallText(peer, ECHO_SLOT, 1), "x=1");
    EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
    EXPECT_EQ(CallText(peer, ECHO_SLOT, 2), "x=2");
    EXPECT_EQ(log.CountOfPrefix("Global shutdown: "), 0u);
  }
  EXPECT_EQ(log.CountOf("Global shutdown: \"" + server.Name() + "\" stopped") +
                log.CountOf("Local shutdown: \"" + server.Name() + "\" stopped"),
            1u);
}

// ---- the other side sees the end ---------------------------------------------------------------

TEST(ShutdownOfAPeer, IsARemoteDisconnectHere) {
  ListenerRecorder listeners;
  LogRecorder log;
  Application server("server");
  const LocalLibrary library("client");
  const std::string peer = library.ConnectTo(server);
  server.Tell("shutdown");
  ASSERT_TRUE(listeners.WaitForDisconnects(1));
  EXPECT_EQ(listeners.Disconnects()[0].applicationName, peer);
  EXPECT_TRUE(log.WaitFor(TQ_LOG_INFO, "Remote disconnect: \"" + peer + "\" stopped"));
  server.Expect("shut down 0");
  EXPECT_TRUE(SessionHost::WaitForSessions(0));
  EXPECT_EQ(TQNotify(peer.c_str(), ECHO_SLOT, {nullptr}, nullptr, nullptr), TQ_ERR_NO_SESSION);
}

TEST(ShutdownHere, IsARemoteDisconnectThere) {
  Application server("server");
  {
    const LocalLibrary library("client");
    library.ConnectTo(server);
    server.Do("listen", "listening");
  }
  const auto line = server.Process().ReadLine();
  ASSERT_TRUE(line);
  EXPECT_EQ(line->rfind("- ", 0), 0u) << *line;
}

TEST(ShutdownHere, StopsEverySessionWithinItsTime) {
  std::vector<std::unique_ptr<Application>> servers;
  for (int i = 0; i < 4; ++i) {
    servers.push_back(std::make_unique<Application>("server" + std::to_string(i)));
  }
  ListenerRecorder listeners;
  size_t ended = 0;
  // A thread that slept through its stop would take 5 s.
  EXPECT_TRUE(IsQuickerOnce(milliseconds(4500), [&](int run) {
    const LocalLibrary library("client" + std::to_string(run));
    for (const auto& server : servers) library.ConnectTo(*server);
    EXPECT_EQ(detail::g_applications.Size(), 4u);
    ended += 4;
  }));
  EXPECT_EQ(listeners.Disconnects().size(), ended);
  EXPECT_EQ(detail::g_applications.Size(), 0u);
}

// ---- processes that do not end in order --------------------------------------------------------

TQ_TEST_ROLE(connectAndReturn) {
  TQInitialize("hasty", 0, nullptr);
  std::array<char, 256> peer{};
  EXPECT_EQ(ConnectTo(static_cast<uint16_t>(std::stoi(args.at(0))), peer.data(), peer.size()),
            TQ_ERR_OK);
  Say("connected");
  AwaitCommand("return");
  return 0;
}

TEST(ProcessWithASession, ThatReturnsWithoutAShutdownIsTerminated) {
  ListenerRecorder listeners;
  const LocalLibrary library("server", FreePort());
  ASSERT_TRUE(WaitUntil([&] { return RawPeer::TryConnect(library.Port()).has_value(); }));
  ChildProcess child("connectAndReturn", {std::to_string(library.Port())}, ErrorOutput::MERGED);
  ASSERT_TRUE(child.ExpectLine("connected"));
  ASSERT_TRUE(listeners.WaitForConnects(1));
  child.WriteLine("return");
  const auto status = child.Wait();
  ASSERT_TRUE(status);
  EXPECT_TRUE(status->Aborted()) << *status;
  EXPECT_TRUE(listeners.WaitForDisconnects(1)) << "its peers see the connection end";
}

TQ_TEST_ROLE(connectShutDownAndReturn) {
  for (int i = 0; i < 3; ++i) {
    TQInitialize("tidy", 0, nullptr);
    std::array<char, 256> peer{};
    EXPECT_TRUE(WaitUntil([&] {
      return ConnectTo(static_cast<uint16_t>(std::stoi(args.at(0))), peer.data(), peer.size()) ==
             TQ_ERR_OK;
    }));
    EXPECT_EQ(CallText(peer.data(), 9, 1), "x=5");
    TQShutdown();
  }
  // The sending threads may still run: what they touch outlives the process's exit handlers.
  return 0;
}

TEST(ProcessWithASession, ThatReturnsRightAfterItsShutdownEndsInOrder) {
  const ScopedSlot slot(9, [](const SlotCall& call) { TQSetInt32Value(call.result, "x", 5); });
  const LocalLibrary library("server", FreePort());
  ASSERT_TRUE(WaitUntil([&] { return RawPeer::TryConnect(library.Port()).has_value(); }));
  for (int i = 0; i < 5; ++i) {
    ChildProcess child("connectShutDownAndReturn", {std::to_string(library.Port())});
    EXPECT_TRUE(child.ExpectSuccess());
  }
}

}  // namespace
}  // namespace TQ::test
