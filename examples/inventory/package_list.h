// A package as the list that travels to the catalog.
#pragma once

#include "list.h"
#include "package_reader.h"

namespace inventory {

/// All that the catalog is told about an installed package.
List MakeReport(const Package& package);

/// Name and architecture only, which is all that a removal needs.
List MakeRemoval(const Package& package);

}  // namespace inventory
