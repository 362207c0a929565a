#include "config/file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "config/format.h"
#include "config/migration.h"
#include "runtime/replace_file.h"
#include "runtime/secrets.h"
#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::config {
namespace {

constexpr std::size_t kLoadedTextReserve = 1024;
constexpr std::string_view kEncodedExtension = ".edb";

bool HasEncodedName(std::string_view path) {
  const std::size_t dot = path.rfind('.');
  return dot != kNoPosition && runtime::EqualsNoCase(path.substr(dot), kEncodedExtension);
}

std::time_t ModificationTime(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? info.st_mtime : 0;
}

std::size_t WholeSteps(std::size_t bytes) {
  return (bytes + kGrowthStep - 1) / kGrowthStep;
}

}  // namespace

CConfigFile::~CConfigFile() {
  CConfigFile::Close(true);
}

// --- loading and saving -----------------------------------------------------------------------

ConfigResult CConfigFile::LoadText(std::string_view data) {
  if (data.data() == nullptr || data.size() > kMaxLoadedText) return ConfigResult::kFailed;
  text_ = std::string(data);
  capacity_ = data.size() + kLoadedTextReserve;
  hasText_ = true;
  return Normalise();
}

ConfigResult CConfigFile::Open(bool writable, const std::string& path, bool quiet) {
  Begin(writable, path, quiet);
  if (!OpenFile(writable, path) || !TakeText(runtime::ReadToEnd(file_, kMaxConfigSize))) GiveUp();
  // Not sooner: when memory runs out on the way, nothing of what was read so far is written back.
  writable_ = writable;
  if (!writable) {
    // Without any text there is nothing to look up, and the scan tells better what is missing.
    if (!text_.empty()) tree_ = CConfigTree::Instance().Attach(path_, text_);
    CConfigFile::Close(false);
  }
  return ConfigResult::kOk;
}

ConfigResult CConfigFile::OpenText(const std::string& path, std::string text) {
  Begin(true, path, false);
  if (!encoded_ && TakeText(std::move(text))) return ConfigResult::kOk;
  GiveUp();
  return ConfigResult::kFailed;
}

std::optional<std::string> CConfigFile::ChangedText() {
  if (!modified_) return std::nullopt;
  NormaliseForSave(text_);
  Touch();
  modified_ = false;
  return text_;
}

void CConfigFile::Begin(bool writable, const std::string& path, bool quiet) {
  CConfigFile::Close(true);
  path_ = path.size() <= runtime::kMaxText ? path : std::string();
  shownPath_ = runtime::MaskSecrets(path);
  fileTime_ = ModificationTime(path_);
  if (!quiet) {
    runtime::TraceWrite("Config - Open '%s' (%s)", shownPath_.c_str(), writable ? "w" : "r");
  }
  encoded_ = HasEncodedName(path);
  hasText_ = true;
  capacity_ = kGrowthStep;
}

void CConfigFile::GiveUp() {
  file_.Close();
  text_.clear();
  modified_ = false;
  runtime::TraceWrite("Config - Failed to open");
}

ConfigResult CConfigFile::Close(bool release) {
  const bool mustWrite = modified_ && writable_;
  const bool written = !mustWrite || (IsOpen() && WriteText());
  const bool closed = !IsOpen() || file_.Close();
  writable_ = false;
  modified_ = false;
  fileTime_ = 0;
  ForgetCursors();
  if (release) {
    tree_.reset();
    std::string().swap(text_);  // an assignment would keep the memory
    capacity_ = 0;
    hasText_ = false;
  }
  return written && (closed || !mustWrite) ? ConfigResult::kOk : ConfigResult::kFailed;
}

bool CConfigFile::OpenFile(bool writable, const std::string& path) {
  constexpr mode_t kAnyone = 0666;  // less what the process masks
  place_ = runtime::FindFile(path).real;
  // The second try makes a missing file. It never empties one that could not be opened a moment
  // ago.
  file_ = place_.Open(writable ? O_RDWR : O_RDONLY);
  if (!file_.IsOpen()) file_ = place_.Open(writable ? O_RDWR | O_CREAT : O_RDONLY, kAnyone);
  return file_.IsOpen() && (!writable || runtime::HasOneName(file_, place_));
}

bool CConfigFile::TakeText(std::optional<std::string> content) {
  if (!content) return false;
  text_ = std::move(*content);
  capacity_ = WholeSteps(text_.size() + 1) * kGrowthStep;
  if (!Transcode(false)) text_.clear();
  return Normalise() == ConfigResult::kOk;
}

bool CConfigFile::WriteText() {
  if (!Transcode(true)) return false;
  NormaliseForSave(text_);
  if (fileTime_ != 0 && ModificationTime(path_) != fileTime_) {
    runtime::TraceWrite("Config - WARNING: File '%s' modified", shownPath_.c_str());
  }
  return runtime::ReplaceFile(place_, file_, text_);
}

ConfigResult CConfigFile::Normalise() {
  tree_.reset();
  ForgetCursors();
  NormaliseLoaded(text_);
  if (text_.size() > kMaxConfigSize) return ConfigResult::kFailed;
  if (text_.size() > capacity_) capacity_ = WholeSteps(text_.size()) * kGrowthStep;
  Migrate(false);
  return ConfigResult::kOk;
}

bool CConfigFile::Transcode(bool /*encode*/) {
  return !encoded_;
}

// --- state ------------------------------------------------------------------------------------

std::optional<std::string_view> CConfigFile::GetText() const {
  if (!hasText_) return std::nullopt;
  return text_;
}

