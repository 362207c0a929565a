#include "pkcs11/token_variables.h"

#include <algorithm>

#include "runtime/text.h"

namespace qixx::pkcs11 {
namespace {

/// A store of this length, or a rest of one more, holds no variable.
constexpr std::size_t kEmptyStore = 2;
constexpr std::size_t kEmptyRest = kEmptyStore + 1;

/// Takes a text and its terminator off the front; without terminator it is all that is left.
std::string_view TakePaddedText(std::string_view& rest) {
  const std::size_t end = std::min(rest.find('\0'), rest.size());
  const std::string_view text = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return runtime::DropTrailingBlanks(text);
}

/// The variables of a stored text, one after the other. An empty name ends them.
class StoredVariables {
 public:
  struct Variable {
    std::string_view name;
    std::string_view value;
  };

  explicit StoredVariables(std::span<const std::uint8_t> stored) {
    if (stored.size() <= kEmptyStore || stored[0] != 0) return;
    rest_ = {reinterpret_cast<const char*>(stored.data()) + 1, stored.size() - 1};
  }

  std::optional<Variable> Next() {
    if (rest_.size() <= kEmptyRest || rest_[0] == '\0') return std::nullopt;
    const std::string_view name = TakePaddedText(rest_);
    if (name.empty()) {  // blanks only
      rest_ = {};
      return std::nullopt;
    }
    const std::string_view value = TakePaddedText(rest_);
    return Variable{name, value};
  }

 private:
  std::string_view rest_;
};

}  // namespace

std::vector<TokenVariable> ParseTokenVariables(std::span<const std::uint8_t> stored) {
  std::vector<TokenVariable> variables;
  StoredVariables parsed(stored);
  while (const auto variable = parsed.Next()) {
    variables.push_back({std::string(variable->name), std::string(variable->value)});
  }
  return variables;
}

std::vector<std::uint8_t> BuildTokenVariables(std::span<const TokenVariable> variables) {
  std::vector<std::uint8_t> stored(1, 0);
  for (const auto& [name, value] : variables) {
    for (const std::string* text : {&name, &value}) {
      stored.insert(stored.end(), text->begin(), text->end());
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
  StoredVariables parsed(stored);
  while (const auto variable = parsed.Next()) {
    if (variable->name == name) return variable->value;
  }
  return std::nullopt;
}

}  // namespace qixx::pkcs11
