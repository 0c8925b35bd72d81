// The pipe transport between processes that compete for a name or die with it.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/bytes.h"
#include "support/channel_ends.h"
#include "support/child_process.h"
#include "support/free_port.h"
#include "support/platform.h"
#include "support/socket_state.h"
#include "support/system_faults.h"
#include "support/transport.h"
#include "support/wait_until.h"
#include "transport/outbound_connection.h"
#include "transport/pipe_listener.h"

namespace TQ::test {
namespace {

namespace door = TQ::platform;
using detail::ChannelRef;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Texts = std::vector<std::string>;

/// Never said by a test: a role that waits for it stays where it is.
constexpr char NEVER[] = "never";

void ListenOn(const std::string& name) {
  detail::inboundPipeName = name + "_in";
  detail::outboundPipeName = name + "_out";
}

ChannelRef ConnectTo(const std::string& name) { return detail::ConnectPipe("\\" + name); }

/// What the two sides of a connection exchange: the client's word, and the server's with it.
constexpr uint32_t WORD = 4;

/// Answers one word with the server's own behind it, and waits until the client is gone.
bool AnswerOnce(ITransportChannel& channel, uint32_t server) {
  const auto word = ReceiveBytes(channel, WORD);
  if (!word || SendBytes(channel, Concat({*word, U32(server)})) != 2 * int32_t{WORD}) return false;
  uint8_t byte = 0;
  return channel.Receive(&byte, 1) == -1;
}

/// The server that has answered; nullopt if the answer is another client's, or there is none.
std::optional<uint32_t> AskOnce(ITransportChannel& channel, uint32_t word) {
  if (SendBytes(channel, U32(word)) != int32_t{WORD}) return std::nullopt;
  const auto answer = ReceiveBytes(channel, 2 * size_t{WORD});
  if (!answer || ReadU32(answer->data()) != word) return std::nullopt;
  return ReadU32(answer->data() + WORD);
}

// Serves connections, each to its end, and says what each attempt gave: NAME SERVER.
TQ_TEST_ROLE(server) {
  ListenOn(args.at(0));
  const auto server = static_cast<uint32_t>(std::stoul(args.at(1)));
  Say("starts");
  for (;;) {
    const ChannelRef channel = detail::AcceptPipe();
    Say(!channel ? "none" : AnswerOnce(*channel, server) ? "answered" : "failed");
  }
}

// Connects one time after the other: NAME FIRST-WORD COUNT.
TQ_TEST_ROLE(client) {
  const auto first = static_cast<uint32_t>(std::stoul(args.at(1)));
  const auto count = static_cast<uint32_t>(std::stoul(args.at(2)));
  std::map<uint32_t, int> answers;
  Say("ready");
  AwaitCommand("go");
  for (uint32_t word = first; word < first + count; ++word) {
    const ChannelRef channel = ConnectTo(args.at(0));
    if (!channel) {
      Say("lost " + std::to_string(word));
      continue;
    }
    const auto server = AskOnce(*channel, word);
    if (server) {
      ++answers[*server];
    } else {
      Say("crossed " + std::to_string(word));
    }
  }
  for (const auto& [server, number] : answers) {
    Say("server " + std::to_string(server) + " answered " + std::to_string(number));
  }
  return 0;
}

/// Clients that all start at once, and how often which server has answered them.
class Clients final {
 public:
  Clients(const std::string& name, int processes, int connections) : each(connections) {
    for (int i = 0; i < processes; ++i) {
      children.push_back(std::make_unique<ChildProcess>(
          "client", Texts{name, std::to_string((i + 1) * 1000), std::to_string(connections)}));
      EXPECT_TRUE(children.back()->ExpectLine("ready"));
    }
  }

  std::map<uint32_t, int> Run() {
    for (const auto& child : children) EXPECT_TRUE(child->WriteLine("go"));
    std::map<uint32_t, int> answers;
    for (const auto& child : children) {
      int own = 0;
      for (const std::string& line : child->ReadRemainingLines(ROLE_TIME_LIMIT)) {
        unsigned server = 0;
        int number = 0;
        if (std::sscanf(line.c_str(), "server %u answered %d", &server, &number) == 2) {
          answers[server] += number;
          own += number;
        } else {
          ADD_FAILURE() << "a client says: " << line;
        }
      }
      EXPECT_EQ(own, each);
      EXPECT_TRUE(child->ExpectSuccess());
    }
    return answers;
  }

 private:
  const int each;
  std::vector<std::unique_ptr<ChildProcess>> children;
};

/// A name of its own, and the proof that nothing of it is left.
class PipeFaults : public testing::Test {
 protected:
  ~PipeFaults() override {
    EXPECT_EQ(platform::FilesNamed(name), Texts());
    EXPECT_TRUE(WaitUntil([&] { return platform::WaitingPipes(name).empty(); }));
  }

