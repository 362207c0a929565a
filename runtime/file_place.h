// Where a configuration file or a command's output is, found so that no other user decides it.
//
// A path is walked folder by folder, each opened inside the one before, and what is done to a file
// is done inside its open folder. So whoever may rename things on the way gains nothing by doing it
// at the right moment. A link counts only when it belongs to the service's user or to root: anybody
// else could lead a privileged service to a file that they cannot reach themselves.
//
// All operations may be called from any thread. Only std::bad_alloc is thrown.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>

#include "runtime/descriptor.h"

namespace qixx::runtime {

/// A name in an open folder; whether there is a file of that name is another question.
class FilePlace {
 public:
  /// Nowhere: nothing can be opened there.
  FilePlace() = default;
  /// `path` is how the trace names the place.
  FilePlace(std::shared_ptr<const Descriptor> folder, std::string name, std::string path);

  /// Opened for reading where that is allowed, else as a mere place (O_PATH); -1 for nowhere.
  [[nodiscard]] int Folder() const;
  [[nodiscard]] const std::string& Name() const { return name_; }
  /// For the trace: secrets in it are masked.
  [[nodiscard]] const std::string& Path() const { return path_; }
  /// The place in the same folder whose name is longer by `suffix`.
  [[nodiscard]] FilePlace WithSuffix(std::string_view suffix) const;

  /// True when nothing has that name for certain, not when it only cannot be reached now; a
  /// default-made place is not missing.
  [[nodiscard]] bool IsMissing() const;
  /// As runtime::OpenRegular, but a link is not followed.
  [[nodiscard]] Descriptor Open(int flags, mode_t mode = 0) const;

 private:
  std::shared_ptr<const Descriptor> folder_;
  std::string name_;
  std::string path_;
};

struct FoundFile {
  FilePlace named;                ///< the path's last name itself
  FilePlace real;                 ///< the same, or where it leads when it is a link
  const char* refusal = nullptr;  ///< why a link was not followed, null when all were
};
/// Whether a file of that owner is the service's own, or root's.
[[nodiscard]] bool IsTrustedOwner(uid_t owner);
/// Whether an open file or folder is in /proc. A link to an open pipe there has no path, so
/// FindFile ends with the link itself.
[[nodiscard]] bool IsInProc(int file);
/// Nowhere when a folder is missing or may not be entered, or the path names none but folders. A
/// link that does not count is traced, and so is a path through more links than the system follows.
[[nodiscard]] FoundFile FindFile(const std::string& path);

/// Traces that a file is not touched, and why. Allocates nothing, so the path is masked already.
void TraceRefusal(const std::string& path, const char* reason);
/// For a file that was opened at this place. False, and traced, when it has more than one name,
/// since the others could be anywhere, and when its last name was taken away.
[[nodiscard]] bool HasOneName(const Descriptor& file, const FilePlace& place);

}  // namespace qixx::runtime
