#include "watch/check_library.h"

#include <dirent.h>

#include <memory>
#include <optional>

#include "runtime/files.h"
#include "runtime/loader.h"
#include "runtime/product.h"
#include "watch/check_paths.h"
#include "watch/options.h"

namespace qixx::watch {
namespace {

std::string LibraryName() {
  return std::string(runtime::Product().pkcs11Library);
}

/// USB devices of the class of card readers.
std::size_t CountReaders(const std::string& devices) {
  std::size_t count = 0;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(devices.c_str()), ::closedir);
  if (folder == nullptr) return 0;
  while (const dirent* const entry = ::readdir(folder.get())) {
    const std::string path = devices + "/" + entry->d_name + "/bInterfaceClass";
    if (runtime::ReadWholeFile(path).value_or("").starts_with("0b")) ++count;
  }
  return count;
}

/// The bridge keeps back what an empty second reader tells of; it is known by its event descriptor.
bool IsBridge(const std::string& library) {
  const std::string content = runtime::ReadWholeFile(library).value_or("");
  return content.find("QixEventDescriptor") != std::string::npos;
}

}  // namespace

std::string CheckLibraryDirectory(CheckedConfiguration& configuration, Mistakes& mistakes) {
  const std::optional<CheckedValue> value =
      configuration.Read("Install", "Directory", kMaxOption, mistakes);
  if (!value || value->text.empty()) return runtime::LibraryDirectory();
  std::string directory = value->text.substr(0, kMaxOption);
  if (!directory.ends_with('/')) directory += '/';
  const std::string library = LibraryName();
  if (!IsFolder(directory)) {
    mistakes.Add(value->place, "there is no folder " + Quoted(directory),
                 "the folder of '" + library + "' is meant");
  } else if (!runtime::PathExists(directory + library) &&
             !runtime::PathExists(runtime::LibraryDirectory() + library)) {
    mistakes.Add(value->place, "there is no '" + library + "' in " + Quoted(directory),
                 "the folder of that library is meant");
  }
  return directory;
}

std::size_t CountConfusingReaders(const std::string& devices, const std::string& directory) {
  const std::size_t readers = CountReaders(devices);
  return readers < 2 || IsBridge(directory + LibraryName()) ? 0 : readers;
}

}  // namespace qixx::watch
