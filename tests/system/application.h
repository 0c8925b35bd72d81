// A second process that runs the library as an ordinary application and does what it is told.
//
//   Application server("server");                  // a process, initialised and listening
//   LocalLibrary library("client");                // this process, connecting out only
//   const std::string peer = library.ConnectTo(server);
//   TQCall(peer.c_str(), ECHO_SLOT, list);
//   server.Tell("emit ticks 7");
//   server.Expect("emitted 0");
//
// The commands are at RunApplicationCommand. The role comes with the header, so exactly one source
// of a test executable includes it.
#pragma once

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "frame/settings.h"
#include "support/child_process.h"
#include "support/free_port.h"
#include "support/raw_peer.h"
#include "support/session_host.h"
#include "support/transport.h"
#include "support/wait_until.h"

namespace TQ::test {

// ---- the slots of an application ---------------------------------------------------------------

constexpr unsigned ECHO_SLOT = 1;     ///< gives "x" back, and the caller's name as "who"
constexpr unsigned RECORD_SLOT = 2;   ///< says "slot 2 ..." and what it got
constexpr unsigned HOLD_SLOT = 3;     ///< says "holding", then waits for "release"; gives "x" + 1
constexpr unsigned FORWARD_SLOT = 4;  ///< calls ECHO_SLOT of "to" with "x" and gives its "x" back
constexpr unsigned MEET_SLOT = 5;     ///< HOLD_SLOT, and after its release FORWARD_SLOT
constexpr unsigned ANOTHER_RECORD_SLOT = 6;
constexpr unsigned MIRROR_SLOT = 7;  ///< gives "b", "n" and "s" back: binary, list and text
constexpr unsigned UNKNOWN_SLOT_ID = 77;

/// What a result is: "null", "empty", or "x=" and its value.
inline std::string ResultText(_tag_HTQPARAMLIST result) {
  if (result.impl == nullptr) return "null";
  if (TQGetParamCount(result) == 0) return "empty";
  return "x=" + std::to_string(TQGetInt32Value(result, "x"));
}

inline std::string NameText(const char* applicationName) {
  return applicationName != nullptr ? applicationName : "nobody";
}

/// Calls `slotId` with one value "x" and tells the result, which is closed.
inline std::string CallText(const std::string& peer, unsigned slotId, uint32_t x) {
  const ScopedList list;
  TQSetInt32Value(list.Get(), "x", x);
  const _tag_HTQPARAMLIST result = TQCall(peer.c_str(), slotId, list.Get());
  std::string text = ResultText(result);
  TQCloseHandle(result);
  return text;
}

namespace application {

inline Gate& ReleaseGate() {
  static Gate gate;
  return gate;
}

inline int Echo(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result, const TQSlotCallInfo* info) {
  TQSetInt32Value(result, "x", TQGetInt32Value(params, "x"));
  TQSetStringValue(result, "who", info->applicationName);
  return 0;
}

inline int Record(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result, const TQSlotCallInfo* info) {
  const auto slotId = static_cast<unsigned>(reinterpret_cast<uintptr_t>(info->context));
  Say("slot " + std::to_string(slotId) + " from " + info->applicationName + " params " +
      ResultText(params) + " result " + ResultText(result));
  return 0;
}

inline int Hold(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result, const TQSlotCallInfo*) {
  Say("holding");
  EXPECT_TRUE(ReleaseGate().Wait());
  TQSetInt32Value(result, "x", TQGetInt32Value(params, "x") + 1);
  return 0;
}

inline int Forward(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result, const TQSlotCallInfo*) {
  const ScopedList list;
  TQSetInt32Value(list.Get(), "x", TQGetInt32Value(params, "x"));
  const _tag_HTQPARAMLIST answer = TQCall(TQGetStringValue(params, "to"), ECHO_SLOT, list.Get());
  TQSetInt32Value(result, "x", TQGetInt32Value(answer, "x"));
  TQCloseHandle(answer);
  return 0;
}

inline int Meet(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result, const TQSlotCallInfo* info) {
  Hold(params, {nullptr}, info);
  Forward(params, result, info);
  Say("met");
  return 0;
}

inline int Mirror(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result, const TQSlotCallInfo*) {
  const auto* binary = TQGetBinaryValue(params, "b");
  TQSetBinaryValue(result, "b", binary->data, binary->size);
  const _tag_HTQPARAMLIST nested = TQGetHandleValue(params, "n");
  TQSetHandleValue(result, "n", nested);
  TQCloseHandle(nested);
  TQSetStringValue(result, "s", TQGetStringValue(params, "s"));
  return 0;
}

inline _tag_TQ_ERROR Completed(const char* applicationName, unsigned slotId, _tag_HTQPARAMLIST,
                               _tag_HTQPARAMLIST result, void*) {
  Say("completed " + NameText(applicationName) + " slot " + std::to_string(slotId) + " " +
      ResultText(result));
  return TQ_ERR_OK;
}

inline void RegisterSlots() {
  TQRegisterSlot(ECHO_SLOT, &Echo, nullptr);
  TQRegisterSlot(RECORD_SLOT, &Record, reinterpret_cast<void*>(uintptr_t{RECORD_SLOT}));
  TQRegisterSlot(ANOTHER_RECORD_SLOT, &Record,
                 reinterpret_cast<void*>(uintptr_t{ANOTHER_RECORD_SLOT}));
  TQRegisterSlot(HOLD_SLOT, &Hold, nullptr);
  TQRegisterSlot(FORWARD_SLOT, &Forward, nullptr);
  TQRegisterSlot(MEET_SLOT, &Meet, nullptr);
  TQRegisterSlot(MIRROR_SLOT, &Mirror, nullptr);
}

}  // namespace application

/// One line of the test. Each is answered with one line, but for those that say otherwise.
///
///   connect PORT                 "connected NAME", or "refused CODE"
///   disconnect PEER              "disconnected"
///   call PEER SLOT X             on a thread of its own; "called " and ResultText in the end
///   notify PEER SLOT X           "notified CODE"
///   request PEER SLOT X          with a callback; "requested CODE", and "completed ..." in the end
///   register SIGNAL, unregister SIGNAL, emit SIGNAL X, subscribe PEER SIGNAL SLOT,
///   unsubscribe PEER SIGNAL SLOT the word in the past and the code
///   announce SIGNAL X            an emit with a callback; "announced CODE", and "completed ..."
///   listen                       listeners that say "+ NAME" and "- NAME"; "listening"
///   release                      lets HOLD_SLOT and MEET_SLOT go on; no answer
///   counts                       "sessions N messages N lists N"
///   shutdown                     "shut down CODE"
inline void RunApplicationCommand(const std::string& line, uint16_t listenPort,
                                  std::vector<std::thread>* threads) {
  std::istringstream words(line);
  std::string verb, first, second;
  uint32_t slotId = 0;
  uint32_t x = 0;
  words >> verb;
  const auto list = [&] {
    auto made = std::make_unique<ScopedList>();
    made->Int32("x", x);
    return made;
  };
  if (verb == "connect") {
    uint16_t port = 0;
    words >> port;
    std::array<char, 256> name{};
    const auto code = ConnectTo(port, name.data(), name.size());
    Say(code == TQ_ERR_OK ? std::string("connected ") + name.data()
                          : "refused " + std::to_string(code));
  } else if (verb == "disconnect") {
    words >> first;
    TQDisconnect(first.c_str());
    Say("disconnected");
  } else if (verb == "call") {
    words >> first >> slotId >> x;
    threads->emplace_back([=] { Say("called " + CallText(first, slotId, x)); });
  } else if (verb == "notify" || verb == "request") {
    words >> first >> slotId >> x;
    const auto callback = verb == "request" ? &application::Completed : nullptr;
    const auto code = TQNotify(first.c_str(), slotId, list()->Get(), callback, nullptr);
    Say((callback != nullptr ? "requested " : "notified ") + std::to_string(code));
  } else if (verb == "register") {
    words >> first;
    Say("registered " + std::to_string(TQRegisterSignal(first.c_str())));
  } else if (verb == "unregister") {
    words >> first;
    Say("unregistered " + std::to_string(TQUnregisterSignal(first.c_str())));
  } else if (verb == "emit" || verb == "announce") {
    words >> first >> x;
    const auto callback = verb == "announce" ? &application::Completed : nullptr;
    const auto code = TQEmit(first.c_str(), list()->Get(), callback, nullptr);
    Say((callback != nullptr ? "announced " : "emitted ") + std::to_string(code));
  } else if (verb == "subscribe") {
    words >> first >> second >> slotId;
    const auto code = TQConnectSignal(first.c_str(), second.c_str(), slotId);
    Say("subscribed " + std::to_string(code));
  } else if (verb == "unsubscribe") {
    words >> first >> second >> slotId;
    const auto code = TQDisconnectSignal(first.c_str(), second.c_str(), slotId);
    Say("unsubscribed " + std::to_string(code));
  } else if (verb == "listen") {
    TQSetConnectListener([](const char*, const char*, const char* name, const char*, int32_t,
                            const char*) { Say("+ " + NameText(name)); });
    TQSetDisconnectListener(
        [](const char* name, const char*, int32_t, const char*) { Say("- " + NameText(name)); });
    Say("listening");
  } else if (verb == "release") {
    application::ReleaseGate().Open();
  } else if (verb == "counts") {
    const TQObjectCounts counts = DEBUG_TQObjectCount();
    Say("sessions " + std::to_string(counts.sessions) + " messages " +
        std::to_string(counts.messages) + " lists " + std::to_string(counts.paramLists));
  } else if (verb == "shutdown") {
    Say("shut down " + std::to_string(ShutdownWhileKnocking(listenPort)));
  } else {
    ADD_FAILURE() << "no such command: " << line;
  }
}

TQ_TEST_ROLE(application) {
  const auto port = static_cast<uint16_t>(std::stoi(args.at(1)));
  application::RegisterSlots();
  _tag_TQLIMITS record{};
  record.size = sizeof record;
  record.IO_TIMEOUT_MS = 2000;
  EXPECT_EQ(TQInitializeEx(HostText(port).c_str(), args.at(0).c_str(), port, &record), TQ_ERR_OK);
  TQConnectionReady();
  Say("ready " + detail::localApplicationName.Copy());
  std::vector<std::thread> threads;
  while (const auto line = ReadCommand()) {
    RunApplicationCommand(*line, port, &threads);
  }
  for (std::thread& thread : threads) thread.join();
  ShutdownWhileKnocking(port);
  return 0;
}

// ---- for the test ------------------------------------------------------------------------------

/// An application in a process of its own, under a name of its own.
class Application final {
 public:
  explicit Application(const std::string& chosenName)
      : port(FreePort()), child("application", {chosenName, std::to_string(port)}) {
    const auto line = child.ReadLineStarting("ready ");
    if (!line) throw std::runtime_error("Application: the process does not start");
    name = line->substr(std::string("ready ").size());
  }

