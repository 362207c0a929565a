// The command line: options from one text over another, the argument vector, masked secrets.
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/fuzz.h"
#include "runtime/process.h"
#include "runtime/secrets.h"
#include "watch/options.h"
#include "watch/set_command.h"

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
    if (field->size() > watch::kMaxOption) std::abort();
  }
  const watch::SetOptions options = watch::SetOptionsOf(record);
  if (options.config.find('"') != std::string::npos) std::abort();
  const std::vector<std::string> entries = runtime::SplitArguments(first, second);
  if (!first.empty() && entries.front() != first) std::abort();
  if (runtime::MaskSecrets(second).size() != second.size()) std::abort();
  return 0;
}
