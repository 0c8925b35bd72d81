#include "session/application_registry.h"

#include "session/session.h"

#include <cstring>
#include <tuple>
#include <utility>

namespace TQ::detail {

ApplicationKey::ApplicationKey(Owning, const std::string& name) {
  const std::size_t bytes = name.size() + 1;
  std::memcpy(buffer.Reserve(0, bytes), name.c_str(), bytes);
}

const char* ApplicationKey::Text() const {
  return text != nullptr ? text : reinterpret_cast<const char*>(buffer.Data());
}

bool operator<(const ApplicationKey& a, const ApplicationKey& b) {
  return std::strcmp(a.Text(), b.Text()) < 0;
}

ApplicationRegistry::SessionRef ApplicationRegistry::Find(const char* name) {
  LockScope held(applicationsLock);
  return FindLocked(name);
}

ApplicationRegistry::SessionRef ApplicationRegistry::FindLocked(const char* name) {
  const auto found = entries.find(ApplicationKey(name));
  return found != entries.end() ? found->second : nullptr;
}

ApplicationRegistry::SessionRef ApplicationRegistry::First() {
  LockScope held(applicationsLock);
  return entries.empty() ? nullptr : entries.begin()->second;
}

std::vector<ApplicationRegistry::SessionRef> ApplicationRegistry::All() {
  LockScope held(applicationsLock);
  std::vector<SessionRef> sessions;
  sessions.reserve(entries.size());
  for (const auto& [key, session] : entries) sessions.push_back(session);
  return sessions;
}

void ApplicationRegistry::Set(const std::string& name, SessionRef session) {
  // What the entry held before is released when `session` goes, after the lock.
  LockScope held(applicationsLock);
  const auto [entry, inserted] = entries.emplace(
      std::piecewise_construct, std::forward_as_tuple(ApplicationKey::Owning{}, name),
      std::forward_as_tuple());
  std::swap(entry->second, session);
  size.store(static_cast<uint32_t>(entries.size()), std::memory_order_relaxed);
}

void ApplicationRegistry::Erase(const std::string& name) {
  SessionRef released;
  LockScope held(applicationsLock);
  const auto found = entries.find(ApplicationKey(name.c_str()));
  if (found == entries.end()) return;
  released = std::move(found->second);
  entries.erase(found);
  size.store(static_cast<uint32_t>(entries.size()), std::memory_order_relaxed);
}

}  // namespace TQ::detail
