// One writer of a configuration file at a time.
#pragma once

#include <string>

#include "runtime/file_place.h"

namespace qixx::watch {

struct FolderQueue;

/// Holds a file for a scope, against other threads of the process and against other services: extra
/// watchers answer the same event, often with the same file. What is locked is the file's folder,
/// because the file itself is replaced, so a file system that gives no answer holds up no other.
/// Threads wait for each other without end. Anybody may hold the lock against other services, so
/// for that one nobody waits longer than BeginEvent says, and a file system may have none: losing a
/// value of two writers is the worst that comes of going on without it.
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
  runtime::FoundFile file_;
  FolderQueue& queue_;
};

}  // namespace qixx::watch
