// A configuration: load, get, set, add, delete, rename, sort, enumerate, save, and load again.
//
// The input is a list of operations, one byte and up to three lines each, up to a zero byte; the
// rest is the file's text.
#include <functional>
#include <optional>
#include <string>

#include "config/file.h"
#include "config/store.h"
#include "fuzz/fuzz.h"
#include "runtime/product.h"
#include "runtime/spare_files.h"
#include "runtime/text.h"
#include "tests/support/temporary_folder.h"

namespace {

using namespace qixx;
using config::ConfigResult;
using fuzzing::Require;

constexpr int kOperations = 32;
constexpr std::size_t kWalkLimit = 2000;

void Walk(config::CConfigFile& file) {
  for (std::size_t index = 0; index < kWalkLimit;) {
    const auto found = file.EnumEntries(index);
    if (!found) break;
    Require(found->section.size() <= runtime::kMaxText && found->entry.size() <= runtime::kMaxText);
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
  const std::string first = input.Line(), second = input.Line(), third = input.Line();
  std::size_t index = operation;
  const std::function<void()> changes[] = {
      [&] {
        if (file.SetValue(first, second, third) != ConfigResult::kOk) return;
        Require(!IsPlain(first + second + third) ||
                file.GetValue(first, second).result == ConfigResult::kOk);
      },
      [&] { file.AddValue(first, second, third); },
      [&] {
        file.Delete(first, second.empty() ? std::nullopt : std::optional<std::string_view>(second));
      },
      [&] { file.RenameSection(first, second); },
      [&] { file.Sort(); },
      [&] { file.Migrate(true); },
      [&] { file.StripComments(); },
      [&] { file.SetBlock(first, runtime::AsBytes(second)); },
      [&] { file.DeleteBlock(first); },
      [&] { file.EnumSectionEntries(first, index); },
      [&] {
        file.GetValue(first, second);
        static_cast<void>(file.SectionExists(first));
      },
  };
  changes[operation % std::size(changes)]();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  runtime::InitProductIdentity();
  static const testing::TemporaryFolder folder;
  const std::string path = folder.Path("f");
  fuzzing::Input input(data, size);
  fuzzing::Input operations = input;
  for (int number = 0; number < kOperations && input.Byte() != 0; ++number) {
    for (int line = 0; line < 3; ++line) static_cast<void>(input.Line());
  }
  Require(runtime::WriteWholeFile(path, runtime::AsText(input.RestBytes())));

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
    Require(!value || value->text.size() <= kLimit);
  }
  store.Close(true);
  return 0;
}
