// watcher: follows the changes of the catalog and keeps running totals of its own.
//
// It ends when the catalog says that the scan is finished, or when the catalog goes away.
#include <cstdint>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include <tq/tq.h>

#include "catalog_view.h"
#include "host.h"
#include "list.h"
#include "options.h"
#include "protocol.h"
#include "report.h"
#include "totals.h"

namespace {

using namespace inventory;

CatalogView* g_view = nullptr;  // for the disconnect listener, which has no context

int OnChanged(HTQPARAMLIST change, HTQPARAMLIST, const TQSlotCallInfo* info) {
  static_cast<CatalogView*>(info->context)->Change(change);
  return 0;
}

void OnDisconnect(const char*, const char*, int32_t, const char*) { g_view->Lose(); }

Totals Watch(const Options& options, CatalogView& view) {
  TQ::TQApplicationHolder catalog(ConnectToCatalog(options.place, options.authFile).c_str());
  catalog.ConnectSignal(SIGNAL_CHANGED, SLOT_CHANGED);
  {
    // ConnectSignal waits for nothing. The catalog serves this call after the subscription, so its
    // reply means that no further change will be missed.
    const List snapshot = List::Adopt(catalog.Call(SLOT_SNAPSHOT, {}));
    if (!snapshot) throw std::runtime_error("the catalog went away");
    view.Start(snapshot.Get());
  }
  Say("watcher: watching " + std::string(catalog.getName()));
  const Totals totals = view.WaitForEnd();
  catalog.DisconnectSignal(SIGNAL_CHANGED, SLOT_CHANGED);
  return totals;
}

int Run(const Options& options) {
  CatalogView view(options.progress);
  g_view = &view;
  StartLog(options.log);
  TQSetDisconnectListener(OnDisconnect);
  TQRegisterSlot(SLOT_CHANGED, OnChanged, &view);

  Host host("watcher");
  std::vector<Row> rows = RowsOf(Watch(options, view));
  host.Stop();
  const bool clean = host.LeftNothing(rows);
  PrintTable("watcher", rows);
  return clean ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) try {
  Options options;
  CLI::App app("Follows the changes of the catalog.", "watcher");
  AddOptions(app, options);
  CLI11_PARSE(app, argc, argv);
  return Run(options);
} catch (const std::exception& error) {
  std::fprintf(stderr, "watcher: %s\n", error.what());
  return 1;
}
