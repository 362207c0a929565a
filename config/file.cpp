#include "config/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <memory>
#include <new>

#include "config/format.h"
#include "config/migration.h"
#include "runtime/files.h"
#include "runtime/trace.h"

namespace qixx::config {
namespace {

constexpr std::size_t kLoadedTextReserve = 1024;
constexpr std::string_view kEncodedExtension = ".edb";

/// Runs an operation that allocates; when memory runs out it has failed.
template <typename Operation>
ConfigResult Guarded(Operation operation) {
  try {
    return operation();
  } catch (const std::exception&) {
    return kConfigFailed;
  }
}

std::string_view FileName(std::string_view path) {
  std::size_t slash = path.rfind('/');
  if (slash == kNoPosition) slash = path.rfind('\\');
  return slash == kNoPosition ? path : path.substr(slash + 1);
}

bool HasEncodedName(std::string_view path) {
  const std::string_view name = FileName(path);
  const std::size_t dot = name.rfind('.');
  return dot != kNoPosition && runtime::EqualsNoCase(name.substr(dot), kEncodedExtension);
}

std::time_t ModificationTime(const char* path) {
  struct stat info {};
  return ::stat(path, &info) == 0 ? info.st_mtime : 0;
}

/// Opens a regular file of a size that is accepted; -1 for anything else. Never waits, as the open
/// of a pipe would.
int OpenRegular(const char* path, int flags) {
  constexpr mode_t kAnyone = 0666;  // less what the process masks
  const int file = ::open(path, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, kAnyone);
  if (file < 0) return -1;
  struct stat info {};
  if (::fstat(file, &info) == 0 && S_ISREG(info.st_mode) &&
      static_cast<std::size_t>(info.st_size) <= kMaximumConfigSize) {
    return file;
  }
  ::close(file);
  return -1;
}

bool GetSize(int file, std::size_t& size) {
  struct stat info {};
  if (::fstat(file, &info) != 0) return false;
  size = static_cast<std::size_t>(info.st_size);
  return true;
}

/// Reads until the area is full or the file ends; false on an error.
bool ReadInto(int file, std::span<char> area, std::size_t& length) {
  length = 0;
  while (length < area.size()) {
    const ssize_t got = ::read(file, area.data() + length, area.size() - length);
    if (got == 0) return true;
    if (got < 0 && errno != EINTR) return false;
    if (got > 0) length += static_cast<std::size_t>(got);
  }
  return true;
}

bool WriteAt(int file, std::string_view text, std::size_t position) {
  while (!text.empty()) {
    const ssize_t put = ::pwrite(file, text.data(), text.size(), static_cast<off_t>(position));
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(put));
    position += static_cast<std::size_t>(put);
  }
  return true;
}

bool CutFile(int file, std::size_t length) {
  return ::ftruncate(file, static_cast<off_t>(length)) == 0;
}

/// Makes `text` the content of the file. What goes behind the old end is written first: when the
/// disk is full the file is cut back and still holds all that it held. A network file system tells
/// of a full disk no sooner than when it is made to write.
bool ReplaceContent(int file, std::string_view text) {
  std::size_t oldSize = 0;
  if (!GetSize(file, oldSize)) return false;
  oldSize = std::min(oldSize, text.size());
  const std::string_view added = text.substr(oldSize);
  if (!WriteAt(file, added, oldSize) || (!added.empty() && ::fsync(file) != 0)) {
    (void)CutFile(file, oldSize);
    return false;
  }
  return WriteAt(file, text.substr(0, oldSize), 0) && CutFile(file, text.size());
}

std::size_t WholeSteps(std::size_t bytes) {
  return (bytes + kGrowthStep - 1) / kGrowthStep;
}

/// Text put at `position` must begin a line of its own.
const char* MissingLineEnd(std::string_view text, std::size_t position) {
  return position == 0 || IsLineBreak(text[position - 1]) ? "" : "\n";
}

void Erase(std::string& text, TextRange range) {
  text.erase(range.begin, range.end - range.begin);
}

/// The section that Delete takes: preferably one that stands directly behind an LF.
bool FindSectionToDelete(std::string_view text, std::string_view name, TextRange& cut) {
  MarkReader marks(text);
  bool found = false;
  for (TextLine header; marks.NextHeader(header);) {
    const bool behindFeed = header.begin > 0 && text[header.begin - 1] == '\n';
    if ((found && !behindFeed) || !IsHeaderOf(header.text, name)) continue;
    cut = CutOfSection(text, SpanOfSection(text, header));
    if (behindFeed) return true;
    found = true;
  }
  return found;
}

}  // namespace

