#include "package_reader.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <set>
#include <stdexcept>
#include <utility>

namespace inventory {
namespace {

constexpr std::string_view BLANKS = " \t";

// Ends the reading of one stanza. It never leaves ReadPackages.
struct Malformed : std::runtime_error {
  Malformed(std::uint32_t where, const std::string& message)
      : std::runtime_error(message), line(where) {}
  std::uint32_t line;
};

struct Line {
  std::string text;
  std::uint32_t number = 0;
};

struct Field {
  std::string value;  // continuation lines are joined with a line end between them
  std::uint32_t line = 0;
};

// Field names are compared without regard to case.
struct NameOrder {
  using is_transparent = void;
  static char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }
  bool operator()(std::string_view a, std::string_view b) const {
    return std::ranges::lexicographical_compare(a, b, {}, Lower, Lower);
  }
};

using Fields = std::map<std::string, Field, NameOrder>;

std::string_view Trim(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\n");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\n") - first + 1);
}

bool IsBlank(char c) { return BLANKS.find(c) != std::string_view::npos; }

std::vector<std::string> Split(std::string_view text, char separator) {
  std::vector<std::string> parts;
  for (;;) {
    const auto end = text.find(separator);
    const std::string_view part = Trim(text.substr(0, end));
    if (!part.empty()) parts.emplace_back(part);
    if (end == std::string_view::npos) return parts;
    text.remove_prefix(end + 1);
  }
}

void CheckText(const Line& line) {
  // A list's strings end at the first NUL, so the rest of such a line would silently be lost.
  if (line.text.find('\0') != std::string::npos)
    throw Malformed(line.number, "the line has a NUL byte");
}

void AddContinuation(Field* field, const Line& line) {
  if (!field) throw Malformed(line.number, "a continuation line has no field before it");
  if (Trim(line.text).empty())
    throw Malformed(line.number, "a line of blanks is neither a value nor the end of the stanza");
  field->value.append("\n").append(Trim(line.text));
}

Field& AddField(Fields& fields, const Line& line) {
  const auto colon = line.text.find(':');
  const std::string_view name = std::string_view(line.text).substr(0, colon);
  if (colon == std::string::npos || name.empty() ||
      name.find_first_of(BLANKS) != std::string_view::npos)
    throw Malformed(line.number, "expected \"Field: value\", got \"" + line.text + "\"");
  const auto [position, isNew] = fields.try_emplace(std::string(name));
  if (!isNew) {
    throw Malformed(line.number, "the field " + std::string(name) +
                                     " is there twice, first in line " +
                                     std::to_string(position->second.line));
  }
  position->second.value = Trim(std::string_view(line.text).substr(colon + 1));
  position->second.line = line.number;
  return position->second;
}

Fields FieldsOf(const std::vector<Line>& stanza) {
  Fields fields;
  Field* last = nullptr;
  for (const Line& line : stanza) {
    CheckText(line);
    if (IsBlank(line.text.front())) {
      AddContinuation(last, line);
    } else {
      last = &AddField(fields, line);
    }
  }
  return fields;
}

std::string Optional(const Fields& fields, std::string_view name) {
  const auto found = fields.find(name);
  return found == fields.end() ? std::string() : found->second.value;
}

const Field& Required(const Fields& fields, std::string_view name, std::uint32_t stanzaLine) {
  const auto found = fields.find(name);
  if (found == fields.end())
    throw Malformed(stanzaLine, "the field " + std::string(name) + " is missing");
  if (found->second.value.empty())
    throw Malformed(found->second.line, "the field " + std::string(name) + " is empty");
  return found->second;
}

std::uint64_t SizeOf(const Fields& fields) {
  const auto found = fields.find("Installed-Size");
  if (found == fields.end()) return 0;
  const std::string& text = found->second.value;
  std::uint64_t size = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), size);
  if (error != std::errc() || end != text.data() + text.size())
    throw Malformed(found->second.line, "Installed-Size is not a number: \"" + text + "\"");
  return size;
}

PackageState StateOf(const Field& status) {
  // Wanted, error flag, and the state that counts here.
  const std::vector<std::string> words = Split(status.value, ' ');
  if (words.size() != 3)
    throw Malformed(status.line, "Status is not three words: \"" + status.value + "\"");
  if (words[2] == "installed") return PackageState::INSTALLED;
  if (words[2] == "config-files" || words[2] == "not-installed") return PackageState::REMOVED;
  constexpr std::array<std::string_view, 5> IN_BETWEEN_STATES = {
      "half-installed", "unpacked", "half-configured", "triggers-awaited", "triggers-pending"};
  if (std::ranges::find(IN_BETWEEN_STATES, words[2]) == IN_BETWEEN_STATES.end())
    throw Malformed(status.line, "Status names no known state: \"" + status.value + "\"");
  return PackageState::IN_BETWEEN;
}

