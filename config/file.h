// A configuration item that is one text file.
//
// The whole file is one text in memory; every query reads that text and every change edits it. A
// writable file stays open and is written back in one piece when it is closed; a read-only one is
// closed as soon as it is read and answers from a lookup tree while it is unchanged.
//
// A file that is missing, unreadable, no regular file or larger than 64 MiB opens as an empty text.
// Unless it was missing it then is not open, so that a close can never write over it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "config/item.h"
#include "config/scan.h"
#include "config/tree.h"

namespace qixx::config {

/// The longest text that LoadText takes.
inline constexpr std::size_t kMaximumLoadedText = 1048576;
/// The largest file that is opened; no change makes a text longer.
inline constexpr std::size_t kMaximumConfigSize = 64U << 20;

/// A value that is asked for in a text is kConfigNoSection or kConfigNoEntry when it is missing, in
/// a lookup tree kConfigFailed. Without a text every operation gives kConfigFailed.
class CConfigFile : public CConfigItem {
 public:
  CConfigFile() = default;
  /// Closes, so a changed text is written back.
  ~CConfigFile() override;

  ConfigResult LoadText(const char* data, std::size_t length) override;
  ConfigResult Open(bool writable, const char* path, bool quiet) override;
  ConfigResult Close(bool release) override;
  [[nodiscard]] std::uint32_t GetKind() const override;
  [[nodiscard]] bool IsProductFile() const override;
  ConfigResult EnumEntries(std::span<char> section, std::span<char> entry,
                           std::size_t& index) override;
  ConfigResult EnumSectionEntries(const char* section, std::span<char> entry,
                                  std::size_t& index) override;
  ConfigResult EnumBlocks(std::span<char> name, std::size_t& index) override;
  ConfigResult GetText(char* buffer, std::size_t& size) const override;
  ConfigResult GetValue(const char* section, const char* entry, std::span<char> buffer,
                        bool convert) override;
  ConfigResult GetBlock(const char* name, std::uint8_t*& data, std::size_t& length) override;
  ConfigResult SetValue(const char* section, const char* entry, const char* value,
                        bool convert) override;
  ConfigResult SetBlock(const char* name, std::span<const std::uint8_t> data) override;
  ConfigResult AddValue(const char* section, const char* entry, const char* value) override;
  ConfigResult Delete(const char* section, const char* entry) override;
  ConfigResult DeleteBlock(const char* name) override;
  [[nodiscard]] bool SectionExists(const char* section) override;
  void Sort() override;
  void Migrate(bool force) override;

  /// True while the file itself is open: from a writable open to the close.
  [[nodiscard]] virtual bool IsOpen() const;
  /// Cleans a text that was just loaded and migrates it when it looks old.
  virtual ConfigResult Normalise();
  virtual void StripComments();
  /// By the lookup tree when there is one, else by a scan of the text.
  virtual ConfigResult FindValue(const char* section, const char* entry, std::span<char> buffer);
  /// The first section of the name and its first entry count. The next ReadLine goes on behind the
  /// entry that was found, else where it would be put.
  virtual ConfigResult FindValueInText(const char* section, const char* entry,
                                       std::span<char> buffer);
  /// The last section of the name and its last entry count.
  virtual ConfigResult FindValueInTree(const char* section, const char* entry,
                                       std::span<char> buffer);
  /// Also merges a section that has the new name already; its values win.
  virtual ConfigResult RenameSection(const char* oldName, const char* newName);
  /// The next line, without blanks in front and cut to the buffer. Returns its length, 0 at the
  /// end.
  virtual std::size_t ReadLine(std::span<char> buffer);
  /// Raises the capacity by one growth step, by more when `bytes` do not fit then.
  virtual ConfigResult Grow(std::size_t bytes);
  /// The transformation of encoded files (".edb"), which this version does not have: false for
  /// them, so that they load as an empty text and are never written. True for all other files.
  virtual bool Transcode(bool encode);

 private:
  /// What a growth is for, as the trace says it.
  enum class Change { kAdd, kSet, kRename };

  /// Where a walk over the entries of one section stands.
  struct SectionCursor {
    std::string section;
    std::size_t next = 0;
    std::size_t position = 0;
  };

  bool OpenFile(const char* path);
  bool ReadText();
  bool WriteText();
  bool CloseFile();
  void ForgetCursors();
  void DetachTree();
  void Touch();
  ConfigResult LookUp(const char* section, const char* entry, std::string_view& value);
  ConfigResult LookUpInText(const char* section, const char* entry, std::string_view& value);
  ConfigResult LookUpInTree(const char* section, const char* entry, std::string_view& value) const;
  [[nodiscard]] bool FitsLimit(std::size_t bytes) const;
  ConfigResult MakeRoom(std::size_t bytes, Change change);
  ConfigResult Splice(TextRange range, std::string_view replacement, Change change);
  ConfigResult Adopt(std::string_view text, Change change);
  void RenameProfiles();

  std::string text_;
  std::size_t capacity_ = 0;  ///< never below the length; a change that would exceed it grows it
  std::size_t position_ = 0;  ///< of the line reader
  int descriptor_ = -1;
  bool hasText_ = false;
  bool writable_ = false;
  bool modified_ = false;
  bool encoded_ = false;
  std::time_t fileTime_ = 0;  ///< modification time when the file was opened, 0 for none
  const LookupTree* tree_ = nullptr;

  // Enumerations ask for one index after the other; these make such a walk linear.
  std::optional<EntryReader> entryCursor_;
  std::size_t nextEntry_ = 0;
  SectionCursor sectionCursor_;
  std::size_t nextBlock_ = 0;
  std::size_t blockPosition_ = 0;
};

}  // namespace qixx::config
