// What a person sees: the progress line and the closing table.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "totals.h"

namespace inventory {

/// Label and value of one line of a table.
using Row = std::pair<std::string, std::string>;

std::vector<Row> RowsOf(const Totals& totals);

/// Prints the rows below the title, on standard output, with the labels aligned.
void PrintTable(const std::string& title, const std::vector<Row>& rows);

/// Prints one line on standard output at once, also where that is a file.
void Say(const std::string& line);

/// The value below which `percent` of `values` lie (nearest rank), 0 if there are none.
double Percentile(std::vector<double> values, double percent);

/// A number with `digits` digits behind the point.
std::string Decimal(double value, int digits);

/// Counts up on one line of standard error, if that is a terminal or `always` is set.
///
/// Threads: Advance from any thread.
class Progress final {
 public:
  Progress(std::string label, std::size_t total, bool always);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Advance();

 private:
  // Constant after construction.
  const std::string label;
  const std::size_t total;  // 0: not known
  const bool shown;

  std::mutex lock;
  std::size_t done = 0;  // guarded by lock
};

}  // namespace inventory
