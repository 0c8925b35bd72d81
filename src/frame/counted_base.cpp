#include <tq/counted_base.h>

namespace MTObjects {

MTReferencedTypeBase::MTReferencedTypeBase() = default;

MTReferencedTypeBase::~MTReferencedTypeBase() = default;

void MTReferencedTypeBase::AddRef() { counter.value.fetch_add(1); }

void MTReferencedTypeBase::Release() {
  if (counter.value.fetch_sub(1) == 1) delete this;
}

bool MTReferencedTypeBase::IsValid() const { return CheckValid(); }

bool MTReferencedTypeBase::IsValid() { return CheckValid(); }

}  // namespace MTObjects