CConfigFile::~CConfigFile() {
  CConfigFile::Close(true);
}

// --- loading and saving -----------------------------------------------------------------------

ConfigResult CConfigFile::LoadText(const char* data, std::size_t length) {
  if (data == nullptr || length > kMaximumLoadedText) return kConfigFailed;
  return Guarded([&] {
    DetachTree();
    ForgetCursors();
    text_.reserve(length + kLoadedTextReserve);
    text_.assign(data, length);
    capacity_ = length + kLoadedTextReserve;
    hasText_ = true;
    return length == 0 ? kConfigOk : Normalise();
  });
}

ConfigResult CConfigFile::Open(bool writable, const char* path, bool quiet) {
  CConfigFile::Close(true);
  const char* const name = path == nullptr ? "" : path;
  const bool isKept = runtime::CopyTextIfFits(path_, name);
  if (isKept) {
    fileTime_ = ModificationTime(path_);
  } else {
    path_[0] = '\0';
  }
  if (!quiet) runtime::TraceWrite("Config - Open '%s' (%s)", name, writable ? "w" : "r");

  writable_ = writable;
  encoded_ = HasEncodedName(name);
  hasText_ = true;
  capacity_ = kGrowthStep;
  if (!OpenFile(name) || !ReadText() || (!text_.empty() && Normalise() != kConfigOk)) {
    CloseFile();
    text_.clear();
    modified_ = false;
    runtime::TraceWrite("Config - Failed to open");
  }
  if (!writable) {
    // Without any text there is nothing to look up, and the scan tells better what is missing.
    if (!text_.empty()) tree_ = CConfigTree::Instance().Attach(path_, text_);
    CConfigFile::Close(false);
  }
  return kConfigOk;
}

ConfigResult CConfigFile::Close(bool release) {
  const bool mustWrite = modified_ && writable_;
  const bool written = !mustWrite || (IsOpen() && WriteText());
  const bool closed = CloseFile();
  writable_ = false;
  modified_ = false;
  fileTime_ = 0;
  ForgetCursors();
  if (release) {
    DetachTree();
    std::string().swap(text_);  // an assignment would keep the memory
    capacity_ = 0;
    hasText_ = false;
  }
  return written && (closed || !mustWrite) ? kConfigOk : kConfigFailed;
}

bool CConfigFile::OpenFile(const char* path) {
  // The second try makes a missing file. It never empties one that could not be opened a moment
  // ago.
  descriptor_ = OpenRegular(path, writable_ ? O_RDWR : O_RDONLY);
  if (descriptor_ < 0) descriptor_ = OpenRegular(path, writable_ ? O_RDWR | O_CREAT : O_RDONLY);
  return descriptor_ >= 0;
}

bool CConfigFile::ReadText() {
  // One byte more than the text must fit, so that the end of the file is met in the last pass.
  std::size_t expected = 0;
  if (!GetSize(descriptor_, expected)) return false;
  capacity_ = WholeSteps(expected + 1) * kGrowthStep;
  std::size_t used = 0;
  const ConfigResult result = Guarded([&] {
    for (;;) {
      text_.resize(capacity_);
      std::size_t length = 0;
      const std::span<char> rest = std::span(text_).subspan(used);
      if (!ReadInto(descriptor_, rest, length)) return kConfigFailed;
      used += length;
      if (used > kMaximumConfigSize) return kConfigFailed;
      if (used < capacity_) break;
      capacity_ += kGrowthStep;
    }
    text_.resize(Transcode(false) ? used : 0);
    return kConfigOk;
  });
  return result == kConfigOk;
}

