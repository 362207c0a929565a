// The variables of a token: a line is the name that is looked for, the rest the object's value.
#include <cstdlib>
#include <string>

#include "fuzz/fuzz.h"
#include "pkcs11/token_variables.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qixx::fuzzing::Input input(data, size);
  const std::string name = input.Line();
  const auto variables = qixx::pkcs11::ParseTokenVariables(input.RestBytes());
  const auto found = qixx::pkcs11::FindTokenVariable(input.RestBytes(), name);
  // The two agree, and what was parsed once comes back from the store.
  bool isListed = false;
  for (const auto& variable : variables) {
    if (variable.name != name) continue;
    isListed = true;
    if (found != variable.value) std::abort();
    break;
  }
  if (found.has_value() != isListed) std::abort();
  const auto stored = qixx::pkcs11::BuildTokenVariables(variables);
  if (qixx::pkcs11::ParseTokenVariables(stored) != variables) std::abort();
  return 0;
}
