// The command line: options from one text over another, the argument vector, masked secrets.
#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz.h"
#include "runtime/process.h"
#include "runtime/product.h"
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
  const std::vector<std::string> entries = runtime::SplitArguments(first, second);
  if (!first.empty() && entries.front() != first) std::abort();
  if (runtime::MaskSecrets(second).size() != second.size()) std::abort();
  return 0;
}
