#include "watch/check_target.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>

#include "runtime/notice.h"
#include "runtime/text.h"
#include "watch/check_placeholders.h"
#include "watch/command.h"
#include "watch/logon_file.h"

namespace qixx::watch {
namespace {

bool May(const std::string& path, int mode) {
  return ::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
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
  PathCheck(const Place& place, std::string_view what, const std::string& path, Mistakes& mistakes)
      : place_(place), what_(what), path_(path), mistakes_(mistakes) {}

  /// False, and said, for a path that the service does not take as it is meant.
  [[nodiscard]] bool CheckWhole() {
    if (path_.starts_with("~") || path_.find('$') != std::string::npos) {
      Add(" is taken as it stands, for there is no shell", "the whole path is meant");
      return false;
    }
    if (!path_.starts_with('/')) {
      Add(" is looked for in the folder that the service starts in", "the whole path is meant");
      return false;
    }
    return true;
  }
  /// False, and said, where there is no regular file.
  [[nodiscard]] bool CheckThere() {
    struct stat status {};
    const int error = ::stat(path_.c_str(), &status) == 0 ? 0 : errno;
    if (error == 0 && S_ISREG(status.st_mode)) return true;
    const std::string reason = " (" + std::string(runtime::ErrorText(error)) + ")";
    if (error == 0) {
      mistakes_.Add(place_, Quoted(path_) + " is no regular file", "a " + what_ + " is meant");
    } else if (error == EACCES) {
      Add(" cannot be reached" + reason,
          "rights for the service's user are meant, and for homes a unit without ProtectHome");
    } else {
      mistakes_.Add(place_, "there is no " + what_ + " " + Quoted(path_) + reason,
                    "the path of one that is there is meant");
    }
    return false;
  }
  void Add(std::string_view wrong, std::string_view meant) {
    mistakes_.Add(place_, what_ + " " + Quoted(path_) + std::string(wrong), meant);
  }

 private:
  const Place& place_;
  const std::string what_;
  const std::string& path_;
  Mistakes& mistakes_;
};

}  // namespace

std::string FolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

bool IsFolder(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool MayWrite(const std::string& path) {
  return May(path, F_OK) ? May(path, W_OK) : May(FolderOf(path), W_OK | X_OK);
}

void CheckProgramPath(const Place& place, const std::string& program, Mistakes& mistakes) {
  if (program.size() > kMaxProgram) {
    mistakes.Add(place, "the program's path has more than 255 characters",
                 "a shorter one is meant");
  }
  if (program.starts_with('%')) {
    return mistakes.Add(place,
                        "a placeholder begins the command, so the card decides what is started",
                        "a program's path is meant");
  }
  if (HoldsPlaceholder(program)) {
    return mistakes.Add(
        place, "the program's path holds a placeholder, so the card decides what is started",
        "a program's path is meant");
  }
  PathCheck path(place, "program", program, mistakes);
  if (program.find('/') == std::string::npos) {
    const std::string found = FindInPath(program);
    return path.Add(" has no path, and none is searched",
                    found.empty() ? "a program's whole path, or a command's keyword, is meant"
                                  : Quoted(found) + " is meant");
  }
  if (path.CheckWhole() && path.CheckThere() && !May(program, X_OK)) {
    path.Add(" is not executable", "chmod +x");
  }
}

void CheckLibraryPath(const Place& place, std::string_view library, Mistakes& mistakes) {
  if (HoldsPlaceholder(library)) {
    return mistakes.Add(
        place, "the library's path holds a placeholder, so the card decides what is loaded",
        "a library's path is meant");
  }
  if (library.find('/') == std::string_view::npos) return;
  const std::string file(library);
  PathCheck path(place, "library", file, mistakes);
  if (path.CheckWhole() && path.CheckThere() && !May(file, R_OK)) {
    path.Add(" may not be read", kOtherUser);
  }
}

void CheckDocumentPath(const Place& place, const std::string& document, Mistakes& mistakes) {
  if (!May(kDocumentViewer, X_OK)) {
    mistakes.Add(place, "there is no " + Quoted(kDocumentViewer),
                 "it shows documents: install xdg-utils");
  }
  if (HoldsPlaceholder(document) || document.find(':') != std::string::npos) return;
  std::string file = document;
  std::erase(file, '"');
  PathCheck path(place, "document", file, mistakes);
  if (path.CheckWhole()) static_cast<void>(path.CheckThere());
}

void CheckValuesPath(const Place& place, const std::string& file, Mistakes& mistakes) {
  if (HoldsPlaceholder(file)) return;
  PathCheck path(place, "file", file, mistakes);
  if (!path.CheckWhole() || !path.CheckThere()) return;
  if (!May(file, W_OK)) return path.Add(" may not be written", kOtherUser);
  const std::string copy = file + ".org";
  if (const std::string fault = FaultOfSavedCopy(file); !fault.empty()) {
    PathCheck(place, "saved copy", copy, mistakes)
        .Add(" is " + fault + ", so nothing is set",
             "a file of the service's user with one name is meant");
  }
  const std::string folder = FolderOf(file);
  if (May(folder, W_OK | X_OK) || May(copy, F_OK)) return;
  PathCheck(place, "folder", folder, mistakes)
      .Add(" may not be written, so there can be no saved copy '.org'", kOtherUser);
}

void CheckOutputPath(const Place& place, const std::string& file, Mistakes& mistakes) {
  if (file == "/dev/null") return;
  PathCheck path(place, "file", file, mistakes);
  if (path.CheckWhole() && !MayWrite(file)) path.Add(" may not be written", kOtherUser);
}

}  // namespace qixx::watch
