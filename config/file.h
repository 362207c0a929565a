// A configuration item that is one text file.
//
// The whole file is one text in memory; every query reads that text and every change edits it. A
// writable file stays open and is replaced by the changed text when it is closed; a read-only one
// is closed as soon as it is read and answers from a lookup tree while it is unchanged.
//
// Links are followed as runtime/file_place.h says. A file that has a second name is not changed.
// A file that is missing, unreadable, no regular file or larger than 64 MiB opens as an empty text.
// Unless it was missing it then is not open, so that a close can never write over it.
#pragma once

#include <cstddef>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "config/item.h"
#include "config/scan.h"
#include "config/tree.h"
#include "runtime/descriptor.h"
#include "runtime/file_place.h"
#include "runtime/files.h"

namespace qixx::config {

/// The longest text that LoadText takes.
inline constexpr std::size_t kMaxLoadedText = 1048576;
/// The largest file that is opened; no change makes a text longer.
inline constexpr std::size_t kMaxConfigSize = runtime::kMaxFileSize;

/// A missing value gives kNoSection or kNoEntry where the text is scanned, kFailed where a lookup
/// tree answers. Without a text every operation gives kFailed. What spare_file.cpp defines is
/// spare.
class CConfigFile : public CConfigItem {
 public:
  CConfigFile() = default;
  /// Closes, so a changed text is written back.
  ~CConfigFile() override;

  ConfigResult LoadText(std::string_view data) override;
  ConfigResult Open(bool writable, const std::string& path, bool quiet) override;
  ConfigResult Close(bool release) override;
  [[nodiscard]] ConfigKind GetKind() const override { return ConfigKind::kFile; }
  [[nodiscard]] bool IsProductFile() const override;
  std::optional<ConfigEntry> EnumEntries(std::size_t& index) override;
  std::optional<std::string> EnumSectionEntries(std::string_view section,
                                                std::size_t& index) override;
  std::optional<std::string> EnumBlocks(std::size_t& index) override;
  [[nodiscard]] std::optional<std::string_view> GetText() const override;
  FoundValue GetValue(std::string_view section, std::optional<std::string_view> entry) override;
  std::optional<std::vector<std::uint8_t>> GetBlock(std::string_view name) override;
  ConfigResult SetValue(std::string_view section, std::string_view entry,
                        std::string_view value) override;
  ConfigResult SetBlock(std::optional<std::string_view> name,
                        std::span<const std::uint8_t> data) override;
  ConfigResult AddValue(std::string_view section, std::string_view entry,
                        std::string_view value) override;
  ConfigResult Delete(std::string_view section, std::optional<std::string_view> entry) override;
  ConfigResult DeleteBlock(std::string_view name) override;
  [[nodiscard]] bool SectionExists(std::string_view section) override;
  void Sort() override;
  void Migrate(bool force) override;

  /// True while the file itself is open: from a writable open to the close.
  [[nodiscard]] virtual bool IsOpen() const { return file_.IsOpen(); }
  /// As a writable Open, but of a text that the caller has read from that file. Nothing is written
  /// by the close; see ChangedText. kFailed for a text that may not be changed.
  ConfigResult OpenText(const std::string& path, std::string text);
  /// What a close would write; nothing when there was no change since the last such question.
  std::optional<std::string> ChangedText();

  /// Cleans a text that was just loaded and migrates it when it looks old.
  virtual ConfigResult Normalise();
  virtual void StripComments();
  /// By the lookup tree when there is one, else by a scan of the text.
  virtual FoundValue FindValue(std::string_view section, std::optional<std::string_view> entry);
  /// The first section of the name and its first entry count. The next ReadLine goes on behind the
  /// entry that was found, else where it would be put.
  virtual FoundValue FindValueInText(std::string_view section,
                                     std::optional<std::string_view> entry);
  /// The last section of the name and its last entry count.
  virtual FoundValue FindValueInTree(std::string_view section,
                                     std::optional<std::string_view> entry);
  /// Also merges a section that has the new name already; its values win.
  virtual ConfigResult RenameSection(std::string_view oldName, std::string_view newName);
  /// The next line without blanks in front, cut at kMaxConfigLine; nothing at the end.
  virtual std::optional<std::string_view> ReadLine();
  /// Raises the capacity by one growth step, by more when `bytes` do not fit then.
  virtual ConfigResult Grow(std::size_t bytes);
  /// The transformation of encoded files (".edb"), which this version does not have: false for
  /// them, so that they load as an empty text and are never written. True for all other files.
  virtual bool Transcode(bool encode);

 private:
  /// Where a walk over the entries of one section, or over the blocks, stands.
  struct Cursor {
    std::string section;
    std::size_t next = 0;
    std::size_t position = 0;
  };

  void Begin(bool writable, const std::string& path, bool quiet);
  void GiveUp();
  bool OpenFile(bool writable, const std::string& path);
  bool TakeText(std::optional<std::string> content);
  bool WriteText();
  void ForgetCursors();
  void Touch();
  [[nodiscard]] bool FitsLimit(std::size_t bytes) const {
    return bytes <= kMaxConfigSize - text_.size();
  }
  // `change` is what the text grows for, as the trace says it; null says nothing.
  ConfigResult MakeRoom(std::size_t bytes, const char* change);
  ConfigResult PutEntry(TextRange place, std::string_view head, std::string_view entry,
                        std::string_view value, const char* change);
  ConfigResult Adopt(std::string text, const char* change = nullptr);
  void RenameProfiles();

  std::string text_;
  std::size_t capacity_ = 0;  ///< never below the length; a change that would exceed it grows it
  std::size_t position_ = 0;  ///< of the line reader
  std::string shownPath_;     ///< for the trace, which a write may need without memory
  runtime::FilePlace place_;
  runtime::Descriptor file_;
  bool hasText_ = false;
  bool writable_ = false;  ///< a change is written back
  bool modified_ = false;
  bool encoded_ = false;
  std::time_t fileTime_ = 0;  ///< modification time when the file was opened, 0 for none
  std::shared_ptr<const LookupTree> tree_;

  // Enumerations ask for one index after the other; these make such a walk linear.
  std::optional<EntryReader> entryCursor_;
  std::size_t nextEntry_ = 0;
  Cursor sectionCursor_;
  Cursor blockCursor_;
};

}  // namespace qixx::config
