#include "runtime/loader.h"

#include <dlfcn.h>

#include <memory>
#include <utility>

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

/// The directories of the search; empty while not known.
struct Directories {
  CCritical lock;
  std::string install;
  std::string library;
};

/// Filled on first use, by whichever thread asks first. Never destroyed, because a command on a
/// thread of its own may outlive the static destructors.
Directories& KnownDirectories() {
  static NoDestructor<Directories> directories;
  return *directories;
}

/// The directory with a '/' at its end, where that is not too long.
std::string WithSlash(std::string directory) {
  if (!directory.ends_with('/') && directory.size() < kMaxText) directory.push_back('/');
  return directory;
}

std::string ReadInstallDirectory() {
  std::string directory;
  if (const auto settings = OpenSettings(SettingsScope::kSystemOnly)) {
    directory = settings->GetText("Install", "Directory").value_or("");
  }
  return directory.empty() ? kDefaultDirectory : WithSlash(std::move(directory));
}

/// Calls an entry point with a copy of the arguments that it may write to. Nothing when there is no
/// such function, or it threw.
std::optional<int> CallEntry(const SharedLibrary& library, const std::string& function,
                             std::string_view arguments) {
  std::string copy(arguments);
  const auto entry = library.FindSymbol<ExternalEntry>(function);
  if (entry == nullptr) return std::nullopt;
  int result = 0;
  if (!CallLibrary([&] { result = entry(0, library.Get(), copy.c_str(), 0); })) return std::nullopt;
  return result;
}

bool SplitAndCall(std::string_view text) {
  const std::size_t comma = text.find(',');
  if (comma == std::string_view::npos) return false;
  const std::size_t blank = text.find(' ', comma);
  if (blank == std::string_view::npos) return false;

  const std::string path(text.substr(0, comma));
  const std::string function(text.substr(comma + 1, blank - comma - 1));
  const SharedLibrary library = OpenLibrary(path);
  if (!library.IsOpen()) {
    TraceWrite("Helper - Failed to load '%s'", MaskedText(path).Text());
    return false;
  }
  return CallEntry(library, function, text.substr(blank + 1)).has_value();
}

}  // namespace

SharedLibrary& SharedLibrary::operator=(SharedLibrary&& other) noexcept {
  if (this != &other) {
    Close();
    handle_ = other.Release();
  }
  return *this;
}

void SharedLibrary::Close() {
  if (IsOpen()) ::dlclose(Release());
}

LibraryHandle SharedLibrary::Release() {
  return std::exchange(handle_, nullptr);
}

void* SharedLibrary::FindAddress(const std::string& name) const {
  // A null handle would search the program itself.
  return IsOpen() && !name.empty() ? ::dlsym(handle_, name.c_str()) : nullptr;
}

SharedLibrary OpenLibrary(const std::string& path) {
  return SharedLibrary(path.empty() ? nullptr : ::dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL));
}

std::optional<FoundLibrary> LoadLibrarySearch(const std::string& name) {
  if (name.empty()) return std::nullopt;
  std::string path = name;
  SharedLibrary library = OpenLibrary(path);
  // The directories are asked for only when they are needed, for the configuration may be read.
  for (const auto directory : {InstallDirectory, LibraryDirectory}) {
    if (library.IsOpen()) break;
    path = directory() + name;
    library = OpenLibrary(path);
  }
  if (!library.IsOpen()) return std::nullopt;
  if (path.size() > kMaxText) path.resize(kMaxText);
  return FoundLibrary{.library = std::move(library), .path = std::move(path)};
}

std::string InstallDirectory() {
  Directories& known = KnownDirectories();
  const CriticalScope hold(&known.lock);
  if (known.install.empty()) {
    if (!HasSettingsSource() || Product().prefix.empty()) return kDefaultDirectory;
    known.install = ReadInstallDirectory();
  }
  return known.install;
}

std::string LibraryDirectory() {
  Directories& known = KnownDirectories();
  const CriticalScope hold(&known.lock);
  if (known.library.empty()) known.library = kDefaultDirectory;
  return known.library;
}

void SetLibraryDirectory(std::string_view directory) {
  if (directory.size() > kMaxText) return;
  Directories& known = KnownDirectories();
  const CriticalScope hold(&known.lock);
  known.library = directory.empty() ? kDefaultDirectory : WithSlash(std::string(directory));
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
