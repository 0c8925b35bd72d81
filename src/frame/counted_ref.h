// The one smart pointer of the library's counted objects.
#pragma once

#include <tq/counted_base.h>

#include <cstddef>
#include <utility>

namespace MTObjects {

/// Opens the counted base's protected operations to CountedRef, and to nothing else.
struct TQRefAccess {
  static void AddRef(MTReferencedTypeBase& object) { object.AddRef(); }
  static void Release(MTReferencedTypeBase& object) { object.Release(); }
  static bool IsValid(const MTReferencedTypeBase& object) { return object.IsValid(); }
};

}  // namespace MTObjects

namespace TQ::detail {

/// Owns one reference to a T, or none.
///
/// A new object starts with a count of 0, so the first CountedRef made from the raw pointer makes
/// it 1. As a parameter by value it says that the callee keeps the object; T& and T* are borrowed.
template <typename T>
class CountedRef {
 public:
  CountedRef() = default;
  CountedRef(std::nullptr_t) {}  // NOLINT(google-explicit-constructor): reads as an empty reference

  /// Takes a reference of its own.
  explicit CountedRef(T* object) : target(object) { Acquire(); }
  CountedRef(const CountedRef& other) : target(other.target) { Acquire(); }
  CountedRef(CountedRef&& other) noexcept : target(std::exchange(other.target, nullptr)) {}

  ~CountedRef() { Reset(); }

  CountedRef& operator=(CountedRef other) noexcept {
    std::swap(target, other.target);
    return *this;
  }

  /// Takes over a reference that the caller owns.
  static CountedRef Adopt(T* object) {
    CountedRef result;
    result.target = object;
    return result;
  }

  /// Hands the reference to the caller, who owns it from then on.
  [[nodiscard]] T* Detach() { return std::exchange(target, nullptr); }

  void Reset() {
    if (T* old = std::exchange(target, nullptr)) MTObjects::TQRefAccess::Release(*old);
  }

  T* Get() const { return target; }
  T& operator*() const { return *target; }
  T* operator->() const { return target; }
  explicit operator bool() const { return target != nullptr; }
  friend bool operator==(const CountedRef& a, const CountedRef& b) { return a.target == b.target; }
  friend bool operator==(const CountedRef& a, const T* b) { return a.target == b; }

  /// There is an object and it says that it can be used.
  bool IsValid() const { return target != nullptr && MTObjects::TQRefAccess::IsValid(*target); }

 private:
  void Acquire() {
    if (target != nullptr) MTObjects::TQRefAccess::AddRef(*target);
  }

  T* target = nullptr;
};

}  // namespace TQ::detail
