#include "watch/check_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <span>

#include "config/conditions.h"
#include "config/format.h"
#include "config/migration.h"
#include "config/scan.h"
#include "config/tree.h"
#include "runtime/files.h"
#include "runtime/notice.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "watch/configuration.h"

namespace qixx::watch {
namespace {

constexpr std::string_view kConditionSection = "Condition";
/// More conditions, and more alternatives of one value, are not looked at.
constexpr std::size_t kMaxConditions = 1000;

/// What takes a secret without being the option of a command.
bool IsSecretName(std::string_view name) {
  const auto names = {"pin", "sopin", "puk", "pwd", "password", "secret"};
  return std::ranges::any_of(
      names, [name](std::string_view secret) { return runtime::EqualsNoCase(name, secret); });
}

bool HoldsSecret(const CheckedEntry& entry) {
  return (IsSecretName(entry.name) && !entry.value.empty()) ||
         runtime::MaskSecrets(entry.value) != entry.value;
}

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

}  // namespace

bool LessNoCase::operator()(std::string_view a, std::string_view b) const {
  return runtime::CompareNoCase(a, b) < 0;
}

// --- reading ------------------------------------------------------------------------------------

std::string CheckedFile::Load(const std::string& path) {
  path_ = path;
  if (path.size() > runtime::kMaxText) return "its path has more than 255 characters";
  if (std::string reason = WhyUnreadable(path); !reason.empty()) return reason;
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::string(runtime::ErrorText(errno));
  othersRead_ = (status.st_mode & (S_IRGRP | S_IROTH)) != 0;
  std::optional<std::string> raw = runtime::ReadWholeFile(path);
  if (!raw) return "reading it fails";
  config::NormaliseLoaded(*raw);
  looksOld_ = config::LooksOld(*raw);
  if (file_.Open(false, path, true) != config::ConfigResult::kOk) return "reading it fails";
  if (!raw->empty() && file_.GetText().value_or("").empty()) return "its text cannot be read";
  Parse();
  return {};
}

void CheckedFile::Parse() {
  const std::string_view text = Text();
  std::size_t line = 1;
  std::size_t counted = 0;
  std::size_t read = 0;
  config::TreeReader lines(text);
  while (const std::optional<config::TreeLine> next = lines.Next()) {
    line += static_cast<std::size_t>(
        std::ranges::count(text.substr(counted, next->begin - counted), '\n'));
    counted = next->begin;
    isCut_ = ++read > kMaxCheckedLines;
    if (isCut_) break;
    Take(*next, line);
  }
  conditions_ = Find(kConditionSection);
}

void CheckedFile::Take(const config::TreeLine& next, std::size_t line) {
  const std::string_view text = next.text;
  switch (next.kind) {
    case config::TreeLineKind::kSection:
      return TakeSection(config::HeaderName(text), line);
    case config::TreeLineKind::kEntry:
      return TakeEntry({config::EntryName(text), config::EntryValue(text), line});
    case config::TreeLineKind::kNameless:
      return oddLines_.push_back({text, line, "is no section", "[NAME] is meant"});
    case config::TreeLineKind::kIndented:
      return TakeOdd(runtime::SkipBlanks(text), line, "begins with a blank and is not read",
                     "it has to begin at the start of the line");
    case config::TreeLineKind::kPlain:
      return TakeOdd(text, line, "is no entry", "NAME=VALUE is meant, or a comment behind ';'");
    case config::TreeLineKind::kOutside:
      return TakeOdd(text, line, "stands in front of the first section and is not read",
                     "it belongs behind a line [NAME]");
  }
}

void CheckedFile::TakeSection(std::string_view name, std::size_t line) {
  const auto [last, isFirst] = lastSections_.emplace(name, sections_.size());
  if (!isFirst) {
    repeats_.push_back({"section ", name, sections_[last->second].line, line});
    last->second = sections_.size();
  }
  sections_.push_back({name, line, {}, {}});
}

void CheckedFile::TakeEntry(const CheckedEntry& entry) {
  CheckedSection& section = sections_.back();
  const auto [last, isFirst] = section.lastEntries.emplace(entry.name, section.entries.size());
  if (!isFirst) {
    const std::size_t earlier = section.entries[last->second].line;
    repeats_.push_back({"entry ", entry.name, earlier, entry.line});
    last->second = section.entries.size();
  }
  section.entries.push_back(entry);
}

/// A line that the service passes over, where it is not meant to.
void CheckedFile::TakeOdd(std::string_view text, std::size_t line, const char* wrong,
                          const char* meant) {
  if (text.empty() || config::IsComment(text) || text.starts_with("//")) return;
  oddLines_.push_back({config::EntryName(text), line, wrong, meant});
}

const CheckedSection* CheckedFile::Find(std::string_view section) const {
  const auto last = lastSections_.find(section);
  return last == lastSections_.end() ? nullptr : &sections_[last->second];
}

const CheckedEntry* CheckedFile::Find(std::string_view section, std::string_view entry) const {
  const CheckedSection* const held = Find(section);
  if (held == nullptr) return nullptr;
  const auto last = held->lastEntries.find(entry);
  return last == held->lastEntries.end() ? nullptr : &held->entries[last->second];
}

// --- mistakes -----------------------------------------------------------------------------------

void CheckedFile::CheckLines(Mistakes& mistakes) const {
  CheckLayout(mistakes);
  CheckRepeated(mistakes);
  for (const CheckedSection& section : sections_) {
    for (const CheckedEntry& entry : section.entries) CheckEntry(entry, mistakes);
  }
}

void CheckedFile::CheckLayout(Mistakes& mistakes) const {
  if (looksOld_) {
    mistakes.Add(
        At(1), "it has section names of an older version, which change on each load",
        "give the sections their present names: the lines below are those after the change");
  }
  if (isCut_) {
    mistakes.Add(At(1), "it has more lines than are checked",
                 "the first " + std::to_string(kMaxCheckedLines) + " were");
  }
  for (const OddLine& odd : oddLines_) {
    mistakes.Add(At(odd.line), Quoted(odd.text) + " " + odd.wrong, odd.meant);
  }
}

void CheckedFile::CheckRepeated(Mistakes& mistakes) const {
  for (const Repeat& repeat : repeats_) {
    mistakes.Add(At(repeat.line), repeat.what + Quoted(repeat.name) + " stands once more",
                 "only the last one counts, in line " + std::to_string(repeat.laterLine));
  }
}

void CheckedFile::CheckEntry(const CheckedEntry& entry, Mistakes& mistakes) const {
  const std::string_view name = entry.name;
  const std::string_view value = entry.value;
  if (name.starts_with('#')) return;  // a comment that holds a '='
  if (!name.empty() && (IsBlank(name.back()) || IsBlank(name.front()))) {
    mistakes.Add(At(entry.line), "entry " + Quoted(name) + " is not found for its blanks",
                 "no blank may stand beside the name");
  }
  if (!value.empty() && (IsBlank(value.front()) || value.back() == '\t')) {
    mistakes.Add(At(entry.line),
                 "the blank at the " + std::string(IsBlank(value.front()) ? "begin" : "end") +
                     " belongs to the value of " + Quoted(name),
                 "no blank may stand there");
  }
  if (othersRead_ && HoldsSecret(entry)) {
    mistakes.Add(At(entry.line),
                 "entry " + Quoted(name) + " looks like a secret, and others may read the file",
                 "take their permission away (chmod go=), or keep the secret elsewhere");
  }
  CheckConditions(entry, mistakes);
}

bool CheckedFile::IsNamedCondition(std::string_view name) const {
  if (conditions_ == nullptr) return false;
  const std::span entries(conditions_->entries);
  return std::ranges::any_of(
      entries.first(std::min(entries.size(), kMaxConditions)),
      [name](const CheckedEntry& entry) { return entry.value.starts_with(name); });
}

void CheckedFile::CheckTerm(const Place& place, std::string_view term, Mistakes& mistakes) const {
  const bool isNumber = !term.empty() && term.front() >= '0' && term.front() <= '9';
  if (isNumber || runtime::StartsWithNoCase(term, "mode:")) {
    mistakes.Add(place, "condition " + Quoted(term) + " never holds here",
                 "'*', the name of a program or a {name} is meant");
  } else if (term.starts_with('{') && !IsNamedCondition(term)) {
    mistakes.Add(place, "condition " + Quoted(term) + " is not defined and never holds",
                 "section 'Condition' has to name it");
  } else if (!term.empty() && (IsBlank(term.front()) || IsBlank(term.back()))) {
    mistakes.Add(place, "condition " + Quoted(term) + " never holds for its blanks",
                 "no blank may stand beside it");
  }
}

void CheckedFile::CheckConditions(const CheckedEntry& entry, Mistakes& mistakes) const {
  if (!config::IsConditional(entry.value)) return;
  const Place place = At(entry.line);
  std::string_view rest = entry.value;
  for (std::size_t number = 0; number < kMaxConditions && rest.data() != nullptr; ++number) {
    const config::Alternative alternative = config::TakeAlternative(rest);
    if (!alternative.condition) {
      if (rest.data() == nullptr) return;
      mistakes.Add(place, "what stands behind " + Quoted(alternative.value) + " is never taken",
                   "'||' separates alternatives with conditions and is no \"or\" of a shell");
      return;
    }
    bool always = true;
    std::string_view condition = *alternative.condition;
    do {
      const std::string_view term = config::TakeTerm(condition);
      CheckTerm(place, term, mistakes);
      always = always && (term.empty() || term == "*");
    } while (condition.data() != nullptr);
    if (always) return;
  }
  mistakes.Add(place, "where no condition holds the whole text counts, with its bars",
               "a last alternative without a condition is meant");
}

}  // namespace qixx::watch
