#include "watch/check_library.h"

#include <dirent.h>

#include <memory>

#include "runtime/files.h"
#include "runtime/loader.h"
#include "runtime/product.h"
#include "watch/check_target.h"
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

CardLibraryCheck::CardLibraryCheck(const std::string& devices, Mistakes& mistakes)
    : devices_(devices), mistakes_(mistakes), directory_(runtime::LibraryDirectory()) {}

void CardLibraryCheck::CheckDirectory(CheckedConfiguration& configuration) {
  const std::optional<CheckedValue> value =
      configuration.Read("Install", "Directory", kMaxOption, mistakes_);
  if (!value || value->text.empty()) return;
  directory_ = value->text.substr(0, kMaxOption);
  if (!directory_.ends_with('/')) directory_ += '/';
  const std::string library = LibraryName();
  if (!IsFolder(directory_)) {
    mistakes_.Add(value->place, "there is no folder " + Quoted(directory_),
                  "the folder of '" + library + "' is meant");
  } else if (!runtime::PathExists(directory_ + library) &&
             !runtime::PathExists(runtime::LibraryDirectory() + library)) {
    mistakes_.Add(value->place, "there is no '" + library + "' in " + Quoted(directory_),
                  "the folder of that library is meant");
  }
}

void CardLibraryCheck::CheckReaders(const Place& watcher) {
  if (!confusing_) confusing_ = CountConfusingReaders();
  if (*confusing_ == 0) return;
  mistakes_.Add(watcher,
                "with '-sync' and " + std::to_string(*confusing_) +
                    " readers an event of an empty one makes the service forget the card",
                "the bridge is meant, which tells of one card at a time, or no '-sync'");
}

/// A single reader confuses nobody, nor do those behind the bridge.
std::size_t CardLibraryCheck::CountConfusingReaders() const {
  const std::size_t readers = CountReaders(devices_);
  return readers < 2 || IsBridge(directory_ + LibraryName()) ? 0 : readers;
}

}  // namespace qixx::watch
