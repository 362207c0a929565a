// A configuration: load, get, set, add, delete, rename, sort, enumerate, save, and load again.
//
// The input is a list of operations, one byte and up to three lines each, up to a zero byte; the
// rest is the file's text.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "config/file.h"
#include "config/store.h"
#include "fuzz/fuzz.h"
#include "runtime/product.h"
#include "runtime/spare_files.h"
#include "runtime/text.h"

namespace {

using namespace qixx;
using config::ConfigResult;

constexpr int kOperations = 32;
constexpr std::size_t kWalkLimit = 2000;

/// The file that is loaded and saved, one for each process.
const std::string& FilePath() {
  static const std::string path = [] {
    runtime::InitProductIdentity();
    std::string pattern = "/tmp/qixx-fuzz-XXXXXX";
    const int descriptor = ::mkstemp(pattern.data());
    if (descriptor < 0) std::abort();
    ::close(descriptor);
    static std::string kept = pattern;
    std::atexit([] { ::unlink(kept.c_str()); });
    return pattern;
  }();
  return path;
}

void Walk(config::CConfigFile& file) {
  for (std::size_t index = 0; index < kWalkLimit;) {
    const auto found = file.EnumEntries(index);
    if (!found) break;
    if (found->section.size() > runtime::kMaxText || found->entry.size() > runtime::kMaxText) {
      std::abort();
    }
    static_cast<void>(file.GetValue(found->section, found->entry));
  }
  for (std::size_t index = 0; index < kWalkLimit;) {
    const auto name = file.EnumBlocks(index);
    if (!name) break;
    static_cast<void>(file.GetBlock(*name));
  }
}

/// Nothing in it is written otherwise than it stands, or closes a block that the text leaves open.
bool IsPlain(const std::string& text) {
  return text.find('\r') == std::string::npos && text.find("/>") == std::string::npos;
}

void Change(config::CConfigFile& file, std::uint8_t operation, fuzzing::Input& input) {
  const std::string first = input.Line();
  const std::string second = input.Line();
  const std::string third = input.Line();
  std::size_t index = operation;
  switch (operation % 11) {
    case 0:
      if (file.SetValue(first, second, third) != ConfigResult::kOk) break;
      if (!IsPlain(first + second + third)) break;
      if (file.GetValue(first, second).result != ConfigResult::kOk) std::abort();
      break;
    case 1:
      file.AddValue(first, second, third);
      break;
    case 2:
      file.Delete(first, second.empty() ? std::nullopt : std::optional<std::string_view>(second));
      break;
    case 3:
      file.RenameSection(first, second);
      break;
    case 4:
      file.Sort();
      break;
    case 5:
      file.Migrate(true);
      break;
    case 6:
      file.StripComments();
      break;
    case 7:
      file.SetBlock(first, runtime::AsBytes(second));
      break;
    case 8:
      file.DeleteBlock(first);
      break;
    case 9:
      file.EnumSectionEntries(first, index);
      break;
    default:
      file.GetValue(first, second);
      static_cast<void>(file.SectionExists(first));
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string& path = FilePath();
  fuzzing::Input input(data, size);
  fuzzing::Input operations = input;
  for (int number = 0; number < kOperations && input.Byte() != 0; ++number) {
    for (int line = 0; line < 3; ++line) static_cast<void>(input.Line());
  }
  if (!runtime::WriteWholeFile(path, runtime::AsText(input.RestBytes()))) std::abort();

  {
    config::CConfigFile file;
    file.Open(true, path, true);
    Walk(file);
    for (int number = 0; number < kOperations; ++number) {
      const std::uint8_t operation = operations.Byte();
      if (operation == 0) break;
      Change(file, operation, operations);
    }
    file.Close(true);
  }
  {
    config::CConfigFile file;
    file.Open(false, path, true);
    Walk(file);
    file.Close(true);
  }
  config::CConfig store;
  if (store.OpenItem(false, path) == ConfigResult::kOk) {
    constexpr std::size_t kLimit = 127;
    const auto value = store.GetString("Command", "Watch", kLimit);
    if (value && value->text.size() > kLimit) std::abort();
  }
  store.Close(true);
  return 0;
}
