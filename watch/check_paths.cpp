#include "watch/check_paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <optional>

#include "runtime/notice.h"
#include "runtime/text.h"
#include "runtime/trace.h"
#include "watch/command.h"
#include "watch/logon_file.h"
#include "watch/options.h"
#include "watch/placeholders.h"

namespace qixx::watch {
namespace {

// --- placeholders -------------------------------------------------------------------------------

/// Behind the prefix of the subject's components.
constexpr auto kPlaceholderNames = std::span(kPlaceholderMarks).subspan(1);

struct Placeholder {
  std::string_view text;  ///< with both '%'
  bool isKnown = false;
};

bool IsPlaceholderName(std::string_view name) {
  return name.size() >= 3 && std::ranges::all_of(name, [](unsigned char c) {
           return std::isalnum(c) != 0 || c == '.' || c == '-';
         });
}

/// The next "%name%" at or behind `at`, which moves to its end; names shorter than those that are
/// known are somebody else's.
std::optional<Placeholder> NextPlaceholder(std::string_view text, std::size_t& at) {
  for (at = text.find('%', at); at != std::string_view::npos; at = text.find('%', at + 1)) {
    const std::size_t end = text.find('%', at + 1);
    if (end == std::string_view::npos) return std::nullopt;
    const std::string_view whole = text.substr(at, end + 1 - at);
    const bool isComponent = runtime::StartsWithNoCase(whole, kComponentPrefix);
    if (!isComponent && !IsPlaceholderName(whole.substr(1, whole.size() - 2))) continue;
    at = end + 1;
    return Placeholder{whole, isComponent || Contains(kPlaceholderNames, whole)};
  }
  return std::nullopt;
}

// --- paths --------------------------------------------------------------------------------------

/// What is meant where rights are missing.
constexpr std::string_view kOtherUser = "check as the user that the service runs as";

bool May(const std::string& path, int mode) {
  return ::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
}

/// Up to and with the last '/'; "." for a path without one.
std::string FolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

/// Whether a file may be written, or made where it is missing.
bool MayWrite(const std::string& path) {
  return May(path, F_OK) ? May(path, W_OK) : May(FolderOf(path), W_OK | X_OK);
}

/// Where a program without a path would be found by a shell; empty when nowhere.
std::string FindInPath(const std::string& name) {
  const std::string_view folders = runtime::ViewOf(std::getenv("PATH"));
  for (std::size_t index = 0; const auto folder = runtime::GetField(folders, index, ':'); ++index) {
    std::string path = std::string(*folder) + "/" + name;
    if (folder->starts_with('/') && May(path, X_OK)) return path;
  }
  return {};
}

/// One path, and what it is meant to be.
class PathCheck {
 public:
  PathCheck(const Report& report, std::string what, const std::string& path)
      : PathCheck(report, std::move(what), path, report.Quoted(path)) {}
  /// For a path that does not stand in the report's line as it is.
  PathCheck(const Report& report, std::string what, const std::string& path, std::string quoted)
      : report_(report), what_(std::move(what)), path_(path), quoted_(std::move(quoted)) {}

  /// Whether it is the whole path of a regular file; else that is said.
  [[nodiscard]] bool IsThere() {
    if (!IsWhole()) return false;
    struct stat status {};
    const int error = ::stat(path_.c_str(), &status) == 0 ? 0 : errno;
    if (error == 0 && S_ISREG(status.st_mode)) return true;
    const std::string reason = " (" + std::string(runtime::ErrorText(error)) + ")";
    if (error == 0) {
      report_.Add(quoted_ + " is no regular file", "a " + what_ + " is meant");
    } else if (error == EACCES) {
      Add(" cannot be reached" + reason,
          "rights for the service's user are meant, and for homes a unit without ProtectHome");
    } else {
      report_.Add("there is no " + what_ + " " + quoted_ + reason,
                  "the path of one that is there is meant");
    }
    return false;
  }
  /// False, and said, for a path that the service does not take as it is meant.
  [[nodiscard]] bool IsWhole() {
    if (path_.starts_with("~") || path_.find('$') != std::string::npos) {
      Add(" is taken as it stands, for there is no shell", "the whole path is meant");
      return false;
    }
    if (path_.starts_with('/')) return true;
    Add(" is looked for in the folder that the service starts in", "the whole path is meant");
    return false;
  }
  void Add(std::string_view wrong, std::string_view meant) {
    report_.Add(what_ + " " + quoted_ + std::string(wrong), meant);
  }

