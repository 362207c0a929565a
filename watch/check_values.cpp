#include "watch/check_values.h"

#include <utility>

#include "config/conditions.h"
#include "config/environment.h"
#include "runtime/product.h"

namespace qixx::watch {
namespace {

std::string MeantLength(std::size_t maxLength) {
  return "at most " + std::to_string(maxLength) + " are meant";
}

Place PlaceOfVariable(std::string_view section, std::string_view entry) {
  std::string name(runtime::Product().prefix);
  name.append(1, ':').append(section).append(1, ':').append(entry);
  return {std::move(name), 1};
}

}  // namespace

std::string CheckedConfiguration::Load(CheckedRole role, const std::string& path) {
  std::optional<CheckedFile>& file = files_[static_cast<std::size_t>(role)];
  std::string fault = file.emplace().Load(path);
  if (!fault.empty()) {
    file.reset();
  } else if (role == CheckedRole::kSystem) {
    static_cast<void>(store_.OpenItem(false, path));
    const config::CConfigItem* const item = store_.Item(0);
    isSameText_ = item != nullptr && !file->IsCut() && item->GetText() == file->Text();
  }
  return fault;
}

const CheckedFile* CheckedConfiguration::File(CheckedRole role) const {
  const std::optional<CheckedFile>& file = files_[static_cast<std::size_t>(role)];
  return file ? &*file : nullptr;
}

/// Lists are read from their first entry to their last, and the store walks over the section for
/// each of them; so a plain value is taken from its line.
std::optional<config::ConfigValue> CheckedConfiguration::Find(std::string_view section,
                                                              std::string_view entry,
                                                              const CheckedEntry* line) {
  const bool isPlain = isSameText_ && line != nullptr && !config::IsConditional(line->value) &&
                       !config::FindProductVariable({":", section, ":", entry});
  if (isPlain) return config::ConfigValue{std::string(line->value), config::ConfigOrigin::kFile};
  return store_.GetString(section, entry, std::string::npos);
}

std::optional<CheckedValue> CheckedConfiguration::Read(std::string_view section,
                                                       std::string_view entry,
                                                       std::size_t maxLength, Mistakes& mistakes) {
  const CheckedFile* const file = File(CheckedRole::kSystem);
  const CheckedEntry* const line = file != nullptr ? file->Find(section, entry) : nullptr;
  std::optional<config::ConfigValue> value = Find(section, entry, line);
  if (!value) return std::nullopt;
  if (value->origin == config::ConfigOrigin::kEnvironment) {
    Place place = PlaceOfVariable(section, entry);
    const std::size_t length = value->text.size();
    if (length <= maxLength) return CheckedValue{std::move(value->text), std::move(place)};
    mistakes.Add(place,
                 "the value has " + std::to_string(length) + " characters and counts for nothing",
                 MeantLength(maxLength));
    return std::nullopt;
  }
  Place place;
  if (file != nullptr) place = file->At(line != nullptr ? line->line : 1);
  CheckLength(place, entry, value->text, maxLength, mistakes);
  return CheckedValue{std::move(value->text), std::move(place)};
}

void CheckLength(const Place& place, std::string_view entry, std::string_view value,
                 std::size_t maxLength, Mistakes& mistakes) {
  if (value.size() <= maxLength) return;
  mistakes.Add(
      place,
      "entry " + Quoted(entry) + " has " + std::to_string(value.size()) + " characters and is cut",
      MeantLength(maxLength));
}

}  // namespace qixx::watch