  uint16_t Port() const { return port; }
  /// The full name, as peers know it.
  const std::string& Name() const { return name; }
  ChildProcess& Process() { return child; }

  void Tell(const std::string& command) { EXPECT_TRUE(child.WriteLine(command)) << command; }
  /// The next line that it says must be this one.
  void Expect(const std::string& line) { child.ExpectLine(line); }
  void Do(const std::string& command, const std::string& answer) {
    Tell(command);
    Expect(answer);
  }
  /// Lets it connect to `other` once that listens. Both know each other after it.
  void ConnectTo(const Application& other) { ConnectTo(other.Port(), other.Name()); }
  void ConnectTo(uint16_t otherPort, const std::string& otherName) {
    const bool listens = WaitUntil([&] { return RawPeer::TryConnect(otherPort).has_value(); });
    EXPECT_TRUE(listens) << otherName;
    Do("connect " + std::to_string(otherPort), "connected " + otherName);
    Do("call " + otherName + " " + std::to_string(ECHO_SLOT) + " 1", "called x=1");
  }

 private:
  uint16_t port;
  std::string name;
  ChildProcess child;
};

/// The library in this process; the tests of this folder drive it directly.
class LocalLibrary final {
 public:
  /// Port 0 only connects out.
  explicit LocalLibrary(const std::string& chosenName, uint16_t listenPort = 0) : port(listenPort) {
    _tag_TQLIMITS record{};
    record.size = sizeof record;
    record.IO_TIMEOUT_MS = 2000;
    if (TQInitializeEx(port != 0 ? HostText(port).c_str() : nullptr, chosenName.c_str(), port,
                       &record) != TQ_ERR_OK) {
      throw std::runtime_error("LocalLibrary: no initialisation");
    }
    TQConnectionReady();
    name = detail::localApplicationName.Copy();
  }

