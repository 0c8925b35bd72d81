#include "support/frozen_thread.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/wait_until.h"

namespace TQ::test {

namespace {

constexpr int FREEZE_SIGNAL = SIGUSR1;

std::atomic<bool> g_stands{false};
std::atomic<bool> g_frozen{false};

// Only calls that a signal's handler may make.
void StandStill(int) {
  g_stands.store(true);
  while (g_frozen.load()) {
    const timespec pause{0, 1000000};
    nanosleep(&pause, nullptr);
  }
}

/// The number of the thread of this name; 0 if there is none.
pid_t FindThread(const std::string& name) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream file(entry.path() / "comm");
    std::string own;
    if (std::getline(file, own) && own == name) {
      return std::atoi(entry.path().filename().c_str());
    }
  }
  return 0;
}

}  // namespace

FrozenThread::FrozenThread(const std::string& name) {
  struct sigaction action {};
  action.sa_handler = &StandStill;
  sigemptyset(&action.sa_mask);
  sigaction(FREEZE_SIGNAL, &action, nullptr);
  g_stands.store(false);
  g_frozen.store(true);
  pid_t thread = 0;
  const bool found = WaitUntil([&] { return (thread = FindThread(name)) != 0; });
  if (!found || syscall(SYS_tgkill, getpid(), thread, FREEZE_SIGNAL) != 0 ||
      !WaitUntil([] { return g_stands.load(); })) {
    Thaw();
    throw std::runtime_error("FrozenThread: " + name + " cannot be stopped");
  }
}

void FrozenThread::Thaw() { g_frozen.store(false); }

}  // namespace TQ::test
