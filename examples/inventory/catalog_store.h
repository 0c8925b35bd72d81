// What the catalog keeps: the package lists as the scanner sent them, and their totals.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include <tq/tq.h>

#include "list.h"
#include "totals.h"

namespace inventory {

/// Each operation serves one slot: it reads `request`, fills `reply`, and emits the signal if
/// something has changed.
///
/// Threads: the library's dispatcher runs all slots, one at a time, so nothing here is locked. The
/// main thread looks in when the library has ended.
class CatalogStore final {
 public:
  void Report(HTQPARAMLIST request, HTQPARAMLIST reply);
  void Remove(HTQPARAMLIST request, HTQPARAMLIST reply);
  void Finish(HTQPARAMLIST request, HTQPARAMLIST reply);
  void Snapshot(HTQPARAMLIST request, HTQPARAMLIST reply);

  const Totals& Sums() const { return totals; }
  bool Finished() const { return finished; }
  void Clear() { packages.clear(); }

 private:
  void StoreState(HTQPARAMLIST list, const Totals& sums) const;
  void Tell(const char* change, HTQPARAMLIST request, const Totals& difference);

  std::map<std::string, List> packages;  // by name and architecture
  Totals totals;
  std::uint64_t revision = 0;
  bool finished = false;
};

}  // namespace inventory
