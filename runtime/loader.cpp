#include "runtime/loader.h"

#include <dlfcn.h>
#include <link.h>

#include <atomic>
#include <utility>

#include "runtime/library_call.h"
#include "runtime/no_destructor.h"
#include "runtime/product.h"
#include "runtime/secrets.h"
#include "runtime/settings.h"
#include "runtime/sync.h"
#include "runtime/trace.h"

namespace qixx::runtime {
namespace {

constexpr const char* kDefaultDirectory = "/usr/lib/";
constexpr const char* kAdminEntry = "EntryAdmin";

constinit std::atomic<bool> loaderBroken{false};

/// Has the platform's loader run code of the library: its constructors or destructors.
template <typename Operation>
void UseLoader(std::string_view path, const Operation& operation) {
  if (loaderBroken || CallLibrary(operation)) return;
  loaderBroken = true;
  TraceWrite("Helper - Exception in the loader at '%s'", MaskedText(path).Text());
}

/// The directories of the search.
struct Directories {
  CCritical lock;
  std::string install;  ///< empty while not known
  std::string library = kDefaultDirectory;
};

/// Filled on first use, by whichever thread asks first. Never destroyed, because a command on a
/// thread of its own may outlive the static destructors.
Directories& KnownDirectories() {
  static NoDestructor<Directories> directories;
  return *directories;
}

/// The directory with a '/' at its end, where that is not too long; the usual one for an empty
/// text.
std::string AsDirectory(std::string text) {
  if (text.empty()) return kDefaultDirectory;
  if (!text.ends_with('/') && text.size() < kMaxText) text.push_back('/');
  return text;
}

/// To be called right behind the open.
void NoteFailedOpen(const std::string& path, std::vector<FailedOpen>* failed) {
  if (failed == nullptr) return;
  const char* const reason = loaderBroken ? "the library threw while it was opened" : ::dlerror();
  failed->push_back({path, reason == nullptr ? "" : reason});
}

/// Without the program itself, which has no name there.
std::vector<std::string> LoadedFiles() {
  const auto addName = [](dl_phdr_info* info, std::size_t /*size*/, void* names) {
    const std::string_view name = ViewOf(info->dlpi_name);
    if (!name.empty()) static_cast<std::vector<std::string>*>(names)->emplace_back(name);
    return 0;
  };
  std::vector<std::string> names;
  ::dl_iterate_phdr(addName, &names);
  return names;
}

/// Whether the function is the loaded library's own, not that of one that it needs.
bool Defines(const std::string& path, const std::string& function) {
  const SharedLibrary library(::dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD));
  void* const address = library.FindSymbol<void*>(function);
  Dl_info owner = {};
  return address != nullptr && ::dladdr(address, &owner) != 0 && path == owner.dli_fname;
}

/// Calls an entry point with a copy of the arguments that it may write to. Nothing when there is no
/// such function, or it did not come back.
std::optional<int> CallEntry(const SharedLibrary& library, const std::string& function,
                             std::string_view arguments) {
  std::string copy(arguments);
  const auto entry = library.FindSymbol<ExternalEntry>(function);
  if (entry == nullptr) return std::nullopt;
  int result = 0;
  if (!CallLibrary([&] { result = entry(0, library.Get(), copy.data(), 0); })) return std::nullopt;
  return result;
}

bool SplitAndCall(std::string_view text) {
  const std::optional<ExternalCall> call = ParseExternalCall(text);
  if (!call) return false;
  const std::string path(call->library);
  const SharedLibrary library = OpenLibrary(path);
  if (!library.IsOpen()) {
    TraceWrite("Helper - Failed to load '%s'", MaskedText(path).Text());
    return false;
  }
  return CallEntry(library, std::string(call->function), call->arguments).has_value();
}

}  // namespace

void CloseLibrary::operator()(LibraryHandle handle) const {
  UseLoader("dlclose", [handle] { ::dlclose(handle); });
}

