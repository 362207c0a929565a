// The configuration store: the one way in which the program reads and writes settings.
//
// Holds up to two open items (the user's file before the system's), lets the environment override
// any value and resolves values that depend on the calling application. An object belongs to one
// thread at a time; the lookup-tree cache beneath is shared and locked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "config/item.h"
#include "config/result.h"

namespace qixx::config {

class CConfig {
 public:
  CConfig();
  virtual ~CConfig();
  CConfig(const CConfig&) = delete;
  CConfig& operator=(const CConfig&) = delete;

  /// Writes a modified writable file back and closes it. With `release` the items are given up too.
  /// kConfigFailed when a changed text could not be written.
  virtual ConfigResult Close(bool release);
  /// The user's file and, when it is another, the system's. The result of the last open.
  virtual ConfigResult OpenAll(bool writable);
  /// The system's file alone.
  virtual ConfigResult OpenDefault(bool writable);
  /// One file into the next free place; the path "static" is the built-in (empty) configuration.
  /// A missing file opens as an empty item.
  virtual ConfigResult OpenItem(bool writable, const char* path);

  /// The layered lookup. `buffer` is emptied first, so a miss leaves an empty text. A value from
  /// the environment is reported with result 6 while the buffer holds it, deliberately: callers
  /// look at the buffer, best through ReadConfigText below.
  virtual ConfigResult GetString(const char* section, const char* entry, std::span<char> buffer,
                                 bool convert);
  /// Sets a value in the first item; Close brings it to the file.
  virtual ConfigResult SetString(const char* section, const char* entry, const char* value,
                                 bool convert);

  // Typed forms. A failed get returns its result and leaves the output untouched.
  virtual ConfigResult GetItemInteger(std::size_t item, const char* section, const char* entry,
                                      std::int32_t& value);
  virtual ConfigResult GetUnsigned(const char* section, const char* entry, std::uint64_t& value);
  virtual ConfigResult GetInteger(const char* section, const char* entry, std::int64_t& value);
  virtual ConfigResult GetBoolean(const char* section, const char* entry, bool& value);
  virtual ConfigResult SetInteger(const char* section, const char* entry, std::int32_t value);
  virtual ConfigResult SetUnsigned(const char* section, const char* entry, std::uint32_t value);
  /// The entry "%s_%s" made of two names.
  virtual ConfigResult GetQualified(const char* section, const char* entry, const char* qualifier,
                                    std::span<char> buffer, bool convert);

  virtual ConfigResult Delete(const char* section, const char* entry);
  virtual bool SectionExists(const char* section);
  /// The index-th entry of the first item; `index` grows with every call.
  virtual ConfigResult EnumEntries(std::span<char> section, std::span<char> entry,
                                   std::size_t& index);
  virtual ConfigResult EnumSectionEntries(const char* section, std::span<char> entry,
                                          std::size_t& index);
  virtual ConfigResult GetBlock(const char* name, std::uint8_t*& data, std::size_t& length);
  virtual ConfigResult SetBlock(const char* name, std::span<const std::uint8_t> data);

  /// With the raw flag set, conditional values are returned as stored.
  void SetRaw(bool raw);
  /// True when at least one open item holds a text that is not empty: a configuration that
  /// "loaded".
  [[nodiscard]] bool HasText() const;
  /// The held item (0 or 1), or null.
  [[nodiscard]] CConfigItem* Item(std::size_t index) const;

  /// The paths that OpenAll and OpenDefault use: kConfigOk with a path, kConfigNoPath without. The
  /// user's directory is made when it is missing.
  static ConfigResult FindLocalPath(std::span<char> path);
  static ConfigResult FindGlobalPath(std::span<char> path);
  /// Process-wide: the built-in configuration takes the place of the system's file.
  static void SetStaticMode(bool on);

 protected:
  /// Whether a "mode:" condition holds. A store that knows modes answers itself.
  [[nodiscard]] virtual bool IsModeActive(std::string_view mode) const;

 private:
  ConfigResult GetLayered(const char* section, const char* entry, std::span<char> buffer,
                          bool convert, bool raw);
  ConfigResult GetItemString(std::size_t item, const char* section, const char* entry,
                             std::span<char> buffer, bool convert, bool raw);
  ConfigResult ReadResolved(CConfigItem& item, const char* section, const char* entry,
                            std::span<char> buffer, bool convert);
  ConfigResult GetNumber(const char* section, const char* entry, std::span<char> buffer);
  void RecordReference(const char* section, const char* entry) const;
  [[nodiscard]] std::string_view Resolve(std::string_view value);
  [[nodiscard]] bool IsNamedConditionActive(std::string_view name);
  void CollectNamedConditions();

  std::unique_ptr<CConfigItem> items_[2];
  bool writable_ = false;  ///< of the last open request
  /// The active named conditions, one behind the other; null until the first question.
  std::unique_ptr<char[]> activeConditions_;
  bool conditionsReported_ = false;
  bool raw_ = false;
};

/// The store of the language string tables.
class CConfigLang : public CConfig {};

/// GetString for callers that honour overrides: true when the result is 0 or the buffer holds text.
[[nodiscard]] bool ReadConfigText(CConfig& config, const char* section, const char* entry,
                                  std::span<char> buffer, bool convert);

}  // namespace qixx::config
