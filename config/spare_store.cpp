// Spare: asked of this layer by the suite's design, built, called by nothing in this
// program. Those operations of the store that the watch service leaves alone.
#include <algorithm>
#include <limits>

#include "config/environment.h"
#include "config/store.h"
#include "runtime/text.h"

namespace qixx::config {
namespace {

/// So many characters of such a number's text are read.
constexpr std::size_t kMaxItemInteger = 15;

/// Signed numbers are decimal; a hexadecimal one has no sign.
std::int64_t ParseInteger(std::string_view text) {
  if (!runtime::StartsWithNoCase(runtime::SkipBlanks(text), "0x"))
    return runtime::ParseSigned(text);
  constexpr std::uint64_t kLargest = std::numeric_limits<std::int64_t>::max();
  return static_cast<std::int64_t>(std::min(runtime::ParseNumber(text), kLargest));
}

}  // namespace

// --- reading ----------------------------------------------------------------------------------

void CConfig::SetRaw(bool raw) {
  raw_ = raw;
}

std::optional<std::int64_t> CConfig::GetInteger(std::string_view section, std::string_view entry) {
  const std::optional<ConfigValue> value = GetString(section, entry, kMaxNumber);
  if (!value) return std::nullopt;
  return ParseInteger(value->text);
}

std::optional<std::int32_t> CConfig::GetItemInteger(std::size_t item, std::string_view section,
                                                    std::string_view entry) {
  const std::optional<ConfigValue> value =
      GetItemString(item, section, entry, kMaxItemInteger, raw_);
  if (!value) return std::nullopt;
  using Limits = std::numeric_limits<std::int32_t>;
  return static_cast<std::int32_t>(
      std::clamp<std::int64_t>(runtime::ParseSigned(value->text), Limits::min(), Limits::max()));
}

std::optional<ConfigValue> CConfig::GetQualified(std::string_view section, std::string_view entry,
                                                 std::string_view qualifier,
                                                 std::size_t maxLength) {
  const std::optional<std::string> name = JoinText({entry, "_", qualifier});
  if (!name) return std::nullopt;
  return GetString(section, *name, maxLength);
}

bool CConfig::SectionExists(std::string_view section) {
  return FirstAnswer([section](CConfigItem& item) { return item.SectionExists(section); });
}

std::optional<ConfigEntry> CConfig::EnumEntries(std::size_t& index) {
  return FirstAnswer([wanted = index++](CConfigItem& item) {
    std::size_t asked = wanted;
    return item.EnumEntries(asked);
  });
}

std::optional<std::string> CConfig::EnumSectionEntries(std::string_view section,
                                                       std::size_t& index) {
  return FirstAnswer([section, wanted = index++](CConfigItem& item) {
    std::size_t asked = wanted;
    return item.EnumSectionEntries(section, asked);
  });
}

std::optional<std::vector<std::uint8_t>> CConfig::GetBlock(std::string_view name) {
  return FirstAnswer([name](CConfigItem& item) { return item.GetBlock(name); });
}

// --- changing ---------------------------------------------------------------------------------

ConfigResult CConfig::SetString(std::string_view section, std::string_view entry,
                                std::string_view value) {
  if (items_[0] == nullptr) return ConfigResult::kFailed;
  return items_[0]->SetValue(section, entry, value);
}

ConfigResult CConfig::SetInteger(std::string_view section, std::string_view entry,
                                 std::int32_t value) {
  return SetString(section, entry, std::to_string(value));
}

ConfigResult CConfig::SetUnsigned(std::string_view section, std::string_view entry,
                                  std::uint32_t value) {
  return SetString(section, entry, std::to_string(value));
}

ConfigResult CConfig::Delete(std::string_view section, std::optional<std::string_view> entry) {
  return items_[0] == nullptr ? ConfigResult::kFailed : items_[0]->Delete(section, entry);
}

ConfigResult CConfig::SetBlock(std::optional<std::string_view> name,
                               std::span<const std::uint8_t> data) {
  return items_[0] == nullptr ? ConfigResult::kFailed : items_[0]->SetBlock(name, data);
}

}  // namespace qixx::config
