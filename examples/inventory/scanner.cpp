// scanner: reads a system's package database and reports it to the catalog.
//
// Exit code: 0 if all is well, 3 if some stanzas are malformed and the rest has been reported, 1 if
// something else failed.
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <tq/tq.h>

#include "host.h"
#include "list.h"
#include "options.h"
#include "package_reader.h"
#include "protocol.h"
#include "report.h"
#include "scan.h"
#include "totals.h"

namespace {

using namespace inventory;

constexpr int MALFORMED_STANZAS = 3;

struct ScannerOptions : Options {
  std::string statusFile = "/var/lib/dpkg/status";
  unsigned inFlight = 1;
  bool removeAll = false;
};

PackageFile ReadStatusFile(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) throw std::runtime_error(path + ": cannot be opened");
  PackageFile file = ReadPackages(stream);
  if (stream.bad()) throw std::runtime_error(path + ": cannot be read");
  for (const ReadError& error : file.errors)
    std::cerr << path << ':' << error.line << ": " << error.message << '\n';
  return file;
}

PackageRefs InState(const PackageFile& file, PackageState state) {
  PackageRefs refs;
  for (const Package& package : file.packages) {
    if (package.state == state) refs.push_back(&package);
  }
  return refs;
}

Totals Sum(const PackageRefs& packages) {
  Totals totals;
  for (const Package* package : packages) {
    totals += {.packages = 1,
               .installedSizeKib = package->installedSizeKib,
               .dependencies = package->dependencies.size()};
  }
  return totals;
}

// Ends the scan. The reply has the catalog's totals.
void Finish(const std::string& catalog, const Totals& totals) {
  const List request = List::New();
  const List reply = List::Adopt(TQCallWithFlow(0, catalog.c_str(), SLOT_FINISH, request.Get()));
  if (!reply) throw std::runtime_error("the catalog went away at the end of the scan");
  if (Totals::Load(reply.Get()) != totals)
    throw std::runtime_error("the catalog has other totals than the scanner");
}

int Run(const ScannerOptions& options) {
  const PackageFile file = ReadStatusFile(options.statusFile);
  const PackageRefs installed = InState(file, PackageState::INSTALLED);
  PackageRefs removed = InState(file, PackageState::REMOVED);
  Totals totals = Sum(installed);
  if (options.removeAll) {
    removed.insert(removed.end(), installed.begin(), installed.end());
    totals = {};
  }
  totals.removals = removed.size();

  // Never destroyed: if the scan fails, completions may still come after TQShutdown.
  static Removals& removals = *new Removals;
  StartLog(options.log);
  Host host("scanner");
  TQ::TQApplicationHolder catalog(ConnectToCatalog(options.place, options.authFile).c_str());

  std::vector<double> roundTrips;
  const auto start = std::chrono::steady_clock::now();
  {
    Progress progress("scanner: packages", installed.size(), options.progress);
    roundTrips = ReportPackages(catalog.getName(), installed, options.inFlight, progress);
  }
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  removals.Send(catalog.getName(), removed);
  removals.Wait();
  Finish(catalog.getName(), totals);
  catalog.Disconnect();
  host.Stop();

  std::vector<Row> rows = RowsOf(totals);
  rows.emplace_back("other states", std::to_string(InState(file, PackageState::IN_BETWEEN).size()));
  rows.emplace_back("malformed", std::to_string(file.errors.size()));
  rows.emplace_back("calls a second",
                    Decimal(static_cast<double>(roundTrips.size()) / elapsed.count(), 0));
  rows.emplace_back("round trip p50", Decimal(Percentile(roundTrips, 50), 3) + " ms");
  rows.emplace_back("round trip p99", Decimal(Percentile(roundTrips, 99), 3) + " ms");
  const bool clean = host.LeftNothing(rows);
  PrintTable("scanner", rows);
  if (!clean) return 1;
  return file.errors.empty() ? 0 : MALFORMED_STANZAS;
}

}  // namespace

int main(int argc, char** argv) try {
  ScannerOptions options;
  CLI::App app("Reports a system's package database to the catalog.", "scanner");
  AddOptions(app, options);
  app.add_option("status", options.statusFile, "the database, a file of stanzas")
      ->capture_default_str();
  app.add_option("--in-flight", options.inFlight, "calls at a time")
      ->capture_default_str()
      ->check(CLI::Range(1, 64));
  app.add_flag("--remove-all", options.removeAll, "report every package as removed in the end");
  CLI11_PARSE(app, argc, argv);
  return Run(options);
} catch (const std::exception& error) {
  std::fprintf(stderr, "scanner: %s\n", error.what());
  return 1;
}
