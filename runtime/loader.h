// Finding and calling shared libraries at run time.
//
// Symbols are bound at once. No open accepts an empty name, because the platform's loader would
// answer it with the program itself. All functions may be called from any thread; a SharedLibrary
// belongs to one at a time. Only std::bad_alloc is thrown, whatever the code of a library that is
// opened or closed throws.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/text.h"

namespace qixx::runtime {

/// What the platform's loader hands out; null for none.
using LibraryHandle = void*;

/// Entry point of a library called by a command or for administration.
using ExternalEntry = int (*)(int zero, LibraryHandle library, char* arguments, int reserved);

struct CloseLibrary {
  void operator()(LibraryHandle handle) const;
};

/// An open library that closes itself; it may be none.
class SharedLibrary {
 public:
  SharedLibrary() = default;
  /// Takes the handle over.
  explicit SharedLibrary(LibraryHandle handle) : handle_(handle) {}

  [[nodiscard]] bool IsOpen() const { return handle_ != nullptr; }
  [[nodiscard]] LibraryHandle Get() const { return handle_.get(); }
  /// The library's function (or object) of that name, as a pointer of the wanted type; null when
  /// there is none.
  template <typename Pointer>
  [[nodiscard]] Pointer FindSymbol(const std::string& name) const {
    return reinterpret_cast<Pointer>(FindAddress(name));
  }
  /// The same, for what the library itself defines: nothing comes from the libraries that it needs.
  template <typename Pointer>
  [[nodiscard]] Pointer FindOwnSymbol(const std::string& name) const {
    return reinterpret_cast<Pointer>(FindOwnAddress(name));
  }
  void Close() { handle_.reset(); }
  /// Hands the open library over to the caller, who closes it or keeps it for good.
  [[nodiscard]] LibraryHandle Release() { return handle_.release(); }

 private:
  [[nodiscard]] void* FindAddress(const std::string& name) const;
  [[nodiscard]] void* FindOwnAddress(const std::string& name) const;

  std::unique_ptr<void, CloseLibrary> handle_;
};

/// Who sees the symbols of a library: all libraries, or who asks it for one.
enum class SymbolScope { kGlobal, kLocal };

/// Opens exactly `path`, without search. Not open on failure.
[[nodiscard]] SharedLibrary OpenLibrary(const std::string& path,
                                        SymbolScope scope = SymbolScope::kGlobal);
/// True once a library threw while it was opened or closed. The platform's loader has not come to
/// an end then: it keeps its lock, and would show that library as a sound one the next time. So
/// nothing is opened or closed any more; a process that this happened to ends by _exit.
[[nodiscard]] bool IsLoaderBroken();

struct FoundLibrary {
  SharedLibrary library;
  std::string path;  ///< the name that it was opened by, cut to kMaxText
};
/// A place where a library could not be opened, and why not in the words of the platform's loader.
struct FailedOpen {
  std::string path;
  std::string reason;
};
/// Opens the name as given, in the installation directory, in the library directory; the first
/// success counts. The places that were tried in vain go to the end of `failed`.
[[nodiscard]] std::optional<FoundLibrary> LoadLibrarySearch(
    const std::string& name, std::vector<FailedOpen>* failed = nullptr);

/// The files of the libraries in this process that define a function of this name, in the order in
/// which they were loaded.
[[nodiscard]] std::vector<std::string> LibrariesDefining(const std::string& function);

/// Entry "Directory" of section "Install" with a '/' at its end, "/usr/lib/" when it is absent or
/// empty. Read once, as soon as the product identity is set up and the runtime has a source of
/// settings; before that the fallback is returned and not kept.
[[nodiscard]] std::string InstallDirectory();
/// "/usr/lib/" unless set.
[[nodiscard]] std::string LibraryDirectory();
/// spare: a '/' is appended where it is missing. A directory longer than kMaxText is ignored; an
/// empty one goes back to "/usr/lib/".
void SetLibraryDirectory(std::string_view directory);

/// "library path,function arguments" taken apart, at the first comma and the first blank behind it.
struct ExternalCall {
  std::string_view library;
  std::string_view function;
  std::string_view arguments;
};
/// Nothing where one of the two is missing.
[[nodiscard]] std::optional<ExternalCall> ParseExternalCall(std::string_view text);

/// "library path,function arguments": calls the function once, with a copy of the arguments that it
/// may write to. No search for the library. True when the function was called and came back.
bool CallExternal(std::string_view text);
/// spare: hands the arguments to the main library's "EntryAdmin". Returns its result, -1 when there
/// is none, or it did not come back.
int CallAdminEntry(std::string_view arguments);

}  // namespace qixx::runtime