void AddDependencies(const Fields& fields, std::string_view name, Package& package) {
  const auto found = fields.find(name);
  if (found == fields.end()) return;
  const std::string error = ParseDependencies(found->second.value, package.dependencies);
  if (!error.empty()) throw Malformed(found->second.line, std::string(name) + ": " + error);
}

Checksum ChecksumOf(const std::vector<Line>& stanza) {
  std::string text;
  for (const Line& line : stanza) text.append(line.text).push_back('\n');
  return Sha256(text);
}

Package PackageOf(const std::vector<Line>& stanza) {
  const Fields fields = FieldsOf(stanza);
  Package package;
  package.line = stanza.front().number;
  package.name = Required(fields, "Package", package.line).value;
  const Field& status = Required(fields, "Status", package.line);
  package.status = status.value;
  package.state = StateOf(status);
  if (package.state == PackageState::INSTALLED) {
    package.version = Required(fields, "Version", package.line).value;
  } else {
    package.version = Optional(fields, "Version");
  }
  package.architecture = Optional(fields, "Architecture");
  package.section = Optional(fields, "Section");
  package.installedSizeKib = SizeOf(fields);
  package.essential = Optional(fields, "Essential") == "yes";
  package.provides = Split(Optional(fields, "Provides"), ',');
  AddDependencies(fields, "Pre-Depends", package);
  AddDependencies(fields, "Depends", package);
  package.checksum = ChecksumOf(stanza);
  return package;
}

// One "name (relation version)". Returns an empty text or what is wrong.
std::string ParseDependency(std::string_view text, Dependency& dependency) {
  const std::string quoted = std::string(1, '"').append(text).append(1, '"');
  const auto open = text.find('(');
  dependency.package = Trim(text.substr(0, open));
  if (dependency.package.empty() || dependency.package.find_first_of(" \t\n") != std::string::npos)
    return quoted + " does not begin with a package name";
  if (open == std::string_view::npos) return {};
  if (text.back() != ')') return quoted + " lacks its closing parenthesis";
  const std::string_view inner = Trim(text.substr(open + 1, text.size() - open - 2));
  const auto relationSize = std::min(inner.find_first_not_of("<=>"), inner.size());
  dependency.relation = inner.substr(0, relationSize);
  dependency.version = Trim(inner.substr(relationSize));
  constexpr std::array<std::string_view, 5> RELATIONS = {"<<", "<=", "=", ">=", ">>"};
  if (std::ranges::find(RELATIONS, dependency.relation) == RELATIONS.end())
    return quoted + " has no valid version relation";
  if (dependency.version.empty()) return quoted + " has no version";
  return {};
}

// Reads up to and including the empty line that ends a stanza. False at the end of the file.
bool ReadStanza(std::istream& stream, std::uint32_t& lineNumber, std::vector<Line>& stanza) {
  stanza.clear();
  std::string text;
  while (std::getline(stream, text)) {
    ++lineNumber;
    if (!text.empty()) {
      stanza.push_back({text, lineNumber});
    } else if (!stanza.empty()) {
      return true;
    }
  }
  return !stanza.empty();
}

}  // namespace

std::string ParseDependencies(std::string_view value, std::vector<Dependency>& dependencies) {
  std::uint32_t group = dependencies.empty() ? 0 : dependencies.back().group + 1;
  for (const std::string& alternatives : Split(value, ',')) {
    for (const std::string& text : Split(alternatives, '|')) {
      Dependency dependency;
      dependency.group = group;
      std::string error = ParseDependency(text, dependency);
      if (!error.empty()) return error;
      dependencies.push_back(std::move(dependency));
    }
    ++group;
  }
  return {};
}

PackageFile ReadPackages(std::istream& stream) {
  PackageFile file;
  // By name and architecture: a system may hold the same library for two of them.
  std::map<std::pair<std::string, std::string>, std::uint32_t> seen;
  std::vector<Line> stanza;
  std::uint32_t lineNumber = 0;
  while (ReadStanza(stream, lineNumber, stanza)) {
    try {
      Package package = PackageOf(stanza);
      const auto [first, isNew] =
          seen.try_emplace({package.name, package.architecture}, package.line);
      if (!isNew) {
        throw Malformed(package.line, "the package " + package.name +
                                          " is there twice, first in line " +
                                          std::to_string(first->second));
      }
      file.packages.push_back(std::move(package));
    } catch (const Malformed& malformed) {
      file.errors.push_back({malformed.line, malformed.what()});
    }
  }
  return file;
}

}  // namespace inventory
