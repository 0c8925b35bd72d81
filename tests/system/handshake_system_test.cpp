// Handshakes between real processes: two that run the library, and one that runs it
// against a peer that does not keep to the rules.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "frame/settings.h"
#include "platform/sockets.h"
#include "support/bytes.h"
#include "support/child_process.h"
#include "support/free_port.h"
#include "support/hex.h"
#include "support/host_calls.h"
#include "support/listener_recorder.h"
#include "support/raw_list.h"
#include "support/raw_peer.h"
#include "support/transport.h"
#include "support/wait_until.h"

namespace TQ::test {
namespace {

using std::chrono::milliseconds;

using Texts = std::vector<std::string>;

constexpr unsigned ECHO_SLOT = 5;

// ---- the process that runs the library ---------------------------------------------------------

// Says each line with a number for its thread, so that the lines of one thread can be told apart.
void SayLogLine(uint32_t level, int32_t /*verbosity*/, const char* text) {
  // Never destroyed: a library thread may log while the process ends.
  static auto* const state = new std::pair<std::mutex, std::map<std::thread::id, size_t>>;
  auto& [lock, numbers] = *state;
  size_t number = 0;
  {
    const std::lock_guard held(lock);
    number = numbers.emplace(std::this_thread::get_id(), numbers.size()).first->second;
  }
  Say("log " + std::to_string(number) + " " + std::to_string(level) + " " + text);
}

int Echo(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result, const TQSlotCallInfo*) {
  TQSetInt32Value(result, "echo", TQGetInt32Value(params, "value"));
  return 0;
}

std::string CallEcho(const std::string& peer) {
  const _tag_HTQPARAMLIST params = TQCreateParamList();
  TQSetInt32Value(params, "value", 41);
  const _tag_HTQPARAMLIST result = TQCall(peer.c_str(), ECHO_SLOT, params);
  std::string text = "none";
  if (result.impl != nullptr) text = std::to_string(TQGetInt32Value(result, "echo"));
  TQCloseHandle(result);
  TQCloseHandle(params);
  return text;
}

// "connect PORT NAMESIZE LENGTH [HEX]": without HEX there is no data.
std::string ConnectAsTold(std::istringstream& words) {
  uint16_t port = 0;
  uint32_t nameSize = 0;
  int32_t length = 0;
  std::string hex;
  words >> port >> nameSize >> length >> hex;
  const Bytes data = FromHex(hex);
  std::vector<char> name(nameSize, 'U');
  const _tag_TQ_ERROR result =
      TQConnect(HostText(port).c_str(), port, nameSize != 0 ? name.data() : nullptr, nameSize,
                hex.empty() ? nullptr : data.data(), length);
  const auto end = std::find(name.begin(), name.end(), '\0');
  return std::to_string(result) + " " + std::string(name.begin(), end);
}

// An application that does what the test tells it: its name ("-" for none, and then it is not
// initialised), its port, its IO_TIMEOUT_MS, and commands that it answers with one line each.
TQ_TEST_ROLE(application) {
  const std::string name = args.at(0);
  const auto port = static_cast<uint16_t>(std::stoi(args.at(1)));
  TQSetLogLevel(15, 0, &SayLogLine);
  const ListenerRecorder listeners([](const ListenerCall& call) { Say("listener " + call.text); });
  TQRegisterSlot(ECHO_SLOT, &Echo, nullptr);
  _tag_TQLIMITS limits{};
  limits.size = sizeof limits;
  limits.IO_TIMEOUT_MS = static_cast<uint32_t>(std::stoul(args.at(2)));
  const bool initialised = name != "-";
  if (initialised) {
    EXPECT_EQ(TQInitializeEx(port != 0 ? HostText(port).c_str() : nullptr,
                             name == "empty" ? "" : name.c_str(), port, &limits),
              TQ_ERR_OK);
    if (port != 0) {
      EXPECT_EQ(TQConnectionReady(), TQ_ERR_OK);
    }
  }
  Say("name " + detail::localApplicationName.Copy());
  while (const auto line = ReadCommand()) {
    std::istringstream words(*line);
    std::string command;
    std::string argument;
    words >> command;
    if (command == "connect") {
      Say("answer " + ConnectAsTold(words));
      continue;
    }
    words >> argument;
    if (command == "auth") {
      const Bytes data = FromHex(argument);
      Say("answer " +
          std::to_string(TQSetAuthenticationInfo(data.data(), static_cast<int32_t>(data.size()))));
    } else if (command == "call") {
      Say("answer " + CallEcho(argument));
    } else if (command == "disconnect") {
      Say("answer " + std::to_string(TQDisconnect(argument.c_str())));
    } else if (command == "sessions") {
      Say("answer " + std::to_string(DEBUG_TQObjectCount().sessions));
    } else if (command == "writes") {
      Say("answer " + std::to_string(DEBUG_TQObjectCount().writeCalls));
    } else {
      ADD_FAILURE() << *line;
      Say("answer none");
    }
  }
  if (initialised && port != 0) {
    ShutdownWhileKnocking(port);
  } else if (initialised) {
    EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
  }
  EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().sessions == 0; }));
  return 0;
}

// ---- the test's side of it ---------------------------------------------------------------------

// The limits of an application. One wait of a read takes half of it: nobody who does what he should
// is slower than the first, and the second is waited for.
constexpr uint32_t PATIENT = 60000;
constexpr uint32_t IMPATIENT = 4000;

// The socket listener's last line about a peer. The pipe listener has none of its own.
const std::string COMPLETED = "8 ConnectionThread. Initialization of new connection is completed.";

/// The last line of either listener about a peer that was refused, and about one that was admitted.
const std::string REFUSED = OverPipes() ? "2 Application start failed" : COMPLETED;
std::string AdmittedLine(const std::string& peer) {
  return OverPipes() ? "8 Startup completed for " + peer : COMPLETED;
}

/// What a connecting thread logs, with the lines of the handshake at the end.
Texts ConnectorLog(uint16_t toPort, const Texts& handshakeLines) {
  Texts log;
  if (OverPipes()) {
    log = {"8 Waiting named pipe" + PipePath(HostText(toPort) + "_in"),
           "8 Waiting named pipe " + PipePath(HostText(toPort) + "_out")};
  }
  log.insert(log.end(), handshakeLines.begin(), handshakeLines.end());
  return log;
}

class Application {
 public:
  explicit Application(const std::string& shortName, uint16_t listenPort = 0,
                       uint32_t ioTimeoutMs = PATIENT)
      : port(listenPort),
        process("application",
                {shortName, std::to_string(listenPort), std::to_string(ioTimeoutMs)}) {
    name = Await("name ").value_or("name ").substr(5);
    if (listenPort != 0) {
      EXPECT_TRUE(WaitForLog(OverPipes() ? "8 ConnThread Pipe Startup"
                                         : "8 listening for incoming connection on :" + Address()));
    }
  }

  /// Ends the process in order.
  ~Application() { End(); }

  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  void End() {
    if (ended) return;
    ended = true;
    process.CloseInput();
    for (const std::string& line : process.ReadRemainingLines()) {
      lines.push_back(line);
    }
    EXPECT_TRUE(process.ExpectSuccess());
  }

