// Product identity, paths and files.
//
// Texts go into caller-owned areas, and what is too long for its area is dropped, never cut.
// Nothing is thrown; a failure shows in what is returned (false, 0, an empty text). All operations
// may be called from any thread once InitProductIdentity and the first GetCallingApplication have
// run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace qixx::runtime {

/// The product's names. All of them are empty until InitProductIdentity has run.
struct ProductIdentity {
  const char* prefix = "";         ///< three letters that every other name is formed from
  const char* name = "";           ///< the suite's name, also the application name of token data
  const char* mainLibrary = "";    ///< file name of the main library
  const char* pkcs11Library = "";  ///< file name of the PKCS#11 library
  const char* mainProgram = "";    ///< name of the main program
  const char* configFile = "";     ///< file name of the configuration
};

void InitProductIdentity();
[[nodiscard]] const ProductIdentity& Product();

/// "TEMP", else "TMP", else "/tmp/" when it exists; ends in '/'. A variable that does not fit leads
/// to "/tmp/" as well. Returns the length, 0 for none.
std::size_t GetTempDirectory(std::span<char> area);
/// A file name of this process in the temporary directory; false when there is no such directory
/// or the area is too small, and then the area is left alone.
[[nodiscard]] bool MakeTempFileName(const char* name, std::span<char> area);
/// Makes every directory of `path` that ends in '/', with mode 0700. Existing ones are no error.
bool CreatePath(const char* path);
bool DeleteFile(const char* path);
/// Copies the content alone, between regular files. True when both could be opened, whatever became
/// of the copying; CopyFileSafely tells more. No destination is made for a missing source.
[[nodiscard]] bool CopyFile(const char* source, const char* destination);
/// Makes `destination` a copy of a regular file. A new destination gets the permissions of the
/// source, an old one keeps its own; so it is with owner and group where the system allows it. The
/// copy is written under another name beside the destination and takes its name when complete:
/// whatever fails or dies on the way, the old destination stays whole. A destination that is a link
/// is replaced, not followed; a device, a pipe and a file that may not be written are left alone.
[[nodiscard]] bool CopyFileSafely(const char* source, const char* destination);
/// "/tmp/" is tested as "/tmp", "/" as it stands. False for an empty path.
[[nodiscard]] bool PathExists(const char* path);
/// 0 for everything but a readable regular file.
[[nodiscard]] std::size_t GetFileSize(const char* path);

/// Larger files are not read.
inline constexpr std::size_t kMaximumFileSize = std::size_t{64} * 1024 * 1024;

/// Reads a whole regular file into a new array that the caller frees with delete[]. Returns the
/// length; 0 and null for an empty file and on every failure, also one midway.
[[nodiscard]] std::size_t ReadWholeFile(const char* path, std::uint8_t*& data);
/// Empties the regular file, or makes it, and writes the data. True when it could be opened; what
/// became of the writing is told by WriteWholeFileSafely only.
[[nodiscard]] bool WriteWholeFile(std::span<const std::uint8_t> data, const char* path);
/// Gives an existing regular file a new content in the manner of CopyFileSafely: whatever fails or
/// dies on the way, it holds all of the old content or all of the new.
[[nodiscard]] bool WriteWholeFileSafely(std::span<const std::uint8_t> data, const char* path);

/// How this program was called: argv[0], not resolved.
bool GetCallingApplication(std::span<char> area);
/// The directory part of the calling application, with its '/'; false and empty without one.
bool GetCurrentDirectory(std::span<char> area);

/// Replaces "%Current%" and "%InstallLocation%" (as written here or in capitals) in a configured
/// path and collapses doubled slashes and backslashes; a text with "://" is left alone. With
/// `prefixInstall` a bare name is put behind the installation directory, where there is room.
/// True when the text is not empty.
bool ExpandPath(std::span<char> text, bool prefixInstall = true);
/// Replaces %NAME% by environment variables, at most 256 times. Each search starts from the front,
/// so a value is expanded again; "%%" is removed. False when nothing was replaced.
bool ExpandEnvironment(std::span<char> text);

/// Short name of the operating system; false when even "Unknown" does not fit.
bool GetSystemName(std::span<char> area);

/// This platform keeps no credential store: always false, the area is left alone.
bool GetStoredCredential(const char* name, std::span<char> area);
/// Likewise: does nothing.
void ResetStoredCredential(const char* name);

}  // namespace qixx::runtime
