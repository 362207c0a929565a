// The variables of a token: a line is the name that is looked for, the rest the object's value.
#include <algorithm>
#include <string>

#include "fuzz/fuzz.h"
#include "pkcs11/token_variables.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qixx::fuzzing::Input input(data, size);
  const std::string name = input.Line();
  const auto variables = qixx::pkcs11::ParseTokenVariables(input.RestBytes());
  const auto found = qixx::pkcs11::FindTokenVariable(input.RestBytes(), name);
  // The two agree, and what was parsed once comes back from the store.
  const auto listed = std::ranges::find(variables, name, [](const auto& one) { return one.name; });
  const bool isListed = listed != variables.end();
  qixx::fuzzing::Require(isListed ? found == listed->value : !found);
  const auto stored = qixx::pkcs11::BuildTokenVariables(variables);
  qixx::fuzzing::Require(qixx::pkcs11::ParseTokenVariables(stored) == variables);
  return 0;
}