  std::string Do(const std::string& command) {
    Tell(command);
    return Answer();
  }

  /// Gives a command without waiting for its answer.
  void Tell(const std::string& command) { EXPECT_TRUE(process.WriteLine(command)); }

  std::string Answer() {
    // An answer is read once; everything else is kept.
    while (auto line = process.ReadLine()) {
      if (line->rfind("answer ", 0) == 0) return line->substr(7);
      lines.push_back(*line);
    }
    ADD_FAILURE() << "no answer\n" << Dump();
    return {};
  }

  std::string Connect(uint16_t toPort, int32_t length = 0, const Bytes& data = {},
                      uint32_t nameSize = 256) {
    std::string command = "connect " + std::to_string(toPort) + " " + std::to_string(nameSize) +
                          " " + std::to_string(length);
    if (!data.empty()) command += " " + ToHex(data, "");
    return Do(command);
  }

  /// Waits for a listener's call.
  bool WaitForListener(const std::string& call) {
    return WaitUntilSeen([&](const std::string& line) { return line == "listener " + call; });
  }

  /// Waits for a log line of any thread, level and text.
  bool WaitForLog(const std::string& text, size_t count = 1) {
    return WaitUntilSeen(
        [&](const std::string& line) {
          return IsLog(line) && line.substr(line.find(' ', 4) + 1) == text;
        },
        count);
  }

  /// Waits for log lines of any threads that begin so.
  bool WaitForLogPrefix(const std::string& start, size_t count) {
    return WaitUntilSeen(
        [&](const std::string& line) {
          return IsLog(line) && line.compare(line.find(' ', 4) + 1, start.size(), start) == 0;
        },
        count);
  }

  /// How many log lines with this level and text have been seen.
  size_t CountOfLog(const std::string& text) const {
    size_t count = 0;
    for (const std::string& line : lines) {
      count += IsLog(line) && line.substr(line.find(' ', 4) + 1) == text ? 1 : 0;
    }
    return count;
  }

  /// What the listeners were called with.
  Texts Listeners() const {
    Texts calls;
    for (const std::string& line : lines) {
      if (line.rfind("listener ", 0) == 0) calls.push_back(line.substr(9));
    }
    return calls;
  }

  /// The lines, with levels, of the thread that has logged `text`, without what tells of the ends
  /// of sessions and channels, which happen on any thread, and of inbound pipes, which comes only
  /// if the peer was waited for.
  Texts ThreadLog(const std::string& text) const {
    std::string thread;
    for (const std::string& line : lines) {
      if (IsLog(line) && line.substr(line.find(' ', 4) + 1) == text) {
        thread = line.substr(0, line.find(' ', 4) + 1);
      }
    }
    Texts result;
    for (const std::string& line : lines) {
      if (thread.empty() || line.rfind(thread, 0) != 0) continue;
      const std::string rest = line.substr(thread.size());
      bool ofAnEnd = false;
      for (const char* prefix :
           {"8 Destroy", "8 Closing socket", "8 Socket channel", "8 Inbound pipe"}) {
        ofAnEnd = ofAnEnd || rest.rfind(prefix, 0) == 0;
      }
      if (!ofAnEnd) result.push_back(rest);
    }
    return result;
  }

  void Forget() { lines.clear(); }

  std::string Dump() const {
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
  }

  /// "HOST PORT APPLICATION" of this application's name.
  std::string Parts() const {
    const size_t colon = name.find(':');
    const size_t slash = name.find('/');
    const size_t end = name.find('/', slash + 1);
    return name.substr(0, colon) + " " + name.substr(colon + 1, slash - colon - 1) + " " +
           name.substr(slash + 1, end == std::string::npos ? end : end - slash - 1);
  }

  /// The local address of its connections from others, and how their remote addresses begin.
  std::string Address() const {
    return OverPipes() ? PipeName(port) + "_in" : "127.0.0.1:" + std::to_string(port);
  }
  std::string RemoteStart() const { return OverPipes() ? PipeName(port) + "_out" : "127.0.0.1:"; }

  /// What its listener's thread logs of one peer, with the lines of the handshake in the middle.
  Texts ListenerLog(const Texts& handshakeLines) const {
    Texts log{"8 ConnectionThread. Accepting new connection",
              "8 ConnectionThread. Connection from: '127.0.0.1' has been accepted",
              "8 ConnectionThread. Configuring new socket.",
              "8 ConnectionThread. Starting new application"};
    if (OverPipes()) log = {"8 Outbound pipe " + PipePath(PipeName(port) + "_out") + " connected"};
    const Texts logged = AsLogged(handshakeLines);
    log.insert(log.end(), logged.begin(), logged.end());
    if (!OverPipes()) log.push_back(COMPLETED);
    return log;
  }

  /// The same of a peer that was refused.
  Texts RefusalLog(const Texts& reasons) const {
    Texts log = reasons;
    log.insert(log.end(), {"8 Start management threads for ", "8 Startup completed for ",
                           "2 " + ListenerLine("Application start failed")});
    return ListenerLog(log);
  }

  const uint16_t port;
  std::string name;

 private:
  static bool IsLog(const std::string& line) { return line.rfind("log ", 0) == 0; }

  /// The next line that begins with `prefix`.
  std::optional<std::string> Await(const std::string& prefix) {
    while (auto line = process.ReadLine()) {
      lines.push_back(*line);
      if (line->rfind(prefix, 0) == 0) return line;
    }
    ADD_FAILURE() << prefix << " never came\n" << Dump();
    return std::nullopt;
  }

  bool WaitUntilSeen(const std::function<bool(const std::string&)>& matches, size_t count = 1) {
    size_t seen = 0;
    for (const std::string& line : lines) seen += matches(line) ? 1 : 0;
    while (seen < count) {
      auto line = process.ReadLine();
      if (!line) return false;
      lines.push_back(*line);
      seen += matches(*line) ? 1 : 0;
    }
    return true;
  }

  ChildProcess process;
  Texts lines;
  bool ended = false;
};

const std::string OK = std::to_string(TQ_ERR_OK) + " ";
const std::string FAILED = std::to_string(TQ_ERR_FAILED) + " ";
const std::string REJECTED = std::to_string(TQ_ERR_NAME_REJECTED) + " ";
const std::string UNTOUCHED(256, 'U');

std::string MachineName() {
  std::array<char, 1024> name{};
  EXPECT_TRUE(TQ::platform::GetHostName(name.data(), name.size()));
  return name.data();
}

/// The short name with which an application's full one has `length` bytes.
std::string NameForLength(size_t length, uint16_t port) {
  const std::string start = MachineName() + ":" + std::to_string(port) + "/";
  return std::string(length - start.size(), 'n');
}

// ---- two processes -----------------------------------------------------------------------------

TEST(TwoProcesses, AdmitEachOtherAndTalkBothWays) {
  Application acceptor("a", FreePort());
  Application connector("b");
  EXPECT_EQ(connector.Connect(acceptor.port), OK + acceptor.name);
  EXPECT_EQ(connector.Do("call " + acceptor.name), "41");
  EXPECT_EQ(acceptor.Do("call " + connector.name), "41");
}

