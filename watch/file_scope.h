// One writer of a configuration file at a time.
#pragma once

#include <string>

#include "runtime/file_place.h"
#include "runtime/sync.h"

namespace qixx::watch {

/// Holds a file for a scope, against other threads of the process (one lock for all files) and
/// against other services: extra watchers answer the same event, often with the same file. Those
/// are held off by a lock on the file's folder, because the file itself is replaced. Anybody may
/// hold that lock, so it is not waited for without end (see BeginEvent), and a file system may have
/// none: losing a value of two writers is the worst that comes of going on without it.
class FileScope {
 public:
  explicit FileScope(const std::string& path);
  ~FileScope();
  FileScope(const FileScope&) = delete;
  FileScope& operator=(const FileScope&) = delete;

  [[nodiscard]] const runtime::FoundFile& File() const { return file_; }

  /// From here on all scopes together, of every thread, wait for at most two seconds.
  static void BeginEvent();

 private:
  runtime::CriticalScope hold_;
  runtime::FoundFile file_;
};

}  // namespace qixx::watch
