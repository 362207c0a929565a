#include "pkcs11/token_variables.h"

#include <algorithm>

#include "runtime/product.h"
#include "runtime/text.h"

namespace qixx::pkcs11 {
namespace {

/// A store of this length, or a rest of one more, holds no variable.
constexpr std::size_t kEmptyStore = 2;
constexpr std::size_t kEmptyRest = kEmptyStore + 1;
constexpr std::size_t kMaxApplicationName = 31;

/// Takes a text and its terminator off the front; without terminator it is all that is left.
std::string_view TakePaddedText(std::string_view& rest) {
  const std::size_t end = std::min(rest.find('\0'), rest.size());
  const std::string_view text = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return runtime::DropTrailingBlanks(text);
}

}  // namespace

std::vector<TokenVariable> ParseTokenVariables(std::span<const std::uint8_t> stored) {
  std::vector<TokenVariable> variables;
  if (stored.size() <= kEmptyStore || stored[0] != 0) return variables;
  std::string_view rest = runtime::AsText(stored.subspan(1));
  while (rest.size() > kEmptyRest && rest[0] != '\0') {
    const std::string_view name = TakePaddedText(rest);
    if (name.empty()) break;  // blanks only
    variables.push_back({name, TakePaddedText(rest)});
  }
  return variables;
}

std::vector<std::uint8_t> BuildTokenVariables(std::span<const TokenVariable> variables) {
  std::vector<std::uint8_t> stored(1, 0);
  for (const auto& [name, value] : variables) {
    for (const std::string_view text : {name, value}) {
      stored.insert(stored.end(), text.begin(), text.end());
      stored.insert(stored.end(), {' ', '\0'});
    }
  }
  return stored;
}

bool IsStorable(std::string_view text) {
  return text.find('\0') == std::string_view::npos && runtime::DropTrailingBlanks(text) == text;
}

std::optional<std::string_view> FindTokenVariable(std::span<const std::uint8_t> stored,
                                                  std::string_view name) {
  const std::vector<TokenVariable> variables = ParseTokenVariables(stored);
  const auto found = std::ranges::find(variables, name, &TokenVariable::name);
  return found == variables.end() ? std::nullopt : std::optional(found->value);
}

VariableTemplate::VariableTemplate(bool isPrivate)
    : isPrivate_(isPrivate ? CK_TRUE : CK_FALSE),
      application_(runtime::Product().name.substr(0, kMaxApplicationName)),
      attributes_{{{CKA_CLASS, &class_, sizeof class_},
                   {CKA_TOKEN, &onToken_, sizeof onToken_},
                   {CKA_PRIVATE, &isPrivate_, sizeof isPrivate_},
                   {CKA_APPLICATION, application_.data(), application_.size()},
                   {CKA_LABEL, application_.data(), 0},
                   {CKA_VALUE, nullptr, 0}}} {}

std::span<CK_ATTRIBUTE> VariableTemplate::ToCreate(std::span<const CK_BYTE> value) {
  attributes_[5] = {CKA_VALUE, const_cast<CK_BYTE*>(value.data()), value.size()};
  return attributes_;
}

}  // namespace qixx::pkcs11
