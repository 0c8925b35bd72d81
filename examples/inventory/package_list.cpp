#include "package_list.h"

#include <cstdint>
#include <vector>

#include "protocol.h"

namespace inventory {
namespace {

std::uint32_t CountOf(const auto& container) {
  return static_cast<std::uint32_t>(container.size());
}

void SetProvides(HTQPARAMLIST list, const std::vector<std::string>& provides) {
  std::vector<const char*> texts;
  texts.reserve(provides.size());
  for (const std::string& name : provides) texts.push_back(name.c_str());
  TQSetStringArray(list, PROVIDES, CountOf(texts), texts.data());
}

void SetDependencies(HTQPARAMLIST list, const std::vector<Dependency>& dependencies) {
  std::vector<List> owners;
  std::vector<HTQPARAMLIST> handles;
  for (const Dependency& dependency : dependencies) {
    owners.push_back(List::New());
    handles.push_back(owners.back().Get());
    TQSetStringValue(handles.back(), PACKAGE, dependency.package.c_str());
    TQSetStringValue(handles.back(), RELATION, dependency.relation.c_str());
    TQSetStringValue(handles.back(), VERSION, dependency.version.c_str());
    TQSetInt32Value(handles.back(), GROUP, dependency.group);
  }
  // The list takes references of its own, so the owners may go.
  TQSetHandleArray(list, DEPENDENCIES, CountOf(handles), handles.data());
}

}  // namespace

List MakeReport(const Package& package) {
  List list = MakeRemoval(package);
  const HTQPARAMLIST handle = list.Get();
  TQSetStringValue(handle, VERSION, package.version.c_str());
  TQSetStringValue(handle, SECTION, package.section.c_str());
  TQSetStringValue(handle, STATUS, package.status.c_str());
  TQSetInt32Value(handle, ESSENTIAL, package.essential ? 1 : 0);
  TQSetInt32Value(handle, LINE, package.line);
  TQSetInt64Value(handle, INSTALLED_SIZE, package.installedSizeKib);
  TQSetBinaryValue(handle, CHECKSUM, package.checksum.data(), CountOf(package.checksum));
  SetProvides(handle, package.provides);
  SetDependencies(handle, package.dependencies);
  return list;
}

List MakeRemoval(const Package& package) {
  List list = List::New();
  TQSetStringValue(list.Get(), PACKAGE, package.name.c_str());
  TQSetStringValue(list.Get(), ARCHITECTURE, package.architecture.c_str());
  return list;
}

}  // namespace inventory
