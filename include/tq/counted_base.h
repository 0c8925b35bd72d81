/// @file
/// MTObjects::MTReferencedTypeBase, the base of every counted object. C++ only.
///
/// A new object has the count 0: whoever creates it takes the first reference. The release of the
/// last reference destroys the object at once, on the thread that releases it.
///
/// The base is exported because its virtual table and its layout, the table's address and then the
/// counter, are part of the library's binary interface. A host may derive from it: objects made
/// with `new`, and never on the stack or inside others.
#pragma once

#include <tq/export.h>

#include <atomic>
#include <cstdint>

namespace MTObjects {

class TQ_API MTReferencedTypeBase {
 protected:
  /// The count, as one atomic number; sequentially consistent. Starts at 0.
  class RefCounter {
   public:
    RefCounter() { value.exchange(0); }
    std::atomic<int32_t> value;
  };

  MTReferencedTypeBase();

  /// Does nothing itself. Runs when the last reference goes, or when a constructor of a derived
  /// class throws.
  virtual ~MTReferencedTypeBase();

  /// Whether the object can still be used, for example a session whose peer is there. Asked through
  /// IsValid, by any thread that holds a reference.
  virtual bool CheckValid() const = 0;

  /// Adds a reference. Any thread that holds one, or that has just created the object, may.
  void AddRef();

  /// Gives a reference up. If it was the last, the object is destroyed and its memory freed through
  /// its own operator delete. A count that is 0 already is not guarded: it goes below 0.
  void Release();

  /// What CheckValid says.
  bool IsValid() const;

  /// What CheckValid says.
  bool IsValid();

  MTReferencedTypeBase(const MTReferencedTypeBase&) = delete;
  MTReferencedTypeBase& operator=(const MTReferencedTypeBase&) = delete;

 private:
  RefCounter counter;

  /// The library's counted pointers, which reach AddRef and Release through it.
  friend struct TQRefAccess;
};

static_assert(sizeof(MTReferencedTypeBase) == 16, "the virtual table's address and the counter");

}  // namespace MTObjects