bool CConfigFile::WriteText() {
  if (!Transcode(true)) return false;
  NormaliseForSave(text_);
  if (fileTime_ != 0 && ModificationTime(path_) != fileTime_) {
    runtime::TraceWrite("Config - WARNING: File '%s' modified", path_);
  }
  return ReplaceContent(descriptor_, text_);
}

bool CConfigFile::CloseFile() {
  if (descriptor_ < 0) return true;
  const bool closed = ::close(descriptor_) == 0;
  descriptor_ = -1;
  return closed;
}

ConfigResult CConfigFile::Normalise() {
  return Guarded([&] {
    DetachTree();
    ForgetCursors();
    NormaliseLoaded(text_);
    if (text_.size() > kMaximumConfigSize) return kConfigFailed;
    if (text_.size() > capacity_) capacity_ = WholeSteps(text_.size()) * kGrowthStep;
    Migrate(false);
    return kConfigOk;
  });
}

bool CConfigFile::Transcode(bool /*encode*/) {
  return !encoded_;
}

// --- state ------------------------------------------------------------------------------------

std::uint32_t CConfigFile::GetKind() const {
  return kConfigKindFile;
}

bool CConfigFile::IsOpen() const {
  return descriptor_ >= 0;
}

bool CConfigFile::IsProductFile() const {
  const std::string_view prefix = runtime::Product().prefix;
  return !prefix.empty() && FileName(path_).starts_with(prefix);
}

ConfigResult CConfigFile::GetText(char* buffer, std::size_t& size) const {
  const std::span<char> area(buffer, buffer == nullptr ? 0 : size);
  runtime::CopyTextCut(area, {});
  size = text_.size();
  if (!hasText_) return kConfigFailed;
  if (buffer == nullptr) return kConfigOk;
  return runtime::CopyTextIfFits(area, text_) ? kConfigOk : kConfigFailed;
}

void CConfigFile::ForgetCursors() {
  position_ = 0;
  entryCursor_.reset();
  sectionCursor_ = {};
  nextBlock_ = 0;
  blockPosition_ = 0;
}

void CConfigFile::DetachTree() {
  if (tree_ == nullptr) return;
  CConfigTree::Instance().Release(tree_);
  tree_ = nullptr;
}

/// After every change: the tree and what was remembered about the text are out of date.
void CConfigFile::Touch() {
  DetachTree();
  ForgetCursors();
  modified_ = true;
}

// --- reading ----------------------------------------------------------------------------------

std::size_t CConfigFile::ReadLine(std::span<char> buffer) {
  TextLine line;
  LineReader lines(text_, position_);
  position_ = lines.Next(line) ? line.end : text_.size();
  return runtime::CopyTextCut(buffer, line.text);
}

ConfigResult CConfigFile::LookUpInText(const char* section, const char* entry,
                                       std::string_view& value) {
  if (!hasText_ || section == nullptr) return kConfigFailed;
  if (entry != nullptr) {
    const EntrySearch found = FindEntry(text_, section, entry);
    value = found.value;
    position_ = found.end;
    return found.result;
  }
  SectionSpan found;
  const bool exists = FindSection(text_, section, found);
  position_ = exists ? found.insertion : text_.size();
  return exists ? kConfigOk : kConfigNoSection;
}

ConfigResult CConfigFile::LookUpInTree(const char* section, const char* entry,
                                       std::string_view& value) const {
  if (tree_ == nullptr || section == nullptr) return kConfigFailed;
  const bool found =
      entry == nullptr ? tree_->FindSection(section) : tree_->FindValue(section, entry, value);
  return found ? kConfigOk : kConfigFailed;
}

ConfigResult CConfigFile::LookUp(const char* section, const char* entry, std::string_view& value) {
  return tree_ == nullptr ? LookUpInText(section, entry, value)
                          : LookUpInTree(section, entry, value);
}

ConfigResult CConfigFile::FindValue(const char* section, const char* entry,
                                    std::span<char> buffer) {
  return tree_ == nullptr ? FindValueInText(section, entry, buffer)
                          : FindValueInTree(section, entry, buffer);
}

