// Placeholders in a command text: five lines are the values of a card, the rest is the text.
#include <cstdlib>
#include <string>

#include "fuzz/fuzz.h"
#include "runtime/text.h"
#include "watch/credentials.h"
#include "watch/event_table.h"
#include "watch/set_command.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qixx;
  fuzzing::Input input(data, size);
  watch::LogonValues values;
  runtime::CopyTextCut(values.upn, input.Line());
  runtime::CopyTextCut(values.subject, input.Line());
  runtime::CopyTextCut(values.serial, input.Line());
  const std::string name = input.Line();
  const std::string value = input.Line();

  for (const std::size_t area :
       {watch::kInsertEntrySize, watch::kRemoveEntrySize, std::size_t{1}}) {
    std::string text(area, '\0');
    runtime::CopyTextCut(text, input.Rest());
    watch::ReplaceLogonPlaceholders(values, text);
    if (text.find('\0') == std::string::npos) std::abort();
  }
  std::string text = input.Rest();
  watch::ReplaceAll(text, name, value);
  watch::CleanCardText(text);
  if (text.find_first_of("\"\n\r\t") != std::string::npos) std::abort();
  return 0;
}