TEST(TwoProcesses, TellTheirConnectListenersOfOneConnection) {
  Application acceptor("a", FreePort());
  Application connector("b");
  ASSERT_EQ(connector.Connect(acceptor.port), OK + acceptor.name);
  ASSERT_TRUE(acceptor.WaitForLog("8 Application connected:" + connector.name));
  EXPECT_EQ(acceptor.Do("call " + connector.name), "41");
  EXPECT_EQ(connector.Do("call " + acceptor.name), "41");
  const Texts accepted = acceptor.Listeners();
  ASSERT_EQ(accepted.size(), 1u) << acceptor.Dump();
  std::istringstream words(accepted[0]);
  std::string call;
  std::string local;
  std::string remote;
  words >> call >> local >> remote;
  EXPECT_EQ(accepted[0], "connect " + acceptor.Address() + " " + remote + " " + connector.name +
                             " " + connector.Parts());
  // What is local to one is remote to the other; the pipes of a target keep its backslash.
  const std::string start = OverPipes() ? "\\" : "";
  EXPECT_EQ(connector.Listeners(),
            Texts{"connect " + start + remote + " " + start + acceptor.Address() + " " +
                  acceptor.name + " " + acceptor.Parts()});
}

TEST(TwoProcesses, LogAnAdmissionInFullAndInOrder) {
  Application acceptor("a", FreePort());
  Application connector("b");
  acceptor.Forget();
  connector.Forget();
  ASSERT_EQ(connector.Connect(acceptor.port), OK + acceptor.name);
  const std::string admitted = AdmittedLine(connector.name);
  ASSERT_TRUE(acceptor.WaitForLog(admitted));
  EXPECT_EQ(acceptor.ThreadLog(admitted),
            acceptor.ListenerLog({"8 Start management threads for " + connector.name,
                                  "8 Startup completed for " + connector.name}));
  const std::string startup = "8 Startup completed for " + acceptor.name;
  EXPECT_EQ(
      connector.ThreadLog(startup),
      ConnectorLog(acceptor.port, {"8 Start management threads for " + acceptor.name, startup}));
}

TEST(TwoProcesses, WriteThreeTimesEach) {
  Application acceptor("a", FreePort());
  Application connector("b");
  ASSERT_EQ(connector.Connect(acceptor.port), OK + acceptor.name);
  EXPECT_EQ(connector.Do("writes"), "3");
  EXPECT_EQ(acceptor.Do("writes"), "3");
}

TEST(TwoProcesses, AgreeOnNothingAsTheDefaultBlock) {
  Application acceptor("a", FreePort());
  Application connector("b");
  int32_t length = 0;
  for (const Bytes& data : {Bytes(), Bytes(), Bytes(1), Bytes(100), Bytes(256), Bytes(256, 7)}) {
    // Data of length 0 does not count, nor does a length without data; last, a negative length.
    const int32_t told = length++ == 1  ? 100
                         : data.empty() ? 0
                         : data[0] == 7 ? -1
                                        : static_cast<int32_t>(data.size());
    ASSERT_EQ(connector.Connect(acceptor.port, told, data), OK + acceptor.name) << length;
    ASSERT_EQ(connector.Do("disconnect " + acceptor.name), "0");
    ASSERT_TRUE(acceptor.WaitForLog("8 All awaiting requests cancelled for " + connector.name,
                                    static_cast<size_t>(length)));
    ASSERT_TRUE(connector.WaitForLog("8 All awaiting requests cancelled for " + acceptor.name,
                                     static_cast<size_t>(length)));
  }
}

TEST(TwoProcesses, NeedTheSameBlock) {
  Application acceptor("a", FreePort());
  Application connector("b");
  const Bytes block = Pattern(256);
  ASSERT_EQ(acceptor.Do("auth " + ToHex(block, "")), "0");
  Bytes wrong = block;
  wrong.back() ^= 1;
  EXPECT_EQ(connector.Connect(acceptor.port, 256, wrong), REJECTED + UNTOUCHED);
  EXPECT_EQ(connector.Connect(acceptor.port, 255, block), REJECTED + UNTOUCHED);
  EXPECT_EQ(connector.Connect(acceptor.port, 256, block), OK + acceptor.name);
}

TEST(TwoProcesses, RefuseAConnectionThatProvesNothingWhenABlockIsSet) {
  Application acceptor("a", FreePort());
  Application connector("b");
  ASSERT_EQ(acceptor.Do("auth 01"), "0");
  acceptor.Forget();
  EXPECT_EQ(connector.Connect(acceptor.port), REJECTED + UNTOUCHED);
  ASSERT_TRUE(acceptor.WaitForLog(REFUSED));
  EXPECT_EQ(acceptor.ThreadLog(REFUSED), acceptor.RefusalLog({"4 Stage 2: credentials failed"}));
  const Texts calls = acceptor.Listeners();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].rfind("authFailed " + acceptor.Address() + " " + acceptor.RemoteStart(), 0),
            0u)
      << calls[0];
  EXPECT_EQ(calls[0].substr(calls[0].rfind(' ') + 1), connector.name);
  // The connecting side is told by its result alone.
  EXPECT_TRUE(connector.Listeners().empty());
  EXPECT_TRUE(connector.WaitForLog("4 Application '' is not initialized", 2));
}

TEST(TwoProcesses, KeepTheBlockOfTheAcceptingSideOutOfItsOwnConnections) {
  Application acceptor("a", FreePort());
  Application other("b", FreePort());
  ASSERT_EQ(acceptor.Do("auth 0102"), "0");
  // Its own block is asked of others; it proves what its caller gives.
  EXPECT_EQ(acceptor.Connect(other.port), OK + other.name);
}

TEST(TwoProcesses, TakeAChangedBlockWithTheNextConnection) {
  Application acceptor("a", FreePort());
  Application first("b");
  Application second("c");
  ASSERT_EQ(first.Connect(acceptor.port), OK + acceptor.name);
  ASSERT_EQ(acceptor.Do("auth aabb"), "0");
  EXPECT_EQ(second.Connect(acceptor.port), REJECTED + UNTOUCHED);
  EXPECT_EQ(second.Connect(acceptor.port, 2, {0xAA, 0xBB}), OK + acceptor.name);
  // Whoever is in stays in.
  EXPECT_EQ(first.Do("call " + acceptor.name), "41");
}

TEST(TwoProcesses, RefuseABlockThatIsTooLongBeforeAnythingIsSent) {
  Application acceptor("a", FreePort());
  Application connector("b");
  acceptor.Forget();
  EXPECT_EQ(connector.Connect(acceptor.port, 257, Bytes(257)), FAILED + UNTOUCHED);
  EXPECT_TRUE(connector.WaitForLog("4 Application '' is not initialized", 2));
  EXPECT_EQ(connector.Do("writes"), "0");
  ASSERT_TRUE(acceptor.WaitForLog(REFUSED));
  EXPECT_EQ(acceptor.ThreadLog(REFUSED), acceptor.RefusalLog({"8 Receive failed: socket closed",
                                                              "4 Stage 1: no appID specified"}));
}

