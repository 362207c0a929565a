// The command line: options from one text over another, the argument vector, masked secrets.
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz/fuzz.h"
#include "runtime/files.h"
#include "runtime/process.h"
#include "runtime/secrets.h"
#include "watch/options.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qixx;
  static const bool prepared = [] {
    // The parser ends by reading the product configuration; there is none here.
    ::setenv("qixconfigglobal", "/nonexistent/qix.conf", 1);
    runtime::InitProductIdentity();
    return true;
  }();
  static_cast<void>(prepared);

  fuzzing::Input input(data, size);
  const std::string first = input.Line();
  const std::string second = input.Rest();
  watch::CWatchOptions record{};
  static_cast<void>(watch::ParseWatchOptions(first.c_str(), record));
  static_cast<void>(watch::ParseWatchOptions(second.c_str(), record));
  for (const char* field : {record.program, record.match, record.rest, record.section}) {
    if (std::memchr(field, 0, runtime::kTextSize) == nullptr) std::abort();
  }
  std::size_t count = 0;
  char** vector = runtime::SplitArguments(first.c_str(), second.c_str(), count);
  if (vector != nullptr && vector[count] != nullptr) std::abort();
  runtime::FreeArguments(vector);
  const std::unique_ptr<char[]> masked(runtime::MaskSecrets(second.c_str()));
  if (masked != nullptr && std::strlen(masked.get()) != std::strlen(second.c_str())) std::abort();
  return 0;
}
