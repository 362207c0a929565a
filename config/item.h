// One source of settings, as the configuration store holds it.
//
// The base is what a kind of item falls back on where it has nothing to offer: every operation
// fails. The order of the virtual operations is part of the design; new ones go to the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "config/result.h"
#include "runtime/text.h"

namespace qixx::config {

/// What GetKind answers for a text file.
inline constexpr std::uint32_t kConfigKindFile = 1;
/// Items of this kind have the settings that are read from them recorded.
inline constexpr std::uint32_t kConfigKindRecorded = 2;

/// The names of one entry.
struct ConfigEntry {
  std::string section;
  std::string entry;
};

/// An item belongs to one thread at a time. Texts are handed in zero-terminated; areas for texts
/// always end up zero-terminated and are empty after a failure.
class CConfigItem {
 public:
  virtual ~CConfigItem() = default;
  CConfigItem(const CConfigItem&) = delete;
  CConfigItem& operator=(const CConfigItem&) = delete;

  /// Takes a copy of the bytes as the text; at most kMaximumLoadedText of them.
  virtual ConfigResult LoadText(const char* data, std::size_t length);
  /// A file that cannot be opened gives an empty text, not a failure. `quiet` leaves out the trace
  /// line that announces the open.
  virtual ConfigResult Open(bool writable, const char* path, bool quiet);
  /// Writes a changed text back. With `release` the text is given up too. kConfigFailed when the
  /// text could not be written.
  virtual ConfigResult Close(bool release);
  [[nodiscard]] virtual std::uint32_t GetKind() const;
  /// The path given to Open, empty when it was too long to be kept.
  [[nodiscard]] virtual const char* GetPath() const;
  /// True when the file's name begins with the product prefix.
  [[nodiscard]] virtual bool IsProductFile() const;

  /// The index-th entry of the whole item. `index` grows with every call, also past the end.
  virtual ConfigResult EnumEntries(std::span<char> section, std::span<char> entry,
                                   std::size_t& index);
  virtual ConfigResult EnumSectionEntries(const char* section, std::span<char> entry,
                                          std::size_t& index);
  virtual ConfigResult EnumBlocks(std::span<char> name, std::size_t& index);

  /// The whole text with a terminator. `size` is the size of the buffer and receives the length of
  /// the text; without a buffer nothing is copied. Fails when the text does not fit.
  virtual ConfigResult GetText(char* buffer, std::size_t& size) const;
  /// A value that is too long for the buffer is cut. A null entry asks for the section alone.
  virtual ConfigResult GetValue(const char* section, const char* entry, std::span<char> buffer,
                                bool convert);
  /// The data of a block in a new array that the caller frees with delete[].
  virtual ConfigResult GetBlock(const char* name, std::uint8_t*& data, std::size_t& length);

  /// A null value is written as an empty one. Refuses an entry whose line would not be read as one:
  /// its name is empty or begins with a blank, a line end, '[', '<', ';' or '#'.
  virtual ConfigResult SetValue(const char* section, const char* entry, const char* value,
                                bool convert);
  /// Replaces the block of that name. With a null name the data replace the whole text. Refuses a
  /// block that could not be read again, as where one in front of it is never closed.
  virtual ConfigResult SetBlock(const char* name, std::span<const std::uint8_t> data);
  /// Adds an entry without looking for one that is there already. Refuses what SetValue refuses.
  virtual ConfigResult AddValue(const char* section, const char* entry, const char* value);
  /// A null entry stands for the whole section. Succeeds, and counts as a change, also when there
  /// was nothing to delete.
  virtual ConfigResult Delete(const char* section, const char* entry);
  virtual ConfigResult DeleteBlock(const char* name);
  [[nodiscard]] virtual bool SectionExists(const char* section);
  /// Rewrites the text with its sections in the order of their names.
  virtual void Sort();
  /// Gives sections of older product versions their present names: always with `force`, else only
  /// in a text that looks old.
  virtual void Migrate(bool force);

 protected:
  CConfigItem() = default;

  char path_[runtime::kTextSize] = {};
};

}  // namespace qixx::config
