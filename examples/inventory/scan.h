// The traffic of a scan: calls for the packages that are there, notifications for the others.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include <tq/tq.h>

#include "package_reader.h"
#include "report.h"

namespace inventory {

using PackageRefs = std::vector<const Package*>;

/// Reports each package with a call of its own, `inFlight` of them at a time, each on its thread.
/// Returns the round trips in milliseconds. Throws std::runtime_error if the catalog does not
/// accept a package or goes away.
std::vector<double> ReportPackages(const std::string& catalog, const PackageRefs& packages,
                                   unsigned inFlight, Progress& progress);

/// Removals on their way.
///
/// The completions point here, so this must outlive the library's threads, which TQShutdown alone
/// does not wait for.
/// Threads: the public operations on one thread; completions come on threads of the library.
class Removals final {
 public:
  /// Sends one notification for each package and does not wait. Throws std::runtime_error if there
  /// is no session.
  void Send(const std::string& catalog, const PackageRefs& packages);

  /// Waits until the catalog has confirmed them all. Throws std::runtime_error if it has refused
  /// one, has gone away, or has not answered after 30 seconds.
  void Wait();

 private:
  static _tag_TQ_ERROR OnCompletion(const char* catalog, unsigned slotId, HTQPARAMLIST request,
                                    HTQPARAMLIST reply, void* context);

  std::mutex lock;
  std::condition_variable completed;
  // Guarded by lock.
  std::size_t outstanding = 0;
  std::size_t unconfirmed = 0;
};

}  // namespace inventory