TEST(TwoProcesses, RefuseOneThatWasNeverInitialised) {
  Application acceptor("a", FreePort());
  Application connector("-");
  EXPECT_EQ(connector.name, "");
  acceptor.Forget();
  EXPECT_EQ(connector.Connect(acceptor.port), FAILED + UNTOUCHED);
  ASSERT_TRUE(acceptor.WaitForLog(REFUSED));
  EXPECT_EQ(acceptor.ThreadLog(REFUSED), acceptor.RefusalLog({"4 Stage 1: no appID specified"}));
  const Texts calls = acceptor.Listeners();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].rfind("unknown " + acceptor.Address() + " " + acceptor.RemoteStart(), 0), 0u)
      << calls[0];
}

TEST(TwoProcesses, RefuseASecondConnectionOnTheConnectingSide) {
  Application acceptor("a", FreePort());
  Application connector("b");
  ASSERT_EQ(connector.Connect(acceptor.port), OK + acceptor.name);
  ASSERT_TRUE(acceptor.WaitForLog(AdmittedLine(connector.name)));
  acceptor.Forget();
  EXPECT_EQ(connector.Connect(acceptor.port), REJECTED + UNTOUCHED);
  // It leaves before the challenge is answered.
  ASSERT_TRUE(acceptor.WaitForLog(REFUSED));
  EXPECT_EQ(acceptor.CountOfLog("4 Stage 2: credentials failed"), 1u) << acceptor.Dump();
  EXPECT_EQ(connector.Do("call " + acceptor.name), "41");
}

TEST(TwoProcesses, RefuseASecondProcessOfTheSameName) {
  Application acceptor("a", FreePort());
  Application first("twin");
  Application second("twin");
  ASSERT_EQ(first.name, second.name);
  ASSERT_EQ(first.Connect(acceptor.port), OK + acceptor.name);
  ASSERT_TRUE(acceptor.WaitForLog(AdmittedLine(first.name)));
  // The reply is read after the connect listener has run.
  ASSERT_EQ(acceptor.Do("call " + first.name), "41");
  acceptor.Forget();
  EXPECT_EQ(second.Connect(acceptor.port), REJECTED + UNTOUCHED);
  ASSERT_TRUE(acceptor.WaitForLog(REFUSED));
  EXPECT_EQ(acceptor.ThreadLog(REFUSED),
            acceptor.RefusalLog({"2 Application already connected: '" + first.name + "'"}));
  EXPECT_TRUE(acceptor.Listeners().empty()) << acceptor.Dump();
  EXPECT_TRUE(second.Listeners().empty());
  EXPECT_EQ(first.Do("call " + acceptor.name), "41");
  // Its name is free once the first one has gone.
  EXPECT_EQ(first.Do("disconnect " + acceptor.name), "0");
  ASSERT_TRUE(acceptor.WaitForLog("8 All awaiting requests cancelled for " + first.name));
  EXPECT_EQ(second.Connect(acceptor.port), OK + acceptor.name);
}

TEST(TwoProcesses, CarryNamesOf255Bytes) {
  const uint16_t port = FreePort();
  Application acceptor(NameForLength(255, port), port);
  Application connector(NameForLength(255, 0));
  ASSERT_EQ(acceptor.name.size(), 255u);
  ASSERT_EQ(connector.name.size(), 255u);
  EXPECT_EQ(connector.Connect(port), OK + acceptor.name);
  EXPECT_EQ(connector.Do("call " + acceptor.name), "41");
  EXPECT_EQ(acceptor.Do("call " + connector.name), "41");
}

TEST(TwoProcesses, RefuseANameOf256BytesFromTheConnectingSide) {
  Application acceptor("a", FreePort());
  Application connector(NameForLength(256, 0));
  ASSERT_EQ(connector.name.size(), 256u);
  acceptor.Forget();
  EXPECT_EQ(connector.Connect(acceptor.port), FAILED + UNTOUCHED);
  ASSERT_TRUE(acceptor.WaitForLog(REFUSED));
  EXPECT_EQ(acceptor.ThreadLog(REFUSED), acceptor.RefusalLog({"4 Stage 1: no appID specified"}));
}

TEST(TwoProcesses, RefuseANameOf256BytesFromTheAcceptingSide) {
  const uint16_t port = FreePort();
  Application acceptor(NameForLength(256, port), port);
  Application connector("b");
  acceptor.Forget();
  EXPECT_EQ(connector.Connect(port), FAILED + UNTOUCHED);
  EXPECT_TRUE(connector.Listeners().empty());
  ASSERT_TRUE(acceptor.WaitForLog(REFUSED));
  EXPECT_EQ(acceptor.CountOfLog("4 Stage 2: credentials failed"), 1u);
}

TEST(TwoProcesses, RefuseAConnectionFromANameWithoutAnApplication) {
  Application acceptor("a", FreePort());
  Application connector("empty");
  ASSERT_EQ(connector.name.back(), '/');
  acceptor.Forget();
  EXPECT_EQ(connector.Connect(acceptor.port), REJECTED + UNTOUCHED);
  ASSERT_TRUE(acceptor.WaitForLog(REFUSED));
  EXPECT_EQ(acceptor.ThreadLog(REFUSED), acceptor.RefusalLog({"4 Stage 4: No host or name"}));
  ASSERT_EQ(acceptor.Listeners().size(), 1u);
  EXPECT_EQ(acceptor.Listeners()[0].rfind("unknown " + acceptor.Address(), 0), 0u);
}

TEST(TwoProcesses, RefuseAConnectionToANameWithoutAnApplication) {
  Application acceptor("empty", FreePort());
  Application connector("b");
  EXPECT_EQ(connector.Connect(acceptor.port), FAILED + UNTOUCHED);
  const Texts calls = connector.Listeners();
  ASSERT_EQ(calls.size(), 1u) << connector.Dump();
  const std::string start = OverPipes() ? "\\" : "";
  EXPECT_EQ(calls[0].rfind("unknown " + start + acceptor.RemoteStart(), 0), 0u) << calls[0];
  EXPECT_EQ(calls[0].substr(calls[0].rfind(' ') + 1), start + acceptor.Address());
  // The accepting side has seen nothing wrong by then.
  EXPECT_TRUE(acceptor.WaitForLog("8 Application connected:" + connector.name));
  EXPECT_TRUE(acceptor.WaitForLog("8 Remote disconnect: \"" + connector.name + "\" stopped"));
}

TEST(TwoProcesses, KeepNamesWithSeveralSlashesWhole) {
  const uint16_t port = FreePort();
  Application acceptor("a/x/y", port);
  Application connector("b/z");
  EXPECT_EQ(connector.Connect(port), OK + acceptor.name);
  EXPECT_EQ(connector.Do("call " + acceptor.name), "41");
  EXPECT_EQ(acceptor.Do("call " + connector.name), "41");
  ASSERT_FALSE(acceptor.Listeners().empty());
  const std::string ending = connector.name + " " + connector.Parts();
  const std::string call = acceptor.Listeners()[0];
  EXPECT_EQ(connector.Parts().back(), 'b');
  EXPECT_EQ(call.substr(call.size() - ending.size()), ending);
}