ConfigResult CConfigFile::FindValueInText(const char* section, const char* entry,
                                          std::span<char> buffer) {
  std::string_view value;
  const ConfigResult result = LookUpInText(section, entry, value);
  runtime::CopyTextCut(buffer, value);
  return result;
}

ConfigResult CConfigFile::FindValueInTree(const char* section, const char* entry,
                                          std::span<char> buffer) {
  std::string_view value;
  const ConfigResult result = LookUpInTree(section, entry, value);
  runtime::CopyTextCut(buffer, value);
  return result;
}

ConfigResult CConfigFile::GetValue(const char* section, const char* entry, std::span<char> buffer,
                                   bool convert) {
  std::string_view value;
  const ConfigResult result = LookUp(section, entry, value);
  runtime::CopyTextCut(buffer, convert ? runtime::Utf8ToLocal(value) : value);
  return result;
}

bool CConfigFile::SectionExists(const char* section) {
  TextLine header;
  return FindHeader(text_, runtime::ViewOf(section), IsExactHeaderOf, header);
}

ConfigResult CConfigFile::GetBlock(const char* name, std::uint8_t*& data, std::size_t& length) {
  data = nullptr;
  length = 0;
  BlockSpan block;
  if (runtime::ViewOf(name).empty() || !FindBlock(text_, name, block)) return kConfigFailed;
  const std::size_t capacity = block.body.size() / 4 * 3 + 3;
  std::unique_ptr<std::uint8_t[]> decoded(new (std::nothrow) std::uint8_t[capacity]);
  if (decoded == nullptr) return kConfigFailed;
  const int count = runtime::Base64Decode({decoded.get(), capacity}, block.body);
  if (count <= 0) return kConfigFailed;
  data = decoded.release();
  length = static_cast<std::size_t>(count);
  return kConfigOk;
}

// --- enumerations -----------------------------------------------------------------------------

ConfigResult CConfigFile::EnumEntries(std::span<char> section, std::span<char> entry,
                                      std::size_t& index) {
  const std::size_t wanted = index++;
  if (!entryCursor_ || nextEntry_ != wanted) {
    entryCursor_.emplace(text_);
    nextEntry_ = 0;
  }
  std::string_view foundSection;
  std::string_view foundEntry;
  bool found = true;
  do {
    found = entryCursor_->Next(foundSection, foundEntry);
  } while (found && nextEntry_++ != wanted);
  runtime::CopyTextCut(section, found ? foundSection : std::string_view{});
  runtime::CopyTextCut(entry, found ? foundEntry : std::string_view{});
  return found ? kConfigOk : kConfigFailed;
}

ConfigResult CConfigFile::EnumSectionEntries(const char* section, std::span<char> entry,
                                             std::size_t& index) {
  const std::size_t wanted = index++;
  runtime::CopyTextCut(entry, {});
  return Guarded([&] {
    const std::string_view name = runtime::ViewOf(section);
    SectionCursor& cursor = sectionCursor_;
    if (cursor.position == 0 || cursor.next != wanted ||
        !runtime::EqualsNoCase(cursor.section, name)) {
      TextLine header;
      if (!FindHeader(text_, name, IsExactHeaderOf, header)) return kConfigFailed;
      cursor = {std::string(name), 0, header.end};
    }
    LineReader lines(text_, cursor.position);
    for (TextLine line; lines.Next(line) && !EndsSection(line.text);) {
      if (IsComment(line.text)) continue;
      cursor.position = line.end;
      if (cursor.next++ != wanted) continue;
      runtime::CopyTextCut(entry, EntryName(line.text));
      return kConfigOk;
    }
    return kConfigFailed;
  });
}

