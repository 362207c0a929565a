#include "runtime/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "runtime/descriptor.h"
#include "runtime/no_destructor.h"
#include "runtime/text.h"
#include "runtime/trace.h"

namespace qixx::runtime {
namespace {

constexpr const char* kLastResort = "/tmp/";

/// The first entry of this process's argument list, or the link to its program where the system
/// keeps one instead.
std::string ReadProgramPath() {
  const std::string process = "/proc/" + std::to_string(::getpid());
  const std::string arguments = ReadWholeFile(process + "/cmdline").value_or("");
  if (!arguments.empty()) return std::string(UpToZero(arguments));
  std::error_code missing;
  return std::filesystem::read_symlink(process + "/path/a.out", missing).string();
}

}  // namespace

std::optional<std::string> GetTempDirectory() {
  std::string_view variable = ViewOf(std::getenv("TEMP"));
  if (variable.empty()) variable = ViewOf(std::getenv("TMP"));
  if (!variable.empty()) {
    std::string directory(variable);
    if (directory.back() != '/') directory.push_back('/');
    if (directory.size() <= kMaxText) return directory;
  }
  if (!PathExists(std::string(kLastResort))) return std::nullopt;
  return kLastResort;
}

bool CreatePath(const std::string& path) {
  TraceWrite("Helper - Create path '%s'", path.c_str());
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    const std::string directory = path.substr(0, slash);
    std::error_code unknown;
    const bool isThere = ::mkdir(directory.c_str(), S_IRWXU) == 0 ||
                         std::filesystem::is_directory(directory, unknown);
    if (!isThere) return false;
  }
  return true;
}

bool PathExists(const std::string& path) {
  if (path.empty()) return false;
  std::string name = path;
  if (name.size() > 1 && name.back() == '/') name.pop_back();
  struct stat status {};
  return ::stat(name.c_str(), &status) == 0;
}

std::optional<std::string> ReadWholeFile(const std::string& path) {
  const Descriptor file = OpenRegular(path, O_RDONLY);
  if (!file.IsOpen()) return std::nullopt;
  return ReadToEnd(file, kMaxFileSize);
}

std::string GetCallingApplication() {
  // Outlives the static destructors, like the trace that names it.
  static NoDestructor<std::string> known;
  if (!known->empty()) return *known;
  std::string path = ReadProgramPath();
  TraceReleaseOneLine();
  TraceWrite("Helper - Calling application: '%s'", path.c_str());
  // One that is too long is looked up again at the next question.
  if (path.size() > kMaxText) return {};
  *known = path;
  return path;
}

std::optional<std::string> GetStoredCredential(std::string_view /*name*/) {
  return std::nullopt;
}

void ResetStoredCredential(std::string_view /*name*/) {}

}  // namespace qixx::runtime
