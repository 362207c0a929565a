// The configuration under check: its files, and its values as the service would get them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "config/file.h"
#include "config/store.h"
#include "config/tree.h"
#include "runtime/text.h"
#include "watch/check_report.h"

namespace qixx::watch {

/// Longer files are checked up to here.
inline constexpr std::size_t kMaxCheckedLines = 100'000;

/// In any letter case.
struct LessNoCase {
  bool operator()(std::string_view a, std::string_view b) const {
    return runtime::CompareNoCase(a, b) < 0;
  }
};

/// Sections or entries as they stand in a file; the last one of a name counts.
template <typename Line>
struct NamedLines {
  std::vector<Line> all;
  std::map<std::string_view, std::size_t, LessNoCase> last;  ///< index of the one that counts

  /// The one that counts; null when there is none.
  [[nodiscard]] const Line* Find(std::string_view name) const {
    const auto found = last.find(name);
    return found == last.end() ? nullptr : &all[found->second];
  }
};

struct CheckedEntry {
  std::string_view name;
  std::string_view value;
  std::size_t line = 1;
};

struct CheckedSection {
  std::string_view name;
  std::size_t line = 1;
  NamedLines<CheckedEntry> entries;
};

/// One file: its lines with their places, and what is wrong with them whoever reads them. It has no
/// lines, and an empty path, until it is loaded.
class CheckedFile {
 public:
  /// To be called once. Why the file cannot be read; none when it can.
  [[nodiscard]] std::optional<std::string> Load(const std::string& path);

  [[nodiscard]] const std::string& Path() const { return path_; }
  /// The whole text, as the service sees it.
  [[nodiscard]] std::string_view Text() const { return file_.GetText().value_or(""); }
  /// Whether there are more than kMaxCheckedLines.
  [[nodiscard]] bool IsCut() const { return isCut_; }
  [[nodiscard]] const std::vector<CheckedSection>& Sections() const { return sections_.all; }
  [[nodiscard]] Place At(std::size_t line) const { return {path_, line}; }
  /// The section and the entry that count; null when there is none.
  [[nodiscard]] const CheckedSection* Find(std::string_view section) const {
    return sections_.Find(section);
  }
  [[nodiscard]] const CheckedEntry* Find(std::string_view section, std::string_view entry) const;

  /// Lines that are no entries, blanks at "=", names that stand twice, conditions that never hold,
  /// secrets that others can read.
  void CheckLines(Mistakes& mistakes) const;

 private:
  void Parse();
  void Take(const config::TreeLine& next, std::size_t line);
  template <typename Line>
  void TakeNamed(const char* what, Line next, NamedLines<Line>& lines);
  void TakeOdd(std::string_view text, std::size_t line, std::string_view wrong,
               std::string_view meant);
  void CheckEntry(const CheckedEntry& entry, Mistakes& mistakes) const;
  void CheckConditions(std::string_view value, const Report& report) const;
  void CheckTerm(std::string_view term, const Report& report) const;
  [[nodiscard]] bool IsNamedCondition(std::string_view name) const;

  std::string path_;
  config::CConfigFile file_;
  bool looksOld_ = false;
  bool isCut_ = false;
  bool othersRead_ = false;
  NamedLines<CheckedSection> sections_;
  Mistakes odd_;
  Mistakes repeated_;
};

/// What a file is to the service.
enum class CheckedRole : std::uint8_t { kBeside, kUser, kSystem };

/// In the order in which the files are checked.
inline constexpr std::array kCheckedRoles = {CheckedRole::kBeside, CheckedRole::kUser,
                                             CheckedRole::kSystem};

struct CheckedValue {
  std::string text;
  Place place;
  std::string line;  ///< what holds the text: all that stands there, with its conditions
};

class CheckedConfiguration {
 public:
  /// Takes the file of a role, once. Why it cannot be read; none when it can.
  [[nodiscard]] std::optional<std::string> Load(CheckedRole role, const std::string& path);
  /// One that was not loaded has no lines.
  [[nodiscard]] const CheckedFile& File(CheckedRole role) const {
    return files_[static_cast<std::size_t>(role)];
  }
  [[nodiscard]] const CheckedFile& System() const { return File(CheckedRole::kSystem); }

  /// A value of the system's file or of the environment, whole. One that the service cuts, or does
  /// not take from the environment for its length, is a mistake.
  [[nodiscard]] std::optional<CheckedValue> Read(std::string_view section, std::string_view entry,
                                                 std::size_t maxLength, Mistakes& mistakes);
  /// What the store itself answers. Unlike Read it walks over the section for each answer.
  [[nodiscard]] config::CConfig& Store() { return store_; }

 private:
  [[nodiscard]] std::optional<config::ConfigValue> Find(std::string_view section,
                                                        std::string_view entry,
                                                        const CheckedEntry* line);

  std::array<CheckedFile, kCheckedRoles.size()> files_;
  config::CConfig store_;
  bool isSameText_ = false;  ///< the store and the system's file hold the same lines
};

/// The value has more than `maxLength` characters, and the service cuts it.
void CheckLength(const Place& place, std::string_view entry, std::string_view value,
                 std::size_t maxLength, Mistakes& mistakes);

}  // namespace qixx::watch