TEST(TwoProcesses, ConnectWithoutTheNameWhenItsBufferIsTooSmall) {
  Application acceptor("a", FreePort());
  Application connector("b");
  const auto size = static_cast<uint32_t>(acceptor.name.size());
  EXPECT_EQ(connector.Connect(acceptor.port, 0, {}, size), OK);
  EXPECT_EQ(connector.Do("call " + acceptor.name), "41");
}

TEST(TwoProcesses, ConnectWithoutABufferForTheName) {
  Application acceptor("a", FreePort());
  Application connector("b");
  EXPECT_EQ(connector.Connect(acceptor.port, 0, {}, 0), OK);
  EXPECT_TRUE(connector.WaitForLog("8 Application connected:" + acceptor.name));
  EXPECT_EQ(connector.Do("call " + acceptor.name), "41");
}

TEST(TwoProcesses, ConnectAgainAndAgain) {
  Application acceptor("a", FreePort());
  Application connector("b");
  for (int round = 0; round < 10; ++round) {
    // Until the accepting side has seen the end of the last connection the name is taken.
    ASSERT_TRUE(WaitUntil([&] { return connector.Connect(acceptor.port) == OK + acceptor.name; }));
    EXPECT_EQ(connector.Do("disconnect " + acceptor.name), "0");
    ASSERT_TRUE(connector.WaitForLog("8 All awaiting requests cancelled for " + acceptor.name));
    connector.Forget();
  }
  EXPECT_TRUE(WaitUntil([&] { return acceptor.Do("sessions") == "0"; }));
  EXPECT_TRUE(WaitUntil([&] { return connector.Do("sessions") == "0"; }));
}

TEST(TwoProcesses, ManyConnectToOneAtATime) {
  constexpr size_t COUNT = 6;
  Application acceptor("a", FreePort());
  std::vector<std::unique_ptr<Application>> connectors;
  for (size_t i = 0; i < COUNT; ++i) {
    connectors.push_back(std::make_unique<Application>("c" + std::to_string(i)));
  }
  for (const auto& connector : connectors) {
    connector->Tell("connect " + std::to_string(acceptor.port) + " 256 0");
  }
  for (const auto& connector : connectors) {
    EXPECT_EQ(connector->Answer(), OK + acceptor.name);
  }
  for (const auto& connector : connectors) {
    EXPECT_EQ(connector->Do("call " + acceptor.name), "41");
    EXPECT_EQ(acceptor.Do("call " + connector->name), "41");
  }
}

// ---- a peer that breaks the rules: connecting --------------------------------------------------

constexpr const char* RAW_NAME = "raw:1/peer";
constexpr const char* GOOD_NAME = "good:1/peer";

// An accepting application with one session in good order, which must not notice anything.
class MisbehavingConnector : public testing::Test {
 protected:
  explicit MisbehavingConnector(uint32_t ioTimeoutMs = PATIENT)
      : acceptor("a", FreePort(), ioTimeoutMs) {
    good = RawPeer::Connect(acceptor.port);
    if (!good) throw std::runtime_error("the application does not listen");
    EXPECT_TRUE(good->HandshakeAsConnector(GOOD_NAME).Completed());
    EXPECT_TRUE(acceptor.WaitForLog(AdmittedLine(GOOD_NAME)));
    EXPECT_TRUE(acceptor.WaitForLog(std::string("8 Application connected:") + GOOD_NAME));
    EXPECT_TRUE(acceptor.WaitForListener("connect " + acceptor.Address() + " " +
                                         good->LocalAddress() + " good:1/peer good 1 peer"));
    acceptor.Forget();
  }

  ~MisbehavingConnector() override {
    ExpectGoodSessionWorks();
    good->Close();
  }

  void ExpectGoodSessionWorks() {
    good->SendRequest(77, RAW_CALL, ECHO_SLOT, RawList().Int32("value", 9));
    const auto reply = good->ReadFrame();
    ASSERT_TRUE(reply) << good->Problem();
    EXPECT_EQ(reply->id, 77u);
    const auto echo = reply->list.Find("echo");
    ASSERT_TRUE(echo);
    EXPECT_EQ(echo->number, 9u);
  }

  /// Connects, does a part of a handshake and then sends `bytes`; the connection is refused with
  /// this line and this call, and what came from the application was `received` in all.
  void ExpectRefusal(const std::string& line, const std::string& listener,
                     const HandshakeOptions& options = {}, const std::string& name = RAW_NAME,
                     const Bytes& authBlock = {}) {
    auto peer = RawPeer::Connect(acceptor.port);
    ASSERT_TRUE(peer);
    const std::string address = peer->LocalAddress();
    const HandshakeResult result = peer->HandshakeAsConnector(name, authBlock, options);
    EXPECT_FALSE(result.Completed());
    peer->ShutdownWrite();
    // No word of why.
    EXPECT_EQ(peer->ReceiveUntilClosed(), Bytes());
    ASSERT_TRUE(acceptor.WaitForLog(REFUSED));
    Texts lines = acceptor.ThreadLog(REFUSED);
    std::erase_if(lines, [](const std::string& text) {
      return text.rfind("8 Receive failed", 0) == 0 || text.rfind("8 Send failed", 0) == 0;
    });
    EXPECT_EQ(lines, acceptor.RefusalLog({line}));
    Texts calls;
    if (!listener.empty()) {
      std::string call = listener;
      call.replace(call.find("ADDRESSES"), 9, acceptor.Address() + " " + address);
      calls.push_back(call);
    }
    EXPECT_EQ(acceptor.Listeners(), calls);
    EXPECT_TRUE(acceptor.WaitForLog("4 Application '' is not initialized", 2));
    EXPECT_EQ(acceptor.CountOfLog(std::string("8 Application connected:") + name), 0u);
  }

  static HandshakeOptions StopAfter(int step) {
    HandshakeOptions options;
    options.stopAfterStep = step;
    return options;
  }

  Application acceptor;
  std::optional<RawPeer> good;
};

TEST_F(MisbehavingConnector, WithoutAWordIsRefusedAtStage1) {
  ExpectRefusal("4 Stage 1: no appID specified", "unknown ADDRESSES", StopAfter(0));
}

TEST_F(MisbehavingConnector, WithAnEmptyNameIsRefusedAtStage1) {
  HandshakeOptions options = StopAfter(1);
  ExpectRefusal("4 Stage 1: no appID specified", "unknown ADDRESSES", options, "");
}

TEST_F(MisbehavingConnector, WithANameOf256BytesIsRefusedAtStage1) {
  ExpectRefusal("4 Stage 1: no appID specified", "unknown ADDRESSES", StopAfter(1),
                "h:1/" + std::string(252, 'n'));
}

TEST_F(MisbehavingConnector, ThatAnnounces257BytesIsRefusedAtOnce) {
  // The length alone is enough: the bytes behind it are not waited for.
  HandshakeOptions options = StopAfter(1);
  options.firstNameBytes = U32(257);
  ExpectRefusal("4 Stage 1: no appID specified", "unknown ADDRESSES", options);
}

