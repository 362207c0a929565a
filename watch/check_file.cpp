#include "watch/check_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <span>
#include <utility>

#include "config/conditions.h"
#include "config/environment.h"
#include "config/format.h"
#include "config/migration.h"
#include "config/scan.h"
#include "runtime/files.h"
#include "runtime/notice.h"
#include "runtime/product.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "watch/configuration.h"

namespace qixx::watch {
namespace {

/// What takes a secret without being the option of a command.
constexpr std::string_view kSecretNames[] = {"pin", "sopin", "puk", "pwd", "password", "secret"};
/// More conditions, and more alternatives of one value, are not looked at.
constexpr std::size_t kMaxConditions = 1000;

bool HoldsSecret(const CheckedEntry& entry) {
  return (Contains(kSecretNames, entry.name) && !entry.value.empty()) ||
         runtime::MaskSecrets(entry.value) != entry.value;
}

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

std::string MeantLength(std::size_t maxLength) {
  return "at most " + std::to_string(maxLength) + " are meant";
}

}  // namespace

// --- reading a file -----------------------------------------------------------------------------

std::optional<std::string> CheckedFile::Load(const std::string& path) {
  if (path.size() > runtime::kMaxText) return "its path has more than 255 characters";
  if (auto fault = WhyUnreadable(path)) return std::move(fault->why);
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return runtime::ErrorText(errno);
  std::optional<std::string> raw = runtime::ReadWholeFile(path);
  if (!raw) return "reading it fails";
  config::NormaliseLoaded(*raw);
  if (file_.Open(false, path, true) != config::ConfigResult::kOk) return "reading it fails";
  if (!raw->empty() && Text().empty()) return "its text cannot be read";
  path_ = path;
  looksOld_ = config::LooksOld(*raw);
  othersRead_ = (status.st_mode & (S_IRGRP | S_IROTH)) != 0;
  Parse();
  return std::nullopt;
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
    if (isCut_) return;
    Take(*next, line);
  }
}

void CheckedFile::Take(const config::TreeLine& next, std::size_t line) {
  const std::string_view text = next.text;
  switch (next.kind) {
    case config::TreeLineKind::kSection:
      return TakeNamed("section ", CheckedSection{config::HeaderName(text), line, {}}, sections_);
    case config::TreeLineKind::kEntry:
      return TakeNamed("entry ",
                       CheckedEntry{config::EntryName(text), config::EntryValue(text), line},
                       sections_.all.back().entries);
    case config::TreeLineKind::kNameless:
      return odd_.Add(At(line), Quoted(text) + " is no section", "[NAME] is meant");
    case config::TreeLineKind::kIndented:
      return TakeOdd(runtime::SkipBlanks(text), line, " begins with a blank and is not read",
                     "it has to begin at the start of the line");
    case config::TreeLineKind::kPlain:
      return TakeOdd(text, line, " is no entry", "NAME=VALUE is meant, or a comment behind ';'");
    case config::TreeLineKind::kOutside:
      return TakeOdd(text, line, " stands in front of the first section and is not read",
                     "it belongs behind a line [NAME]");
  }
}

template <typename Line>
void CheckedFile::TakeNamed(const char* what, Line next, NamedLines<Line>& lines) {
  const auto [last, isFirst] = lines.last.emplace(next.name, lines.all.size());
  if (!isFirst) {
    repeated_.Add(At(lines.all[last->second].line), what + Quoted(next.name) + " stands once more",
                  "only the last one counts, in line " + std::to_string(next.line));
    last->second = lines.all.size();
  }
  lines.all.push_back(std::move(next));
}

/// A line that the service passes over, where it is not meant to.
void CheckedFile::TakeOdd(std::string_view text, std::size_t line, std::string_view wrong,
                          std::string_view meant) {
  if (text.empty() || config::IsComment(text) || text.starts_with("//")) return;
  // Without a name it may be the rest of a line above, and that of a secret.
  const bool isNamed = text.find('=') != std::string_view::npos;
  odd_.Add(At(line), (isNamed ? Quoted(config::EntryName(text)) : "the line").append(wrong), meant);
}

const CheckedEntry* CheckedFile::Find(std::string_view section, std::string_view entry) const {
  const CheckedSection* const held = Find(section);
  return held == nullptr ? nullptr : held->entries.Find(entry);
}

// --- mistakes of a file -------------------------------------------------------------------------

void CheckedFile::CheckLines(Mistakes& mistakes) const {
  if (looksOld_) {
    mistakes.Add(
        At(1), "it has section names of an older version, which change on each load",
        "give the sections their present names: the lines below are those after the change");
  }
  if (isCut_) {
    mistakes.Add(At(1), "it has more lines than are checked",
                 "the first " + std::to_string(kMaxCheckedLines) + " were");
  }
  mistakes.Add(odd_);
  mistakes.Add(repeated_);
  for (const CheckedSection& section : Sections()) {
    for (const CheckedEntry& entry : section.entries.all) CheckEntry(entry, mistakes);
  }
}