  static void End(ChildProcess& child) {
    child.Kill();
    EXPECT_TRUE(child.Wait());
  }

  const std::string name = PipeName(FreePort());
};

// ---- names -------------------------------------------------------------------------------------

TEST_F(PipeFaults, NamesThatAreNoFileNamesConnectAllTheSameAndLeaveNoFile) {
  for (const std::string& each : {name + std::string(200 - name.size(), 'x'), name + "/inner/name",
                                  name + R"(\inner\\name)"}) {
    SCOPED_TRACE(each);
    ChildProcess server("server", {each, "1"});
    ASSERT_TRUE(server.ExpectLine("starts"));
    {
      const ChannelRef channel = ConnectTo(each);
      ASSERT_TRUE(channel.IsValid());
      EXPECT_EQ(AskOnce(*channel, 5), 1u);
      EXPECT_EQ(platform::FilesNamed(name), Texts());
    }
    EXPECT_TRUE(server.ExpectLine("answered"));
    End(server);
  }
}

// ---- many peers --------------------------------------------------------------------------------

TEST_F(PipeFaults, NoConnectionOfManyProcessesIsCrossedOrLost) {
  ChildProcess server("server", {name, "1"});
  ASSERT_TRUE(server.ExpectLine("starts"));
  EXPECT_EQ(Clients(name, 8, 50).Run(), (std::map<uint32_t, int>{{1, 400}}));
  for (int i = 0; i < 400; ++i) ASSERT_TRUE(server.ExpectLine("answered")) << i;
  End(server);
}

// ---- a listener that dies ----------------------------------------------------------------------

enum Step { BEFORE_THE_FIRST, BEFORE_THE_SECOND, BETWEEN_THE_TWO, BEHIND_BOTH, WHILE_IT_SENDS };

// Stands still at a step of its accept and says so: NAME STEP.
TQ_TEST_ROLE(stoppedServer) {
  ListenOn(args.at(0));
  const int step = std::stoi(args.at(1));
  BeforeAccept([step, first = -1](int socket) mutable {
    if (first < 0) first = socket;
    const bool alone = step == BEFORE_THE_SECOND && socket != first;
    if (!alone && step != (socket == first ? BEFORE_THE_FIRST : BETWEEN_THE_TWO)) return;
    EXPECT_TRUE(alone || WaitUntil([&] { return HasWaitingPeer(socket); }));
    Say("stands");
    AwaitCommand(NEVER);
  });
  Say("starts");
  const ChannelRef channel = detail::AcceptPipe();
  if (!channel) return 1;
  if (step == BEHIND_BOTH) {
    Say("stands");
    AwaitCommand(NEVER);
  }
  Say("stands");
  while (SendBytes(*channel, Pattern(100000)) > 0) continue;
  return 1;
}

class DyingListener : public PipeFaults {
 protected:
  /// Connects while the server goes up to the step, dies there, and has a successor at once.
  /// Gives what the connect gave; the successor serves.
  ChannelRef ConnectAndKillAt(Step step) {
    ChildProcess dying("stoppedServer", {name, std::to_string(step)});
    EXPECT_TRUE(dying.ExpectLine("starts"));
    ChannelRef channel;
    std::thread connector([&] { channel = ConnectTo(name); });
    EXPECT_TRUE(dying.ExpectLine("stands"));
    if (step >= BEHIND_BOTH) connector.join();
    if (step == WHILE_IT_SENDS) {
      EXPECT_EQ(ReceiveBytes(*channel, 100000), Pattern(100000));
    }
    dying.Kill();
    successor.emplace("server", Texts{name, "2"});
    EXPECT_TRUE(dying.Wait());
    if (step == BEFORE_THE_SECOND) {
      EXPECT_TRUE(WaitUntil([&] { return platform::WaitingPipes(name).size() == 2; }));
      secondMayCome.set_value();
    }
    if (connector.joinable()) connector.join();
    return channel;
  }

  void ExpectTheSuccessorServes() {
    const ChannelRef channel = ConnectTo(name);
    ASSERT_TRUE(channel.IsValid());
    EXPECT_EQ(AskOnce(*channel, 77), 2u);
  }

  /// Keeps connects to a second pipe back until the successor waits for them.
  void HoldTheSecondPipe() {
    BeforeConnect([this](int socket) {
      const auto address = platform::PipeAddress(socket);
      const std::string text(address.begin(), address.end());
      if (text.find("tq.peer:") == std::string::npos) return;
      EXPECT_EQ(successorWaits.wait_for(DEFAULT_DEADLINE), std::future_status::ready);
    });
  }

  ~DyingListener() override {
    BeforeConnect(nullptr);
    if (successor) End(*successor);
  }

