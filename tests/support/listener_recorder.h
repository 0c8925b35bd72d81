// Records the calls of the host's four listeners as texts.
//
//   ListenerRecorder listeners;
//   ... a peer connects ...
//   EXPECT_TRUE(listeners.WaitFor("connect 127.0.0.1:1 127.0.0.1:2 host:1/app host 1 app"));
//   EXPECT_EQ(listeners.Texts(), ...);
//
// The texts: "connect LOCAL REMOTE NAME HOST PORT APPLICATION", "disconnect NAME HOST PORT
// APPLICATION", "authFailed LOCAL REMOTE NAME", "unknown LOCAL REMOTE".
//
// One recorder at a time: it installs all four from its construction to its destruction. A hook
// runs inside the listener, on its thread, after the call was recorded.
//
// Threads: any.
#pragma once

#include <tq/application.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/wait_until.h"

namespace TQ::test {

struct ListenerCall {
  std::string text;
  std::thread::id thread;
};

class ListenerRecorder final {
 public:
  using Hook = std::function<void(const ListenerCall&)>;

  explicit ListenerRecorder(Hook onCall = nullptr) {
    {
      const std::lock_guard held(TheState().lock);
      TheState().calls.clear();
      TheState().hook = std::move(onCall);
    }
    TQSetConnectListener(&OnConnect);
    TQSetDisconnectListener(&OnDisconnect);
    TQSetAuthFailedListener(&OnAuthFailed);
    TQSetUnknownConnectListener(&OnUnknown);
  }

  ~ListenerRecorder() {
    TQSetConnectListener(nullptr);
    TQSetDisconnectListener(nullptr);
    TQSetAuthFailedListener(nullptr);
    TQSetUnknownConnectListener(nullptr);
    const std::lock_guard held(TheState().lock);
    TheState().hook = nullptr;
  }

  ListenerRecorder(const ListenerRecorder&) = delete;
  ListenerRecorder& operator=(const ListenerRecorder&) = delete;

  std::vector<ListenerCall> Calls() const {
    const std::lock_guard held(TheState().lock);
    return TheState().calls;
  }

  std::vector<std::string> Texts() const {
    std::vector<std::string> texts;
    for (const ListenerCall& call : Calls()) {
      texts.push_back(call.text);
    }
    return texts;
  }

  size_t CountOf(const std::string& text) const {
    size_t count = 0;
    for (const ListenerCall& call : Calls()) {
      count += call.text == text ? 1 : 0;
    }
    return count;
  }

  bool WaitFor(const std::string& text,
               std::chrono::milliseconds deadline = DEFAULT_DEADLINE) const {
    return WaitUntil([&] { return CountOf(text) != 0; }, deadline);
  }

 private:
  struct State {
    std::mutex lock;
    std::vector<ListenerCall> calls;
    Hook hook;
  };

  // Never destroyed: a library thread may call while the process ends.
  static State& TheState() {
    static State* const state = new State;
    return *state;
  }

  static std::string Text(const char* text) { return text != nullptr ? text : "<null>"; }

  static void Record(const std::string& text) {
    const ListenerCall call{text, std::this_thread::get_id()};
    Hook hook;
    {
      const std::lock_guard held(TheState().lock);
      TheState().calls.push_back(call);
      hook = TheState().hook;
    }
    if (hook) {
      hook(call);
    }
  }

  static void OnConnect(const char* local, const char* remote, const char* name, const char* host,
                        int32_t port, const char* application) {
    Record("connect " + Text(local) + ' ' + Text(remote) + ' ' + Text(name) + ' ' + Text(host) +
           ' ' + std::to_string(port) + ' ' + Text(application));
  }

  static void OnDisconnect(const char* name, const char* host, int32_t port,
                           const char* application) {
    Record("disconnect " + Text(name) + ' ' + Text(host) + ' ' + std::to_string(port) + ' ' +
           Text(application));
  }

  static void OnAuthFailed(const char* local, const char* remote, const char* name) {
    Record("authFailed " + Text(local) + ' ' + Text(remote) + ' ' + Text(name));
  }

  static void OnUnknown(const char* local, const char* remote) {
    Record("unknown " + Text(local) + ' ' + Text(remote));
  }
};

}  // namespace TQ::test
