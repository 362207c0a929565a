#include "config/store.h"

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <utility>

#include "config/conditions.h"
#include "config/environment.h"
#include "config/file.h"
#include "config/spare_references.h"
#include "runtime/files.h"
#include "runtime/product.h"
#include "runtime/trace.h"

namespace qixx::config {
namespace {

constexpr std::string_view kStaticPath = "static";
constexpr std::string_view kConditionSection = "Condition";
/// Far more than the list of the active ones holds. Finding each takes a walk over the file, which
/// endless conditions of a hostile file must not repeat for ever.
constexpr unsigned kMaxConditions = 1000;
/// The list of the active conditions, one name behind the other; a name that does not fit is left
/// out.
constexpr std::size_t kMaxConditionList = 255;
constexpr std::size_t kNoLimit = std::string::npos;

std::atomic<bool> staticMode{false};

/// The product's directory below the home directory, with a '/' at its end.
std::optional<std::string> GetUserDirectory() {
  const std::string_view home = runtime::ViewOf(std::getenv("HOME"));
  const std::string_view prefix = runtime::Product().prefix;
  if (home.empty() || prefix.empty()) return std::nullopt;
  return JoinText({home, home.ends_with('/') ? "." : "/.", prefix, "/"});
}

void MakeUserDirectory() {
  const std::optional<std::string> directory = GetUserDirectory();
  if (directory && !runtime::PathExists(*directory)) runtime::CreatePath(*directory);
}

/// A per-user installation is known by its library directory.
bool HoldsLibraries(std::string_view directory) {
  const std::optional<std::string> path = JoinText({directory, "lib"});
  struct stat info {};
  return path && ::stat(path->c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

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
  const auto open = [&](const std::string& path, const char* which) {
    result = OpenItem(writable, path);
    if (result != ConfigResult::kOk) runtime::TraceWrite("Config - Open %s failed", which);
  };
  const std::optional<ConfigPath> local = LocateLocal();
  if (local) {
    if (local->origin == PathOrigin::kHome) MakeUserDirectory();
    open(local->path, "local");
  }
  const std::optional<ConfigPath> global = LocateGlobal();
  if (global && (!local || global->path != local->path)) open(global->path, "global");
  return result;
}

ConfigResult CConfig::OpenDefault(bool writable) {
  const std::optional<ConfigPath> found = LocateGlobal();
  if (!found) {
    runtime::TraceWrite("Config - Failed to find config file");
    return ConfigResult::kNoPath;
  }
  return OpenItem(writable, found->path);
}

ConfigResult CConfig::OpenItem(bool writable, const std::string& path) {
  const auto free = std::find(std::begin(items_), std::end(items_), nullptr);
  if (free == std::end(items_)) {
    runtime::TraceWrite("Config - No more internal objects");
    return ConfigResult::kFailed;
  }
  auto item = std::make_unique<CConfigFile>();
  const bool isFirst = free == std::begin(items_);
  const ConfigResult result =
      path == kStaticPath ? item->LoadText("") : item->Open(writable && isFirst, path, false);
  if (result == ConfigResult::kOk) *free = std::move(item);
  return result;
}

std::optional<ConfigPath> CConfig::LocateLocal() {
  if (auto path = GetPathVariable("configlocal")) {
    return ConfigPath{*std::move(path), PathOrigin::kEnvironment};
  }
  const std::optional<std::string> directory = GetUserDirectory();
  if (!directory) return std::nullopt;
  auto path = JoinText({*directory, runtime::Product().configFile});
  if (!path) return std::nullopt;
  return ConfigPath{*std::move(path), PathOrigin::kHome};
}

std::optional<ConfigPath> CConfig::LocateGlobal() {
  if (staticMode) return ConfigPath{std::string(kStaticPath), PathOrigin::kBuiltIn};
  if (auto path = GetPathVariable("configglobal")) {
    return ConfigPath{*std::move(path), PathOrigin::kEnvironment};
  }
  const std::string_view file = runtime::Product().configFile;
  if (file.empty()) return std::nullopt;

  const std::optional<std::string> user = GetUserDirectory();
  const bool perUser = user && HoldsLibraries(*user);
  auto path = JoinText({perUser ? std::string_view(*user) : "/etc/", file});
  if (path && runtime::PathExists(*path)) {
    return ConfigPath{*std::move(path),
                      perUser ? PathOrigin::kPerUserInstall : PathOrigin::kSystemDirectory};
  }
  // Intended: trials without installation rely on the file of the current directory.
  return ConfigPath{std::string(file), PathOrigin::kCurrentDirectory};
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
  if (const auto text = FindProductVariable({":", section, ":", entry})) {
    if (!text->empty() && text->size() <= maxLength) {
      value = {std::string(*text), ConfigOrigin::kEnvironment};
    }
  } else if (CConfigItem* const held = Item(item); held != nullptr) {
    const auto [result, stored] = held->GetValue(section, entry);
    if (result == ConfigResult::kOk) {
      // The whole value is resolved, and then cut.
      const std::string_view chosen = !raw && IsConditional(stored) ? Resolve(stored) : stored;
      value = {std::string(chosen.substr(0, maxLength)), ConfigOrigin::kFile};
    }
  }
  RecordReference(section, entry);
  return value;
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

bool CConfig::HasText() const {
  return FirstAnswer([](const CConfigItem& item) { return !item.GetText().value_or("").empty(); });
}

std::optional<std::string_view> CConfig::GetText(std::size_t item) const {
  const CConfigItem* const held = Item(item);
  return held == nullptr ? std::nullopt : held->GetText();
}

CConfigItem* CConfig::Item(std::size_t index) const {
  return index < std::size(items_) ? items_[index].get() : nullptr;
}

// --- conditions -------------------------------------------------------------------------------

std::string_view CConfig::Resolve(std::string_view value) {
  const std::string application = runtime::GetCallingApplication();
  return ResolveConditional(
      value, {application, [this](std::string_view name) { return IsNamedConditionActive(name); }});
}

bool CConfig::IsNamedConditionActive(std::string_view name) {
  if (!activeConditions_) activeConditions_ = CollectNamedConditions();
  if (!conditionsReported_ && !activeConditions_->empty() && runtime::TraceIsOn()) {
    runtime::TraceWrite("Config - Active named conditions: %s", activeConditions_->c_str());
    conditionsReported_ = true;
  }
  return activeConditions_->find(name) != std::string::npos;
}

std::string CConfig::CollectNamedConditions() {
  std::string active;
  const std::string application = runtime::GetCallingApplication();
  // The list that is being made is asked, so a condition may build on those in front of it.
  const auto isActive = [&active](std::string_view name) {
    return active.find(name) != std::string::npos;
  };
  const ConditionContext context{application, isActive};

  for (unsigned number = 1; number <= kMaxConditions; ++number) {
    const auto found = GetLayered(kConditionSection, std::to_string(number), kNoLimit, true);
    if (!found) break;
    const std::string_view text = found->text;
    const std::size_t close = text.find('}');
    if (!text.starts_with('{') || close == std::string_view::npos) continue;
    const std::string_view name = text.substr(0, close + 1);
    if (!ConditionHolds(runtime::SkipBlanks(text.substr(close + 1)), context)) continue;
    if (active.size() + name.size() <= kMaxConditionList) active += name;
  }
  return active;
}

/// Notes which settings the program asks for, where an item of the kind that wants it is held.
void CConfig::RecordReference(std::string_view section, std::string_view entry) const {
  const bool wanted =
      FirstAnswer([](const CConfigItem& item) { return item.GetKind() == ConfigKind::kRecorded; });
  if (wanted) AddReference(section, entry);
}

}  // namespace qixx::config
