/// @file
/// The base class of every counted object. C++ only.
#pragma once

#include <atomic>
#include <cstdint>

#include <tq/export.h>

namespace MTObjects {

class TQ_API MTReferencedTypeBase {
protected:
  class RefCounter {
  public:
    RefCounter() { value.exchange(0); }
    std::atomic<int32_t> value;
  };

  MTReferencedTypeBase();
  virtual ~MTReferencedTypeBase();
  virtual bool CheckValid() const = 0;

  void AddRef();
  void Release();
  bool IsValid() const;
  bool IsValid();

  MTReferencedTypeBase(const MTReferencedTypeBase&) = delete;
  MTReferencedTypeBase& operator=(const MTReferencedTypeBase&) = delete;

private:
  RefCounter counter;

  friend struct TQRefAccess;
};

static_assert(sizeof(MTReferencedTypeBase) == 16, "virtual table pointer and counter");

} // namespace MTObjects