void CConfigFile::ForgetCursors() {
  position_ = 0;
  entryCursor_.reset();
  sectionCursor_ = {};
  blockCursor_ = {};
}

/// After every change: the tree and what was remembered about the text are out of date.
void CConfigFile::Touch() {
  tree_.reset();
  ForgetCursors();
  modified_ = true;
}

// --- reading ----------------------------------------------------------------------------------

FoundValue CConfigFile::GetValue(std::string_view section, std::optional<std::string_view> entry) {
  return FindValue(section, entry);
}

FoundValue CConfigFile::FindValue(std::string_view section, std::optional<std::string_view> entry) {
  return tree_ == nullptr ? FindValueInText(section, entry) : FindValueInTree(section, entry);
}

FoundValue CConfigFile::FindValueInText(std::string_view section,
                                        std::optional<std::string_view> entry) {
  if (!hasText_) return {};
  const EntrySearch found = FindEntry(text_, section, entry);
  position_ = found.end;
  return {found.result, found.value};
}

FoundValue CConfigFile::FindValueInTree(std::string_view section,
                                        std::optional<std::string_view> entry) {
  std::optional<std::string_view> value;
  if (tree_ != nullptr) value = tree_->FindValue(section, entry);
  return value ? FoundValue{ConfigResult::kOk, *value} : FoundValue{};
}

bool CConfigFile::SectionExists(std::string_view section) {
  return FindHeader(text_, section, IsExactHeaderOf).has_value();
}

// --- changes ----------------------------------------------------------------------------------

ConfigResult CConfigFile::Grow(std::size_t bytes) {
  if (!FitsLimit(bytes)) return ConfigResult::kFailed;
  const std::size_t free = capacity_ - text_.size();
  const std::size_t steps = bytes > free ? WholeSteps(bytes - free) : 1;
  ForgetCursors();
  text_.reserve(capacity_ + steps * kGrowthStep);
  capacity_ += steps * kGrowthStep;
  return ConfigResult::kOk;
}

/// Grows when `bytes` more would not fit. Comes before anything is cut, so that a failure leaves
/// the text as it was.
ConfigResult CConfigFile::MakeRoom(std::size_t bytes, const char* change) {
  if (bytes <= capacity_ - text_.size()) {
    return FitsLimit(bytes) ? ConfigResult::kOk : ConfigResult::kFailed;
  }
  if (change != nullptr) {
    runtime::TraceWrite("Config - Increase for %s (%d)", change,
                        static_cast<int>(std::min(bytes, kMaxConfigSize)));
  }
  return Grow(bytes);
}

/// Puts the entry's line, behind `head`, in the place of what is there.
ConfigResult CConfigFile::PutEntry(TextRange place, std::string_view head, std::string_view entry,
                                   std::string_view value, const char* change) {
  const std::optional<std::string> text = EntryText(head, entry, value);
  if (!text) return ConfigResult::kFailed;
  const ConfigResult result = MakeRoom(text->size(), change);
  if (result != ConfigResult::kOk) return result;
  text_.replace(place.begin, place.end - place.begin, *text);
  Touch();
  return ConfigResult::kOk;
}

/// Takes a text that was made from the present one.
ConfigResult CConfigFile::Adopt(std::string text, const char* change) {
  if (text.size() > text_.size()) {
    const ConfigResult result = MakeRoom(text.size() - text_.size(), change);
    if (result != ConfigResult::kOk) return result;
  }
  text_ = std::move(text);
  Touch();
  return ConfigResult::kOk;
}

ConfigResult CConfigFile::SetValue(std::string_view section, std::string_view entry,
                                   std::string_view value) {
  const std::string sectionName = OneLine(section);
  const std::string entryName = OneLine(entry);
  if (!hasText_ || sectionName.empty() || !IsEntryName(entryName)) return ConfigResult::kFailed;
  const EntrySearch found = FindEntry(text_, sectionName, entryName);
  const std::string head = found.result == ConfigResult::kNoSection
                               ? SectionHead(sectionName)
                               : std::string(MissingLineEnd(text_, found.begin));
  return PutEntry({found.begin, found.end}, head, entryName, value, "set");
}

ConfigResult CConfigFile::RenameSection(std::string_view oldName, std::string_view newName) {
  if (!hasText_) return ConfigResult::kFailed;
  if (oldName.empty() || !SectionExists(oldName)) return ConfigResult::kOk;
  const std::string name = OneLine(newName);
  if (name.empty()) return ConfigResult::kFailed;
  const std::optional<std::string> merged = MergeBeforeRename(text_, oldName, name);
  return Adopt(RewriteHeaders(merged ? *merged : text_, oldName, name), "rename");
}

// --- migration --------------------------------------------------------------------------------

void CConfigFile::Migrate(bool force) {
  if (!hasText_ || (!force && !LooksOld(text_))) return;
  tree_.reset();
  for (const SectionAlias& alias : kSectionAliases) {
    if (RenameSection(alias.oldName, alias.newName) != ConfigResult::kOk) break;
  }
  RenameProfiles();
  if (std::optional<std::string> moved = MoveImages(text_)) {
    (void)Adopt(std::move(*moved), "set");
  }
}

void CConfigFile::RenameProfiles() {
  for (char digit = '1'; digit <= '9'; ++digit) {
    const EntrySearch profile = FindEntry(text_, kProfileSection, std::string_view(&digit, 1));
    if (profile.result != ConfigResult::kOk) return;
    const std::string name(profile.value);
    const std::string newName = std::string(kProfileSection) + ' ' + name;
    if (RenameSection(name, newName) != ConfigResult::kOk) return;
  }
}

}  // namespace qixx::config
