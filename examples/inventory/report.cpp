#include "report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <unistd.h>

namespace inventory {

std::vector<Row> RowsOf(const Totals& totals) {
  return {{"packages", std::to_string(totals.packages)},
          {"installed size", std::to_string(totals.installedSizeKib) + " KiB"},
          {"dependencies", std::to_string(totals.dependencies)},
          {"removals", std::to_string(totals.removals)}};
}

void PrintTable(const std::string& title, const std::vector<Row>& rows) {
  std::printf("%s\n", title.c_str());
  for (const auto& [label, value] : rows) std::printf("  %-18s %s\n", label.c_str(), value.c_str());
  std::fflush(stdout);
}

void Say(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

double Percentile(std::vector<double> values, double percent) {
  if (values.empty()) return 0;
  std::ranges::sort(values);
  const double rank = std::ceil(percent / 100 * static_cast<double>(values.size()));
  return values[static_cast<std::size_t>(std::max(rank, 1.0)) - 1];
}

std::string Decimal(double value, int digits) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", digits, value);
  return text;
}

Progress::Progress(std::string what, std::size_t count, bool always)
    : label(std::move(what)), total(count), shown(always || isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
  if (shown && done > 0) std::fputc('\n', stderr);
}

void Progress::Advance() {
  const std::lock_guard guard(lock);
  ++done;
  const std::size_t step = std::max<std::size_t>(total / 100, 1);
  if (!shown || (done % step != 0 && done != total)) return;
  if (total > 0) {
    std::fprintf(stderr, "\r%s %zu of %zu", label.c_str(), done, total);
  } else {
    std::fprintf(stderr, "\r%s %zu", label.c_str(), done);
  }
}

}  // namespace inventory