  /// Shuts down. Whatever is left of it after that fails the running test.
  ~LocalLibrary() {
    if (port != 0) {
      ShutdownWhileKnocking(port);
    } else {
      EXPECT_EQ(TQShutdown(), TQ_ERR_OK);
    }
    EXPECT_TRUE(SessionHost::WaitForSessions(0)) << DEBUG_TQObjectCount().sessions;
    EXPECT_TRUE(WaitUntil([] { return DEBUG_TQObjectCount().messages == 0; }));
  }

  LocalLibrary(const LocalLibrary&) = delete;
  LocalLibrary& operator=(const LocalLibrary&) = delete;

  const std::string& Name() const { return name; }
  uint16_t Port() const { return port; }

  /// Connects, waiting for the other's listener, and gives the peer's name. Both know each other
  /// after it.
  std::string ConnectTo(const Application& application) const {
    EXPECT_TRUE(WaitUntil([&] { return RawPeer::TryConnect(application.Port()).has_value(); }));
    std::array<char, 256> peer{};
    EXPECT_EQ(test::ConnectTo(application.Port(), peer.data(), peer.size()), TQ_ERR_OK);
    EXPECT_EQ(application.Name(), peer.data());
    EXPECT_EQ(CallText(peer.data(), ECHO_SLOT, 1), "x=1") << "from here on it knows us, too";
    return peer.data();
  }

 private:
  uint16_t port;
  std::string name;
};

}  // namespace TQ::test