TEST_F(MisbehavingConnector, ThatAnnouncesFourGigabytesIsRefusedAtStage1) {
  HandshakeOptions options = StopAfter(1);
  options.firstNameBytes = U32(0xFFFFFFFF);
  ExpectRefusal("4 Stage 1: no appID specified", "unknown ADDRESSES", options);
}

TEST_F(MisbehavingConnector, WithoutADigestIsRefusedAtStage2) {
  ExpectRefusal("4 Stage 2: credentials failed", "authFailed ADDRESSES raw:1/peer", StopAfter(3));
}

TEST_F(MisbehavingConnector, WithHalfADigestIsRefusedAtStage2) {
  HandshakeOptions options = StopAfter(4);
  options.digestBytes = Bytes(8);
  ExpectRefusal("4 Stage 2: credentials failed", "authFailed ADDRESSES raw:1/peer", options);
}

TEST_F(MisbehavingConnector, WithAWrongDigestIsRefusedAtStage2) {
  HandshakeOptions options = StopAfter(4);
  options.wrongDigest = true;
  ExpectRefusal("4 Stage 2: credentials failed", "authFailed ADDRESSES raw:1/peer", options);
}

TEST_F(MisbehavingConnector, WithTheDigestOfAnotherBlockIsRefusedAtStage2) {
  ExpectRefusal("4 Stage 2: credentials failed", "authFailed ADDRESSES raw:1/peer", StopAfter(4),
                RAW_NAME, {1});
}

TEST_F(MisbehavingConnector, WithoutASecondNameIsRefusedAtStage1) {
  ExpectRefusal("4 Stage 1: no appID specified", "unknown ADDRESSES", StopAfter(4));
}

TEST_F(MisbehavingConnector, WithAnEmptySecondNameIsRefusedAtStage1) {
  HandshakeOptions options = StopAfter(5);
  options.secondName = "";
  ExpectRefusal("4 Stage 1: no appID specified", "unknown ADDRESSES", options);
}

TEST_F(MisbehavingConnector, WithASecondNameOf256BytesIsRefusedAtStage1) {
  HandshakeOptions options = StopAfter(5);
  options.secondNameBytes = U32(260);
  ExpectRefusal("4 Stage 1: no appID specified", "unknown ADDRESSES", options);
}

TEST_F(MisbehavingConnector, WithATakenNameIsRefusedAndNoListenerIsTold) {
  ExpectRefusal("2 Application already connected: 'good:1/peer'", "", StopAfter(5), GOOD_NAME);
}

TEST_F(MisbehavingConnector, ThatChangesToATakenNameIsRefused) {
  HandshakeOptions options = StopAfter(5);
  options.secondName = GOOD_NAME;
  ExpectRefusal("2 Application already connected: 'good:1/peer'", "", options);
}

TEST_F(MisbehavingConnector, WithoutHostAndNameIsRefusedAtStage4) {
  ExpectRefusal("4 Stage 4: No host or name", "unknown ADDRESSES", StopAfter(5), "plain");
}

TEST_F(MisbehavingConnector, WithoutAPortIsRefusedAtStage4) {
  ExpectRefusal("4 Stage 4: No host or name", "unknown ADDRESSES", StopAfter(5), "raw:/peer");
}

TEST_F(MisbehavingConnector, ThatChangesToAFreeNameIsAdmitted) {
  auto peer = RawPeer::Connect(acceptor.port);
  ASSERT_TRUE(peer);
  HandshakeOptions options;
  options.secondName = RAW_NAME;
  EXPECT_TRUE(peer->HandshakeAsConnector(GOOD_NAME, {}, options).Completed());
  EXPECT_TRUE(acceptor.WaitForLog(std::string("8 Application connected:") + RAW_NAME));
}

TEST_F(MisbehavingConnector, MaySendOneByteAtATime) {
  auto peer = RawPeer::Connect(acceptor.port);
  ASSERT_TRUE(peer);
  EXPECT_TRUE(peer->SendSlowly(NameStringBytes(RAW_NAME)));
  ASSERT_TRUE(peer->ReadName());
  const auto challenge = peer->ReceiveExactly(RAW_CHALLENGE_SIZE);
  ASSERT_TRUE(challenge);
  EXPECT_TRUE(peer->SendSlowly(DigestBytes({}, *challenge)));
  EXPECT_TRUE(peer->SendSlowly(NameStringBytes(RAW_NAME)));
  const auto name = peer->ReadName();
  ASSERT_TRUE(name);
  EXPECT_EQ(name->text, acceptor.name);
  EXPECT_EQ(name->bytes, NameStringBytes(acceptor.name));
}

TEST_F(MisbehavingConnector, MaySendAFrameBeforeItIsAdmitted) {
  auto peer = RawPeer::Connect(acceptor.port);
  ASSERT_TRUE(peer);
  peer->SendName(RAW_NAME);
  ASSERT_TRUE(peer->ReadName());
  const auto challenge = peer->ReceiveExactly(RAW_CHALLENGE_SIZE);
  ASSERT_TRUE(challenge);
  peer->SendBytes(Concat({DigestBytes({}, *challenge), NameStringBytes(RAW_NAME),
                          RequestBytes(3, RAW_CALL, ECHO_SLOT, RawList().Int32("value", 8))}));
  ASSERT_TRUE(peer->ReadName());
  const auto reply = peer->ReadFrame();
  ASSERT_TRUE(reply) << peer->Problem();
  EXPECT_EQ(reply->id, 3u);
}

class SilentConnector : public MisbehavingConnector {
 protected:
  SilentConnector() : MisbehavingConnector(IMPATIENT) {}
};

// A peer may be connected, and wait for its turn, before it is accepted.
using SilentConnectorOverTcp = SilentConnector;

TEST_F(SilentConnectorOverTcp, HoldsUpOthersForAsLongAsItIsGivenAndNoLonger) {
  auto silent = RawPeer::Connect(acceptor.port);
  ASSERT_TRUE(silent);
  auto next = RawPeer::Connect(acceptor.port);
  ASSERT_TRUE(next);
  next->SendName(RAW_NAME);
  EXPECT_TRUE(next->StaysSilentFor(milliseconds{200}));
  // Whoever is in is served meanwhile.
  ExpectGoodSessionWorks();
  EXPECT_TRUE(silent->WaitClosed());
  const auto name = next->ReadName();
  ASSERT_TRUE(name);
  EXPECT_EQ(name->text, acceptor.name);
  EXPECT_TRUE(
      acceptor.WaitForLog("8 Receive failed: no data arrived in expected 2 seconds11,expected=4"));
}

// There are no pipes for the next peer while one is in its handshake.
using SilentConnectorOverPipes = SilentConnector;

TEST_F(SilentConnectorOverPipes, KeepsOthersOutForAsLongAsItIsGivenAndNoLonger) {
  auto silent = RawPeer::Connect(acceptor.port);
  ASSERT_TRUE(silent);
  EXPECT_FALSE(RawPeer::TryConnect(acceptor.port));
  ExpectGoodSessionWorks();
  EXPECT_TRUE(silent->WaitClosed());
  auto next = RawPeer::Connect(acceptor.port);
  ASSERT_TRUE(next);
  EXPECT_TRUE(next->HandshakeAsConnector(RAW_NAME).Completed());
  EXPECT_TRUE(acceptor.WaitForLog(std::string("8 Application connected:") + RAW_NAME));
  EXPECT_EQ(acceptor.CountOfLog("4 Stage 1: no appID specified"), 1u);
}

