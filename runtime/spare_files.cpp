#include "runtime/spare_files.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "runtime/descriptor.h"
#include "runtime/files.h"
#include "runtime/loader.h"
#include "runtime/product.h"
#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::runtime {
namespace {

/// A value that names its own variable would be expanded for ever.
constexpr int kMaxReplacements = 256;
constexpr const char* kSystemNameFile = "/etc/issue.net";

/// Replaces a placeholder of configured paths. The value is asked for only where it is needed,
/// because the configuration may be read for it.
void Replace(std::string& text, std::string_view placeholder, std::string (*value)()) {
  if (text.find(placeholder) == std::string::npos) return;
  ReplaceAll(text, placeholder, value(), kMaxText);
}

/// Makes one of every run of the character.
void CollapseRuns(std::string& text, char c) {
  const auto end =
      std::unique(text.begin(), text.end(), [c](char a, char b) { return a == c && b == c; });
  text.erase(end, text.end());
}

/// Replaces the first %NAME% of the text. False when there is none, or no room for the value.
bool ExpandFirstVariable(std::string& text) {
  const std::size_t begin = text.find('%');
  if (begin == std::string::npos) return false;
  const std::size_t end = text.find('%', begin + 1);
  if (end == std::string::npos) return false;
  const std::size_t nameLength = end - begin - 1;
  if (nameLength > kMaxVariableName) return false;

  const std::string name = text.substr(begin + 1, nameLength);
  const std::string_view value = ViewOf(std::getenv(name.c_str()));
  const std::size_t token = nameLength + 2;
  if (value.size() > token && text.size() - token + value.size() > kMaxText) return false;
  text.replace(begin, token, value);
  return true;
}

/// The name that the distribution shows before a remote login; a line end is no part of it. A text
/// that is too long as a whole is no name, even if it would not be once it is cut.
std::string ReadDistributionName() {
  const std::string content = ReadWholeFile(std::string(kSystemNameFile)).value_or("");
  const std::string_view text = UpToZero(content);
  const std::string_view name = text.substr(0, text.find_last_not_of("\n\r ") + 1);
  if (name.size() > kMaxText) return {};
  // "Debian GNU/Linux 12.4.1" becomes "Debian GNU/Linux 12.4".
  return std::string(name.substr(0, name.find('.', name.find('.') + 1)));
}

std::string ReadKernelName() {
  struct utsname system {};
  if (::uname(&system) != 0) return {};
  std::string name = std::string(system.sysname) + " " + system.release;
  return name.size() <= kMaxText ? name : std::string();
}

}  // namespace

std::optional<std::string> MakeTempFileName(std::string_view name) {
  char processId[16];
  std::snprintf(processId, sizeof processId, "%.4u", static_cast<unsigned>(::getpid()));
  std::string file("~");
  file.append(Product().prefix).append(name).append(processId).append(".txt");
  if (file.size() > kMaxTempName) return std::nullopt;
  std::optional<std::string> path = GetTempDirectory();
  if (!path || path->size() + file.size() > kMaxText) return std::nullopt;
  path->append(file);
  return path;
}

bool DeleteFile(const std::string& path) {
  TraceWrite("Helper - Delete file '%s'", path.c_str());
  return ::unlink(path.c_str()) == 0;
}

std::uint64_t GetFileSize(const std::string& path) {
  return static_cast<std::uint64_t>(StatusOf(OpenRegular(path, O_RDONLY)).st_size);
}

bool CopyFile(const std::string& source, const std::string& destination) {
  const Descriptor from = OpenRegular(source, O_RDONLY);
  if (!from.IsOpen()) return false;
  // A new copy of a private file must not be open to more eyes than the file.
  const mode_t mode = (StatusOf(from).st_mode & DEFFILEMODE) | S_IRUSR | S_IWUSR;
  const Descriptor to = OpenRegular(destination, O_WRONLY | O_CREAT, mode);
  if (!to.IsOpen()) return false;
  CopyContent(from, to);
  return true;
}

bool WriteWholeFile(const std::string& path, std::string_view data) {
  const Descriptor file = OpenRegular(path, O_WRONLY | O_CREAT | O_TRUNC, DEFFILEMODE);
  if (!file.IsOpen()) return false;
  WriteFully(file, data);
  return true;
}

std::string GetCurrentDirectory() {
  const std::string application = GetCallingApplication();
  return application.substr(0, application.rfind('/') + 1);
}

std::string ExpandPath(std::string_view text, bool prefixInstall) {
  std::string path(text);
  if (path.find("://") != std::string::npos) return path;
  Replace(path, "%Current%", GetCurrentDirectory);
  Replace(path, "%CURRENT%", GetCurrentDirectory);
  Replace(path, "%InstallLocation%", InstallDirectory);
  Replace(path, "%INSTALLLOCATION%", InstallDirectory);
  if (prefixInstall && path.find('/') == std::string::npos) {
    const std::string directory(InstallDirectory());
    if (directory.size() + path.size() <= kMaxText) path.insert(0, directory);
  }
  CollapseRuns(path, '\\');
  CollapseRuns(path, '/');
  return path;
}

std::optional<std::string> ExpandEnvironment(std::string_view text) {
  std::string expanded(text);
  int replacements = 0;
  while (replacements < kMaxReplacements && ExpandFirstVariable(expanded)) ++replacements;
  if (replacements == 0) return std::nullopt;
  return expanded;
}

std::string GetSystemName() {
  std::string name = ReadDistributionName();
  if (name.empty()) name = ReadKernelName();
  return name.empty() ? "Unknown" : name;
}

}  // namespace qixx::runtime
