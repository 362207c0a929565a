// Finding and calling shared libraries at run time.
//
// Symbols are bound at once and visible to all libraries. No open accepts an empty name, because
// the platform's loader would answer it with the program itself. All functions may be called from
// any thread; a CLibrary belongs to one at a time.
#pragma once

#include <cxxabi.h>

#include <cstddef>
#include <cstdint>
#include <span>

#include "runtime/text.h"

namespace qixx::runtime {

/// What the platform's loader hands out; null for none.
using LibraryHandle = void*;

/// Entry point of a library called by a command or for administration.
using ExternalEntry = int (*)(int zero, LibraryHandle library, const char* arguments, int reserved);

/// Opens exactly `path`, without search. Null on failure.
[[nodiscard]] LibraryHandle OpenLibrary(const char* path);
/// Opens the name as given, in the installation directory, in the library directory; the first
/// success counts. `path` (may be empty) tells which of these it was, cut to its size; it is left
/// alone on failure.
[[nodiscard]] LibraryHandle LoadLibrarySearch(const char* name, std::span<char> path);
void CloseLibrary(LibraryHandle library);
[[nodiscard]] void* FindSymbol(LibraryHandle library, const char* symbol);

/// Entry "Directory" of section "Install" with a '/' at its end, "/usr/lib/" when it is absent or
/// empty. Read once, as soon as the product identity is set up and the runtime has a source of
/// settings; before that the fallback is returned and not kept.
[[nodiscard]] const char* InstallDirectory();
/// "/usr/lib/" unless set.
[[nodiscard]] const char* LibraryDirectory();
/// A '/' is appended where it is missing. A directory that does not fit is ignored; null or empty
/// goes back to "/usr/lib/". To be called before there are other threads.
void SetLibraryDirectory(const char* directory);

/// An owned library that is loaded at most once between two unloads.
class CLibrary {
 public:
  CLibrary() = default;
  virtual ~CLibrary();
  CLibrary(const CLibrary&) = delete;
  CLibrary& operator=(const CLibrary&) = delete;

  /// Tries once; after a failure returns false without another try until Unload. True while a
  /// library is open.
  virtual bool Load(const char* name);
  /// The same for a part of the product: "adm" stands for "qixxadm.so".
  virtual bool LoadComponent(const char* component);
  virtual void Unload();
  /// True as soon as a load was tried, deliberately also after a failed one.
  [[nodiscard]] virtual bool IsLoaded() const;
  [[nodiscard]] virtual void* GetProc(const char* symbol) const;

 private:
  [[nodiscard]] bool IsOpen() const;
  bool Open(const char* name);

  LibraryHandle handle_ = nullptr;
  char path_[kTextSize] = {};
};

/// The one library object of the process itself; nothing is loaded at start, and what is loaded at
/// the exit of the program is unloaded there.
[[nodiscard]] CLibrary& ProcessLibrary();

/// Runs a call into somebody else's library; false when it threw. What a library throws may not
/// outlive it, so nothing comes through; but a thread that the library ends goes on ending (which
/// has no object to refer to, whatever the undefined-behaviour sanitizer says of that).
template <typename Operation>
__attribute__((no_sanitize("null"))) bool CallLibrary(const Operation& call) {
  try {
    call();
    return true;
  } catch (const abi::__forced_unwind&) {
    throw;
  } catch (...) {
    return false;
  }
}

/// "library path,function arguments": calls the function once. The text is cut while the library is
/// at work and whole again when this returns. No search for the library. True when the function was
/// called and returned; nothing that it throws comes through.
bool CallExternal(char* text);
/// Hands the arguments to the main library's "EntryAdmin". Returns its result, -1 when there is
/// none, or it threw.
int CallAdminEntry(const char* arguments);

}  // namespace qixx::runtime
