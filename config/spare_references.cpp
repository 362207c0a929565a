#include "config/spare_references.h"

#include "config/environment.h"
#include "config/file.h"
#include "runtime/no_destructor.h"
#include "runtime/sync.h"

namespace qixx::config {
namespace {

runtime::CCritical& ReferenceLock() {
  static runtime::NoDestructor<runtime::CCritical> lock;
  return *lock;
}

/// Taken from the environment once.
const std::string& ReferencePath() {
  static runtime::NoDestructor<std::string> path(GetPathVariable("configref").value_or("0"));
  return *path;
}

}  // namespace

void AddReference(std::string_view section, std::string_view entry) {
  if (section.empty() || entry.empty() || entry.find('_') != kNoPosition) return;
  const runtime::CriticalScope hold(&ReferenceLock());
  CConfigFile file;
  file.Open(false, ReferencePath(), true);
  const bool known = file.GetValue(section, entry).result == ConfigResult::kOk;
  file.Close(true);
  if (known) return;
  file.Open(true, ReferencePath(), true);
  file.SetValue(section, entry, {});
  file.Close(true);
}

}  // namespace qixx::config
