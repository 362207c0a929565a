// The configuration store: the one way in which the program reads and writes settings.
//
// Holds up to two open items (the user's file before the system's), lets the environment override
// any value and resolves values that depend on the calling application. An object belongs to one
// thread at a time; the lookup-tree cache beneath is shared and locked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "config/item.h"
#include "config/result.h"
#include "runtime/text.h"

namespace qixx::config {

/// Where a value was found.
enum class ConfigOrigin : std::uint8_t { kFile, kEnvironment };

struct ConfigValue {
  std::string text;
  ConfigOrigin origin = ConfigOrigin::kFile;
};

/// Why a configuration file is looked for where it is.
enum class PathOrigin : std::uint8_t {
  kEnvironment,       ///< a variable names it
  kHome,              ///< the user's, below the home directory
  kPerUserInstall,    ///< the system's, there because the product is installed there
  kSystemDirectory,   ///< "/etc/"
  kCurrentDirectory,  ///< the last resort for the system's
  kBuiltIn,
};

struct ConfigPath {
  std::string path;
  PathOrigin origin = PathOrigin::kSystemDirectory;
};

/// So many characters of a number's text are read.
inline constexpr std::size_t kMaxNumber = 16;

/// The item that was opened first has the first place. It alone can be writable, and is what all
/// changes are made to.
class CConfig {
 public:
  CConfig() = default;
  /// Closes as Close(true) does, but cannot tell that a write failed: call Close after a change.
  virtual ~CConfig();
  CConfig(const CConfig&) = delete;
  CConfig& operator=(const CConfig&) = delete;

  /// Writes a modified writable file back and closes it. With `release` the items are given up too.
  /// kFailed when a changed text could not be written.
  virtual ConfigResult Close(bool release);
  /// Gives up what is open, then opens the user's file and, when it is another, the system's. The
  /// result of the last open.
  virtual ConfigResult OpenAll(bool writable);
  /// Opens the system's file, by OpenItem.
  virtual ConfigResult OpenDefault(bool writable);
  /// Opens one file beside what is open; kFailed when both places are taken. The path "static" is
  /// the built-in (empty) configuration. A missing file opens as an empty item.
  virtual ConfigResult OpenItem(bool writable, const std::string& path);

  /// The layered lookup: the first item that has the entry gives the value, resolved when it is
  /// conditional, then cut to `maxLength`. The environment comes before both items: when it holds
  /// the entry, its value counts as it stands and no item is asked; one that is empty or longer
  /// than `maxLength` is no value. Callers that accept only what a file says look at the origin.
  /// Which named conditions hold is found out once, by the first value that asks for one. It counts
  /// for the life of the object, also for what is opened later.
  virtual std::optional<ConfigValue> GetString(std::string_view section, std::string_view entry,
                                               std::size_t maxLength = runtime::kMaxText);
  /// Decimal, or hexadecimal behind "0x"; what is no number is 0.
  virtual std::optional<std::uint64_t> GetUnsigned(std::string_view section,
                                                   std::string_view entry);
  /// Such a number, compared with 0.
  virtual std::optional<bool> GetBoolean(std::string_view section, std::string_view entry);

  /// True when at least one open item holds a text that is not empty: a configuration that
  /// "loaded".
  [[nodiscard]] bool HasText() const;
  /// The whole text of one item, 0 or 1: a view that holds until that item is changed, opened or
  /// closed. Nothing where no item is open.
  [[nodiscard]] std::optional<std::string_view> GetText(std::size_t item) const;

  /// Where OpenAll finds the user's file, and both it and OpenDefault the system's. OpenAll makes
  /// the user's directory when it is missing; here nothing is made.
  [[nodiscard]] static std::optional<ConfigPath> LocateLocal();
  [[nodiscard]] static std::optional<ConfigPath> LocateGlobal();

  // --- spare ------------------------------------------------------------------------------------

  /// Process-wide, the built-in configuration takes the place of the system's file.
  static void SetStaticMode(bool on);
  /// With the raw flag set, conditional values are returned as stored.
  void SetRaw(bool raw);
  /// Of one item alone; decimal, what is no number is 0.
  virtual std::optional<std::int32_t> GetItemInteger(std::size_t item, std::string_view section,
                                                     std::string_view entry);
  virtual std::optional<std::int64_t> GetInteger(std::string_view section, std::string_view entry);
  /// The entry "%s_%s" made of two names.
  virtual std::optional<ConfigValue> GetQualified(std::string_view section, std::string_view entry,
                                                  std::string_view qualifier,
                                                  std::size_t maxLength = runtime::kMaxText);
  virtual bool SectionExists(std::string_view section);
  /// The entry of this index in the first item or, when that has none, in the second. Each counts
  /// its own from 0, so the second tells only what it has more. `index` grows with every call.
  virtual std::optional<ConfigEntry> EnumEntries(std::size_t& index);
  /// The same within a section.
  virtual std::optional<std::string> EnumSectionEntries(std::string_view section,
                                                        std::size_t& index);
  virtual std::optional<std::vector<std::uint8_t>> GetBlock(std::string_view name);
  // Changes of the first item, as CConfigItem has them; Close brings them to the file.
  virtual ConfigResult SetString(std::string_view section, std::string_view entry,
                                 std::string_view value);
  virtual ConfigResult SetInteger(std::string_view section, std::string_view entry,
                                  std::int32_t value);
  virtual ConfigResult SetUnsigned(std::string_view section, std::string_view entry,
                                   std::uint32_t value);
  virtual ConfigResult Delete(std::string_view section, std::optional<std::string_view> entry);
  virtual ConfigResult SetBlock(std::optional<std::string_view> name,
                                std::span<const std::uint8_t> data);

 private:
  /// Null where no item is open.
  [[nodiscard]] CConfigItem* Item(std::size_t index) const;
  /// The first answer that an open item gives, else none (false).
  template <typename Ask>
  auto FirstAnswer(const Ask& ask) const -> decltype(ask(*Item(0))) {
    for (const std::unique_ptr<CConfigItem>& item : items_) {
      if (item == nullptr) continue;
      if (auto answer = ask(*item)) return answer;
    }
    return {};
  }
  std::optional<ConfigValue> GetLayered(std::string_view section, std::string_view entry,
                                        std::size_t maxLength, bool raw);
  std::optional<ConfigValue> GetItemString(std::size_t item, std::string_view section,
                                           std::string_view entry, std::size_t maxLength, bool raw);
  void RecordReference(std::string_view section, std::string_view entry) const;
  [[nodiscard]] std::string_view Resolve(std::string_view value);
  [[nodiscard]] bool IsNamedConditionActive(std::string_view name);
  [[nodiscard]] std::string CollectNamedConditions();

  std::unique_ptr<CConfigItem> items_[2];
  /// The names of the active conditions, one behind the other; none until the first question.
  std::optional<std::string> activeConditions_;
  bool conditionsReported_ = false;
  bool raw_ = false;
};

}  // namespace qixx::config
