// The command line: options from one text over another, the argument vector, masked secrets; and
// the second text as a command.
#include <string>
#include <vector>

#include "fuzz/fuzz.h"
#include "runtime/process.h"
#include "runtime/secrets.h"
#include "watch/check_command.h"
#include "watch/command.h"
#include "watch/event_table.h"
#include "watch/options.h"
#include "watch/set_command.h"

namespace {

/// Takes a command apart as far as that needs nothing outside of it.
void TryCommand(std::string_view text) {
  using namespace qixx;
  const runtime::MaskedLine line(text);
  for (const watch::EventKind kind : {watch::EventKind::kInsert, watch::EventKind::kRemove}) {
    const watch::CommandParts parts = watch::SplitCommand(kind, text);
    fuzzing::Require(text.ends_with(parts.text));
    fuzzing::Require(!watch::DescribeCommand(kind, text, line).empty());
    fuzzing::Require(watch::SplitApplication(parts.text).program.size() <= parts.text.size());
  }
}

bool IsAllMasked(std::string_view text) {
  return text.find_first_not_of('*') == std::string_view::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qixx;
  fuzzing::Input input(data, size);
  const std::string first = input.Line();
  const std::string second = input.Rest();
  watch::CWatchOptions record;
  static_cast<void>(watch::ParseWatchOptions(first, record));
  static_cast<void>(watch::ParseWatchOptions(second, record));
  for (const std::string* field :
       {&record.registry, &record.arguments, &record.match, &record.rest, &record.section}) {
    fuzzing::Require(field->size() <= watch::kMaxOption);
  }
  const watch::SetOptions options = watch::SetOptionsOf(record);
  fuzzing::Require(options.config.find('"') == std::string::npos);
  const std::vector<std::string> entries = runtime::SplitArguments(first, second);
  fuzzing::Require(first.empty() || entries.front() == first);
  TryCommand(std::string_view(second).substr(0, watch::kMaxInsertEntry));
  const std::string masked = runtime::MaskSecrets(second);
  fuzzing::Require(masked.size() == second.size());
  const runtime::MaskedLine line(second);
  for (const std::string& entry : runtime::SplitArguments("", second)) {
    const std::string shown = line.Part(entry);
    fuzzing::Require(shown.size() == entry.size());
    fuzzing::Require(masked.find(shown) != std::string::npos || IsAllMasked(shown));
  }
  return 0;
}