 private:
  const Report& report_;
  const std::string what_;
  const std::string& path_;
  const std::string quoted_;
};

/// Of a path that holds a placeholder; where that is not filled it was told of already.
void CheckFilledPath(const Report& report, bool isFilled, const std::string& whose) {
  if (!isFilled) return;
  report.Add(
      "the " + whose + " path holds a placeholder, so the card decides which file is written",
      "a file's path is meant");
}

// --- trace files --------------------------------------------------------------------------------

struct TraceEntry {
  std::string_view section;
  std::string_view name;
  bool isCall;  ///< takes a file of any ending, and no journal
};
constexpr TraceEntry kTraceEntries[] = {
    {"Trace", "watch", false},
    {"Trace", "bridge", false},
    {"Trace", "File", false},
    {"Trace Call", "watch", true},
};

void CheckTraceFile(const Report& report, const std::string& path, bool isCall) {
  if (path.find("||") != std::string::npos || runtime::StartsWithNoCase(path, "server")) return;
  if (!isCall && path == runtime::kJournalTarget) return;
  const std::string file = "trace file " + Quoted(path);
  if (!isCall && !runtime::IsTraceFileName(path)) {
    report.Add(file + " has another ending, so nothing is traced", "'.log' or '.txt' is meant");
  }
  const std::string folder = FolderOf(path);
  if (!path.starts_with('/')) {
    report.Add(file + " stands in the folder that the service starts in",
               "the whole path is meant");
  } else if (!IsFolder(folder)) {
    report.Add("there is no folder " + Quoted(folder) + ", so nothing is traced",
               "make it, or name another");
  } else if (!MayWrite(path)) {
    report.Add(file + " may not be written, so nothing is traced", kOtherUser);
  }
}

}  // namespace

void CheckPlaceholders(const Report& report, bool isFilled, std::string_view text) {
  std::size_t at = 0;
  while (const std::optional<Placeholder> found = NextPlaceholder(text, at)) {
    if (!found->isKnown) {
      const std::string_view nearest = NearestName(found->text, kPlaceholderNames);
      if (nearest.empty() || report.Hides(found->text)) continue;
      report.Add("there is no placeholder " + report.Quoted(found->text),
                 Quoted(nearest) + " is meant");
    } else if (!isFilled) {
      report.Add("placeholder " + report.Quoted(found->text) + " is not filled here",
                 "only the numbered commands of an insertion get values");
    }
  }
  const std::size_t open = runtime::FindTextNoCase(text, kComponentPrefix);
  if (open != std::string_view::npos && text.find('%', open + 1) == std::string_view::npos) {
    report.Add("placeholder " + report.Quoted(text.substr(open)) + " has no end",
               "'%OID.cn%' is meant");
  }
}

bool HoldsPlaceholder(std::string_view text) {
  std::size_t at = 0;
  while (const std::optional<Placeholder> found = NextPlaceholder(text, at)) {
    if (found->isKnown) return true;
  }
  return false;
}

bool IsFolder(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void CheckProgramPath(const Report& report, const std::string& program) {
  if (program.size() > kMaxProgram) {
    report.Add("the program's path has more than 255 characters", "a shorter one is meant");
  }
  const bool isBegin = program.starts_with('%');
  if (isBegin || HoldsPlaceholder(program)) {
    return report.Add(std::string(isBegin ? "a placeholder begins the command"
                                          : "the program's path holds a placeholder") +
                          ", so the card decides what is started",
                      "a program's path is meant");
  }
  PathCheck path(report, "program", program);
  if (program.find('/') == std::string::npos) {
    const std::string found = report.Hides(program) ? "" : FindInPath(program);
    path.Add(" has no path, and none is searched",
             found.empty() ? "a program's whole path, or a command's keyword, is meant"
                           : Quoted(found) + " is meant");
  } else if (path.IsThere() && !May(program, X_OK)) {
    path.Add(" is not executable", "chmod +x");
  }
}

void CheckLibraryPath(const Report& report, const std::string& library) {
  if (HoldsPlaceholder(library)) {
    return report.Add("the library's path holds a placeholder, so the card decides what is loaded",
                      "a library's path is meant");
  }
  if (library.find('/') == std::string::npos) return;
  PathCheck path(report, "library", library);
  if (path.IsThere() && !May(library, R_OK)) path.Add(" may not be read", kOtherUser);
}

void CheckDocumentPath(const Report& report, std::string document) {
  if (!May(kDocumentViewer, X_OK)) {
    report.Add("there is no " + Quoted(kDocumentViewer), "it shows documents: install xdg-utils");
  }
  if (HoldsPlaceholder(document) || document.find(':') != std::string::npos) return;
  std::string quoted = report.Quoted(document);
  for (std::string* const text : {&document, &quoted}) std::erase(*text, '"');
  static_cast<void>(PathCheck(report, "document", document, std::move(quoted)).IsThere());
}

void CheckValuesPath(const Report& report, bool isFilled, const std::string& file) {
  if (file.size() > kMaxOption) {
    return report.Add("the file's path has more than 255 characters, so it is never written",
                      "a shorter one is meant");
  }
  if (HoldsPlaceholder(file)) return CheckFilledPath(report, isFilled, "file's");
  PathCheck path(report, "file", file);
  if (!path.IsThere()) return;
  if (!May(file, W_OK)) return path.Add(" may not be written", kOtherUser);
  const std::string copy = file + ".org";
  if (const auto fault = FaultOfSavedCopy(file)) {
    PathCheck(report, "saved copy", copy, "'" + report.Shown(file) + ".org'")
        .Add(" is " + *fault + ", so nothing is set",
             "a file of the service's user with one name is meant");
  }
  const std::string folder = FolderOf(file);
  if (May(folder, W_OK | X_OK) || May(copy, F_OK)) return;
  PathCheck(report, "folder", folder)
      .Add(" may not be written, so there can be no saved copy '.org'", kOtherUser);
}

void CheckMadePath(const Report& report, bool isFilled, const std::string& whose,
                   const std::string& file) {
  if (HoldsPlaceholder(file)) return CheckFilledPath(report, isFilled, whose);
  PathCheck path(report, "file", file);
  if (path.IsWhole() && !MayWrite(file)) path.Add(" may not be written", kOtherUser);
}

void CheckTraceFiles(const CheckedConfiguration& configuration, Mistakes& mistakes) {
  for (const CheckedRole role : {CheckedRole::kUser, CheckedRole::kSystem}) {
    const CheckedFile& file = configuration.File(role);
    for (const auto& [section, name, isCall] : kTraceEntries) {
      const CheckedEntry* const entry = file.Find(section, name);
      if (entry == nullptr || entry->value.empty()) continue;
      CheckTraceFile({file.At(entry->line), mistakes}, std::string(entry->value), isCall);
    }
  }
}

}  // namespace qixx::watch
