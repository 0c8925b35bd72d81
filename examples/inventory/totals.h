// The sums that scanner, catalog and watcher each keep on their own, and compare in the end.
#pragma once

#include <cstdint>

#include <tq/tq.h>

namespace inventory {

/// Sums, or the difference of two sums. Differences may be negative: the fields are unsigned, so
/// that they wrap around, and adding such a difference gives the right sum again.
struct Totals {
  std::uint64_t packages = 0;
  std::uint64_t installedSizeKib = 0;
  std::uint64_t dependencies = 0;
  std::uint64_t removals = 0;

  Totals& operator+=(const Totals& other) {
    packages += other.packages;
    installedSizeKib += other.installedSizeKib;
    dependencies += other.dependencies;
    removals += other.removals;
    return *this;
  }

  Totals& operator-=(const Totals& other) {
    packages -= other.packages;
    installedSizeKib -= other.installedSizeKib;
    dependencies -= other.dependencies;
    removals -= other.removals;
    return *this;
  }

  bool operator==(const Totals&) const = default;

  void Store(HTQPARAMLIST list) const {
    TQSetInt64Value(list, "totalPackages", packages);
    TQSetInt64Value(list, "totalInstalledSize", installedSizeKib);
    TQSetInt64Value(list, "totalDependencies", dependencies);
    TQSetInt64Value(list, "totalRemovals", removals);
  }

  static Totals Load(HTQPARAMLIST list) {
    return {.packages = TQGetInt64Value(list, "totalPackages"),
            .installedSizeKib = TQGetInt64Value(list, "totalInstalledSize"),
            .dependencies = TQGetInt64Value(list, "totalDependencies"),
            .removals = TQGetInt64Value(list, "totalRemovals")};
  }
};

}  // namespace inventory
