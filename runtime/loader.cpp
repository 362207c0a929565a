#include "runtime/loader.h"

#include <dlfcn.h>

#include <bit>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "runtime/files.h"
#include "runtime/lasting.h"
#include "runtime/secrets.h"
#include "runtime/settings.h"
#include "runtime/sync.h"
#include "runtime/trace.h"

namespace qixx::runtime {
namespace {

constexpr const char* kDefaultDirectory = "/usr/lib/";
constexpr const char* kAdminEntry = "EntryAdmin";

/// Empty while not known.
constinit char installDirectory[kTextSize] = "";
constinit char libraryDirectory[kTextSize] = "";

/// Held while a directory is filled: a command on a thread of its own may be the first to ask.
/// In static storage and never destroyed, because such a thread may outlive the static destructors.
CCritical& DirectoryLock() {
  static Lasting<CCritical> lock;
  return *lock;
}

/// Stands for a load that was tried and failed.
LibraryHandle FailedHandle() {
  return std::bit_cast<LibraryHandle>(~std::uintptr_t{0});
}

void AppendSlash(std::span<char> directory) {
  const std::size_t length = TextOf(directory).size();
  if (length == 0 || directory[length - 1] == '/' || length + 1 >= directory.size()) return;
  directory[length] = '/';
  directory[length + 1] = '\0';
}

void ReadInstallDirectory(RuntimeSettings& settings, std::span<char> directory) {
  if (settings.Open(SettingsScope::kSystemOnly)) {
    (void)settings.GetText("Install", "Directory", directory);
    settings.Close();
  }
  if (directory[0] == '\0') CopyTextCut(directory, kDefaultDirectory);
  AppendSlash(directory);
}

LibraryHandle OpenNoting(const std::string& name, std::span<char> path) {
  const LibraryHandle library = OpenLibrary(name.c_str());
  if (library != nullptr) CopyTextCut(path, name);
  return library;
}

/// An open library for a scope.
class ScopedLibrary {
 public:
  explicit ScopedLibrary(const char* path) : handle_(OpenLibrary(path)) {}
  ~ScopedLibrary() { CloseLibrary(handle_); }
  ScopedLibrary(const ScopedLibrary&) = delete;
  ScopedLibrary& operator=(const ScopedLibrary&) = delete;

  [[nodiscard]] bool IsOpen() const { return handle_ != nullptr; }
  /// Calls the function with a copy of the arguments that it may keep for the call or write to.
  /// False when there is no such function, or it threw.
  bool Call(const char* function, const char* arguments, int& result) const {
    char* copied = nullptr;
    Duplicate(arguments == nullptr ? "" : arguments, copied);
    const std::unique_ptr<char[]> copy(copied);
    const auto entry = reinterpret_cast<ExternalEntry>(FindSymbol(handle_, function));
    if (entry == nullptr || copy == nullptr) return false;
    return CallLibrary([&] { result = entry(0, handle_, copy.get(), 0); });
  }

 private:
  LibraryHandle handle_;
};

/// Writes a terminator over a separator and puts the separator back at the end of the scope.
class ScopedCut {
 public:
  explicit ScopedCut(char* place) : place_(place), separator_(*place) { *place_ = '\0'; }
  ~ScopedCut() { *place_ = separator_; }
  ScopedCut(const ScopedCut&) = delete;
  ScopedCut& operator=(const ScopedCut&) = delete;