TEST_F(SilentConnector, ThatReadsNothingHarmsNobody) {
  // Its small buffers hold the name and the challenge back only until it goes.
  auto peer = RawPeer::Connect(acceptor.port, DEFAULT_DEADLINE, 1);
  ASSERT_TRUE(peer);
  peer->SendName(RAW_NAME);
  EXPECT_TRUE(acceptor.WaitForLog("4 Stage 2: credentials failed"));
  ExpectGoodSessionWorks();
}

TEST_F(MisbehavingConnector, ThatGoesAtAnyByteEndsItsOwnSessionAlone) {
  const Bytes name = NameStringBytes(RAW_NAME);
  const size_t challenged = name.size();
  const size_t proved = challenged + RAW_DIGEST_SIZE;
  const size_t whole = proved + name.size();
  for (size_t cut = 0; cut < whole; ++cut) {
    auto peer = RawPeer::Connect(acceptor.port);
    ASSERT_TRUE(peer);
    peer->SendBytes(Prefix(name, cut));
    if (cut >= challenged) {
      ASSERT_TRUE(peer->ReadName()) << cut;
      const auto challenge = peer->ReceiveExactly(RAW_CHALLENGE_SIZE);
      ASSERT_TRUE(challenge) << cut;
      const Bytes rest = Concat({DigestBytes({}, *challenge), name});
      peer->SendBytes(Prefix(rest, cut - challenged));
    }
    peer->Close();
  }
  ASSERT_TRUE(acceptor.WaitForLog("2 " + ListenerLine("Application start failed"), whole));
  ASSERT_TRUE(acceptor.WaitForLog(REFUSED, whole));
  EXPECT_EQ(acceptor.CountOfLog("4 Stage 1: no appID specified"), 2 * name.size());
  EXPECT_EQ(acceptor.CountOfLog("4 Stage 2: credentials failed"), RAW_DIGEST_SIZE);
  EXPECT_EQ(acceptor.Listeners().size(), whole);
  EXPECT_TRUE(WaitUntil([&] { return acceptor.Do("sessions") == "1"; }));
}

TEST_F(MisbehavingConnector, ThatBreaksTheConnectionAtAnyStepEndsItsOwnSessionAlone) {
  for (int round = 0; round < 5; ++round) {
    for (int step = 0; step <= 5; ++step) {
      auto peer = RawPeer::Connect(acceptor.port);
      ASSERT_TRUE(peer);
      (void)peer->HandshakeAsConnector(RAW_NAME, {}, StopAfter(step));
      peer->Reset();
    }
  }
  ASSERT_TRUE(acceptor.WaitForLogPrefix("8 Startup completed for ", 30));
  ExpectGoodSessionWorks();
  EXPECT_TRUE(WaitUntil([&] { return acceptor.Do("sessions") == "1"; }));
  auto peer = RawPeer::Connect(acceptor.port);
  ASSERT_TRUE(peer);
  EXPECT_TRUE(peer->HandshakeAsConnector("after:1/all").Completed());
}

// ---- a peer that breaks the rules: accepting ---------------------------------------------------

// A connecting application with one session in good order, and a listener of the tests' own.
class MisbehavingAcceptor : public testing::Test {
 protected:
  explicit MisbehavingAcceptor(uint32_t ioTimeoutMs = PATIENT) : connector("b", 0, ioTimeoutMs) {
    Start();
    good = listener.Accept();
    if (!good) throw std::runtime_error("the application does not connect");
    EXPECT_TRUE(good->HandshakeAsAcceptor(GOOD_NAME).Completed());
    EXPECT_EQ(connector.Answer(), OK + GOOD_NAME);
    EXPECT_TRUE(connector.WaitForListener("connect " + good->RemoteAddress() + " " +
                                          good->LocalAddress() + " good:1/peer good 1 peer"));
    connector.Forget();
  }

  ~MisbehavingAcceptor() override {
    EXPECT_EQ(DoCallGood(), "9");
    good->Close();
  }

  void Start() { connector.Tell("connect " + std::to_string(listener.Port()) + " 256 0"); }

  std::string DoCallGood() {
    connector.Tell(std::string("call ") + GOOD_NAME);
    const auto frame = good->ReadFrame();
    EXPECT_TRUE(frame) << good->Problem();
    if (frame) good->SendReply(frame->id, RawList().Int32("echo", 9));
    return connector.Answer();
  }

  /// Lets the application connect, does a part of a handshake and goes; the application's result,
  /// its listeners' calls and its own lines are as given.
  void ExpectResult(const std::string& result, const HandshakeOptions& options,
                    const std::string& name = RAW_NAME, bool tellsUnknown = false) {
    Start();
    auto peer = listener.Accept();
    ASSERT_TRUE(peer);
    const std::string addresses = peer->RemoteAddress() + " " + peer->LocalAddress();
    (void)peer->HandshakeAsAcceptor(name, {}, options);
    peer->ShutdownWrite();
    EXPECT_EQ(connector.Answer(), result + UNTOUCHED);
    EXPECT_TRUE(peer->WaitClosed());
    EXPECT_EQ(connector.Listeners(), tellsUnknown ? Texts{"unknown " + addresses} : Texts{});
    // Of itself this side logs nothing of what went wrong.
    Texts lines = connector.ThreadLog("8 Startup completed for ");
    std::erase_if(lines,
                  [](const std::string& text) { return text.rfind("8 Receive failed", 0) == 0; });
    EXPECT_EQ(lines, ConnectorLog(listener.Port(),
                                  {"8 Start management threads for ", "8 Startup completed for "}));
    EXPECT_TRUE(connector.WaitForLog("4 Application '' is not initialized", 2));
  }

  static HandshakeOptions StopAfter(int step) {
    HandshakeOptions options;
    options.stopAfterStep = step;
    return options;
  }

  RawListener listener{FreePort()};
  Application connector;
  std::optional<RawPeer> good;
};

TEST_F(MisbehavingAcceptor, WithoutAWordFailsTheConnection) { ExpectResult(FAILED, StopAfter(1)); }

TEST_F(MisbehavingAcceptor, WithAnEmptyNameFailsTheConnection) {
  ExpectResult(FAILED, StopAfter(2), "");
}

TEST_F(MisbehavingAcceptor, WithANameOf256BytesFailsTheConnection) {
  ExpectResult(FAILED, StopAfter(2), "h:1/" + std::string(252, 'n'));
}

TEST_F(MisbehavingAcceptor, ThatAnnounces257BytesFailsTheConnection) {
  HandshakeOptions options = StopAfter(2);
  options.firstNameBytes = U32(257);
  ExpectResult(FAILED, options);
}

