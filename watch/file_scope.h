// One writer of a configuration file at a time.
#pragma once

#include <string>

#include "runtime/descriptor.h"
#include "runtime/sync.h"

namespace qixx::watch {

/// The file behind symbolic links: it is the one to replace, and the link stays. A path that leads
/// nowhere yet is its own answer; for a link that leads nowhere, as while a network is away, it is
/// the empty text.
[[nodiscard]] std::string ResolveLinks(const std::string& path);

/// Holds a file for a scope, against other threads of the process (one lock for all files) and
/// against other services: extra watchers answer the same event, often with the same file. Those
/// are held off by a lock on the file's folder, because the file itself is replaced; whoever holds
/// it for more than two seconds, and a file system without locks, is not waited for.
class FileScope {
 public:
  explicit FileScope(const std::string& file);
  ~FileScope();
  FileScope(const FileScope&) = delete;
  FileScope& operator=(const FileScope&) = delete;

 private:
  runtime::CriticalScope hold_;
  runtime::Descriptor folder_;
};

}  // namespace qixx::watch
