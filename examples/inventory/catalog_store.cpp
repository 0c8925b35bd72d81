#include "catalog_store.h"

#include <cstring>

#include "protocol.h"

namespace inventory {
namespace {

std::string KeyOf(HTQPARAMLIST package) {
  return TextOf(package, PACKAGE) + ":" + TextOf(package, ARCHITECTURE);
}

Totals Measure(HTQPARAMLIST package) {
  Totals sums = {.packages = 1, .installedSizeKib = TQGetInt64Value(package, INSTALLED_SIZE)};
  const _tag_TQDWORDARRAY indices = TQGetHandleArray(package, DEPENDENCIES);
  for (std::uint32_t i = 0; i < indices.count; ++i) {
    // Lent by the package's list, so there is nothing to close.
    const HTQPARAMLIST dependency = TQGetHandleById(package, indices.values[i]);
    sums.dependencies += TextOf(dependency, PACKAGE).empty() ? 0 : 1;
  }
  return sums;
}

bool HaveSameChecksum(HTQPARAMLIST a, HTQPARAMLIST b) {
  const _tag_BINARYVALUE* first = TQGetBinaryValue(a, CHECKSUM);
  const _tag_BINARYVALUE* second = TQGetBinaryValue(b, CHECKSUM);
  return first && second && first->size == second->size &&
         std::memcmp(first->data, second->data, first->size) == 0;
}

}  // namespace

void CatalogStore::Report(HTQPARAMLIST request, HTQPARAMLIST reply) {
  if (TextOf(request, PACKAGE).empty()) return;  // The reply has no ACCEPTED then.
  List& kept = packages[KeyOf(request)];
  if (!kept || !HaveSameChecksum(kept.Get(), request)) {
    Totals difference = Measure(request);
    if (kept) difference -= Measure(kept.Get());
    kept = List::Keep(request);
    Tell("reported", request, difference);
  }
  TQSetInt32Value(reply, ACCEPTED, TQGetInt32Value(request, FLOW_ID));
}

void CatalogStore::Remove(HTQPARAMLIST request, HTQPARAMLIST reply) {
  Totals difference = {.removals = 1};
  if (const auto found = packages.find(KeyOf(request)); found != packages.end()) {
    difference -= Measure(found->second.Get());
    packages.erase(found);
  }
  Tell("removed", request, difference);
  TQSetInt32Value(reply, ACCEPTED, TQGetInt32Value(request, FLOW_ID));
}

void CatalogStore::Finish(HTQPARAMLIST request, HTQPARAMLIST reply) {
  finished = true;
  Tell("finished", request, {});
  StoreState(reply, totals);
}

void CatalogStore::Snapshot(HTQPARAMLIST, HTQPARAMLIST reply) { StoreState(reply, totals); }

void CatalogStore::StoreState(HTQPARAMLIST list, const Totals& sums) const {
  sums.Store(list);
  TQSetInt64Value(list, REVISION, revision);
  TQSetInt32Value(list, FINISHED, finished ? 1 : 0);
}

void CatalogStore::Tell(const char* change, HTQPARAMLIST request, const Totals& difference) {
  totals += difference;
  ++revision;
  // A new list each time: the sending threads still read it after TQEmitWithFlow has returned.
  const List signal = List::New();
  TQSetStringValue(signal.Get(), CHANGE, change);
  TQSetStringValue(signal.Get(), PACKAGE, TextOf(request, PACKAGE).c_str());
  StoreState(signal.Get(), difference);
  TQEmitWithFlow(TQGetInt32Value(request, FLOW_ID), SIGNAL_CHANGED, signal.Get(), nullptr, nullptr);
}

}  // namespace inventory