void* SharedLibrary::FindAddress(const std::string& name) const {
  // A null handle would search the program itself.
  return IsOpen() && !name.empty() ? ::dlsym(Get(), name.c_str()) : nullptr;
}

void* SharedLibrary::FindOwnAddress(const std::string& name) const {
  void* const address = FindAddress(name);
  if (address == nullptr) return nullptr;
  Dl_info ignored;
  link_map* asked = nullptr;
  void* owner = nullptr;
  const bool known = ::dlinfo(Get(), RTLD_DI_LINKMAP, &asked) == 0 &&
                     ::dladdr1(address, &ignored, &owner, RTLD_DL_LINKMAP) != 0;
  return known && owner == asked ? address : nullptr;
}

SharedLibrary OpenLibrary(const std::string& path, SymbolScope scope) {
  LibraryHandle handle = nullptr;
  const int flags = RTLD_NOW | (scope == SymbolScope::kGlobal ? RTLD_GLOBAL : RTLD_LOCAL);
  if (!path.empty()) {
    UseLoader(path, [&] { handle = ::dlopen(path.c_str(), flags); });
  }
  return SharedLibrary(handle);
}

bool IsLoaderBroken() {
  return loaderBroken;
}

std::optional<FoundLibrary> LoadLibrarySearch(const std::string& name,
                                              std::vector<FailedOpen>* failed) {
  if (name.empty()) return std::nullopt;
  std::string path = name;
  SharedLibrary library = OpenLibrary(path);
  // The directories are asked for only when they are needed, for the configuration may be read.
  for (const auto directory : {InstallDirectory, LibraryDirectory}) {
    if (library.IsOpen()) break;
    NoteFailedOpen(path, failed);
    path = directory() + name;
    library = OpenLibrary(path);
  }
  if (!library.IsOpen()) {
    NoteFailedOpen(path, failed);
    return std::nullopt;
  }
  if (path.size() > kMaxText) path.resize(kMaxText);
  return FoundLibrary{.library = std::move(library), .path = std::move(path)};
}

std::vector<std::string> LibrariesDefining(const std::string& function) {
  if (loaderBroken) return {};
  std::vector<std::string> paths = LoadedFiles();
  std::erase_if(paths, [&function](const std::string& path) { return !Defines(path, function); });
  return paths;
}

std::string InstallDirectory() {
  Directories& known = KnownDirectories();
  const CriticalScope hold(&known.lock);
  if (known.install.empty()) {
    const auto settings =
        Product().prefix.empty() ? nullptr : OpenSettings(SettingsScope::kSystemOnly);
    if (settings == nullptr) return kDefaultDirectory;
    known.install = AsDirectory(settings->GetText("Install", "Directory").value_or(""));
  }
  return known.install;
}

std::string LibraryDirectory() {
  Directories& known = KnownDirectories();
  const CriticalScope hold(&known.lock);
  return known.library;
}

void SetLibraryDirectory(std::string_view directory) {
  if (directory.size() > kMaxText) return;
  Directories& known = KnownDirectories();
  const CriticalScope hold(&known.lock);
  known.library = AsDirectory(std::string(directory));
}

std::optional<ExternalCall> ParseExternalCall(std::string_view text) {
  const std::size_t comma = text.find(',');
  if (comma == std::string_view::npos) return std::nullopt;
  const std::size_t blank = text.find(' ', comma);
  if (blank == std::string_view::npos) return std::nullopt;
  return ExternalCall{.library = text.substr(0, comma),
                      .function = text.substr(comma + 1, blank - comma - 1),
                      .arguments = text.substr(blank + 1)};
}

bool CallExternal(std::string_view text) {
  TraceWrite("Helper - Call external ...");
  const bool called = SplitAndCall(text);
  TraceWrite("Helper - Call external ... %s", called ? "OK" : "FAILED");
  return called;
}

int CallAdminEntry(std::string_view arguments) {
  const SharedLibrary library = OpenLibrary(std::string(Product().mainLibrary));
  return CallEntry(library, kAdminEntry, arguments).value_or(-1);
}

}  // namespace qixx::runtime
