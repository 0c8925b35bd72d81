// Reads the package database of a Debian system, a text file of stanzas (see deb822(5)).
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <string_view>
#include <vector>

#include "checksum.h"

namespace inventory {

/// One package that another one needs. "a | b, c" has three: a and b of group 0, c of group 1.
struct Dependency {
  std::string package;
  std::string relation;  // "<<", "<=", "=", ">=", ">>", or empty: any version will do
  std::string version;   // empty exactly if the relation is
  std::uint32_t group = 0;
};

enum class PackageState {
  INSTALLED,
  REMOVED,     // not there, or nothing but its configuration files
  IN_BETWEEN,  // half installed, unpacked only, or waiting for something
};

struct Package {
  std::string name;
  std::string architecture;
  std::string version;
  std::string section;
  std::string status;  // the three words of the file
  PackageState state = PackageState::IN_BETWEEN;
  std::uint64_t installedSizeKib = 0;
  bool essential = false;
  std::vector<std::string> provides;
  std::vector<Dependency> dependencies;  // "Pre-Depends" and "Depends"
  Checksum checksum = {};                // of the stanza's text
  std::uint32_t line = 0;                // where the stanza begins, counted from 1
};

/// Why a stanza was left out. `line` is the line that is wrong, counted from 1; where something is
/// missing it is the stanza's first line.
struct ReadError {
  std::uint32_t line = 0;
  std::string message;
};

struct PackageFile {
  std::vector<Package> packages;  // in the order of the file
  std::vector<ReadError> errors;  // at most one a stanza
};

/// Reads all stanzas up to the end of `stream`. A malformed stanza costs itself and an entry in
/// `errors`; the others are not affected. A missing line end at the end of the file is no error.
PackageFile ReadPackages(std::istream& stream);

/// Parses the value of a "Depends" field and appends to `dependencies`, with groups that go on from
/// those that are there. Returns an empty text or what is wrong.
std::string ParseDependencies(std::string_view value, std::vector<Dependency>& dependencies);

}  // namespace inventory
