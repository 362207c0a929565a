// Spare: asked of this layer by the suite's design, built, called by nothing in this
// program.
//
// Further operations on paths and files, under the rules of runtime/files.h.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qixx::runtime {

/// Longest name (without its directory) that MakeTempFileName makes.
inline constexpr std::size_t kMaxTempName = 63;
/// Longest name of a variable that ExpandEnvironment looks up.
inline constexpr std::size_t kMaxVariableName = 97;

/// The path of a file of this process in the temporary directory, at most kMaxText long.
[[nodiscard]] std::optional<std::string> MakeTempFileName(std::string_view name);
bool DeleteFile(const std::string& path);
/// 0 for everything but a readable regular file.
[[nodiscard]] std::uint64_t GetFileSize(const std::string& path);
/// Copies the content alone, between regular files. True when both could be opened, whatever became
/// of the copying. No destination is made for a missing source.
[[nodiscard]] bool CopyFile(const std::string& source, const std::string& destination);
/// Empties the regular file, or makes it, and writes the data. True when it could be opened,
/// whatever became of the writing. Configuration files are written by runtime/replace_file.h.
[[nodiscard]] bool WriteWholeFile(const std::string& path, std::string_view data);

/// The directory part of the calling application, with its '/'; empty without one.
[[nodiscard]] std::string GetCurrentDirectory();
/// Replaces "%Current%" and "%InstallLocation%" (as written here or in capitals) in a configured
/// path and collapses doubled slashes and backslashes; a text with "://" is left alone. With
/// `prefixInstall` a bare name is put behind the installation directory. Whatever would make the
/// text longer than kMaxText is left out.
[[nodiscard]] std::string ExpandPath(std::string_view text, bool prefixInstall = true);
/// Replaces %NAME% by environment variables, at most 256 times. Each search starts from the front,
/// so a value is expanded again; "%%" is removed. Stops at a value that would make the text longer
/// than kMaxText. Nothing when nothing was replaced.
[[nodiscard]] std::optional<std::string> ExpandEnvironment(std::string_view text);

/// Short name of the operating system, "Unknown" when it does not tell one of at most kMaxText.
[[nodiscard]] std::string GetSystemName();

}  // namespace qixx::runtime
