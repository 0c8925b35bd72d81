// One reference to a parameter list, given back at the end of the scope.
#pragma once

#include <string>
#include <utility>

#include <tq/tq.h>

namespace inventory {

class List final {
 public:
  List() = default;
  List(List&& other) noexcept : handle(std::exchange(other.handle, {})) {}
  List& operator=(List&& other) noexcept {
    std::swap(handle, other.handle);
    return *this;
  }
  ~List() { TQCloseHandle(handle); }

  static List New() { return List(TQCreateParamList()); }
  /// Takes over the caller's reference, such as the one in the result of a call.
  static List Adopt(HTQPARAMLIST owned) { return List(owned); }
  /// Takes a reference of its own: how a callback keeps a list that it was lent.
  static List Keep(HTQPARAMLIST borrowed) { return List(TQReferenceHandle(borrowed)); }

  HTQPARAMLIST Get() const { return handle; }
  explicit operator bool() const { return handle.impl != nullptr; }

 private:
  explicit List(HTQPARAMLIST owned) : handle(owned) {}

  HTQPARAMLIST handle = {};
};

/// The text under `name`, empty if there is none.
inline std::string TextOf(HTQPARAMLIST list, const char* name) {
  const char* text = TQGetStringValue(list, name);
  return text ? text : "";
}

}  // namespace inventory
