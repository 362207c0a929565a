// One configuration file under check: its lines with their places, and what is wrong with them
// whoever reads them.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "config/file.h"
#include "config/tree.h"
#include "watch/check_report.h"

namespace qixx::watch {

/// Longer files are checked up to here.
inline constexpr std::size_t kMaxCheckedLines = 100'000;

/// In any letter case.
struct LessNoCase {
  bool operator()(std::string_view a, std::string_view b) const;
};
/// Where the last one of each name stands.
using LastOfName = std::map<std::string_view, std::size_t, LessNoCase>;

struct CheckedEntry {
  std::string_view name;
  std::string_view value;
  std::size_t line = 1;
};

struct CheckedSection {
  std::string_view name;
  std::size_t line = 1;
  std::vector<CheckedEntry> entries;
  LastOfName lastEntries;
};

class CheckedFile {
 public:
  /// Why the file cannot be read; empty when it can.
  [[nodiscard]] std::string Load(const std::string& path);

  [[nodiscard]] const std::string& Path() const { return path_; }
  /// The whole text, as the service sees it.
  [[nodiscard]] std::string_view Text() const { return file_.GetText().value_or(""); }
  /// Whether there are more than kMaxCheckedLines.
  [[nodiscard]] bool IsCut() const { return isCut_; }
  [[nodiscard]] const std::vector<CheckedSection>& Sections() const { return sections_; }
  [[nodiscard]] Place At(std::size_t line) const { return {path_, line}; }
  /// The section and the entry that count, that is the last of its name; null when there is none.
  [[nodiscard]] const CheckedSection* Find(std::string_view section) const;
  [[nodiscard]] const CheckedEntry* Find(std::string_view section, std::string_view entry) const;

  /// Lines that are no entries, blanks at "=", names that stand twice, conditions that never hold,
  /// secrets that others can read.
  void CheckLines(Mistakes& mistakes) const;

 private:
  void Parse();
  void Take(const config::TreeLine& next, std::size_t line);
  void TakeSection(std::string_view name, std::size_t line);
  void TakeEntry(const CheckedEntry& entry);
  void TakeOdd(std::string_view text, std::size_t line, const char* wrong, const char* meant);
  void CheckLayout(Mistakes& mistakes) const;
  void CheckRepeated(Mistakes& mistakes) const;
  void CheckEntry(const CheckedEntry& entry, Mistakes& mistakes) const;
  void CheckConditions(const CheckedEntry& entry, Mistakes& mistakes) const;
  void CheckTerm(const Place& place, std::string_view term, Mistakes& mistakes) const;
  [[nodiscard]] bool IsNamedCondition(std::string_view name) const;

  struct Repeat {
    const char* what;
    std::string_view name;
    std::size_t line;
    std::size_t laterLine;
  };
  struct OddLine {
    std::string_view text;
    std::size_t line;
    const char* wrong;
    const char* meant;
  };

  std::string path_;
  config::CConfigFile file_;
  bool looksOld_ = false;
  bool isCut_ = false;
  bool othersRead_ = false;
  std::vector<CheckedSection> sections_;
  LastOfName lastSections_;
  const CheckedSection* conditions_ = nullptr;
  std::vector<Repeat> repeats_;
  std::vector<OddLine> oddLines_;
};

}  // namespace qixx::watch