TEST_F(MisbehavingAcceptor, WithATakenNameIsRejectedBeforeTheChallenge) {
  Start();
  auto peer = listener.Accept();
  ASSERT_TRUE(peer);
  ASSERT_TRUE(peer->ReadName());
  peer->SendName(GOOD_NAME);
  EXPECT_EQ(connector.Answer(), REJECTED + UNTOUCHED);
  EXPECT_EQ(peer->ReceiveUntilClosed(), Bytes());
  EXPECT_TRUE(connector.Listeners().empty());
}

TEST_F(MisbehavingAcceptor, WithoutAChallengeFailsTheConnection) {
  ExpectResult(FAILED, StopAfter(2));
}

TEST_F(MisbehavingAcceptor, WithAShortChallengeFailsTheConnection) {
  HandshakeOptions options = StopAfter(3);
  options.challengeBytes = Pattern(1023);
  ExpectResult(FAILED, options);
}

TEST_F(MisbehavingAcceptor, WithoutASecondNameRejectsTheConnection) {
  ExpectResult(REJECTED, StopAfter(5));
}

TEST_F(MisbehavingAcceptor, WithAnEmptySecondNameRejectsTheConnection) {
  HandshakeOptions options;
  options.secondName = "";
  ExpectResult(REJECTED, options);
}

TEST_F(MisbehavingAcceptor, WithASecondNameThatIsTooLongRejectsTheConnection) {
  HandshakeOptions options;
  options.secondNameBytes = U32(257);
  ExpectResult(REJECTED, options);
}

TEST_F(MisbehavingAcceptor, WithoutHostAndNameFailsTheConnectionAndIsTold) {
  ExpectResult(FAILED, {}, "plain", true);
}

TEST_F(MisbehavingAcceptor, WithoutAPortFailsTheConnectionAndIsTold) {
  ExpectResult(FAILED, {}, "raw:/peer", true);
}

TEST_F(MisbehavingAcceptor, ThatProvesNothingIsTaken) {
  Start();
  auto peer = listener.Accept();
  ASSERT_TRUE(peer);
  HandshakeOptions options;
  options.challengeBytes = Bytes(RAW_CHALLENGE_SIZE);
  const HandshakeResult result = peer->HandshakeAsAcceptor(RAW_NAME, {}, options);
  EXPECT_TRUE(result.Completed()) << result.failure;
  EXPECT_EQ(ToHex(result.digest, ""), "a5058431022ad56a091a49521b5cb35b");
  EXPECT_EQ(result.peerFirstName.bytes, NameStringBytes(connector.name));
  EXPECT_EQ(result.peerSecondName.bytes, NameStringBytes(connector.name));
  EXPECT_EQ(connector.Answer(), OK + RAW_NAME);
}

TEST_F(MisbehavingAcceptor, MayHaveANameOf256BytesWithoutAZeroThatTheCallerDoesNotGet) {
  const std::string name = "h:1/" + std::string(252, 'n');
  HandshakeOptions options;
  options.firstNameBytes = Concat({U32(256), ToBytes(name)});
  options.secondNameBytes = options.firstNameBytes;
  Start();
  auto peer = listener.Accept();
  ASSERT_TRUE(peer);
  EXPECT_TRUE(peer->HandshakeAsAcceptor(name, {}, options).Completed());
  EXPECT_EQ(connector.Answer(), OK);
  EXPECT_TRUE(connector.WaitForLog("8 Application connected:" + name));
}

TEST_F(MisbehavingAcceptor, MaySendAFrameWithItsSecondName) {
  Start();
  auto peer = listener.Accept();
  ASSERT_TRUE(peer);
  HandshakeOptions options;
  options.secondNameBytes =
      Concat({NameStringBytes(RAW_NAME),
              RequestBytes(4, RAW_CALL, ECHO_SLOT, RawList().Int32("value", 3))});
  EXPECT_TRUE(peer->HandshakeAsAcceptor(RAW_NAME, {}, options).Completed());
  EXPECT_EQ(connector.Answer(), OK + RAW_NAME);
  const auto reply = peer->ReadFrame();
  ASSERT_TRUE(reply) << peer->Problem();
  EXPECT_EQ(reply->id, 4u);
}

class SilentAcceptor : public MisbehavingAcceptor {
 protected:
  SilentAcceptor() : MisbehavingAcceptor(IMPATIENT) {}
};

TEST_F(SilentAcceptor, IsGivenUp) {
  Start();
  auto peer = listener.Accept();
  ASSERT_TRUE(peer);
  EXPECT_EQ(connector.Answer(), FAILED + UNTOUCHED);
  EXPECT_TRUE(connector.WaitForLog(
      "8 Receive failed: no data arrived in expected 2 seconds11,expected=4", TimesOfASocket(1)));
  EXPECT_TRUE(peer->WaitClosed());
}

TEST_F(MisbehavingAcceptor, ThatGoesAtAnyByteFailsItsOwnConnectionAlone) {
  const Bytes name = NameStringBytes(RAW_NAME);
  const size_t challenged = name.size() + RAW_CHALLENGE_SIZE;
  const Bytes whole = Concat({name, Pattern(RAW_CHALLENGE_SIZE), name});
  for (size_t cut = 0; cut < whole.size(); ++cut) {
    // Inside the challenge some bytes stand for all.
    const bool inside = cut > name.size() + 2 && cut + 2 < challenged;
    if (inside && cut % 41 != 0) continue;
    Start();
    auto peer = listener.Accept();
    ASSERT_TRUE(peer);
    // Everything is read before the end, so that nothing of what was sent gets lost.
    ASSERT_TRUE(peer->ReadName());
    peer->SendBytes(Prefix(whole, std::min(cut, challenged)));
    if (cut >= challenged) {
      ASSERT_TRUE(peer->ReceiveExactly(RAW_DIGEST_SIZE));
      ASSERT_TRUE(peer->ReadName());
      peer->SendBytes(Bytes(whole.begin() + static_cast<std::ptrdiff_t>(challenged),
                            whole.begin() + static_cast<std::ptrdiff_t>(cut)));
    }
    peer->Close();
    EXPECT_EQ(connector.Answer(), (cut < challenged ? FAILED : REJECTED) + UNTOUCHED) << cut;
  }
  EXPECT_TRUE(connector.Listeners().empty());
  EXPECT_TRUE(WaitUntil([&] { return connector.Do("sessions") == "1"; }));
}

TEST_F(MisbehavingAcceptor, ThatBreaksTheConnectionAtAnyStepHarmsNobody) {
  for (int round = 0; round < 3; ++round) {
    for (int step = 0; step <= 5; ++step) {
      Start();
      auto peer = listener.Accept();
      ASSERT_TRUE(peer);
      (void)peer->HandshakeAsAcceptor(RAW_NAME, {}, StopAfter(step));
      peer->Reset();
      const std::string answer = connector.Answer();
      EXPECT_TRUE(answer == FAILED + UNTOUCHED || answer == REJECTED + UNTOUCHED) << answer;
    }
    EXPECT_EQ(DoCallGood(), "9");
  }
  EXPECT_TRUE(WaitUntil([&] { return connector.Do("sessions") == "1"; }));
}

}  // namespace
}  // namespace TQ::test
