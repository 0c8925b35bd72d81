// A well-behaved application in a process of its own that keeps calling this one, and what shows
// that it was not disturbed.
//
//   Neighbourhood town;                       // a SessionHost, and the neighbour is connected
//   RawPeer evil = town.host.Admit("evil:1/raw");
//   ... misbehave ...
//   town.ExpectUnharmed();                    // also at the end of the test
//
// One test executable includes this file once, since it defines the neighbour's role.
#pragma once

#include <gtest/gtest.h>
#include <tq/tq.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/process_info.h"
#include "support/session_host.h"
#include "support/transport.h"

namespace TQ::test {

constexpr uint32_t NEIGHBOUR_SERVICE = 900;  ///< of the host: answers "x" with "n" + 1
constexpr uint32_t NEIGHBOUR_SLOT = 901;     ///< of the neighbour: the same

inline int AddOne(_tag_HTQPARAMLIST params, _tag_HTQPARAMLIST result, const TQSlotCallInfo*) {
  TQSetInt32Value(result, "x", TQGetInt32Value(params, "n") + 1);
  return 0;
}

/// True if the slot of `applicationName` answers as it should.
inline bool CallAddOne(const std::string& applicationName, uint32_t slotId, uint32_t number) {
  ScopedList params;
  params.Int32("n", number);
  const _tag_HTQPARAMLIST reply = TQCall(applicationName.c_str(), slotId, params.Get());
  const bool good = reply.impl != nullptr && TQGetInt32Value(reply, "x") == number + 1;
  TQCloseHandle(reply);
  return good;
}

TQ_TEST_ROLE(neighbour) {
  char hostName[256] = {};
  if (TQInitialize("neighbour", 0, nullptr) != TQ_ERR_OK) return 1;
  TQRegisterSlot(NEIGHBOUR_SLOT, &AddOne, nullptr);
  if (ConnectTo(static_cast<uint16_t>(std::stoi(args.at(0))), hostName, sizeof hostName) !=
      TQ_ERR_OK) {
    return 2;
  }
  std::atomic<bool> stop{false};
  std::atomic<uint32_t> rounds{0};
  std::atomic<uint32_t> failures{0};
  std::thread caller([&] {
    while (!stop) {
      if (!CallAddOne(hostName, NEIGHBOUR_SERVICE, rounds)) ++failures;
      ++rounds;
      std::this_thread::sleep_for(std::chrono::milliseconds{1});
    }
  });
  Say("connected");
  // Each command is answered after three more rounds.
  while (const auto command = ReadCommand()) {
    if (*command == "stop") break;
    const uint32_t before = rounds;
    const bool went = WaitUntil([&] { return rounds >= before + 3; });
    Say(went && failures == 0 ? "fine" : "failures: " + std::to_string(failures));
  }
  stop = true;
  caller.join();
  Say("stopped");
  (void)ReadCommand();
  TQShutdown();
  return failures == 0 ? 0 : 3;
}

class Neighbourhood final {
 public:
  Neighbourhood() {
    TQRegisterSlot(NEIGHBOUR_SERVICE, &AddOne, nullptr);  // before anyone calls it
    neighbour = std::make_unique<ChildProcess>(
        "neighbour", std::vector<std::string>{std::to_string(host.Port())});
    EXPECT_TRUE(neighbour->ExpectLine("connected"));
    EXPECT_TRUE(host.Log().WaitForPrefix(TQ_LOG_INFO, "Application connected:"));
    const auto line = host.Log().FirstWithPrefix("Application connected:");
    neighbourName = line ? line->text.substr(line->text.find(':') + 1) : "";
    EXPECT_TRUE(SessionHost::WaitForSessions(1));
    // The listener has its pipes for the next peer again.
    EXPECT_TRUE(WaitUntil(
        [&] { return !OverPipes() || platform::PipeListens(PipeName(host.Port()) + "_out"); }));
    descriptors = OpenDescriptorCount();
    threads = ThreadCount();
  }

  /// What the peers of the test did has left nothing behind, and the neighbour has not noticed.
  ~Neighbourhood() {
    ExpectUnharmed();
    neighbour->WriteLine("stop");
    EXPECT_TRUE(neighbour->ExpectLine("stopped"));
    EXPECT_TRUE(SessionHost::WaitForSessions(1));
    EXPECT_TRUE(WaitUntil([] {
      const TQObjectCounts counts = DEBUG_TQObjectCount();
      return counts.messages == 0 && counts.paramLists == 0;
    })) << DEBUG_TQObjectCount().messages
        << " messages and " << DEBUG_TQObjectCount().paramLists << " lists are left";
    EXPECT_TRUE(WaitUntil([&] { return OpenDescriptorCount() <= descriptors; }))
        << OpenDescriptorCount() << " descriptors, " << descriptors << " before";
    EXPECT_TRUE(WaitUntil([&] { return ThreadCount() <= threads; }))
        << ThreadCount() << " threads, " << threads << " before";
    EXPECT_EQ(host.Log().CountOfPrefix("Remote disconnect: \"" + neighbourName), 0u);
    TQUnregisterSlot(NEIGHBOUR_SERVICE);
    neighbour->CloseInput();
    EXPECT_TRUE(neighbour->ExpectSuccess());
  }

  Neighbourhood(const Neighbourhood&) = delete;
  Neighbourhood& operator=(const Neighbourhood&) = delete;

  /// The neighbour's calls are served, and it can be called.
  void ExpectUnharmed() {
    neighbour->WriteLine("report");
    EXPECT_TRUE(neighbour->ExpectLine("fine"));
    EXPECT_TRUE(CallAddOne(neighbourName, NEIGHBOUR_SLOT, 6));
  }

  SessionHost host;
  std::string neighbourName;

 private:
  std::unique_ptr<ChildProcess> neighbour;
  int descriptors = 0;
  int threads = 0;
};

}  // namespace TQ::test
