// Placeholders in a command text. The first line has the values of a card, between tabulators; two
// lines are a name and its value, and the rest is the text.
#include <string>

#include "fuzz/fuzz.h"
#include "runtime/text.h"
#include "watch/card_text.h"
#include "watch/credentials.h"
#include "watch/event_table.h"
#include "watch/logon_file.h"
#include "watch/placeholders.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qixx;
  fuzzing::Input input(data, size);
  watch::LogonValues values;
  const std::string fields = input.Line();
  std::size_t index = 0;
  for (std::string* value : {&values.upn, &values.subject, &values.serial}) {
    const std::string_view field = runtime::GetField(fields, index++, '\t').value_or("");
    *value = watch::CleanCardText(field.substr(0, watch::kMaxLogonValue));
  }
  const std::string name = input.Line();
  const std::string value = input.Line();

  for (const std::size_t limit : {watch::kMaxInsertEntry, watch::kMaxRemoveEntry, std::size_t{0}}) {
    const std::string text = input.Rest().substr(0, limit);
    fuzzing::Require(watch::ReplaceLogonPlaceholders(values, text, limit).size() <= limit);
  }
  std::string text = input.Rest();
  watch::WalkBudget budget(watch::kMaxWalked);
  const std::size_t limit = watch::MaxFilledText(text.size());
  if (!name.empty() && watch::ReplaceAll(text, name, value, limit, budget) && text.size() > limit)
    std::abort();
  text = watch::CleanCardText(text);
  fuzzing::Require(text.find_first_of("\"\n\r\t") == std::string::npos);
  return 0;
}
