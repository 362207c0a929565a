#include "config/store.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <initializer_list>
#include <limits>
#include <new>
#include <string>

#include "config/conditions.h"
#include "config/file.h"
#include "runtime/files.h"
#include "runtime/lasting.h"
#include "runtime/sync.h"
#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::config {
namespace {

constexpr std::string_view kStaticPath = "static";
constexpr const char* kConditionSection = "Condition";
/// Far more than the list of the active ones holds. Finding each takes a walk over the file, which
/// endless conditions of a hostile file must not repeat for ever.
constexpr unsigned kMaximumConditions = 1000;

// The areas of the typed forms, terminator included.
constexpr std::size_t kItemIntegerSize = 16;
constexpr std::size_t kNumberSize = 17;
constexpr std::size_t kWrittenNumberSize = 12;

std::atomic<bool> staticMode{false};

/// Joins the parts; false and an empty text when they do not fit.
bool Join(std::span<char> area, std::initializer_list<std::string_view> parts) {
  std::size_t length = 0;
  for (const std::string_view part : parts) {
    if (!runtime::CopyTextIfFits(area.subspan(std::min(length, area.size())), part)) {
      runtime::CopyTextCut(area, {});
      return false;
    }
    length += part.size();
  }
  return true;
}

/// The variable named by the product prefix and `name`; null when it is not set.
const char* GetProductVariable(std::string_view name) {
  char variable[runtime::kTextSize];
  const std::string_view prefix = runtime::Product().prefix;
  if (prefix.empty() || !Join(variable, {prefix, name})) return nullptr;
  return std::getenv(variable);
}

/// A path from the environment, when it is set, not empty and short enough.
bool GetPathVariable(std::string_view name, std::span<char> path) {
  const std::string_view value = runtime::LocalToUtf8(runtime::ViewOf(GetProductVariable(name)));
  return !value.empty() && runtime::CopyTextIfFits(path, value);
}

/// The value that the environment gives a setting; null when it gives none.
const char* FindOverride(const char* section, const char* entry) {
  char name[runtime::kTextSize];
  return Join(name, {":", section, ":", entry}) ? GetProductVariable(name) : nullptr;
}

/// The product's directory below the home directory, with a '/' at its end.
bool GetUserDirectory(std::span<char> directory) {
  const std::string_view home = runtime::ViewOf(std::getenv("HOME"));
  const std::string_view prefix = runtime::Product().prefix;
  if (home.empty() || prefix.empty()) return false;
  return Join(directory, {home, home.ends_with('/') ? "." : "/.", prefix, "/"});
}

/// A per-user installation is known by its library directory.
bool HoldsLibraries(std::string_view directory) {
  char path[runtime::kTextSize];
  struct stat info {};
  return Join(path, {directory, "lib"}) && ::stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

/// Signed numbers are decimal; a hexadecimal one has no sign.
std::int64_t ParseInteger(std::string_view text) {
  if (!runtime::StartsWithNoCase(runtime::SkipBlanks(text), "0x"))
    return runtime::ParseSigned(text);
  constexpr std::uint64_t kLargest = std::numeric_limits<std::int64_t>::max();
  return static_cast<std::int64_t>(std::min(runtime::ParseNumber(text), kLargest));
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
const char* ReferencePath() {
  static char path[runtime::kTextSize] = {};
  if (path[0] == '\0' && !GetPathVariable("configref", path)) runtime::CopyTextCut(path, "0");
  return path;
}

/// Adds the setting to the reference file unless it is there.
void AddReference(const char* section, const char* entry) {
  const runtime::CriticalScope hold(&ReferenceLock());
  CConfigFile file;
  char value[kItemIntegerSize];
  file.Open(false, ReferencePath(), true);
  const bool known = file.GetValue(section, entry, value, false) == kConfigOk;
  file.Close(true);
  if (known) return;
  file.Open(true, ReferencePath(), true);
  file.SetValue(section, entry, nullptr, false);
  file.Close(true);
}

}  // namespace

CConfig::CConfig() = default;

CConfig::~CConfig() {
  CConfig::Close(true);
}

// --- opening and closing ----------------------------------------------------------------------

ConfigResult CConfig::Close(bool release) {
  ConfigResult result = kConfigOk;
  for (std::unique_ptr<CConfigItem>& item : items_) {
    if (item != nullptr && item->Close(release) != kConfigOk) result = kConfigFailed;
    if (release) item.reset();
  }
  return result;
}

ConfigResult CConfig::OpenAll(bool writable) {
  Close(true);
  char local[runtime::kTextSize] = {};
  char global[runtime::kTextSize] = {};
  ConfigResult result = FindLocalPath(local);
  if (result == kConfigOk) {
    result = OpenItem(writable, local);
    if (result != kConfigOk) runtime::TraceWrite("Config - Open %s failed", "local");
  }
  if (FindGlobalPath(global) == kConfigOk && runtime::TextOf(global) != runtime::TextOf(local)) {
    result = OpenItem(writable, global);
    if (result != kConfigOk) runtime::TraceWrite("Config - Open %s failed", "global");
  }
  return result;
}

ConfigResult CConfig::OpenDefault(bool writable) {
  char path[runtime::kTextSize];
  const ConfigResult result = FindGlobalPath(path);
  if (result != kConfigOk) {
    runtime::TraceWrite("Config - Failed to find config file");
    return result;
  }
  return OpenItem(writable, path);
}

ConfigResult CConfig::OpenItem(bool writable, const char* path) {
  writable_ = writable;
  const auto free = std::find(std::begin(items_), std::end(items_), nullptr);
  if (free == std::end(items_)) {
    runtime::TraceWrite("Config - No more internal objects");
    return kConfigFailed;
  }
  std::unique_ptr<CConfigItem> item(new (std::nothrow) CConfigFile);
  if (item == nullptr) return kConfigFailed;
  const bool isFirst = free == std::begin(items_);
  const ConfigResult result = runtime::ViewOf(path) == kStaticPath
                                  ? item->LoadText("", 0)
                                  : item->Open(writable && isFirst, path, false);
  if (result == kConfigOk) *free = std::move(item);
  return result;
}

ConfigResult CConfig::FindLocalPath(std::span<char> path) {
  runtime::CopyTextCut(path, {});
  if (GetPathVariable("configlocal", path)) return kConfigOk;
  char directory[runtime::kTextSize];
  if (!GetUserDirectory(directory)) return kConfigNoPath;
  if (!runtime::PathExists(directory)) runtime::CreatePath(directory);
  const bool fits = Join(path, {runtime::TextOf(directory), runtime::Product().configFile});
  return fits ? kConfigOk : kConfigNoPath;
}

ConfigResult CConfig::FindGlobalPath(std::span<char> path) {
  runtime::CopyTextCut(path, {});
  if (staticMode) return Join(path, {kStaticPath}) ? kConfigOk : kConfigNoPath;
  if (GetPathVariable("configglobal", path)) return kConfigOk;
  const std::string_view file = runtime::Product().configFile;
  if (file.empty()) return kConfigNoPath;

  char user[runtime::kTextSize];
  const bool perUser = GetUserDirectory(user) && HoldsLibraries(runtime::TextOf(user));
  const std::string_view directory = perUser ? runtime::TextOf(user) : "/etc/";
  if (Join(path, {directory, file}) && runtime::PathExists(path.data())) return kConfigOk;
  // The directory to fall back on is deliberately empty: the file of the current directory.
  return Join(path, {file}) ? kConfigOk : kConfigNoPath;
}

void CConfig::SetStaticMode(bool on) {
  staticMode = on;
}

// --- reading ----------------------------------------------------------------------------------

ConfigResult CConfig::GetString(const char* section, const char* entry, std::span<char> buffer,
                                bool convert) {
  return GetLayered(section, entry, buffer, convert, raw_);
}

ConfigResult CConfig::GetLayered(const char* section, const char* entry, std::span<char> buffer,
                                 bool convert, bool raw) {
  const ConfigResult result = GetItemString(0, section, entry, buffer, convert, raw);
  if (result == kConfigOk || items_[1] == nullptr) return result;
  return GetItemString(1, section, entry, buffer, convert, raw);
}

/// One attempt: the environment, else the item. A value from the environment is reported as failed.
ConfigResult CConfig::GetItemString(std::size_t item, const char* section, const char* entry,
                                    std::span<char> buffer, bool convert, bool raw) {
  runtime::CopyTextCut(buffer, {});
  if (section == nullptr || entry == nullptr) return kConfigFailed;
  CConfigItem* const held = Item(item);
  ConfigResult result = kConfigFailed;
  if (const char* value = FindOverride(section, entry); value != nullptr) {
    (void)runtime::CopyTextIfFits(buffer,
                                  convert ? std::string_view(value) : runtime::LocalToUtf8(value));
  } else if (held != nullptr) {
    result = raw ? held->GetValue(section, entry, buffer, convert)
                 : ReadResolved(*held, section, entry, buffer, convert);
  }
  RecordReference(section, entry);
  return result;
}

/// The whole value is resolved, and then cut to the buffer.
ConfigResult CConfig::ReadResolved(CConfigItem& item, const char* section, const char* entry,
                                   std::span<char> buffer, bool convert) {
  try {
    std::string value;
    const ConfigResult result = ReadWhole(
        [&](std::span<char> area) { return item.GetValue(section, entry, area, convert); }, value);
    if (result != kConfigOk) return result;
    runtime::CopyTextCut(buffer, IsConditional(value) ? Resolve(value) : value);
    return kConfigOk;
  } catch (const std::exception&) {
    return kConfigFailed;
  }
}

bool ReadConfigText(CConfig& config, const char* section, const char* entry, std::span<char> buffer,
                    bool convert) {
  return config.GetString(section, entry, buffer, convert) == kConfigOk ||
         !runtime::TextOf(buffer).empty();
}

ConfigResult CConfig::GetItemInteger(std::size_t item, const char* section, const char* entry,
                                     std::int32_t& value) {
  char text[kItemIntegerSize];
  const ConfigResult result = GetItemString(item, section, entry, text, false, raw_);
  if (result != kConfigOk && runtime::TextOf(text).empty()) return result;
  using Limits = std::numeric_limits<std::int32_t>;
  value = static_cast<std::int32_t>(std::clamp<std::int64_t>(
      runtime::ParseSigned(runtime::TextOf(text)), Limits::min(), Limits::max()));
  return kConfigOk;
}

/// A number's text; one from the environment counts as read.
ConfigResult CConfig::GetNumber(const char* section, const char* entry, std::span<char> buffer) {
  const ConfigResult result = GetString(section, entry, buffer, false);
  return runtime::TextOf(buffer).empty() ? result : kConfigOk;
}

ConfigResult CConfig::GetUnsigned(const char* section, const char* entry, std::uint64_t& value) {
  char text[kNumberSize];
  const ConfigResult result = GetNumber(section, entry, text);
  if (result == kConfigOk) value = runtime::ParseNumber(runtime::TextOf(text));
  return result;
}

ConfigResult CConfig::GetInteger(const char* section, const char* entry, std::int64_t& value) {
  char text[kNumberSize];
  const ConfigResult result = GetNumber(section, entry, text);
  if (result == kConfigOk) value = ParseInteger(runtime::TextOf(text));
  return result;
}

ConfigResult CConfig::GetBoolean(const char* section, const char* entry, bool& value) {
  std::uint64_t number = 0;
  const ConfigResult result = GetUnsigned(section, entry, number);
  if (result == kConfigOk) value = number != 0;
  return result;
}

ConfigResult CConfig::GetQualified(const char* section, const char* entry, const char* qualifier,
                                   std::span<char> buffer, bool convert) {
  runtime::CopyTextCut(buffer, {});
  char name[runtime::kTextSize];
  if (!Join(name, {runtime::ViewOf(entry), "_", runtime::ViewOf(qualifier)})) return kConfigFailed;
  return GetString(section, name, buffer, convert);
}

bool CConfig::SectionExists(const char* section) {
  return std::any_of(std::begin(items_), std::end(items_), [section](const auto& item) {
    return item != nullptr && item->SectionExists(section);
  });
}

ConfigResult CConfig::EnumEntries(std::span<char> section, std::span<char> entry,
                                  std::size_t& index) {
  runtime::CopyTextCut(section, {});
  runtime::CopyTextCut(entry, {});
  return items_[0] == nullptr ? kConfigFailed : items_[0]->EnumEntries(section, entry, index);
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

ConfigResult CConfig::SetString(const char* section, const char* entry, const char* value,
                                bool convert) {
  return items_[0] == nullptr ? kConfigFailed : items_[0]->SetValue(section, entry, value, convert);
}

ConfigResult CConfig::SetInteger(const char* section, const char* entry, std::int32_t value) {
  char text[kWrittenNumberSize];
  std::snprintf(text, sizeof text, "%d", value);
  return SetString(section, entry, text, false);
}

ConfigResult CConfig::SetUnsigned(const char* section, const char* entry, std::uint32_t value) {
  char text[kWrittenNumberSize];
  std::snprintf(text, sizeof text, "%u", value);
  return SetString(section, entry, text, false);
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
  char application[runtime::kTextSize];
  runtime::GetCallingApplication(application);
  return ResolveConditional(value,
                            {runtime::TextOf(application),
                             [this](std::string_view name) { return IsNamedConditionActive(name); },
                             [this](std::string_view mode) { return IsModeActive(mode); }});
}

bool CConfig::IsNamedConditionActive(std::string_view name) {
  if (activeConditions_ == nullptr) CollectNamedConditions();
  const char* const active = activeConditions_.get();
  if (!conditionsReported_ && active[0] != '\0' && runtime::TraceIsOn()) {
    runtime::TraceWrite("Config - Active named conditions: %s", active);
    conditionsReported_ = true;
  }
  return runtime::FindText(active, name) != std::string_view::npos;
}

void CConfig::CollectNamedConditions() {
  activeConditions_ = std::make_unique<char[]>(runtime::kTextSize);
  const std::span<char> active(activeConditions_.get(), runtime::kTextSize);
  char application[runtime::kTextSize];
  runtime::GetCallingApplication(application);
  // The list that is being made is asked, so a condition may build on those in front of it.
  const ConditionContext context{runtime::TextOf(application),
                                 [active](std::string_view name) {
                                   return runtime::FindText(runtime::TextOf(active), name) !=
                                          std::string_view::npos;
                                 },
                                 [this](std::string_view mode) { return IsModeActive(mode); }};

  std::string value;
  for (unsigned number = 1; number <= kMaximumConditions; ++number) {
    const std::string entry = std::to_string(number);
    const ConfigResult result = ReadWhole(
        [&](std::span<char> area) {
          return GetLayered(kConditionSection, entry.c_str(), area, false, true);
        },
        value);
    if (result != kConfigOk && value.empty()) return;
    const std::size_t close = value.find('}');
    if (!value.starts_with('{') || close == std::string::npos) continue;
    const std::string_view name = std::string_view(value).substr(0, close + 1);
    const std::string_view condition =
        runtime::SkipBlanks(std::string_view(value).substr(close + 1));
    if (!ConditionHolds(condition, context)) continue;
    (void)runtime::CopyTextIfFits(active.subspan(runtime::TextOf(active).size()), name);
  }
}

// --- the reference recorder -------------------------------------------------------------------

/// Notes which settings the program asks for, where an item of the kind that wants it is held.
void CConfig::RecordReference(const char* section, const char* entry) const {
  const bool wanted = std::any_of(std::begin(items_), std::end(items_), [](const auto& item) {
    return item != nullptr && item->GetKind() == kConfigKindRecorded;
  });
  const std::string_view name = entry;
  if (!wanted || runtime::ViewOf(section).empty() || name.empty() ||
      runtime::FindChar(name, '_') != kNoPosition) {
    return;
  }
  AddReference(section, entry);
}

}  // namespace qixx::config