  std::optional<ChildProcess> successor;
  std::promise<void> secondMayCome;
  const std::shared_future<void> successorWaits{secondMayCome.get_future()};
};

TEST_F(DyingListener, BeforeItTakesThePeerTheSuccessorGetsIt) {
  const ChannelRef channel = ConnectAndKillAt(BEFORE_THE_FIRST);
  ASSERT_TRUE(channel.IsValid());
  EXPECT_EQ(AskOnce(*channel, 5), 2u);
}

// The second pipe that it comes to is the successor's, which has not taken it on the first.
TEST_F(DyingListener, BeforeThePeerComesToTheSecondPipeTheConnectFailsAndTheNextOneWorks) {
  HoldTheSecondPipe();
  EXPECT_FALSE(ConnectAndKillAt(BEFORE_THE_SECOND));
  ExpectTheSuccessorServes();
}

TEST_F(DyingListener, BetweenTheTwoPipesTheConnectFailsAndTheNextOneWorks) {
  EXPECT_FALSE(ConnectAndKillAt(BETWEEN_THE_TWO));
  ExpectTheSuccessorServes();
}

TEST_F(DyingListener, BehindBothPipesTheChannelFailsAndTheNextOneWorks) {
  const ChannelRef channel = ConnectAndKillAt(BEHIND_BOTH);
  ASSERT_TRUE(channel.IsValid());
  EXPECT_FALSE(AskOnce(*channel, 5));
  ExpectTheSuccessorServes();
}

TEST_F(DyingListener, WhileItSendsTheReadFailsBehindWhatHasCome) {
  const ChannelRef channel = ConnectAndKillAt(WHILE_IT_SENDS);
  ASSERT_TRUE(channel.IsValid());
  const detail::StopFlag live{0};
  Bytes piece(1000);
  while (channel->Receive(piece.data(), 1000, &live) == 1000) continue;
  EXPECT_EQ(channel->Receive(piece.data(), 1, &live), -1);
  EXPECT_EQ(SendBytes(*channel, Pattern(1)), -1);
  ExpectTheSuccessorServes();
}

// ---- a client that dies ------------------------------------------------------------------------

// Opens the first pipe and goes no further: NAME.
TQ_TEST_ROLE(halfClient) {
  const auto inbound =
      door::OpenPipeEnd(door::PIPE_PREFIX + args.at(0) + "_in", door::PipeAccess::WRITE, nullptr);
  Say(inbound.IsOpen() ? "half" : "none");
  AwaitCommand(NEVER);
  return 0;
}

// Required: the wait for the second pipe has no limit and does not see that nobody can come.
TEST_F(PipeFaults, ClientThatDiesBetweenTheTwoPipesLeavesTheListenerInItsWait) {
  ChildProcess server("server", {name, "1"});
  ASSERT_TRUE(server.ExpectLine("starts"));
  ChildProcess client("halfClient", {name});
  ASSERT_TRUE(client.ExpectLine("half"));
  End(client);
  EXPECT_EQ(server.ReadLine(milliseconds{2000}), std::nullopt) << "it has left its wait";
  EXPECT_TRUE(server.IsRunning());
  EXPECT_TRUE(
      WaitUntil([&] { return platform::WaitingPipes(name) == Texts{"tq.pipe:" + name + "_out"}; }));
  EXPECT_EQ(platform::OpenPipe(name + "_in", platform::NO_HANDLE, DEFAULT_DEADLINE),
            platform::NO_HANDLE);
  EXPECT_EQ(platform::OpenPipe(name + "_out", platform::NO_HANDLE, DEFAULT_DEADLINE),
            platform::NO_HANDLE)
      << "nobody else gets in";
  EXPECT_TRUE(server.IsRunning());
  End(server);
}

// Shuts down when it is told to: NAME.
TQ_TEST_ROLE(library) {
  EXPECT_EQ(TQInitializeEx(("\\" + args.at(0)).c_str(), "library", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQConnectionReady(), TQ_ERR_OK);
  Say("listens");
  AwaitCommand("stop");
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
  Say("down");
  return 0;
}

// Stands still in the handshake with a peer that knows nothing of its authentication block: NAME.
TQ_TEST_ROLE(libraryInAHandshake) {
  const Bytes block = Pattern(16);
  EXPECT_EQ(TQSetAuthenticationInfo(block.data(), 16), TQ_ERR_OK);
  TQSetAuthFailedListener([](const char*, const char*, const char*) {
    Say("stands");
    AwaitCommand(NEVER);
  });
  EXPECT_EQ(TQInitializeEx(("\\" + args.at(0)).c_str(), "library", 0, nullptr), TQ_ERR_OK);
  EXPECT_EQ(TQConnectionReady(), TQ_ERR_OK);
  Say("listens");
  (void)WaitUntil([] { return false; }, ROLE_TIME_LIMIT);
  return 1;
}

TEST_F(PipeFaults, LibraryThatIsKilledInAHandshakeHasASuccessorAtOnce) {
  const std::string host = "\\" + name;
  ASSERT_EQ(TQInitialize("client", 0, nullptr), TQ_ERR_OK);
  ChildProcess dying("libraryInAHandshake", {name});
  ASSERT_TRUE(dying.ExpectLine("listens"));
  _tag_TQ_ERROR broken = TQ_ERR_OK;
  std::thread connector([&] { broken = TQConnect(host.c_str(), 0, nullptr, 0, nullptr, 0); });
  EXPECT_TRUE(dying.ExpectLine("stands"));
  dying.Kill();
  ChildProcess successor("library", {name});
  EXPECT_TRUE(successor.ExpectLine("listens"));
  connector.join();
  EXPECT_EQ(broken, TQ_ERR_NAME_REJECTED) << "as every close before the last word";
  EXPECT_TRUE(dying.Wait());
  std::array<char, 256> peer{};
  EXPECT_EQ(TQConnect(host.c_str(), 0, peer.data(), peer.size(), nullptr, 0), TQ_ERR_OK);
  EXPECT_NE(std::string(peer.data()).find(":0/library"), std::string::npos) << peer.data();
  EXPECT_EQ(TQDisconnect(peer.data()), TQ_ERR_OK);
  EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
  End(successor);
}

// Required: a peer that opens one pipe and not the other keeps a shutdown from its end.
TEST_F(PipeFaults, PeerThatOpensOnlyTheFirstPipeHoldsTheShutdown) {
  ChildProcess library("library", {name});
  ASSERT_TRUE(library.ExpectLine("listens"));
  auto inbound = platform::NO_HANDLE;
  ASSERT_TRUE(WaitUntil([&] {
    inbound = platform::OpenPipe(name + "_in", platform::NO_HANDLE, DEFAULT_DEADLINE);
    return inbound != platform::NO_HANDLE;
  }));
  ASSERT_TRUE(library.WriteLine("stop"));
  EXPECT_EQ(library.ReadLine(milliseconds{2000}), std::nullopt);
  platform::CloseSocket(platform::OpenPipe(name + "_out", inbound, DEFAULT_DEADLINE));
  platform::CloseSocket(inbound);
  EXPECT_TRUE(library.ExpectLine("down"));
  EXPECT_TRUE(library.ExpectSuccess());
}

// ---- two listeners -----------------------------------------------------------------------------

TEST_F(PipeFaults, OfTwoListenersOfANameEachConnectionHasOneForItself) {
  ChildProcess one("server", {name, "1"});
  ChildProcess other("server", {name, "2"});
  ASSERT_TRUE(one.ExpectLine("starts"));
  ASSERT_TRUE(other.ExpectLine("starts"));
  std::map<uint32_t, int> answers = Clients(name, 4, 25).Run();
  EXPECT_EQ(answers[1] + answers[2], 100);
  // What one leaves behind the other takes up.
  End(one);
  EXPECT_EQ(Clients(name, 2, 5).Run(), (std::map<uint32_t, int>{{2, 10}}));
  End(other);
}

// Fails to get the names over and over, and says its processor time and the time: NAME ROUNDS.
TQ_TEST_ROLE(waiter) {
  ListenOn(args.at(0));
  const auto start = steady_clock::now();
  const std::clock_t before = std::clock();
  for (int i = std::stoi(args.at(1)); i > 0; --i) EXPECT_FALSE(detail::AcceptPipe());
  const double used = double(std::clock() - before) * 1000 / CLOCKS_PER_SEC;
  Say(std::to_string(static_cast<int64_t>(used)) + " " + std::to_string(ElapsedMs(start)));
  return 0;
}

TEST_F(PipeFaults, ListenerWithoutANameKeepsNoProcessorBusy) {
  const platform::Handle inbound = platform::ListenPipe(name + "_in");
  const platform::Handle outbound = platform::ListenPipe(name + "_out");
  ChildProcess waiter("waiter", {name, "10"});
  const auto line = waiter.ReadLine();
  ASSERT_TRUE(line);
  long long used = 0;
  long long elapsed = 0;
  ASSERT_EQ(std::sscanf(line->c_str(), "%lld %lld", &used, &elapsed), 2);
  EXPECT_GE(elapsed, 2000) << "a tenth of a second for each name";
  EXPECT_LT(used * 2, elapsed);
  EXPECT_TRUE(waiter.ExpectSuccess());
  platform::CloseSocket(inbound);
  platform::CloseSocket(outbound);
}

}  // namespace
}  // namespace TQ::test