void CheckedFile::CheckEntry(const CheckedEntry& entry, Mistakes& mistakes) const {
  const auto [name, value, line] = entry;
  if (name.starts_with('#')) return;  // a comment that holds a '='
  const Report report(At(line), mistakes);
  if (!name.empty() && (IsBlank(name.back()) || IsBlank(name.front()))) {
    report.Add("entry " + Quoted(name) + " is not found for its blanks",
               "no blank may stand beside the name");
  }
  if (!value.empty() && (IsBlank(value.front()) || value.back() == '\t')) {
    report.Add("the blank at the " + std::string(IsBlank(value.front()) ? "begin" : "end") +
                   " belongs to the value of " + Quoted(name),
               "no blank may stand there");
  }
  if (othersRead_ && HoldsSecret(entry)) {
    report.Add("entry " + Quoted(name) + " looks like a secret, and others may read the file",
               "take their permission away (chmod go=), or keep the secret elsewhere");
  }
  if (config::IsConditional(value)) CheckConditions(value, {At(line), mistakes, value});
}

void CheckedFile::CheckConditions(std::string_view value, const Report& report) const {
  config::Rest rest = value;
  for (std::size_t number = 0; number < kMaxConditions; ++number) {
    const std::optional<config::Alternative> alternative = config::TakeAlternative(rest);
    if (!alternative) break;
    if (!alternative->condition) {
      if (!rest) return;
      return report.Add(
          "what stands behind " + report.Quoted(alternative->value) + " is never taken",
          "'||' separates alternatives with conditions and is no \"or\" of a shell");
    }
    bool always = true;
    for (config::Rest terms = alternative->condition; const auto term = config::TakeTerm(terms);) {
      CheckTerm(*term, report);
      always = always && (term->empty() || *term == "*");
    }
    if (always) return;
  }
  report.Add("where no condition holds the whole text counts, with its bars",
             "a last alternative without a condition is meant");
}

void CheckedFile::CheckTerm(std::string_view term, const Report& report) const {
  if (term.empty()) return;
  const bool isNumber = term.front() >= '0' && term.front() <= '9';
  if (isNumber || runtime::StartsWithNoCase(term, "mode:")) {
    report.Add("condition " + report.Quoted(term) + " never holds here",
               "'*', the name of a program or a {name} is meant");
  } else if (term.starts_with('{') && !IsNamedCondition(term)) {
    report.Add("condition " + report.Quoted(term) + " is not defined and never holds",
               "section 'Condition' has to name it");
  } else if (IsBlank(term.front()) || IsBlank(term.back())) {
    report.Add("condition " + report.Quoted(term) + " never holds for its blanks",
               "no blank may stand beside it");
  }
}

bool CheckedFile::IsNamedCondition(std::string_view name) const {
  const CheckedSection* const conditions = Find("Condition");
  if (conditions == nullptr) return false;
  const std::span entries(conditions->entries.all);
  return std::ranges::any_of(
      entries.first(std::min(entries.size(), kMaxConditions)),
      [name](const CheckedEntry& entry) { return entry.value.starts_with(name); });
}

// --- values -------------------------------------------------------------------------------------

std::optional<std::string> CheckedConfiguration::Load(CheckedRole role, const std::string& path) {
  CheckedFile& file = files_[static_cast<std::size_t>(role)];
  std::optional<std::string> fault = file.Load(path);
  if (!fault && role == CheckedRole::kSystem) {
    static_cast<void>(store_.OpenItem(false, path));
    isSameText_ = !file.IsCut() && store_.GetText(0) == file.Text();
  }
  return fault;
}

/// Lists are read from their first entry to their last, and the store walks over the section for
/// each of them; so a plain value is taken from its line.
std::optional<config::ConfigValue> CheckedConfiguration::Find(std::string_view section,
                                                              std::string_view entry,
                                                              const CheckedEntry* line) {
  const bool isPlain = isSameText_ && line != nullptr && !config::IsConditional(line->value) &&
                       !config::FindProductVariable({":", section, ":", entry});
  if (isPlain) return config::ConfigValue{std::string(line->value), config::ConfigOrigin::kFile};
  return store_.GetString(section, entry, std::string::npos);
}

std::optional<CheckedValue> CheckedConfiguration::Read(std::string_view section,
                                                       std::string_view entry,
                                                       std::size_t maxLength, Mistakes& mistakes) {
  const CheckedEntry* const line = System().Find(section, entry);
  std::optional<config::ConfigValue> value = Find(section, entry, line);
  if (!value) return std::nullopt;
  Place place = System().At(line != nullptr ? line->line : 1);
  if (value->origin != config::ConfigOrigin::kEnvironment) {
    CheckLength(place, entry, value->text, maxLength, mistakes);
    std::string whole(line != nullptr ? line->value : value->text);
    return CheckedValue{std::move(value->text), std::move(place), std::move(whole)};
  }
  place = {std::string(runtime::Product().prefix)};
  place.file.append(":").append(section).append(":").append(entry);
  const std::size_t length = value->text.size();
  if (length <= maxLength) return CheckedValue{value->text, std::move(place), value->text};
  mistakes.Add(place,
               "the value has " + std::to_string(length) + " characters and counts for nothing",
               MeantLength(maxLength));
  return std::nullopt;
}

void CheckLength(const Place& place, std::string_view entry, std::string_view value,
                 std::size_t maxLength, Mistakes& mistakes) {
  if (value.size() <= maxLength) return;
  mistakes.Add(
      place,
      "entry " + Quoted(entry) + " has " + std::to_string(value.size()) + " characters and is cut",
      MeantLength(maxLength));
}

}  // namespace qixx::watch
