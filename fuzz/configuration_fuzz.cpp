// A configuration: load, get, set, add, delete, rename, sort, enumerate, save, and load again.
//
// The input is a list of operations, one byte and up to three lines each, up to a zero byte; the
// rest is the file's text.
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "config/file.h"
#include "config/store.h"
#include "fuzz/fuzz.h"
#include "runtime/product.h"
#include "runtime/spare_files.h"
#include "runtime/text.h"

namespace {

using namespace qixx;

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
  std::array<char, 256> section{};
  std::array<char, 256> entry{};
  std::array<char, 64> value{};
  for (std::size_t index = 0; index < kWalkLimit;) {
    if (file.EnumEntries(section, entry, index) != config::kConfigOk) break;
    static_cast<void>(file.GetValue(section.data(), entry.data(), value, true));
    if (std::memchr(value.data(), 0, value.size()) == nullptr) std::abort();
  }
  for (std::size_t index = 0; index < kWalkLimit;) {
    if (file.EnumBlocks(entry, index) != config::kConfigOk) break;
    std::uint8_t* data = nullptr;
    std::size_t length = 0;
    static_cast<void>(file.GetBlock(entry.data(), data, length));
    delete[] data;
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
  std::array<char, 300> area{};
  std::size_t index = operation;
  switch (operation % 11) {
    case 0:
      if (file.SetValue(first.c_str(), second.c_str(), third.c_str(), true) != config::kConfigOk)
        break;
      if (!IsPlain(first + second + third)) break;
      if (file.GetValue(first.c_str(), second.c_str(), area, true) != config::kConfigOk)
        std::abort();
      break;
    case 1:
      file.AddValue(first.c_str(), second.c_str(), third.c_str());
      break;
    case 2:
      file.Delete(first.c_str(), second.empty() ? nullptr : second.c_str());
      break;
    case 3:
      file.RenameSection(first.c_str(), second.c_str());
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
      file.SetBlock(first.c_str(),
                    {reinterpret_cast<const std::uint8_t*>(second.data()), second.size()});
      break;
    case 8:
      file.DeleteBlock(first.c_str());
      break;
    case 9:
      file.EnumSectionEntries(first.c_str(), area, index);
      break;
    default:
      file.GetValue(first.c_str(), second.c_str(), area, false);
      static_cast<void>(file.SectionExists(first.c_str()));
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
    file.Open(true, path.c_str(), true);
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
    file.Open(false, path.c_str(), true);
    Walk(file);
    file.Close(true);
  }
  config::CConfig store;
  if (store.OpenItem(false, path.c_str()) == config::kConfigOk) {
    std::array<char, 128> value{};
    static_cast<void>(config::ReadConfigText(store, "Command", "Watch", value, true));
  }
  store.Close(true);
  return 0;
}
