// g_applications: the sessions that callers can reach, by the peer's full name.
#pragma once

#include "frame/counted_ref.h"
#include "frame/locks.h"
#include "wire/inline_buffer.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

class TQAPPImpl;

namespace TQ::detail {

/// A key of the registry. A lookup borrows the caller's string and allocates nothing; the key of an
/// entry owns a copy.
class ApplicationKey {
 public:
  struct Owning {};

  /// Borrows `borrowed`, which may be null.
  explicit ApplicationKey(const char* borrowed) : text(borrowed) {}

  /// Copies `name`, terminator included.
  ApplicationKey(Owning, const std::string& name);

  ApplicationKey(const ApplicationKey&) = delete;
  ApplicationKey& operator=(const ApplicationKey&) = delete;

  const char* Text() const;

  /// Byte-wise, as unsigned bytes; a prefix sorts first.
  friend bool operator<(const ApplicationKey& a, const ApplicationKey& b);

 private:
  const char* text = nullptr;
  TQMemoryBufferTpl<256> buffer;
};

/// Threads: any. References that leave the registry are released after its lock.
class ApplicationRegistry {
 public:
  using SessionRef = CountedRef<TQAPPImpl>;

  /// Recursive: a call holds it while it builds its message, and what is built there may look a
  /// name up on the same thread.
  RecursiveMutex applicationsLock;

  /// The session under `name`, with a reference for the caller, or null.
  SessionRef Find(const char* name);

  /// The same for who holds the lock already.
  SessionRef FindLocked(const char* name) TQ_REQUIRES(applicationsLock);

  /// The session of the first entry, or null.
  SessionRef First();

  /// The sessions of all entries.
  std::vector<SessionRef> All();

  /// Leads `name` to `session`. An entry of that name is taken over silently.
  void Set(const std::string& name, SessionRef session);

  /// Intended: erases by the name alone. A session that ends after a newer one has taken its name
  /// over removes the newer one's entry.
  void Erase(const std::string& name);

  /// Read without the lock.
  uint32_t Size() const { return size.load(std::memory_order_relaxed); }

 private:
  std::map<ApplicationKey, SessionRef> entries TQ_GUARDED_BY(applicationsLock);
  std::atomic<uint32_t> size{0};
};

extern ApplicationRegistry& g_applications;

}  // namespace TQ::detail
