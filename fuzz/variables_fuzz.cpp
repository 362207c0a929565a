// The variables of a token: a line is the name that is looked for, the rest the object's value.
#include <array>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/fuzz.h"
#include "pkcs11/reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qixx::fuzzing::Input input(data, size);
  const std::string name = input.Line();
  std::array<char, 32> output{};
  for (const std::size_t room : {std::size_t{0}, std::size_t{1}, output.size()}) {
    const bool found = qixx::pkcs11::CHelperPkcs11::FindVariable(input.RestBytes(), name,
                                                                 std::span(output).first(room));
    if (found && std::memchr(output.data(), 0, room) == nullptr) std::abort();
  }
  return 0;
}
