// Paths and files.
//
// A text that would be longer than kMaxText where a limit is named is dropped, never cut. A failure
// shows in what is returned; only std::bad_alloc is thrown. All operations may be called from any
// thread once InitProductIdentity and the first GetCallingApplication have run.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace qixx::runtime {

/// Larger files are not read.
inline constexpr std::size_t kMaxFileSize = std::size_t{64} * 1024 * 1024;

/// "TEMP", else "TMP", else "/tmp/" when it exists; ends in '/'. A variable that is longer than
/// kMaxText with its '/' leads to "/tmp/" as well.
[[nodiscard]] std::optional<std::string> GetTempDirectory();
/// Makes every directory of `path` that ends in '/', with mode 0700. Existing ones are no error.
bool CreatePath(const std::string& path);
/// "/tmp/" is tested as "/tmp", "/" as it stands. False for an empty path.
[[nodiscard]] bool PathExists(const std::string& path);

/// The content of a regular file of at most kMaxFileSize bytes; nothing on every failure, also one
/// midway.
[[nodiscard]] std::optional<std::string> ReadWholeFile(const std::string& path);

/// How this program was called: argv[0], not resolved. Empty when the system does not tell, or it
/// is longer than kMaxText.
std::string GetCallingApplication();

/// spare: this platform keeps no credential store, so there is never one.
[[nodiscard]] std::optional<std::string> GetStoredCredential(std::string_view name);
/// spare: does nothing, for the same reason.
void ResetStoredCredential(std::string_view name);

}  // namespace qixx::runtime
