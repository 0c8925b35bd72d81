#include "host.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace inventory {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

// Written before the library's threads exist, but read on them.
std::atomic<bool> g_logWanted = false;

const char* LevelName(std::uint32_t level) {
  switch (level) {
    case TQ_LOG_CRITICAL:
      return "critical";
    case TQ_LOG_ERROR:
      return "error";
    case TQ_LOG_WARNING:
      return "warning";
    default:
      return "info";
  }
}

bool IsBack(const TQObjectCounts& now, const TQObjectCounts& before) {
  return now.sessions == before.sessions && now.messages == before.messages &&
         now.paramLists == before.paramLists;
}

std::string Difference(std::uint32_t now, std::uint32_t before) {
  return std::to_string(std::int64_t{now} - std::int64_t{before});
}

}  // namespace

AuthBlock ReadAuthBlock(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  // One character more than wanted: a file that is too long is as wrong as one that is too short.
  std::array<char, AuthBlock{}.size() + 1> bytes = {};
  file.read(bytes.data(), bytes.size());
  if (file.gcount() != static_cast<std::streamsize>(AuthBlock{}.size()))
    throw std::runtime_error(path + ": this is not a file of 256 bytes");
  AuthBlock block = {};
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<std::uint8_t>(bytes[i]);
  return block;
}

void StartLog(bool wanted) {
  g_logWanted = wanted;
  TQSetLogLevel(wanted ? EVERY_LEVEL : 0, 0, LogLine);
}

void LogLine(std::uint32_t level, std::int32_t, const char* text) {
  // One call a line: several threads of the library log at the same time.
  if (g_logWanted) std::fprintf(stderr, "[%s] %s\n", LevelName(level), text);
}

Host::Host(const char* name, const Place& place) : before(DEBUG_TQObjectCount()) {
  if (TQInitializeEx(place.host.c_str(), name, place.port, nullptr) != TQ_ERR_OK)
    throw std::runtime_error("the library did not start");
  running = true;
}

void Host::Stop() {
  if (running) TQShutdown();
  running = false;
}

bool Host::LeftNothing(std::vector<Row>& rows) const {
  // A session's sending thread outlives TQShutdown by a moment, and the session with it.
  const auto deadline = steady_clock::now() + seconds(10);
  while (!IsBack(DEBUG_TQObjectCount(), before) && steady_clock::now() < deadline)
    std::this_thread::sleep_for(milliseconds(5));
  const TQObjectCounts now = DEBUG_TQObjectCount();
  rows.emplace_back("left over", Difference(now.sessions, before.sessions) + " sessions, " +
                                     Difference(now.messages, before.messages) + " messages, " +
                                     Difference(now.paramLists, before.paramLists) + " lists");
  return IsBack(now, before);
}

std::string ConnectToCatalog(const Place& place, const std::string& authFile) {
  const AuthBlock auth = ReadAuthBlock(authFile);
  std::array<char, 256> name = {};
  const auto deadline = steady_clock::now() + seconds(5);
  for (;;) {
    switch (TQConnect(place.host.c_str(), place.port, name.data(), name.size(), auth.data(),
                      auth.size())) {
      case TQ_ERR_OK:
        return name.data();
      case TQ_ERR_NAME_REJECTED:
        throw std::runtime_error(
            "the catalog refused the connection: another authentication block, "
            "or a program of this name is connected already");
      default:
        break;
    }
    if (steady_clock::now() > deadline)
      throw std::runtime_error("no catalog answers on " + place.Text());
    std::this_thread::sleep_for(milliseconds(250));
  }
}

}  // namespace inventory
