#include "scan.h"

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>

#include "list.h"
#include "package_list.h"
#include "protocol.h"

namespace inventory {
namespace {

using std::chrono::steady_clock;

// The flow id of a request is the line of the stanza: it names the package's place in the file all
// the way to the catalog's signal.
double ReportPackage(const std::string& catalog, const Package& package) {
  const List request = MakeReport(package);
  const auto start = steady_clock::now();
  const List reply =
      List::Adopt(TQCallWithFlow(package.line, catalog.c_str(), SLOT_REPORT, request.Get()));
  const std::chrono::duration<double, std::milli> roundTrip = steady_clock::now() - start;
  if (!reply) throw std::runtime_error("the catalog went away when told of " + package.name);
  if (TQGetInt32Value(reply.Get(), ACCEPTED) != package.line)
    throw std::runtime_error("the catalog did not accept " + package.name);
  return roundTrip.count();
}

}  // namespace

std::vector<double> ReportPackages(const std::string& catalog, const PackageRefs& packages,
                                   unsigned inFlight, Progress& progress) {
  std::atomic<std::size_t> next = 0;
  const auto work = [&] {
    std::vector<double> roundTrips;
    try {
      for (std::size_t i = next++; i < packages.size(); i = next++) {
        roundTrips.push_back(ReportPackage(catalog, *packages[i]));
        progress.Advance();
      }
    } catch (...) {
      next = packages.size();  // The other threads need not try the rest.
      throw;
    }
    return roundTrips;
  };

  std::vector<std::future<std::vector<double>>> workers;
  for (unsigned i = 0; i < inFlight; ++i) workers.push_back(std::async(std::launch::async, work));
  std::vector<double> all;
  for (auto& worker : workers) {
    const std::vector<double> some = worker.get();
    all.insert(all.end(), some.begin(), some.end());
  }
  return all;
}

void Removals::Send(const std::string& catalog, const PackageRefs& packages) {
  for (const Package* package : packages) {
    {
      const std::lock_guard guard(lock);
      ++outstanding;
    }
    const List request = MakeRemoval(*package);
    if (TQNotifyWithFlow(package->line, catalog.c_str(), SLOT_REMOVE, request.Get(), OnCompletion,
                         this) != TQ_ERR_OK)
      throw std::runtime_error("the catalog went away before the removal of " + package->name);
  }
}

void Removals::Wait() {
  std::unique_lock guard(lock);
  // A completion can be lost if the session ends at the very moment of the notification.
  if (!completed.wait_for(guard, std::chrono::seconds(30), [this] { return outstanding == 0; })) {
    throw std::runtime_error("the catalog did not answer " + std::to_string(outstanding) +
                             " removals");
  }
  if (unconfirmed > 0) {
    throw std::runtime_error("the catalog did not confirm " + std::to_string(unconfirmed) +
                             " removals");
  }
}

_tag_TQ_ERROR Removals::OnCompletion(const char*, unsigned, HTQPARAMLIST request,
                                     HTQPARAMLIST reply, void* context) {
  // The reply is null if the session ended, and then reads as 0.
  const bool confirmed = TQGetInt32Value(reply, ACCEPTED) == TQGetInt32Value(request, FLOW_ID);
  Removals& removals = *static_cast<Removals*>(context);
  const std::lock_guard guard(removals.lock);
  removals.unconfirmed += confirmed ? 0 : 1;
  --removals.outstanding;
  removals.completed.notify_all();
  return TQ_ERR_OK;
}

}  // namespace inventory
