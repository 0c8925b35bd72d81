// catalog: keeps the packages that a scanner reports, and tells watchers of each change.
//
// It ends when a scanner has said that it is done and all peers have gone, or on an interrupt; over
// a pipe up to ten seconds later.
#include <csignal>
#include <cstdio>
#include <exception>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include <tq/tq.h>

#include "catalog_life.h"
#include "catalog_store.h"
#include "host.h"
#include "options.h"
#include "protocol.h"
#include "report.h"

namespace {

using namespace inventory;

CatalogLife g_life;  // listener and log callbacks have no context

void OnConnect(const char*, const char*, const char*, const char*, int32_t,
               const char* application) {
  Say(std::string("catalog: ") + application + " has connected");
  g_life.AddPeer(1);
}

void OnDisconnect(const char*, const char*, int32_t, const char* application) {
  Say(std::string("catalog: ") + application + " has gone");
  g_life.AddPeer(-1);
}

void OnAuthFailed(const char*, const char* remoteAddress, const char* application) {
  Say(std::string("catalog: ") + application + " at " + remoteAddress +
      " was refused, its authentication block is another one");
}

// The log is the only way in which the socket listener says how it fares.
void OnLog(uint32_t level, int32_t verbosity, const char* text) {
  const std::string_view line = text;
  if (line.starts_with("listening for incoming connection")) Say(std::string("catalog: ") + text);
  if (line.starts_with("bind to:") || line.starts_with("listen to:")) g_life.Fail(line);
  LogLine(level, verbosity, text);
}

template <void (CatalogStore::*Operation)(HTQPARAMLIST, HTQPARAMLIST)>
int Slot(HTQPARAMLIST request, HTQPARAMLIST reply, const TQSlotCallInfo* info) {
  CatalogStore& store = *static_cast<CatalogStore*>(info->context);
  (store.*Operation)(request, reply);
  if (store.Finished()) g_life.Finish();
  return 0;
}

int Run(const Options& options) {
  CatalogStore store;
  const AuthBlock auth = ReadAuthBlock(options.authFile);
  TQSetAuthenticationInfo(auth.data(), static_cast<int32_t>(auth.size()));
  TQSetConnectListener(OnConnect);
  TQSetDisconnectListener(OnDisconnect);
  TQSetAuthFailedListener(OnAuthFailed);
  StartLog(options.log);
  TQSetLogLevel(EVERY_LEVEL, 0, OnLog);

  Host host("catalog", options.place);
  const _tag_SLOT_DESCRIPTION slots[] = {{SLOT_REPORT, Slot<&CatalogStore::Report>, &store},
                                         {SLOT_REMOVE, Slot<&CatalogStore::Remove>, &store},
                                         {SLOT_FINISH, Slot<&CatalogStore::Finish>, &store},
                                         {SLOT_SNAPSHOT, Slot<&CatalogStore::Snapshot>, &store}};
  TQRegisterSlots(slots, static_cast<int>(std::size(slots)));
  TQRegisterSignal(SIGNAL_CHANGED);
  TQConnectionReady();
  // The log does not tell when a pipe is there, but who connects waits for it.
  if (options.place.IsPipe()) Say("catalog: listening on " + options.place.Text());

  const bool complete = g_life.WaitForEnd();
  host.Stop();
  store.Clear();
  std::vector<Row> rows = RowsOf(store.Sums());
  const bool clean = host.LeftNothing(rows);
  PrintTable("catalog", rows);
  return complete && clean ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) try {
  Options options;
  CLI::App app("Keeps the packages that a scanner reports.", "catalog");
  AddOptions(app, options);
  CLI11_PARSE(app, argc, argv);
  std::signal(SIGINT, CatalogLife::Interrupt);
  std::signal(SIGTERM, CatalogLife::Interrupt);
  return Run(options);
} catch (const std::exception& error) {
  std::fprintf(stderr, "catalog: %s\n", error.what());
  return 1;
}
