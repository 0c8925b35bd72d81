// Sessions that are stopped at the moment at which they begin.
#include <gtest/gtest.h>
#include <tq/tq.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "frame/settings.h"
#include "session/application_registry.h"
#include "session/session.h"
#include "support/frozen_thread.h"
#include "support/parked_session.h"
#include "support/process_info.h"
#include "support/wait_until.h"

namespace TQ::test {
namespace {

bool HasThread(const std::string& name) {
  const std::vector<std::string> names = ThreadNames();
  return std::count(names.begin(), names.end(), name) != 0;
}

bool IsGone() { return DEBUG_TQObjectCount().sessions == 0 && detail::g_applications.Size() == 0; }

// Both threads of such a session go straight to their ends. The entry in the registry must not
// outlive them, in whatever order they run: a shutdown waits until there is none left.
TEST(SessionStop, SessionThatStartsDuringAShutdownLeavesNoEntryBehind) {
  detail::stopAll.store(1);
  // The handshake looks its peer's name up, and so cannot end before both threads are there.
  detail::g_applications.applicationsLock.Lock();
  std::thread maker([] { const ParkedSession session; });
  FrozenThread receiver("tq-receive");
  detail::g_applications.applicationsLock.Unlock();
  // The sending thread runs ahead for as long as it can.
  (void)WaitUntil([] { return !HasThread("tq-send"); }, std::chrono::milliseconds{500});
  receiver.Thaw();
  maker.join();
  EXPECT_TRUE(WaitUntil([] { return IsGone(); }));
}

}  // namespace
}  // namespace TQ::test
