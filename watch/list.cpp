#include "watch/list.h"

#include <cstdlib>
#include <utility>

#include "config/store.h"
#include "runtime/product.h"
#include "runtime/secrets.h"
#include "watch/configuration.h"
#include "watch/list_library.h"
#include "watch/options.h"
#include "watch/watch_main.h"

namespace qixx::watch {
namespace {

Wording ReasonOf(config::PathOrigin origin) {
  switch (origin) {
    case config::PathOrigin::kEnvironment:
      return FileReason::kEnvironment;
    case config::PathOrigin::kHome:
      return FileReason::kHome;
    case config::PathOrigin::kPerUserInstall:
      return FileReason::kPerUserInstall;
    case config::PathOrigin::kCurrentDirectory:
      return FileReason::kCurrentDirectory;
    default:
      return FileReason::kDefault;
  }
}

/// The configuration itself makes an empty text of whatever it cannot read.
ListedFile LookAtFile(Wording role, std::string path, Wording reason) {
  ListedFile file{role, std::move(path), reason, FileState::kUnreadable, {}};
  if (auto fault = WhyUnreadable(file.path)) {
    if (fault->isMissing) {
      file.state = FileState::kMissing;
    } else {
      file.fault = std::move(fault->why);
    }
    return file;
  }
  config::CConfig config;
  const bool isOpen = config.OpenItem(false, file.path) == config::ConfigResult::kOk;
  file.state = isOpen && config.HasText() ? FileState::kRead : FileState::kEmpty;
  return file;
}

std::vector<ListedFile> CollectFiles() {
  std::vector<ListedFile> files;
  const std::optional<config::ConfigPath> system = config::CConfig::LocateGlobal();
  const std::optional<config::ConfigPath> user = config::CConfig::LocateLocal();
  if (system) {
    files.push_back(LookAtFile(FileRole::kSystem, system->path, ReasonOf(system->origin)));
  }
  if (user) files.push_back(LookAtFile(FileRole::kUser, user->path, ReasonOf(user->origin)));
  if (const std::optional<std::string> path = LocalConfigurationPath()) {
    files.push_back(LookAtFile(FileRole::kProgram, *path, FileReason::kBesideProgram));
  }
  return files;
}

std::optional<ListedCommand> CollectCommand() {
  ListedCommand command;
  if (std::optional<std::string> local = ReadLocalWatchCommand()) {
    command = {*std::move(local), CommandSource::kProgramFile, {}};
  } else {
    config::CConfig config;
    if (config.OpenDefault(false) != config::ConfigResult::kOk) return std::nullopt;
    std::optional<config::ConfigValue> value =
        config.GetString(kCommandSection, kWatchEntry, kMaxCommandLine);
    if (!value || value->text.empty()) return std::nullopt;
    const bool fromFile = value->origin == config::ConfigOrigin::kFile;
    command = {std::move(value->text),
               fromFile ? CommandSource::kSystemFile : CommandSource::kEnvironment,
               {}};
  }
  CWatchOptions record;
  ParseWatchOptions(command.text, record);
  command.match = std::move(record.match);
  return command;
}

void MaskCommand(ListedCommand& command) {
  const runtime::MaskedLine line(command.text);
  for (std::string* const shown : {&command.match, &command.text}) *shown = line.Part(*shown);
}

/// A library that reads the suite's configuration, as the bridge does, would make the user's
/// directory and a trace of its own. The environment comes before every file.
void KeepLibraryFromWriting() {
  const std::string prefix(runtime::Product().prefix);
  const std::optional<config::ConfigPath> user = config::CConfig::LocateLocal();
  if (user && user->origin == config::PathOrigin::kHome) {
    ::setenv((prefix + "configlocal").c_str(), user->path.c_str(), 1);
  }
  for (const char* const entry : {"bridge", "File"}) {
    ::setenv((prefix + ":Trace:" + entry).c_str(), "", 1);
  }
}

}  // namespace

Listing CollectListing() {
  runtime::InitProductIdentity();
  ConnectRuntimeSettings();
  Listing listing;
  listing.files = CollectFiles();
  listing.command = CollectCommand();
  KeepLibraryFromWriting();
  ListLibrary(listing.command ? listing.command->match : std::string(), listing);
  if (listing.command) MaskCommand(*listing.command);
  return listing;
}

}  // namespace qixx::watch
