// Storage for process-wide objects that must outlive the process's exit handlers.
#pragma once

#include <new>
#include <utility>

namespace TQ::detail {

/// Holds a T that is constructed like any static object and never destroyed.
///
/// A session's sending thread is joined by nobody and may still run while static objects are being
/// destroyed; what it touches at its end lives in one of these.
template <typename T>
class NeverDestroyed {
 public:
  template <typename... Arguments>
  explicit NeverDestroyed(Arguments&&... arguments) {
    ::new (static_cast<void*>(storage)) T(std::forward<Arguments>(arguments)...);
  }
  NeverDestroyed(const NeverDestroyed&) = delete;
  NeverDestroyed& operator=(const NeverDestroyed&) = delete;

  T& operator*() { return *Get(); }
  T* operator->() { return Get(); }
  T* Get() { return std::launder(reinterpret_cast<T*>(storage)); }

 private:
  alignas(T) unsigned char storage[sizeof(T)];
};

}  // namespace TQ::detail
