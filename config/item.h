// One source of settings, as the configuration store holds it.
//
// The base is what a kind of item falls back on where it has nothing to offer: every operation
// fails. The order of the virtual operations is part of the design; new ones go to the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "config/result.h"

namespace qixx::config {

/// What GetKind answers.
enum class ConfigKind : std::uint32_t {
  kFile = 1,
  kRecorded = 2,  ///< the settings that are read from such an item are recorded
  kNone = 6,
};

/// The names of one entry.
struct ConfigEntry {
  std::string section;
  std::string entry;
};

/// What a lookup found. The value is a view into the item: it holds until the item is changed,
/// opened or closed.
struct FoundValue {
  ConfigResult result = ConfigResult::kFailed;
  std::string_view value;
};

/// An item belongs to one thread at a time. Of all exceptions only std::bad_alloc leaves an
/// operation, and then the text is as it was.
class CConfigItem {
 public:
  virtual ~CConfigItem() = default;
  CConfigItem(const CConfigItem&) = delete;
  CConfigItem& operator=(const CConfigItem&) = delete;

  /// Takes a copy of the bytes as the text; at most kMaxLoadedText of them. A view without any data
  /// is refused; an empty text is a text.
  virtual ConfigResult LoadText(std::string_view /*data*/) { return ConfigResult::kFailed; }
  /// A file that cannot be opened gives an empty text, not a failure. `quiet` leaves out the trace
  /// line that announces the open.
  virtual ConfigResult Open(bool /*writable*/, const std::string& /*path*/, bool /*quiet*/) {
    return ConfigResult::kFailed;
  }
  /// Writes a changed text back. With `release` the text is given up too. kFailed when the text
  /// could not be written. Never throws.
  virtual ConfigResult Close(bool /*release*/) { return ConfigResult::kFailed; }
  [[nodiscard]] virtual ConfigKind GetKind() const { return ConfigKind::kNone; }
  /// The path given to Open, empty when it was too long to be kept.
  [[nodiscard]] virtual const std::string& GetPath() const { return path_; }
  /// True when the file's name begins with the product prefix.
  [[nodiscard]] virtual bool IsProductFile() const { return false; }

  /// The index-th entry of the whole item, each name cut at 255 characters. `index` grows with
  /// every call, also past the end.
  virtual std::optional<ConfigEntry> EnumEntries(std::size_t& /*index*/) { return std::nullopt; }
  virtual std::optional<std::string> EnumSectionEntries(std::string_view /*section*/,
                                                        std::size_t& /*index*/) {
    return std::nullopt;
  }
  virtual std::optional<std::string> EnumBlocks(std::size_t& /*index*/) { return std::nullopt; }

  /// The whole text, a view that holds as long as that of a value.
  [[nodiscard]] virtual std::optional<std::string_view> GetText() const { return std::nullopt; }
  /// Without an entry the section alone is asked for.
  virtual FoundValue GetValue(std::string_view /*section*/,
                              std::optional<std::string_view> /*entry*/) {
    return {};
  }
  virtual std::optional<std::vector<std::uint8_t>> GetBlock(std::string_view /*name*/) {
    return std::nullopt;
  }

  /// Refuses an entry whose line would not be read as one: its name is empty or begins with a
  /// blank, a line end, '[', '<', ';' or '#'.
  virtual ConfigResult SetValue(std::string_view /*section*/, std::string_view /*entry*/,
                                std::string_view /*value*/) {
    return ConfigResult::kFailed;
  }
  /// Replaces the block of that name. Without a name the data replace the whole text. Refuses a
  /// block that could not be read again, as where one in front of it is never closed.
  virtual ConfigResult SetBlock(std::optional<std::string_view> /*name*/,
                                std::span<const std::uint8_t> /*data*/) {
    return ConfigResult::kFailed;
  }
  /// Adds an entry without looking for one that is there already. Refuses what SetValue refuses.
  virtual ConfigResult AddValue(std::string_view /*section*/, std::string_view /*entry*/,
                                std::string_view /*value*/) {
    return ConfigResult::kFailed;
  }
  /// Without an entry the whole section goes. Succeeds, and counts as a change, also when there was
  /// nothing to delete.
  virtual ConfigResult Delete(std::string_view /*section*/,
                              std::optional<std::string_view> /*entry*/) {
    return ConfigResult::kFailed;
  }
  virtual ConfigResult DeleteBlock(std::string_view /*name*/) { return ConfigResult::kFailed; }
  [[nodiscard]] virtual bool SectionExists(std::string_view /*section*/) { return false; }
  /// Rewrites the text with its sections in the order of their names.
  virtual void Sort() {}
  /// Gives sections of older product versions their present names: always with `force`, else only
  /// in a text that looks old.
  virtual void Migrate(bool /*force*/) {}

 protected:
  CConfigItem() = default;

  std::string path_;
};

}  // namespace qixx::config
