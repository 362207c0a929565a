#include "watch/check_trace.h"

#include <string>
#include <string_view>

#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/check_target.h"

namespace qixx::watch {
namespace {

struct TraceEntry {
  std::string_view section;
  std::string_view name;
  bool isCall;  ///< takes a file of any ending, and no journal
};
constexpr TraceEntry kTraceEntries[] = {
    {"Trace", "watch", false},
    {"Trace", "bridge", false},
    {"Trace", "File", false},
    {"Trace Call", "watch", true},
};

void CheckTraceFile(const Place& place, const std::string& path, bool isCall, Mistakes& mistakes) {
  if (path.find("||") != std::string::npos || runtime::StartsWithNoCase(path, "server")) return;
  if (!isCall && path == runtime::kJournalTarget) return;
  if (!isCall && !runtime::IsTraceFileName(path)) {
    mistakes.Add(place, "trace file " + Quoted(path) + " has another ending, so nothing is traced",
                 "'.log' or '.txt' is meant");
  }
  const std::string folder = FolderOf(path);
  if (!path.starts_with('/')) {
    mistakes.Add(place,
                 "trace file " + Quoted(path) + " stands in the folder that the service starts in",
                 "the whole path is meant");
  } else if (!IsFolder(folder)) {
    mistakes.Add(place, "there is no folder " + Quoted(folder) + ", so nothing is traced",
                 "make it, or name another");
  } else if (!MayWrite(path)) {
    mistakes.Add(place, "trace file " + Quoted(path) + " may not be written, so nothing is traced",
                 kOtherUser);
  }
}

}  // namespace

void CheckTraceFiles(const CheckedConfiguration& configuration, Mistakes& mistakes) {
  for (const CheckedRole role : {CheckedRole::kUser, CheckedRole::kSystem}) {
    const CheckedFile* const file = configuration.File(role);
    if (file == nullptr) continue;
    for (const TraceEntry& traced : kTraceEntries) {
      const CheckedEntry* const entry = file->Find(traced.section, traced.name);
      if (entry == nullptr || entry->value.empty()) continue;
      CheckTraceFile(file->At(entry->line), std::string(entry->value), traced.isCall, mistakes);
    }
  }
}

}  // namespace qixx::watch
