#include "config/store.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <limits>

#include "config/conditions.h"
#include "config/file.h"
#include "runtime/files.h"
#include "runtime/lasting.h"
#include "runtime/sync.h"
#include "runtime/trace.h"

namespace qixx::config {
namespace {

constexpr std::string_view kStaticPath = "static";
constexpr std::string_view kConditionSection = "Condition";
constexpr std::size_t kMaxText = runtime::kTextSize - 1;
/// Far more than the list of the active ones holds. Finding each takes a walk over the file, which
/// endless conditions of a hostile file must not repeat for ever.
constexpr unsigned kMaxConditions = 1000;
constexpr std::size_t kNoLimit = std::string::npos;

// A number's text is cut there.
constexpr std::size_t kMaxItemInteger = 15;
constexpr std::size_t kMaxNumber = 16;

std::atomic<bool> staticMode{false};

/// The texts one behind the other; none when they are longer than a name or path may be.
template <typename... Texts>
std::optional<std::string> Join(const Texts&... texts) {
  std::string joined;
  joined.reserve((std::string_view(texts).size() + ...));
  (joined.append(texts), ...);
  if (joined.size() > kMaxText) return std::nullopt;
  return joined;
}

/// The variable whose name is the product prefix and `name`; null when it is not set.
template <typename... Names>
const char* FindProductVariable(const Names&... names) {
  const std::string_view prefix = runtime::Product().prefix;
  if (prefix.empty()) return nullptr;
  const std::optional<std::string> variable = Join(prefix, names...);
  return variable ? std::getenv(variable->c_str()) : nullptr;
}

/// A path from the environment, when it is set, not empty and short enough.
std::optional<std::string> GetPathVariable(std::string_view name) {
  const std::string_view value = runtime::ViewOf(FindProductVariable(name));
  if (value.empty() || value.size() > kMaxText) return std::nullopt;
  return std::string(value);
}

/// The product's directory below the home directory, with a '/' at its end.
std::optional<std::string> GetUserDirectory() {
  const std::string_view home = runtime::ViewOf(std::getenv("HOME"));
  const std::string_view prefix = runtime::Product().prefix;
  if (home.empty() || prefix.empty()) return std::nullopt;
  return Join(home, home.ends_with('/') ? "." : "/.", prefix, "/");
}

/// A per-user installation is known by its library directory.
bool HoldsLibraries(std::string_view directory) {
  const std::optional<std::string> path = Join(directory, "lib");
  struct stat info {};
  return path && ::stat(path->c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

/// Signed numbers are decimal; a hexadecimal one has no sign.
std::int64_t ParseInteger(std::string_view text) {
  if (!runtime::StartsWithNoCase(runtime::SkipBlanks(text), "0x"))
    return runtime::ParseSigned(text);
  constexpr std::uint64_t kLargest = std::numeric_limits<std::int64_t>::max();
  return static_cast<std::int64_t>(std::min(runtime::ParseNumber(text), kLargest));
}

std::string CallingApplication() {
  char path[runtime::kTextSize];
  runtime::GetCallingApplication(path);
  return std::string(runtime::TextOf(path));
}

/// Fills `text` by `read`, which cuts what it reads to its area: the area grows until the text
/// leaves room in it.
template <typename Reader>
ConfigResult ReadWhole(Reader read, std::string& text) {
  constexpr std::size_t kGrowth = 4;
  for (std::size_t size = runtime::kTextSize;; size *= kGrowth) {
    text.resize(size);
    const ConfigResult result = read(std::span<char>(text));
    const std::size_t length = runtime::TextOf(text).size();
    if (result == kConfigOk && length + 1 == size && size <= kMaximumLine) continue;
    text.resize(length);
    return result;
  }
}

// --- the reference file -----------------------------------------------------------------------

runtime::CCritical& ReferenceLock() {
  static runtime::Lasting<runtime::CCritical> lock;
  return *lock;
}

/// Taken from the environment once; "0" when it names no file.
const std::string& ReferencePath() {
  struct Holder {
    std::string path = GetPathVariable("configref").value_or("0");
  };
  static runtime::Lasting<Holder> holder;
  return (*holder).path;
}

/// Adds the setting to the reference file unless it is there.
void AddReference(const std::string& section, const std::string& entry) {
  const runtime::CriticalScope hold(&ReferenceLock());
  CConfigFile file;
  char value[runtime::kTextSize];
  file.Open(false, ReferencePath().c_str(), true);
  const bool known =
      file.GetValue(section.c_str(), entry.c_str(), value, false) == ConfigResult::kOk;
  file.Close(true);
  if (known) return;
  file.Open(true, ReferencePath().c_str(), true);
  file.SetValue(section.c_str(), entry.c_str(), nullptr, false);
  file.Close(true);
}

}  // namespace

CConfig::CConfig() = default;

CConfig::~CConfig() {
  CConfig::Close(true);
}

// --- opening and closing ----------------------------------------------------------------------

ConfigResult CConfig::Close(bool release) {
  ConfigResult result = ConfigResult::kOk;
  for (std::unique_ptr<CConfigItem>& item : items_) {
    if (item != nullptr && item->Close(release) != ConfigResult::kOk) {
      result = ConfigResult::kFailed;
    }
    if (release) item.reset();
  }
  return result;
}

ConfigResult CConfig::OpenAll(bool writable) {
  Close(true);
  ConfigResult result = ConfigResult::kNoPath;
  const std::optional<std::string> local = FindLocalPath();
  if (local) {
    result = OpenItem(writable, *local);
    if (result != ConfigResult::kOk) runtime::TraceWrite("Config - Open %s failed", "local");
  }
  const std::optional<std::string> global = FindGlobalPath();
  if (global && global != local) {
    result = OpenItem(writable, *global);
    if (result != ConfigResult::kOk) runtime::TraceWrite("Config - Open %s failed", "global");
  }
  return result;
}

ConfigResult CConfig::OpenDefault(bool writable) {
  const std::optional<std::string> path = FindGlobalPath();
  if (!path) {
    runtime::TraceWrite("Config - Failed to find config file");
    return ConfigResult::kNoPath;
  }
  return OpenItem(writable, *path);
}

ConfigResult CConfig::OpenItem(bool writable, const std::string& path) {
  const auto free = std::find(std::begin(items_), std::end(items_), nullptr);
  if (free == std::end(items_)) {
    runtime::TraceWrite("Config - No more internal objects");
    return ConfigResult::kFailed;
  }
  auto item = std::make_unique<CConfigFile>();
  const bool isFirst = free == std::begin(items_);
  const ConfigResult result = path == kStaticPath
                                  ? item->LoadText("", 0)
                                  : item->Open(writable && isFirst, path.c_str(), false);
  if (result == ConfigResult::kOk) *free = std::move(item);
  return result;
}

std::optional<std::string> CConfig::FindLocalPath() {
  if (auto path = GetPathVariable("configlocal")) return path;
  const std::optional<std::string> directory = GetUserDirectory();
  if (!directory) return std::nullopt;
  if (!runtime::PathExists(directory->c_str())) runtime::CreatePath(directory->c_str());
  return Join(*directory, runtime::Product().configFile);
}

std::optional<std::string> CConfig::FindGlobalPath() {
  if (staticMode) return std::string(kStaticPath);
  if (auto path = GetPathVariable("configglobal")) return path;
  const std::string_view file = runtime::Product().configFile;
  if (file.empty()) return std::nullopt;

  const std::optional<std::string> user = GetUserDirectory();
  const bool perUser = user && HoldsLibraries(*user);
  auto path = Join(perUser ? std::string_view(*user) : "/etc/", file);
  if (path && runtime::PathExists(path->c_str())) return path;
  // The directory to fall back on is deliberately empty: the file of the current directory.
  return Join(file);
}

void CConfig::SetStaticMode(bool on) {
  staticMode = on;
}

// --- reading ----------------------------------------------------------------------------------

std::optional<ConfigValue> CConfig::GetString(std::string_view section, std::string_view entry,
                                              std::size_t maxLength) {
  return GetLayered(section, entry, maxLength, raw_);
}

std::optional<ConfigValue> CConfig::GetLayered(std::string_view section, std::string_view entry,
                                               std::size_t maxLength, bool raw) {
  auto value = GetItemString(0, section, entry, maxLength, raw);
  if (value || items_[1] == nullptr) return value;
  return GetItemString(1, section, entry, maxLength, raw);
}

/// One attempt: the environment, else the item.
std::optional<ConfigValue> CConfig::GetItemString(std::size_t item, std::string_view section,
                                                  std::string_view entry, std::size_t maxLength,
                                                  bool raw) {
  std::optional<ConfigValue> value;
  if (const char* found = FindProductVariable(":", section, ":", entry); found != nullptr) {
    const std::string_view text = found;
    if (!text.empty() && text.size() <= maxLength) {
      value = {std::string(text), ConfigOrigin::kEnvironment};
    }
  } else if (CConfigItem* const held = Item(item); held != nullptr) {
    value = ReadItem(*held, section, entry, maxLength, raw);
  }
  RecordReference(section, entry);
  return value;
}

/// The whole value is resolved, and then cut.
std::optional<ConfigValue> CConfig::ReadItem(CConfigItem& item, std::string_view section,
                                             std::string_view entry, std::size_t maxLength,
                                             bool raw) {
  const std::string sectionName(section);
  const std::string entryName(entry);
  std::string text;
  const ConfigResult result = ReadWhole(
      [&](std::span<char> area) {
        return item.GetValue(sectionName.c_str(), entryName.c_str(), area, false);
      },
      text);
  if (result != ConfigResult::kOk) return std::nullopt;
  const std::string_view chosen = !raw && IsConditional(text) ? Resolve(text) : text;
  return ConfigValue{std::string(chosen.substr(0, maxLength)), ConfigOrigin::kFile};
}

std::optional<ConfigValue> ReadNumberedEntry(CConfig& config, std::string_view section,
                                             unsigned number, std::size_t maxLength) {
  return config.GetString(section, std::to_string(number), maxLength);
}

std::optional<std::uint64_t> CConfig::GetUnsigned(std::string_view section,
                                                  std::string_view entry) {
  const std::optional<ConfigValue> value = GetString(section, entry, kMaxNumber);
  if (!value) return std::nullopt;
  return runtime::ParseNumber(value->text);
}

std::optional<bool> CConfig::GetBoolean(std::string_view section, std::string_view entry) {
  const std::optional<std::uint64_t> number = GetUnsigned(section, entry);
  if (!number) return std::nullopt;
  return *number != 0;
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
  const std::optional<std::string> name = Join(entry, "_", qualifier);
  if (!name) return std::nullopt;
  return GetString(section, *name, maxLength);
}

std::optional<ConfigEntry> CConfig::EnumEntries(std::size_t& index) {
  char section[runtime::kTextSize];
  char entry[runtime::kTextSize];
  if (items_[0] == nullptr) return std::nullopt;
  if (items_[0]->EnumEntries(section, entry, index) != ConfigResult::kOk) return std::nullopt;
  return ConfigEntry{section, entry};
}

bool CConfig::SectionExists(const char* section) {
  return std::any_of(std::begin(items_), std::end(items_), [section](const auto& item) {
    return item != nullptr && item->SectionExists(section);
  });
}

ConfigResult CConfig::EnumSectionEntries(const char* section, std::span<char> entry,
                                         std::size_t& index) {
  runtime::CopyTextCut(entry, {});
  const std::size_t wanted = index;
  ConfigResult result = kConfigFailed;
  // The first item that has the section is the one that is walked through, to its end.
  for (const std::unique_ptr<CConfigItem>& item : items_) {
    if (item == nullptr) continue;
    index = wanted;
    result = item->EnumSectionEntries(section, entry, index);
    if (result == kConfigOk || item->SectionExists(section)) break;
  }
  return result;
}

ConfigResult CConfig::GetBlock(const char* name, std::uint8_t*& data, std::size_t& length) {
  data = nullptr;
  length = 0;
  for (const std::unique_ptr<CConfigItem>& item : items_) {
    if (item != nullptr && item->GetBlock(name, data, length) == kConfigOk) return kConfigOk;
  }
  return kConfigFailed;
}

bool CConfig::HasText() const {
  return std::any_of(std::begin(items_), std::end(items_), [](const auto& item) {
    std::size_t size = 0;
    return item != nullptr && item->GetText(nullptr, size) == kConfigOk && size != 0;
  });
}

CConfigItem* CConfig::Item(std::size_t index) const {
  return index < std::size(items_) ? items_[index].get() : nullptr;
}

// --- changing ---------------------------------------------------------------------------------

ConfigResult CConfig::SetString(std::string_view section, std::string_view entry,
                                std::string_view value) {
  if (items_[0] == nullptr) return ConfigResult::kFailed;
  return items_[0]->SetValue(std::string(section).c_str(), std::string(entry).c_str(),
                             std::string(value).c_str(), false);
}

ConfigResult CConfig::SetInteger(std::string_view section, std::string_view entry,
                                 std::int32_t value) {
  return SetString(section, entry, std::to_string(value));
}

ConfigResult CConfig::SetUnsigned(std::string_view section, std::string_view entry,
                                  std::uint32_t value) {
  return SetString(section, entry, std::to_string(value));
}

ConfigResult CConfig::Delete(const char* section, const char* entry) {
  return items_[0] == nullptr ? kConfigFailed : items_[0]->Delete(section, entry);
}

ConfigResult CConfig::SetBlock(const char* name, std::span<const std::uint8_t> data) {
  return items_[0] == nullptr ? kConfigFailed : items_[0]->SetBlock(name, data);
}

void CConfig::SetRaw(bool raw) {
  raw_ = raw;
}

// --- conditions -------------------------------------------------------------------------------

bool CConfig::IsModeActive(std::string_view /*mode*/) const {
  return false;
}

std::string_view CConfig::Resolve(std::string_view value) {
  const std::string application = CallingApplication();
  return ResolveConditional(
      value, {application, [this](std::string_view name) { return IsNamedConditionActive(name); },
              [this](std::string_view mode) { return IsModeActive(mode); }});
}

bool CConfig::IsNamedConditionActive(std::string_view name) {
  if (!activeConditions_) CollectNamedConditions();
  if (!conditionsReported_ && !activeConditions_->empty() && runtime::TraceIsOn()) {
    runtime::TraceWrite("Config - Active named conditions: %s", activeConditions_->c_str());
    conditionsReported_ = true;
  }
  return activeConditions_->find(name) != std::string::npos;
}

void CConfig::CollectNamedConditions() {
  std::string& active = activeConditions_.emplace();
  const std::string application = CallingApplication();
  // The list that is being made is asked, so a condition may build on those in front of it.
  const ConditionContext context{
      application,
      [&active](std::string_view name) { return active.find(name) != std::string::npos; },
      [this](std::string_view mode) { return IsModeActive(mode); }};

  for (unsigned number = 1; number <= kMaxConditions; ++number) {
    const auto found = GetLayered(kConditionSection, std::to_string(number), kNoLimit, true);
    if (!found) return;
    const std::string_view text = found->text;
    const std::size_t close = text.find('}');
    if (!text.starts_with('{') || close == std::string_view::npos) continue;
    const std::string_view name = text.substr(0, close + 1);
    if (!ConditionHolds(runtime::SkipBlanks(text.substr(close + 1)), context)) continue;
    if (active.size() + name.size() <= kMaxText) active += name;
  }
}

// --- the reference recorder -------------------------------------------------------------------

/// Notes which settings the program asks for, where an item of the kind that wants it is held.
void CConfig::RecordReference(std::string_view section, std::string_view entry) const {
  const bool wanted = std::any_of(std::begin(items_), std::end(items_), [](const auto& item) {
    return item != nullptr && item->GetKind() == kConfigKindRecorded;
  });
  if (!wanted || section.empty() || entry.empty() || entry.find('_') != kNoPosition) return;
  AddReference(std::string(section), std::string(entry));
}

// --- the same with areas ----------------------------------------------------------------------

ConfigResult CConfig::GetString(const char* section, const char* entry, std::span<char> buffer,
                                bool /*convert*/) {
  runtime::CopyTextCut(buffer, {});
  if (section == nullptr || entry == nullptr || buffer.empty()) return ConfigResult::kFailed;
  const std::optional<ConfigValue> value = GetString(section, entry, buffer.size() - 1);
  if (!value) return ConfigResult::kFailed;
  runtime::CopyTextCut(buffer, value->text);
  return value->origin == ConfigOrigin::kFile ? ConfigResult::kOk : ConfigResult::kFailed;
}

ConfigResult CConfig::SetString(const char* section, const char* entry, const char* value,
                                bool /*convert*/) {
  return SetString(runtime::ViewOf(section), runtime::ViewOf(entry), runtime::ViewOf(value));
}

ConfigResult CConfig::GetBoolean(const char* section, const char* entry, bool& value) {
  const std::optional<bool> found = GetBoolean(section, entry);
  if (found) value = *found;
  return found ? ConfigResult::kOk : ConfigResult::kFailed;
}

ConfigResult CConfig::EnumEntries(std::span<char> section, std::span<char> entry,
                                  std::size_t& index) {
  const std::optional<ConfigEntry> found = EnumEntries(index);
  runtime::CopyTextCut(section, found ? found->section : std::string());
  runtime::CopyTextCut(entry, found ? found->entry : std::string());
  return found ? ConfigResult::kOk : ConfigResult::kFailed;
}

bool ReadConfigText(CConfig& config, const char* section, const char* entry, std::span<char> buffer,
                    bool convert) {
  return config.GetString(section, entry, buffer, convert) == ConfigResult::kOk ||
         !runtime::TextOf(buffer).empty();
}

}  // namespace qixx::config