 private:
  char* place_;
  char separator_;
};

bool SplitAndCall(char* text) {
  const std::string_view whole = ViewOf(text);
  const std::size_t comma = FindChar(whole, ',');
  if (comma == std::string_view::npos) return false;
  const std::size_t blank = whole.find(' ', comma);
  if (blank == std::string_view::npos) return false;

  const ScopedCut behindPath(text + comma);
  const ScopedCut behindFunction(text + blank);
  const ScopedLibrary library(text);
  if (!library.IsOpen()) {
    TraceWrite("Helper - Failed to load '%s'", MaskedText(text).Text());
    return false;
  }
  int ignored = 0;
  return library.Call(text + comma + 1, text + blank + 1, ignored);
}

CLibrary processLibrary;

}  // namespace

LibraryHandle OpenLibrary(const char* path) {
  return ViewOf(path).empty() ? nullptr : ::dlopen(path, RTLD_NOW | RTLD_GLOBAL);
}

LibraryHandle LoadLibrarySearch(const char* name, std::span<char> path) {
  if (ViewOf(name).empty()) return nullptr;
  try {
    LibraryHandle library = OpenNoting(name, path);
    if (library == nullptr) library = OpenNoting(std::string(InstallDirectory()) + name, path);
    if (library == nullptr) library = OpenNoting(std::string(LibraryDirectory()) + name, path);
    return library;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void CloseLibrary(LibraryHandle library) {
  if (library != nullptr) ::dlclose(library);
}

void* FindSymbol(LibraryHandle library, const char* symbol) {
  // A null handle would search the program itself.
  if (library == nullptr || ViewOf(symbol).empty()) return nullptr;
  return ::dlsym(library, symbol);
}

const char* InstallDirectory() {
  const CriticalScope hold(&DirectoryLock());
  if (installDirectory[0] != '\0') return installDirectory;
  RuntimeSettings* const settings = GetRuntimeSettings();
  if (settings == nullptr || ViewOf(Product().prefix).empty()) return kDefaultDirectory;
  char directory[kTextSize] = "";
  ReadInstallDirectory(*settings, directory);
  CopyTextCut(installDirectory, TextOf(directory));
  return installDirectory;
}

const char* LibraryDirectory() {
  const CriticalScope hold(&DirectoryLock());
  if (libraryDirectory[0] == '\0') SetLibraryDirectory(nullptr);
  return libraryDirectory;
}

void SetLibraryDirectory(const char* directory) {
  const std::string_view wanted = ViewOf(directory);
  if (!CopyTextIfFits(libraryDirectory, wanted.empty() ? kDefaultDirectory : wanted)) return;
  AppendSlash(libraryDirectory);
}

CLibrary::~CLibrary() {
  CLibrary::Unload();
}

bool CLibrary::IsOpen() const {
  return handle_ != nullptr && handle_ != FailedHandle();
}

bool CLibrary::Open(const char* name) {
  handle_ = LoadLibrarySearch(name, path_);
  if (handle_ == nullptr) {
    handle_ = FailedHandle();
    return false;
  }
  TraceWrite("Helper - Loaded '%s'", path_);
  return true;
}

bool CLibrary::Load(const char* name) {
  if (handle_ != nullptr) return IsOpen();
  if (Open(name)) return true;
  TraceWrite("Helper - Failed to load '%s'", name);
  return false;
}

bool CLibrary::LoadComponent(const char* component) {
  if (handle_ != nullptr) return IsOpen();
  char name[kTextSize];
  const int length = std::snprintf(name, sizeof name, "%sx%s.so", Product().prefix,
                                   component == nullptr ? "" : component);
  const bool fits = length > 0 && static_cast<std::size_t>(length) < sizeof name;
  if (Open(fits ? name : "")) return true;
  TraceWrite("Helper - Component '%s' not available", component);
  return false;
}

void CLibrary::Unload() {
  if (IsOpen()) {
    CloseLibrary(handle_);
    TraceWrite("Helper - Unloaded '%s'", path_);
  }
  handle_ = nullptr;
}

bool CLibrary::IsLoaded() const {
  return handle_ != nullptr;
}

void* CLibrary::GetProc(const char* symbol) const {
  return IsOpen() ? FindSymbol(handle_, symbol) : nullptr;
}

CLibrary& ProcessLibrary() {
  return processLibrary;
}

bool CallExternal(char* text) {
  TraceWrite("Helper - Call external ...");
  const bool called = SplitAndCall(text);
  TraceWrite("Helper - Call external ... %s", called ? "OK" : "FAILED");
  return called;
}

int CallAdminEntry(const char* arguments) {
  int result = -1;
  const ScopedLibrary library(Product().mainLibrary);
  if (library.IsOpen()) library.Call(kAdminEntry, arguments, result);
  return result;
}

}  // namespace qixx::runtime