ConfigResult CConfigFile::EnumBlocks(std::span<char> name, std::size_t& index) {
  const std::size_t wanted = index++;
  runtime::CopyTextCut(name, {});
  if (nextBlock_ != wanted) {
    nextBlock_ = 0;
    blockPosition_ = 0;
  }
  for (;;) {
    const std::size_t begin = text_.find("\n<", blockPosition_);
    if (begin == std::string::npos) return kConfigFailed;
    blockPosition_ = begin + 2;
    if (nextBlock_++ != wanted) continue;
    const std::string_view found =
        runtime::SkipBlanks(std::string_view(text_).substr(blockPosition_));
    runtime::CopyTextCut(name, found.substr(0, found.find_first_of("= \r\n")));
    return kConfigOk;
  }
}

// --- changes ----------------------------------------------------------------------------------

bool CConfigFile::FitsLimit(std::size_t bytes) const {
  return bytes <= kMaximumConfigSize - std::min(text_.size(), kMaximumConfigSize);
}

ConfigResult CConfigFile::Grow(std::size_t bytes) {
  if (!FitsLimit(bytes)) return kConfigFailed;
  const std::size_t free = capacity_ - text_.size();
  const std::size_t steps = bytes > free ? WholeSteps(bytes - free) : 1;
  return Guarded([&] {
    ForgetCursors();
    text_.reserve(capacity_ + steps * kGrowthStep);
    capacity_ += steps * kGrowthStep;
    return kConfigOk;
  });
}

/// Grows when `bytes` more would not fit. Comes before anything is cut, so that a failure leaves
/// the text as it was.
ConfigResult CConfigFile::MakeRoom(std::size_t bytes, Change change) {
  if (bytes <= capacity_ - text_.size()) return FitsLimit(bytes) ? kConfigOk : kConfigFailed;
  const int needed = static_cast<int>(std::min(bytes, kMaximumConfigSize));
  switch (change) {
    case Change::kAdd:
      runtime::TraceWrite("Config - Increase for add (%d)", needed);
      break;
    case Change::kSet:
      runtime::TraceWrite("Config - Increase for set (%d)", needed);
      break;
    case Change::kRename:
      runtime::TraceWrite("Config - Increase for rename (%d)", needed);
      break;
  }
  return Grow(bytes);
}

ConfigResult CConfigFile::Splice(TextRange range, std::string_view replacement, Change change) {
  const ConfigResult result = MakeRoom(replacement.size(), change);
  if (result != kConfigOk) return result;
  text_.replace(range.begin, range.end - range.begin, replacement);
  Touch();
  return kConfigOk;
}

/// Takes a text that was made from the present one.
ConfigResult CConfigFile::Adopt(std::string_view text, Change change) {
  if (text.size() > text_.size()) {
    const ConfigResult result = MakeRoom(text.size() - text_.size(), change);
    if (result != kConfigOk) return result;
  }
  text_.assign(text);
  Touch();
  return kConfigOk;
}

ConfigResult CConfigFile::SetValue(const char* section, const char* entry, const char* value,
                                   bool convert) {
  if (!hasText_ || runtime::ViewOf(section).empty()) return kConfigFailed;
  return Guarded([&] {
    const std::string sectionName = OneLine(section);
    const std::string entryName = OneLine(runtime::ViewOf(entry));
    if (!IsEntryName(entryName)) return kConfigFailed;
    const EntrySearch found = FindEntry(text_, sectionName, entryName);
    const std::string head = found.result == kConfigNoSection ? SectionHead(sectionName)
                                                              : MissingLineEnd(text_, found.begin);
    const std::string_view written =
        convert ? runtime::LocalToUtf8(runtime::ViewOf(value)) : runtime::ViewOf(value);
    const std::string text = EntryText(head, entryName, written);
    if (text.empty()) return kConfigFailed;
    return Splice({found.begin, found.end}, text, Change::kSet);
  });
}

ConfigResult CConfigFile::AddValue(const char* section, const char* entry, const char* value) {
  if (!hasText_ || runtime::ViewOf(section).empty()) return kConfigFailed;
  return Guarded([&] {
    const std::string sectionName = OneLine(section);
    const std::string entryName = OneLine(runtime::ViewOf(entry));
    if (!IsEntryName(entryName)) return kConfigFailed;
    SectionSpan found;
    const bool exists = FindSection(text_, sectionName, found);
    // A missing section is added in front of everything, unlike in SetValue: both are intended.
    const std::size_t position = exists ? found.insertion : 0;
    const std::string head =
        exists ? std::string(MissingLineEnd(text_, position)) + '\n' : SectionHead(sectionName);
    const std::string text = EntryText(head, entryName, runtime::ViewOf(value));
    if (text.empty()) return kConfigFailed;
    return Splice({position, position}, text, Change::kAdd);
  });
}

