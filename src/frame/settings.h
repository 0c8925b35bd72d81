// The settings that every thread reads: limits, authentication block, stop flag, this process's
// name, and the host's listener callbacks.
//
// Threads: any. The words are relaxed atomics, read at the moment of use; the block and the name
// have a private lock around copying, under which nothing else is locked.
#pragma once

#include "frame/locks.h"

#include <tq/application.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

namespace TQ::detail {

/// A byte that one thread sets once and others poll.
using StopFlag = std::atomic<uint8_t>;
static_assert(sizeof(StopFlag) == 1 && StopFlag::is_always_lock_free);

constexpr uint32_t AUTH_BLOCK_SIZE = 256;
using AuthBlock = std::array<uint8_t, AUTH_BLOCK_SIZE>;

/// The eight limits of a record and its authentication block.
class LimitSettings {
 public:
  static constexpr uint32_t LIMIT_COUNT = 8;

  /// Starts from the values of `record`.
  explicit LimitSettings(const _tag_TQLIMITS& record);

  uint32_t MaxConnections() const { return Load(MAX_CONNECTIONS); }
  uint32_t MaxReadSize() const { return Load(MAX_READ_SIZE); }
  uint32_t IoTimeoutMs() const { return Load(IO_TIMEOUT_MS); }

  AuthBlock CopyAuthBlock() const;
  void SetAuthBlock(const AuthBlock& block);

  /// All eight limits and the block.
  void CopyFrom(const LimitSettings& other);

  /// Each limit of `record` that is not zero, and all of its block, zeros included.
  void Override(const _tag_TQLIMITS& record);

  /// The values as a record, for inspection.
  _tag_TQLIMITS Snapshot() const;

 private:
  /// The limits that have an effect, by their place among the eight. The others are kept and given
  /// back.
  enum Place : uint32_t { MAX_CONNECTIONS = 0, MAX_READ_SIZE = 2, IO_TIMEOUT_MS = 7 };

  uint32_t Load(uint32_t place) const { return words[place].load(std::memory_order_relaxed); }

  // Atomic.
  std::array<std::atomic<uint32_t>, LIMIT_COUNT> words;

  mutable Mutex blockLock;
  AuthBlock authBlock TQ_GUARDED_BY(blockLock);
};

/// The record that a library of this version starts from.
constexpr _tag_TQLIMITS DEFAULT_RECORD = {
    sizeof(_tag_TQLIMITS), 100, 64, 0x40000000, 0x40000000, 64, 0x04000000, 0x40000000, 60000, {}};

/// A string that is copied in and out under a lock of its own.
class GuardedText {
 public:
  std::string Copy() const;
  void Set(std::string text);

 private:
  mutable Mutex lock;
  std::string value TQ_GUARDED_BY(lock);
};

/// What a first initialisation starts from; its block is also what TQSetAuthenticationInfo leaves
/// for later initialisations.
extern LimitSettings defaultLimits;

/// The limits in force.
extern LimitSettings& limits;

/// Every thread of the library is to end. Initialisation clears it, the last shutdown sets it.
extern StopFlag stopAll;

inline bool StopAllRequested() { return stopAll.load(std::memory_order_relaxed) != 0; }

/// This process's full application name; empty before the first initialisation.
extern GuardedText& localApplicationName;

/// "host:port/name", the form in which every application is addressed.
std::string ComposeApplicationName(const std::string& hostName, int32_t port, const char* name);

extern std::atomic<TQConnectListener> g_connectListener;
extern std::atomic<TQDisconnectListener> g_disconnectListener;
extern std::atomic<TQAuthFailedListener> g_authFailedListener;
extern std::atomic<TQUnknownConnectListener> g_unknownConnectListener;

}  // namespace TQ::detail
