// The catalog as a watcher sees it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <vector>

#include <tq/tq.h>

#include "list.h"
#include "protocol.h"
#include "report.h"
#include "totals.h"

namespace inventory {

/// Running totals from the changes that the catalog tells.
///
/// Threads: Start and WaitForEnd on the main thread, Change on the library's dispatcher, Lose on
/// the receiving thread of the session.
class CatalogView final {
 public:
  explicit CatalogView(bool showProgress) : progress("watcher: changes", 0, showProgress) {}

  /// What there was when the catalog answered. A reply may overtake the signals that were emitted
  /// before it, so those that came early are looked at now: the revision tells which are new.
  void Start(HTQPARAMLIST snapshot) {
    const std::lock_guard guard(lock);
    totals = Totals::Load(snapshot);
    revision = TQGetInt64Value(snapshot, REVISION);
    finished = TQGetInt32Value(snapshot, FINISHED) != 0;
    started = true;
    for (const List& change : early) Apply(change.Get());
    early.clear();
  }

  void Change(HTQPARAMLIST change) {
    const std::lock_guard guard(lock);
    if (started)
      Apply(change);
    else
      early.push_back(List::Keep(change));
    moved.notify_all();
  }

  void Lose() {
    const std::lock_guard guard(lock);
    lost = true;
    moved.notify_all();
  }

  /// The totals at the end of the scan. Throws if the catalog went away before.
  Totals WaitForEnd() {
    std::unique_lock guard(lock);
    moved.wait(guard, [this] { return finished || lost; });
    if (!finished) throw std::runtime_error("the catalog went away before the scan was finished");
    return totals;
  }

 private:
  void Apply(HTQPARAMLIST change) {
    if (TQGetInt64Value(change, REVISION) <= revision) return;
    revision = TQGetInt64Value(change, REVISION);
    totals += Totals::Load(change);
    finished = TQGetInt32Value(change, FINISHED) != 0;
    progress.Advance();
  }

  std::mutex lock;
  std::condition_variable moved;
  // Guarded by lock.
  Progress progress;
  std::vector<List> early;
  Totals totals;
  std::uint64_t revision = 0;
  bool started = false;
  bool finished = false;
  bool lost = false;
};

}  // namespace inventory