ConfigResult CConfigFile::Delete(const char* section, const char* entry) {
  if (!hasText_ || section == nullptr) return kConfigFailed;
  TextRange cut;
  if (entry == nullptr) {
    (void)FindSectionToDelete(text_, section, cut);
  } else if (const EntrySearch found = FindEntry(text_, section, entry);
             found.result == kConfigOk) {
    cut = {found.begin, found.end};
  }
  Erase(text_, cut);
  Touch();
  return kConfigOk;
}

ConfigResult CConfigFile::SetBlock(const char* name, std::span<const std::uint8_t> data) {
  if (!hasText_) return kConfigFailed;
  return Guarded([&] {
    if (name == nullptr) {
      std::string text(data.begin(), data.end());
      ReplaceZeroBytes(text);
      return Adopt(text, Change::kSet);
    }
    const std::string blockName = OneLine(name);
    const std::string added = BlockText(blockName, data);
    if (blockName.empty() || added.empty()) return kConfigFailed;
    std::string text = text_;
    BlockSpan block;
    if (FindBlock(text, blockName, block)) Erase(text, block.range);
    const std::size_t position = text.size();
    text += added;
    // A block in front that is never closed would end here and hide all between.
    if (!FindBlock(text, blockName, block, position)) return kConfigFailed;
    return Adopt(text, Change::kSet);
  });
}

ConfigResult CConfigFile::DeleteBlock(const char* name) {
  BlockSpan block;
  if (runtime::ViewOf(name).empty() || !FindBlock(text_, name, block)) return kConfigFailed;
  Erase(text_, block.range);
  Touch();
  return kConfigOk;
}

ConfigResult CConfigFile::RenameSection(const char* oldName, const char* newName) {
  if (!hasText_) return kConfigFailed;
  if (runtime::ViewOf(oldName).empty() || !SectionExists(oldName)) return kConfigOk;
  if (runtime::ViewOf(newName).empty()) return kConfigFailed;
  return Guarded([&] {
    const std::string name = OneLine(newName);
    std::string merged;
    const bool merges = MergeBeforeRename(text_, oldName, name, merged);
    return Adopt(RewriteHeaders(merges ? merged : text_, oldName, name), Change::kRename);
  });
}

void CConfigFile::Sort() {
  (void)Guarded([&] {
    const std::string sorted = SortSections(text_);
    return runtime::CompareNoCase(sorted, text_) == 0 ? kConfigOk : Adopt(sorted, Change::kSet);
  });
}

void CConfigFile::StripComments() {
  (void)Guarded([&] {
    const std::string kept = StripCommentLines(text_);
    return kept.size() == text_.size() ? kConfigOk : Adopt(kept, Change::kSet);
  });
}

// --- migration --------------------------------------------------------------------------------

void CConfigFile::Migrate(bool force) {
  if (!hasText_ || (!force && !LooksOld(text_))) return;
  DetachTree();
  for (const SectionAlias& alias : SectionAliases()) {
    if (RenameSection(alias.oldName, alias.newName) != kConfigOk) break;
  }
  (void)Guarded([&] {
    RenameProfiles();
    std::string moved;
    return MoveImages(text_, moved) ? Adopt(moved, Change::kSet) : kConfigOk;
  });
}

void CConfigFile::RenameProfiles() {
  for (char digit = '1'; digit <= '9'; ++digit) {
    const EntrySearch profile = FindEntry(text_, kProfileSection, {&digit, 1});
    if (profile.result != kConfigOk) return;
    const std::string name(profile.value);
    const std::string newName = std::string(kProfileSection) + ' ' + name;
    if (RenameSection(name.c_str(), newName.c_str()) != kConfigOk) return;
  }
}

}  // namespace qixx::config
